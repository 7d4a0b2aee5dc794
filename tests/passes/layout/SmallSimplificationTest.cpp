// Casts, negations, ops on constants and uniform slopes.
#include <gtest/gtest.h>
#include "GraphRefiner/src/PassRegistry.h"
#include "GraphRefiner/src/passes/layout/OptimizeNegation.h"
#include "metadata/Transforms.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/Failures.h"
#include "tests/support/GraphText.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

TEST(SquashCast, RemovesWhatConvertsNothing) {
  const std::string relu = "in x[2,3]\n r = Relu(x)\n";
  const std::string narrowing = relu + "c[2,3] f16 = Cast(r)\n out c";
  const std::vector<PassCase> both = {
      {.fault = "a Cast between equal types stays",
       .before = relu + "c[2,3] f32 = Cast(r)\n out c",
       .after = "in x[2,3]\n r: c = Relu(x)\n out c"},
      {.fault = "the encoding behind the Cast is lost",
       .before = "in x[2,3]\n c[2,3] f32 = Cast(x)\n y = Relu(c)\n out y",
       .after = "in x[2,3]\n y = Relu(x)\n out y"},
      {.fault = "input and output of the graph become one", .before = "in x[2,3]\n c = Cast(x)\n out c"},
      {.fault = "a tensor with another reader and a graph output end the run",
       .before = relu + "c = Cast(r)\n y = Relu(r)\n out c\n out y"}};
  expectPass(PassId::RemoveCastIdentity, both);
  expectPass(PassId::ForcePruneCast, both);
  expectPass(PassId::RemoveCastIdentity, {{.fault = "a conversion goes", .before = narrowing}});
  expectPass(
      PassId::ForcePruneCast,
      {{.fault = "a conversion stays",
        .before = narrowing,
        .after = "in x[2,3]\n r: c[2,3] f16 = Relu(x)\n out c"},
       {.fault = "the encoding of a Cast to fixed point is lost",
        .before = "in x[2,3]\n r = Relu(x)\n c[2,3] sq8 scale=0.5 = Cast(r)\n y = Relu(r)\n"
                  "z = Relu(c)\n out y\n out z",
        .after = "in x[2,3]\n r sq8 scale=0.5 = Relu(x)\n y f32 = Relu(r)\n z = Relu(r)\n out y\n out z"}});
}

TEST(OptimizeNegation, WritesProductsWithMinusOneAsNegations) {
  const auto product = [](const std::string& type, const std::string& values, const std::string& operands) {
    return "in x[2,3] " + type + "\n const c[3] " + type + " = " + values + "\n y " + type +
           " = Eltwise_Binary(" + operands + ") operation=13\n out y";
  };
  std::vector<PassCase> cases;
  for (const std::string type : {"f32", "f16", "i32", "i16", "i8"}) {
    for (const std::string operands : {"x, c", "c, x"}) {
      cases.push_back({.fault = type + " stays for " + operands,
                       .before = product(type, "-1 -1 -1", operands),
                       .after = "in x[2,3] " + type + "\n const c[3] " + type + " = -1 -1 -1\n y_neg: y " +
                                type + " = Eltwise_Unary(x) operation=8\n out y"});
    }
    cases.push_back(
        {.fault = "another element passes for -1 in " + type, .before = product(type, "-1 -1 -2", "x, c")});
  }
  const std::string negated = "y = Eltwise_Binary(x, c) operation=13\n out y";
  const std::vector<PassCase> nearMisses = {
      {.fault = "255 passes for -1", .before = product("u8", "255 255 255", "x, c")},
      {.fault = "an update of the factor has no effect",
       .before = "in x[2,3]\n const c[3] f32 updateable = fill -1\n" + negated},
      {.fault = "the result shrinks", .before = "in x[1,3]\n const c[2,3] = fill -1\n" + negated},
      {.fault = "a product of constants", .before = "const x[2] = 1 2\n const c[2] = -1 -1\n" + negated},
      {.fault = "a taken name ends the run",
       .before = "in x[2,3]\n const c[3] = fill -1\n y_neg = Relu(x)\n" + negated + "\n out y_neg"},
      {.fault = "a constant without elements passes unnoticed",
       .before = "in x[2,0]\n const c[2,0] = fill -1\n" + negated,
       .throws = "allElementsEqualToValue: Tensor has zero elements"}};
  cases.insert(cases.end(), nearMisses.begin(), nearMisses.end());
  expectPass(PassId::OptimizeNegation, cases);
  EXPECT_EQ(failureOf<std::runtime_error>([] { graphrefiner::isAllMinusOne(nullptr); }),
            "allElementsEqualToValue: Null tensor passed to allElementsEqualToValue");
}

TEST(OptimizeNegation, WritesSumsWithNegationsAsDifferences) {
  const std::string inputs = "in a[2,3]\n in b[2,3]\n";
  const std::string minusA = inputs + "n = Eltwise_Unary(a) operation=8\n";
  const std::string minusB = "m = Eltwise_Unary(b) operation=8\n";
  const auto sum = [](const std::string& operands) {
    return "y = Eltwise_Binary(" + operands + ") operation=0\n out y";
  };
  const std::string difference = "y_sub: y = Eltwise_Binary(b, a) operation=18\n out y";
  expectPass(
      PassId::OptimizeNegation,
      {{.fault = "-a + b", .before = minusA + sum("n, b"), .after = inputs + difference},
       {.fault = "b + -a", .before = minusA + sum("b, n"), .after = inputs + difference},
       {.fault = "a + -a",
        .before = minusA + sum("a, n"),
        .after = inputs + "y_sub: y = Eltwise_Binary(a, a) operation=18\n out y"},
       {.fault = "-a + -b",
        .before = minusA + minusB + sum("n, m"),
        .after = minusA + "y_sub: y = Eltwise_Binary(n, b) operation=18\n out y"},
       {.fault = "a product with -1 isn't taken on in the same run",
        .before = inputs + "const c[1] = -1\n n = Eltwise_Binary(a, c) operation=13\n" + sum("b, n"),
        .after = inputs + "const c[1] = -1\n" + difference},
       {.fault = "a broadcast sum shrinks",
        .before = "in a[3]\n in b[2,3]\n n = Eltwise_Unary(a) operation=8\n" + sum("b, n"),
        .after = "in a[3]\n in b[2,3]\n" + difference},
       {.fault = "the source of the negation is forgotten",
        .before = minusA + sum("n, b"),
        .after = inputs + difference,
        .prepare =
            [](IrGraph& graph) {
              graph.addTraceSources(TraceKind::Op, "n", {{"model_neg"}});
              graph.addTraceSources(TraceKind::Op, "y", {{"model_add"}});
            },
        .inspect =
            [](const IrGraph& graph) {
              EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, "y_sub").size(), 2u);
              EXPECT_TRUE(graph.getTraceInfo(TraceKind::Op, "n").empty());
            }},
       {.fault = "another reader's negation goes", .before = minusA + "z = Relu(n)\n out z\n" + sum("n, b")},
       {.fault = "the application's negation goes", .before = minusA + "out n\n" + sum("b, n")},
       {.fault = "one negation at both operands is taken away", .before = minusA + sum("n, n")},
       {.fault = "another unary op counts",
        .before = inputs + "n = Eltwise_Unary(a) operation=4\n" + sum("n, b")},
       {.fault = "a difference counts", .before = minusA + "y = Eltwise_Binary(b, n) operation=18\n out y"},
       {.fault = "a taken name ends the run",
        .before = minusA + "y_sub = Relu(b)\n out y_sub\n" + sum("n, b")}});
}

TEST(SquashConstantInput, ComputesGelu) {
  const auto gelu = [](const std::string& constant, const std::string& output, const std::string& end) {
    return "const c[3] " + constant + "\n y[3] " + output + " = ElementWiseNeuron(c) operation=1\n" + end;
  };
  const std::string reader = "z f32 = Relu(y)\n out z";
  std::vector<PassCase> cases;
  for (const std::string type : {"f32", "f16", "i32", "u32", "i16", "u16", "i8", "u8"}) {
    const std::string values = type + " = 0 7 100";
    cases.push_back({.fault = type + " is read as another type",
                     .before = gelu(values, type, reader),
                     .after = "const c[3] " + values + "\n const y[3] f32" +
                              (type[0] == 'f' ? "" : " noquant") + " = 0 7 100\n" + reader});
  }
  const std::string floats = "f32 = -2 0.5 3";
  const std::vector<PassCase> more = {
      {.fault = "negative values, or the way back to the source layout",
       .before = gelu(floats, "f32 order=[0]", "out y"),
       .after =
           "const c[3] " + floats + "\n const y[3] order=[0] = -0.04550028 0.34573123 2.9959502\n out y"},
      {.fault = "another neuron is taken for GELU",
       .before = "const c[3] " + floats + "\n y = ElementWiseNeuron(c) operation=8\n" + reader},
      {.fault = "a quantised constant is read as numbers",
       .before = gelu("sq8 scale=0.5 = 1 2 3", "f32", reader)},
      {.fault = "an update of the constant has no effect",
       .before = gelu("f32 updateable = 1 2 3", "f32", reader)},
      {.fault = "64-bit integers end the run", .before = gelu("i64 = 1 2 3", "f32", reader)},
      {.fault = "a computed input counts as a constant",
       .before = "in c[3]\n y = ElementWiseNeuron(c) operation=1\n out y"},
      {.fault = "a taken name ends the run",
       .before = "in y_c[2]\n" + gelu(floats, "f32", reader + "\n v = Relu(y_c)\n out v")}};
  cases.insert(cases.end(), more.begin(), more.end());
  expectPass(PassId::SquashConstantInput, cases);
}

TEST(SquashConstantInput, FoldsTransposes) {
  const std::string turned = "const c[2,3] = iota\n t = Transpose(c) perm=[1,0]\n";
  expectPass(PassId::SquashConstantInput,
             {{.fault = "the weight keeps the name of the old constant",
               .before = "in x[4,2]\n" + turned + "y[4,3] = plain FullyConnected(x, t)\n out y",
               .after = "in x[4,2]\n const c[2,3] = iota\n const t[3,2] = 0 3 1 4 2 5\n"
                        "y[4,3] = plain FullyConnected(x, t)\n out y"},
              {.fault = "a constant that others read is copied",
               .before = turned + "y = Relu(t)\n z = Relu(c)\n out y\n out z"}});
  auto graph = readGraph(turned + "y = Relu(t)\n out c\n out y");
  const std::string before = printGraph(*graph);
  CapturedOutput output;
  const auto pass = graphrefiner::getPassRegistry()
                        .table(graphrefiner::OptimizationStage::PostLayout)
                        .at(PassId::SquashConstantInput);
  EXPECT_TRUE(pass->run(graph)) << "counts as a change all the same";
  EXPECT_EQ(output.text(),
            "squashConstantTranspose: Cannot squash constant Transpose op t into previous op: input tensor c "
            "is a graph output (app-read) tensor.\n");
  EXPECT_EQ(printGraph(*graph), before);
}

TEST(FlattenPReluAlpha, KeepsOneElement) {
  const auto prelu = [](const std::string& alpha, const std::string& end = "") {
    return "in x[2,3]\n const a" + alpha + "\n y[2,3] = Prelu(x, a)\n out y\n" + end;
  };
  const auto inspect = [](const IrGraph& graph) {
    const auto alpha = graph.getStaticTensor("a");
    EXPECT_LE(alpha->getDataSize(), 4u) << "the other elements stay behind";
    const auto steps = alpha->getTransformManager()->getTransforms();
    ASSERT_EQ(steps.size(), 1u);
    const auto step = std::dynamic_pointer_cast<ReshapeTransform>(steps[0]);
    ASSERT_TRUE(step);
    EXPECT_EQ(step->shape, std::vector<std::uint32_t>{1});
  };
  std::vector<PassCase> cases;
  for (const std::string type : {"f32", "f16", "i32", "i16", "i8"}) {
    cases.push_back({.fault = type + " stays",
                     .before = prelu("[3] " + type + " order=[0] = 2 2 2"),
                     .after = prelu("[1] " + type + " order=[0] = 2"),
                     .inspect = inspect});
    cases.push_back(
        {.fault = "a different element goes in " + type, .before = prelu("[3] " + type + " = 2 2 3")});
  }
  const std::vector<PassCase> more = {
      {.fault = "a slope of rank 2 stays",
       .before = prelu("[1,1] = 2"),
       .after = prelu("[1] = 2"),
       .inspect = inspect},
      {.fault = "equal NaNs count as equal", .before = prelu("[3] = fill nan")},
      {.fault = "an update no longer fits", .before = prelu("[3] f32 updateable = fill 2")},
      {.fault = "another type is read", .before = prelu("[3] u8 = fill 2")},
      {.fault = "a single element changes", .before = prelu("[1] = 2")},
      {.fault = "another op's slope loses its name", .before = prelu("[3] = fill 2", "z = Relu(a)\n out z")},
      {.fault = "the application's slope shrinks", .before = prelu("[3] = fill 2", "out a")},
      {.fault = "the data shrinks with the slope",
       .before = "const a[3] = fill 2\n y[3] = Prelu(a, a)\n out y"},
      {.fault = "a computed slope counts as a constant",
       .before = "in x[2,3]\n in a[3]\n y = Prelu(x, a)\n out y"}};
  cases.insert(cases.end(), more.begin(), more.end());
  expectPass(PassId::FlattenPReluAlpha, cases);
}

}  // namespace
}  // namespace netforge::testing
