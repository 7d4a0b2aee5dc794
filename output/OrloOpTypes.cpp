#include "output/OrloOpTypes.h"

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include "ir/Failure.h"

namespace netforge {

namespace {

constexpr const char* kGetOrloOp = "netforge::IrOrloTranslator::getOrloOp";

struct OperationCode {
  const char* name;
  std::uint32_t code;
  std::initializer_list<const char*> floats = {};  // attributes that are parameters of this operation
};

const OperationCode kUnary[] = {
    {"ElementWiseAbs", 0},
    {"ElementWiseAsin", 1},
    {"ElementWiseAtan", 2},
    {"ElementWiseCeil", 3},
    {"ElementWiseCos", 4},
    {"ElementWiseExp", 5},
    {"ElementWiseFloor", 6},
    {"ElementWiseLog", 7},
    {"ElementWiseNeg", 8},
    {"ElementWiseNot", 9},
    {"ElementWiseRound", 11},
    {"ElementWiseRsqrt", 12},
    {"ElementWiseSign", 13},
    {"ElementWiseSin", 14},
    {"ElementWiseSquareRoot", 15},
    {"ElementWiseSoftplus", 7, {"beta", "threshold"}},  // a code of the neurons, see below
};

const OperationCode kBinary[] = {
    {"ElementWiseAdd", 0},       {"ElementWiseAnd", 1},          {"ElementWiseDivide", 2},
    {"ElementWiseEqual", 3},     {"ElementWiseFloorDiv", 4},     {"ElementWiseFmod", 5},
    {"ElementWiseGreater", 6},   {"ElementWiseGreaterEqual", 7}, {"ElementWiseLess", 8},
    {"ElementWiseLessEqual", 9}, {"ElementWiseMaximum", 10},     {"ElementWiseMinimum", 11},
    {"ElementWiseMod", 12},      {"ElementWiseMultiply", 13},    {"ElementWiseNotEqual", 14},
    {"ElementWiseOr", 15},       {"ElementWisePower", 16},       {"ElementWiseSubtract", 18},
    {"ElementWiseXor", 19},
};

const OperationCode kNeuron[] = {
    {"Elu", 0, {"alpha"}}, {"HardSwish", 3},
    {"Relu", 4},           {"ReluMinMax", 5, {"min_value", "max_value"}},
    {"Sigmoid", 6},        {"Tanh", 8, {"alpha", "beta"}},
};

void addFlag(IrAttributes& attributes, const char* name, bool value) {
  attributes.add(name, value, ATTR_ORDINARY);
}

/// Replaces the string attribute `nameAttribute`, when there is one, by the code "operation"; either way the
/// code ends up an ordinary parameter. Gives the string, empty without one.
template <std::size_t N>
std::string writeOperation(const ops::IrOp& op, const char* opKind, const char* nameAttribute,
                           const OperationCode (&codes)[N]) {
  IrAttributes& attributes = *op.getAttributes();
  std::string value;
  if (attributes.hasAttr(nameAttribute)) {
    value = attributes.getAttr<std::string>(nameAttribute);
    const OperationCode* found = nullptr;
    for (const OperationCode& code : codes) {
      if (value == code.name) found = &code;
    }
    if (found == nullptr) {
      fail<std::invalid_argument>(kGetOrloOp, opKind, " ", op.getName(), " ", nameAttribute, " provided, ",
                                  value, ", is incorrect ");
    }
    attributes.add("operation", found->code, ATTR_ORDINARY);
    for (const char* parameter : found->floats) {
      if (!attributes.hasAttr(parameter)) continue;
      attributes.add(parameter, attributes.getAttr<float>(parameter), ATTR_ORDINARY);
    }
    attributes.remove(nameAttribute);
  }
  attributes.add("operation", attributes.getAttr<std::uint32_t>("operation"), ATTR_ORDINARY);
  return value;
}

/// The runtime has ops of their own for plain resizes of images and one general op for the rest.
std::optional<std::string> chooseResize(const ops::IrOp& op, const std::string& targetName) {
  IrAttributes& attributes = *op.getAttributes();
  constexpr std::uint32_t kLinear = 1;
  constexpr std::uint32_t kCubic = 2;
  const std::uint32_t rank = op.getInput(0)->getRank();
  if (rank == 3 || rank == 5 || targetName == "NIMB") return "Resize";
  const auto interpolation = attributes.getAttr<std::uint32_t>("interpolation_mode");
  if (interpolation == kCubic) return "Resize";
  if (rank != 4) return std::nullopt;

  constexpr std::uint32_t kHalfPixel = 0;
  constexpr std::uint32_t kAlignCorners = 2;
  const auto transformation = attributes.getAttr<std::uint32_t>("transformation_mode");
  addFlag(attributes, "align_corners", transformation == kAlignCorners);
  addFlag(attributes, "half_pixel_centers", transformation == kHalfPixel);
  if (interpolation != kLinear) return "ResizeNearestNeighbor";
  addFlag(attributes, "antialias", attributes.hasAttr("antialias") && attributes.getAttr<bool>("antialias"));
  return "ResizeBilinear";
}

std::string chooseColorTransform(const ops::IrOp& op) {
  IrAttributes& attributes = *op.getAttributes();
  const auto from = attributes.getAttr<std::uint8_t>("input_encoding_in");
  const auto to = attributes.getAttr<std::uint8_t>("input_encoding_out");
  const bool isReversed = to == 0;
  if (to <= 1) {
    switch (from) {
      case 2:
      case 3:
        attributes.add("input_order", static_cast<std::uint32_t>(from - 2), ATTR_ORDINARY);
        addFlag(attributes, "reverse_output", isReversed);
        return "ArgbToRgb";
      case 5:
      case 6:
        attributes.add("output_order", static_cast<std::int32_t>(isReversed), ATTR_ORDINARY);
        return from == 6 ? "Nv12ToRgb" : "Nv21ToRgb";
      default:
        break;
    }
  }
  fail<std::invalid_argument>(kGetOrloOp, "Invalid color transformation on op ", op.getName());
}

}  // namespace

std::optional<std::string> chooseOrloType(const ops::IrOp& op, const std::string& targetName) {
  const std::string& type = op.getType();
  IrAttributes& attributes = *op.getAttributes();
  if (type == "Eltwise_Unary") {
    const bool isNeuron =
        writeOperation(op, "ElementwiseUnaryOp", "eltwise_type", kUnary) == "ElementWiseSoftplus";
    return isNeuron ? "ElementWiseNeuron" : "ElementWiseUnary";
  }
  if (type == "Eltwise_Binary") {
    writeOperation(op, "ElementwiseBinaryOp", "eltwise_type", kBinary);
    return "ElementWiseBinary";
  }
  if (type == "Neuron") {
    writeOperation(op, "ElementwiseNeuronOp", "neuron_type", kNeuron);
    return "ElementWiseNeuron";
  }
  if (type == "Gelu") {
    attributes.add("operation", std::uint32_t{1}, ATTR_ORDINARY);
    return "ElementWiseNeuron";
  }
  if (type == "Eltwise_Ternary") return attributes.getAttr<std::string>("eltwise_type");
  if (type == "Arg") return attributes.getAttr<std::string>("arg_type");
  if (type == "Pool" || type == "Pool3d") return attributes.getAttr<std::string>("pool_type");
  if (type == "Reduce") return attributes.getAttr<std::string>("reduce_type");
  if (type == "Resize") return chooseResize(op, targetName);
  if (type == "ColorTransform") return chooseColorTransform(op);
  return type;
}

}  // namespace netforge
