#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "ir/IrAttributes.h"
#include "ir/IrTensor.h"
#include "tests/support/Failures.h"

namespace netforge {
namespace {

using testing::failureOf;

std::shared_ptr<IrStaticTensor> makeTensor(const std::string& name) {
  return std::make_shared<IrStaticTensor>(name, std::vector<std::uint32_t>{1, 2});
}

// Six types written, six types read: only the diagonal answers.
TEST(Attributes, AreReadWithTheirOwnTypeOnly) {
  IrAttributes attributes;
  attributes.add("u8", std::uint8_t{200}, ATTR_ORDINARY);
  attributes.add("i32", -5, ATTR_ORDINARY);
  attributes.add("u32", 4294967295u, ATTR_ORDINARY);
  attributes.add("f32", 0.5f, ATTR_ORDINARY);
  attributes.add("bool", true, ATTR_ORDINARY);
  attributes.add("text", "NHWC", ATTR_ORDINARY);

  EXPECT_EQ(attributes.getAttr<std::uint8_t>("u8"), 200);
  EXPECT_EQ(attributes.getAttr<std::int32_t>("i32"), -5);
  EXPECT_EQ(attributes.getAttr<std::uint32_t>("u32"), 4294967295u);
  EXPECT_EQ(attributes.getAttr<float>("f32"), 0.5f);
  EXPECT_TRUE(attributes.getAttr<bool>("bool"));
  EXPECT_EQ(attributes.getAttr<std::string>("text"), "NHWC");

  struct Row {
    const char* name;
    const char* type;
    std::function<void(const std::string&)> read;
  };
  const Row rows[] = {
      {"u8", "ORLO_DATATYPE_UINT_8", [&](const auto& n) { attributes.getAttr<std::uint8_t>(n); }},
      {"i32", "ORLO_DATATYPE_INT_32", [&](const auto& n) { attributes.getAttr<std::int32_t>(n); }},
      {"u32", "ORLO_DATATYPE_UINT_32", [&](const auto& n) { attributes.getAttr<std::uint32_t>(n); }},
      {"f32", "ORLO_DATATYPE_FLOAT_32", [&](const auto& n) { attributes.getAttr<float>(n); }},
      {"bool", "ORLO_DATATYPE_BOOL_8", [&](const auto& n) { attributes.getAttr<bool>(n); }},
      {"text", "ORLO_DATATYPE_STRING", [&](const auto& n) { attributes.getAttr<std::string>(n); }},
  };
  for (const Row& stored : rows) {
    for (const Row& requested : rows) {
      if (&stored == &requested) continue;
      EXPECT_EQ(failureOf<std::runtime_error>([&] { requested.read(stored.name); }),
                std::string("netforge::IrAttributes::getAttr: Invalid requested type: ") + requested.type +
                    " for attr: " + stored.name + " with type: " + stored.type);
    }
  }
}

TEST(Attributes, HoldTheirNumbersSoThatTheyCompareAsTheyRead) {
  IrAttributes attributes;
  attributes.add("negative", -1, ATTR_ORDINARY);
  attributes.add("largest", 0xFFFFFFFFu, ATTR_ORDINARY);
  EXPECT_EQ(attributes.entries().at("negative").intValue, -1);
  EXPECT_EQ(attributes.entries().at("largest").intValue, 4294967295);
}

TEST(Attributes, AddingAgainReplacesValueTypeAndClass) {
  IrAttributes attributes;
  attributes.add("a", 1, ATTR_SUPPLEMENTAL);
  EXPECT_TRUE(attributes.isSupplemental("a"));
  attributes.add("a", std::string("one"), ATTR_ORDINARY);
  EXPECT_EQ(attributes.size(), 1u);
  EXPECT_FALSE(attributes.isSupplemental("a"));
  // Under its own name and from its own text.
  attributes.add(attributes.entries().begin()->first, attributes.getAttr<std::string>("a"), ATTR_EXTRA);
  EXPECT_EQ(attributes.getAttr<std::string>("a"), "one");
  attributes.add("a", makeTensor("t"), ATTR_ORDINARY);
  EXPECT_EQ(attributes.getStaticTensorName("a"), "t");
  EXPECT_THROW(attributes.getAttr<std::string>("a"), std::runtime_error);
}

TEST(Attributes, FailuresNameTheAttribute) {
  IrAttributes attributes;
  attributes.add("perm", makeTensor("t"), ATTR_ORDINARY);
  attributes.add("axis", 1, ATTR_ORDINARY);
  const std::string absent =
      "netforge::IrAttributes::assertAttrExists: Attribute 'x' not present. Available attributes count: 2";
  EXPECT_EQ(failureOf<std::runtime_error>([&] { attributes.assertAttrExists("x"); }), absent);
  EXPECT_EQ(failureOf<std::runtime_error>([&] { attributes.getAttr<bool>("x"); }), absent);
  EXPECT_EQ(failureOf<std::runtime_error>([&] { attributes.getStaticTensor("x"); }), absent);
  EXPECT_EQ(failureOf<std::runtime_error>([&] { attributes.isSupplemental("x"); }), absent);
  EXPECT_EQ(failureOf<std::invalid_argument>([&] { attributes.remove("x"); }),
            "netforge::IrAttributes::remove: Unable to remove attribute 'x': attribute does not exist. "
            "Available attributes count: 2");
  EXPECT_EQ(failureOf<std::runtime_error>([&] { attributes.getAttr<std::uint32_t>("perm"); }),
            "netforge::IrAttributes::getAttr: Attribute perm is not a scalar type");
  EXPECT_EQ(failureOf<std::runtime_error>([&] { attributes.getStaticTensor("axis"); }),
            "netforge::IrAttributes::getStaticTensor: Attribute 'axis' is not a tensor, actual attrType=0 "
            "(expected ORLO_PARAMTYPE_TENSOR)");
  EXPECT_THROW(attributes.add("null", std::shared_ptr<IrStaticTensor>(), ATTR_ORDINARY),
               std::invalid_argument);
  EXPECT_EQ(attributes.size(), 2u);
}

TEST(Attributes, TensorsComeInTheOrderOfNames) {
  IrAttributes attributes;
  for (const char* name : {"stride", "dilation", "pad_amount"}) {
    attributes.add(name, makeTensor(name), ATTR_ORDINARY);
  }
  attributes.add("group", 1u, ATTR_ORDINARY);
  attributes.remove("pad_amount");
  std::vector<std::string> names;
  for (const auto& tensor : attributes.getStaticTensors()) names.push_back(tensor->getName());
  EXPECT_EQ(names, (std::vector<std::string>{"dilation", "stride"}));
}

TEST(Attributes, KindTests) {
  struct Row {
    DataType type;
    AttrType attrType;
    bool isFloat;
    bool isInteger;
    bool isString;
  };
  const Row rows[] = {
      {ORLO_DATATYPE_FLOAT_16, ORLO_PARAMTYPE_TENSOR, true, false, false},
      {ORLO_DATATYPE_FLOAT_64, ORLO_PARAMTYPE_SCALAR, false, false, false},
      {ORLO_DATATYPE_BOOL_8, ORLO_PARAMTYPE_SCALAR, false, true, false},
      {ORLO_DATATYPE_INT_64, ORLO_PARAMTYPE_SCALAR, false, true, false},
      {ORLO_DATATYPE_UINT_4, ORLO_PARAMTYPE_SCALAR, false, false, false},
      {ORLO_DATATYPE_UFIXED_POINT_8, ORLO_PARAMTYPE_TENSOR, false, false, false},
      {ORLO_DATATYPE_STRING, ORLO_PARAMTYPE_SCALAR, false, false, true},
      {ORLO_DATATYPE_STRING, ORLO_PARAMTYPE_TENSOR, false, false, false},
  };
  for (const Row& row : rows) {
    IrAttribute attribute;
    attribute.dataType = row.type;
    attribute.attrType = row.attrType;
    EXPECT_EQ(attribute.isFloatType(), row.isFloat) << getDataTypeName(row.type);
    EXPECT_EQ(attribute.isIntegerType(), row.isInteger) << getDataTypeName(row.type);
    EXPECT_EQ(attribute.isString(), row.isString) << getDataTypeName(row.type);
  }
}

}  // namespace
}  // namespace netforge
