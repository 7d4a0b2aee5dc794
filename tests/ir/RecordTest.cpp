#include <gtest/gtest.h>

#include <locale>
#include <sstream>
#include <stdexcept>

#include "ir/Failure.h"
#include "ir/IrTensor.h"
#include "ir/IrTensorShape.h"
#include "ir/IrTypes.h"
#include "tests/support/Failures.h"

namespace netforge {
namespace {

using testing::failureOf;
using Dims = std::vector<std::uint32_t>;

TEST(DataTypes, ClassesHoldExactlyTheirTypes) {
  std::vector<std::string> quantized;
  std::vector<std::string> floats;
  for (std::uint32_t number = 0; number <= 0x0700; ++number) {
    const auto type = static_cast<DataType>(number);
    if (isQuantizedType(type)) quantized.push_back(getDataTypeShortName(type));
    if (isFloatDataType(type)) floats.push_back(getDataTypeShortName(type));
  }
  EXPECT_EQ(quantized, (std::vector<std::string>{"qint4", "qint8", "qint16", "qint32", "quint4", "quint8",
                                                 "quint16", "quint32"}));
  EXPECT_EQ(floats, (std::vector<std::string>{"float16", "float32"}));
}

TEST(DataTypes, NamesOfTypesAtTheEdges) {
  EXPECT_EQ(getDataTypeName(ORLO_DATATYPE_BFLOAT_16), "ORLO_DATATYPE_BFLOAT_16");
  EXPECT_EQ(getDataTypeShortName(ORLO_DATATYPE_BFLOAT_16), "undefined");
  EXPECT_EQ(getDataTypeShortName(ORLO_DATATYPE_FLOAT_64), "undefined");
  EXPECT_EQ(getDataTypeShortName(ORLO_DATATYPE_STRING), "str");
  EXPECT_EQ(getDataTypeName(ORLO_DATATYPE_UNDEFINED), "ORLO_DATATYPE_UNDEFINED");
  EXPECT_EQ(getDataTypeName(static_cast<DataType>(0x0007)), "UNKNOWN");
  EXPECT_EQ(getDataTypeShortName(static_cast<DataType>(0x0007)), "undefined");
}

// A string table that slipped by one row would send every layout to its neighbour.
TEST(AxisFormats, StringsAreTheEnumerators) {
#define ROW(Format) \
  { AxisFormat::Format, #Format }
  const std::pair<AxisFormat, const char*> rows[] = {
      ROW(NCDHW), ROW(NDHWC), ROW(NCHW),  ROW(NHWC),       ROW(NCF),
      ROW(NFC),   ROW(TNF),   ROW(NTF),   ROW(NF),         ROW(NC),
      ROW(ANY),   ROW(DHWIO), ROW(DHWOI), ROW(IODHW),      ROW(OIDHW),
      ROW(HWIO),  ROW(HWOI),  ROW(IOHW),  ROW(OIHW),       ROW(FIO),
      ROW(FOI),   ROW(IOF),   ROW(OIF),   ROW(NONTRIVIAL), ROW(NOT_YET_DEFINED)};
#undef ROW
  for (const auto& [format, text] : rows) EXPECT_EQ(axisFormatToString(format), text);
  EXPECT_EQ(axisFormatToString(static_cast<AxisFormat>(24)), "NOT_YET_DEFINED");
}

class GroupedDigits : public std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  char do_decimal_point() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(FailureTexts, PrintAlikeInEveryLocale) {
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new GroupedDigits));
  std::ostringstream shapeText;
  shapeText << IrTensorShape({1234567, 3}, {0});
  const std::string text = concatText(Dims{4294967295u, 2}, ' ', std::uint8_t{65}, std::int8_t{-5}, ' ', true,
                                      ' ', ORLO_DATATYPE_FLOAT_32, ' ', 1.5, ' ', Dims{});
  std::locale::global(before);
  EXPECT_EQ(shapeText.str(), "IrTensorShape(dims = [1234567,3] , dy_axes=[0])");
  EXPECT_EQ(text, "[4294967295,2] 65-5 1 562 1.5 []");
  EXPECT_EQ(failureOf<std::runtime_error>([] { fail<std::runtime_error>("netforge::f", "no ", 7); }),
            "netforge::f: no 7");
}

TEST(Shape, RefusesDynamicAxesBeyondTheRank) {
  EXPECT_EQ(failureOf<std::invalid_argument>([] {
              IrTensorShape({4, 5}, {1, 2});
            }),
            "netforge::IrTensorShape::validate: IrTensorShape of rank 2 cannot have 2 as dynamic dimension");
}

TEST(Shape, MasksFollowTheDynamicAxes) {
  const IrTensorShape fixed({4, 5, 6}, {});
  EXPECT_TRUE(fixed.dynamicMask.empty());
  EXPECT_TRUE(fixed.dynamicBytes.empty());
  const IrTensorShape shape({4, 5, 6}, {0, 2});
  EXPECT_EQ(shape.dynamicMask, (std::vector<bool>{true, false, true}));
  EXPECT_EQ(shape.dynamicBytes, (std::vector<std::uint8_t>{1, 0, 1}));
  EXPECT_TRUE(shape.isDynamicDim(2));
  EXPECT_FALSE(shape.isDynamicDim(1));
  EXPECT_FALSE(fixed.isDynamicDim(2));
  EXPECT_NE(shape, fixed);
}

// The range test comes first: a static shape does not answer false for an axis that it lacks.
TEST(Shape, IsDynamicDimRefusesAnAxisBeyondTheRank) {
  for (const IrTensorShape& shape : {IrTensorShape({4, 5}), IrTensorShape({4, 5}, {1})}) {
    EXPECT_EQ(
        failureOf<std::invalid_argument>([&] { shape.isDynamicDim(2); }),
        "netforge::IrTensorShape::isDynamicDim: IrTensorShape::isDynamicDim error: out of bound index 2 "
        "for IrTensorShape of rank 2");
  }
}

TEST(Shape, PermuteMovesDynamicAxesWithTheirDims) {
  EXPECT_EQ(IrTensorShape({4, 5}, {0}).permute({1, 0}), IrTensorShape({5, 4}, {1}));
  // 2 0 1 and its inverse differ, so a mix-up of directions shows.
  EXPECT_EQ(IrTensorShape({4, 5, 6}, {0}).permute({2, 0, 1}), IrTensorShape({6, 4, 5}, {1}));
  EXPECT_EQ(IrTensorShape().permute({}), IrTensorShape());
}

TEST(Shape, PermuteRefusesWhatIsNoPermutation) {
  const IrTensorShape shape({4, 5});
  EXPECT_EQ(
      failureOf<std::invalid_argument>([&] { shape.permute({0}); }),
      "netforge::IrTensorShape::permute: IrTensorShape permute error: permute order [0] does not have the "
      "same rank as TensorShape [4,5]");
  for (const Dims& order : {Dims{0, 0}, Dims{0, 2}}) {
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { shape.permute(order); }),
              "netforge::IrTensorShape::permute: IrTensorShape permute error: illegal order " +
                  dimsText(order) + " for shape [4,5]");
  }
}

TEST(Shape, PaddingPutsOnesInFront) {
  EXPECT_EQ(IrTensorShape({4, 5}, {1}).padToRank(4), IrTensorShape({1, 1, 4, 5}, {3}));
  EXPECT_EQ(IrTensorShape({4, 5}, {1}).padToRank(1), IrTensorShape({4, 5}, {1}));
  EXPECT_EQ(IrTensorShape::padDimsToRank({}, 2), (Dims{1, 1}));
  EXPECT_TRUE(IrTensorShape({3, 1}).hasUnitDim());
  EXPECT_FALSE(IrTensorShape({3, 10}).hasUnitDim());
}

// One step per field of a record, each away from the field's default.
struct FieldStep {
  const char* group;
  void (*change)(QuantInfo&);
};

const FieldStep kFieldSteps[] = {
    {"header", [](QuantInfo& q) { q.isOverridden = true; }},
    {"header", [](QuantInfo& q) { q.definition = 1; }},
    {"header", [](QuantInfo& q) { q.auxDefinition = 2; }},
    {"scale", [](QuantInfo& q) { q.scaleOffset.bitwidth = 8; }},
    {"scale", [](QuantInfo& q) { q.scaleOffset.minimum = -1.0f; }},
    {"scale", [](QuantInfo& q) { q.scaleOffset.maximum = 1.0f; }},
    {"scale", [](QuantInfo& q) { q.scaleOffset.scale = 0.5f; }},
    {"scale", [](QuantInfo& q) { q.scaleOffset.offset = 0.25; }},
    {"scale", [](QuantInfo& q) { q.scaleOffset.isSymmetric = true; }},
    {"scale", [](QuantInfo& q) { q.scaleOffset.isFixedPoint = false; }},
    {"scale", [](QuantInfo& q) { q.scaleOffset.mappedWidth = -3; }},
    {"axis", [](QuantInfo& q) { q.axis = -1; }},
    {"axis", [](QuantInfo& q) { q.axisEncodings.emplace_back(); }},
    {"block", [](QuantInfo& q) { q.blockFlags = 1; }},
    {"block", [](QuantInfo& q) { q.blockAxis = 1; }},
    {"block", [](QuantInfo& q) { q.blockSize = 32; }},
    {"block", [](QuantInfo& q) { q.blockEncodings.emplace_back(); }},
    {"sbq", [](QuantInfo& q) { q.sbqAxis = 1; }},
    {"sbq", [](QuantInfo& q) { q.sbqReserved = 1; }},
    {"sbq", [](QuantInfo& q) { q.sbqEncodings.emplace_back(); }},
    {"sbq", [](QuantInfo& q) { q.sbqBlocksPerAxis = 1; }},
    {"sbq", [](QuantInfo& q) { q.sbqReserved2 = 1; }},
    {"sbq", [](QuantInfo& q) { q.sbqBlockScaleBitwidth = 4; }},
    {"sbq", [](QuantInfo& q) { q.sbqScales8 = {1}; }},
    {"sbq", [](QuantInfo& q) { q.sbqScales16 = {1}; }},
    {"lane", [](QuantInfo& q) { q.laneAxis = 1; }},
    {"lane", [](QuantInfo& q) { q.laneEncodings.emplace_back(); }},
    {"lane", [](QuantInfo& q) { q.laneCount = 1; }},
    {"lane", [](QuantInfo& q) { q.laneStride = 1; }},
    {"lane", [](QuantInfo& q) { q.laneFlags[4] = 1; }},
    {"array", [](QuantInfo& q) { q.arrayElementKind = 1; }},
    {"array", [](QuantInfo& q) { q.arrayEncodings.emplace_back(); }},
    {"array",
     [](QuantInfo& q) {
       q.arrayIndexTensor = std::make_shared<IrStaticTensor>("index", std::vector<std::uint32_t>{0});
     }},
    {"table", [](QuantInfo& q) { q.tableKind = 1; }},
    {"table", [](QuantInfo& q) { q.tableCount = 1; }},
    {"table", [](QuantInfo& q) { q.tableDims = {1}; }},
    {"table", [](QuantInfo& q) { q.tableValue0 = 1; }},
    {"table", [](QuantInfo& q) { q.tableValue1 = 1; }},
    {"table", [](QuantInfo& q) { q.tableBytes = {1}; }},
    {"table", [](QuantInfo& q) { q.tableWords = {1}; }},
};

const std::pair<std::uint32_t, const char*> kGroupOfKind[] = {
    {0, "scale"},  {1, "axis"},   {2, "scale"},          {3, "axis"},  {4, "block"},
    {5, "sbq"},    {6, "lane"},   {7, "none"},           {8, "axis"},  {9, "none"},
    {11, "block"}, {12, "table"}, {0x7FFFFFFF, "scale"}, {13, "array"}};

// A field that copying or comparing forgets, or that lies in the wrong group, shows in its own step.
TEST(QuantRecords, OnlyTheHeaderAndTheGroupInForceAreCopiedAndCompared) {
  for (const auto& [kind, group] : kGroupOfKind) {
    QuantInfo base;
    base.encoding = static_cast<QuantEncodingKind>(kind);
    for (std::size_t step = 0; step < std::size(kFieldSteps); ++step) {
      SCOPED_TRACE(concatText("kind ", kind, ", step ", step));
      const bool counts =
          kFieldSteps[step].group == std::string("header") || kFieldSteps[step].group == std::string(group);
      QuantInfo changed(base);
      kFieldSteps[step].change(changed);
      EXPECT_EQ(changed == base, !counts);

      QuantInfo assigned;
      for (const FieldStep& other : kFieldSteps) other.change(assigned);
      assigned = changed;
      for (const QuantInfo& copy : {QuantInfo(changed), assigned}) {
        EXPECT_EQ(copy == base, !counts);
        // Whatever group is put in force afterwards, nothing idle came along.
        if (counts) continue;
        for (const auto& [otherKind, otherGroup] : kGroupOfKind) {
          QuantInfo exposed(copy);
          exposed = copy;
          exposed.encoding = static_cast<QuantEncodingKind>(otherKind);
          QuantInfo fresh;
          fresh.encoding = exposed.encoding;
          EXPECT_EQ(exposed, fresh) << "group " << otherGroup;
        }
      }
    }
  }
}

TEST(QuantRecords, AnUnknownKindAboveThirteenEqualsNothing) {
  QuantInfo record;
  record.encoding = static_cast<QuantEncodingKind>(14);
  EXPECT_FALSE(record == record);
  record.encoding = static_cast<QuantEncodingKind>(10);
  EXPECT_TRUE(record == QuantInfo(record));
}

TEST(QuantRecords, AssignmentSurvivesItselfAndItsOwnElements) {
  QuantInfo record;
  record.encoding = QuantEncodingKind::ArrayEncoding;
  record.arrayEncodings.resize(2);
  record.arrayEncodings[1].encoding = QuantEncodingKind::AxisScaleOffset;
  record.arrayEncodings[1].axisEncodings.resize(3);
  record.arrayEncodings[1].axisEncodings[2].scale = 0.5f;

  const QuantInfo& same = record;
  record = same;
  ASSERT_EQ(record.arrayEncodings.size(), 2u);

  record = record.arrayEncodings[1];
  EXPECT_EQ(record.encoding, QuantEncodingKind::AxisScaleOffset);
  ASSERT_EQ(record.axisEncodings.size(), 3u);
  EXPECT_EQ(record.axisEncodings[2].scale, 0.5f);
  EXPECT_TRUE(record.arrayEncodings.empty());
}

}  // namespace
}  // namespace netforge
