#include "GraphRefiner/src/passes/expansion/ExpandLstmOpStructure.h"

#include <gtest/gtest.h>
#include "tests/passes/expansion/RecurrentText.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::ExpandLstmOpStructurePass;
using graphrefiner::PassId;

constexpr PassId kPass = PassId::ExpandLstmOpStructure;
const std::string kCallback = "netforge::graphrefiner::ExpandLstmOpStructurePass::rewriteCallback: ";
const std::string kJoin = "netforge::graphrefiner::ExpandLstmOpStructurePass::concatenateStaticTensors: ";
const std::string kHidden = "_o_gate_output_ct_tanh_dot_activation";

TEST(ExpandLstm, StepsFollowTheDirectionAndTheSequenceFollowsTime) {
  const auto graph = rewritten(
      kPass,
      RecurrentText{.attributes = "time_major=true direction=1", .name = "net_multi_time_step"}.lstm());
  EXPECT_EQ(graph->numOps(), 1 + 3 * 16 + 1);
  EXPECT_EQ(graph->getOpAt(0)->getName(), "net_x_split");
  EXPECT_EQ(graph->getOpAt(1)->getName(), "net_x0_reshape");
  EXPECT_EQ(inputNames(*graph, "net_step_0_xt_wi_matmul"), "net_x2_reshape wi_input_w_to_input_gate ");
  EXPECT_EQ(inputNames(*graph, "net_step_1_ht_1_wh_matmul"),
            "net_step_0" + kHidden + " ri_recurrent_w_to_input_gate ");
  EXPECT_EQ(inputNames(*graph, "net_step_0_c_gate_tanh_ct_1_concat"), "net_step_0_c_gate_output_tanh c0 ");
  const std::string step = kHidden + "_reshape ";
  EXPECT_EQ(inputNames(*graph, "net_ht_output_reshape_concat"),
            "net_step_2" + step + "net_step_1" + step + "net_step_0" + step);
  EXPECT_EQ(producerName(*graph, "y"), "net_ht_output_reshape_concat");
  EXPECT_EQ(producerName(*graph, "hT"), "net_step_2" + kHidden);
  EXPECT_EQ(producerName(*graph, "cT"),
            "net_step_2_ifc_gate_ct_1_dot_activation_split_output_elementwise_add");
  EXPECT_EQ(outputNames(*graph), "y cT hT ");
  const auto biases = graph->getStaticTensor("bi_b_to_input_gate");
  std::string gates;
  for (int i = 0; i < 20; i += 5) gates += static_cast<char>(biases->getDataAs<float>()[i]);
  EXPECT_EQ(gates, "ifoc");  // as the Split takes them apart
}

TEST(ExpandLstm, ReadersOfASingleStepGetTheRankThatTheyCanTake) {
  const auto inputOf = [](const std::string& behind, const std::string& reader,
                          const std::string& x = "in x[1,2,4] f32") {
    RecurrentText text{.x = x, .outputs = x == "in x[2,4] f32" ? "y[2,5]" : "y[1,2,5]", .behind = behind};
    return inputNames(*rewritten(kPass, text.lstm()), reader);
  };
  const std::string rank3 = "net_step_0" + kHidden + "_reshape ";
  const std::string rank2 = "net_step_0" + kHidden + "_reshape_reshape ";
  const std::string relu = "s = Relu(y)\n";
  EXPECT_EQ(inputOf(relu + "out s", "s"), rank3);
  EXPECT_EQ(inputOf("r[5,2] = Reshape(y)\nout r", "r"), rank2);
  EXPECT_EQ(inputOf("r[5,2] = Reshape(y)\n" + relu + "out r\nout s", "s"), rank3);
  EXPECT_EQ(inputOf("r[2,5] = Reshape(y)\nq[5,2] = Reshape(y)\nout q\nout r", "r"), rank3);
  EXPECT_EQ(inputOf("r[2,5] = Reshape(y)\nq[5,2] = Reshape(y)\nout q\nout r", "q"), "r ");
  // One that stands in front of the Reshape can't read its output.
  EXPECT_EQ(inputOf("q[5,2] = Reshape(y)\nr[2,5] = Reshape(y)\nout q\nout r", "q"), rank3);
  // A reduction to rank 2 goes over an axis that the rank-2 form lacks.
  EXPECT_EQ(inputOf("r = Reduce(y) axes=[0] keep_dims=false reduce_type=ReduceSum\nout r", "r"), rank3);
  // An x without time gives a sequence without time.
  EXPECT_EQ(inputOf(relu + "out s", "s", "in x[2,4] f32"), rank2);
}

TEST(ExpandLstm, WeightsAndInitialStatesAreShared) {
  RecurrentText text{
      .x = "in x[1,2,4] f32",
      .states = "in h0[1,2,5] f32\nin c0[1,2,5] f32",
      .outputs = "y[1,2,5]",
      .behind =
          "second: z[1,2,5] = Lstm(y, wf, wc, wo, rf, rc, ro, bf, bc, bo, h0, c0, n, n, n, n, vi, "
          "ri, n, n, n, bi) hidden_size=5 time_major=true\nout z"};
  text.states += "\nconst vi[5,5] f32 = fill 0.5";
  std::string same = text.lstm();
  same.replace(same.find("(y, wf"), 6, "(x, wf");
  same.replace(same.find(" vi, ri"), 7, " wi, ri");
  const auto graph = rewritten(kPass, same);
  EXPECT_EQ(graph->countOpsOfType("Lstm"), 0u);
  EXPECT_EQ(graph->countOpsOfType("Reshape"), 3u + 2u);  // x, h0, c0, and one behind each step
  EXPECT_EQ(inputNames(*graph, "second_step_0_xt_wi_matmul"), "x_reshape wi_input_w_to_input_gate ");
  EXPECT_LT(graph->getOpIndex(graph->getOp("h0_reshape")),
            graph->getOpIndex(graph->getOp("net_step_0_ht_1_wh_matmul")));
}

TEST(ExpandLstm, Refusals) {
  const auto without = [](const std::string& gone, const std::string& instead) {
    RecurrentText text{.inputs =
                           "x, wf, wc, wo, rf, rc, ro, bf, bc, bo, h0, c0, n, n, n, n, wi, ri, n, n, n, bi"};
    text.inputs.replace(text.inputs.find(gone), gone.size(), instead);
    return text.lstm();
  };
  const std::string missing = kCallback + "LSTM net has missing (null) input tensors.\n";
  const auto odd = [&](const std::string& state) { return RecurrentText{.states = state}.lstm(); };
  expectPass(
      kPass,
      {{.fault = "fewer operands than the op can have",
        .before = without(", n, n, n, n, wi, ri, n, n, n, bi", ""),
        .prints =
            kCallback + "LSTM net has unexpected number of inputs: 12. Expected between 15-25 inputs.\n"},
       {.fault = "an absent state", .before = without("h0", "n"), .prints = missing},
       {.fault = "the input gate's bias cut off", .before = without(", n, n, n, bi", ""), .prints = missing},
       {.fault = "computed weights",
        .before = "in v[5,4] f32\nwv = Relu(v)\n" + without("wi", "wv"),
        .prints = kCallback + "LSTM net weights must be static tensors\n"},
       {.fault = "states of different dims",
        .before = odd("in h0[2,5] f32\nin c0[1,2,5] f32"),
        .prints = kCallback + "LSTM net hidden and cell state dimensions must match\n"},
       {.fault = "another tensor under a generated name is read",
        .before = odd("in h0[1,2,5] f32\nin c0[1,2,5] f32\nin h0_reshape[2,5] f32"),
        .prints = ""},
       {.fault = "weights of other ops that share the input gate's",
        .before = "const wi_input_w_to_input_gate[20,4] f32 = fill 0.75\n" + RecurrentText{}.lstm(),
        .prints = ""}});
}

TEST(ExpandLstm, ConstantsThatDontGoTogether) {
  const std::string text = R"(
    in x[3,2] f32
    const a[3,2] f32 = iota
    const b[1,2] f32 = iota 6
    const wide[3,4] f32 = iota
    const flat[3] f32 = iota
    const whole[3,2] i32 = iota
    const odd[3,2] f32 updateable = iota
    const joined[4,2] f32 = iota
    out x
  )";
  struct Case {
    std::vector<std::string> parts;
    std::string name, prints;
    bool joins = false;
  };
  for (const Case& test : std::vector<Case>{
           {{"a", "b"}, "joined", "", true},
           {{"b", "a"}, "joined", ""},
           {{"a"}, "joined", "Error: Cached tensor dimensions don't match expected concatenation result"},
           {{"a", "b"}, "x", ""},
           {{}, "new", "Error: Cannot concatenate empty tensor list"},
           {{"x", "a"}, "new", ""},
           {{"a", "x"}, "new", "Error: Cannot concatenate non-static tensor at index 1"},
           {{"a", "whole"}, "new", "Error: Data type mismatch in concatenation"},
           {{"a", "flat"}, "new", "Error: Rank mismatch in concatenation"},
           {{"a", "b", "odd"},
            "new",
            "Error: Updateable flag mismatch in concatenation at index 2 (expected: 0, got: 1)"},
           {{"a", "wide"}, "new", "Error: Dimension mismatch at axis 1"}}) {
    SCOPED_TRACE(test.prints + test.name);
    const auto graph = readGraph(text);
    std::vector<std::shared_ptr<IrTensor>> parts;
    for (const std::string& part : test.parts) parts.push_back(graph->getTensor(part));
    CapturedOutput output;
    EXPECT_EQ(ExpandLstmOpStructurePass::concatenateStaticTensors(graph, parts, test.name) != nullptr,
              test.joins);
    EXPECT_EQ(output.text(), test.prints.empty() ? "" : kJoin + test.prints + "\n");
    EXPECT_FALSE(graph->hasTensor("new"));
  }
  EXPECT_EQ(ExpandLstmOpStructurePass::insertBeforeDirectionSuffix("w_forward", "_s"), "w_s_forward");
  EXPECT_EQ(ExpandLstmOpStructurePass::insertBeforeDirectionSuffix("w_backward", "_s"), "w_s_backward");
  EXPECT_EQ(ExpandLstmOpStructurePass::insertBeforeDirectionSuffix("w_forward_1", "_s"), "w_forward_1_s");
}

}  // namespace
}  // namespace netforge::testing
