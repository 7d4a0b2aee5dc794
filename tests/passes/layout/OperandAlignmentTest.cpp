// Bringing the operands of a MatMul or of an elementwise op into agreement.
#include <gtest/gtest.h>
#include "GraphRefiner/src/Pass.h"
#include "GraphRefiner/src/PassRegistry.h"
#include "tests/support/GraphText.h"
#include "tests/support/PassFixture.h"
#include "tests/support/TextEdit.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

TEST(AlignMatmulRanks, PutsOnesInFrontOfTheLowerRank) {
  const std::string data = "in x[2,3,4] f32 NFC\n";
  const std::string constant = data + "const c[4,2] = iota\n y = MatMul(x, c)\n out y";
  const std::string shared = with(constant, "out y", "z = Relu(c)\n out y\n out z");
  const std::string tensors = "in a[3,4]\n in b[2,5,4,6]\n y = MatMul(a, b)\n out y";
  expectPass(
      PassId::AlignMatmulRanks,
      {{.fault = "the constant is copied, or loses its name",
        .before = constant,
        .after = data + "const c[1,4,2] NFC = iota\n y = MatMul(x, c)\n out y",
        .prepare =
            [](IrGraph& graph) {
              graph.addTraceSources(TraceKind::Tensor, "c", {{"weight", TraceKind::Tensor}});
            },
        .inspect =
            [](const IrGraph& graph) {
              const auto sources = graph.getTraceInfo(TraceKind::Op, "y");
              EXPECT_TRUE(sources.size() == 1 && sources[0].name == "weight");
            }},
       {.fault = "somebody else reads the constant in new dims",
        .before = shared,
        .after = data + "const c[4,2] = iota\n y_c_reshape[1,4,2] NFC = Reshape(c)\n"
                        "y = MatMul(x, y_c_reshape)\n z = Relu(c)\n out y\n out z"},
       {.fault = "the application reads the constant in new dims",
        .before = constant + "\n out c",
        .after = data + "const c[4,2] = iota\n y_c_reshape[1,4,2] = Reshape(c)\n"
                        "y = MatMul(x, y_c_reshape)\n out y\n out c"},
       {.fault = "the first operand isn't the one that is raised",
        .before = tensors,
        .after = "in a[3,4]\n in b[2,5,4,6]\n y_a_reshape[1,1,3,4] = Reshape(a)\n"
                 "y = MatMul(y_a_reshape, b)\n out y",
        .prepare =
            [](IrGraph& graph) {
              graph.addTraceSources(TraceKind::Tensor, "a", {{"left", TraceKind::Tensor}});
            },
        .inspect =
            [](const IrGraph& graph) {
              EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, "y_a_reshape").size(), 1u);
              EXPECT_EQ(graph.getTraceInfo(TraceKind::Tensor, "y_a_reshape").size(), 1u);
              EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, "y").size(), 1u);
            }},
       {.fault = "dims that differ count as ranks", .before = with(tensors, "a[3,4]", "a[1,5,3,4]")},
       {.fault = "a vector becomes a row",
        .before = "in x[2,3,4]\n const c[4] = iota\n y[2,3,4] = plain MatMul(x, c)\n out y"},
       {.fault = "a bias takes the operand's new dims",
        .before = data + "const c[4,4] = iota\n y = MatMul(x, c, c)\n out y"},
       {.fault = "a taken name ends the run",
        .before = with(tensors, "in a", "in y_a_reshape[7]\n in a") + "\n z = Relu(y_a_reshape)\n out z"},
       {.fault = "dynamic axes end the run", .before = with(tensors, "a[3,4]", "a[?3,4]")}});
}

TEST(AlignMatmulRanks, MovesTheAxisOfAnEncodingPerChannel) {
  auto graph = readGraph("in x[2,3,4]\n const c[4,2] sq8 scale=1 offset=0 = iota\n y = MatMul(x, c)\n out y");
  QuantInfo record;
  record.encoding = QuantEncodingKind::AxisScaleOffset;
  record.axis = 1;
  record.axisEncodings.resize(2);
  graph->getTensor("c")->setQInfo(ORLO_DATATYPE_SFIXED_POINT_8, record);
  const auto stage = graphrefiner::OptimizationStage::PostLayout;
  EXPECT_TRUE(graphrefiner::getPassRegistry().table(stage).at(PassId::AlignMatmulRanks)->run(graph));
  EXPECT_EQ(graph->getTensor("c")->getQuantInfo().axis, 2);
}

// A product [2,4,35], wider than high, whose columns are rows of a flattened image.
const std::string kWide =
    "in b[2,4,30]\n in x[2,5,7,30]\n r[2,35,30] = Reshape(x)\n t = Transpose(r) perm=[0,2,1]\n"
    "m = MatMul(b, t)\n y[2,4,5,7] = Reshape(m)\n out y";

TEST(OptimizeUnmatchedMatMul, TransposesInFrontOfTheFlattening) {
  const std::string behind =
      "r[2,30,35] = Reshape(x_0312)\n m = MatMul(b, r)\n y[2,4,5,7] = Reshape(m)\n out y";
  const std::string inputs = "in b[2,4,30]\n in x[2,5,7,30] f32 NHWC src=NHWC order=[0,1,2,3]\n";
  const std::string described = with(kWide, "x[2,5,7,30]", "x[2,5,7,30] f32 NHWC src=NHWC order=[0,1,2,3]");
  expectPass(
      PassId::OptimizeUnmatchedMatMul,
      {{.fault = "the new tensor counts as graph input, or the Reshape keeps its old dims",
        .before = described,
        .after = inputs +
                 "x_0312[2,30,5,7] f32 NHWC src=NHWC order=[0,1,2,3] = Transpose(x) perm=[0,3,1,2]\n" +
                 behind,
        .inspect =
            [](const IrGraph& graph) {
              const auto shape = graph.getOp("r")->getAttributes()->getStaticTensor("shape");
              EXPECT_EQ(shape->getName(), "r_shape");
              EXPECT_EQ(shape->getElement(1), 30u);
            }},
       {.fault = "a Transpose of that name isn't shared",
        .before = with(with(kWide, "t = ", "x_0312 = Transpose(x) perm=[0,3,1,2]\n t = "), "out y",
                       "z = Relu(x_0312)\n out y\n out z"),
        .after = "in b[2,4,30]\n in x[2,5,7,30]\n x_0312 = Transpose(x) perm=[0,3,1,2]\n" +
                 with(behind, "out y", "z = Relu(x_0312)\n out y\n out z")},
       {.fault = "a taken name ends the run",
        .before = with(kWide, "in x", "in x_0312[7]\n in x") + "\n z = Relu(x_0312)\n out z"},
       {.fault = "the Reshape flattens other axes", .before = with(kWide, "x[2,5,7,30]", "x[2,5,14,15]")},
       {.fault = "the input has another rank", .before = with(kWide, "x[2,5,7,30]", "x[70,30]")},
       {.fault = "the Reshape takes its shape from a tensor",
        .before =
            with(kWide, "r[2,35,30] = Reshape(x)", "const s[3] i32 = 2 35 30\n r[2,35,30] = Reshape(x, s)")},
       {.fault = "a square product counts as wide",
        .before = with(with(kWide, "b[2,4,30]", "b[2,35,30]"), "y[2,4,5,7]", "y[2,35,5,7]")},
       {.fault = "there is a bias",
        .before = with(with(kWide, "MatMul(b, t)", "MatMul(b, t, c)"), "in x", "const c[35] = iota\n in x")},
       {.fault = "the columns are taken apart otherwise", .before = with(kWide, "y[2,4,5,7]", "y[2,2,2,35]")},
       {.fault = "an operand is transposed by the MatMul",
        .before = with(with(with(with(kWide, "b[2,4,30]", "b[2,4,4]"), "x[2,5,7,30]", "x[2,5,7,4]"),
                            "r[2,35,30]", "r[2,35,4]"),
                       "MatMul(b, t)", "MatMul(b, t) transpose_in0=true")},
       {.fault = "the flattened tensor is a graph output", .before = kWide + "\n out r"},
       {.fault = "the product is a graph output", .before = kWide + "\n out m"}});
}

TEST(OptimizeDepthBroadcastElementwise, RunsInTheLayoutOfTheLowerRank) {
  const std::string inputs = "in x[4,3]\n in y[2,3,5,1]\n";
  // r [1,1,4,3], t [1,3,1,4], the output [2,3,5,4]
  const std::string before = inputs +
                             "r[1,1,4,3] = Reshape(x)\n t = Transpose(r) perm=[1,3,0,2]\n"
                             "s = Eltwise_Binary(t, y) operation=18\n z = Relu(s)\n out z";
  const std::string after = inputs +
                            "y_2031[5,2,1,3] = Transpose(y) perm=[2,0,3,1]\n"
                            "s = Eltwise_Binary(x, y_2031) operation=18\n"
                            "s_post_transpose_1302[2,3,5,4] = Transpose(s) perm=[1,3,0,2]\n"
                            "z = Relu(s_post_transpose_1302)\n out z";
  const std::string readOutput = with(with(before, "z = Relu(s)\n", ""), "out z", "out s");
  const std::string shared = "w = Transpose(y) perm=[2,0,3,1]\n v = Relu(w)\n out v";
  expectPass(
      PassId::OptimizeDepthBroadcastElementwise,
      {{.fault = "an order or the inverse of it is taken for the other", .before = before, .after = after},
       {.fault = "the operands change sides",
        .before = with(with(before, "(t, y)", "(y, t)"), "operation=18", "operation=2"),
        .after = with(with(after, "(x, y_2031)", "(y_2031, x)"), "operation=18", "operation=2")},
       {.fault = "a graph output changes its layout",
        .before = readOutput,
        .after = inputs + "y_2031 = Transpose(y) perm=[2,0,3,1]\n"
                          "s: s_post_transpose_ = Eltwise_Binary(x, y_2031) operation=18\n"
                          "s_post_transpose_1302: s = Transpose(s_post_transpose_) perm=[1,3,0,2]\n out s"},
       {.fault = "a later Transpose of that order isn't shared",
        .before = before + "\n" + shared,
        .after = with(with(with(after, "y_2031[5,2,1,3] = Transpose(y)", "w = Transpose(y)"), "y_2031", "w"),
                      "out z", "v = Relu(w)\n out z\n out v")},
       {.fault = "ops that compute the shape stay behind",
        .before = with(with(before, "in y", "in q[4] i32\n in y"), "r[1,1,4,3] = Reshape(x)",
                       "p = Relu(q)\n r[1,1,4,3] = Reshape(x, p)"),
        .after = with(after, "in y", "in q[4] i32\n in y")},
       {.fault = "a power is taken for arithmetic", .before = with(before, "operation=18", "operation=16")},
       {.fault = "the Reshape does more than put ones in front",
        .before = with(before, "in x[4,3]", "in x[3,4]")},
       {.fault = "the Reshape puts no ones in front", .before = with(before, "in x[4,3]", "in x[1,1,4,3]")},
       {.fault = "the last axes agree", .before = with(before, "y[2,3,5,1]", "y[2,3,5,4]")},
       {.fault = "the axis that the order moves last differs",
        .before = with(before, "y[2,3,5,1]", "y[2,1,5,1]")},
       {.fault = "an operand of another rank is permuted",
        .before = with(before, "y[2,3,5,1]", "y[2,2,3,5,1]")},
       {.fault = "a taken name in front ends the run",
        .before = with(before, "in y", "in y_2031[7]\n in y") + "\n v = Relu(y_2031)\n out v"},
       {.fault = "a taken name behind ends the run",
        .before = with(before, "in y", "in s_post_transpose_1302[7]\n in y") +
                  "\n v = Relu(s_post_transpose_1302)\n out v"},
       {.fault = "a taken name of the inner tensor ends the run",
        .before = with(readOutput, "in y", "in s_post_transpose_[7]\n in y") +
                  "\n v = Relu(s_post_transpose_)\n out v"},
       {.fault = "the transposed tensor is a graph output", .before = before + "\n out t"},
       {.fault = "somebody else reads the raised tensor", .before = before + "\n v = Relu(r)\n out v"}});
}

TEST(FallbackDepthBroadcastEltwiseBin, ExchangesTheLastAxes) {
  const std::string inputs = "in a[2,3,1]\n in w[5,2,3]\n";
  const std::string fronts =
      inputs + "i = Eltwise_Binary(a, a) operation=13\n t[2,3,5] = Transpose(w) perm=[1,2,0]\n";
  const std::string before = fronts + "o = Eltwise_Binary(i, t) operation=13\n y[6,5] = Reshape(o)\n out y";
  const std::string after =
      inputs +
      "i = Eltwise_Binary(a, a) operation=13\n i_021 = Transpose(i) perm=[0,2,1]\n"
      "t[2,3,5] = Transpose(w) perm=[1,2,0]\n t_021 = Transpose(t) perm=[0,2,1]\n"
      "o = Eltwise_Binary(i_021, t_021) operation=13\n o_021[2,3,5] = Transpose(o) perm=[0,2,1]\n"
      "y[6,5] = Reshape(o_021)\n out y";
  expectPass(PassId::FallbackDepthBroadcastEltwiseBin,
             {{.fault = "the operands or the product keep their order", .before = before, .after = after},
              {.fault = "a Transpose of that order isn't shared",
               .before = with(before, "out y", "v = Transpose(t) perm=[0,2,1]\n z = Relu(v)\n out y\n out z"),
               .after = with(with(with(after, "t_021 = ", "v = "), "t_021", "v"), "out y",
                             "z = Relu(v)\n out y\n out z")},
              {.fault = "a reader that is no Reshape follows",
               .before = with(before, "y[6,5] = Reshape(o)", "y = Relu(o)")},
              {.fault = "an operand from elsewhere follows",
               .before = with(before, "t[2,3,5] = Transpose(w) perm=[1,2,0]", "t[2,3,5] = Reshape(w)")},
              {.fault = "the last axes agree", .before = with(before, "in a[2,3,1]", "in a[2,3,5]")},
              {.fault = "the middle axes differ", .before = with(before, "in a[2,3,1]", "in a[2,1,1]")},
              {.fault = "a taken name ends the run",
               .before = with(before, "in w", "in o_021[7]\n in w") + "\n z = Relu(o_021)\n out z"},
              {.fault = "the product is a graph output", .before = before + "\n out o"},
              {.fault = "the inner product is a graph output", .before = before + "\n out i"}});
}

TEST(OptimizeDepthReduce, ReducesInFrontOfTheTranspose) {
  const std::string inputs = "in x[2,3,5,7]\n in y[1,5,7,3]\n const c[1] = 3\n";
  const std::string before =
      inputs +
      "t = Transpose(x) perm=[0,2,3,1]\n s = Eltwise_Binary(t, y) operation=18\n"
      "u = Eltwise_Unary(s) operation=0\n r = Reduce(u) axes=[3] keep_dims=true reduce_type=ReduceSum\n"
      "d = Eltwise_Binary(r, c) operation=2\n o = Transpose(d) perm=[0,3,1,2]\n z = Relu(o)\n out z";
  const std::string after =
      inputs +
      "y_0312[1,3,5,7] = Transpose(y) perm=[0,3,1,2]\n"
      "s[2,3,5,7] = Eltwise_Binary(x, y_0312) operation=18\n u[2,3,5,7] = Eltwise_Unary(s) operation=0\n"
      "r[2,1,5,7] = Reduce(u) axes=[1] keep_dims=true reduce_type=ReduceSum\n"
      "d: o[2,1,5,7] = Eltwise_Binary(r, c) operation=2\n z = Relu(o)\n out z";
  const std::string square = with(before, "in x[2,3,5,7]", "in x[3,3,3,3]");
  expectPass(
      PassId::OptimizeDepthReduce,
      {{.fault = "the axis or y is turned the wrong way", .before = before, .after = after},
       {.fault = "a Transpose of that name isn't shared",
        .before =
            with(before, "out z", "y_0312 = Transpose(y) perm=[0,3,1,2]\n v = Relu(y_0312)\n out z\n out v"),
        .after = with(after, "out z", "v = Relu(y_0312)\n out z\n out v")},
       {.fault = "a mean is taken for a sum", .before = with(before, "ReduceSum", "ReduceMean")},
       {.fault = "another axis is reduced", .before = with(before, "axes=[3]", "axes=[2]")},
       {.fault = "two axes are reduced", .before = with(before, "axes=[3]", "axes=[1,3]")},
       {.fault = "the axis stays where it is",
        .before =
            with(with(with(before, "perm=[0,2,3,1]", "perm=[0,2,1,3]"), "perm=[0,3,1,2]", "perm=[0,2,1,3]"),
                 "y[1,5,7,3]", "y[1,5,3,7]")},
       {.fault = "the orders don't undo each other",
        .before = with(before, "perm=[0,3,1,2]", "perm=[0,2,3,1]")},
       {.fault = "the divisor has several elements",
        .before = with(before, "const c[1] = 3", "const c[7,1] = iota")},
       {.fault = "an operand of lower rank is permuted", .before = with(before, "y[1,5,7,3]", "y[5,7,3]")},
       {.fault = "x is taken away from its own Transpose", .before = with(square, "(t, y)", "(t, x)")},
       {.fault = "the difference of a Transpose and itself is moved",
        .before = with(square, "(t, y)", "(t, t)")},
       {.fault = "a taken name ends the run",
        .before = with(before, "in y", "in y_0312[7]\n in y") + "\n v = Relu(y_0312)\n out v"},
       {.fault = "the reduced tensor is a graph output", .before = before + "\n out r"},
       {.fault = "the result is a graph output", .before = before + "\n out o"}});
}

}  // namespace
}  // namespace netforge::testing
