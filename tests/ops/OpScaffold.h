#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ir/IrOp.h"

/// A single op with its tensors, outside of any graph.

namespace netforge::test {

using Values = std::vector<std::uint32_t>;
using TensorPtr = std::shared_ptr<IrTensor>;

inline const std::shared_ptr<AxisOrder> kFirst = std::make_shared<SpatialFirstAxisOrder>();
inline const std::shared_ptr<AxisOrder> kLast = std::make_shared<SpatialLastAxisOrder>();

inline TensorPtr makeTensor(const Values& dims, const std::set<std::uint32_t>& dynamicAxes = {},
                            DataType type = ORLO_DATATYPE_FLOAT_32,
                            AxisFormat format = AxisFormat::NONTRIVIAL) {
  return std::make_shared<IrTensor>("t", IrTensorShape(dims, dynamicAxes), nullptr, type, format, format,
                                    TensorType::Native);
}

using TensorValues = std::initializer_list<std::pair<const char*, Values>>;

/// An attribute table of unsigned rank-1 tensors, each named "<attribute>_given".
inline std::shared_ptr<IrAttributes> makeAttributes(TensorValues tensors) {
  auto attributes = std::make_shared<IrAttributes>();
  for (const auto& [name, values] : tensors) {
    const std::string tensorName = std::string(name) + "_given";
    attributes->add(name, std::make_shared<IrStaticTensor>(tensorName, values), ATTR_ORDINARY);
  }
  return attributes;
}

inline Values valuesOf(const IrStaticTensor& tensor) {
  Values values;
  for (std::uint64_t i = 0; i < tensor.elements(); ++i) values.push_back(tensor.getElement(i));
  return values;
}
inline Values valuesOf(const ops::IrOp& op, const std::string& attribute) {
  return valuesOf(*op.getAttributes()->getStaticTensor(attribute));
}

/// The whole attribute table as "<name>=<value>/<class>" items in map order, the type of integers as a
/// suffix: i signed, u unsigned, b bool, 8 unsigned 8-bit; a tensor prints as its name and values.
inline std::string attributesText(const ops::IrOp& op) {
  std::ostringstream text;
  for (const auto& [name, attribute] : op.getAttributes()->entries()) {
    text << (text.tellp() > 0 ? " " : "") << name << '=';
    if (attribute.attrType == ORLO_PARAMTYPE_TENSOR) {
      text << attribute.tensorValue->getName() << '[';
      for (const std::uint32_t value : valuesOf(*attribute.tensorValue)) text << value << ',';
      text << ']';
    } else if (attribute.isString()) {
      text << '\'' << attribute.stringValue << '\'';
    } else if (attribute.isFloatType()) {
      text << attribute.floatValue << 'f';
    } else {
      const bool isBool = attribute.dataType == ORLO_DATATYPE_BOOL_8;
      const char wide = attribute.dataType == ORLO_DATATYPE_INT_32 ? 'i' : 'u';
      text << attribute.intValue << (isBool ? 'b' : attribute.dataType == ORLO_DATATYPE_UINT_8 ? '8' : wide);
    }
    text << '/' << static_cast<int>(attribute.attrClass);
  }
  return text.str();
}

/// Expects `call` to throw an exception of exactly this type and text.
template <class Exception, class Call>
void expectThrows(const std::string& text, Call&& call) {
  try {
    call();
    ADD_FAILURE() << "Nothing thrown, expected: " << text;
  } catch (const std::exception& failure) {
    EXPECT_STREQ(failure.what(), text.c_str());
    EXPECT_EQ(typeid(failure), typeid(Exception)) << text;
  }
}

}  // namespace netforge::test
