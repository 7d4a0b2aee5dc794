#include <gtest/gtest.h>
#include "GraphRefiner/src/passes/expansion/ExpandGruOpStructure.h"
#include "tests/passes/expansion/RecurrentText.h"
#include "tests/support/Failures.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::ExpandGruOpStructureRule;
using graphrefiner::PassId;

constexpr PassId kPass = PassId::ExpandGruOpStructure;
const std::string kRule = "netforge::graphrefiner::ExpandGruOpStructureRule::";

RecurrentText oneStep(const std::string& attributes) {
  return {.x = "in x[1,2,4] f32",
          .attributes = "time_major=true " + attributes,
          .outputs = "y, hT",
          .behind = "s = Relu(y)\nout s\nout hT"};
}

TEST(ExpandGru, TheResetGateStandsBeforeOrBehindTheRecurrentMatMul) {
  const auto before = rewritten(kPass, oneStep("").gru());
  EXPECT_EQ(inputNames(*before, "net_rt_dot_ht_1_rh_matmul_op"), "net_rt_dot_ht_1_op rh ");
  EXPECT_EQ(inputNames(*before, "net_elementsum_of_term1_part1_op"),
            "net_xt_wz_matmul_op net_ht_1_rz_matmul_op_name ");
  EXPECT_EQ(inputNames(*before, "net_reset_gate_b"), "br rbr ");
  EXPECT_EQ(inputNames(*before, "net_one_minus_zt_op"), "net_initial_ones_op net_activation_update_op ");
  EXPECT_EQ(inputNames(*before, "net_zt_dot_ht_1_op"), "net_activation_update_op h0 ");
  EXPECT_EQ(inputNames(*before, "s"), "y_reshape ");  // not a graph output: keeps the generated name
  EXPECT_EQ(producerName(*before, "hT"), "hT_reshape");
  EXPECT_EQ(outputNames(*before), "s hT ");
  const auto behind = rewritten(kPass, oneStep("linear_before_reset=1").gru());
  EXPECT_FALSE(behind->hasOp("net_rt_dot_ht_1_op"));
  EXPECT_EQ(inputNames(*behind, "net_rt_dot_ht_1_rh_rbh_matmul_bias_op"),
            "net_activation_reset_op net_ht_1_rh_rbh_matmul_bias_op ");
  EXPECT_TRUE(behind->hasOp("net_activation_rec_gate_term3p2_op"));
}

TEST(ExpandGru, ActivationsByName) {
  struct Case {
    std::string attributes;
    std::uint32_t gate, candidate;
  };
  for (const Case& test : {Case{"", 6, 8}, Case{"gate_activation=Relu rec_gate_activation=Sigmoid", 4, 6},
                           Case{"gate_activation=Tanh rec_gate_activation=Relu", 8, 4},
                           Case{"gate_activation=Elu rec_gate_activation=Elu", 6, 8}}) {
    SCOPED_TRACE(test.attributes);
    const auto graph = rewritten(kPass, oneStep(test.attributes).gru());
    const auto operation = [&](const std::string& op) {
      return graph->getOp(op)->getAttributes()->getAttr<std::uint32_t>("operation");
    };
    EXPECT_EQ(operation("net_activation_update_op"), test.gate);
    EXPECT_EQ(operation("net_activation_reset_op"), test.gate);
    EXPECT_EQ(operation("net_activation_rec_gate_term3p1_op"), test.candidate);
  }
}

TEST(ExpandGru, Refusals) {
  RecurrentText three = oneStep("");
  three.outputs = "y, hT, more[2]";
  std::string plain = three.gru();
  plain.replace(plain.find("= Gru"), 5, "= plain Gru");
  plain.replace(plain.find("y, hT, "), 7, "y[1,2,5], hT[2,5], ");
  RecurrentText longer = oneStep("");
  longer.x = "in x[3,2,4] f32";
  expectPass(
      kPass,
      {{.fault = "all but one step are dropped",
        .before = longer.gru(),
        .prints =
            kRule + "rewriteCallback: Unsupported sequence length for GRU node net, expected 1, got 3\n"},
       {.fault = "another tensor under a generated name is taken for the output",
        .before = "in y_reshape[1,2,5] f32\n" + oneStep("").gru()},
       {.fault = "an output is forgotten",
        .before = plain,
        .throws =
            kRule +
            "rewriteCallback: Unsupported number of outputs for GRU node net, expected 1 or 2, got 3"}});
}

TEST(ExpandGru, NamesThatCantBeAligned) {
  const auto graph = readGraph("in x[2] f32\na = Relu(x)\nb = Relu(x)\nout a\nout b");
  const auto align = [&](const std::string& from, const std::string& to) {
    return failureOf<std::runtime_error>(
        [&] { ExpandGruOpStructureRule::alignToSourceOutputNames(graph, {from}, {to}, true); });
  };
  const std::string head = kRule + "alignToSourceOutputNames: ";
  EXPECT_EQ(align("c", "a"), head + "Tensor c does not exist in graph during output name alignment");
  EXPECT_EQ(align("a", "b"), head +
                                 "Buffer b already exists in graph, duplicate buffer name when replacing "
                                 "buffer a with it");
  ExpandGruOpStructureRule::alignToSourceOutputNames(graph, {"c"}, {"x"},
                                                     true);  // no graph output: passed over
}

}  // namespace
}  // namespace netforge::testing
