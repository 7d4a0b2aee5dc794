#include <string>
#include "ops/ConvolutionOps.h"
#include "ops/ElementwiseOps.h"
#include "ops/GatherOps.h"
#include "ops/LayoutOps.h"
#include "ops/MatrixOps.h"
#include "ops/NormalizationOps.h"
#include "ops/RecurrentOps.h"
#include "ops/ReductionOps.h"
#include "ops/SliceOps.h"
#include "ops/SparseOps.h"
#include "ops/TranslationRegistry.h"

namespace netforge::ops {

namespace {

using TensorList = TranslationRegistry::TensorList;

struct TypeEntry {
  const char* type;
  std::shared_ptr<IrOp> (*creator)(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                                   const TensorList& inputs, const TensorList& outputs);
};

template <class Op>
std::shared_ptr<IrOp> create(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                             const TensorList& inputs, const TensorList& outputs) {
  return std::make_shared<Op>(name, attributes, inputs, outputs);
}

constexpr TypeEntry entries[] = {
    {"Batchnorm", create<BatchnormOp>},
    {"Cast", create<CastOp>},
    {"ColorTransform", create<ColorTransformOp>},
    {"Concat", create<ConcatOp>},
    {"Conv2d", create<Conv2dOp>},
    {"Conv3d", create<Conv3dOp>},
    {"Convert", create<ConvertOp>},
    {"CreateSparse", create<CreateSparseOp>},
    {"DepthToSpace", create<DepthToSpaceOp>},
    {"DepthWiseConv2d", create<DepthwiseConv2dOp>},
    {"Dequantize", create<DequantizeOp>},
    {"ElementWiseMux", create<ElementWiseMuxOp>},
    {"ElementWiseNeuron", create<ElementwiseNeuronOp>},
    {"Eltwise_Binary", create<ElementwiseBinaryOp>},
    {"Eltwise_Ternary", create<ElementwiseTernaryOp>},
    {"Eltwise_Unary", create<ElementwiseUnaryOp>},
    {"Expand", create<ExpandOp>},
    {"ExpandDims", create<ExpandDimsOp>},
    {"FullyConnected", create<FullyConnectedOp>},
    {"Gather", create<GatherOp>},
    {"GatherElements", create<GatherElementsOp>},
    {"GatherNd", create<GatherNDOp>},
    {"GetSparseIndices", create<GetSparseIndicesOp>},
    {"GetSparseValues", create<GetSparseValuesOp>},
    {"Gru", create<GruOp>},
    {"HadamardTransform", create<HadamardTransformOp>},
    {"Inverse", create<InverseOp>},
    {"LayerNorm", create<LayerNormOp>},
    {"Lstm", create<LstmOp>},
    {"MatMul", create<MatMulOp>},
    {"Mean", create<ElementwiseMeanOp>},
    {"Pack", create<PackOp>},
    {"Pad", create<PadOp>},
    {"Prelu", create<PreluOp>},
    {"Reduce", create<ReduceOp>},
    {"ReduceL2", create<ReduceL2Op>},
    {"Reshape", create<ReshapeOp>},
    {"RmsNorm", create<RMSNormOp>},
    {"Softmax", create<SoftmaxOp>},
    {"SpaceToDepth", create<SpaceToDepthOp>},
    {"Split", create<SplitOp>},
    {"StridedSlice", create<StridedSliceOp>},
    {"ThresholdedRelu", create<ThresholdedReluOp>},
    {"Tile", create<TileOp>},
    {"TopK", create<TopKOp>},
    {"Transpose", create<TransposeOp>},
    {"TransposeConv2d", create<TransposeConv2dOp>},
    {"TransposeConv3d", create<TransposeConv3dOp>},
};

bool registerAll() {
  for (const TypeEntry& entry : entries) {
    TranslationRegistry::instance().registerTranslationMethod(entry.type, entry.creator, false);
  }
  return true;
}

// Runs when the library loads. A type that stands here twice ends the load.
[[maybe_unused]] const bool registered = registerAll();

}  // namespace

}  // namespace netforge::ops
