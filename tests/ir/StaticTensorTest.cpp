#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "ir/IrTensor.h"
#include "metadata/Transforms.h"
#include "tests/support/Failures.h"

namespace netforge {
namespace {

using testing::failureOf;
using Bytes = std::vector<std::uint8_t>;
using Dims = std::vector<std::uint32_t>;

IrStaticTensor makeBytes(const Bytes& bytes, bool borrowed) {
  return IrStaticTensor("t", {static_cast<std::uint32_t>(bytes.size())},
                        static_cast<std::uint32_t>(bytes.size()), bytes.data(), ORLO_DATATYPE_UINT_8,
                        AxisFormat::ANY, AxisFormat::ANY, borrowed, TensorType::Static, {});
}

Bytes bytesOf(IrStaticTensor& tensor) {
  return Bytes(tensor.getData(), tensor.getData() + tensor.getDataSize());
}

TEST(StaticTensor, OwnsACopyOrBorrowsTheBuffer) {
  Bytes source{1, 2, 3};
  IrStaticTensor owner = makeBytes(source, false);
  IrStaticTensor borrower = makeBytes(source, true);
  EXPECT_EQ(borrower.getData(), source.data());
  source[0] = 9;
  EXPECT_EQ(bytesOf(owner), (Bytes{1, 2, 3}));
  EXPECT_EQ(bytesOf(borrower), (Bytes{9, 2, 3}));
}

TEST(StaticTensor, NullDataWithASizeAllocatesNothing) {
  for (const bool borrowed : {false, true}) {
    IrStaticTensor tensor("t", {4}, 16, nullptr, ORLO_DATATYPE_INT_32, AxisFormat::ANY, AxisFormat::ANY,
                          borrowed, TensorType::Static, {});
    EXPECT_EQ(tensor.getData(), nullptr);
    EXPECT_THROW(tensor.getElement(0), std::out_of_range);
  }
}

TEST(StaticTensor, DataWithoutDimsIsRefused) {
  const std::uint32_t word = 7;
  EXPECT_EQ(
      failureOf<std::invalid_argument>([&] {
        IrStaticTensor("t", Dims{}, 4, &word, ORLO_DATATYPE_UINT_32, AxisFormat::ANY, AxisFormat::ANY, false,
                       TensorType::Static, {});
      }),
      "netforge::IrStaticTensor::IrStaticTensor: IrStaticTensor (t) has empty dims but non-null data with "
      "dataSize=4. Must specify correct dims!");
  EXPECT_NO_THROW(IrStaticTensor("t", Dims{}, 0, &word, ORLO_DATATYPE_UINT_32, AxisFormat::ANY,
                                 AxisFormat::ANY, false, TensorType::Static, {}));
}

TEST(StaticTensor, SmallConstantsReadBackByElement) {
  const IrStaticTensor tensor("axes", {7, 4294967295u});
  EXPECT_EQ(tensor.getDims(), (Dims{2}));
  EXPECT_EQ(tensor.getDataSize(), 8u);
  EXPECT_EQ(tensor.getTensorType(), TensorType::Static);
  EXPECT_EQ(tensor.getSrcAxisFormat(), AxisFormat::NOT_YET_DEFINED);
  EXPECT_FALSE(tensor.isQuantizable());
  EXPECT_EQ(tensor.getElement(1), 4294967295u);
  EXPECT_EQ(failureOf<std::out_of_range>([&] { tensor.getElement(2); }),
            "Index out of bounds for IrStaticTensor");
}

// Fewer bytes than the dims promise: an index that the dims allow still never reads past the buffer.
TEST(StaticTensor, ElementsEndWithTheBytes) {
  const IrStaticTensor tensor = makeBytes({1, 0, 0, 0, 2}, false);
  EXPECT_EQ(tensor.getElement(0), 1u);
  EXPECT_THROW(tensor.getElement(1), std::out_of_range);
}

TEST(StaticTensor, UpdateDataLeavesABorrowedBufferAlone) {
  Bytes source{1, 2, 3};
  IrStaticTensor tensor = makeBytes(source, true);
  tensor.updateData(Bytes{4, 5, 6}.data(), 3, false);
  EXPECT_EQ(source, (Bytes{1, 2, 3}));
  EXPECT_FALSE(tensor.isDataBorrowed());
  EXPECT_EQ(bytesOf(tensor), (Bytes{4, 5, 6}));

  const std::uint8_t* before = tensor.getData();
  tensor.updateData(Bytes{7, 8, 9}.data(), 3, false);
  EXPECT_EQ(tensor.getData(), before) << "an own buffer is reused";
  EXPECT_EQ(bytesOf(tensor), (Bytes{7, 8, 9}));
}

TEST(StaticTensor, UpdateDataTakesABuffer) {
  for (const bool borrowed : {false, true}) {
    const Bytes source{1, 2, 3};
    IrStaticTensor tensor = makeBytes(source, borrowed);
    auto* buffer = new std::uint8_t[3]{4, 5, 6};
    tensor.updateData(buffer, 3, true);
    EXPECT_EQ(tensor.getData(), buffer);
    EXPECT_FALSE(tensor.isDataBorrowed());
    // Its own buffer, in either form: neither freed nor lost.
    tensor.updateData(tensor.getData(), 3, true);
    tensor.updateData(tensor.getData(), 3, false);
    EXPECT_EQ(bytesOf(tensor), (Bytes{4, 5, 6}));
    EXPECT_EQ(source, (Bytes{1, 2, 3}));
  }
}

TEST(StaticTensor, UpdateDataRefusesAnotherSizeAndChangesNothing) {
  const Bytes source{1, 2, 3};
  IrStaticTensor tensor = makeBytes(source, true);
  for (const bool takeOwnership : {false, true}) {
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { tensor.updateData(Bytes(4).data(), 4, takeOwnership); }),
              "netforge::IrStaticTensor::updateData: Data sizes do not match; existing data size: 3 provided "
              "data size: 4");
    EXPECT_THROW(tensor.updateData(nullptr, 3, takeOwnership), std::invalid_argument);
  }
  EXPECT_EQ(tensor.getData(), source.data());
  EXPECT_TRUE(tensor.isDataBorrowed());
}

class ExternalDataTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    path = (std::filesystem::temp_directory_path() / (std::string("netforge_") + info->name() + ".bin"))
               .string();
  }
  void TearDown() override { std::filesystem::remove(path); }

  template <class T>
  void write(const std::vector<T>& values) const {
    std::ofstream file(path, std::ios::binary);
    file << "head";  // the range starts behind it
    file.write(reinterpret_cast<const char*>(values.data()),
               static_cast<std::streamsize>(values.size() * sizeof(T)));
  }
  ExternalDataRef range(std::uint64_t length) const {
    ExternalDataRef ref;
    ref.path = path;
    ref.offset = 4;
    ref.length = length;
    return ref;
  }
  static IrStaticTensor makeTensor(DataType type, std::uint32_t elements, std::uint32_t width) {
    return IrStaticTensor("t", {elements}, elements * width, nullptr, type, AxisFormat::ANY, AxisFormat::ANY,
                          true, TensorType::Static, {});
  }

  std::string path;
};

TEST_F(ExternalDataTest, OnlyGetDataReadsTheFile) {
  write<std::int32_t>({5, -6, 7});
  IrStaticTensor tensor = makeTensor(ORLO_DATATYPE_INT_32, 3, 4);
  tensor.setExternalData(range(12));
  EXPECT_THROW(tensor.getElement(0), std::out_of_range);
  EXPECT_FALSE(tensor.isDataLoaded());
  ASSERT_EQ(tensor.getDataAs<std::int32_t>()[1], -6);
  EXPECT_TRUE(tensor.isDataLoaded());
  EXPECT_FALSE(tensor.isDataBorrowed()) << "else the loaded buffer leaks";
  std::filesystem::remove(path);
  EXPECT_EQ(tensor.getElement(2), 7u) << "read once, never again";
}

TEST_F(ExternalDataTest, FloatsBecomeHalvesForAHalfTensor) {
  write<float>({1.0f, 65520.0f, -2.0f});
  IrStaticTensor tensor = makeTensor(ORLO_DATATYPE_FLOAT_16, 3, 2);
  tensor.setExternalData(range(12));
  const auto* halves = tensor.getDataAs<std::uint16_t>();
  EXPECT_EQ(std::vector<std::uint16_t>(halves, halves + 3),
            (std::vector<std::uint16_t>{0x3C00, 0x7C00, 0xC000}));
}

TEST_F(ExternalDataTest, AFailedReadLeavesTheTensorReadyForTheNextTry) {
  IrStaticTensor tensor = makeTensor(ORLO_DATATYPE_INT_32, 3, 4);
  tensor.setExternalData(range(12));
  const auto getData = [&] { tensor.getData(); };
  EXPECT_EQ(failureOf<std::runtime_error>(getData),
            "netforge::IrStaticTensor::getData: Failed to open the file: " + path);
  write<std::int32_t>({5, 6});  // too short
  EXPECT_EQ(failureOf<std::runtime_error>(getData),
            "netforge::IrStaticTensor::getData: Failed to read the file.");
  EXPECT_FALSE(tensor.isDataLoaded());
  EXPECT_THROW(tensor.getElement(0), std::out_of_range);
  write<std::int32_t>({5, 6, 7});
  EXPECT_EQ(tensor.getDataAs<std::int32_t>()[2], 7);

  ExternalDataRef ref = range(12);
  ref.offset = ~std::uint64_t{0};
  tensor.setExternalData(ref);
  EXPECT_EQ(failureOf<std::runtime_error>(getData),
            "netforge::IrStaticTensor::getData: Failed to seek to offset in the file.");

  ref = range(std::uint64_t{1} << 62);  // a damaged length
  tensor.setExternalData(ref);
  EXPECT_EQ(failureOf<std::runtime_error>(getData),
            "netforge::IrStaticTensor::getData: Failed to read the file.")
      << "and not an exhausted memory";
}

TEST_F(ExternalDataTest, ARangeShorterThanTheTensorLeavesZeros) {
  write<std::int32_t>({5});
  IrStaticTensor tensor = makeTensor(ORLO_DATATYPE_INT_32, 3, 4);
  tensor.setExternalData(range(4));
  EXPECT_EQ(bytesOf(tensor), (Bytes{5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(ExternalDataTest, AnUpdateBeforeTheLoadIsNotOverwritten) {
  write<std::int32_t>({5, 6, 7});
  for (const bool takeOwnership : {false, true}) {
    IrStaticTensor tensor = makeTensor(ORLO_DATATYPE_INT_32, 3, 4);
    tensor.setExternalData(range(12));
    auto* buffer = new std::uint8_t[12]();
    tensor.updateData(buffer, 12, takeOwnership);
    if (!takeOwnership) delete[] buffer;
    EXPECT_TRUE(tensor.isDataLoaded());
    EXPECT_EQ(bytesOf(tensor), Bytes(12, 0));
  }
}

TEST_F(ExternalDataTest, EqualityLoadsOnlyWhenNothingElseDecides) {
  write<std::int32_t>({5, 6, 7});
  IrStaticTensor external = makeTensor(ORLO_DATATYPE_INT_32, 3, 4);
  IrStaticTensor sameRange = makeTensor(ORLO_DATATYPE_INT_32, 3, 4);
  external.setExternalData(range(12));
  sameRange.setExternalData(range(12));
  IrStaticTensor renamed = makeTensor(ORLO_DATATYPE_INT_32, 3, 4);
  renamed.setName("u");
  EXPECT_EQ(external, sameRange);
  EXPECT_NE(external, renamed);
  EXPECT_FALSE(external.isDataLoaded());

  IrStaticTensor inMemory = makeTensor(ORLO_DATATYPE_INT_32, 3, 4);
  const std::int32_t equal[] = {5, 6, 7};
  const std::int32_t different[] = {5, 6, 8};
  inMemory.updateData(equal, 12, false);
  EXPECT_EQ(external, inMemory);
  inMemory.updateData(different, 12, false);
  EXPECT_NE(external, inMemory);
  EXPECT_NE(
      IrTensor("t", {3}, ORLO_DATATYPE_INT_32, AxisFormat::ANY, AxisFormat::ANY, TensorType::Static, {}),
      external)
      << "a tensor without data is no static tensor";
}

TEST(Transforms, AreSharedByAllTensorsOfOneSource) {
  IrStaticTensor source("s", {1, 2});
  EXPECT_EQ(source.getTransformManager(), nullptr);
  IrStaticTensor derived("d", {1, 2});
  derived.setTransformManager(source.getOrCreateTransformManager());
  derived.getOrCreateTransformManager()->addTransform(std::make_shared<ReshapeTransform>(Dims{2, 1}));
  derived.getTransformManager()->addTransform(nullptr);
  derived.getTransformManager()->addTransform(std::make_shared<TransposeTransform>(Dims{1, 0}));
  ASSERT_EQ(source.getTransformManager()->getTransforms().size(), 2u);

  std::string text;
  for (const auto& step : source.getTransformManager()->getTransforms()) text += step->serialize();
  EXPECT_EQ(text,
            "{\n\"type\": \"Reshape\",\n\"tensor_attributes\": [\n{\n\"shape\": {\n\"dtype\": \"uint32\",\n"
            "\"dims\": [2],\n\"data\": [2, 1]\n}\n}\n]\n}"
            "{\n\"type\": \"Transpose\",\n\"tensor_attributes\": [\n{\n\"perm\": {\n\"dtype\": \"uint32\",\n"
            "\"dims\": [2],\n\"data\": [1, 0]\n}\n}\n]\n}");
  EXPECT_EQ(toListText({7}), "[7]");
  EXPECT_EQ(toListText({}), "[]");
}

}  // namespace
}  // namespace netforge
