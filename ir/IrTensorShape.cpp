#include "ir/IrTensorShape.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

#include "ir/Failure.h"

namespace netforge {

IrTensorShape::IrTensorShape() = default;

IrTensorShape::IrTensorShape(const std::vector<std::uint32_t>& sizes) : dims(sizes) {}

IrTensorShape::IrTensorShape(const std::vector<std::uint32_t>& sizes, const std::set<std::uint32_t>& axes)
    : dims(sizes), dynamicAxes(axes) {
  validate();
  if (dynamicAxes.empty()) return;
  dynamicMask.resize(dims.size(), false);
  dynamicBytes.resize(dims.size(), 0);
  for (std::uint32_t axis : dynamicAxes) {
    dynamicMask[axis] = true;
    dynamicBytes[axis] = 1;
  }
}

std::uint32_t IrTensorShape::rank() const {
  return static_cast<std::uint32_t>(dims.size());
}

bool IrTensorShape::hasDynamicAxes() const {
  return !dynamicAxes.empty();
}

void IrTensorShape::validate() const {
  for (std::uint32_t axis : dynamicAxes) {
    if (axis >= rank()) {
      fail<std::invalid_argument>("netforge::IrTensorShape::validate", "IrTensorShape of rank ", rank(),
                                  " cannot have ", axis, " as dynamic dimension");
    }
  }
}

bool IrTensorShape::isDynamicDim(std::uint32_t index) const {
  if (index >= rank()) {
    fail<std::invalid_argument>("netforge::IrTensorShape::isDynamicDim",
                                "IrTensorShape::isDynamicDim error: out of bound index ", index,
                                " for IrTensorShape of rank ", rank());
  }
  return dynamicAxes.count(index) != 0;
}

IrTensorShape IrTensorShape::permute(const std::vector<std::uint32_t>& order) const {
  if (order.size() != dims.size()) {
    fail<std::invalid_argument>("netforge::IrTensorShape::permute",
                                "IrTensorShape permute error: permute order ", order,
                                " does not have the same rank as TensorShape ", dims);
  }
  std::vector<bool> taken(dims.size(), false);
  std::vector<std::uint32_t> permuted;
  permuted.reserve(dims.size());
  std::set<std::uint32_t> axes;
  for (std::uint32_t from : order) {
    if (from >= rank() || taken[from]) {
      fail<std::invalid_argument>("netforge::IrTensorShape::permute",
                                  "IrTensorShape permute error: illegal order ", order, " for shape ", dims);
    }
    taken[from] = true;
    if (dynamicAxes.count(from) != 0) axes.insert(static_cast<std::uint32_t>(permuted.size()));
    permuted.push_back(dims[from]);
  }
  return IrTensorShape(permuted, axes);
}

IrTensorShape IrTensorShape::padToRank(std::uint32_t newRank) const {
  const std::uint32_t ones = newRank > rank() ? newRank - rank() : 0;
  std::set<std::uint32_t> axes;
  for (std::uint32_t axis : dynamicAxes) axes.insert(axis + ones);
  return IrTensorShape(padDimsToRank(dims, newRank), axes);
}

std::vector<std::uint32_t> IrTensorShape::padDimsToRank(const std::vector<std::uint32_t>& dims,
                                                        std::uint32_t rank) {
  std::vector<std::uint32_t> padded(rank > dims.size() ? rank - dims.size() : 0, 1u);
  padded.insert(padded.end(), dims.begin(), dims.end());
  return padded;
}

bool IrTensorShape::hasUnitDim() const {
  return std::find(dims.begin(), dims.end(), 1u) != dims.end();
}

bool IrTensorShape::operator==(const IrTensorShape& other) const {
  return dims == other.dims && dynamicAxes == other.dynamicAxes;
}

bool IrTensorShape::operator!=(const IrTensorShape& other) const {
  return !(*this == other);
}

std::ostream& operator<<(std::ostream& stream, const IrTensorShape& shape) {
  return stream << concatText("IrTensorShape(dims = ", shape.dims, " , dy_axes=", shape.dynamicAxes, ")");
}

}  // namespace netforge
