#pragma once

#include <memory>

namespace netforge {
class IrGraph;
class IrTensor;
namespace ops {
class IrOp;
}
}  // namespace netforge

namespace netforge::graphrefiner {

// How the passes hold what they rewrite.
using GraphPtr = std::shared_ptr<IrGraph>;
using OpPtr = std::shared_ptr<ops::IrOp>;
using TensorPtr = std::shared_ptr<IrTensor>;

}  // namespace netforge::graphrefiner
