#include <gtest/gtest.h>
#include "tests/passes/expansion/RecurrentText.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

TEST(UnrollLstm, ABackwardLstmReadsTheLastPieceFirst) {
  const auto graph = rewritten(
      PassId::UnrollLstm,
      RecurrentText{.attributes = "time_major=true direction=1 reset_state_at_time_step_0=true"}.lstm());
  const std::string weights = "wf wc wo rf rc ro bf bc bo ";
  const std::string rest = " n n n n wi ri n n n bi ";
  EXPECT_EQ(inputNames(*graph, "net_step_0"), "net_x2_reshape " + weights + "h0 c0" + rest);
  EXPECT_EQ(inputNames(*graph, "net_step_2"), "net_x0_reshape " + weights + "hT1 cT1" + rest);
  EXPECT_EQ(inputNames(*graph, "y_reshape_concat"), "y2_reshape y1_reshape y0_reshape ");
  EXPECT_EQ(outputNames(*graph), "y cT hT ");
  EXPECT_EQ(producerName(*graph, "y"), "y_reshape_concat");
  EXPECT_EQ(producerName(*graph, "cT"), "net_step_2");
  EXPECT_EQ(graph->getTensor("y1_reshape")->getDims(), (IrGraph::Dims{1, 2, 5}));
  for (const std::string t : {"0", "1", "2"}) {
    const auto& attributes = *graph->getOp("net_step_" + t)->getAttributes();
    EXPECT_EQ(attributes.getAttr<std::uint32_t>("direction"), 0u);
    EXPECT_FALSE(attributes.getAttr<bool>("time_major"));
    EXPECT_EQ(attributes.getAttr<bool>("reset_state_at_time_step_0"), t == "0");
  }
  EXPECT_EQ(graph->getOp("net_step_1")->getAttributes()->getAttr<std::string>("c_0_input_name"), "cT0");
}

TEST(UnrollLstm, OutputsThatTheOpLacksAreMadeForTheStates) {
  const auto graph =
      rewritten(PassId::UnrollLstm, RecurrentText{.outputs = "y[3,2,5]", .behind = "out y"}.lstm());
  const auto step = graph->getOp("net_step_1");
  EXPECT_EQ(step->getInput(10)->getName(), "net_final_hidden0");
  EXPECT_EQ(step->getInput(11)->getName(), "net_final_cell0");
}

TEST(UnrollRecurrent, OneStepNeedsNoSplitAndNoConcat) {
  const RecurrentText text{.x = "in x[1,2,4] f32", .outputs = "y[1,2,5], hT[2,5]", .behind = "out y\nout hT"};
  for (const auto& [pass, before, ops] : {std::tuple{PassId::UnrollLstm, text.lstm(), 3u},
                                          std::tuple{PassId::UnrollGruTimeSteps, text.gru(), 1u}}) {
    const auto graph = rewritten(pass, before);
    EXPECT_EQ(graph->numOps(), ops);
    EXPECT_EQ(outputNames(*graph), "y hT ");
  }
}

// A source model names the steps of an output "y:0" too; the application reads them beside the whole.
TEST(UnrollRecurrent, StepsOfAnOutputWithAColonAreGraphOutputsOnce) {
  for (const std::string x : {"in x[1,2,4] f32", "in x[3,2,4] f32"}) {
    const RecurrentText text{.x = x, .outputs = "y:0, h:0", .behind = "out y:0\nout h:0"};
    const std::string gru = outputNames(*rewritten(PassId::UnrollGruTimeSteps, text.gru()));
    EXPECT_EQ(gru, x == "in x[1,2,4] f32" ? "y:0 h:0 " : "y:0 h:0 y:00 y:01 y:02 h:00 h:01 ");
  }
}

TEST(UnrollGru, ABackwardGruReadsTheLastPieceFirst) {
  const auto graph =
      rewritten(PassId::UnrollGruTimeSteps,
                RecurrentText{.x = "in x[2,3,4] f32",
                              .attributes = "time_major=false direction=1 linear_before_reset=1",
                              .outputs = "y[2,3,5]",
                              .behind = "s = Relu(y)\nout s"}
                    .gru());
  const std::string weights = " wz wr wh rz rr rh bz br bh rbz rbr rbh ";
  EXPECT_EQ(inputNames(*graph, "net_0"), "net_x2" + weights + "h0 ");
  EXPECT_EQ(inputNames(*graph, "net_2"), "net_x0" + weights + "net_hidden_output_dummy1 ");
  EXPECT_EQ(inputNames(*graph, "net_y_concat"), "y2 y1 y0 ");
  EXPECT_EQ(inputNames(*graph, "s"), "y_concat ");
  EXPECT_EQ(graph->getTensor("y1")->getDims(), (IrGraph::Dims{2, 1, 5}));
  EXPECT_EQ(graph->getTensor("net_hidden_output_dummy2")->getDims(), (IrGraph::Dims{2, 5}));
  const auto& attributes = *graph->getOp("net_1")->getAttributes();
  EXPECT_EQ(attributes.getAttr<std::uint32_t>("linear_before_reset"), 1u);
  EXPECT_EQ(attributes.getAttr<std::string>("h_0_input_name"), "net_hidden_output_dummy0");
}

TEST(UnrollGru, TheFinalStateKeepsItsDimsInEveryStep) {
  const auto graph = rewritten(PassId::UnrollGruTimeSteps,
                               RecurrentText{.outputs = "y, hT", .behind = "out y\nout hT"}.gru());
  EXPECT_EQ(graph->getTensor("hT0")->getDims(), (IrGraph::Dims{1, 2, 5}));
}

TEST(UnrollRecurrent, Refusals) {
  const std::string flat = "in x[2,4] f32";
  expectPass(
      PassId::UnrollLstm,
      {{.fault = "the features of an x without time are unrolled", .before = RecurrentText{.x = flat}.lstm()},
       {.fault = "the tensor of a step gets the name of another tensor",
        .before = "in y1[7] f32\n" + RecurrentText{}.lstm()},
       {.fault = "an unrelated tensor counts as a step's input",
        .before = "in x_reshape[2,4] f32\n" + RecurrentText{.x = "in x[1,2,4] f32"}.lstm()}});
  expectPass(
      PassId::UnrollGruTimeSteps,
      {{.fault = "an operand that isn't there is read",
        .before = RecurrentText{.outputs = "y[3,2,5]",
                                .behind = "out y",
                                .inputs = "x, wz, wr, wh, rz, rr, rh, bz, br, bh, rbz, rbr, rbh"}
                      .gru(),
        .prints = "netforge::graphrefiner::UnrollGruTimeSteps::rewriteCallback: Gru Op net does not need "
                  "to run unrollgru as number of inputs is less than 14\n"},
       {.fault = "the tensor of a step gets the name of another tensor",
        .before = "in y1[7] f32\n" + RecurrentText{.outputs = "y[3,2,5]", .behind = "out y"}.gru()}});
}

}  // namespace
}  // namespace netforge::testing
