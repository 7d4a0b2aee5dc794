#include "GraphRefiner/src/passes/expansion/MultiTimeSteps.h"

#include <iostream>
#include "GraphRefiner/src/PassBuilders.h"

namespace netforge::graphrefiner {

namespace {

constexpr const char* kNoSuchType = "ThisOpDoesNotExist_Placeholder";

}  // namespace

CreateMultiTimeStepsGRU::CreateMultiTimeStepsGRU() {
  pattern = makeOpType(kNoSuchType);
}

bool CreateMultiTimeStepsGRU::rewriteCallback(std::shared_ptr<IrGraph>& /*graph*/,
                                              MatchedOps& /*matchedOps*/) {
  std::cout << "netforge::graphrefiner::CreateMultiTimeStepsGRU::rewriteCallback: "
            << "MULTI_TIME_STEPS_GRU Pass is implemented at Translation Level" << std::endl;
  return false;
}

CreateMultiTimeStepsLSTM::CreateMultiTimeStepsLSTM() {
  pattern = makeOpType(kNoSuchType);
}

bool CreateMultiTimeStepsLSTM::rewriteCallback(std::shared_ptr<IrGraph>& /*graph*/,
                                               MatchedOps& /*matchedOps*/) {
  std::cout << "netforge::graphrefiner::CreateMultiTimeStepsLSTM::rewriteCallback: "
            << "MULTI_TIME_STEPS_LSTM Pass is implemented at Translation Level" << std::endl;
  return false;
}

std::shared_ptr<Pass> buildMultiTimeStepsGRU() {
  return makeSequencePass<CreateMultiTimeStepsGRU>();
}

std::shared_ptr<Pass> buildMultiTimeStepsLSTM() {
  return makeSequencePass<CreateMultiTimeStepsLSTM>();
}

[[maybe_unused]] static const bool registeredGru = PassManager::registerPass(PassId::MultiTimeStepsGRU);
[[maybe_unused]] static const bool registeredLstm = PassManager::registerPass(PassId::MultiTimeStepsLSTM);

}  // namespace netforge::graphrefiner
