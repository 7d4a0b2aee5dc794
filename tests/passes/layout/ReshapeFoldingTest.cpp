// Folding Reshapes into each other, into constants, and with the Transposes around them.
#include <gtest/gtest.h>
#include "GraphRefiner/src/Pass.h"
#include "GraphRefiner/src/PassRegistry.h"
#include "tests/support/GraphText.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

const std::string kPair = "in x[2,3,5]\n m[6,5] = Reshape(x)\n y[5,6] = Reshape(m)\n";

TEST(FoldReshapes, EveryInstanceFolds) {
  for (const PassId id : {PassId::FoldReshapesInstance1, PassId::FoldReshapesInstance2,
                          PassId::FoldReshapesInstance3, PassId::FoldReshapesInstance4}) {
    expectPass(id, {{.fault = "is another rule",
                     .before = kPair + "out y",
                     .after = "in x[2,3,5]\n m: y[5,6] = Reshape(x)\n out y"}});
  }
}

TEST(FoldReshapes, FoldsChainsAndShapeTensors) {
  const std::string source = "in x[2,3,5]\n in q[2] i32\n";
  const std::string shapes = "const s1[2] i32 = 6 5\n const s2[2] i32 = 5 6\n";
  expectPass(
      PassId::FoldReshapesInstance1,
      {{.fault = "a longer chain isn't folded to its end",
        .before = kPair + "z[10,3] = Reshape(y)\n v[30] = Reshape(z)\n w = Relu(v)\n out w",
        .after = "in x[2,3,5]\n m: v[30] = Reshape(x)\n w = Relu(v)\n out w"},
       {.fault = "the shape tensor of the Reshape that stays is the wrong one, or gone",
        .before = "in x[2,3,5]\n" + shapes + "m[6,5] = Reshape(x, s1)\n y[5,6] = Reshape(m, s2)\n out y",
        .after = "in x[2,3,5]\n" + shapes + "m: y[5,6] = Reshape(x, s2)\n out y"},
       {.fault = "a shape that both take is lost",
        .before = "in x[2,3,5]\n const s[2] i32 = 6 5\n m[6,5] = Reshape(x, s)\n y[6,5] = Reshape(m, s)\n"
                  "out y",
        .after = "in x[2,3,5]\n const s[2] i32 = 6 5\n m: y[6,5] = Reshape(x, s)\n out y"},
       {.fault = "ops that compute the old shape stay behind",
        .before = source + "p = Relu(q)\n s = Relu(p)\n t = Relu(q)\n m[6,5] = Reshape(x, s)\n"
                           "y[5,6] = Reshape(m, t)\n out y",
        .after = source + "t = Relu(q)\n m: y[5,6] = Reshape(x, t)\n out y"},
       {.fault = "an op loses the output that gave the shape, and its other outputs move up",
        .before = source + "s: s[2] i32, t[2] i32 = Halves(q)\n m[6,5] = Reshape(x)\n"
                           "y[5,6] = Reshape(m, s)\n z = Relu(t)\n out y\n out z",
        .after = source + "s: s[2] i32, t[2] i32 = Halves(q)\n m: y[5,6] = Reshape(x)\n z = Relu(t)\n"
                          "out y\n out z"},
       {.fault = "the Reshape that stays reads a shape that is computed later",
        .before = source + "p = Relu(q)\n m[6,5] = Reshape(x, p)\n s = Relu(q)\n y[5,6] = Reshape(m, s)\n"
                           "out y"},
       {.fault = "the tensor between is a graph output", .before = kPair + "out y\n out m"},
       {.fault = "somebody else reads the tensor between", .before = kPair + "z = Relu(m)\n out y\n out z"}});
}

TEST(SquashReshape, FoldsTheConstant) {
  const std::string constant = "const c[2,3] i32 = iota\n r[3,2] = Reshape(c)\n";
  const PassCase folds = {.fault = "the reader's constant has the wrong name or dims",
                          .before = constant + "y = Relu(r)\n z = Relu(r)\n out y\n out z",
                          .after =
                              "const c[2,3] i32 = iota\n const r[3,2] i32 = iota\n y = Relu(r)\n"
                              "z = Relu(r)\n out y\n out z"};
  for (const PassId id : {PassId::SquashReshapeInstance1, PassId::SquashReshapeInstance2}) {
    expectPass(id, {folds});
  }
  expectPass(PassId::SquashReshapeInstance1,
             {{.fault = "the way back to the source layout is lost",
               .before = "const c[6] = iota\n r[3,2] order=[1,0] = Reshape(c)\n y = Relu(r)\n out y",
               .after = "const c[6] = iota\n const r[3,2] order=[1,0] = iota\n y = Relu(r)\n out y"},
              {.fault = "a constant that others read is copied",
               .before = constant + "y = Relu(r)\n z = Relu(c)\n out y\n out z"},
              {.fault = "a graph output of other dims loses its name", .before = constant + "out r"},
              {.fault = "a graph output that is also read loses its name",
               .before = constant + "y = Relu(r)\n out r\n out y"},
              {.fault = "a graph output of the same dims ends the run",
               .before = "const c[2,3] = iota\n r[2,3] = Reshape(c)\n out r"},
              {.fault = "a taken name ends the run",
               .before = "in c_tensorOut_0[2]\n" + constant +
                         "y = Relu(r)\n z = Relu(c_tensorOut_0)\n"
                         "out y\n out z"}});
}

TEST(SquashReshape, AnEncodingPerChannelFollowsItsAxis) {
  struct Row {
    const char* fault;
    std::string dims;
    std::int32_t axis;  // afterwards; -1 when the Reshape stays
  };
  const Row rows[] = {{"the axis isn't moved", "[1,2,3,4]", 2},
                      {"a unit axis in between is taken", "[2,1,3,2,2]", 2},
                      {"channels that are split have an axis", "[6,4]", -1},
                      {"another axis of the same length is taken", "[3,2,4]", -1}};
  for (const Row& row : rows) {
    auto graph = readGraph("const c[2,3,4] sq8 scale=1 offset=0 = iota\n r" + row.dims +
                           " = Reshape(c)\n y = Custom(r)\n out y");
    QuantInfo record;
    record.encoding = QuantEncodingKind::AxisScaleOffset;
    record.axis = 1;
    record.axisEncodings.resize(3);
    graph->getTensor("c")->setQInfo(ORLO_DATATYPE_SFIXED_POINT_8, record);
    const auto pass = graphrefiner::getPassRegistry()
                          .table(graphrefiner::OptimizationStage::PostLayout)
                          .at(PassId::SquashReshapeInstance1);
    ASSERT_EQ(pass->run(graph), row.axis >= 0) << row.fault;
    const auto operand = graph->getOp("y")->getInput(0);
    EXPECT_EQ(operand->isStatic() ? operand->getQuantInfo().axis : -1, row.axis) << row.fault;
  }
}

TEST(SquashReshape, LeavesInitialStatesToTheRecurrentPasses) {
  const auto lstmReading = [](std::size_t place, const std::string& state) {
    std::string operands;
    for (std::size_t i = 0; i < 12; ++i) {
      operands += (i == 0 ? "" : ", ") + (i == place ? std::string("r") : "x");
    }
    return "in x[1,4]\n const c[4] = iota\n" + state + "y[1,4] = plain Lstm(" + operands + ")\n out y";
  };
  const std::string reshape = "r[1,4] = Reshape(c)\n";
  expectPass(PassId::SquashReshapeInstance1,
             {{.fault = "folds the hidden state", .before = lstmReading(10, reshape)},
              {.fault = "folds the cell state", .before = lstmReading(11, reshape)},
              {.fault = "takes another operand for a state",
               .before = lstmReading(9, reshape),
               .after = lstmReading(9, "const r[1,4] = iota\n")}});
}

TEST(OptimizeTransposeReshape, RemovesWhatMovesNoElement) {
  const std::string transposeFirst = "m = Transpose(SRC) perm=[1,0,2]\n y[1,5,1] = Reshape(m)\n";
  const std::string reshapeFirst = "m[1,1,5] = Reshape(SRC)\n y = Transpose(m) perm=[0,2,1]\n";
  const auto graph = [](const std::string& front, std::string pair, const std::string& behind) {
    const std::string source = front.find("r =") != std::string::npos ? "r" : "x";
    return front + pair.replace(pair.find("SRC"), 3, source) + behind;
  };
  const std::string input = "in x[1,5,1]\n";
  const std::string relu = input + "r = Relu(x)\n";
  const std::string shared = "z = Relu(m)\n out y\n out z";
  for (const std::string& pair : {transposeFirst, reshapeFirst}) {
    expectPass(
        PassId::OptimizeTransposeReshape,
        {{.fault = "the pair in front of a graph output stays",
          .before = graph(relu, pair, "out y"),
          .after = input + "r: y = Relu(x)\n out y"},
         {.fault = "the pair behind a graph input stays",
          .before = graph(input, pair, "z = Relu(y)\n out z"),
          .after = input + "z = Relu(x)\n out z"},
         {.fault = "a pair between input and output ends the run", .before = graph(input, pair, "out y")},
         {.fault = "a pair between a shared tensor and an output ends the run",
          .before = graph(relu, pair, "z = Relu(r)\n out y\n out z")},
         {.fault = "the tensor between is a graph output", .before = graph(relu, pair, "out y\n out m")},
         {.fault = "somebody else reads the tensor between", .before = graph(relu, pair, shared)}});
  }
  expectPass(PassId::OptimizeTransposeReshape,
             {{.fault = "a second long axis is permuted",
               .before = "in x[2,5,1]\n r = Relu(x)\n m = Transpose(r) perm=[1,0,2]\n y[2,5,1] = Reshape(m)\n"
                         "out y"},
              {.fault = "the output has other dims",
               .before = relu + "m = Transpose(r) perm=[1,0,2]\n y[1,1,5] = Reshape(m)\n out y"},
              {.fault = "an axis of unknown length counts as 1",
               .before = "in x[?1,5]\n m[5,?1] = Transpose(x) perm=[1,0]\n y[?1,5] = plain Reshape(m)\n"
                         "z[?1,5] = Next(y)\n out z"}});
}

// x -> a = Transpose -> r = Reshape -> y = Transpose
std::string sandwich(const std::string& x, const std::string& p, const std::string& dims,
                     const std::string& q, const std::string& behind = "out y") {
  return "in x" + x + "\n a = Transpose(x) perm=" + p + "\n r" + dims + " = Reshape(a)\n" +
         "y = Transpose(r) perm=" + q + "\n" + behind;
}

TEST(ReplaceTRTWithReshape, ReplacesWhatKeepsTheOrderOfElements) {
  const auto reshape = [](const std::string& x, const std::string& y) {
    return "in x" + x + "\n r_replaced: y" + y + " = Reshape(x)\n out y";
  };
  const std::string unit = sandwich("[2,1,6]", "[1,0,2]", "[1,12,1]", "[2,1,0]", "");
  expectPass(
      PassId::ReplaceTRTWithReshape,
      {{.fault = "moving unit axes counts as a permutation",
        .before = unit + "out y",
        .after = reshape("[2,1,6]", "[1,12,1]")},
       {.fault = "two permutations that undo each other stay",
        .before = sandwich("[4,3]", "[1,0]", "[3,2,2]", "[1,2,0]"),
        .after = reshape("[4,3]", "[2,2,3]")},
       {.fault = "an empty tensor stays",
        .before = sandwich("[0,3]", "[1,0]", "[3,0]", "[1,0]"),
        .after = reshape("[0,3]", "[0,3]")},
       {.fault = "an empty tensor gets dims that a Reshape can't express",
        .before = sandwich("[0,3]", "[1,0]", "[0,3]", "[1,0]")},
       {.fault = "the first permutation is ignored",
        .before = sandwich("[2,3,4]", "[1,0,2]", "[3,8,1]", "[0,2,1]")},
       {.fault = "the last permutation is ignored",
        .before = sandwich("[2,1,6]", "[1,0,2]", "[2,6]", "[1,0]")},
       {.fault = "an order counts as its own inverse",
        .before = sandwich("[2,3,4]", "[1,2,0]", "[3,4,2]", "[1,2,0]")},
       {.fault = "the first tensor between is a graph output", .before = unit + "out y\n out a"},
       {.fault = "the second tensor between is a graph output", .before = unit + "out y\n out r"},
       {.fault = "somebody reads the first tensor between", .before = unit + "z = Relu(a)\n out y\n out z"},
       {.fault = "somebody reads the second tensor between", .before = unit + "z = Relu(r)\n out y\n out z"},
       {.fault = "a taken name ends the run", .before = "in k[2]\n" + unit + "r_replaced = Relu(k)\n out y"},
       {.fault = "an axis of unknown length is taken for known",
        .before = "in x[2,?1,6]\n a[?1,2,6] = Transpose(x) perm=[1,0,2]\n r[1,12,1] = plain Reshape(a)\n"
                  "y = Transpose(r) perm=[2,1,0]\n out y"}});
}

}  // namespace
}  // namespace netforge::testing
