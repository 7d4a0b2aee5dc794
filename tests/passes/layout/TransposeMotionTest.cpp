// Moving Transposes across a mux, a sum, an elementwise op and to the axis of a Softmax.
#include <gtest/gtest.h>
#include "GraphRefiner/src/PassRegistry.h"
#include "tests/support/GraphText.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

std::string transpose(const std::string& output, const std::string& input,
                      const std::string& perm = "[0,2,3,1]") {
  return output + " = Transpose(" + input + ") perm=" + perm + "\n";
}

std::vector<std::string> sourcesOf(const IrGraph& graph, TraceKind kind, const std::string& name) {
  std::vector<std::string> names;
  for (const auto& source : graph.getTraceInfo(kind, name)) names.push_back(source.name);
  return names;
}

// --- mux ---

const std::string kMuxInputs = "in s[2,3,5,7]\n in a[2,3,5,7]\n in b[2,3,5,7]\n";

std::string forMux(const std::string& input, const std::string& perm = "[0,2,3,1]") {
  return transpose(input + "_transpose_for_mux", input, perm);
}

TEST(HoistTransposeAboveElementWiseMux, TransposesTheInputs) {
  const std::string mux = "m = ElementWiseMux(s, r, b)\n";
  const std::string turned =
      "ElementWiseMux(s_transpose_for_mux, r_transpose_for_mux, b_transpose_for_mux)\n";
  const std::string inputs = "in s[2,3,5,7]\n in a[2,3,5,7]\n in b[2,3,5,7]\n r = Relu(a)\n";
  const std::string turnedInputs = "in s[2,3,5,7]\n in a[2,3,5,7]\n in b[2,3,5,7]\n" + forMux("b") +
                                   forMux("s") + "r = Relu(a)\n" + forMux("r");
  expectPass(
      PassId::HoistTransposeAboveElementWiseMux,
      {{.fault = "Transposes stand elsewhere than behind their inputs, or two muxes get their own",
        .before = inputs + mux + "n = ElementWiseMux(s, b, r)\n" + transpose("t", "m") + transpose("u", "n") +
                  "out t\n out u",
        .after = turnedInputs + "m: t = " + turned +
                 "n: u = ElementWiseMux(s_transpose_for_mux, b_transpose_for_mux, r_transpose_for_mux)\n"
                 "out t\n out u"},
       {.fault = "a Transpose that is there but behind the mux breaks the order",
        .before = kMuxInputs + "m = ElementWiseMux(s, a, a)\n" + transpose("t", "m") + forMux("a") +
                  "y = Relu(a_transpose_for_mux)\n out t\n out y",
        .after = kMuxInputs + forMux("s") + forMux("a") +
                 "m: t = ElementWiseMux(s_transpose_for_mux, a_transpose_for_mux, a_transpose_for_mux)\n"
                 "y = Relu(a_transpose_for_mux)\n out t\n out y"},
       {.fault = "a scalar is transposed, or refused",
        .before = "in s[1]\n in a[2,3,5,7]\n const b[1,1] = 2\n m[2,3,5,7] = ElementWiseMux(s, a, b)\n" +
                  transpose("t", "m") + "out t",
        .after = "in s[1]\n in a[2,3,5,7]\n const b[1,1] = 2\n" + forMux("a") +
                 "m: t = ElementWiseMux(s, a_transpose_for_mux, b)\n out t"},
       {.fault = "dims alone no longer decide",
        .before = "in s[1,8,8,1]\n m = ElementWiseMux(s, s)\n" + transpose("t", "m", "[0,2,1,3]") + "out t",
        .after = "in s[1,8,8,1]\n m: t = ElementWiseMux(s, s)\n out t"},
       {.fault = "the Transpose of a constant writes a constant",
        .before = "in s[1]\n in a[2,3,5,7]\n const b[2,3,5,7] = iota\n m = ElementWiseMux(s, a, b)\n" +
                  transpose("t", "m") + "out t",
        .after = "in s[1]\n in a[2,3,5,7]\n const b[2,3,5,7] = iota\n" + forMux("b") + forMux("a") +
                 "m: t = ElementWiseMux(s, a_transpose_for_mux, b_transpose_for_mux)\n out t"}});
}

TEST(HoistTransposeAboveElementWiseMux, KeepsEncodingsAndTrace) {
  const std::string inputs = "in s[1]\n in a[2,3,5,7] sq8 scale=0.5 offset=-3\n";
  auto graph = readGraph(inputs +
                         "m[2,3,5,7] sq8 scale=1 = ElementWiseMux(s, a)\n"
                         "t[2,5,7,3] sq8 scale=1 = Transpose(m) perm=[0,2,3,1]\n out t");
  graph->addTraceSources(TraceKind::Tensor, "a", {{"source", TraceKind::Tensor}});
  QuantInfo record;
  record.encoding = QuantEncodingKind::ArrayEncoding;
  record.arrayEncodings.resize(2);
  graph->getTensor("m")->setQInfo(ORLO_DATATYPE_SFIXED_POINT_8, record);
  const auto pass = graphrefiner::getPassRegistry()
                        .table(graphrefiner::OptimizationStage::PostLayout)
                        .at(PassId::HoistTransposeAboveElementWiseMux);
  EXPECT_TRUE(pass->run(graph));
  EXPECT_EQ(graph->getTensor("t")->getQuantInfo(), record)
      << "the array of encodings went with the mux's tensor";
  const std::string name = "a_transpose_for_mux";
  EXPECT_EQ(graph->getTensor(name)->getQuantInfo(), graph->getTensor("a")->getQuantInfo());
  for (const TraceKind kind : {TraceKind::Op, TraceKind::Tensor}) {
    EXPECT_EQ(sourcesOf(*graph, kind, name), std::vector<std::string>{"source"});
  }
}

TEST(HoistTransposeAboveElementWiseMux, TestsAllInputsBeforeItEdits) {
  const auto muxOf = [](const std::string& lastInput) {
    return kMuxInputs + "m = ElementWiseMux(s, a, " + lastInput + ")\n";
  };
  const std::string tail = transpose("t", "m") + "out t";
  expectPass(
      PassId::HoistTransposeAboveElementWiseMux,
      {{.fault = "the last input is of another rank", .before = "in v[5,7]\n" + muxOf("v") + tail},
       {.fault = "the last input's name belongs to another order",
        .before = muxOf("b") + forMux("b", "[0,3,1,2]") + "y = Relu(b_transpose_for_mux)\n out y\n" + tail},
       {.fault = "the last input's name belongs to another op",
        .before = muxOf("b") + "b_transpose_for_mux = Relu(b)\n out b_transpose_for_mux\n" + tail},
       {.fault = "the application reads the mux", .before = muxOf("b") + "out m\n" + tail}});
}

// --- sum ---

TEST(SinkTransposeBelowSum, MakesOneTransposeOfTwo) {
  const std::string inputs = "in a[2,3,5,7]\n in b[2,3,5,7]\n";
  const std::string pair = transpose("p", "a") + transpose("q", "b");
  const std::string sum = "e: s = Eltwise_Binary(p, q) operation=0\n";
  const std::string sunk =
      "e: s = Eltwise_Binary(a, b) operation=0\n transpose_e: s_permute = Transpose(s) perm=[0,2,3,1]\n";
  expectPass(
      PassId::SinkTransposeBelowSum,
      {{.fault = "a reader of the sum is left behind, or the sum becomes a graph input",
        .before = inputs + pair + sum + "y = Relu(s)\n z = Relu(s)\n out y\n out z",
        .after = inputs + sunk + "y = Relu(s_permute)\n z = Relu(s_permute)\n out y\n out z"},
       {.fault = "one Transpose at both places is squashed twice",
        .before = inputs + transpose("p", "a") +
                  "e: s = Eltwise_Binary(p, p) operation=0\n y = Relu(s)\n out y\n out b both",
        .after =
            inputs +
            "e: s = Eltwise_Binary(a, a) operation=0\n transpose_e: s_permute = Transpose(s) perm=[0,2,3,1]\n"
            "y = Relu(s_permute)\n out y\n out b both"},
       {.fault = "a graph output is entered twice or loses its place",
        .before = inputs + pair + sum + "z = Relu(a)\n out s\n out z",
        .after = inputs + sunk + "z = Relu(a)\n out s_permute\n out z",
        .allow = kOutputsChange},
       {.fault = "layouts, encoding or way back stay on the wrong tensor",
        .before =
            "in a[2,3,5,7] NCHW\n in b[2,3,5,7] NCHW\n"
            "p NHWC = Transpose(a) perm=[0,2,3,1]\n q NHWC = Transpose(b) perm=[0,2,3,1]\n"
            "e: s[2,5,7,3] sq8 scale=0.5 offset=1 NHWC order=[0,3,1,2] = Eltwise_Binary(p, q) operation=0\n"
            "y f32 = Relu(s)\n out y",
        .after = "in a[2,3,5,7] NCHW\n in b[2,3,5,7] NCHW\n"
                 "e: s[2,3,5,7] sq8 scale=0.5 offset=1 NCHW = Eltwise_Binary(a, b) operation=0\n"
                 "transpose_e: s_permute[2,5,7,3] sq8 scale=0.5 offset=1 NHWC order=[0,3,1,2] = Transpose(s) "
                 "perm=[0,2,3,1]\n"
                 "y f32 = Relu(s_permute)\n out y",
        .prepare =
            [](IrGraph& graph) {
              graph.addTraceSources(TraceKind::Tensor, "s", {{"source", TraceKind::Tensor}});
            },
        .inspect =
            [](const IrGraph& graph) {
              const std::vector<std::string> source{"source"};
              EXPECT_EQ(sourcesOf(graph, TraceKind::Op, "transpose_e"), source);
              EXPECT_EQ(sourcesOf(graph, TraceKind::Tensor, "s_permute"), source);
              EXPECT_EQ(sourcesOf(graph, TraceKind::Op, "y"), source);
            }},
       {.fault = "orders that differ on equal dims",
        .before = "in a[3,3,3]\n in b[3,3,3]\n" + transpose("p", "a", "[1,2,0]") +
                  transpose("q", "b", "[2,0,1]") + sum + "out s"},
       {.fault = "operands of different dims",
        .before = "in a[2,3,5,7]\n in b[1,3,5,7]\n" + pair + sum + "out s"},
       {.fault = "another operation",
        .before = inputs + pair + "e: s = Eltwise_Binary(p, q) operation=13\n out s"},
       {.fault = "a transposed tensor is a graph output", .before = inputs + pair + sum + "out s\n out q"},
       {.fault = "the new tensor's name is taken",
        .before = inputs + pair + sum + "s_permute = Relu(s)\n out s_permute"},
       {.fault = "the new op's name is taken",
        .before = inputs + pair + sum + "transpose_e: y = Relu(s)\n out y"}});
}

// --- elementwise op ---

// x and y[2,5,7,3] -> the elementwise op on Transpose(x) and y -> its inverse
std::string around(const std::string& eltwise, const std::string& tail = "out z") {
  return "in x[2,3,5,7]\n in y[2,5,7,3]\n" + transpose("i", "x") + "e = " + eltwise + "\n" +
         transpose("z", "e", "[0,3,1,2]") + tail;
}

TEST(ReduceEltwiseBinTranspose, MovesTheTransposeToTheOtherOperand) {
  const std::string front = "in x[2,3,5,7]\n in y[2,5,7,3]\n";
  const std::string other = transpose("y_0312", "y", "[0,3,1,2]");
  expectPass(
      PassId::ReduceEltwiseBinTranspose,
      {{.fault = "the operands of a difference are swapped, left",
        .before = around("Eltwise_Binary(i, y) operation=18"),
        .after = front + other + "e: z = Eltwise_Binary(x, y_0312) operation=18\n out z"},
       {.fault = "the operands of a difference are swapped, right",
        .before = around("Eltwise_Binary(y, i) operation=18"),
        .after = front + other + "e: z = Eltwise_Binary(y_0312, x) operation=18\n out z"},
       {.fault = "a Transpose of the other operand isn't shared",
        .before = around("Eltwise_Binary(y, i) operation=18",
                         transpose("w", "y", "[0,3,1,2]") + "u = Relu(w)\n out z\n out u"),
        .after = front + transpose("w", "y", "[0,3,1,2]") +
                 "e: z = Eltwise_Binary(w, x) operation=18\n"
                 "u = Relu(w)\n out z\n out u",
        .prints = "insertOrReuseTranspose: Error: Unable to guarantee topological order while inserting "
                  "Transpose for e\n"},
       {.fault = "one transposed tensor as both operands gets another Transpose",
        .before = "in x[2,3,5,7]\n" + transpose("i", "x") + "e = Eltwise_Binary(i, i) operation=13\n" +
                  transpose("z", "e", "[0,3,1,2]") + "out z",
        .after = "in x[2,3,5,7]\n e: z = Eltwise_Binary(x, x) operation=13\n out z"},
       {.fault = "a chain isn't followed to its end",
        .before = "in x[2,3,5]\n in y[2,3,5]\n" + transpose("i", "x", "[1,2,0]") +
                  transpose("j", "y", "[1,2,0]") + "e = Eltwise_Binary(i, j) operation=18\n" +
                  transpose("f", "e", "[2,0,1]") + "out f",
        .after = "in x[2,3,5]\n in y[2,3,5]\n" + transpose("j", "y", "[1,2,0]") +
                 transpose("j_201", "j", "[2,0,1]") +
                 "e: f = Eltwise_Binary(x, j_201) operation=18\n out f"}});
}

TEST(ReduceEltwiseBinTranspose, LeavesWhatItWouldBreak) {
  const std::string product = "Eltwise_Binary(i, y) operation=13";
  expectPass(
      PassId::ReduceEltwiseBinTranspose,
      {{.fault = "the source itself is the other operand",
        .before = "in x[3,3]\n" + transpose("i", "x", "[1,0]") + "e = Eltwise_Binary(i, x) operation=18\n" +
                  transpose("z", "e", "[1,0]") + "out z"},
       {.fault = "orders that don't undo each other",
        .before = "in x[3,3,3]\n in y[3,3,3]\n" + transpose("i", "x", "[1,2,0]") +
                  "e = Eltwise_Binary(i, y) operation=0\n" + transpose("z", "e", "[1,2,0]") + "out z"},
       {.fault = "the other operand has another rank",
        .before = "in x[2,3,5,7]\n in y[7,3]\n" + transpose("i", "x") +
                  "e = Eltwise_Binary(i, y) operation=13\n" + transpose("z", "e", "[0,3,1,2]") + "out z"},
       {.fault = "the other operand is broadcast along the new last axis",
        .before = "in x[2,3,5,7]\n in y[2,5,1,3]\n" + transpose("i", "x") +
                  "e = Eltwise_Binary(i, y) operation=13\n" + transpose("z", "e", "[0,3,1,2]") + "out z"},
       {.fault = "the result between is a graph output", .before = around(product, "out e\n out z")},
       {.fault = "the transposed operand is a graph output", .before = around(product, "out i\n out z")},
       {.fault = "the new Transpose's name is taken",
        .before = around(product, "y_0312 = Relu(y)\n out y_0312\n out z")}});
}

// --- softmax ---

TEST(PermuteAxisToLast, WrapsTheOpInTransposes) {
  struct Row {
    std::string dims;
    std::string axis;
    std::string forward, forwardDims;
    std::string backward;
  };
  const std::vector<Row> rows{{"[2,3]", "0", "10", "[3,2]", "10"},
                              {"[2,3,5]", "1", "021", "[2,5,3]", "021"},
                              {"[2,3,5]", "0", "210", "[5,3,2]", "210"},
                              {"[2,3,5,7]", "0", "3120", "[7,3,5,2]", "3120"},
                              {"[2,3,5,7]", "1", "0231", "[2,5,7,3]", "0312"},
                              {"[2,3,5,7]", "2", "0312", "[2,7,3,5]", "0231"},
                              {"[2,3,5,7,4]", "1", "02341", "[2,5,7,4,3]", "04123"},
                              {"[2,3,5,7,4]", "2", "01432", "[2,3,4,7,5]", "01432"},
                              {"[2,3,5,7,4]", "3", "04123", "[2,4,3,5,7]", "02341"}};
  const auto list = [](const std::string& digits) {
    std::string text = "[";
    for (const char digit : digits) text += std::string(text.size() > 1 ? "," : "") + digit;
    return text + "]";
  };
  std::vector<PassCase> cases;
  for (const Row& row : rows) {
    for (const std::string type : {"Softmax", "LogSoftmax"}) {
      const std::string input = "in x" + row.dims + "\n";
      const std::string last = std::to_string(row.forward.size() - 1);
      cases.push_back({.fault = type + " of " + row.dims + " on axis " + row.axis,
                       .before = input + "y = " + type + "(x) axis=" + row.axis + "\n z = Relu(y)\n out z",
                       .after = input + transpose("x_" + row.forward, "x", list(row.forward)) + "y" +
                                row.forwardDims + " = " + type + "(x_" + row.forward + ") axis=" + last +
                                "\n" +
                                transpose("y_post_transpose_" + row.backward, "y", list(row.backward)) +
                                "z = Relu(y_post_transpose_" + row.backward + ")\n out z"});
    }
  }
  expectPass(PassId::PermuteAxisToLast, cases);
}

TEST(PermuteAxisToLast, KeepsNamesAndSharesTransposes) {
  const std::string input = "in x[2,3,5,7]\n";
  const std::string softmax = "o: y = Softmax(x) axis=1\n";
  const std::string front = transpose("x_0231", "x");
  expectPass(
      PassId::PermuteAxisToLast,
      {{.fault = "a graph output loses its name or its layout",
        .before = input + softmax + "z = Relu(y)\n out y\n out z",
        .after = input + front +
                 "o: o_post_transpose_[2,5,7,3] = Softmax(x_0231) axis=3\n"
                 "o_post_transpose_0312: y = Transpose(o_post_transpose_) perm=[0,3,1,2]\n"
                 "z = Relu(y)\n out y\n out z"},
       {.fault = "a graph output whose order is its own inverse ends the run",
        .before = "in x[2,3,5]\n o: y NCF src=NCF = Softmax(x) axis=1\n out y",
        .after = "in x[2,3,5]\n x_021 = Transpose(x) perm=[0,2,1]\n"
                 "o: o_post_transpose_021[2,5,3] = Softmax(x_021) axis=2\n"
                 "o_post_transpose_021: y = Transpose(o_post_transpose_021) perm=[0,2,1]\n out y"},
       {.fault = "a Transpose of the input isn't shared",
        .before = input + "r = Relu(x)\n" + transpose("t", "r") +
                  "o: y = Softmax(r) axis=1\n s = Relu(y)\n u = Relu(t)\n"
                  "out s\n out u",
        .after = input + "r = Relu(x)\n" + transpose("t", "r") + "o: y[2,5,7,3] = Softmax(t) axis=3\n" +
                 "o_post_transpose_0312 = Transpose(y) perm=[0,3,1,2]\n s = Relu(o_post_transpose_0312)\n"
                 "u = Relu(t)\n out s\n out u"},
       {.fault = "a negative axis is taken for another one",
        .before = input + "y = LogSoftmax(x) axis=-1\n out y"},
       {.fault = "the last axis is moved", .before = input + "y = Softmax(x) axis=3\n out y"},
       {.fault = "an axis that isn't there ends the run",
        .before = input + "y = LogSoftmax(x) axis=4\n out y"},
       {.fault = "an axis that nobody states ends the run", .before = input + "y = LogSoftmax(x)\n out y"},
       {.fault = "the name in front is taken", .before = input + softmax + "x_0231 = Relu(y)\n out x_0231"},
       {.fault = "the name behind is taken",
        .before = input + softmax + "o_post_transpose_0312 = Relu(y)\n out o_post_transpose_0312"},
       {.fault = "the new name of a graph output is taken",
        .before = input + softmax + "o_post_transpose_ = Relu(y)\n out y\n out o_post_transpose_"}});
}

}  // namespace
}  // namespace netforge::testing
