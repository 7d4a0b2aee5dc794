#include "GraphRefiner/src/passes/fusion/GeluApprox.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <iostream>
#include <string>
#include <vector>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

constexpr double kSqrtTwoOverPi = 0.7978845608028654;
constexpr double kCubicCoefficient = 0.044715;

constexpr const char* kRewrite = "rewriteCallback";
constexpr const char* kValidate = "validateConstantsAndExtract";
constexpr const char* kReplace = "replaceWithGelu";

template <class... Parts>
void report(const char* function, const Parts&... parts) {
  std::cout << concatText("netforge::graphrefiner::MatchGeluApproxPass::", function,
                          ": MatchGeluApproxPass: ", parts...)
            << std::endl;
}

PatternPtr makeBinary(double operation, const PatternPtr& a, const PatternPtr& b) {
  return withAttr(makeOp("Eltwise_Binary", a, b), makeAttr("operation", operation));
}

PatternPtr makeCommutativeBinary(double operation, const PatternPtr& a, const PatternPtr& b) {
  return makeCommutativeOp("Eltwise_Binary", a, b, makeAttr("operation", operation));
}

bool isNear(const OpPtr& op, double expected) {
  return hasScalarInputNear(op, expected, 0.001, 0.00001);
}

OpPtr boundTo(const MatchedOps& matches, const PatternPtr& node) {
  const auto entry = matches.find(node);
  return entry == matches.end() ? nullptr : entry->second;
}

bool reads(const OpPtr& op, const OpPtr& producer) {
  if (!op || !producer) return false;
  const auto inputs = op->getInputs();
  return std::any_of(inputs.begin(), inputs.end(),
                     [&](const TensorPtr& input) { return input->getProducer() == producer; });
}

// The producer of an input of `op` that itself reads what `source` writes, or null.
OpPtr producerReading(const OpPtr& op, const OpPtr& source) {
  for (const TensorPtr& input : op->getInputs()) {
    if (reads(input->getProducer(), source)) return input->getProducer();
  }
  return nullptr;
}

// The operand of a two-operand op beside the one that `producer` writes, or null. An op that reads that one
// twice gives it again.
TensorPtr operandBeside(const OpPtr& op, const OpPtr& producer) {
  if (!op || !producer || op->numInputs() != 2) return nullptr;
  const TensorPtr left = op->getInput(0);
  TensorPtr right = op->getInput(1);
  if (left->getProducer() == producer) return right;
  return right->getProducer() == producer ? left : nullptr;
}

}  // namespace

bool hasScalarInputNear(const OpPtr& op, double expected, double relativeTolerance,
                        double absoluteTolerance) {
  if (!op) return false;
  for (const TensorPtr& input : op->getInputs()) {
    const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(input);
    if (!constant || constant->isUpdateable()) continue;
    if (!isFloatDataType(constant->getDataType()) || constant->elements() != 1) continue;
    const std::uint32_t width = constant->getDataType() == ORLO_DATATYPE_FLOAT_16 ? 2 : 4;
    if (constant->getDataSize() < width) continue;
    const double value = getConstValue(constant);
    if (std::abs(value - expected) <= std::abs(expected) * relativeTolerance + absoluteTolerance) return true;
  }
  return false;
}

MatchGeluApproxPass::MatchGeluApproxPass() {
  inputPattern = makeWildCard();
  powerPattern = makeBinary(kPower, inputPattern, makeConstant());
  squarePattern = makeBinary(kMultiply, inputPattern, inputPattern);
  cubePattern = makeCommutativeBinary(kMultiply, squarePattern, inputPattern);
  const PatternPtr x3 = makeAlt(powerPattern, cubePattern);
  const PatternPtr scaledCube = makeCommutativeBinary(kMultiply, x3, makeConstant());
  const PatternPtr innerSum = makeCommutativeBinary(kAdd, scaledCube, inputPattern);
  const PatternPtr tanhArgument = makeCommutativeBinary(kMultiply, innerSum, makeConstant());
  tanhPattern = withAttr(makeOp("ElementWiseNeuron", tanhArgument), makeAttr("operation", kTanh));
  addOnePattern = makeCommutativeBinary(kAdd, tanhPattern, makeConstant());

  pattern1 = makeCommutativeBinary(kMultiply, makeCommutativeBinary(kMultiply, inputPattern, makeConstant()),
                                   addOnePattern);
  pattern2 = makeCommutativeBinary(kMultiply, makeCommutativeBinary(kMultiply, addOnePattern, makeConstant()),
                                   inputPattern);
  pattern3 =
      makeCommutativeBinary(kMultiply, makeBinary(kDivide, addOnePattern, makeConstant()), inputPattern);
  pattern4 = makeCommutativeBinary(kMultiply, makeCommutativeBinary(kMultiply, inputPattern, addOnePattern),
                                   makeConstant());
  pattern = makeAlt(makeAlt(makeAlt(pattern1, pattern2), pattern3), pattern4);
}

bool MatchGeluApproxPass::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  int patternNumber = 0;
  OpPtr root;
  for (const PatternPtr& arrangement : {pattern1, pattern2, pattern3, pattern4}) {
    ++patternNumber;
    if (matchedOps.count(arrangement) == 0) continue;
    root = matchedOps.at(arrangement);
    report(kRewrite, "Matched pattern ", patternNumber);
    if (!root) return false;
    if (validateConstantsAndExtract(root, matchedOps, patternNumber)) {
      return replaceWithGelu(graph, root, matchedOps);
    }
    report(kRewrite, "Validation failed for pattern ", patternNumber);
    return false;
  }
  return false;
}

bool MatchGeluApproxPass::validateConstantsAndExtract(const OpPtr& rootOp, MatchedOps& matches,
                                                      int patternNumber) {
  const OpPtr tanh = boundTo(matches, tanhPattern);
  const OpPtr addOne = boundTo(matches, addOnePattern);
  if (!tanh || !addOne) {
    report(kValidate, "Common Tanh pattern structure not found");
    return false;
  }
  if (!isNear(addOne, 1.0)) {
    report(kValidate, "Add constant validation failed (expected 1.0)");
    return false;
  }
  const OpPtr tanhArgument = tanh->numInputs() > 0 ? tanh->getInput(0)->getProducer() : nullptr;
  if (!tanhArgument) return false;
  if (!isNear(tanhArgument, kSqrtTwoOverPi)) {
    report(kValidate, "Mul constant validation failed (expected sqrt(2/pi))");
    return false;
  }
  const TensorPtr sum = firstNonStaticInput(tanhArgument);
  const OpPtr innerSum = sum ? sum->getProducer() : nullptr;
  if (!innerSum) return false;
  const auto addends = innerSum->getInputs();
  if (std::none_of(addends.begin(), addends.end(), [](const TensorPtr& addend) {
        return isNear(addend->getProducer(), kCubicCoefficient);
      })) {
    report(kValidate, "Cubic coefficient 0.044715 not found");
    return false;
  }
  if (const OpPtr power = boundTo(matches, powerPattern)) {
    if (!isNear(power, 3.0)) return false;
  } else if (!boundTo(matches, cubePattern)) {
    report(kValidate, "Neither Power nor expanded cubic pattern matched");
    return false;
  }

  const double scale = patternNumber == 3 ? 2.0 : 0.5;
  bool isScaled = false;
  if (patternNumber == 4) {
    isScaled = isNear(rootOp, scale);
  } else {
    for (const TensorPtr& input : rootOp->getInputs()) {
      const OpPtr producer = input->getProducer();
      const bool isScaling = patternNumber == 1 ? producer && producer != addOne : reads(producer, addOne);
      isScaled = isScaled || (isScaling && isNear(producer, scale));
    }
  }
  if (!isScaled) {
    report(kValidate, "Scaling constant validation failed (expected ", scale, ")");
    return false;
  }
  return sameXEverywhere(rootOp, matches, innerSum);
}

TensorPtr MatchGeluApproxPass::findX(const MatchedOps& matches) const {
  if (const OpPtr power = boundTo(matches, powerPattern)) return firstNonStaticInput(power);
  const OpPtr square = boundTo(matches, squarePattern);
  return square && square->numInputs() > 0 ? square->getInput(0) : nullptr;
}

// Wildcards compare nothing, so each place of x is looked up here; and the application must not read what the
// fusion takes away.
bool MatchGeluApproxPass::sameXEverywhere(const OpPtr& rootOp, const MatchedOps& matches,
                                          const OpPtr& innerSum) const {
  const TensorPtr x = findX(matches);
  if (!x) return true;  // reported where the replacement is made
  const OpPtr addOne = boundTo(matches, addOnePattern);
  const OpPtr power = boundTo(matches, powerPattern);
  const OpPtr cube = power ? power : boundTo(matches, cubePattern);
  if (!power) {
    const OpPtr square = boundTo(matches, squarePattern);
    if (square->getInput(0) != square->getInput(1) || operandBeside(cube, square) != x) return false;
  }
  const OpPtr scaledCube = producerReading(innerSum, cube);
  if (!isNear(scaledCube, kCubicCoefficient) || operandBeside(innerSum, scaledCube) != x) return false;

  TensorPtr factor;  // x in the outer product
  if (const OpPtr halved = producerReading(rootOp, addOne)) {
    factor = boundTo(matches, pattern4) ? operandBeside(halved, addOne) : operandBeside(rootOp, halved);
  } else if (const TensorPtr other = operandBeside(rootOp, addOne)) {
    factor = firstNonStaticInput(other->getProducer());
  }
  if (factor != x || rootOp->getOutput(0)->getShape() != x->getShape()) return false;
  return !hasInteriorGraphOutput(matches, rootOp);
}

bool MatchGeluApproxPass::replaceWithGelu(const GraphPtr& graph, const OpPtr& givenRoot,
                                          MatchedOps& matches) {
  const OpPtr rootOp = givenRoot;
  try {
    const auto policy = graph->getNamePolicy();
    std::string name;
    do {
      name = policy->generateOpName("ElementWiseNeuron", "elementwiseneuron", true, "", "", "");
    } while (graph->hasOp(name));  // the policy doesn't know of ops that came in by other ways
    const OpPtr gelu =
        createOp("ElementWiseNeuron", name, {{"operation", kGelu}, {"packageName", "orlo.base"}});
    const TensorPtr x = findX(matches);
    if (!x) {
      report(kReplace, "Input tensor is null");
      return false;
    }
    std::vector<OpPtr> cluster;
    for (const auto& [node, op] : matches) {
      if (op && op != rootOp && std::find(cluster.begin(), cluster.end(), op) == cluster.end()) {
        cluster.push_back(op);
      }
    }
    // Last op first: the map is ordered by address.
    std::sort(cluster.begin(), cluster.end(),
              [&](const OpPtr& a, const OpPtr& b) { return graph->getOpIndex(a) > graph->getOpIndex(b); });
    const TensorPtr output = rootOp->getOutput(0);
    const auto sources = graph->collectTraceSources(
        {{TraceKind::Op, rootOp->getName()}, {TraceKind::Tensor, output->getName()}});

    for (const TensorPtr& input : rootOp->getInputSet()) graph->removeOpAsConsumer(rootOp, input);
    x->addConsumer(rootOp);
    rootOp->setInputs({x});
    graph->replace(rootOp, gelu);
    graph->addTraceSources({gelu->getName()}, {output->getName()}, sources);
    for (const OpPtr& op : cluster) {
      if (!graphHoldsOp(graph, op)) continue;
      graph->removeTraceInfo(TraceKind::Op, op->getName());
      graph->prune(op, true);
    }
    report(kReplace, "Successfully replaced approximate GELU pattern with GELU op");
    return true;
  } catch (const std::exception& failure) {
    report(kReplace, "ERROR during GELU replacement: ", failure.what());
    return false;
  }
}

std::shared_ptr<Pass> buildMatchGeluApprox() {
  return makeSequencePass<MatchGeluApproxPass>();
}

[[maybe_unused]] static const bool registered = PassManager::registerPass(PassId::MatchGeluApprox);

}  // namespace netforge::graphrefiner
