#include "GraphRefiner/src/passes/expansion/MultiTimeSteps.h"

#include <gtest/gtest.h>
#include "tests/support/CapturedOutput.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

// The names are kept for configurations only: neither pass may touch a recurrent op of many time steps.
TEST(MultiTimeSteps, RecurrentOpsStayForTheTranslation) {
  const std::string ops = R"(
    in x[5,2,3] f32
    y[5,2,4] = plain Gru(x)
    z[5,2,4] = plain Lstm(x)
    out y
    out z
  )";
  expectPass(PassId::MultiTimeStepsGRU, {{.fault = "a Gru is rewritten", .before = ops, .prints = ""}});
  expectPass(PassId::MultiTimeStepsLSTM, {{.fault = "an Lstm is rewritten", .before = ops, .prints = ""}});
}

TEST(MultiTimeSteps, TheCallbacksSayWhereTheWorkIsDone) {
  std::shared_ptr<IrGraph> graph;
  graphrefiner::MatchedOps none;
  CapturedOutput output;
  EXPECT_FALSE(graphrefiner::CreateMultiTimeStepsGRU().rewriteCallback(graph, none));
  EXPECT_FALSE(graphrefiner::CreateMultiTimeStepsLSTM().rewriteCallback(graph, none));
  EXPECT_EQ(output.text(),
            "netforge::graphrefiner::CreateMultiTimeStepsGRU::rewriteCallback: "
            "MULTI_TIME_STEPS_GRU Pass is implemented at Translation Level\n"
            "netforge::graphrefiner::CreateMultiTimeStepsLSTM::rewriteCallback: "
            "MULTI_TIME_STEPS_LSTM Pass is implemented at Translation Level\n");
}

}  // namespace
}  // namespace netforge::testing
