#include <gtest/gtest.h>

#include <functional>
#include <new>

#include "output/IrOrloTranslator.h"
#include "tests/output/RecordText.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/Failures.h"

namespace {
std::size_t refusedSize = 0;  // allocations of this size that may fail do fail
}

// The library asks for memory in this form where a failure has a text of its own.
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  if (size == refusedSize) return nullptr;
  try {
    return ::operator new[](size);
  } catch (...) {
    return nullptr;
  }
}

namespace netforge {
namespace {

using Change = std::function<void(QuantInfo&)>;
using testing::CapturedOutput;
using testing::failureOf;
using testing::quantText;

constexpr std::uint32_t kUndefined = 0x7FFFFFFF;
const std::vector<std::uint32_t> kNone;

EncodingInfo entry(float scale, double offset, std::uint32_t bitwidth = 4, std::int32_t mappedWidth = 0) {
  EncodingInfo info;
  info.scale = scale;
  info.offset = offset;
  info.bitwidth = bitwidth;
  info.mappedWidth = mappedWidth;
  return info;
}

/// Every group is filled; the kind says which one counts.
std::shared_ptr<IrTensor> tensorWith(std::uint32_t kind, const Change& change = nullptr) {
  QuantInfo info;
  info.encoding = static_cast<QuantEncodingKind>(kind);
  info.scaleOffset = entry(0.5f, -3.9, 6);
  info.axis = -1;
  info.axisEncodings = {entry(0.5f, -3.9, 4, 9), entry(0.25f, 3.9, 5)};
  info.blockAxis = 1;
  info.blockSize = 2;
  info.blockEncodings = {entry(0.5f, -3.5), entry(0.25f, 2.5)};
  info.sbqAxis = 2;
  info.sbqEncodings = {entry(0.5f, 1.9), entry(0.25f, -1.9)};
  info.sbqBlocksPerAxis = 7;
  info.sbqBlockScaleBitwidth = 3;
  info.sbqScales16 = {0x0102, 0x0304};
  info.laneAxis = 1;
  info.laneEncodings = {entry(1, 0, 6), entry(1, 0, 7)};
  info.laneCount = 11;
  info.laneStride = 12;
  info.laneFlags = {1, 2, 3, 4, 5};
  info.tableKind = 1;
  info.tableCount = 2;
  info.tableDims = {3, 4};
  info.tableValue0 = 5;
  info.tableValue1 = 6;
  info.tableWords = {7, 8};
  info.arrayElementKind = 1;
  info.arrayEncodings.resize(3);
  info.arrayEncodings[0].encoding = QuantEncodingKind::AxisScaleOffset;
  info.arrayEncodings[0].axis = -1;
  info.arrayEncodings[0].axisEncodings = info.axisEncodings;
  info.arrayEncodings[1].encoding = QuantEncodingKind::ScaleOffset;
  info.arrayEncodings[1].scaleOffset = entry(2, 5);
  info.arrayIndexTensor =
      std::make_shared<IrTensor>("index", std::vector<std::uint32_t>{3}, ORLO_DATATYPE_UINT_32,
                                 AxisFormat::NF, TensorType::Native, kNone);
  if (change) change(info);
  const auto tensor =
      std::make_shared<IrTensor>("t", std::vector<std::uint32_t>{6, 4, 8}, ORLO_DATATYPE_FLOAT_32,
                                 AxisFormat::ANY, TensorType::Native, kNone);
  tensor->setQuantizable(true);
  tensor->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, info);
  return tensor;
}

Orlo_QuantizeParams_t emptyParams() {
  Orlo_QuantizeParams_t params{};
  params.encodingDefinition = params.quantizationEncoding = kUndefined;
  return params;
}

TEST(OrloQuant, EveryKind) {
  struct Case {
    std::uint32_t kind;
    const char* expected;
    std::size_t kept = 0;  // vectors that the caller keeps alive
    Change change = nullptr;
  };
  const Case cases[] = {
      {0, "1 kind 0: 0.5/-3"},
      {0, "1 kind 0: 0.5/2147483647", 0, [](QuantInfo& info) { info.scaleOffset.offset = 1e300; }},
      {1, "1 kind 1: axis -1 0.5/-3 0.25/3", 1},
      {2, "1 kind 2: bits 6 0.5/-3"},
      {3, "1 kind 3: bits 4 axis -1 [0.5,0.25][-3,3]"},
      {4, "1 kind 4: [1,2,1] 0.5/-3 0.25/2", 1},
      {4, "1 kind 11: bits 8 [1,2,1] 0.5/-3.5 0.25/2.5", 0,
       [](QuantInfo& info) { info.blockEncodings[0].bitwidth = info.blockEncodings[1].bitwidth = 8; }},
      {5, "1 kind 5: axis 2 blocks 7 bits 3 storage 1 02010403 0.5/1 0.25/-1", 1},
      {5, "1 kind 5: axis 2 blocks 7 bits 3 storage 0 0908 0.5/1 0.25/-1", 1,
       [](QuantInfo& info) {
         info.sbqScales8 = {9, 8};
       }},
      {6, "1 kind 6: bits 6 axis 1 [0,0] null 11 12 3 4 5"},
      {8, "1 kind 8: bits 4 axis -1 mapped 9 [0.5,0.25][-3,3]"},
      {11, "1 kind 11: bits 4 [1,2,1] 0.5/-3.5 0.25/2.5"},
      {12, "1 kind 12: 1 2 [3,4] 5 6 07000000 08000000"},
      {12, "1 kind 12: 1 2 [3,4] 5 6 01020304 05060708", 0,
       [](QuantInfo& info) { info.tableBytes = {1, 2, 3, 4, 5, 6, 7, 8}; }},
      {13, "1 kind 13: of 1 by index {1 kind 1: axis -1 0.5/-3 0.25/3} {1 kind 0: 2/5} {}", 1},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.expected);
    IrOrloTranslator translator;
    IrOrloTranslator::KeepAlive keepAlive;
    Orlo_QuantizeParams_t params = emptyParams();
    translator.translateQuantEncoding(tensorWith(test.kind, test.change), params, keepAlive);  // gone by now
    EXPECT_EQ(quantText(params, 3, 2), test.expected);
    EXPECT_EQ(keepAlive.size(), test.kept);
    // The records of tensors hold the same, and keep it alive themselves.
    EXPECT_EQ(quantText(translator.translateTensor(tensorWith(test.kind, test.change))->quantizeParams, 3, 2),
              test.expected);
  }
}

TEST(OrloQuant, FloatTensorsHaveNone) {
  IrOrloTranslator translator;
  IrOrloTranslator::KeepAlive keepAlive;
  Orlo_QuantizeParams_t params = emptyParams();
  params.raw[3] = 1;
  const auto tensor = tensorWith(4, [](QuantInfo& info) { info.blockAxis = -1; });
  tensor->setDataType(ORLO_DATATYPE_FLOAT_16);
  translator.translateQuantEncoding(tensor, params, keepAlive);
  EXPECT_EQ(quantText(params, 3, 2), "");
  EXPECT_EQ(params.raw[3], 0) << "the group is zero";
}

TEST(OrloQuant, UnknownKindsAreSkippedAloud) {
  IrOrloTranslator translator;
  IrOrloTranslator::KeepAlive keepAlive;
  Orlo_QuantizeParams_t params = emptyParams();
  params.raw[3] = 1;
  const CapturedOutput output;
  translator.translateQuantEncoding(tensorWith(7), params, keepAlive);
  EXPECT_EQ(quantText(params, 3, 2), "1 kind 7:");
  EXPECT_EQ(params.raw[3], 1) << "the group stays as it was";
  // Inside an array there are no blocks and no arrays.
  const auto nested = [](QuantInfo& info) {
    info.arrayEncodings[0].encoding = QuantEncodingKind::Block;
    info.arrayEncodings[1].encoding = QuantEncodingKind::ArrayEncoding;
  };
  translator.translateQuantEncoding(tensorWith(13, nested), params, keepAlive);
  EXPECT_EQ(params.arrayOf->elements[0]->quantizationEncoding, 4u);
  const std::string line =
      "netforge::IrOrloTranslator::translateQuantEncoding: Unsupported quantization encoding type: ";
  EXPECT_EQ(output.text(), line + "7. Skipping.\n" + line + "4. Skipping.\n" + line + "13. Skipping.\n");
}

TEST(OrloQuant, AnIndexTensorThatLeadsBack) {
  const auto tensor = tensorWith(0);
  QuantInfo info;
  info.encoding = QuantEncodingKind::ArrayEncoding;
  info.arrayIndexTensor = tensor;
  tensor->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, info);
  IrOrloTranslator translator;
  const Orlo_Tensor_t* record = translator.translateTensor(tensor);
  EXPECT_EQ(record->quantizeParams.arrayOf->indexTensor, record);
  info.encoding = QuantEncodingKind::ScaleOffset;
  tensor->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, info);  // the tensor lets go of itself
}

TEST(OrloQuant, Failures) {
  struct Case {
    std::uint32_t kind;
    const char* text;
    std::size_t refused;  // bytes that can't be had
    Change change = nullptr;
  };
  const Case cases[] = {
      {4, "Negative BQ Axis is currently unsupported", 0, [](QuantInfo& info) { info.blockAxis = -1; }},
      {11, "BQ Axis must be less than tensor rank", 0, [](QuantInfo& info) { info.blockAxis = 3; }},
      {4, "BQ encoding requires at least one encoding info", 0,
       [](QuantInfo& info) { info.blockEncodings.clear(); }},
      {5, "Unpopulated SBQ scales", 0, [](QuantInfo& info) { info.sbqScales16.clear(); }},
      {13, "Failed to allocate Orlo_ArrayOf_t", sizeof(Orlo_ArrayOf_t),
       [](QuantInfo& info) { info.arrayEncodings.resize(7); }},
      {13, "Failed to allocate array of Orlo_QuantizeParams_t pointers", 7 * sizeof(void*),
       [](QuantInfo& info) { info.arrayEncodings.resize(7); }},
      {13, "Failed to allocate Orlo_QuantizeParams_t for array element", sizeof(Orlo_QuantizeParams_t)},
      {8, "Failed to allocate Orlo_BwAxisScaleOffsetMapped_t quant param",
       sizeof(Orlo_BwAxisScaleOffsetMapped_t)},
      {8, "Failed to allocate Orlo_BwAxisScaleOffsetMapped_t scales and offsets", 11 * sizeof(float),
       [](QuantInfo& info) { info.axisEncodings.resize(11); }},
  };
  for (const Case& test : cases) {
    IrOrloTranslator translator;
    IrOrloTranslator::KeepAlive keepAlive;
    Orlo_QuantizeParams_t params = emptyParams();
    const auto tensor = tensorWith(test.kind, test.change);
    refusedSize = test.refused;
    const std::string text = failureOf<std::invalid_argument>(
        [&] { translator.translateQuantEncoding(tensor, params, keepAlive); });
    refusedSize = 0;
    EXPECT_EQ(text, std::string("netforge::IrOrloTranslator::translateQuantEncoding: ") + test.text);
    EXPECT_EQ(params.quantizationEncoding, kUndefined) << "nothing is filled";
  }
}

}  // namespace
}  // namespace netforge
