// The quantisation group of a tensor record.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iostream>
#include <limits>
#include <new>
#include "ir/Failure.h"
#include "output/IrOrloTranslator.h"
#include "output/ZeroedRecord.h"

namespace netforge {

namespace {

constexpr const char* kFunction = "netforge::IrOrloTranslator::translateQuantEncoding";
constexpr std::uint32_t kUndefined = 0x7FFFFFFF;
constexpr auto kBlockMapped = static_cast<std::uint32_t>(QuantEncodingKind::BlockMapped);

using Encodings = std::vector<EncodingInfo>;
using Storage = std::vector<std::shared_ptr<void>>;
using KeepAlive = IrOrloTranslator::KeepAlive;

/// Zeroed memory for `count` records, which `storage` owns. Throws std::invalid_argument with `failure` when
/// there is no memory; a count of 0 gives null.
template <class T>
T* allocate(Storage& storage, std::size_t count, const char* failure = "Failed to allocate quant param") {
  static_assert(std::is_trivially_copyable_v<T>);
  if (count == 0) return nullptr;
  std::unique_ptr<T[]> list(new (std::nothrow) T[count]);
  if (list == nullptr) fail<std::invalid_argument>(kFunction, failure);
  T* const result = list.get();
  std::memset(static_cast<void*>(result), 0, count * sizeof(T));
  storage.push_back(std::shared_ptr<T[]>(std::move(list)));
  return result;
}

template <class T>
T* copyOf(Storage& storage, const std::vector<T>& values) {
  T* const result = allocate<T>(storage, values.size());
  std::copy(values.begin(), values.end(), result);
  return result;
}

/// Toward zero; what no 32-bit value can hold becomes the nearest, and not-a-number 0.
std::int32_t truncatedOffset(const EncodingInfo& encoding) {
  using Limits = std::numeric_limits<std::int32_t>;
  if (std::isnan(encoding.offset)) return 0;
  return static_cast<std::int32_t>(std::clamp<double>(encoding.offset, Limits::min(), Limits::max()));
}

/// The entry that speaks for all; defaults without entries.
EncodingInfo firstOf(const Encodings& encodings) {
  return encodings.empty() ? EncodingInfo() : encodings.front();
}

std::uint32_t countOf(const Encodings& encodings) {
  return static_cast<std::uint32_t>(encodings.size());
}

Orlo_ScaleOffset_t* scaleOffsets(const Encodings& encodings, KeepAlive& keepAlive) {
  const auto list = std::make_shared<std::vector<Orlo_ScaleOffset_t>>();
  list->reserve(encodings.size());
  for (const EncodingInfo& encoding : encodings) list->push_back({encoding.scale, truncatedOffset(encoding)});
  keepAlive.push_back(list);
  return list->data();
}

/// Scales and offsets as two arrays, behind `record`'s members of those names.
template <class Record>
void fillScalesAndOffsets(Record& record, const Encodings& encodings, Storage& storage, const char* failure) {
  record.count = countOf(encodings);
  record.scales = allocate<float>(storage, encodings.size(), failure);
  record.offsets = allocate<std::int32_t>(storage, encodings.size(), failure);
  for (std::size_t i = 0; i < encodings.size(); ++i) {
    record.scales[i] = encodings[i].scale;
    record.offsets[i] = truncatedOffset(encodings[i]);
  }
}

void fillSbq(const QuantInfo& info, Orlo_QuantizeParams_t& params, KeepAlive& keepAlive, Storage& storage) {
  if (info.sbqScales8.empty() && info.sbqScales16.empty()) {
    fail<std::invalid_argument>(kFunction, "Unpopulated SBQ scales");
  }
  params.sbq = allocate<Orlo_SbqExpansion_t>(storage, 1);
  params.sbq->axis = info.sbqAxis;
  params.sbq->scaleOffsets = scaleOffsets(info.sbqEncodings, keepAlive);
  params.sbq->sbqBlocksPerAxis = info.sbqBlocksPerAxis;
  params.sbq->sbqBlockScaleBitwidth = info.sbqBlockScaleBitwidth;
  if (!info.sbqScales8.empty()) {
    params.sbq->scaleStorage = 0;
    params.sbq->blockScales = copyOf(storage, info.sbqScales8);
  } else {
    params.sbq->scaleStorage = 1;
    params.sbq->blockScales = copyOf(storage, info.sbqScales16);
  }
}

void fillLane(const QuantInfo& info, Orlo_QuantizeParams_t& params, Storage& storage) {
  params.lane = allocate<Orlo_LaneExpansion_t>(storage, 1);
  params.lane->bitwidth = firstOf(info.laneEncodings).bitwidth;
  params.lane->axis = info.laneAxis;
  params.lane->count = countOf(info.laneEncodings);
  params.lane->slots = allocate<std::uint32_t>(storage, info.laneEncodings.size());
  params.lane->laneCount = info.laneCount;
  params.lane->laneStride = info.laneStride;
  params.lane->flag2 = info.laneFlags[2];
  params.lane->flag3 = info.laneFlags[3];
  params.lane->flag4 = info.laneFlags[4];
}

void fillMapped(const QuantInfo& info, Orlo_QuantizeParams_t& params, Storage& storage) {
  params.bwAxisMapped = allocate<Orlo_BwAxisScaleOffsetMapped_t>(
      storage, 1, "Failed to allocate Orlo_BwAxisScaleOffsetMapped_t quant param");
  const EncodingInfo first = firstOf(info.axisEncodings);
  params.bwAxisMapped->bitwidth = first.bitwidth;
  params.bwAxisMapped->axis = info.axis;
  params.bwAxisMapped->mappedWidth = static_cast<std::uint32_t>(first.mappedWidth);
  fillScalesAndOffsets(*params.bwAxisMapped, info.axisEncodings, storage,
                       "Failed to allocate Orlo_BwAxisScaleOffsetMapped_t scales and offsets");
}

void fillTable(const QuantInfo& info, Orlo_QuantizeParams_t& params, Storage& storage) {
  params.table = allocate<Orlo_TableExpansion_t>(storage, 1);
  params.table->tableKind = info.tableKind;
  params.table->tableCount = info.tableCount;
  params.table->tableDims = copyOf(storage, info.tableDims);
  params.table->value0 = info.tableValue0;
  params.table->value1 = info.tableValue1;
  if (!info.tableBytes.empty()) {
    params.table->table = copyOf(storage, info.tableBytes);
  } else {
    params.table->table = copyOf(storage, info.tableWords);
  }
}

void copyWords(const QuantInfo& info, Orlo_QuantizeParams_t& params) {
  params.quantizationEncoding = static_cast<std::uint32_t>(info.encoding);
  params.encodingDefinition = info.definition;
  // The runtime knows two definitions.
  if (info.encoding != QuantEncodingKind::Undefined) params.encodingDefinition = info.definition == 0 ? 0 : 1;
}

/// The kinds that need nothing but the record.
void fillPlain(const QuantInfo& info, Orlo_QuantizeParams_t& params, KeepAlive& keepAlive, Storage& storage) {
  switch (info.encoding) {
    case QuantEncodingKind::ScaleOffset:
      params.scaleOffset = {info.scaleOffset.scale, truncatedOffset(info.scaleOffset)};
      return;
    case QuantEncodingKind::BwScaleOffset:
      params.bwScaleOffset = {info.scaleOffset.bitwidth, info.scaleOffset.scale,
                              truncatedOffset(info.scaleOffset)};
      return;
    case QuantEncodingKind::AxisScaleOffset:
      params.axisScaleOffset = {info.axis, countOf(info.axisEncodings),
                                scaleOffsets(info.axisEncodings, keepAlive)};
      return;
    case QuantEncodingKind::BwAxisScaleOffset:
      params.bwAxisScaleOffset.bitwidth = firstOf(info.axisEncodings).bitwidth;
      params.bwAxisScaleOffset.axis = info.axis;
      fillScalesAndOffsets(params.bwAxisScaleOffset, info.axisEncodings, storage,
                           "Failed to allocate scales and offsets");
      return;
    case QuantEncodingKind::BwAxisScaleOffsetMapped:
      return fillMapped(info, params, storage);
    case QuantEncodingKind::SbqBlockwise:
      return fillSbq(info, params, keepAlive, storage);
    case QuantEncodingKind::LaneEncoding:
      return fillLane(info, params, storage);
    case QuantEncodingKind::TableEncoding:
      return fillTable(info, params, storage);
    case QuantEncodingKind::Undefined:
      return;
    default:
      std::cout << concatText(kFunction, ": Unsupported quantization encoding type: ", info.encoding,
                              ". Skipping.\n")
                << std::flush;
  }
}

void fillBlocks(const IrTensor& tensor, Orlo_QuantizeParams_t& params, KeepAlive& keepAlive,
                Storage& storage) {
  const QuantInfo& info = tensor.getQuantInfo();
  if (info.blockAxis < 0) {
    fail<std::invalid_argument>(kFunction, "Negative BQ Axis is currently unsupported");
  }
  const auto axis = static_cast<std::uint32_t>(info.blockAxis);
  if (axis >= tensor.getRank()) {
    fail<std::invalid_argument>(kFunction, "BQ Axis must be less than tensor rank");
  }
  const Encodings& encodings = info.blockEncodings;
  if (encodings.empty()) {
    fail<std::invalid_argument>(kFunction, "BQ encoding requires at least one encoding info");
  }
  std::vector<std::uint32_t> sizes(tensor.getRank(), 1);
  sizes[axis] = info.blockSize;
  std::uint32_t* const blockSizes = copyOf(storage, sizes);

  // Blocks of 8 bits have no form of their own in the runtime.
  const std::uint32_t bitwidth = encodings.front().bitwidth;
  if (info.encoding == QuantEncodingKind::Block && bitwidth != 8) {
    params.block = {blockSizes, scaleOffsets(encodings, keepAlive)};
    return;
  }
  params.quantizationEncoding = kBlockMapped;
  auto* const pairs = allocate<Orlo_FloatScaleOffset_t>(storage, encodings.size());
  for (std::size_t i = 0; i < encodings.size(); ++i) {
    pairs[i] = {encodings[i].scale, static_cast<float>(encodings[i].offset)};
  }
  params.blockMapped.bitwidth = bitwidth;
  params.blockMapped.blockSizes = blockSizes;
  params.blockMapped.scaleOffsets = pairs;
}

}  // namespace

void IrOrloTranslator::fillArray(const QuantInfo& info, Orlo_QuantizeParams_t& params, KeepAlive& keepAlive,
                                 Storage& storage) {
  params.arrayOf = allocate<Orlo_ArrayOf_t>(storage, 1, "Failed to allocate Orlo_ArrayOf_t");
  params.arrayOf->arrayElementKind = info.arrayElementKind;
  params.arrayOf->count = static_cast<std::uint32_t>(info.arrayEncodings.size());
  if (info.arrayIndexTensor != nullptr) {
    params.arrayOf->indexTensor = const_cast<Orlo_Tensor_t*>(translateTensor(info.arrayIndexTensor));
  }
  params.arrayOf->elements = allocate<Orlo_QuantizeParams_t*>(
      storage, info.arrayEncodings.size(), "Failed to allocate array of Orlo_QuantizeParams_t pointers");
  for (std::size_t i = 0; i < info.arrayEncodings.size(); ++i) {
    auto* const element = allocate<Orlo_QuantizeParams_t>(
        storage, 1, "Failed to allocate Orlo_QuantizeParams_t for array element");
    params.arrayOf->elements[i] = element;
    copyWords(info.arrayEncodings[i], *element);
    fillPlain(info.arrayEncodings[i], *element, keepAlive, storage);
  }
}

void IrOrloTranslator::fillQuantEncoding(const IrTensor& tensor, Orlo_QuantizeParams_t& params,
                                         KeepAlive& keepAlive, Storage& storage) {
  if (isFloatDataType(tensor.getDataType())) {
    params = zeroedRecord<Orlo_QuantizeParams_t>();
    params.encodingDefinition = kUndefined;
    params.quantizationEncoding = kUndefined;
    return;
  }
  const QuantInfo& info = tensor.getQuantInfo();
  copyWords(info, params);
  switch (info.encoding) {
    case QuantEncodingKind::Block:
    case QuantEncodingKind::BlockMapped:
      return fillBlocks(tensor, params, keepAlive, storage);
    case QuantEncodingKind::ArrayEncoding:
      return fillArray(info, params, keepAlive, storage);
    default:
      return fillPlain(info, params, keepAlive, storage);
  }
}

void IrOrloTranslator::translateQuantEncoding(const std::shared_ptr<IrTensor>& tensor,
                                              Orlo_QuantizeParams_t& params, KeepAlive& keepAlive) {
  if (tensor == nullptr) {
    fail<std::invalid_argument>(kFunction,
                                "Invalid tensor: received null tensor pointer, expected a valid tensor");
  }
  Orlo_QuantizeParams_t filled = params;
  KeepAlive lists;
  Storage storage;
  fillQuantEncoding(*tensor, filled, lists, storage);
  keepAlive.insert(keepAlive.end(), lists.begin(), lists.end());
  quantArrays.insert(quantArrays.end(), storage.begin(), storage.end());
  params = filled;
}

}  // namespace netforge
