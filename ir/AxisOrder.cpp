#include "ir/AxisOrder.h"

namespace netforge {

AxisOrder::~AxisOrder() = default;

}  // namespace netforge
