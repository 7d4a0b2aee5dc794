#include "ops/OpDefaults.h"

#include "ops/OpFailure.h"

namespace netforge::ops {

std::shared_ptr<IrStaticTensor> makeUint32Tensor(const std::string& name,
                                                 const std::vector<std::uint32_t>& dims,
                                                 const std::vector<std::uint32_t>& values) {
  return std::make_shared<IrStaticTensor>(
      name, dims, static_cast<std::uint32_t>(values.size() * sizeof(std::uint32_t)), values.data(),
      ORLO_DATATYPE_UINT_32, AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED, false,
      TensorType::Static, std::vector<std::uint32_t>{});
}

void addDefaultTensor(const std::shared_ptr<IrAttributes>& attributes, const std::string& name,
                      const std::vector<std::uint32_t>& values, AttrClass attrClass) {
  if (attributes->hasAttr(name)) return;
  attributes->add(name, makeUint32Tensor(name, {static_cast<std::uint32_t>(values.size())}, values),
                  attrClass);
}

void requireSupplemental(const std::shared_ptr<IrAttributes>& attributes, const char* function,
                         const std::string& attribute, const char* noun, const std::string& opName) {
  if (attributes->hasAttr(attribute) && attributes->isSupplemental(attribute)) return;
  throwInvalidArgument(function, attribute, " attribute must be set as supplemental ", noun, " for op ",
                       opName);
}

}  // namespace netforge::ops
