#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrAttributes.h"
#include "ir/IrTensor.h"

/// Helpers of the op classes' constructors. Every op class has two of them, and they read the same
/// everywhere:
///
///   CastOp::CastOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
///       : IrOp(name, "Cast", attributes) {
///     addDefault(getAttributes(), "some_flag", false, ATTR_ORDINARY);
///   }
///   NETFORGE_OP_TENSOR_CONSTRUCTOR(CastOp)
///
/// Defaults go through getAttributes() and never through the argument, which may be null.

namespace netforge::ops {

/// Adds the scalar `value` under `name` unless the table already has an attribute of that name.
/// T is one of the types that IrAttributes::add takes, a string literal included; write 0u for unsigned.
template <class T>
void addDefault(const std::shared_ptr<IrAttributes>& attributes, const std::string& name, const T& value,
                AttrClass attrClass) {
  if (!attributes->hasAttr(name)) attributes->add(name, value, attrClass);
}

/// Adds a static tensor of rank 1 with these values, which bears the attribute's own name, unless the table
/// already has an attribute of that name.
void addDefaultTensor(const std::shared_ptr<IrAttributes>& attributes, const std::string& name,
                      const std::vector<std::uint32_t>& values, AttrClass attrClass);

/// A static tensor of unsigned 32-bit values that owns its bytes: type static, both axis formats not yet
/// defined. `dims` are taken as given; elements beyond the values cannot be read.
std::shared_ptr<IrStaticTensor> makeUint32Tensor(const std::string& name,
                                                 const std::vector<std::uint32_t>& dims,
                                                 const std::vector<std::uint32_t>& values);

/// Throws std::invalid_argument "<function>: <attribute> attribute must be set as supplemental <noun> for op
/// <op>" unless the attribute exists with the supplemental class. `noun` is "attribute", or "attr" in
/// ReshapeOp.
void requireSupplemental(const std::shared_ptr<IrAttributes>& attributes, const char* function,
                         const std::string& attribute, const char* noun, const std::string& opName);

}  // namespace netforge::ops

/// Defines the four-argument constructor of an op class. The tensors are attached in the body of the concrete
/// class, so that its own override of addOutput applies.
#define NETFORGE_OP_TENSOR_CONSTRUCTOR(Class)                                            \
  Class::Class(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, \
               const TensorList& tensorsIn, const TensorList& tensorsOut)                \
      : Class(name, attributes) {                                                        \
    setInputs(tensorsIn);                                                                \
    setOutputs(tensorsOut);                                                              \
  }
