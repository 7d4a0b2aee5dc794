// Reading constants, axes, permutations and dims.
#include <bit>
#include <cmath>
#include <limits>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "RefinerTestSupport.h"

namespace netforge::graphrefiner::testing {
namespace {

template <class T>
StaticTensorPtr constant(DataType type, std::vector<std::uint32_t> dims, std::vector<T> values) {
  return std::make_shared<IrStaticTensor>("c", dims, static_cast<std::uint32_t>(values.size() * sizeof(T)),
                                          values.data(), type, AxisFormat::ANY, AxisFormat::ANY, false,
                                          TensorType::Static, std::vector<std::uint32_t>{});
}

const float kNan = std::numeric_limits<float>::quiet_NaN();
const std::vector<float> kNothing;

TEST(Constants, GetConstValue) {
  EXPECT_EQ(getConstValue(constant<std::int32_t>(ORLO_DATATYPE_INT_32, {1}, {-7})), -7.0f);
  EXPECT_EQ(getConstValue(constant<std::uint32_t>(ORLO_DATATYPE_UINT_32, {1, 1}, {4000000000u})), 4e9f);
  EXPECT_EQ(getConstValue(constant<std::uint16_t>(ORLO_DATATYPE_FLOAT_16, {1}, {0xC000})), -2.0f);
  EXPECT_EQ(getConstValue(constant<float>(ORLO_DATATYPE_FLOAT_32, {1}, {0.1f})), 0.1f);
  const struct {
    StaticTensorPtr tensor;
    const char* message;
  } cases[] = {
      {nullptr, "getConstValue: Null tensor passed to getConstValue"},
      {constant<float>(ORLO_DATATYPE_FLOAT_32, {1, 2}, {1, 2}),
       "getConstValue: Expected 1 element but found 2"},
      {constant<float>(ORLO_DATATYPE_FLOAT_32, {}, kNothing),
       "getConstValue: Expected 1 element but found 0"},
      {constant<std::uint8_t>(ORLO_DATATYPE_UINT_8, {1}, {1}),
       "getConstValue: Found Unsupported ORLO datatype in getConstValue function."},
  };
  for (const auto& c : cases)
    EXPECT_EQ(failureOf<std::runtime_error>([&] { getConstValue(c.tensor); }), c.message);
}

TEST(Constants, TestsOverAllElements) {
  const auto floats = [](std::vector<float> values) {
    return constant<float>(ORLO_DATATYPE_FLOAT_32, {static_cast<std::uint32_t>(values.size())}, values);
  };
  EXPECT_TRUE(allElementsEqualToValue(floats({2, 2, 2}), 2.0f));
  EXPECT_FALSE(allElementsEqualToValue(floats({2, 2, std::nextafter(2.0f, 3.0f)}), 2.0f)) << "no tolerance";
  EXPECT_FALSE(allElementsEqualToValue(floats({kNan}), kNan));
  const auto flags = [](std::vector<std::uint8_t> values) {
    return constant<std::uint8_t>(ORLO_DATATYPE_BOOL_8, {static_cast<std::uint32_t>(values.size())}, values);
  };
  EXPECT_TRUE(allElementsEqualToValue(flags({1, 1, 1, 1, 1}), std::uint8_t(1)));
  EXPECT_FALSE(allElementsEqualToValue(flags({1, 1, 1, 1, 0}), std::uint8_t(1)));
  EXPECT_FALSE(allElementsEqualToValue(flags({0, 0, 0, 0, 0}), 0.0f)) << "bytes would be read past their end";

  const auto ints = [](std::vector<std::int32_t> values) {
    return constant<std::int32_t>(ORLO_DATATYPE_INT_32, {static_cast<std::uint32_t>(values.size())}, values);
  };
  EXPECT_TRUE(anyElementNegative(ints({0, 5, -1})));
  EXPECT_FALSE(anyElementNegative(ints({0, 5, 1})));
  EXPECT_FALSE(anyElementNegative(ints({})));
  EXPECT_FALSE(anyElementNegative(flags({255, 255, 255, 255, 255}))) << "bytes would be read past their end";

  EXPECT_EQ(failureOf<std::runtime_error>([] { allElementsEqualToValue(nullptr, 1.0f); }),
            "allElementsEqualToValue: Null tensor passed to allElementsEqualToValue");
  EXPECT_EQ(failureOf<std::runtime_error>([&] { allElementsEqualToValue(flags({}), std::uint8_t(1)); }),
            "allElementsEqualToValue: Tensor has zero elements");
  EXPECT_EQ(failureOf<std::runtime_error>([] { anyElementNegative(nullptr); }),
            "anyElementNegative: Null tensor passed to anyElementNegative");
}

TEST(Constants, PermutationsAndAxes) {
  EXPECT_EQ(getPermutation(constant<std::uint32_t>(ORLO_DATATYPE_UINT_32, {3}, {2, 0, 1})),
            (Permutation{2, 0, 1}));
  const auto shortOfData = constant<std::uint32_t>(ORLO_DATATYPE_UINT_32, {2, 0}, {});
  EXPECT_EQ(failureOf<std::out_of_range>([&] { getPermutation(shortOfData); }),
            "Index out of bounds for IrStaticTensor");

  auto op = std::make_shared<ops::IrOp>("norm", "LayerNorm", nullptr);
  setAxes(op, {3, 1});
  const auto axes = op->getAttributes()->getStaticTensor("axes");
  EXPECT_EQ(axes->getName(), "norm_axes");
  EXPECT_EQ(axes->getDims(), std::vector<std::uint32_t>{2});
  EXPECT_EQ(axes->getDataType(), ORLO_DATATYPE_UINT_32);
  EXPECT_EQ(axes->getTensorType(), TensorType::Static);
  EXPECT_EQ(getAxes(op), (std::vector<std::uint32_t>{3, 1}));
  setAxes(op, {0xFFFFFFFF, 0});
  EXPECT_EQ(readAxes(op, 4), (std::vector<std::uint32_t>{3, 0}));
}

TEST(Constants, AxisAttributesOfEitherType) {
  const auto op = [](const std::string& type, auto value) {
    auto made = std::make_shared<ops::IrOp>("op", type, nullptr);
    made->getAttributes()->add("axis", value, ATTR_ORDINARY);
    return made;
  };
  EXPECT_EQ(readAxis(op("Gather", std::int32_t(-1)), "axis", 4), 3u);
  EXPECT_EQ(readAxis(op("Gather", std::int32_t(2)), "axis", 4), 2u);
  EXPECT_EQ(readAxis(op("Concat", 0xFFFFFFFEu), "axis", 5), 3u);
  EXPECT_THROW(readAxis(op("Concat", 1.0f), "axis", 4), std::runtime_error);
  EXPECT_THROW(readAxis(op("Concat", 1u), "axes", 4), std::runtime_error);

  auto gather = op("Gather", std::int32_t(-1));
  writeAxis(gather, 3);
  EXPECT_EQ(gather->getAttributes()->getAttr<std::int32_t>("axis"), 3);
  auto concat = op("Concat", std::int32_t(-1));
  writeAxis(concat, 3);
  EXPECT_EQ(concat->getAttributes()->getAttr<std::uint32_t>("axis"), 3u);
}

TEST(Permutations, MakersAndInverse) {
  EXPECT_EQ(getInversePermutation({2, 0, 3, 1}), (Permutation{1, 3, 0, 2}));
  EXPECT_EQ(getInversePermutation({}), Permutation{});
  EXPECT_EQ(failureOf<std::runtime_error>([] {
              getInversePermutation({0, 1, 3});
            }),
            "getInversePermutation: Invalid permutation value 3 at index 2 for permutation of size 3");
  EXPECT_EQ(permChannelLastToFirst(5), (Permutation{0, 4, 1, 2, 3}));
  EXPECT_EQ(permChannelFirstToLast(5), (Permutation{0, 2, 3, 4, 1}));
  for (const std::uint32_t rank : {0u, 1u, 2u}) {
    EXPECT_EQ(permChannelLastToFirst(rank), permChannelFirstToLast(rank));
    EXPECT_EQ(permChannelFirstToLast(rank).size(), rank);
  }
  EXPECT_EQ(permAxisToLast(4, 1), (Permutation{0, 3, 2, 1}));
  EXPECT_EQ(permAxisToLast(4, 3), (Permutation{0, 1, 2, 3}));
  EXPECT_EQ(permToString({0, 2, 3, 1}), "0231");
  EXPECT_EQ(permToString({1, 10}), "110");
  EXPECT_EQ(permToString({}), "");
}

TEST(Names, JoinNameParts) {
  const struct {
    const char *first, *second, *prefix, *suffix, *joined;
  } cases[] = {{"a", "b", "p", "s", "p_a_b_s"}, {"a", "b", "", "", "a_b"}, {"a", "", "", "s", "a_s"},
               {"", "b", "p", "", "p_b"},       {"", "", "", "s", "s"},    {"", "", "", "", ""}};
  for (const auto& c : cases) EXPECT_EQ(joinNameParts(c.first, c.second, c.prefix, c.suffix), c.joined);
}

TEST(DimsTests, OverTensors) {
  const auto tensor = [](std::vector<std::uint32_t> dims) {
    return std::make_shared<IrTensor>("t", dims, ORLO_DATATYPE_FLOAT_32, AxisFormat::ANY, TensorType::Native,
                                      std::vector<std::uint32_t>{});
  };
  EXPECT_TRUE(hasSameDims(tensor({2, 3}), tensor({2, 3})));
  EXPECT_FALSE(hasSameDims(tensor({2, 3}), tensor({3, 2})));
  EXPECT_TRUE(dimsEqualAt(tensor({2, 3}), 1, tensor({3, 4}), 0));
  EXPECT_FALSE(dimsEqualAt(tensor({2, 3}), 0, tensor({3, 4}), 0));
  EXPECT_FALSE(dimsEqualAt(tensor({2}), 1, tensor({2}), 1));
  EXPECT_TRUE(hasAtMostOneNonUnitDim(tensor({1, 5, 1})));
  EXPECT_TRUE(hasAtMostOneNonUnitDim(tensor({1, 1})));
  EXPECT_FALSE(hasAtMostOneNonUnitDim(tensor({2, 1, 3})));
}

TEST(DimsTests, TailBroadcast) {
  const struct {
    std::vector<std::uint32_t> big, small;
    bool fits;
  } cases[] = {{{2, 3, 4}, {3, 4}, true},  {{2, 3, 4}, {1, 4}, true},  {{2, 3, 4}, {}, true},
               {{2, 3, 4}, {2, 3}, false}, {{3, 4}, {2, 3, 4}, false}, {{1, 4}, {3, 4}, false}};
  for (const auto& c : cases) EXPECT_EQ(isTailBroadcastable(c.big, c.small), c.fits);
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

}  // namespace
}  // namespace netforge::graphrefiner::testing
