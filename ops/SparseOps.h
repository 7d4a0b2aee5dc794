#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrOp.h"

/// Conversions between a sparse tensor and its parts: an index table [n, sparse rank] and a value table
/// [n, channels], n being the number of specified elements.

namespace netforge::ops {

/// "CreateSparse": indices and values to a sparse tensor. The dense shape stands in neither input, so the op
/// keeps the shape rule of IrOp and enters a graph with its output shape given.
class CreateSparseOp : public IrOp {
 public:
  CreateSparseOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  CreateSparseOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                 const TensorList& ins, const TensorList& outs);

  /// The data type of the values (input 1), 64-bit integers included.
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
};

/// "GetSparseIndices": the index table of a sparse tensor; "num_specified_elements" is its number of rows.
class GetSparseIndicesOp : public IrOp {
 public:
  GetSparseIndicesOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  GetSparseIndicesOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                     const TensorList& ins, const TensorList& outs);

  /// [num_specified_elements, rank of the input less 1].
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  /// One 32-bit integer type.
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
};

/// "GetSparseValues": the value table of a sparse tensor; "num_specified_elements" is its number of rows.
class GetSparseValuesOp : public IrOp {
 public:
  GetSparseValuesOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  GetSparseValuesOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                    const TensorList& ins, const TensorList& outs);

  /// [num_specified_elements, last dim of the input].
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

}  // namespace netforge::ops
