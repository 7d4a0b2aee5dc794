// Layout changes around norm ops and around a Concat.
#include <gtest/gtest.h>
#include "GraphRefiner/src/passes/layout/OptimizeNonInplaceConcat.h"
#include "tests/support/PassFixture.h"
#include "tests/support/TextEdit.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

struct Turn {
  std::string axes;
  std::string dims;    // of the tensor
  std::string format;  // of the tensor
  std::string turned;  // dims in front of the norm op
  std::string newFormat;
  std::string order;
  std::string newAxes;
  std::string back;
};

TEST(AdjustNormOpBuffers, NormalizesOverTrailingAxes) {
  const std::string five = "[2,3,4,5,6]";
  std::vector<PassCase> cases;
  for (const Turn& turn : std::vector<Turn>{
           {"[1]", "[2,3,4,5]", "NCHW", "[2,4,5,3]", "NHWC", "[0,2,3,1]", "[3]", "[0,3,1,2]"},
           {"[1]", five, "NCDHW", "[2,4,5,6,3]", "NDHWC", "[0,2,3,4,1]", "[4]", "[0,4,1,2,3]"},
           {"[1]", "[2,3,4]", "NCF", "[2,4,3]", "NFC", "[0,2,1]", "[2]", "[0,2,1]"},
           {"[1]", "[2,3,4]", "NFC", "[2,4,3]", "NCF", "[0,2,1]", "[2]", "[0,2,1]"},
           {"[1,2]", "[2,3,4,5]", "NHWC", "[2,5,3,4]", "NCHW", "[0,3,1,2]", "[2,3]", "[0,2,3,1]"},
           // The depth axis moves too.
           {"[2,3]", five, "NDHWC", "[2,6,3,4,5]", "NCDHW", "[0,4,1,2,3]", "[3,4]", "[0,2,3,4,1]"},
           {"[2,3]", five, "NCDHW", "[2,3,6,4,5]", "NONTRIVIAL", "[0,1,4,2,3]", "[3,4]", "[0,1,3,4,2]"},
           {"[2,0]", "[2,3,4]", "NONTRIVIAL", "[3,4,2]", "NONTRIVIAL", "[1,2,0]", "[1,2]", "[2,0,1]"}}) {
    const std::string norm = " = LayerNorm(SOURCE, g) axes=AXES\n";
    const std::string front = "in t" + turn.dims + " f32 " + turn.format + "\n const g[1] = 2\n";
    const std::string inner = "t." + turn.newFormat;
    const std::string outer = "y." + turn.format;
    cases.push_back({.fault = turn.format + " with axes " + turn.axes + " is turned otherwise",
                     .before = front + "y f32 " + turn.format +
                               with(with(norm, "SOURCE", "t"), "AXES", turn.axes) + "z = Relu(y)\n out z",
                     .after = front + inner + turn.turned + " " + turn.newFormat +
                              " = Transpose(t) perm=" + turn.order + "\n y" + turn.turned + " " +
                              turn.newFormat + with(with(norm, "SOURCE", inner), "AXES", turn.newAxes) +
                              outer + turn.dims + " " + turn.format + " = Transpose(y) perm=" + turn.back +
                              "\n z = Relu(" + outer + ")\n out z"});
  }
  expectPass(PassId::AdjustNormOpBuffers, cases);
}

TEST(AdjustNormOpBuffers, SharesTheTransposeAndKeepsGraphOutputs) {
  const std::string inputs = "in t[2,3,4] f32 NONTRIVIAL\n const g[1] = 2\n";
  const std::string pair =
      inputs + "y = LayerNorm(t, g) axes=[1]\n z = RmsNorm(t, g) axes=[-2]\n v = Add(y, z)\n out v";
  const std::string turned = "t.NONTRIVIAL[2,4,3] NONTRIVIAL = Transpose(t) perm=[0,2,1]\n";
  const std::string image = "in t[2,3,4,5] f32 NCHW src=NHWC\n const g[1] = 2\n";
  const std::string output = image + "y f32 NCHW src=NHWC order=[0,2,3,1] = LayerNorm(t, g) axes=[1]\n out y";
  const std::string front = "t.NHWC[2,4,5,3] = Transpose(t) perm=[0,2,3,1]\n";
  const std::string single = inputs + "y = LayerNorm(t, g) axes=[1]\n v = Relu(y)\n out v";
  expectPass(
      PassId::AdjustNormOpBuffers,
      {{.fault = "the ops of one order aren't moved together, or one is moved twice",
        .before = pair,
        .after = inputs + turned + "y[2,4,3] = LayerNorm(t.NONTRIVIAL, g) axes=[2]\n" +
                 "y.NOT_YET_DEFINED = Transpose(y) perm=[0,2,1]\n" +
                 "z[2,4,3] = RmsNorm(t.NONTRIVIAL, g) axes=[2]\n" +
                 "z.NOT_YET_DEFINED = Transpose(z) perm=[0,2,1]\n" +
                 "v = Add(y.NOT_YET_DEFINED, z.NOT_YET_DEFINED)\n out v"},
       {.fault = "an op of another order shares the Transpose",
        .before = with(pair, "axes=[-2]", "axes=[0]"),
        .after = inputs + "y = LayerNorm(t, g) axes=[1]\n t.NONTRIVIAL[3,4,2] = Transpose(t) perm=[1,2,0]\n" +
                 "z[3,4,2] = RmsNorm(t.NONTRIVIAL, g) axes=[2]\n" +
                 "z.NOT_YET_DEFINED = Transpose(z) perm=[2,0,1]\n v = Add(y, z.NOT_YET_DEFINED)\n out v"},
       {.fault = "the application sees another layout, or its order is lost",
        .before = output,
        .after =
            image + front +
            "y: y.NCHW[2,4,5,3] NHWC src=NHWC order=[0,1,2,3] = LayerNorm(t.NHWC, g) axes=[3]\n" +
            "y.NCHW: y[2,3,4,5] NCHW src=NHWC order=[0,2,3,1] = Transpose(y.NCHW) perm=[0,3,1,2]\n out y"},
       {.fault = "a quantised output loses its encoding",
        .before = with(output, "y f32 NCHW src=NHWC", "y[2,3,4,5] sq8 NCHW scale=0.5 offset=-3 srctype=f32"),
        .after =
            image + front +
            "y: y.NCHW[2,4,5,3] sq8 NHWC scale=0.5 offset=-3 srctype=f32 = LayerNorm(t.NHWC, g) axes=[3]\n" +
            "y.NCHW: y[2,3,4,5] sq8 NCHW scale=0.5 offset=-3 srctype=f32 = Transpose(y.NCHW) "
            "perm=[0,3,1,2]\n out y"},
       {.fault = "the recorded layout decides although the tensor has another",
        .before = with(output, "[1]\n", "[1,2]\n"),
        .after = image + "t.NONTRIVIAL[2,5,3,4] = Transpose(t) perm=[0,3,1,2]\n" +
                 "y: y.NCHW[2,5,3,4] NONTRIVIAL = LayerNorm(t.NONTRIVIAL, g) axes=[2,3]\n" +
                 "y.NCHW: y[2,3,4,5] NCHW = Transpose(y.NCHW) perm=[0,2,3,1]\n out y",
        .prepare =
            [](IrGraph& graph) {
              const auto tensor = graph.getTensor("t");
              graph.getOp("y")->setInputAxisFormat(AxisFormat::NHWC, 0);
              tensor->setAxisFormat(AxisFormat::NCHW);
            }},
       {.fault = "the last axis is moved", .before = with(single, "axes=[1]", "axes=[2]")},
       {.fault = "rows of features are turned",
        .before = with(single, "[2,3,4] f32 NONTRIVIAL", "[2,3] f32 NF")},
       {.fault = "an axis that isn't there ends the run", .before = with(single, "axes=[1]", "axes=[1,7]")},
       {.fault = "a taken name in front ends the run",
        .before = with(single, "in t", "in t.NONTRIVIAL[7]\n in t") + "\n w = Relu(t.NONTRIVIAL)\n out w"},
       {.fault = "a Transpose behind of the old layout is shared",
        .before = single + "\n y.NOT_YET_DEFINED[2,4,3] = Transpose(y) perm=[0,2,1]\n w = "
                           "Relu(y.NOT_YET_DEFINED)\n out w"}});
}

TEST(AdjustNormOpFlattenLastDims, MakesOneAxisOfSeveral) {
  const std::string weights = "const g[4,5] = iota\n const b[4,5] = iota 3\n";
  const std::string input = "in t[2,3,4,5]\n";
  const std::string before = input + weights + "y = LayerNorm(t, g, b) axes=[2,3]\n z = Relu(y)\n out z";
  const std::string pre = "y_adjust_norm_pre_reshape";
  const std::string post = "y_adjust_norm_post_reshape";
  const std::string after = input + "const g[20] = iota\n const b[20] = iota 3\n " + pre +
                            "[2,3,1,20] = Reshape(t)\n y = LayerNorm(" + pre + ", g, b) axes=[3]\n " + post +
                            "[2,3,4,5] = Reshape(y)\n z = Relu(" + post + ")\n out z";
  const std::string text = "netforge::graphrefiner::AdjustNormOpFlattenLastDimsPass::flattenLastDims: ";
  const auto shared = [&](const std::string& name) {
    return text + name + " has 2 consumers. Multiple consumers on " + name +
           " is not supported in flatten_last_dims\n\n";
  };
  const auto rewritten = [](PassCase passCase) {
    passCase.allow = kReportsNothing;
    return passCase;
  };
  const std::string both = with(before, "out z", "v = RmsNorm(t, g) axes=[2,3]\n out z\n out v");
  expectPass(
      PassId::AdjustNormOpFlattenLastDims,
      {rewritten({.fault = "dims or weights are wrong",
                  .before = before,
                  .after = after,
                  .prepare =
                      [](IrGraph& graph) {
                        graph.addTraceSources(TraceKind::Op, "y", {{"norm", TraceKind::Op}});
                        graph.addTraceSources(TraceKind::Tensor, "y", {{"result", TraceKind::Tensor}});
                      },
                  .inspect =
                      [&](const IrGraph& graph) {
                        EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, post).size(), 2u);
                        EXPECT_EQ(graph.getTraceInfo(TraceKind::Tensor, post).size(), 2u);
                      }}),
       rewritten({.fault = "a graph output is flattened",
                  .before = with(with(before, "z = Relu(y)\n ", ""), "out z", "out y"),
                  .after = with(with(with(with(after, "y = Layer", "y: " + post + " = Layer"),
                                          post + "[2,3,4,5] = Reshape(y)",
                                          post + ": y[2,3,4,5] = Reshape(" + post + ")"),
                                     "z = Relu(" + post + ")\n ", ""),
                                "out z", "out y")}),
       rewritten({.fault = "a constant that is gamma and beta is flattened twice",
                  .before = with(with(before, "const b[4,5] = iota 3\n", ""), "g, b", "g, g"),
                  .after = with(with(after, "const b[20] = iota 3\n", ""), "g, b", "g, g")}),
       rewritten({.fault = "a gamma of one element is refused",
                  .before = with(before, "g[4,5] = iota", "g[1,1] = 2"),
                  .after = with(after, "g[20] = iota", "g[1] = 2")}),
       {.fault = "a shared gamma is flattened or reported wrongly",
        .before = both,
        .prints = shared("gamma") + shared("gamma")},
       {.fault = "a shared beta is flattened or reported wrongly",
        .before = with(before, "out z", "v = Relu(b)\n out z\n out v"),
        .prints = shared("beta")},
       {.fault = "the three last axes of four are flattened",
        .before = with(before, "axes=[2,3]", "axes=[1,2,3]"),
        .prints = ""},
       {.fault = "one axis is flattened", .before = with(before, "axes=[2,3]", "axes=[3]"), .prints = ""},
       {.fault = "other axes than the last are flattened",
        .before = with(before, "axes=[2,3]", "axes=[1,2]")},
       {.fault = "axes in another order are flattened", .before = with(before, "axes=[2,3]", "axes=[3,2]")},
       {.fault = "an op without gamma ends the run", .before = with(before, "t, g, b", "t"), .prints = ""},
       {.fault = "a computed gamma is flattened",
        .before = with(with(before, "y = Layer", "h = Relu(g)\n y = Layer"), "t, g", "t, h")},
       {.fault = "a gamma of another size is flattened",
        .before = with(before, "g[4,5]", "g[5]"),
        .prints = ""},
       {.fault = "the application's gamma is flattened", .before = before + "\n out g"},
       {.fault = "a taken name ends the run",
        .before = with(before, "in t", "in " + post + "[7]\n in t") + "\n v = Relu(" + post + ")\n out v"}});
}

TEST(OptimizeNonInplaceConcat, ConcatenatesInTheLayoutThatIsAligned) {
  const std::string inputs = "in a[2,8,3,5]\n in b[2,240]\n";
  // Axis 3 of [2,3,5,n] is the last one; in front of the Transpose it is axis 1, and 8 and 16 are enough.
  const std::string before = inputs +
                             "t = Transpose(a) perm=[0,2,3,1]\n r[2,3,5,16] = Reshape(b)\n"
                             "c = Concat(t, r) axis=3\n i[2,15,24] = Reshape(c)\n"
                             "z = Transpose(i) perm=[0,2,1]\n out z";
  const std::string after =
      inputs +
      "t = Transpose(a) perm=[0,2,3,1]\n t_0312[2,8,3,5] = Transpose(t) perm=[0,3,1,2]\n"
      "r[2,3,5,16] = Reshape(b)\n r_0312[2,16,3,5] = Transpose(r) perm=[0,3,1,2]\n"
      "c[2,24,3,5] = Concat(t_0312, r_0312) axis=1\n"
      "c_0_0231[2,3,5,24] = Transpose(c) perm=[0,2,3,1]\n"
      "i[2,15,24] = Reshape(c_0_0231)\n z = Transpose(i) perm=[0,2,1]\n out z";
  expectPass(
      PassId::OptimizeNonInplaceConcat,
      {{.fault = "an order or the inverse of it is taken for the other",
        .before = before,
        .after = after,
        .prepare =
            [](IrGraph& graph) {
              graph.addTraceSources(TraceKind::Tensor, "t", {{"left", TraceKind::Tensor}});
            },
        .inspect =
            [](const IrGraph& graph) {
              EXPECT_EQ(graph.getTraceInfo(TraceKind::Tensor, "t_0312").size(), 1u);
              EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, "c").size(), 1u);
            }},
       {.fault = "the operands change sides",
        .before = with(before, "Concat(t, r)", "Concat(r, t)"),
        .after = with(after, "(t_0312, r_0312)", "(r_0312, t_0312)")},
       {.fault = "a Concat that is aligned moves",
        .before = with(
            with(with(with(before, "a[2,8", "a[2,32"), "b[2,240]", "b[2,480]"), "r[2,3,5,16]", "r[2,3,5,32]"),
            "i[2,15,24]", "i[2,15,64]")},
       {.fault = "a Concat moves to where it isn't aligned either",
        .before = with(with(before, "a[2,8", "a[2,12"), "i[2,15,24]", "i[2,15,28]")},
       {.fault = "three operands are moved", .before = with(before, "Concat(t, r)", "Concat(t, r, t)")},
       {.fault = "a taken name in front ends the run",
        .before = with(before, "in b", "in r_0312[7]\n in b") + "\n v = Relu(r_0312)\n out v"},
       {.fault = "a taken name behind ends the run",
        .before = with(before, "in b", "in c_0_0231[7]\n in b") + "\n v = Relu(c_0_0231)\n out v"},
       {.fault = "the joined tensor is a graph output", .before = before + "\n out c"},
       {.fault = "an operand is a graph output", .before = before + "\n out t"}});
}

TEST(OptimizeNonInplaceConcat, AsksForMultiplesByThePlaceOfTheAxis) {
  using graphrefiner::isConcatAligned;
  EXPECT_FALSE(isConcatAligned(0, {}));
  EXPECT_TRUE(isConcatAligned(0, {{3, 5}, {7, 5}}));
  EXPECT_TRUE(isConcatAligned(0, {{3}}));
  EXPECT_TRUE(isConcatAligned(1, {{1, 8, 5}, {1, 16, 5}}));
  EXPECT_FALSE(isConcatAligned(1, {{1, 12, 5}, {1, 16, 5}}));
  EXPECT_TRUE(isConcatAligned(2, {{1, 3, 32}, {1, 3, 64}}));
  EXPECT_FALSE(isConcatAligned(2, {{1, 3, 32}, {1, 3, 40}}));
  EXPECT_FALSE(isConcatAligned(3, {{1, 3, 32}}));
}

}  // namespace
}  // namespace netforge::testing
