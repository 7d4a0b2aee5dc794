#include "GraphRefiner/src/passes/expansion/ExpandLstmOpStructure.h"

#include <algorithm>
#include <array>
#include <iostream>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "ir/Failure.h"

namespace netforge::graphrefiner {

namespace {

template <class... Parts>
bool refuse(const Parts&... parts) {
  std::cout << "netforge::graphrefiner::ExpandLstmOpStructurePass::rewriteCallback: " << concatText(parts...)
            << std::endl;
  return false;
}

std::string nameWithoutSuffix(const std::string& name) {
  const std::string suffix = "_multi_time_step";
  const bool ends = name.size() > suffix.size() &&
                    name.compare(name.size() - suffix.size(), std::string::npos, suffix) == 0;
  return ends ? name.substr(0, name.size() - suffix.size()) : name;
}

// Null also for the place of an operand that is absent.
TensorPtr inputOrNull(const OpPtr& op, std::uint32_t index) {
  if (index >= op->numInputs()) return nullptr;
  const TensorPtr input = op->getInput(index);
  return input->getTensorType() == TensorType::Null ? nullptr : input;
}

struct Weights {
  std::string input, recurrent, bias;  // each of the four gates in the order input, forget, output, cell
};

struct State {
  std::string hidden, cell;
};

// One step; `state` becomes that behind the step.
void buildStep(ReplacementOps& ops, const std::string& prefix, const std::string& xt, const Weights& weights,
               std::uint32_t hidden, State& state) {
  const std::string gates = prefix + "_ifoc_gate_matmul_add";
  const std::string input = ops.matMul(prefix + "_xt_wi_matmul", xt, weights.input);
  const std::string recurrent = ops.matMul(prefix + "_ht_1_wh_matmul", state.hidden, weights.recurrent);
  ops.binary(gates, kAdd, input, recurrent);
  ops.binary(gates + "_bias_add", kAdd, gates, weights.bias);

  // Input and forget gate stay together, so that one product serves both terms of the cell state.
  const std::string inputForget = prefix + "_if_gate_output";
  const std::string output = prefix + "_o_gate_output";
  const std::string cell = prefix + "_c_gate_output";
  const auto split = [&](const std::string& name, const std::string& source,
                         const std::vector<std::uint32_t>& places, const std::vector<std::string>& parts) {
    ops.add("Split", name, {source}, {{"axis", OpParam(1u)}, {"split_index", OpParam(places)}}, parts,
            AxisFormat::NF);
  };
  split(prefix + "_if_o_c_gate_split", gates + "_bias_add", {2 * hidden, 3 * hidden},
        {inputForget, output, cell});
  ops.neuron(inputForget + "_sigmoid", kSigmoid, inputForget);
  ops.neuron(cell + "_tanh", kTanh, cell);
  const std::string operands = prefix + "_c_gate_tanh_ct_1_concat";
  ops.add("Concat", operands, {cell + "_tanh", state.cell}, {{"axis", OpParam(1u)}}, {operands},
          AxisFormat::NF);
  const std::string terms = prefix + "_ifc_gate_ct_1_dot_activation";
  ops.binary(terms, kMultiply, inputForget + "_sigmoid", operands);
  const std::string term = terms + "_split_output_";
  split(terms + "_split", terms, {hidden}, {term + "1", term + "2"});
  state.cell = ops.binary(term + "elementwise_add", kAdd, term + "1", term + "2");
  ops.neuron(output + "_sigmoid", kSigmoid, output);
  ops.neuron(state.cell + "_tanh", kTanh, state.cell);
  state.hidden =
      ops.binary(output + "_ct_tanh_dot_activation", kMultiply, state.cell + "_tanh", output + "_sigmoid");
}

// What stands for the hidden sequence of a single step. Readers that flatten their input anyway get a rank-2
// form once one of them has a rank-2 result; all others keep the rank that the op gave them.
std::string handleSingleTimestepOutput(const std::shared_ptr<IrGraph>& graph, ReplacementOps& ops,
                                       const OpPtr& op, const TimeSequence& sequence, std::uint32_t hidden,
                                       const std::string& step) {
  const std::vector<std::uint32_t> expected{sequence.batch, hidden};
  if (!sequence.ranked3) return ops.reshape(step + "_reshape", step, expected, AxisFormat::NF);

  const TensorPtr output = op->getOutput(0);
  IrGraph::OpSet flatteners;
  bool hasRank2Reader = false;
  OpPtr ownReshape;  // does itself what the rank-2 form would do
  for (const OpPtr& reader : consumersInGraphOrder(*graph, output->getConsumers())) {
    const auto inputs = reader->getInputs();
    const bool flattens = reader->getType() == "Reshape" || reader->getType() == "FullyConnected";
    if (!flattens || reader->numOutputs() == 0 || inputs[0] != output ||
        std::count(inputs.begin(), inputs.end(), output) != 1)
      continue;
    const auto dims = reader->getOutput(0)->getDims();
    const bool isRank2 = dims.size() == 2;
    if (reader->getType() == "FullyConnected" && (!isRank2 || dims[0] != sequence.batch)) continue;
    hasRank2Reader = hasRank2Reader || isRank2;
    if (!ownReshape && reader->getType() == "Reshape" && dims == expected) {
      ownReshape = reader;
      flatteners.clear();  // those in front of it can't read its output
      continue;
    }
    flatteners.insert(reader);
  }
  if (!hasRank2Reader) return step;
  const TensorPtr flat =
      ownReshape ? ownReshape->getOutput(0)
                 : graph->getTensor(ops.reshape(step + "_reshape", step, expected, AxisFormat::NF));
  graph->transferConsumers(output, flat, flatteners);
  return step;
}

}  // namespace

ExpandLstmOpStructurePass::ExpandLstmOpStructurePass() {
  rootPattern = makeOpType("Lstm");
  pattern = rootPattern;
}

bool ExpandLstmOpStructurePass::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const OpPtr op = matchedOps.at(rootPattern);
  const std::string name = nameWithoutSuffix(op->getName());
  if (op->numInputs() < 15 || op->numInputs() > 25) {
    return refuse("LSTM ", name, " has unexpected number of inputs: ", op->numInputs(),
                  ". Expected between 15-25 inputs.");
  }
  for (const std::uint32_t index : {0u, 16u, 17u, 21u, 10u, 11u}) {
    if (!inputOrNull(op, index)) return refuse("LSTM ", name, " has missing (null) input tensors.");
  }
  if (!op->getInput(16)->isStatic() || !op->getInput(17)->isStatic())
    return refuse("LSTM ", name, " weights must be static tensors");
  const TensorPtr x = op->getInput(0);
  const std::array initial{op->getInput(10), op->getInput(11)};
  if (initial[0]->getDims() != initial[1]->getDims())
    return refuse("LSTM ", name, " hidden and cell state dimensions must match");

  const TimeSequence sequence = readTimeSequence(op);
  if (sequence.steps == 0 || initial[0]->getRank() == 0 || hasDynamicInput(op)) return false;
  const std::uint32_t hidden = initial[0]->getDims().back();
  const std::vector<std::uint32_t> flatX{sequence.batch, sequence.features};
  const std::vector<std::uint32_t> flatState{sequence.batch, hidden};
  const OpPtr producer = x->getProducer();
  const std::string base =
      name + "_" +
      (producer && producer->getType() == "Lstm" ? producer->getName() + "_ht_output_reshape_concat"
                                                 : x->getName());
  ReplacementOps ops(graph, op);
  std::vector<std::string> made{name + "_step_0_xt_wi_matmul"};
  if (sequence.steps == 1) {
    if (!ops.canShareReshape(x->getName(), flatX)) return false;
  } else {
    for (const std::string& piece : numberedNames(base, sequence.steps)) {
      made.push_back(piece);
      made.push_back(piece + "_reshape");
    }
    made.push_back(name + "_ht_output_reshape_concat");
  }
  if (!OpExpansion::areFreeTensors(graph, made) || graph->hasOp(base + "_split")) return false;
  for (const TensorPtr& state : initial) {
    if (state->getRank() == 3 && !ops.canShareReshape(state->getName(), flatState)) return false;
  }
  // Constants that a refusal leaves behind change nothing in what the graph computes.
  const auto join = [&](const std::array<std::uint32_t, 4>& gates, const std::string& suffix) -> std::string {
    std::vector<TensorPtr> parts;
    for (const std::uint32_t index : gates) parts.push_back(op->getInput(index));
    const std::string joined = insertBeforeDirectionSuffix(parts[0]->getName(), suffix);
    return concatenateStaticTensors(graph, parts, joined) ? joined : "";
  };
  Weights weights;
  weights.input = join({16, 1, 3, 2}, "_input_w_to_input_gate");
  if (weights.input.empty()) return false;
  weights.recurrent = join({17, 4, 6, 5}, "_recurrent_w_to_input_gate");
  if (weights.recurrent.empty()) return false;
  weights.bias = join({21, 7, 9, 8}, "_b_to_input_gate");
  if (weights.bias.empty()) return false;

  // ---- edits ----
  const auto inputs = op->getInputs();
  ops.setUpdateable(std::any_of(inputs.begin(), inputs.end(),
                                [](const TensorPtr& input) { return input->isUpdateable(); }));
  const auto flatten = [&](const TensorPtr& state) {
    if (state->getRank() != 3) return state->getName();
    return ops.sharedReshape(state->getName(), flatState, AxisFormat::NF, false);
  };
  State state;
  state.hidden = flatten(initial[0]);
  state.cell = flatten(initial[1]);
  std::vector<std::string> pieces;
  for (const std::string& piece : ops.splitOverTime(base, sequence, false)) {
    pieces.push_back(ops.sharedReshape(piece, flatX, AxisFormat::NF, false));
  }
  pieces = sequence.reordered(pieces);
  std::vector<std::string> hiddenNames;
  for (std::uint32_t t = 0; t < sequence.steps; ++t) {
    buildStep(ops, name + "_step_" + std::to_string(t), pieces[t], weights, hidden, state);
    hiddenNames.push_back(
        ops.reshape(state.hidden + "_reshape", state.hidden, sequence.stepDims(hidden), x->getAxisFormat()));
  }
  // Whoever reads the op is traced to what stands for it, which has the sources of the op.
  const auto sources = graph->getTraceInfo(TraceKind::Op, op->getName());
  for (const TensorPtr& output : op->getOutputs()) {
    for (const OpPtr& reader : consumersInGraphOrder(*graph, output->getConsumers())) {
      graph->addTraceSources(TraceKind::Op, reader->getName(), sources);
    }
  }
  if (op->numOutputs() > 0) {
    const std::string concat = name + "_ht_output_reshape_concat";
    const std::string output0 =
        sequence.steps == 1 ? handleSingleTimestepOutput(graph, ops, op, sequence, hidden, hiddenNames[0])
                            : ops.concatOverTime(concat, concat, sequence, hiddenNames, x->getAxisFormat());
    ops.takeOver(op->getOutput(0), output0);
  }
  if (op->numOutputs() > 1) ops.takeOver(op->getOutput(1), state.cell);
  if (op->numOutputs() > 2) ops.takeOver(op->getOutput(2), state.hidden);
  ops.removeOp();
  std::cout << "netforge::graphrefiner::ExpandLstmOpStructurePass::rewriteCallback: "
            << "Successfully expanded LSTM op: " << name << " with " << sequence.steps << " time steps"
            << std::endl;
  return true;
}

std::shared_ptr<Pass> buildExpandLstmOpStructure() {
  return makeSequencePass<ExpandLstmOpStructurePass>();
}

[[maybe_unused]] static const bool registeredExpandLstmOpStructure =
    PassManager::registerPass(PassId::ExpandLstmOpStructure);

}  // namespace netforge::graphrefiner
