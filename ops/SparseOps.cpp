#include "ops/SparseOps.h"

#include "ir/IrTensor.h"
#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

/// The dims of the sparse tensor at input 0, which has one axis at least.
std::vector<std::uint32_t> sparseInputDims(const IrOp& op, const char* function) {
  refuseDynamicInputs(op, function);
  const auto input = op.getInput(0);
  if (input->getRank() == 0) {
    throwInvalidArgument(function, "Op ", op.displayName(), " needs an input of rank 1 or above");
  }
  return input->getDims();
}

}  // namespace

CreateSparseOp::CreateSparseOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "CreateSparse", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(CreateSparseOp)

std::vector<DataType> CreateSparseOp::inferOutputDataTypes(std::uint32_t) {
  return {getInput(1)->getDataType()};
}

GetSparseIndicesOp::GetSparseIndicesOp(const std::string& name,
                                       const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "GetSparseIndices", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(GetSparseIndicesOp)

std::vector<std::vector<std::uint32_t>> GetSparseIndicesOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  const auto dims = sparseInputDims(*this, "netforge::ops::GetSparseIndicesOp::inferOutputShapes");
  return {{getAttributes()->getAttr<std::uint32_t>("num_specified_elements"),
           static_cast<std::uint32_t>(dims.size() - 1)}};
}

std::vector<DataType> GetSparseIndicesOp::inferOutputDataTypes(std::uint32_t) {
  return {ORLO_DATATYPE_INT_32};
}

GetSparseValuesOp::GetSparseValuesOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "GetSparseValues", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(GetSparseValuesOp)

std::vector<std::vector<std::uint32_t>> GetSparseValuesOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  const auto dims = sparseInputDims(*this, "netforge::ops::GetSparseValuesOp::inferOutputShapes");
  return {{getAttributes()->getAttr<std::uint32_t>("num_specified_elements"), dims.back()}};
}

}  // namespace netforge::ops
