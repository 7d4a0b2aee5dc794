#include <tuple>
#include <utility>

#include "ir/IrTypes.h"

namespace netforge {

namespace {

// The fields of each part of a record, listed once for copying and comparing.
constexpr auto kHeader = std::make_tuple(&QuantInfo::encoding, &QuantInfo::isOverridden,
                                         &QuantInfo::definition, &QuantInfo::auxDefinition);
constexpr auto kScaleOffsetGroup = std::make_tuple(&QuantInfo::scaleOffset);
constexpr auto kAxisGroup = std::make_tuple(&QuantInfo::axis, &QuantInfo::axisEncodings);
constexpr auto kBlockGroup = std::make_tuple(&QuantInfo::blockFlags, &QuantInfo::blockAxis,
                                             &QuantInfo::blockSize, &QuantInfo::blockEncodings);
constexpr auto kSbqGroup =
    std::make_tuple(&QuantInfo::sbqAxis, &QuantInfo::sbqReserved, &QuantInfo::sbqEncodings,
                    &QuantInfo::sbqBlocksPerAxis, &QuantInfo::sbqReserved2, &QuantInfo::sbqBlockScaleBitwidth,
                    &QuantInfo::sbqScales8, &QuantInfo::sbqScales16);
constexpr auto kLaneGroup =
    std::make_tuple(&QuantInfo::laneAxis, &QuantInfo::laneEncodings, &QuantInfo::laneCount,
                    &QuantInfo::laneStride, &QuantInfo::laneFlags);
constexpr auto kArrayGroup =
    std::make_tuple(&QuantInfo::arrayElementKind, &QuantInfo::arrayEncodings, &QuantInfo::arrayIndexTensor);
constexpr auto kTableGroup = std::make_tuple(
    &QuantInfo::tableKind, &QuantInfo::tableCount, &QuantInfo::tableDims, &QuantInfo::tableValue0,
    &QuantInfo::tableValue1, &QuantInfo::tableBytes, &QuantInfo::tableWords);

// Calls `visit` with the field list of the group that `kind` selects, if there is one.
template <class Visit>
void visitGroup(QuantEncodingKind kind, const Visit& visit) {
  switch (kind) {
    case QuantEncodingKind::ScaleOffset:
    case QuantEncodingKind::BwScaleOffset:
    case QuantEncodingKind::Undefined:
      visit(kScaleOffsetGroup);
      break;
    case QuantEncodingKind::AxisScaleOffset:
    case QuantEncodingKind::BwAxisScaleOffset:
    case QuantEncodingKind::BwAxisScaleOffsetMapped:
      visit(kAxisGroup);
      break;
    case QuantEncodingKind::Block:
    case QuantEncodingKind::BlockMapped:
      visit(kBlockGroup);
      break;
    case QuantEncodingKind::SbqBlockwise:
      visit(kSbqGroup);
      break;
    case QuantEncodingKind::LaneEncoding:
      visit(kLaneGroup);
      break;
    case QuantEncodingKind::ArrayEncoding:
      visit(kArrayGroup);
      break;
    case QuantEncodingKind::TableEncoding:
      visit(kTableGroup);
      break;
  }
}

template <class Fields>
void copyFields(QuantInfo& to, const QuantInfo& from, const Fields& fields) {
  std::apply([&](auto... field) { ((to.*field = from.*field), ...); }, fields);
}

template <class Fields>
void moveFields(QuantInfo& to, QuantInfo& from, const Fields& fields) {
  std::apply([&](auto... field) { ((to.*field = std::move(from.*field)), ...); }, fields);
}

template <class Fields>
bool equalFields(const QuantInfo& a, const QuantInfo& b, const Fields& fields) {
  return std::apply([&](auto... field) { return (... && (a.*field == b.*field)); }, fields);
}

}  // namespace

bool EncodingInfo::operator==(const EncodingInfo& other) const {
  return bitwidth == other.bitwidth && minimum == other.minimum && maximum == other.maximum &&
         scale == other.scale && offset == other.offset && isSymmetric == other.isSymmetric &&
         isFixedPoint == other.isFixedPoint && mappedWidth == other.mappedWidth;
}

bool EncodingInfo::operator!=(const EncodingInfo& other) const {
  return !(*this == other);
}

QuantInfo::QuantInfo() = default;

QuantInfo::QuantInfo(const QuantInfo& other) {
  copyFields(*this, other, kHeader);
  visitGroup(encoding, [&](const auto& fields) { copyFields(*this, other, fields); });
}

QuantInfo& QuantInfo::operator=(const QuantInfo& other) {
  // `other` may be this record or lie inside it: nothing of it is read once fields begin to move in.
  QuantInfo copy(other);
  moveFields(*this, copy, kHeader);
  moveFields(*this, copy, kScaleOffsetGroup);
  moveFields(*this, copy, kAxisGroup);
  moveFields(*this, copy, kBlockGroup);
  moveFields(*this, copy, kSbqGroup);
  moveFields(*this, copy, kLaneGroup);
  moveFields(*this, copy, kArrayGroup);
  moveFields(*this, copy, kTableGroup);
  return *this;
}

bool QuantInfo::operator==(const QuantInfo& other) const {
  if (!equalFields(*this, other, kHeader)) return false;
  if (encoding > QuantEncodingKind::ArrayEncoding && encoding != QuantEncodingKind::Undefined) return false;
  bool equal = true;
  visitGroup(encoding, [&](const auto& fields) { equal = equalFields(*this, other, fields); });
  return equal;
}

bool QuantInfo::operator!=(const QuantInfo& other) const {
  return !(*this == other);
}

}  // namespace netforge
