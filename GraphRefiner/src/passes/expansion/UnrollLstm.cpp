#include "GraphRefiner/src/passes/expansion/UnrollLstm.h"

#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/passes/expansion/recurrent/ReplacementOps.h"
#include "GraphRefiner/src/passes/expansion/recurrent/StepOutputs.h"

namespace netforge::graphrefiner {

namespace {

// The attributes of the op of one step, in which only the states' names differ from step to step.
OpParams stepParams(const std::shared_ptr<ops::IrOp>& op, bool isFirst, const std::string& hidden,
                    const std::string& cell) {
  const auto& attributes = op->getAttributes();
  const std::uint32_t width = op->getOutput(0)->getDims().back();
  OpParams params{{"hidden_size", OpParam(attributeOr(op, "hidden_size", width))},
                  {"direction", OpParam(0u)}};
  if (attributes->hasAttr("reset_state_at_time_step_0")) {
    params["reset_state_at_time_step_0"] =
        OpParam(isFirst && attributes->getAttr<bool>("reset_state_at_time_step_0"));
  }
  if (attributes->hasAttr("h_0_input_name")) params["h_0_input_name"] = OpParam(hidden);
  if (attributes->hasAttr("c_0_input_name")) params["c_0_input_name"] = OpParam(cell);
  for (const char* name : {"sequence_continuation_name", "x_static_name"}) {
    if (attributes->hasAttr(name)) params[name] = OpParam(attributes->getAttr<std::string>(name));
  }
  for (const char* name : {"cell_clip_threshold", "output_clip_threshold"}) {
    if (attributes->hasAttr(name)) params[name] = OpParam(attributes->getAttr<float>(name));
  }
  if (attributes->hasAttr("time_major")) params["time_major"] = OpParam(false);
  return params;
}

}  // namespace

UnrollLstmTimeSteps::UnrollLstmTimeSteps() {
  rootPattern = makeOpType("Lstm");
  pattern = rootPattern;
}

bool UnrollLstmTimeSteps::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto op = matchedOps.at(rootPattern);
  if (op->numInputs() <= initialCellInputIndex || op->numOutputs() == 0) return false;
  const TimeSequence sequence = readTimeSequence(op);
  if (!sequence.ranked3 || sequence.steps == 0 || hasDynamicInput(op)) return false;
  const std::string opName = op->getName();
  const auto x = op->getInput(inputIndex);
  const std::uint32_t steps = sequence.steps;

  const StepOutputs hiddenSequence(op, hiddenSequenceOutputIndex, "", nullptr, steps);
  const StepOutputs finalCell(op, cellOutputIndex, opName + "_final_cell",
                              op->getInput(initialCellInputIndex), steps);
  const StepOutputs finalHidden(op, hiddenOutputIndex, opName + "_final_hidden",
                                op->getInput(initialHiddenInputIndex), steps);
  const std::string base = opName + "_" + x->getName();
  const std::string concat = hiddenSequence.base() + "_reshape_concat";
  const ReplacementOps::Dims flat{sequence.batch, sequence.features};

  ReplacementOps ops(graph, op);
  std::vector<std::string> made;
  for (const StepOutputs* outputs : {&hiddenSequence, &finalCell, &finalHidden}) {
    made.insert(made.end(), outputs->names().begin(), outputs->names().end());
  }
  for (const std::string& name : hiddenSequence.names()) made.push_back(name + "_reshape");
  if (steps == 1) {
    if (!ops.canShareReshape(x->getName(), flat)) return false;
  } else {
    for (const std::string& piece : numberedNames(base, steps)) {
      made.push_back(piece);
      made.push_back(piece + "_reshape");
    }
    made.push_back(concat);
  }
  if (!areFreeTensorNames(*graph, made) || graph->hasOp(base + "_split") || graph->hasOp(opName + "_step_0"))
    return false;

  // ---- edits ----
  std::vector<std::string> pieces;
  for (const std::string& piece : ops.splitOverTime(base, sequence, true)) {
    pieces.push_back(ops.sharedReshape(piece, flat, AxisFormat::NF, true));
  }
  pieces = sequence.reordered(pieces);

  std::vector<std::string> inputs;
  for (const auto& input : op->getInputs()) inputs.push_back(input->getName());
  hiddenSequence.addTensors(ops, {sequence.batch, hiddenSequence.width()}, false);
  finalHidden.addTensors(ops, {sequence.batch, finalHidden.width()}, true);
  finalCell.addTensors(ops, {sequence.batch, finalCell.width()}, true);

  std::vector<std::string> sequenceSteps;
  for (std::uint32_t t = 0; t < steps; ++t) {
    if (t > 0) {
      inputs[initialHiddenInputIndex] = finalHidden.names()[t - 1];
      inputs[initialCellInputIndex] = finalCell.names()[t - 1];
    }
    inputs[inputIndex] = pieces[t];
    const std::string& step = hiddenSequence.names()[t];
    ops.add("Lstm", opName + "_step_" + std::to_string(t), inputs,
            stepParams(op, t == 0, inputs[initialHiddenInputIndex], inputs[initialCellInputIndex]),
            {step, finalCell.names()[t], finalHidden.names()[t]}, AxisFormat::NF);
    // A single step stands for the output itself.
    const std::string reshaped = step + "_reshape";
    const auto dims = sequence.stepDims(hiddenSequence.width());
    ops.addTensorLike(graph->getTensor(step), reshaped, dims, hiddenSequence.typeOf(t, steps == 1));
    sequenceSteps.push_back(ops.reshape(reshaped, step, dims, x->getAxisFormat()));
  }
  std::string last = sequenceSteps.back();
  if (steps > 1) {
    const auto output = op->getOutput(hiddenSequenceOutputIndex);
    ops.addTensorLike(output, concat, output->getDims());
    last = ops.concatOverTime(concat, concat, sequence, sequenceSteps, x->getAxisFormat());
  }
  ops.takeOver(op->getOutput(hiddenSequenceOutputIndex), last);
  if (op->numOutputs() > hiddenOutputIndex)
    ops.takeOver(op->getOutput(hiddenOutputIndex), finalHidden.names().back());
  if (op->numOutputs() > cellOutputIndex)
    ops.takeOver(op->getOutput(cellOutputIndex), finalCell.names().back());
  ops.retire();
  return true;
}

std::shared_ptr<Pass> buildUnrollLstm() {
  return makeSequencePass<UnrollLstmTimeSteps>();
}

[[maybe_unused]] static const bool registeredUnrollLstm = PassManager::registerPass(PassId::UnrollLstm);

}  // namespace netforge::graphrefiner
