#include "GraphRefiner/src/passes/expansion/ExpandGruOpStructure.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <stdexcept>
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/passes/expansion/recurrent/ReplacementOps.h"
#include "ir/Failure.h"

namespace netforge::graphrefiner {

namespace {

constexpr std::uint32_t kInitialHidden = 13;

std::uint32_t activationCode(const std::string& activation, std::uint32_t otherwise) {
  if (activation == "Sigmoid") return kSigmoid;
  if (activation == "Tanh") return kTanh;
  if (activation == "Relu") return kRelu;
  return otherwise;
}

// Builds the four parts of one Gru; the operands go by the names of tensors.
class GruBuilder {
 public:
  GruBuilder(ReplacementOps& replacementOps, const std::shared_ptr<ops::IrOp>& op, std::string data,
             std::string state)
      : ops(replacementOps), prefix(op->getName() + "_"), xt(std::move(data)), h(std::move(state)) {
    for (const auto& input : op->getInputs()) inputs.push_back(input->getName());
    gate = activationCode(attributeOr<std::string>(op, "gate_activation", "Sigmoid"), kSigmoid);
    candidate = activationCode(attributeOr<std::string>(op, "rec_gate_activation", "Tanh"), kTanh);
  }

  std::string updateGate() { return buildGate(1, "z", "term1", "control_gate_b", "activation_update_op"); }
  std::string resetGate() { return buildGate(2, "r", "term2", "reset_gate_b", "activation_reset_op"); }

  std::string candidateState(const std::string& r, bool linearBeforeReset) {
    const auto [wh, rh, wbh, rbh] = std::array{inputs[3], inputs[6], inputs[9], inputs[12]};
    const std::string data = binary("xt_wh_wbh_bias_op", kAdd, matMul("xt_wh_matmul_op", xt, wh), wbh);
    std::string recurrent;
    if (linearBeforeReset) {
      recurrent = binary("ht_1_rh_rbh_matmul_bias_op", kAdd, matMul("ht_1_rh_matmul_op", h, rh), rbh);
      recurrent = binary("rt_dot_ht_1_rh_rbh_matmul_bias_op", kMultiply, r, recurrent);
    } else {
      recurrent = matMul("rt_dot_ht_1_rh_matmul_op", binary("rt_dot_ht_1_op", kMultiply, r, h), rh);
      recurrent = binary("rt_dot_ht_1_rh_rbh_matmul_bias_op", kAdd, recurrent, rbh);
    }
    const std::string term = linearBeforeReset ? "term3p2" : "term3p1";
    const std::string sum = binary("elementsum_of_" + term + "_op", kAdd, data, recurrent);
    return ops.neuron(prefix + "activation_rec_gate_" + term + "_op", candidate, sum);
  }

  // `ones` is the name of a tensor of ones.
  std::string hiddenState(const std::string& ones, const std::string& z, const std::string& n) {
    const std::string rest = binary("one_minus_zt_op", kSubtract, ones, z);
    const std::string fresh = binary("one_minus_zt_dot_ht_op", kMultiply, rest, n);
    return binary("elementsum_of_term4_op", kAdd, fresh, binary("zt_dot_ht_1_op", kMultiply, z, h));
  }

 private:
  // The weights of a gate stand three inputs apart, its biases six and nine behind its first weight.
  std::string buildGate(std::size_t first, const std::string& letter, const std::string& term,
                        const std::string& bias, const std::string& activation) {
    const std::string data = matMul("xt_w" + letter + "_matmul_op", xt, inputs[first]);
    const std::string recurrent = matMul("ht_1_r" + letter + "_matmul_op_name", h, inputs[first + 3]);
    const std::string sum = binary("elementsum_of_" + term + "_part1_op", kAdd, data, recurrent);
    const std::string biases = binary(bias, kAdd, inputs[first + 6], inputs[first + 9]);
    return ops.neuron(prefix + activation, gate,
                      binary("elementsum_of_" + term + "_bias_op", kAdd, sum, biases));
  }
  std::string matMul(const std::string& suffix, const std::string& data, const std::string& weight) {
    return ops.matMul(prefix + suffix, data, weight);
  }
  std::string binary(const std::string& suffix, std::uint32_t operation, const std::string& left,
                     const std::string& right) {
    return ops.binary(prefix + suffix, operation, left, right);
  }

  ReplacementOps& ops;
  std::string prefix, xt, h;
  std::vector<std::string> inputs;
  std::uint32_t gate, candidate;
};

}  // namespace

ExpandGruOpStructureRule::ExpandGruOpStructureRule() {
  rootPattern = makeOpType("Gru");
  pattern = rootPattern;
}

bool ExpandGruOpStructureRule::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  constexpr const char* kFunction = "netforge::graphrefiner::ExpandGruOpStructureRule::rewriteCallback";
  const auto op = matchedOps.at(rootPattern);
  const std::string opName = op->getName();
  if (op->numOutputs() != 1 && op->numOutputs() != 2) {
    fail<std::runtime_error>(kFunction, "Unsupported number of outputs for GRU node ", opName,
                             ", expected 1 or 2, got ", op->numOutputs());
  }
  const TimeSequence sequence = readTimeSequence(op);
  if (sequence.steps != 1) {
    std::cout << kFunction << ": Unsupported sequence length for GRU node " << opName << ", expected 1, got "
              << sequence.steps << std::endl;
    return false;
  }
  if (op->numInputs() <= kInitialHidden || hasDynamicInput(op)) return false;
  const auto operands = op->getInputs();
  if (std::any_of(operands.begin(), operands.end(),
                  [](const auto& operand) { return operand->getTensorType() == TensorType::Null; }))
    return false;
  const auto x = op->getInput(0);
  const auto h0 = op->getInput(kInitialHidden);
  const bool flattensState = h0->getRank() == 3;
  std::vector<std::string> oldNames;
  std::vector<std::string> newNames;
  for (const auto& output : op->getOutputs()) {
    oldNames.push_back(output->getName());
    newNames.push_back(output->getName() + "_reshape");
  }
  std::vector<std::string> made = newNames;
  made.push_back(opName + "_xt_wz_matmul_op");
  const std::string flatX = opName + "_" + x->getName() + "_reshape";
  const std::string flatH = opName + "_" + h0->getName() + "_reshape";
  if (sequence.ranked3) made.push_back(flatX);
  if (flattensState && (h0 != x || !sequence.ranked3)) made.push_back(flatH);
  if (!OpExpansion::areFreeTensors(graph, made)) return false;

  // ---- edits ----
  ReplacementOps ops(graph, op);
  std::string xt = x->getName();
  std::string h = h0->getName();
  if (sequence.ranked3) xt = ops.reshape(flatX, xt, {sequence.batch, sequence.features}, AxisFormat::NF);
  if (flattensState && h0 == x && sequence.ranked3) {
    h = xt;
  } else if (flattensState) {
    h = ops.reshape(flatH, h, {sequence.batch, h0->getDims().back()}, AxisFormat::NF);
  }
  GruBuilder gru(ops, op, xt, h);
  const std::string z = gru.updateGate();
  const std::string r = gru.resetGate();
  const std::string n = gru.candidateState(r, attributeOr(op, "linear_before_reset", 0u) != 0);
  const std::string ones = opName + "_initial_ones_op";
  if (!graph->hasTensor(ones)) {
    const auto gate = graph->getTensor(z);
    ops.addConstant(ones, gate->getDims(), std::vector<float>(gate->elements(), 1.0f))
        ->setAxisFormat(AxisFormat::NF);
  }
  const std::string state = gru.hiddenState(ones, z, n);

  for (std::size_t i = 0; i < newNames.size(); ++i) {
    const auto output = op->getOutput(static_cast<std::uint32_t>(i));
    const auto standIn = ops.addTensorLike(output, newNames[i], output->getDims());
    ops.reshape(newNames[i], state, output->getDims(), output->getAxisFormat());
    ops.moveReaders(output, standIn);
  }
  ops.removeOp();
  alignToSourceOutputNames(graph, newNames, oldNames, true);
  return true;
}

void ExpandGruOpStructureRule::alignToSourceOutputNames(const std::shared_ptr<IrGraph>& graph,
                                                        const std::vector<std::string>& newNames,
                                                        const std::vector<std::string>& sourceNames,
                                                        bool onlyGraphOutputs) {
  constexpr const char* kFunction =
      "netforge::graphrefiner::ExpandGruOpStructureRule::alignToSourceOutputNames";
  for (std::size_t i = 0; i < newNames.size(); ++i) {
    // The list of graph outputs still holds the tensor of a removed op.
    const auto outputs = graph->getGraphOutputs();
    const auto source = std::find_if(outputs.begin(), outputs.end(),
                                     [&](const auto& output) { return output->getName() == sourceNames[i]; });
    if (onlyGraphOutputs && source == outputs.end()) continue;
    const auto tensor = graph->getTensor(newNames[i]);
    if (!tensor) {
      fail<std::runtime_error>(kFunction, "Tensor ", newNames[i],
                               " does not exist in graph during output name alignment");
    }
    if (graph->hasTensor(sourceNames[i])) {
      fail<std::runtime_error>(kFunction, "Buffer ", sourceNames[i],
                               " already exists in graph, duplicate buffer name when replacing buffer ",
                               newNames[i], " with it");
    }
    if (source != outputs.end()) handOverGraphOutput(graph, *source, tensor);
    graph->updateTensorName(newNames[i], sourceNames[i]);
  }
}

std::shared_ptr<Pass> buildExpandGruOpStructure() {
  return makeSequencePass<ExpandGruOpStructureRule>();
}

[[maybe_unused]] static const bool registeredExpandGruOpStructure =
    PassManager::registerPass(PassId::ExpandGruOpStructure);

}  // namespace netforge::graphrefiner
