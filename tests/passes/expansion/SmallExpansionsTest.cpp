#include <gtest/gtest.h>
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

// Sources of the model in the records of an op and of tensors, for what the text form doesn't show.
void addRecords(IrGraph& graph, const std::string& opName, const std::string& tensorName) {
  graph.addTraceSources(TraceKind::Op, opName, {{"model_op", TraceKind::Op}});
  graph.addTraceSources(TraceKind::Tensor, tensorName, {{"model_tensor", TraceKind::Tensor}});
}

// Every op that the rule made has both sources; a Relu stands for the rest of the graph.
void expectTraced(const IrGraph& graph, const std::string& goneOp) {
  const std::vector<TraceSource> both = {{"model_op", TraceKind::Op}, {"model_tensor", TraceKind::Tensor}};
  for (const auto& op : graph.getOps()) {
    if (op->getType() == "Relu") continue;
    EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, op->getName()), both) << op->getName();
    const auto sources = graph.getTraceInfo(TraceKind::Tensor, op->getOutput(0)->getName());
    EXPECT_EQ(sources.back(), both.back()) << op->getName();
  }
  EXPECT_TRUE(graph.getTraceInfo(TraceKind::Op, goneOp).empty());
  for (const auto& record : graph.getTraceRecords(TraceKind::Tensor)) {
    EXPECT_TRUE(graph.hasTensor(record.name)) << record.name << " is gone, its record is still there";
  }
}

TEST(ThresholdedRelu, BecomesAComparisonAndAChoice) {
  expectPass(
      PassId::ExpandThresholdedRelu,
      {{.fault = "the graph output loses its name, or its layout, or the comparison is no bool",
        .before =
            "in x[2,?3,5] f32 NFC\nr: y[2,?3,5] f32 NFC src=NCF range=0/1 = ThresholdedRelu(x) alpha=0.25\n"
            "z = Relu(y)\nout y\nout z",
        .after = "in x[2,?3,5] f32 NFC\nconst r_alpha[1] f32 = 0.25\nconst r_zeros[1] f32 = 0\n"
                 "x_gt_r_alpha[2,?3,5] bool NFC = Eltwise_Binary(x, r_alpha) operation=6\n"
                 "ternary_r: y[2,?3,5] f32 NFC src=NCF range=0/1 = Eltwise_Ternary(x_gt_r_alpha, x, r_zeros) "
                 "eltwise_type=ElementWiseSelect\nz = Relu(y)\nout y\nout z",
        .prints = "",
        .prepare = [](IrGraph& graph) { addRecords(graph, "r", "y"); },
        .inspect = [](const IrGraph& graph) { expectTraced(graph, "r"); }},
       {.fault = "an optional output is left behind, or its place in the list",
        .before = "in x[2,3] f32\nq = Relu(x)\nr: y = ThresholdedRelu(q) alpha=-1.0\nout y optional\nout q",
        .after = "in x[2,3] f32\nconst r_alpha[1] f32 = -1\nconst r_zeros[1] f32 = 0\nq = Relu(x)\n"
                 "q_gt_r_alpha[2,3] bool = Eltwise_Binary(q, r_alpha) operation=6\n"
                 "ternary_r: y[2,3] = Eltwise_Ternary(q_gt_r_alpha, q, r_zeros) "
                 "eltwise_type=ElementWiseSelect\nout y optional\nout q"},
       {.fault = "a reader of two places is moved at one",
        .before = "in x[2] f32\nr: y = ThresholdedRelu(x) alpha=1.0\nz = Eltwise_Binary(y, y) operation=0\n"
                  "out z",
        .after = "in x[2] f32\nconst r_alpha[1] f32 = 1\nconst r_zeros[1] f32 = 0\n"
                 "x_gt_r_alpha[2] bool = Eltwise_Binary(x, r_alpha) operation=6\n"
                 "ternary_r: y[2] = Eltwise_Ternary(x_gt_r_alpha, x, r_zeros) "
                 "eltwise_type=ElementWiseSelect\nz = Eltwise_Binary(y, y) operation=0\nout z"},
       {.fault = "ends the run on a name that is taken",
        .before =
            "in x[2] f32\nin r_zeros[2] f32\nr: y = ThresholdedRelu(x) alpha=1.0\nout y\nout r_zeros"}});
}

TEST(ReduceL2, BecomesTheRootOfASumOfSquares) {
  expectPass(
      PassId::ExpandReduceL2Op,
      {{.fault = "kept axes go, or the layouts of the input and the output are mixed up",
        .before = "in x[2,?3,5] f32 NFC updateable\nr: y[2,1,1] f32 NCF src=NFC = ReduceL2(x) axes=[-1,1] "
                  "keep_dims=true\nout y",
        .after = "in x[2,?3,5] f32 NFC updateable\n"
                 "r_mul[2,?3,5] f32 NFC updateable = Eltwise_Binary(x, x) operation=13\n"
                 "r_reduced_sum[2,1,1] f32 NCF src=NFC = Reduce(r_mul) axes=[2,1] keep_dims=true "
                 "reduce_type=ReduceSum\n"
                 "r_sqrt: y[2,1,1] f32 NCF src=NFC = Eltwise_Unary(r_reduced_sum) operation=15\nout y",
        .prints = "",
        .prepare = [](IrGraph& graph) { addRecords(graph, "r", "y"); },
        .inspect = [](const IrGraph& graph) { expectTraced(graph, "r"); }},
       {.fault = "reduced axes are kept, or a dynamic axis keeps its old place",
        .before = "in x[2,3,?5] f32\nr: y[3,?5] = ReduceL2(x) axes=[0] keep_dims=false\nz = Relu(y)\nout z",
        .after = "in x[2,3,?5] f32\nr_mul[2,3,?5] = Eltwise_Binary(x, x) operation=13\n"
                 "r_reduced_sum[3,?5] = Reduce(r_mul) axes=[0] keep_dims=false reduce_type=ReduceSum\n"
                 "r_sqrt: y[3,?5] = Eltwise_Unary(r_reduced_sum) operation=15\nz = Relu(y)\nout z"},
       {.fault = "a norm over all axes is of rank 0",
        .before = "in x[7] f32\nr: y[1] = ReduceL2(x) axes=[0] keep_dims=false\nout y",
        .after = "in x[7] f32\nr_mul[7] = Eltwise_Binary(x, x) operation=13\n"
                 "r_reduced_sum[1] = Reduce(r_mul) axes=[0] keep_dims=false reduce_type=ReduceSum\n"
                 "r_sqrt: y[1] = Eltwise_Unary(r_reduced_sum) operation=15\nout y"},
       {.fault = "a missing keep_dims counts as false",
        .before = "in x[2,3] f32\nr: y[2,1] = plain ReduceL2(x) axes=[1]\nout y",
        .after = "in x[2,3] f32\nr_mul[2,3] = Eltwise_Binary(x, x) operation=13\n"
                 "r_reduced_sum[2,1] = Reduce(r_mul) axes=[1] keep_dims=true reduce_type=ReduceSum\n"
                 "r_sqrt: y[2,1] = Eltwise_Unary(r_reduced_sum) operation=15\nout y"},
       {.fault = "an input of the graph that is its output too is lost",
        .before = "in x[2,3] f32\nr: y = ReduceL2(x) axes=[1] keep_dims=true\nout x both\nout y",
        .after = "in x[2,3] f32\nr_mul[2,3] = Eltwise_Binary(x, x) operation=13\n"
                 "r_reduced_sum[2,1] = Reduce(r_mul) axes=[1] keep_dims=true reduce_type=ReduceSum\n"
                 "r_sqrt: y[2,1] = Eltwise_Unary(r_reduced_sum) operation=15\nout x both\nout y"},
       {.fault = "ends the run on the name of an op",
        .before = "in x[2] f32\nr_sqrt: z = Relu(x)\nr: y = ReduceL2(x) axes=[0] keep_dims=true\nout y\n"
                  "out z"}});
}

TEST(ElementwiseMean, BecomesSumsAndADivision) {
  const std::string inputs = "in a[3] f32\nin b[2,1] f32\nin c[5,1,1] f32\n";
  expectPass(
      PassId::ExpandElementwiseMean,
      {{.fault = "a sum has the dims of all inputs instead of those that it reads, or three count as two",
        .before = inputs + "m: y[5,2,3] = Mean(a, b, c)\nz = Relu(y)\nout y\nout z",
        .after = inputs + "const m_div_const[1] f32 = 3\n"
                          "m_add_op_1: m_add_1[2,3] = Eltwise_Binary(a, b) operation=0\n"
                          "m_add_op_2: m_add_2[5,2,3] = Eltwise_Binary(m_add_1, c) operation=0\n"
                          "m_div_op: y[5,2,3] = Eltwise_Binary(m_add_2, m_div_const) operation=2\n"
                          "z = Relu(y)\nout y\nout z",
        .prints = "",
        .prepare = [](IrGraph& graph) { addRecords(graph, "m", "y"); },
        .inspect = [](const IrGraph& graph) { expectTraced(graph, "m"); }},
       {.fault = "a constant in front makes the sum a constant, or a tensor that stands twice counts once",
        .before = "in x[2] f32\nconst k[2] f32 = 1 2\nm: y = Mean(k, x, x)\nout y",
        .after = "in x[2] f32\nconst k[2] f32 = 1 2\nconst m_div_const[1] f32 = 3\n"
                 "m_add_op_1: m_add_1[2] = Eltwise_Binary(k, x) operation=0\n"
                 "m_add_op_2: m_add_2[2] = Eltwise_Binary(m_add_1, x) operation=0\n"
                 "m_div_op: y[2] = Eltwise_Binary(m_add_2, m_div_const) operation=2\nout y"},
       {.fault = "a mean of one input divides, or renames the input",
        .before = "in x[2,?3] f32 NF\nm: y = Mean(x)\nz = Relu(y)\nout y\nout z",
        .after = "in x[2,?3] f32 NF\nm_identity_reshape: y[2,?3] = Reshape(x)\nz = Relu(y)\nout y\nout z"},
       {.fault = "ends the run on a name that is taken",
        .before = "in x[2] f32\nm_add_1 = Relu(x)\nm: y = Mean(x, m_add_1)\nout y"},
       {.fault = "inputs that don't broadcast end the run",
        .before = "in a[2] f32\nin b[3] f32\nm: y[2] = Mean(a, b)\nout y"},
       {.fault = "an axis of unknown size ends the run",
        .before = "in a[?2,3] f32\nin b[2,3] f32\nm: y[?2,3] = Mean(a, b)\nout y"}});
}

TEST(Inverse, BecomesAdjugateByDeterminant) {
  const auto expansion = [](const std::string& dims, const std::string& sumDims, const std::string& meanDims,
                            const std::string& perm, const std::string& axes) {
    const std::string product = " transpose_in0=false transpose_in1=false\n";
    return "const n_flipped_identity[2,2] f32 = 0 1 1 0\nconst n_sign_change_matrix[2,2] f32 = 1 -1 -1 1\n"
           "n_adj_matmul_1" +
           dims + " = MatMul(x, n_flipped_identity)" + product + "n_adj_transpose" + dims +
           " = Transpose(n_adj_matmul_1) perm=" + perm + "\nn_adj_matmul_2" + dims +
           " = MatMul(n_adj_transpose, n_flipped_identity)" + product + "n_adj_sign_change" + dims +
           " = Eltwise_Binary(n_adj_matmul_2, n_sign_change_matrix) operation=13\nn_inv_matmul" + dims +
           " = MatMul(x, n_adj_sign_change)" + product + "n_inv_reduce_sum" + sumDims +
           " = Reduce(n_inv_matmul) axes=[" + axes[0] +
           "] keep_dims=true reduce_type=ReduceSum\nn_inv_reduce_mean" + meanDims +
           " = Reduce(n_inv_reduce_sum) axes=[" + axes[1] +
           "] keep_dims=true reduce_type=ReduceMean\nn_inv_div: y" + dims +
           " = Eltwise_Binary(n_adj_sign_change, n_inv_reduce_mean) operation=2\n";
  };
  const auto skipped = [](const std::string& dims) {
    return "netforge::graphrefiner::ExpandInverseRule::rewriteCallback: ExpandInverse: skipping op 'n' – "
           "input last two dims are not 2x2 (got " +
           dims + ")\n\n";
  };
  expectPass(
      PassId::ExpandInverse,
      {{.fault = "the axes of a batch are taken for those of the matrices",
        .before = "in x[?5,2,2] f32\nn: y[?5,2,2] = Inverse(x)\nz = Relu(y)\nout y\nout z",
        .after = "in x[?5,2,2] f32\n" + expansion("[?5,2,2]", "[?5,2,1]", "[?5,1,1]", "[0,2,1]", "21") +
                 "z = Relu(y)\nout y\nout z",
        .prints = "",
        .prepare = [](IrGraph& graph) { addRecords(graph, "n", "y"); },
        .inspect = [](const IrGraph& graph) { expectTraced(graph, "n"); }},
       {.fault = "a single matrix is refused",
        .before = "in x[2,2] f32\nn: y = Inverse(x)\nz = Relu(y)\nout z",
        .after =
            "in x[2,2] f32\n" + expansion("[2,2]", "[2,1]", "[1,1]", "[1,0]", "10") + "z = Relu(y)\nout z"},
       {.fault = "larger matrices are expanded",
        .before = "in x[3,3] f32\nn: y = plain Inverse(x)\nout y",
        .prints = skipped("3x3")},
       {.fault = "only the last dim is looked at",
        .before = "in x[2,4,2] f32\nn: y = plain Inverse(x)\nout y",
        .prints = skipped("4x2")},
       {.fault = "the missing dim of a vector is read",
        .before = "in x[2] f32\nn: y = plain Inverse(x)\nout y",
        .prints = skipped("0x2")},
       {.fault = "the placeholder of an unknown size counts",
        .before = "in x[2,?2] f32\nn: y[2,?2] = plain Inverse(x)\nout y",
        .prints = ""},
       {.fault = "ends the run on a name that is taken",
        .before = "in x[2,2] f32\nn_inv_div = Relu(x)\nn: y = Inverse(x)\nout y\nout n_inv_div"}});
}

}  // namespace
}  // namespace netforge::testing
