// Computing new constants.
#include <cstring>
#include <numeric>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "RefinerTestSupport.h"
#include "metadata/Transforms.h"

namespace netforge::graphrefiner::testing {
namespace {

using Dims = std::vector<std::uint32_t>;

template <class T>
StaticTensorPtr constant(DataType type, Dims dims, std::vector<T> values,
                         TensorType tensorType = TensorType::Static) {
  auto tensor = std::make_shared<IrStaticTensor>(
      "c", dims, static_cast<std::uint32_t>(values.size() * sizeof(T)), values.data(), type, AxisFormat::NHWC,
      AxisFormat::NCHW, false, tensorType, Dims{});
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

TEST(BroadcastBinaryFloat, OperationsAndBroadcasting) {
  using V = std::vector<float>;
  EXPECT_EQ(combine(0, {2}, {6, 8}, {2}, {2, 3}, {2}), (V{8, 11}));
  EXPECT_EQ(combine(2, {2}, {6, 8}, {2}, {2, 4}, {2}), (V{3, 2}));
  EXPECT_EQ(combine(13, {2}, {6, 8}, {2}, {2, 3}, {2}), (V{12, 24}));
  EXPECT_EQ(combine(16, {2}, {6, 8}, {2}, {2, 1}, {2}), (V{36, 8}));
  EXPECT_EQ(combine(18, {2}, {6, 8}, {2}, {2, 3}, {2}), (V{4, 5}));
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
  EXPECT_EQ(values<float>(a), (std::vector<float>{1, 2, 3, 4, 5, 6}));
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
  const Dims dims = {2, 3, 4};
  std::vector<T> data(24);
  std::iota(data.begin(), data.end(), T(0));
  const auto result = transposeStaticTensor(constant<T>(type, dims, data), {2, 0, 1}, "");
  EXPECT_EQ(result->getDims(), (Dims{4, 2, 3}));
  const auto moved = values<T>(result);
  for (std::size_t i = 0; i < 4; ++i) {
    for (std::size_t j = 0; j < 2; ++j) {
      for (std::size_t k = 0; k < 3; ++k) EXPECT_EQ(moved[(i * 2 + j) * 3 + k], data[(j * 3 + k) * 4 + i]);
    }
  }
}

TEST(TransposeStaticTensor, EveryWidth) {
  for (const DataType type : {ORLO_DATATYPE_INT_8, ORLO_DATATYPE_UINT_8, ORLO_DATATYPE_SFIXED_POINT_8,
                              ORLO_DATATYPE_UFIXED_POINT_8, ORLO_DATATYPE_BOOL_8}) {
    if (!isQuantizedType(type)) expectTransposed<std::uint8_t>(type);
    EXPECT_TRUE(isTransposableType(type));
  }
  for (const DataType type :
       {ORLO_DATATYPE_INT_16, ORLO_DATATYPE_UINT_16, ORLO_DATATYPE_FLOAT_16, ORLO_DATATYPE_BFLOAT_16}) {
    expectTransposed<std::uint16_t>(type);
  }
  for (const DataType type : {ORLO_DATATYPE_INT_32, ORLO_DATATYPE_UINT_32})
    expectTransposed<std::uint32_t>(type);
  expectTransposed<float>(ORLO_DATATYPE_FLOAT_32);

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
