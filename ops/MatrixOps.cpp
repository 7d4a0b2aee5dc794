#include "ops/MatrixOps.h"

#include <algorithm>
#include <numeric>
#include <set>
#include <utility>

#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

using Dims = std::vector<std::uint32_t>;

/// The shape with its last two axes swapped; a shape of rank below 2 as it is.
IrTensorShape swapLastTwo(const IrTensorShape& shape) {
  const std::uint32_t rank = shape.rank();
  if (rank < 2) return shape;
  std::vector<std::uint32_t> order(rank);
  std::iota(order.begin(), order.end(), 0u);
  std::swap(order[rank - 1], order[rank - 2]);
  return shape.permute(order);
}

/// One axis of a shape: its size and whether it is dynamic.
using Axis = std::pair<std::uint32_t, bool>;

Axis axisAt(const IrTensorShape& shape, std::uint32_t index) {
  return {shape.dims[index], shape.isDynamicDim(index)};
}

/// Product of the entries from `begin` on, 1 for none.
std::uint64_t productFrom(const Dims& dims, std::size_t begin) {
  std::uint64_t product = 1;
  for (std::size_t i = begin; i < dims.size(); ++i) product *= dims[i];
  return product;
}

}  // namespace

// MatMul

MatMulOp::MatMulOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "MatMul", attributes) {
  addDefault(getAttributes(), "transpose_in0", false, ATTR_ORDINARY);
  addDefault(getAttributes(), "transpose_in1", false, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(MatMulOp)

std::uint64_t MatMulOp::macs(const std::shared_ptr<AxisOrder>&) {
  if (numInputs() < 2) return 0;
  const Dims& left = getInput(0)->getDims();
  const Dims& right = getInput(1)->getDims();
  if (left.size() < 2 || right.size() < 2) return 0;
  std::uint64_t m = left[left.size() - 2];
  std::uint64_t k = left[left.size() - 1];
  if (getAttributes()->getAttr<bool>("transpose_in0")) std::swap(m, k);
  const std::uint64_t n = right[right.size() - (getAttributes()->getAttr<bool>("transpose_in1") ? 2 : 1)];
  return m * k * n;
}

std::vector<Dims> MatMulOp::inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                              std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::MatMulOp::inferOutputShapes",
      "MatMulOp " + getName() + " has dynamic inputs. Use inferOutputTensorShapes instead.",
      "No output shapes infered for " + getName() + " op.");
}

std::vector<IrTensorShape> MatMulOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                             std::uint32_t) {
  const char* function = "netforge::ops::MatMulOp::inferOutputTensorShapes";
  IrTensorShape left = getInput(0)->getShape();
  IrTensorShape right = getInput(1)->getShape();
  if (getAttributes()->getAttr<bool>("transpose_in0")) left = swapLastTwo(left);
  if (getAttributes()->getAttr<bool>("transpose_in1")) right = swapLastTwo(right);
  const std::uint32_t leftRank = left.rank();
  const std::uint32_t rightRank = right.rank();
  if (leftRank < 2 || rightRank < 2 || axisAt(right, rightRank - 2) != axisAt(left, leftRank - 1)) {
    throwInvalidArgument(function, "Improper input shapes received for ", getName(),
                         " op. Input0 shape: ", left, " Input1 shape: ", right,
                         ". Matrix multiply is not possible.");
  }

  const std::uint32_t rank = std::max(leftRank, rightRank);
  std::vector<Axis> axes(rank);
  axes[rank - 1] = axisAt(right, rightRank - 1);
  axes[rank - 2] = axisAt(left, leftRank - 2);
  const Axis staticOne{1, false};
  for (std::uint32_t back = 3; back <= rank; ++back) {
    Axis& axis = axes[rank - back];
    if (back > leftRank) {
      axis = axisAt(right, rightRank - back);
    } else if (back > rightRank) {
      axis = axisAt(left, leftRank - back);
    } else {
      const Axis a = axisAt(left, leftRank - back);
      const Axis b = axisAt(right, rightRank - back);
      if (a != staticOne && b != staticOne && a != b) {
        throwInvalidArgument(function, "Unable to calculate output shapes for op ", getName(),
                             ". Input0 shape: ", left, ", Input1 shape: ", right,
                             ". Batch dimensions are not broadcastable, matrix multiply is not possible.");
      }
      axis = a == staticOne ? b : a;
    }
  }

  Dims dims(rank);
  std::set<std::uint32_t> dynamicAxes;
  for (std::uint32_t i = 0; i < rank; ++i) {
    dims[i] = axes[i].first;
    if (axes[i].second) dynamicAxes.insert(i);
  }
  return {IrTensorShape(dims, dynamicAxes)};
}

// FullyConnected

FullyConnectedOp::FullyConnectedOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "FullyConnected", attributes) {
  addDefault(getAttributes(), "keep_dims", false, ATTR_ORDINARY);
  addDefault(getAttributes(), "transpose_a", false, ATTR_EXTRA);
  addDefault(getAttributes(), "transpose_b", true, ATTR_EXTRA);
  addDefault(getAttributes(), "bias_op_name", "", ATTR_SUPPLEMENTAL);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(FullyConnectedOp)

std::uint64_t FullyConnectedOp::macs(const std::shared_ptr<AxisOrder>&) {
  return productFrom(getInput(1)->getDims(), 0);
}

std::uint32_t FullyConnectedOp::paramsCount(const std::shared_ptr<AxisOrder>& axisOrder) {
  std::uint64_t count = macs(axisOrder);
  if (numInputs() >= 3 && getInput(2)->getRank() > 0) count += getInput(2)->getDims().front();
  return static_cast<std::uint32_t>(count);
}

std::vector<Dims> FullyConnectedOp::inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                      std::uint32_t) {
  const char* function = "netforge::ops::FullyConnectedOp::inferOutputShapes";
  refuseDynamicInputs(*this, function);
  const Dims weight = axisOrder->extractFcWeightsDims(getInput(1)->getDims());
  Dims dims = getInput(0)->getDims();
  if (dims.size() == 1) return {{weight[0]}};
  if (getAttributes()->getAttr<bool>("keep_dims")) {
    if (dims.empty())
      throwInvalidArgument(function, "FullyConnectedOp ", getName(), " expects rank 1 or above, but got 0");
    dims.back() = weight[0];
    return {dims};
  }
  if (weight[1] == 0) {
    throwInvalidArgument(function, "FullyConnectedOp ", getName(), " has a weight without input features");
  }
  return {{static_cast<std::uint32_t>(productFrom(dims, 0) / weight[1]), weight[0]}};
}

void FullyConnectedOp::resizeOp(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  const char* function = "netforge::ops::FullyConnectedOp::resizeOp";
  const auto output = getOutput(0);
  const Dims& inputDims = getInput(0)->getDims();
  const Dims& weightDims = getInput(1)->getDims();
  Dims outputDims = output->getDims();
  if (outputDims.size() < 2) {
    throwRuntimeError(function, "FullyConnected layer name ", getName(),
                      " can not be resized because there are no batch dimensions (numBatchDims == 0)");
  }
  if (weightDims.size() != 2) {
    throwRuntimeError(function, "Layer ", getName(), ": weight matrix must be of rank 2, but got ",
                      weightDims.size(), ".");
  }
  const std::size_t batchDims = outputDims.size() - 1;
  const std::uint64_t features = productFrom(inputDims, batchDims);
  if (inputDims.size() < batchDims || features != weightDims[1]) {
    throwRuntimeError(function, "Layer ", getName(), ": mismatch between size of input features (", features,
                      ") and width of weight matrix (", weightDims[1],
                      "). Cannot resize when input feature count does not match weight matrix dimensions.");
  }
  if (outputDims.back() != weightDims[0]) {
    throwRuntimeError(function, "Layer ", getName(), ": mismatch between number of output features (",
                      outputDims.back(), ") and height of weight matrix (", weightDims[0],
                      "). Output feature count must match the weight matrix height.");
  }
  std::copy_n(inputDims.begin(), batchDims, outputDims.begin());
  output->setShape(IrTensorShape(outputDims));
}

// Inverse

InverseOp::InverseOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Inverse", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(InverseOp)

std::vector<Dims> InverseOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  const char* function = "netforge::ops::InverseOp::inferOutputShapes";
  refuseDynamicInputs(*this, function);
  const Dims dims = getInput(0)->getDims();
  if (dims.size() < 2) {
    throwInvalidArgument(function, "Inverse Op ", getName(), " expects rank 2 or above, but got ",
                         dims.size());
  }
  const std::uint32_t rows = dims[dims.size() - 2];
  const std::uint32_t columns = dims[dims.size() - 1];
  if (rows != columns) {
    throwInvalidArgument(function, "Inverse Op ", getName(), " expects a square matrix, but got ", rows, "x",
                         columns, " in the last two dimensions");
  }
  if (columns > 2) {
    throwInvalidArgument(function, "Currently, only inverse of up to 2x2 matrices are supported, but op ",
                         getName(), " got a ", columns, "x", columns, " matrix");
  }
  return {dims};
}

// HadamardTransform

HadamardTransformOp::HadamardTransformOp(const std::string& name,
                                         const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "HadamardTransform", attributes) {
  addDefault(getAttributes(), "scale", 1.0f, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(HadamardTransformOp)

std::vector<Dims> HadamardTransformOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  refuseDynamicInputs(*this, "netforge::ops::HadamardTransformOp::inferOutputShapes");
  return {getInput(0)->getDims()};
}

}  // namespace netforge::ops
