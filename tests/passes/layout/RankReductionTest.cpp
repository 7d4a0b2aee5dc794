// Lowering ops of rank 6 and more. The values are compared on random graphs; here stand the dims, the
// generated names, what is refused and in which words.
#include <gtest/gtest.h>
#include "GraphRefiner/src/PassManager.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/AxisMerging.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Replace6dOpPass.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/Failures.h"
#include "tests/support/GraphText.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::Dims;
using graphrefiner::PassId;

const std::string kIn = "in x[2,3,4,5,6,7]\n";
const std::string kLong = "in x[2,3,4,5,6,7,8]\n";

TEST(AxisMerging, KeepsTheAxesThatAreAddressed) {
  Dims dims{2, 3, 4, 5, 6, 7};
  Dims kept{4, 1, 6};  // 6 lies behind the last axis, and stays there
  graphrefiner::mergeDimsExcept(dims, kept);
  EXPECT_EQ(dims, (Dims{2, 3, 20, 6, 7}));
  EXPECT_EQ(kept, (Dims{1, 3, 5}));
  const struct {
    std::uint32_t axis;
    Dims folded;
    std::uint32_t newAxis;
  } rows[] = {{0, {2, 2520}, 0}, {2, {6, 4, 210}, 1}, {5, {720, 7}, 1}};
  for (const auto& row : rows) {
    Dims around{2, 3, 4, 5, 6, 7};
    std::uint32_t axis = row.axis;
    graphrefiner::foldAroundAxis(around, axis);
    EXPECT_EQ(around, row.folded);
    EXPECT_EQ(axis, row.newAxis);
  }
}

// An op between its Reshapes, and the output restored.
std::string lowered(const std::string& op, const std::string& inDims, const std::string& outDims,
                    const std::string& result, const std::string& in = kIn) {
  return in + "y_idx_0_6d_pre_reshape" + inDims + " = Reshape(x)\ny: y_idx_0_6d_post_reshape_input" +
         outDims + " = " + op + "\ny_idx_0_6d_post_reshape: y" + result +
         " = Reshape(y_idx_0_6d_post_reshape_input)\nout y";
}

TEST(Replace6dOps, MergesWhatTheOpTreatsAlike) {
  const std::string pre = "(y_idx_0_6d_pre_reshape) ";
  const std::string same = "[2,3,4,5,6,7]";
  expectPass(
      PassId::Replace6dOps,
      {{.fault = "unary",
        .before = kIn + "y = Eltwise_Unary(x) operation=0\nout y",
        .after = lowered("Eltwise_Unary" + pre + "operation=0", "[5040]", "[5040]", same)},
       {.fault = "clipping neuron",
        .before = kIn + "y = ElementWiseNeuron(x) operation=5 min_value=-1.0 max_value=2.0\nout y",
        .after = lowered("ElementWiseNeuron" + pre + "operation=5 min_value=-1.0 max_value=2.0", "[5040]",
                         "[5040]", same)},
       {.fault = "other neurons are touched", .before = kIn + "y = ElementWiseNeuron(x) operation=4\nout y"},
       {.fault = "types without a handler are touched", .before = kIn + "y = plain Odd(x)\nout y"},
       {.fault = "rank 5 is touched", .before = "in x[2,3,4,5,6]\ny = Softmax(x) axis=1\nout y"},
       {.fault = "a dynamic axis ends the run", .before = "in x[?2,3,4,5,6,7]\ny = Softmax(x) axis=1\nout y"},
       {.fault = "cast of rank 7",
        .before = kLong + "y = Cast(x)\nout y",
        .after = lowered("Cast" + pre, "[24,5,6,7,8]", "[24,5,6,7,8]", "[2,3,4,5,6,7,8]", kLong)},
       {.fault = "softmax with an axis from the end",
        .before = kIn + "y = Softmax(x) axis=-2:i32\nout y",
        .after = lowered("Softmax" + pre + "axis=1", "[120,6,7]", "[120,6,7]", same)},
       {.fault = "reduced axes merge",
        .before = kIn + "y = Reduce(x) axes=[1,4] reduce_type=ReduceMax\nout y",
        .after = lowered("Reduce" + pre + "axes=[1,3] reduce_type=ReduceMax", "[2,3,20,6,7]", "[2,20,7]",
                         "[2,4,5,7]")},
       {.fault = "reduced axes that stay have the wrong place",
        .before = kLong + "y = Reduce(x) axes=[0,1,2] reduce_type=ReduceMax keep_dims=true\nout y",
        .after = lowered("Reduce" + pre + "axes=[0,1,2] reduce_type=ReduceMax keep_dims=true", "[2,3,4,1680]",
                         "[1,1,1,1680]", "[1,1,1,5,6,7,8]", kLong)},
       {.fault = "tile of the first axis",
        .before = kIn + "y = Tile(x) multiples=[2,1,1,1,1,1]\nout y",
        .after = lowered("Tile" + pre + "multiples=[2]", "[5040]", "[10080]", "[4,3,4,5,6,7]")},
       {.fault = "transpose of the last axes",
        .before = kIn + "y = Transpose(x) perm=[0,1,2,3,5,4]\nout y",
        .after = lowered("Transpose" + pre + "perm=[0,2,1]", "[120,6,7]", "[120,7,6]", "[2,3,4,5,7,6]")},
       {.fault = "padding of low axes needs no Transpose",
        .before = kIn + "y = Pad(x) scheme=0 pad_amount=[[0,0],[0,0],[1,2],[0,0],[3,0],[0,0]]\nout y",
        .after = lowered("Pad" + pre + "scheme=0 pad_amount=[[0,0],[1,2],[0,0],[3,0],[0,0]]", "[6,4,5,6,7]",
                         "[6,7,5,9,7]", "[2,3,7,5,9,7]")},
       {.fault = "a slice loses the rows or mask bits of the axes that stay",
        .before = "in x[1,1,4,5,6,7,8]\ny = StridedSlice(x) end_mask=8 "
                  "ranges=[[0,1,1],[0,1,1],[1,3,1],[0,5,1],[0,6,1],[0,7,1],[0,8,2]]\nout y",
        .after = lowered("StridedSlice" + pre + "end_mask=2 ranges=[[1,3,1],[0,5,1],[0,6,1],[0,7,1],[0,8,2]]",
                         "[4,5,6,7,8]", "[2,5,6,7,4]", "[1,1,2,5,6,7,4]", "in x[1,1,4,5,6,7,8]\n")}});
}

TEST(Replace6dOps, RefusesWhatHasNoLowForm) {
  const auto tooHigh = [](const std::string& handler, const std::string& type) {
    return "netforge::graphrefiner::Replace6dOpPass::" + handler + ": Op y (type: " + type +
           ") cannot be replaced with an implementation that operates within a tensor rank of 5 or lower.";
  };
  const std::string at = "netforge::graphrefiner::Replace6dOpPass::";
  const std::string pad =
      at +
      "handlePadOp: Op y Pad Op with rank > 5 does not support nonzero pad amount on the dimension which "
      "rank > 5.";
  const std::string slice = at + "handleStridedSliceOp: Op y StridedSlice Op with rank > 5 ";
  const std::string scatter = at + "handleScatterNDOp: Op y (type: ScatterND) does not support ";
  const std::string rows = ",[0,3,1],[0,4,1],[0,5,1],[0,6,1],[0,7,1]]\nout y";
  const struct {
    std::string before;
    std::string text;
  } cases[] = {
      {"in x[2,1,4,1,6,1]\nin z[1,3,1,5,1,7]\ny = Eltwise_Binary(x, z) operation=13\nout y",
       tooHigh("handleElementWiseBinaryOp", "ElementWiseBinary")},
      {kLong + "y = Reduce(x) axes=[1,3,5] reduce_type=ReduceMax\nout y",
       tooHigh("handleReduceOp", "Reduce")},
      {kIn + "y = Tile(x) multiples=[2,2,2,2,2,2]\nout y", tooHigh("handleTileOp", "tile")},
      {kIn + "in i[1,2,1,2] i32\ny = Gather(x, i) axis=2\nout y", tooHigh("handleGatherOp", "gather")},
      {kLong + "y = Transpose(x) perm=[6,5,4,3,2,1,0]\nout y", tooHigh("handleTransposeOp", "Transpose")},
      {kIn + "in i[2,2,1,5,6,7] i32\ny = GatherElements(x, i) axis=2\nout y",
       at + "handleGatherElementsOp: Op yGatherElements Op with rank > 5 doesn't support shape mismatch on "
            "all "
            "dimensions, except the dimension == axis"},
      {kIn + "y = Pad(x) scheme=0 pad_amount=[[0,1],[0,0],[0,0],[0,0],[0,0],[0,0]]\nout y", pad},
      {kIn + "y = Pad(x) scheme=1 pad_amount=[[0,0],[0,1],[0,0],[0,0],[0,0],[0,0]]\nout y", pad},
      {kIn + "y = StridedSlice(x) ranges=[[0,2,2]" + rows,
       slice + "does not support slicing or strided-slicing on the dimension which rank > 5."},
      {kIn + "y = StridedSlice(x) new_axes_mask=1 ranges=[[0,2,1]" + rows,
       slice + "doesn't support nonzero newAxesMask or shrinkAxes in 6D op replacement"},
      {kIn + "in i[1,1] i32\nin u[1,1]\ny = plain ScatterNd(x, i, u)\nout y",
       scatter + "data with rank > 5."},
      {"in x[2]\nin i[1,1,1,1,1,1,1] i32\nin u[1]\ny = plain ScatterNd(x, i, u)\nout y",
       scatter + "indice with rank >= 7."},
      {"in x[2]\nin i[1] i32\nin u[1,1,1,1,1,1]\ny = plain ScatterNd(x, i, u)\nout y",
       scatter + "update with rank > 5."}};
  for (const auto& c : cases) {
    expectPass(PassId::Replace6dOps, {{.fault = c.text, .before = c.before, .throws = c.text}});
  }
  expectPass(PassId::Replace6dOps,
             {{.fault = "indices of rank 6 are refused",
               .before = "in x[2]\nin i[1,1,1,1,1,1] i32\nin u[1]\ny = plain ScatterNd(x, i, u)\nout y"}});
}

TEST(Replace6dOps, ServesSeveralReadersAndInputs) {
  const std::string readers = "a = Softmax(y) axis=1\nb = plain Odd(y)\n";
  expectPass(
      PassId::Replace6dOps,
      {{.fault = "the readers share a Reshape, or a result that nobody restores",
        .before = kIn + "y = Eltwise_Unary(x) operation=0\na = plain Odd(y)\nb = plain Even(y)\nout a\nout b",
        .after = kIn + "y_idx_0_6d_pre_reshape[5040] = Reshape(x)\n"
                       "y[5040] = Eltwise_Unary(y_idx_0_6d_pre_reshape) operation=0\n"
                       "y_idx_0_6d_post_reshape1[2,3,4,5,6,7] = Reshape(y)\n"
                       "y_idx_0_6d_post_reshape0[2,3,4,5,6,7] = Reshape(y)\n"
                       "a = plain Odd(y_idx_0_6d_post_reshape0)\nb = plain Even(y_idx_0_6d_post_reshape1)\n"
                       "out a\nout b"},
       {.fault = "a graph output loses its other readers",
        .before = kIn + "y = Eltwise_Unary(x) operation=0\na = plain Odd(y)\nout y\nout a",
        .after =
            kIn +
            "y_idx_0_6d_pre_reshape[5040] = Reshape(x)\n"
            "y: y_idx_0_6d_post_reshape_input[5040] = Eltwise_Unary(y_idx_0_6d_pre_reshape) operation=0\n"
            "y_idx_0_6d_post_reshape: y[2,3,4,5,6,7] = Reshape(y_idx_0_6d_post_reshape_input)\n"
            "a = plain Odd(y)\nout y\nout a"},
       {.fault = "a tensor that is read twice is folded around the axis of the folded dims",
        .before = kIn + "y = Concat(x, x) axis=3\nb = plain Odd(y)\nout b",
        .after = kIn + "y_idx_0_6d_pre_reshape[24,5,42] = Reshape(x)\n"
                       "y_idx_1_6d_pre_reshape[24,5,42] = Reshape(y_idx_0_6d_pre_reshape)\n"
                       "y[24,10,42] = Concat(y_idx_1_6d_pre_reshape, y_idx_1_6d_pre_reshape) axis=1\n"
                       "y_idx_0_6d_post_reshape0[2,3,4,10,6,7] = Reshape(y)\n"
                       "b = plain Odd(y_idx_0_6d_post_reshape0)\nout b"},
       {.fault = "indices that are the data too are reshaped with it",
        .before = "in x[2,3,1,1] i32\ny = Gather(x, x) axis=0\nb = plain Odd(y)\nout b",
        .after = "in x[2,3,1,1] i32\n"
                 "y_idx_0_6d_pre_reshape[2,3] i32 = Reshape(x)\n"
                 "y[2,3,1,1,3] i32 = Gather(y_idx_0_6d_pre_reshape, x) axis=0\n"
                 "y_idx_0_6d_post_reshape0[2,3,1,1,3,1,1] i32 = Reshape(y)\n"
                 "b = plain Odd(y_idx_0_6d_post_reshape0)\nout b"},
       {.fault = "a shared constant gets two Reshapes that disagree, or no encoding",
        .before = "const c[1,1,1,1,1,2] sq8 scale=0.5 offset=-3 = 1 2\na = plain Odd(c)\nb = plain Odd(c)\n"
                  "y = Eltwise_Unary(c) operation=0\nout a\nout b\nout y",
        .after = "const c[1,1,1,1,1,2] sq8 scale=0.5 offset=-3 = 1 2\n"
                 "const c_6d_clone_0[1,1,1,1,1,2] sq8 scale=0.5 offset=-3 = 1 2\n"
                 "const c_6d_clone_1[1,1,1,1,1,2] sq8 scale=0.5 offset=-3 = 1 2\n"
                 "a = plain Odd(c_6d_clone_0)\nb = plain Odd(c_6d_clone_1)\n"
                 "y_idx_0_6d_pre_reshape[2] sq8 scale=0.5 offset=-3 = Reshape(c)\n"
                 "y: y_idx_0_6d_post_reshape_input[2] = Eltwise_Unary(y_idx_0_6d_pre_reshape) operation=0\n"
                 "y_idx_0_6d_post_reshape: y[1,1,1,1,1,2] = Reshape(y_idx_0_6d_post_reshape_input)\n"
                 "out a\nout b\nout y"},
       {.fault = "readers of a Reshape to a high rank share it",
        .before = "in x[6,4]\ny[1,2,3,1,2,2] = Reshape(x)\na = plain Odd(y)\nb = plain Odd(y)\nout a\nout b",
        .after = "in x[6,4]\ny_6d_clone_0[1,2,3,1,2,2] = Reshape(x)\na = plain Odd(y_6d_clone_0)\n"
                 "y_6d_clone_1[1,2,3,1,2,2] = Reshape(x)\nb = plain Odd(y_6d_clone_1)\nout a\nout b"},
       {.fault = "an operand beside the Reshape is reshaped with it",
        .before =
            "in x[4]\ny[1,1,1,1,2,2] = Reshape(x)\na = plain Odd(y, x)\nb = plain Odd(y)\nout a\nout b"},
       {.fault = "a Reshape that is a graph output ends the run",
        .before = "in x[4]\ny[1,1,1,1,2,2] = Reshape(x)\na = plain Odd(y)\nb = plain Odd(y)\nout y\nout a\n"
                  "out b"}});
}

TEST(Replace6dOps, MovesAPaddedAxisInFrontOfTheOnesThatMergeWithIt) {
  expectPass(
      PassId::Replace6dOps,
      {{.fault = "a graph output stays in the moved layout",
        .before = "in x[2,2,3,1,1,1,2]\n"
                  "y = Pad(x) scheme=0 pad_amount=[[0,0],[0,0],[2,1],[0,0],[0,0],[0,0],[0,0]]\nout y",
        .after = "in x[2,2,3,1,1,1,2]\n"
                 "y_idx_0_6d_pre_transpose_idx_0_6d_pre_reshape[4,3,2] = Reshape(x)\n"
                 "y_idx_0_6d_pre_transpose[3,4,2] = Transpose(y_idx_0_6d_pre_transpose_idx_0_6d_pre_reshape) "
                 "perm=[1,0,2]\n"
                 "y_idx_0_6d_pre_transpose_idx_0_6d_post_reshape0[3,2,2,1,1,1,2] = "
                 "Reshape(y_idx_0_6d_pre_transpose)\n"
                 "y_idx_0_6d_pre_reshape[12,1,1,1,2] = "
                 "Reshape(y_idx_0_6d_pre_transpose_idx_0_6d_post_reshape0)\n"
                 "y: y_idx_0_6d_post_reshape_input[24,1,1,1,2] = Pad(y_idx_0_6d_pre_reshape) scheme=0 "
                 "pad_amount=[[8,4],[0,0],[0,0],[0,0],[0,0]]\n"
                 "y_idx_0_6d_post_reshape[6,2,2,1,1,1,2] = Reshape(y_idx_0_6d_post_reshape_input)\n"
                 "y_idx_0_6d_post_reshape_idx_0_6d_post_transpose_idx_0_6d_pre_reshape[6,4,2] = "
                 "Reshape(y_idx_0_6d_post_reshape)\n"
                 "y_idx_0_6d_post_reshape_idx_0_6d_post_transpose: "
                 "y_idx_0_6d_post_reshape_idx_0_6d_post_transpose_idx_0_6d_post_reshape_input[4,6,2] = "
                 "Transpose(y_idx_0_6d_post_reshape_idx_0_6d_post_transpose_idx_0_6d_pre_reshape) "
                 "perm=[1,0,2]\n"
                 "y_idx_0_6d_post_reshape_idx_0_6d_post_transpose_idx_0_6d_post_reshape: y[2,2,6,1,1,1,2] = "
                 "Reshape(y_idx_0_6d_post_reshape_idx_0_6d_post_transpose_idx_0_6d_post_reshape_input)\n"
                 "out y"}});
}

// What isn't spelled out op by op: no handled op may be left above the limit.
TEST(Replace6dOps, EndsBelowTheLimit) {
  const std::string cases[] = {
      kIn + "y = Transpose(x) perm=[5,4,3,2,1,0]\nout y",
      "in x[2,3,1,5,1,7,1]\ny = Transpose(x) perm=[6,5,4,3,2,1,0]\nout y",
      "in x[1,1,1,1,1,1]\ny = Transpose(x) perm=[5,4,3,2,1,0]\nout y",
      "in x[1,1,1,1,1,1]\nr = plain Odd(x)\ny = Transpose(r) perm=[5,4,3,2,1,0]\nout y",
      "in x[3,2,1,2,1,2,2,2]\ny = StridedSlice(x) "
      "ranges=[[0,3,1],[0,2,1],[0,1,1],[1,2,1],[0,1,1],[0,2,1],[1,-1,-1],[0,2,2]]\nout y"};
  for (const std::string& text : cases) {
    const auto graph = readGraph(text);
    graphrefiner::PassManager manager{graphrefiner::GraphRefinerContext{}};
    auto edited = graph;
    manager.applyOptimizationPasses(edited, {PassId::Replace6dOps},
                                    graphrefiner::OptimizationStage::PostLayout);
    EXPECT_EQ(graph->checkInvariants(), std::vector<std::string>()) << text;
    EXPECT_EQ(graph->getTensor("y")->getProducer()->getOutput(0), graph->getGraphOutputs().at(0));
    for (const auto& op : graph->getOps()) {
      if (op->getType() == "Reshape" || op->getType() == "Odd") continue;
      EXPECT_LE(op->getInput(0)->getRank(), 5u) << op->displayName() << " of " << text;
      EXPECT_LE(op->getOutput(0)->getRank(), 5u) << op->displayName() << " of " << text;
    }
  }
}

// Users find generated ops by these names.
TEST(Replace6dOps, NamesWhatItGenerates) {
  const std::string slice = "y_0th_rankReducedOp";
  const std::string split = "y_reduceRank_split";
  expectPass(
      PassId::Replace6dOps,
      {{.fault = "the pieces of a split slice",
        .before = "in x[2,1,1,3,1,2]\n"
                  "y = StridedSlice(x) ranges=[[0,2,1],[0,1,1],[0,1,1],[1,3,1],[0,1,1],[0,2,1]]\nout y",
        .after =
            "in x[2,1,1,3,1,2]\n" + split + "_pre_split_reshape: " + split + "_input[2,6] = Reshape(x)\n" +
            split + ": " + split + "_0th_output[1,6], " + split + "_1th_output[1,6] = Split(" + split +
            "_input) axis=0 split_index=[1]\n" + slice + "_post_split_reshape: " + slice +
            "_0th_input[1,1,3,1,2] = Reshape(" + split + "_0th_output)\n" + slice +
            "_idx_0_6d_pre_reshape[1,1,3,1,2] = Reshape(" + slice + "_0th_input)\n" + slice + ": " + slice +
            "_0th_output[1,1,2,1,2] = StridedSlice(" + slice +
            "_idx_0_6d_pre_reshape) ranges=[[0,1,1],[0,1,1],[1,3,1],[0,1,1],[0,2,1]]\n" + slice +
            "_idx_0_6d_post_reshape0[1,1,2,1,2] = Reshape(" + slice + "_0th_output)\n" + slice +
            "_expandBatch_reshape: y_restoreRank_concat_0th_input[1,1,1,2,1,2] = Reshape(" + slice +
            "_idx_0_6d_post_reshape0)\n"
            "y_1th_rankReducedOp_post_split_reshape: y_1th_rankReducedOp_1th_input[1,1,3,1,2] = Reshape(" +
            split +
            "_1th_output)\n"
            "y_1th_rankReducedOp_idx_0_6d_pre_reshape[1,1,3,1,2] = "
            "Reshape(y_1th_rankReducedOp_1th_input)\n"
            "y_1th_rankReducedOp: y_1th_rankReducedOp_1th_output[1,1,2,1,2] = "
            "StridedSlice(y_1th_rankReducedOp_idx_0_6d_pre_reshape) "
            "ranges=[[0,1,1],[0,1,1],[1,3,1],[0,1,1],[0,2,1]]\n"
            "y_1th_rankReducedOp_idx_0_6d_post_reshape0[1,1,2,1,2] = "
            "Reshape(y_1th_rankReducedOp_1th_output)\n"
            "y_1th_rankReducedOp_expandBatch_reshape: y_restoreRank_concat_1th_input[1,1,1,2,1,2] = "
            "Reshape(y_1th_rankReducedOp_idx_0_6d_post_reshape0)\n"
            "y_restoreRank_concat: y[2,1,1,2,1,2] = "
            "Concat(y_restoreRank_concat_0th_input, y_restoreRank_concat_1th_input) axis=0\nout y",
        .allow = kSingleRun | kKeepsChanging},
       {.fault = "the two halves of a Transpose",
        .before = kIn + "y = Transpose(x) perm=[5,4,3,2,1,0]\nout y",
        .after = kIn + "y_first_transpose = Transpose(x) perm=[2,1,0,3,4,5]\n"
                       "y = Transpose(y_first_transpose) perm=[5,4,3,0,1,2]\nout y",
        .allow = kSingleRun | kKeepsChanging}});

  const auto graph = readGraph(kIn + "y = plain Odd(x)\nout y");
  const auto op = std::make_shared<ops::IrOp>("late", "Odd", nullptr);
  const auto addBetween = [&] {
    graphrefiner::Replace6dOpPass::addOpNoCanonical(graph, op, {"x"}, {"gone"}, 0);
  };
  EXPECT_EQ(
      failureOf<std::runtime_error>(addBetween),
      "netforge::graphrefiner::Replace6dOpPass::addOpNoCanonical: Graph has no tensor gone referred to as "
      "input for Op late");
}

TEST(Replace6dOps, FollowUpFoldsTheReshapesBetweenNeighbours) {
  auto graph = readGraph(kIn + "a = Softmax(x) axis=5\ny = Softmax(a) axis=5\nout y");
  CapturedOutput output;
  graphrefiner::GraphRefinerContext context;
  context.disabledPassIds = {PassId::FoldReshapesInstance1, PassId::RemoveNoOps1};
  graphrefiner::PassManager manager(context);
  manager.runOptimizationStage(graph, nullptr, graphrefiner::OptimizationStage::PostLayout);
  EXPECT_EQ(graph->countOpsOfType("Reshape"), 2u) << printGraph(*graph);
}

}  // namespace
}  // namespace netforge::testing
