#pragma once

#include <cstdint>
#include <iosfwd>
#include <set>
#include <vector>

namespace netforge {

/// The shape of a tensor: dims, outermost first, and which of them are not known yet.
///
/// A value type: copied freely, equal when dims and dynamic axes are equal. The entry of a dynamic axis in
/// `dims` is a placeholder. Invariant: every member of `dynamicAxes` is below the rank, and the two masks
/// follow from it. Code that needs other dims or axes builds a new shape.
class IrTensorShape {
 public:
  IrTensorShape();
  explicit IrTensorShape(const std::vector<std::uint32_t>& dims);
  /// Throws what `validate` throws.
  IrTensorShape(const std::vector<std::uint32_t>& dims, const std::set<std::uint32_t>& dynamicAxes);

  std::vector<std::uint32_t> dims;
  std::set<std::uint32_t> dynamicAxes;
  std::vector<bool> dynamicMask;           ///< one bit per dim; empty without dynamic axes
  std::vector<std::uint8_t> dynamicBytes;  ///< one byte per dim for the runtime; empty without dynamic axes

  std::uint32_t rank() const;
  bool hasDynamicAxes() const;

  /// Throws std::invalid_argument for the first dynamic axis that is not below the rank.
  void validate() const;

  /// Throws std::invalid_argument for an index that is not below the rank, also without dynamic axes.
  bool isDynamicDim(std::uint32_t index) const;

  /// result.dims[i] = dims[order[i]], and axis i is dynamic when axis order[i] was. Throws
  /// std::invalid_argument unless `order` is a permutation of 0 .. rank-1.
  IrTensorShape permute(const std::vector<std::uint32_t>& order) const;

  /// Puts ones in front until the rank is reached and moves the dynamic axes up by as many places; a rank
  /// not above the present one changes nothing.
  IrTensorShape padToRank(std::uint32_t rank) const;
  static std::vector<std::uint32_t> padDimsToRank(const std::vector<std::uint32_t>& dims, std::uint32_t rank);

  bool hasUnitDim() const;  ///< some entry of `dims` is 1, a placeholder included

  bool operator==(const IrTensorShape& other) const;
  bool operator!=(const IrTensorShape& other) const;
};

/// "IrTensorShape(dims = [2,3] , dy_axes=[0])", in any locale.
std::ostream& operator<<(std::ostream& stream, const IrTensorShape& shape);

}  // namespace netforge
