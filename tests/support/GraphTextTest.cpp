#include "tests/support/GraphText.h"

#include <gtest/gtest.h>
#include "tests/support/Failures.h"

namespace netforge::testing {
namespace {

// Every construct once. A word that the reader drops, or the printer forgets, would hide the same loss in
// every test that is written in this form.
constexpr const char* kEverything =
    R"(order spatial_last
in x[2,3,?5,7] f32 NCHW src=NHWC order=[0,2,3,1]
in m[1] i32 srctype=i64 updateable
in o[2,3] f32 optional
in sp[4,5,3] f32 sparse=6/2
const c[2] f32 = 1 -0.5
const h[3] f16 = fill 0.5
const i[2,2] i64 = 0 1 2 -3
null n[0] f32
const q[2] sq8 scale=0.5 offset=-3 = -128 127
a[2,5,?7,3] f32 = Transpose(x) perm=[0,2,3,1]
top: v[2,1] f32 range=-1.0/1.0, w[2,1] i32 = TopK(o) k=1 largest=false
k[2,3] f32 noquant = Custom(o, n) b=true e=[] f=0.5 g=2.0 i=-1 j=3:i32 l=[1.5,-2.0] p=[[0,1],[2,3]] s=word \
  t="two words" u=7 y=9:u8 z=[1,2]:i32
p[2,3] f32 = plain Transpose(k) perm=[1,0]
g[2] f32 = Gather(c, m) axis=0
out a
out w optional
out c
)";

std::string oneLine(std::string text) {
  const std::size_t at = text.find(" \\\n ");
  return at == std::string::npos ? text : text.erase(at, 4);
}

TEST(GraphText, EveryConstructIsPrintedAsItIsRead) {
  std::string expected = oneLine(kEverything);
  const std::string printed = printGraph(*readGraph(kEverything));
  EXPECT_EQ(printed, expected);
  EXPECT_EQ(explainDifference(*readGraph(kEverything), *readGraph(printed)), "");
  EXPECT_EQ(readGraph(kEverything)->checkInvariants(), std::vector<std::string>());
}

TEST(GraphText, ClassesFillInWhatTheTextLeavesOut) {
  const auto graph = readGraph(R"(
    in x[2,3,5] f32
    w = Reduce(x) axes=[-1] reduce_type=ReduceSum   # typed, canonicalised
    r[30] = Reshape(x)
    out w
  )");
  EXPECT_EQ(graph->getTensor("w")->getDims(), (std::vector<std::uint32_t>{2, 3}));
  EXPECT_EQ(graph->getOp("w")->getAttributes()->getAttr<std::string>("packageName"), "orlo.base");
  EXPECT_FALSE(graph->getOp("w")->getAttributes()->getAttr<bool>("keep_dims"));
  EXPECT_TRUE(graph->getOp("r")->getAttributes()->isSupplemental("shape"));
  EXPECT_EQ(graph->getGraphOutputs().at(0), graph->getTensor("w"));
  EXPECT_EQ(graph->getTensor("w")->getTensorType(), TensorType::GraphOutput);
}

TEST(GraphText, ATextThatSaysNothingClearIsRefused) {
  const std::pair<const char*, const char*> rows[] = {
      {"x[2] f32", "no statement"},
      {"in x f32", "the shape is missing"},
      {"in x[2] f33", "unknown word: f33"},
      {"const c[3] f32 = 1 2", "2 values for 3"},
      {"const c[3] f32", "the values are missing"},
      {"out y", "no such tensor"},
      {"y = Relu[x]", "the operands are missing"},
      {"y = Custom(x) flag", "unknown word: flag"},
      {"y = Custom(x) a=[[1],[2,3]]", "uneven lists"},
      {"y = Custom(x) a=[1", "a bracket or quote is open"},
      {"order onnx", "'order' comes first"},
      {"x = Relu(x)", "the tensor is there already"},
  };
  for (const auto& [line, reason] : rows) {
    const bool isInput = std::string(line).starts_with("in ");
    const std::string text = isInput ? line : "in x[2] f32\n" + std::string(line);
    const std::string failure = failureOf<std::invalid_argument>([&] { readGraph(text); });
    EXPECT_EQ(failure, "line " + std::string(isInput ? "1" : "2") + " '" + line + "': " + reason);
  }
}

// The comparer must see each of these: a test whose expected graph differs that little would pass otherwise.
TEST(GraphText, EachDifferenceIsNamed) {
  const std::string base = R"(
    in x[2,3] f32 NF
    const c[2] f32 = 1 2
    a = Transpose(x) perm=[1,0]
    b = Custom(a, c) k=1
    out b
  )";
  struct Row {
    const char* from;
    const char* to;
    const char* difference;
  };
  const Row rows[] = {
      {"perm=[1,0]", "perm=[0,1]", "op a: attribute perm: expected [1,0], found [0,1]\n"},
      {"k=1", "k=1:i32", "op b: attribute k: expected 1, found 1:i32\n"},
      {"k=1", "", "op b: attribute k=1 is missing\n"},
      {"k=1", "k=1 l=2", "op b: attribute l=2 is not expected\n"},
      {"Custom(a, c)", "Custom(c, a)", "op b: inputs: expected [a,c], found [c,a]\n"},
      {"= Custom", "= Other", "op b: type: expected Custom, found Other\n"},
      {"a = Transpose", "a[3,2] = plain Transpose", "op a: expected an op of its class, found a plain op\n"},
      {"= 1 2", "= 1 3", "tensor c: element 1: expected 2.0, found 3.0\n"},
      {"c[2] f32", "c[2] i32", "tensor c: type: expected f32, found i32\n"},
      {"b = Custom", "b[3,2] f32 scale=0.5 offset=1 = Custom",
       "tensor b: quantisation: expected encoding 2147483647 scale 0 offset 0, found encoding 0 scale 0.5 "
       "offset 1\n"},
      {"x[2,3] f32 NF", "x[2,3] f32 NC", "tensor x: layout: expected NF, found NC\n"},
      {"b = Custom", "b[3,?2] = Custom",
       "tensor b: shape: expected IrTensorShape(dims = [3,2] , dy_axes=[]), found IrTensorShape(dims = [3,2] "
       ", "
       "dy_axes=[1])\n"},
      {"out b", "out b\nout x", "graph outputs: expected [b], found [b,x]\n"},
      {"out b", "const d[1] f32 = 0\nout b", "tensor d is not expected\n"},
      {"out b", "d = Relu(x)\nout b", "op d[Relu] is not expected\ntensor d is not expected\n"},
      {"b = Custom", "t: b = Custom", "op b[Custom] is missing\nop t[Custom] is not expected\n"},
  };
  const auto expected = readGraph(base);
  for (const Row& row : rows) {
    std::string text = base;
    text.replace(text.find(row.from), std::string(row.from).size(), row.to);
    const std::string found = explainDifference(*expected, *readGraph(text));
    EXPECT_NE(found.find(row.difference), std::string::npos) << row.to << " gives\n" << found;
  }
  EXPECT_EQ(explainDifference(*expected, *readGraph(base)), "");
  const auto moved = readGraph(base + "d = Relu(x)\ne = Relu(x)");
  moved->moveOptoIndex(moved->getOp("e"), 0);
  EXPECT_EQ(explainDifference(*readGraph(base + "d = Relu(x)\ne = Relu(x)"), *moved),
            "order of the ops: expected [a,b,d,e], found [e,a,b,d]\n");
}

}  // namespace
}  // namespace netforge::testing
