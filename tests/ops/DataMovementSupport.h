#pragma once

#include <gtest/gtest.h>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>
#include "ir/AxisOrder.h"
#include "ir/IrOp.h"
#include "ir/IrTensor.h"

/// Builders and readers for tests of single ops. Every op bears the name "op".

namespace netforge::test {

using Dims = std::vector<std::uint32_t>;
using Tensor = std::shared_ptr<IrTensor>;

inline Tensor tensor(const Dims& dims, const std::set<std::uint32_t>& dynamicAxes = {},
                     AxisFormat format = AxisFormat::NOT_YET_DEFINED,
                     DataType type = ORLO_DATATYPE_FLOAT_32) {
  return std::make_shared<IrTensor>("t", IrTensorShape(dims, dynamicAxes), nullptr, type, format, format,
                                    TensorType::Native);
}

/// An attribute table, filled in one expression.
struct Attrs {
  std::shared_ptr<IrAttributes> table = std::make_shared<IrAttributes>();

  template <class T>
  Attrs& set(const std::string& name, T value) {
    table->add(name, value, ATTR_ORDINARY);
    return *this;
  }
  /// A static tensor "<name>_values"; rank 1 unless dims are given.
  Attrs& list(const std::string& name, const std::vector<std::int32_t>& values, Dims dims = {},
              AttrClass attrClass = ATTR_ORDINARY) {
    if (dims.empty()) dims = {static_cast<std::uint32_t>(values.size())};
    table->add(name,
               std::make_shared<IrStaticTensor>(
                   name + "_values", dims, static_cast<std::uint32_t>(4 * values.size()), values.data(),
                   ORLO_DATATYPE_INT_32, AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED, false,
                   TensorType::Static, Dims{}),
               attrClass);
    return *this;
  }
};

/// An op together with the tensors that it refers to weakly.
template <class Op>
struct Built {
  std::vector<Tensor> inputs, outputs;
  std::shared_ptr<Op> op;
  Op* operator->() const { return op.get(); }
};

template <class Op>
Built<Op> build(const Attrs& attrs, const std::vector<Tensor>& inputs,
                const std::vector<Tensor>& outputs = {}) {
  return {inputs, outputs, std::make_shared<Op>("op", attrs.table, inputs, outputs)};
}

inline const std::shared_ptr<AxisOrder> spatialFirst = std::make_shared<SpatialFirstAxisOrder>();
inline const std::shared_ptr<AxisOrder> spatialLast = std::make_shared<SpatialLastAxisOrder>();

/// Type, value and class of an attribute; of a tensor its name, type, dims and signed words.
inline std::string attributeText(const IrAttributes& attributes, const std::string& name) {
  const IrAttribute& attribute = attributes.entries().at(name);
  std::ostringstream text;
  text << getDataTypeShortName(attribute.dataType) << ' ';
  const auto list = [&](const auto& values) {
    text << '[';
    for (std::size_t i = 0; i < values.size(); ++i) text << (i == 0 ? "" : ",") << values[i];
    text << ']';
  };
  if (attribute.attrType == ORLO_PARAMTYPE_TENSOR) {
    IrStaticTensor& values = *attribute.tensorValue;
    const auto* words = values.getDataAs<std::int32_t>();
    text << values.getName() << ' ';
    list(values.getDims());
    list(std::vector<std::int32_t>(words, words + values.getDataSize() / 4));
  } else if (attribute.isString()) {
    text << attribute.stringValue;
  } else if (attribute.isFloatType()) {
    text << attribute.floatValue;
  } else {
    text << attribute.intValue;
  }
  text << " class " << static_cast<int>(attribute.attrClass);
  return text.str();
}

/// All attributes in table order, one a line.
inline std::string attributesText(const IrAttributes& attributes) {
  std::string text;
  for (const auto& [name, attribute] : attributes.entries()) {
    text += name + ": " + attributeText(attributes, name) + "\n";
  }
  return text;
}

inline std::string shapeText(const IrTensorShape& shape) {
  std::ostringstream text;
  text << shape;
  return text.str();
}

/// A call that must fail: the exact exception type and the whole text.
struct Failure {
  const std::type_info& type;
  std::string text;
  std::function<void()> call;
};

inline void expectFailures(const std::vector<Failure>& failures) {
  for (const Failure& failure : failures) {
    SCOPED_TRACE(failure.text);
    try {
      failure.call();
      ADD_FAILURE() << "no exception";
    } catch (const std::exception& error) {
      EXPECT_STREQ(error.what(), failure.text.c_str());
      EXPECT_EQ(typeid(error).name(), std::string(failure.type.name()));
    }
  }
}

}  // namespace netforge::test
