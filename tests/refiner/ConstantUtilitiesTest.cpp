// Reading constants, axes and permutations, and computing new constants.
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "RefinerTestSupport.h"
#include "metadata/Transforms.h"

namespace netforge::graphrefiner::testing {
namespace {

using Dims = std::vector<std::uint32_t>;

template <class T>
StaticTensorPtr constant(DataType type, Dims dims, std::vector<T> values) {
  auto tensor = std::make_shared<IrStaticTensor>(
      "c", dims, static_cast<std::uint32_t>(values.size() * sizeof(T)), values.data(), type, AxisFormat::NHWC,
      AxisFormat::NCHW, false, TensorType::Static, Dims{});
  tensor->setUpdateable(true);
  return tensor;
}

StaticTensorPtr floats(Dims dims, std::vector<float> values) {
  return constant<float>(ORLO_DATATYPE_FLOAT_32, std::move(dims), std::move(values));
}

template <class T>
std::vector<T> values(const StaticTensorPtr& tensor) {
  const T* data = tensor->getDataAs<T>();
  return {data, data + tensor->getDataSize() / sizeof(T)};
}

std::vector<float> combine(std::uint32_t operation, Dims dimsA, std::vector<float> a, Dims dimsB,
                           std::vector<float> b, Dims dimsOut) {
  std::size_t count = 1;
  for (const auto dim : dimsOut) count *= dim;
  std::vector<float> out(count);
  broadcastBinaryFloat(operation, dimsA, dimsB, dimsOut, a.data(), b.data(), out.data());
  return out;
}

const float kNan = std::numeric_limits<float>::quiet_NaN();

TEST(Constants, GetConstValue) {
  EXPECT_EQ(getConstValue(constant<std::int32_t>(ORLO_DATATYPE_INT_32, {1}, {-7})), -7.0f);
  EXPECT_EQ(getConstValue(constant<std::uint32_t>(ORLO_DATATYPE_UINT_32, {1, 1}, {4000000000u})), 4e9f);
  EXPECT_EQ(getConstValue(constant<std::uint16_t>(ORLO_DATATYPE_FLOAT_16, {1}, {0xC000})), -2.0f);
  const struct {
    StaticTensorPtr tensor;
    const char* message;
  } cases[] = {
      {nullptr, "getConstValue: Null tensor passed to getConstValue"},
      {constant<float>(ORLO_DATATYPE_FLOAT_32, {1, 2}, {1, 2}),
       "getConstValue: Expected 1 element but found 2"},
      {constant<std::uint8_t>(ORLO_DATATYPE_UINT_8, {1}, {1}),
       "getConstValue: Found Unsupported ORLO datatype in getConstValue function."},
  };
  for (const auto& c : cases)
    EXPECT_EQ(failureOf<std::runtime_error>([&] { getConstValue(c.tensor); }), c.message);
}

TEST(Constants, TestsOverAllElements) {
  EXPECT_TRUE(allElementsEqualToValue(floats({3}, {2, 2, 2}), 2.0f));
  EXPECT_FALSE(allElementsEqualToValue(floats({3}, {2, 2, std::nextafter(2.0f, 3.0f)}), 2.0f))
      << "no tolerance";
  EXPECT_FALSE(allElementsEqualToValue(floats({1}, {kNan}), kNan));
  const auto flags = [](std::vector<std::uint8_t> values) {
    return constant<std::uint8_t>(ORLO_DATATYPE_BOOL_8, {static_cast<std::uint32_t>(values.size())}, values);
  };
  EXPECT_FALSE(allElementsEqualToValue(flags({1, 1, 1, 1, 0}), std::uint8_t(1)));
  EXPECT_FALSE(allElementsEqualToValue(flags({0, 0, 0, 0, 0}), 0.0f)) << "bytes would be read past their end";

  const auto ints = [](std::vector<std::int32_t> values) {
    return constant<std::int32_t>(ORLO_DATATYPE_INT_32, {static_cast<std::uint32_t>(values.size())}, values);
  };
  EXPECT_TRUE(anyElementNegative(ints({0, 5, -1})));
  EXPECT_FALSE(anyElementNegative(ints({0, 5, 1})));
  EXPECT_FALSE(anyElementNegative(flags({255, 255, 255, 255, 255}))) << "bytes would be read past their end";

  EXPECT_EQ(failureOf<std::runtime_error>([] { allElementsEqualToValue(nullptr, 1.0f); }),
            "allElementsEqualToValue: Null tensor passed to allElementsEqualToValue");
  EXPECT_EQ(failureOf<std::runtime_error>([&] { allElementsEqualToValue(flags({}), std::uint8_t(1)); }),
            "allElementsEqualToValue: Tensor has zero elements");
  EXPECT_EQ(failureOf<std::runtime_error>([] { anyElementNegative(nullptr); }),
            "anyElementNegative: Null tensor passed to anyElementNegative");
}

TEST(Constants, PermutationsAndAxes) {
  const auto shortOfData = constant<std::uint32_t>(ORLO_DATATYPE_UINT_32, {2, 0}, {});
  EXPECT_EQ(failureOf<std::out_of_range>([&] { getPermutation(shortOfData); }),
            "Index out of bounds for IrStaticTensor");

  auto op = std::make_shared<ops::IrOp>("norm", "LayerNorm", nullptr);
  setAxes(op, {3, 1});
  const auto axes = op->getAttributes()->getStaticTensor("axes");
  EXPECT_EQ(axes->getName(), "norm_axes");
  EXPECT_EQ(axes->getDims(), Dims{2});
  EXPECT_EQ(getAxes(op), (std::vector<std::uint32_t>{3, 1}));
  setAxes(op, {0xFFFFFFFF, 0});
  EXPECT_EQ(readAxes(op, 4), (std::vector<std::uint32_t>{3, 0}));
  op->getAttributes()->add("axis", std::int32_t(-1), ATTR_ORDINARY);
  EXPECT_EQ(readAxis(op, "axis", 4), 3u);
  op->getAttributes()->add("axis", 1.0f, ATTR_ORDINARY);
  EXPECT_THROW(readAxis(op, "axis", 4), std::runtime_error);
}

TEST(Permutations, MakersAndInverse) {
  EXPECT_EQ(getInversePermutation({2, 0, 3, 1}), (Permutation{1, 3, 0, 2}));
  EXPECT_EQ(messageOf([] {
              getInversePermutation(Permutation{0, 1, 3});
            }),
            "getInversePermutation: Invalid permutation value 3 at index 2 for permutation of size 3");
  EXPECT_EQ(permChannelLastToFirst(5), (Permutation{0, 4, 1, 2, 3}));
  EXPECT_EQ(permChannelFirstToLast(5), (Permutation{0, 2, 3, 4, 1}));
  for (const std::uint32_t rank : {0u, 1u, 2u}) EXPECT_EQ(permChannelFirstToLast(rank).size(), rank);
}

TEST(DimsTests, TailBroadcast) {
  EXPECT_TRUE(isTailBroadcastable({2, 3, 4}, {1, 4}));
  EXPECT_TRUE(isTailBroadcastable({2, 3, 4}, {}));
  EXPECT_FALSE(isTailBroadcastable({2, 3, 4}, {2, 3}));
  EXPECT_FALSE(isTailBroadcastable({3, 4}, {1, 3, 4}));
  EXPECT_FALSE(isTailBroadcastable({1, 4}, {3, 4}));
}

TEST(HalfFloat, InvertsTheConversionFromSingle) {
  for (std::uint32_t bits = 0; bits <= 0xFFFF; ++bits) {
    const auto half = static_cast<std::uint16_t>(bits);
    const float value = halfToFloat(half);
    if ((bits & 0x7FFF) > 0x7C00) {
      EXPECT_TRUE(std::isnan(value)) << bits;
    } else {
      EXPECT_EQ(floatToHalf(value), half) << bits;
    }
  }
  EXPECT_EQ(halfToFloat(0x0001), std::ldexp(1.0f, -24));
  EXPECT_EQ(halfToFloat(0x3555), 1365.0f / 4096.0f);
  EXPECT_EQ(halfToFloat(0xFC00), -std::numeric_limits<float>::infinity());
}

TEST(BroadcastBinaryFloat, OperationsAndBroadcasting) {
  using V = std::vector<float>;
  EXPECT_EQ(combine(2, {2}, {6, 8}, {2}, {2, 4}, {2}), (V{3, 2}));
  EXPECT_EQ(combine(13, {2}, {6, 8}, {2}, {2, 3}, {2}), (V{12, 24}));
  EXPECT_EQ(combine(16, {2}, {6, 8}, {2}, {2, 1}, {2}), (V{36, 8}));
  EXPECT_EQ(combine(18, {2, 1, 2}, {10, 20, 30, 40}, {3, 1}, {1, 2, 3}, {2, 3, 2}),
            (V{9, 19, 8, 18, 7, 17, 29, 39, 28, 38, 27, 37}));
  EXPECT_EQ(combine(0, {1}, {5}, {2, 2}, {1, 2, 3, 4}, {2, 2}), (V{6, 7, 8, 9}));
  EXPECT_EQ(combine(0, {2}, {1, 2}, {1}, {5}, {1, 1, 2}), (V{6, 7})) << "missing leading axes count as 1";

  const struct {
    std::uint32_t operation;
    Dims a, b, out;
    const char* message;
  } failures[] = {
      {0, {2}, {3}, {3}, "Error in the input dimensions"},
      {0, {2}, {2}, {1}, "Error in the output dimensions"},
      {0, {1}, {2, 1}, {1}, "Error in the output dimensions"},
      {1, {2}, {2}, {2}, "Unsupported ORLO ElementWise operation"},
  };
  const std::vector<float> enough(8, 1.0f);
  for (const auto& f : failures) {
    EXPECT_EQ(failureOf<std::runtime_error>([&] { combine(f.operation, f.a, enough, f.b, enough, f.out); }),
              f.message);
  }
}

TEST(StaticTensorArithmetic, TakesEverythingButTheDataFromTheFirst) {
  const auto a = floats({2, 3}, {1, 2, 3, 4, 5, 6});
  const auto sum = addStaticTensors(a, floats({3}, {10, 20, 30}), "");
  EXPECT_EQ(sum->getName(), "c_tensorOut_0");
  EXPECT_EQ(values<float>(sum), (std::vector<float>{11, 22, 33, 14, 25, 36}));
  EXPECT_EQ(sum->getAxisFormat(), AxisFormat::NHWC);
  EXPECT_EQ(sum->getSrcAxisFormat(), AxisFormat::NCHW);
  EXPECT_TRUE(sum->isUpdateable());
  const auto scaled = multiplyStaticTensors(a, floats({2, 1}, {2, 10}), "scaled");
  EXPECT_EQ(scaled->getName(), "scaled");
  EXPECT_EQ(values<float>(scaled), (std::vector<float>{2, 4, 6, 40, 50, 60}));
  EXPECT_THROW(multiplyStaticTensors(floats({1}, {1}), a, ""), std::runtime_error) << "the first never grows";
  EXPECT_THROW(addStaticTensors(a, constant<std::uint16_t>(ORLO_DATATYPE_FLOAT_16, {3}, {1, 2, 3}), ""),
               std::runtime_error)
      << "halves would be read past their end";
}

TEST(ReshapeStaticTensor, KeepsTheBytesAndRecordsTheStepForSourceAndResult) {
  const auto source = constant<std::int16_t>(ORLO_DATATYPE_INT_16, {2, 3}, {1, 2, 3, 4, 5, 6});
  const auto result = reshapeStaticTensor(source, {3, 2, 1}, "");
  EXPECT_EQ(result->getName(), "c_tensorOut_0");
  EXPECT_EQ(result->getDims(), (Dims{3, 2, 1}));
  EXPECT_EQ(result->getDataType(), ORLO_DATATYPE_INT_16);
  EXPECT_EQ(values<std::int16_t>(result), values<std::int16_t>(source));
  const auto again = transposeStaticTensor(result, {2, 0, 1}, "named");
  EXPECT_EQ(again->getName(), "named");
  const auto steps = source->getTransformManager()->getTransforms();
  ASSERT_EQ(steps.size(), 2u);
  EXPECT_EQ(std::dynamic_pointer_cast<ReshapeTransform>(steps[0])->shape, (Dims{3, 2, 1}));
  EXPECT_EQ(std::dynamic_pointer_cast<TransposeTransform>(steps[1])->perm, (Dims{2, 0, 1}));
  EXPECT_EQ(again->getTransformManager(), source->getTransformManager());
  source->getData()[0] = 77;
  EXPECT_EQ(values<std::int16_t>(result)[0], 1) << "the bytes are copied";
}

TEST(ReshapeStaticTensor, KeepsTheEncoding) {
  QuantInfo record;
  record.encoding = QuantEncodingKind::ScaleOffset;
  record.scaleOffset.scale = 0.25f;
  const std::uint8_t data[] = {1, 2, 3, 4};
  const auto source = std::make_shared<IrStaticTensor>(
      "q", Dims{2, 2}, 4u, data, ORLO_DATATYPE_UFIXED_POINT_8, ORLO_DATATYPE_FLOAT_32, true, record,
      AxisFormat::ANY, AxisFormat::ANY, false, TensorType::Static, false, Dims{1, 0}, nullptr);
  for (const auto& result :
       {reshapeStaticTensor(source, {4}, "r"), transposeStaticTensor(source, {1, 0}, "t")}) {
    EXPECT_EQ(result->getQuantInfo(), record);
    EXPECT_TRUE(result->isQuantizable());
    EXPECT_EQ(result->getSrcDataType(), ORLO_DATATYPE_FLOAT_32);
    EXPECT_TRUE(result->getExplicitPermuteOrder().empty()) << "the order of the old dims means nothing here";
  }
}

// Element i holds i; checked against the definition, index by index.
template <class T>
void expectTransposed(DataType type) {
  std::vector<T> data(24);
  std::iota(data.begin(), data.end(), T(0));
  const auto result = transposeStaticTensor(constant<T>(type, {2, 3, 4}, data), {2, 0, 1}, "");
  EXPECT_EQ(result->getDims(), (Dims{4, 2, 3}));
  const auto moved = values<T>(result);
  for (std::size_t i = 0; i < 24; ++i) EXPECT_EQ(moved[i], data[(i / 3 % 2 * 3 + i % 3) * 4 + i / 6]);
}

TEST(TransposeStaticTensor, EveryWidth) {
  expectTransposed<std::uint8_t>(ORLO_DATATYPE_BOOL_8);
  expectTransposed<std::uint16_t>(ORLO_DATATYPE_BFLOAT_16);
  expectTransposed<std::uint32_t>(ORLO_DATATYPE_INT_32);
  expectTransposed<float>(ORLO_DATATYPE_FLOAT_32);
  EXPECT_TRUE(isTransposableType(ORLO_DATATYPE_UFIXED_POINT_8));

  const auto wide = constant<std::uint64_t>(ORLO_DATATYPE_INT_64, {2, 1}, {1, 2});
  EXPECT_EQ(failureOf<std::runtime_error>([&] {
              transposeStaticTensor(wide, {1, 0}, "");
            }),
            "dispatchTransposeTensorRefImpl: Unsupported data type");
  EXPECT_EQ(wide->getTransformManager(), nullptr) << "a step that failed is not recorded";
  EXPECT_FALSE(isTransposableType(ORLO_DATATYPE_INT_64));
}

TEST(TransposeStaticTensor, EdgesOfDimsAndOrders) {
  EXPECT_EQ(transposeStaticTensor(floats({0, 3}, {}), {1, 0}, "")->getDims(), (Dims{3, 0}));
  EXPECT_EQ(values<float>(transposeStaticTensor(floats({1, 3, 1}, {1, 2, 3}), {2, 1, 0}, "")),
            (std::vector<float>{1, 2, 3}));
  for (const Permutation& perm : {Permutation{0}, Permutation{0, 2}, Permutation{0, 1, 1}}) {
    EXPECT_THROW(transposeStaticTensor(floats({1, 2}, {1, 2}), perm, ""), std::runtime_error);
  }
  EXPECT_THROW(transposeStaticTensor(floats({2, 2}, {1, 2, 3}), {1, 0}, ""), std::runtime_error)
      << "fewer bytes than the dims ask for";
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
