#pragma once

#include <cstdint>
#include <iosfwd>
#include <set>
#include <vector>

namespace netforge {

class IrTensorShape {
 public:
  IrTensorShape();
  explicit IrTensorShape(const std::vector<std::uint32_t>& dims);
  IrTensorShape(const std::vector<std::uint32_t>& dims, const std::set<std::uint32_t>& dynamicAxes);

  std::vector<std::uint32_t> dims;
  std::set<std::uint32_t> dynamicAxes;
  std::vector<bool> dynamicMask;           // empty without dynamic axes
  std::vector<std::uint8_t> dynamicBytes;  // empty without dynamic axes

  std::uint32_t rank() const;
  bool hasDynamicAxes() const;
  void validate() const;
  bool isDynamicDim(std::uint32_t index) const;
  IrTensorShape permute(const std::vector<std::uint32_t>& order) const;
  IrTensorShape padToRank(std::uint32_t rank) const;
  static std::vector<std::uint32_t> padDimsToRank(const std::vector<std::uint32_t>& dims,
                                                  std::uint32_t rank);
  bool hasUnitDim() const;
  bool operator==(const IrTensorShape& other) const;
  bool operator!=(const IrTensorShape& other) const;
};
std::ostream& operator<<(std::ostream& stream, const IrTensorShape& shape);

}  // namespace netforge
