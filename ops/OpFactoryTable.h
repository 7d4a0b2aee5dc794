#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrOp.h"

/// What createOp knows about each op type, as data.

namespace netforge::graphrefiner {

/// How a parameter is read and how it stands in the attribute table. Tensor: a list that becomes a static
/// tensor. PadTensor: a list of (before, after) pairs that becomes a static tensor of two columns.
/// BlockTensor: a list of exactly two values. Axis: signed or unsigned 32-bit as the parameter's tag says.
enum class ParamKind : std::uint8_t {
  Uint32,
  Int32,
  Float,
  Uint8,
  Bool,
  String,
  Tensor,
  PadTensor,
  BlockTensor,
  Axis
};

struct ParamRule {
  const char* name;
  ParamKind kind;
  AttrClass attrClass;
  bool mandatory = false;
  std::uint32_t rows = 0;  // of a PadTensor; 0 means half the number of values
};

struct OpRule {
  const char* type;
  const char* word;     // what failure texts call the op
  const char* factory;  // qualified name that failure texts begin with
  std::shared_ptr<ops::IrOp> (*make)(const std::string& name,
                                     const std::shared_ptr<IrAttributes>& attributes);
  std::vector<ParamRule> params;
};

/// One row per type that createOp builds, 45 in all.
const std::vector<OpRule>& opRules();

}  // namespace netforge::graphrefiner
