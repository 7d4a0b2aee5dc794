#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrAttributes.h"
#include "ir/IrOp.h"
#include "ir/IrTensor.h"

/// Small builders for tests of op classes. An op refers to its tensors weakly: the caller keeps them.
namespace netforge::test {

using Dims = std::vector<std::uint32_t>;

inline std::shared_ptr<IrTensor> tensorOf(const std::string& name, const IrTensorShape& shape,
                                          DataType type = ORLO_DATATYPE_FLOAT_32,
                                          AxisFormat format = AxisFormat::ANY) {
  return std::make_shared<IrTensor>(name, shape, nullptr, type, format, format, TensorType::Native);
}

inline std::shared_ptr<IrTensor> tensorOf(const std::string& name, const Dims& dims,
                                          DataType type = ORLO_DATATYPE_FLOAT_32,
                                          AxisFormat format = AxisFormat::ANY) {
  return tensorOf(name, IrTensorShape(dims), type, format);
}

inline std::vector<std::shared_ptr<IrTensor>> tensorsOf(const std::vector<Dims>& list,
                                                        const std::string& prefix) {
  std::vector<std::shared_ptr<IrTensor>> tensors;
  for (const Dims& dims : list) tensors.push_back(tensorOf(prefix + std::to_string(tensors.size()), dims));
  return tensors;
}

/// Attributes with one entry.
template <class T>
std::shared_ptr<IrAttributes> attributesOf(const std::string& name, const T& value,
                                           AttrClass attrClass = ATTR_ORDINARY) {
  auto attributes = std::make_shared<IrAttributes>();
  attributes->add(name, value, attrClass);
  return attributes;
}

/// Expects `action` to throw exactly `Exception` with exactly `text`.
template <class Exception, class Action>
void expectFailure(const std::string& text, const Action& action) {
  try {
    action();
    ADD_FAILURE() << "nothing was thrown, expected: " << text;
  } catch (const Exception& failure) {
    EXPECT_EQ(failure.what(), text);
  } catch (const std::exception& failure) {
    ADD_FAILURE() << "another type was thrown: " << failure.what();
  }
}

}  // namespace netforge::test
