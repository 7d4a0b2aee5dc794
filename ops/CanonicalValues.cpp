#include "ops/CanonicalValues.h"

#include "ops/OpDefaults.h"

namespace netforge::ops {

void replaceUint32Values(const std::shared_ptr<IrAttributes>& attributes, const std::string& name,
                         const std::vector<std::uint32_t>& values) {
  const std::string tensorName = attributes->getStaticTensor(name)->getName();
  const auto count = static_cast<std::uint32_t>(values.size());
  attributes->add(name, makeUint32Tensor(tensorName, {count}, values), ATTR_ORDINARY);
}

}  // namespace netforge::ops
