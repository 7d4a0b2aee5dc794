#include "GraphRefiner/src/passes/expansion/UnrollGruTimeSteps.h"

#include <iostream>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/passes/expansion/recurrent/ReplacementOps.h"
#include "GraphRefiner/src/passes/expansion/recurrent/StepOutputs.h"

namespace netforge::graphrefiner {

namespace {

OpParams stepParams(const std::shared_ptr<ops::IrOp>& op, std::uint32_t width) {
  OpParams params{
      {"activation", OpParam(attributeOr<std::string>(op, "activation", "Sigmoid"))},
      {"gate_activation", OpParam(attributeOr<std::string>(op, "gate_activation", "Sigmoid"))},
      {"rec_gate_activation", OpParam(attributeOr<std::string>(op, "rec_gate_activation", "Tanh"))},
      {"direction", OpParam(attributeOr(op, "direction", 0u))},
      {"hidden_size", OpParam(attributeOr(op, "hidden_size", width))},
      {"linear_before_reset", OpParam(attributeOr(op, "linear_before_reset", 0u))},
      {"time_major", OpParam(attributeOr(op, "time_major", false))}};
  if (op->getAttributes()->hasAttr("packageName")) {
    params["packageName"] = OpParam(op->getAttributes()->getAttr<std::string>("packageName"));
  }
  return params;
}

}  // namespace

UnrollGruTimeSteps::UnrollGruTimeSteps() {
  rootPattern = makeOpType("Gru");
  pattern = rootPattern;
}

bool UnrollGruTimeSteps::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto op = matchedOps.at(rootPattern);
  const std::string opName = op->getName();
  if (op->numInputs() <= initialHiddenInputIndex) {
    std::cout << "netforge::graphrefiner::UnrollGruTimeSteps::rewriteCallback: Gru Op " << opName
              << " does not need to run unrollgru as number of inputs is less than "
              << initialHiddenInputIndex + 1 << std::endl;
    return false;
  }
  const TimeSequence sequence = readTimeSequence(op);
  if (!sequence.ranked3 || sequence.steps == 0 || op->numOutputs() == 0 || hasDynamicInput(op)) return false;
  const auto x = op->getInput(inputIndex);
  const auto output = op->getOutput(0);
  const bool hasHiddenOutput = op->numOutputs() > hiddenOutputIndex;
  const std::uint32_t steps = sequence.steps;

  const StepOutputs hiddenSequence(op, 0, "", nullptr, steps);
  const StepOutputs finalHidden(op, hiddenOutputIndex, opName + "_hidden_output_dummy",
                                op->getInput(initialHiddenInputIndex), steps);
  const std::string base = opName + "_" + x->getName();
  const std::string concat = output->getName() + "_concat";
  const std::string concatOp = opName + "_" + concat;
  std::vector<std::string> made = hiddenSequence.names();
  made.insert(made.end(), finalHidden.names().begin(), finalHidden.names().end());
  if (steps > 1) {
    for (const std::string& piece : numberedNames(base, steps)) made.push_back(piece);
    made.push_back(concat);
  }
  if (!areFreeTensorNames(*graph, made) || graph->hasOp(base + "_split") || graph->hasOp(opName + "_0") ||
      graph->hasOp(concatOp))
    return false;

  // ---- edits ----
  ReplacementOps ops(graph, op);
  const auto pieces = sequence.reordered(ops.splitOverTime(base, sequence, true));
  const std::uint32_t width = output->getDims().back();
  hiddenSequence.addTensors(ops, sequence.stepDims(width), steps == 1);
  std::vector<std::uint32_t> hiddenDims{sequence.batch, width};
  if (hasHiddenOutput) hiddenDims = op->getOutput(hiddenOutputIndex)->getDims();
  finalHidden.addTensors(ops, hiddenDims, true);
  if (!hasHiddenOutput) {
    for (const std::string& name : finalHidden.names())
      graph->getTensor(name)->setAxisFormat(AxisFormat::NONTRIVIAL);
  }

  std::vector<std::string> inputs{""};
  for (std::uint32_t i = 1; i <= lastWeightInputIndex; ++i) inputs.push_back(op->getInput(i)->getName());
  inputs.push_back(op->getInput(initialHiddenInputIndex)->getName());
  OpParams params = stepParams(op, hiddenDims.back());
  for (std::uint32_t t = 0; t < steps; ++t) {
    if (t > 0) inputs[initialHiddenInputIndex] = finalHidden.names()[t - 1];
    inputs[inputIndex] = pieces[t];
    params["h_0_input_name"] = OpParam(inputs[initialHiddenInputIndex]);
    ops.add("Gru", opName + "_" + std::to_string(t), inputs, params,
            {hiddenSequence.names()[t], finalHidden.names()[t]}, AxisFormat::NONTRIVIAL);
  }
  std::string last = hiddenSequence.names().back();
  if (steps > 1) {
    ops.addTensorLike(output, concat, output->getDims());
    last = ops.concatOverTime(concatOp, concat, sequence, hiddenSequence.names(), output->getAxisFormat());
  }
  ops.takeOver(output, last);
  if (hasHiddenOutput) ops.takeOver(op->getOutput(hiddenOutputIndex), finalHidden.names().back());
  ops.retire();
  return true;
}

std::shared_ptr<Pass> buildUnrollGruTimeSteps() {
  return makeSequencePass<UnrollGruTimeSteps>();
}

[[maybe_unused]] static const bool registeredUnrollGruTimeSteps =
    PassManager::registerPass(PassId::UnrollGruTimeSteps);

}  // namespace netforge::graphrefiner
