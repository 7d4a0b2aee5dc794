// The check of an op's configuration against the target's rules.

#include <stdexcept>
#include "ir/IrGraph.h"

namespace netforge {

void IrGraph::validateOrloOpConfig(const OpPtr& /*op*/, bool /*skipStaticData*/,
                                   const std::string& /*targetName*/) {
  throw std::logic_error(
      "netforge::IrGraph::validateOrloOpConfig: the op config check is not part of this build");
}

}  // namespace netforge
