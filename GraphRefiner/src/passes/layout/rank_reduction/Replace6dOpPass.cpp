#include "GraphRefiner/src/passes/layout/rank_reduction/Replace6dOpPass.h"

#include "GraphRefiner/src/PassBuilders.h"

namespace netforge::graphrefiner {

Replace6dOpPass::Replace6dOpPass() {
  handlers = {{"Eltwise_Unary", &Replace6dOpPass::handleElementWiseUnaryOp},
              {"Eltwise_Binary", &Replace6dOpPass::handleElementWiseBinaryOp},
              {"Reduce", &Replace6dOpPass::handleReduceOp},
              {"Concat", &Replace6dOpPass::handleConcatOp},
              {"Gather", &Replace6dOpPass::handleGatherOp},
              {"Reshape", &Replace6dOpPass::handleReshapeOp},
              {"ScatterNd", &Replace6dOpPass::handleScatterNDOp},
              {"Softmax", &Replace6dOpPass::handleSoftmaxOp},
              {"Tile", &Replace6dOpPass::handleTileOp},
              {"Transpose", &Replace6dOpPass::handleTransposeOp},
              {"Cast", &Replace6dOpPass::handleCastOp},
              {"GatherElements", &Replace6dOpPass::handleGatherElementsOp},
              {"Pad", &Replace6dOpPass::handlePadOp},
              {"StridedSlice", &Replace6dOpPass::handleStridedSliceOp},
              {"ElementWiseNeuron", &Replace6dOpPass::handleElementWiseNeuronOp}};
}

std::shared_ptr<Pass> buildReplace6dOps() {
  return std::make_shared<Replace6dOpPass>();
}

[[maybe_unused]] static const bool registered = PassManager::registerPass(PassId::Replace6dOps);

}  // namespace netforge::graphrefiner
