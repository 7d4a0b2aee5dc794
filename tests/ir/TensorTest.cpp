#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <thread>

#include "ir/IrOp.h"
#include "ir/IrTensor.h"
#include "tests/support/Failures.h"

namespace netforge {
namespace {

using testing::failureOf;
using Dims = std::vector<std::uint32_t>;

// 100,000 ops are a normal day, each with at least one tensor: a fat member must not creep in.
static_assert(sizeof(IrTensor) <= 352 && sizeof(IrStaticTensor) <= 400 && sizeof(ops::IrOp) <= 224);

IrTensor makeTensor(DataType type, const Dims& dims = {2, 3}) {
  return IrTensor("t", dims, type, AxisFormat::NHWC, AxisFormat::NCHW, TensorType::Native, {});
}

QuantInfo scaleRecord(float scale) {
  QuantInfo record;
  record.encoding = QuantEncodingKind::ScaleOffset;
  record.scaleOffset.scale = scale;
  return record;
}

TEST(Tensor, EveryIdIsDrawnOnce) {
  std::vector<std::vector<std::uint32_t>> drawn(4);
  std::vector<std::thread> threads;
  for (auto& ids : drawn) {
    threads.emplace_back([&ids] {
      IrTensor tensor("t", {1}, ORLO_DATATYPE_FLOAT_32, AxisFormat::ANY, TensorType::Native, {});
      for (int i = 0; i < 500; ++i) {
        ids.push_back(tensor.getId());
        tensor.setName("t");  // the same name: a fresh id all the same
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::set<std::uint32_t> distinct;
  for (const auto& ids : drawn) distinct.insert(ids.begin(), ids.end());
  EXPECT_EQ(distinct.size(), 2000u);
}

TEST(Tensor, ShortFormsDeriveWhatTheyAreNotGiven) {
  const IrTensor weights("w", {2}, ORLO_DATATYPE_FLOAT_16, AxisFormat::NF, TensorType::GraphOutput, {1, 0});
  EXPECT_EQ(weights.getSrcDataType(), ORLO_DATATYPE_FLOAT_16);
  EXPECT_EQ(weights.getSrcAxisFormat(), AxisFormat::NOT_YET_DEFINED);
  EXPECT_TRUE(weights.isQuantizable());
  EXPECT_TRUE(weights.isGraphOutput());
  EXPECT_FALSE(weights.isUpdateable());
  EXPECT_EQ(weights.getPermuteOrder(), (Dims{1, 0}));

  const auto producer = std::make_shared<ops::IrOp>("p", "Relu", nullptr);
  const IrTensor output("o", IrTensorShape({4, 5}, {1}), producer, ORLO_DATATYPE_INT_32, AxisFormat::NF,
                        AxisFormat::NC, TensorType::Native);
  EXPECT_EQ(output.getShape(), IrTensorShape({4, 5}, {1}));
  EXPECT_EQ(output.getProducer(), producer);
  EXPECT_EQ(output.getSrcAxisFormat(), AxisFormat::NC);
  EXPECT_FALSE(output.isQuantizable());
}

TEST(Tensor, FullFormTakesDefinedRecordsThroughTheCheckAndKeepsOthers) {
  const auto build = [](DataType type, bool quantizable, const QuantInfo& record) {
    return IrTensor("t", {2}, type, ORLO_DATATYPE_FLOAT_32, quantizable, record, AxisFormat::NF,
                    AxisFormat::NF, TensorType::Native, true, {});
  };
  EXPECT_TRUE(build(ORLO_DATATYPE_UFIXED_POINT_8, true, scaleRecord(0.5f)).isQuantized());
  EXPECT_THROW(build(ORLO_DATATYPE_UFIXED_POINT_8, false, scaleRecord(0.5f)), std::invalid_argument);

  // A float tensor with the user's range has an undefined encoding; its clone must keep the record.
  QuantInfo overridden;
  overridden.isOverridden = true;
  overridden.scaleOffset.maximum = 6.0f;
  const IrTensor clone = build(ORLO_DATATYPE_FLOAT_32, false, overridden);
  EXPECT_EQ(clone.getQuantInfo(), overridden);
  EXPECT_TRUE(clone.isUpdateable());
}

TEST(Tensor, SetQInfoRefusesAndChangesNothing) {
  struct Row {
    DataType tensorType;
    bool quantizable;
    DataType given;
    bool defined;
    const char* text;
  };
  const Row rows[] = {
      {ORLO_DATATYPE_FLOAT_32, true, ORLO_DATATYPE_UFIXED_POINT_8, false,
       "Must set valid quantization info for tensor t with quantized data type 1032, but got undefined "
       "quantization encoding."},
      {ORLO_DATATYPE_FLOAT_32, true, ORLO_DATATYPE_FLOAT_16, false,
       "Can't set quantization data with data type: 534 for: t with quantizable flag 1"},
      {ORLO_DATATYPE_FLOAT_32, false, ORLO_DATATYPE_UFIXED_POINT_8, true,
       "Can't set quantization data with data type: 1032 for: t with quantizable flag 0"},
      {ORLO_DATATYPE_INT_32, false, ORLO_DATATYPE_UFIXED_POINT_8, false,
       "Can't set quantization data with data type: 1032 for: t with quantizable flag 0"},
  };
  for (const Row& row : rows) {
    IrTensor tensor = makeTensor(row.tensorType);
    if (!row.quantizable) tensor.setQuantizable(false);
    const QuantInfo record = row.defined ? scaleRecord(0.5f) : QuantInfo();
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { tensor.setQInfo(row.given, record); }),
              std::string("netforge::IrTensor::setQInfo: ") + row.text);
    EXPECT_EQ(tensor.getDataType(), row.tensorType);
    EXPECT_EQ(tensor.getQuantInfo(), QuantInfo());
  }
}

TEST(Tensor, QuantisationCanBeSetFromTheTensorsOwnRecordAndTakenAway) {
  IrTensor tensor = makeTensor(ORLO_DATATYPE_FLOAT_32);
  tensor.setQInfo(ORLO_DATATYPE_SFIXED_POINT_2, scaleRecord(0.5f));
  EXPECT_FALSE(tensor.isQuantized()) << "width 2 is no quantised type";
  tensor.setQInfo(ORLO_DATATYPE_SFIXED_POINT_8, tensor.getQuantInfo());
  EXPECT_TRUE(tensor.isQuantized());
  EXPECT_EQ(tensor.getQuantInfo(), scaleRecord(0.5f));

  tensor.setQuantizable(false);
  EXPECT_EQ(tensor.getQuantInfo().encoding, QuantEncodingKind::Undefined);
  EXPECT_FALSE(tensor.isQuantized());
  EXPECT_EQ(
      failureOf<std::invalid_argument>([&] { tensor.setQuantizable(true); }),
      "netforge::IrTensor::setQuantizable: Tensor: t must be of type float to be quantizable, but it's: "
      "ORLO_DATATYPE_SFIXED_POINT_8");
}

TEST(Tensor, SetFloatQInfoKeepsTheRangeAndDropsTheEncoding) {
  IrTensor tensor = makeTensor(ORLO_DATATYPE_FLOAT_32);
  tensor.setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, scaleRecord(0.5f));
  tensor.setFloatQInfo(ORLO_DATATYPE_FLOAT_16, tensor.getQuantInfo());
  EXPECT_EQ(tensor.getDataType(), ORLO_DATATYPE_FLOAT_16);
  EXPECT_FALSE(tensor.isQuantizable());
  EXPECT_EQ(tensor.getQuantInfo().encoding, QuantEncodingKind::Undefined);
  EXPECT_EQ(tensor.getQuantInfo().scaleOffset.scale, 0.5f);
  EXPECT_FALSE(tensor.getQuantInfo().scaleOffset.isFixedPoint);
  EXPECT_TRUE(tensor.getQuantInfo().isOverridden);

  IrTensor other = makeTensor(ORLO_DATATYPE_FLOAT_32);
  other.setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, scaleRecord(0.5f));
  EXPECT_EQ(
      failureOf<std::invalid_argument>([&] { other.setFloatQInfo(ORLO_DATATYPE_INT_8, QuantInfo()); }),
      "netforge::IrTensor::setFloatQInfo: Datatype provided to setFloatQInfo should be float but got 8");
  EXPECT_FALSE(other.isQuantizable()) << "the flag goes first";
  EXPECT_FALSE(other.isQuantized());
}

TEST(Tensor, RuntimeTypes) {
  struct Row {
    std::uint32_t type;
    std::uint32_t plain;
    std::uint32_t updateable;
  };
  constexpr std::uint32_t kNone = 0x7FFFFFFF;
  const Row rows[] = {
      {0, 0, 8},         {1, 1, 9},         {2, 2, 10},      {3, 3, 7},       {4, 4, 6},
      {5, 5, kNone},     {11, 11, kNone},   {12, 12, kNone}, {13, 13, kNone}, {0x70000000, 4, kNone},
      {6, kNone, kNone}, {14, kNone, kNone}};
  IrTensor tensor = makeTensor(ORLO_DATATYPE_FLOAT_32);
  for (const Row& row : rows) {
    tensor.setTensorType(static_cast<TensorType>(row.type));
    tensor.setUpdateable(false);
    EXPECT_EQ(tensor.getRuntimeTensorType(), row.plain) << row.type;
    EXPECT_EQ(tensor.isOptional(), row.type >= 11 && row.type <= 13) << row.type;
    tensor.setUpdateable(true);
    EXPECT_EQ(tensor.getRuntimeTensorType(), row.updateable) << row.type;
  }
}

TEST(Tensor, ElementsMultiplyInThirtyTwoBits) {
  EXPECT_EQ(makeTensor(ORLO_DATATYPE_FLOAT_32, {2, 3, 5}).elements(), 30u);
  EXPECT_EQ(makeTensor(ORLO_DATATYPE_FLOAT_32, {65536, 65537}).elements(), 65536u);
  EXPECT_EQ(makeTensor(ORLO_DATATYPE_FLOAT_32, {}).elements(), 0u);
  IrTensor tensor = makeTensor(ORLO_DATATYPE_FLOAT_32);
  tensor.setShape(IrTensorShape({2, 3}, {0}));
  EXPECT_EQ(
      failureOf<std::invalid_argument>([&] { tensor.elements(); }),
      "netforge::IrTensor::elements: Cannot get number of elements for tensor named t with dynamic shape "
      "IrTensorShape(dims = [2,3] , dy_axes=[0])");
}

TEST(Tensor, ConsumersStandOnceAndAbsentOnesAreReported) {
  IrTensor tensor = makeTensor(ORLO_DATATYPE_FLOAT_32);
  const auto op = std::make_shared<ops::IrOp>("reader", "Eltwise_Binary", nullptr);
  tensor.addConsumer(op);
  tensor.addConsumer(op);
  tensor.removeConsumer(*tensor.getConsumers().begin());  // a reference into the very set
  EXPECT_TRUE(tensor.getConsumers().empty());
  EXPECT_EQ(failureOf<std::invalid_argument>([&] { tensor.removeConsumer(op); }),
            "netforge::IrTensor::removeConsumer: Op reader is not a consumer of tensor t");
}

TEST(Tensor, PermuteOrderLeadsToTheSourceLayout) {
  using F = AxisFormat;
  struct Row {
    F present;
    F source;
    std::uint32_t rank;
    Dims order;
  };
  const Row rows[] = {
      {F::NHWC, F::NCHW, 4, {0, 3, 1, 2}},
      {F::NCHW, F::NHWC, 4, {0, 2, 3, 1}},
      {F::NDHWC, F::NCDHW, 5, {0, 4, 1, 2, 3}},
      {F::NTF, F::TNF, 3, {1, 0, 2}},
      {F::HWIO, F::OIHW, 4, {3, 2, 0, 1}},
      {F::NHWC, F::NHWC, 4, {0, 1, 2, 3}},
      {F::NONTRIVIAL, F::NCHW, 3, {0, 1, 2}},
      {F::NONTRIVIAL, F::ANY, 2, {0, 1}},
      {F::NHWC, F::NCF, 4, {0, 3, 1, 2}},
      {F::NCHW, F::NCF, 4, {0, 1, 2, 3}},
      {F::NHWC, F::NCDHW, 4, {0, 3, 1, 2}},
      {F::NCHW, F::NCDHW, 4, {0, 1, 2, 3}},
      {F::NHWC, F::NF, 4, {}},
      {F::NHWC, F::ANY, 4, {}},
      {F::NHWC, F::NONTRIVIAL, 4, {}},
      {F::ANY, F::NHWC, 4, {}},
      {F::NF, F::NC, 2, {}},
      {F::NHWC, F::NCHW, 5, {}},  // an axis that no letter names
      {F::NOT_YET_DEFINED, F::NHWC, 4, {}},
      {F::NOT_YET_DEFINED, F::NOT_YET_DEFINED, 4, {}},
      {F::NONTRIVIAL, F::NOT_YET_DEFINED, 4, {}},
  };
  for (const Row& row : rows) {
    IrTensor tensor("t", Dims(row.rank, 2), ORLO_DATATYPE_FLOAT_32, row.present, row.source,
                    TensorType::Native, {});
    EXPECT_EQ(tensor.getPermuteOrder(), row.order)
        << axisFormatToString(row.present) << " from " << axisFormatToString(row.source);
    tensor.setExplicitPermuteOrder({1, 0});
    EXPECT_EQ(tensor.getPermuteOrder(), (Dims{1, 0}));
  }
}

TEST(Tensor, EqualityLooksAtTheValueNotAtTheRole) {
  const auto sparse = [](std::uint32_t layout, std::uint32_t specified) {
    SparseParams params;
    params.layout = layout;
    params.numSpecifiedElements = specified;
    return params;
  };
  struct Row {
    const char* what;
    bool equal;
    std::function<void(IrTensor&)> change;
  };
  const Row rows[] = {
      {"name", false, [](IrTensor& t) { t.setName("u"); }},
      {"type", false, [](IrTensor& t) { t.setDataType(ORLO_DATATYPE_FLOAT_16); }},
      {"source type", false, [](IrTensor& t) { t.setSrcDataType(ORLO_DATATYPE_FLOAT_16); }},
      {"dims", false,
       [](IrTensor& t) {
         t.setShape(IrTensorShape({3, 2}));
       }},
      {"dynamic axes", false,
       [](IrTensor& t) {
         t.setShape(IrTensorShape({2, 3}, {1}));
       }},
      {"quantizable", false, [](IrTensor& t) { t.setQuantizable(false); }},
      {"updateable", false, [](IrTensor& t) { t.setUpdateable(true); }},
      {"record", false, [](IrTensor& t) { t.setQInfo(ORLO_DATATYPE_FLOAT_32, scaleRecord(0.5f)); }},
      {"sparse layout", false, [&](IrTensor& t) { t.setSparseParams(sparse(0, 1)); }},
      {"counts of no layout in use", true, [&](IrTensor& t) { t.setSparseParams(sparse(0x7FFFFFFF, 5)); }},
      {"layout", true, [](IrTensor& t) { t.setAxisFormat(AxisFormat::NF); }},
      {"source layout", true, [](IrTensor& t) { t.setSrcAxisFormat(AxisFormat::NF); }},
      {"tensor type", true, [](IrTensor& t) { t.setTensorType(TensorType::GraphOutput); }},
      {"producer", true,
       [](IrTensor& t) { t.setProducer(std::make_shared<ops::IrOp>("p", "Relu", nullptr)); }},
  };
  const IrTensor reference = makeTensor(ORLO_DATATYPE_FLOAT_32);
  for (const Row& row : rows) {
    IrTensor changed = makeTensor(ORLO_DATATYPE_FLOAT_32);
    row.change(changed);
    EXPECT_EQ(changed == reference, row.equal) << row.what;
  }
  IrTensor one = makeTensor(ORLO_DATATYPE_FLOAT_32);
  IrTensor two = makeTensor(ORLO_DATATYPE_FLOAT_32);
  one.setSparseParams(sparse(0, 4));
  two.setSparseParams(sparse(0, 5));
  EXPECT_NE(one, two) << "for layout 0 the counts matter";
}

}  // namespace
}  // namespace netforge
