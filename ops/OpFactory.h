#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>
#include "ir/IrOp.h"

namespace netforge::graphrefiner {

/// One named parameter of createOp: a tagged value. A constructor sets exactly one of the fields, the others
/// stay zero or empty; a factory that reads another field than the one that was set reads that zero.
class OpParam {
 public:
  enum Tag : std::int32_t {
    None = 0,
    Bool = 1,
    Float = 2,
    Int32 = 3,
    Uint8 = 4,
    Uint32 = 5,
    String = 6,
    Uint32List = 7
  };
  OpParam();
  OpParam(bool value);
  OpParam(float value);
  OpParam(std::uint8_t value);
  OpParam(std::int32_t value);  // a plain literal such as 13 lands here: write 13u for unsigned parameters
  OpParam(std::uint32_t value);
  OpParam(const std::string& value);
  OpParam(const char* value);  // without it a literal would become a bool
  OpParam(const std::vector<std::uint32_t>& value);
  OpParam(double value) = delete;

  Tag tag = None;
  bool boolValue = false;
  float floatValue = 0.0f;
  std::uint8_t uint8Value = 0;
  std::int32_t int32Value = 0;
  std::uint32_t uint32Value = 0;
  std::string stringValue;
  std::vector<std::uint32_t> listValue;
};
using OpParams = std::unordered_map<std::string, OpParam>;

/// Builds an op of a known type, without tensors, from named parameters. Parameters that the type does not
/// know are ignored, but for "packageName"; the op class fills in its defaults, and "packageName" is
/// "orlo.base" unless given. A list becomes the static tensor
/// "<opName>_<parameter>" of unsigned 32-bit values.
///
/// Throws std::runtime_error for an unknown type, a missing mandatory parameter, a "block_size" that does not
/// have two elements, and an "axis" that is neither a signed nor an unsigned 32-bit parameter where the type
/// tests it; what the op class's constructor throws goes through.
std::shared_ptr<ops::IrOp> createOp(const std::string& opType, const std::string& opName,
                                    const OpParams& params);

}  // namespace netforge::graphrefiner
