#include <utility>

#include "ops/ElementwiseOps.h"
#include "ops/MatrixOps.h"
#include "ops/NormalizationOps.h"
#include "tests/ops/BuiltOp.h"
#include "tests/ops/OpTestSupport.h"

// Shapes and counts of the elementwise, matrix and normalisation ops.

namespace netforge::ops {
namespace {

using graphrefiner::OpParams;
using test::build;
using test::BuiltOp;
using test::Dims;
using test::expectFailure;
using test::statics;
using Shapes = std::vector<IrTensorShape>;

const std::shared_ptr<AxisOrder> spatialFirst = std::make_shared<SpatialFirstAxisOrder>();
const std::shared_ptr<AxisOrder> spatialLast = std::make_shared<SpatialLastAxisOrder>();

const OpParams axes1 = {{"axes", Dims{1}}};
const OpParams ternary = {{"eltwise_type", "ElementWiseSelect"}};

struct DimsCase {
  const char* type;
  OpParams params;
  std::vector<Dims> inputs;
  std::uint32_t numOutputs;
  std::vector<Dims> expected;
  bool last = false;  // spatial-last axis order
};

TEST(PointwiseOps, InferDimsOfOutputs) {
  const DimsCase cases[] = {
      {"Eltwise_Binary", {{"operation", 0u}}, {{2, 1, 4}, {3, 1}}, 1, {{2, 3, 4}}},
      {"Eltwise_Ternary", ternary, {{2, 1, 1}, {3, 1}, {5}}, 1, {{2, 3, 5}}},
      {"Eltwise_Unary", {{"operation", 8u}}, {{2, 3}}, 1, {{2, 3}}},
      {"ElementWiseMux", {}, {{1}, {3, 1}, {2, 1, 5}}, 1, {{2, 3, 5}}},
      {"ElementWiseMux", {}, {{4, 7}}, 1, {{4, 7}}},
      {"ElementWiseNeuron", {{"operation", 4u}}, {{2, 3, 5}}, 1, {{2, 3, 5}}},
      {"Mean", {}, {{2, 3}, {1, 3}}, 1, {{2, 3}}},
      {"Mean", {}, {{1, 3}, {2, 3}}, 1, {{1, 3}}},
      {"Prelu", {}, {{2, 3, 5, 7}, {7}}, 1, {{2, 3, 5, 7}}},
      {"Prelu", {}, {{2, 3, 5}, {1, 3, 1}}, 1, {{2, 3, 5}}},
      {"ThresholdedRelu", {{"alpha", 1.0f}}, {{2, 3}}, 1, {{2, 3}}},
      {"Cast", {}, {{2, 3, 5}}, 1, {{2, 3, 5}}},
      {"Convert", {}, {{2, 3, 5}}, 1, {{2, 3, 5}}},
      {"Dequantize", {}, {{2, 3, 5}}, 1, {{2, 3, 5}}},
      {"Batchnorm", {}, {{2, 3, 5, 7}, {7}, {7}}, 1, {{2, 3, 5, 7}}},
      {"LayerNorm", axes1, {{2, 3, 5}, {5}, {5}}, 1, {{2, 3, 5}}},
      {"RmsNorm", axes1, {{2, 3, 5}, {5}}, 1, {{2, 3, 5}}},
      {"Softmax", {}, {{2, 3}}, 1, {{2, 3}}},
      {"HadamardTransform", {}, {{2, 8}}, 1, {{2, 8}}},
      {"TopK", {{"k", 3u}}, {{2, 9}}, 2, {{2, 3}, {2, 3}}},
      {"Inverse", {}, {{5, 2, 2}}, 1, {{5, 2, 2}}},
      {"Inverse", {}, {{1, 1}}, 1, {{1, 1}}},
      {"MatMul", {}, {{4, 1, 2, 3}, {5, 3, 6}}, 1, {{4, 5, 2, 6}}},
      {"MatMul", {}, {{2, 3}, {7, 5, 3, 6}}, 1, {{7, 5, 2, 6}}},
      {"MatMul", {{"transpose_in0", true}}, {{7, 3, 2}, {3, 5}}, 1, {{7, 2, 5}}},
      {"MatMul", {{"transpose_in1", true}}, {{2, 3}, {7, 5, 3}}, 1, {{7, 2, 5}}},
      {"MatMul", {{"transpose_in0", true}, {"transpose_in1", true}}, {{3, 2}, {5, 3}}, 1, {{2, 5}}},
      {"FullyConnected", {}, {{2, 3, 4}, {8, 12}}, 1, {{2, 8}}},
      {"FullyConnected", {}, {{2, 3, 4}, {12, 8}}, 1, {{2, 8}}, true},
      {"FullyConnected", {}, {{12}, {8, 12}}, 1, {{8}}},
      {"FullyConnected", {{"keep_dims", true}}, {{2, 3, 12}, {8, 12}}, 1, {{2, 3, 8}}},
      {"FullyConnected", {{"keep_dims", true}}, {{12}, {8, 12}}, 1, {{8}}},
  };
  for (const DimsCase& c : cases) {
    SCOPED_TRACE(c.type);
    const BuiltOp built = build(c.type, c.params, statics(c.inputs));
    const auto& axisOrder = c.last ? spatialLast : spatialFirst;
    EXPECT_EQ(built.op->inferOutputShapes(axisOrder, c.numOutputs), c.expected);
    EXPECT_EQ(built.op->inferOutputTensorShapes(axisOrder, c.numOutputs), statics(c.expected));
  }
}

struct DynamicCase {
  const char* type;
  OpParams params;
  Shapes inputs;
  Shapes expected;  // empty: both forms refuse
  const char* refusal;
};

TEST(PointwiseOps, DynamicAxesPassThroughOrAreRefused) {
  const std::string advice = " has dynamic inputs. Use inferOutputTensorShapes instead.";
  const IrTensorShape x({2, 3, 5}, {0, 2});
  const DynamicCase cases[] = {
      {"Eltwise_Binary",
       {{"operation", 0u}},
       {x, IrTensorShape({3, 1})},
       {x},
       "ElementwiseBinaryOp::inferOutputShapes: ElementwiseBinaryOp n"},
      {"Eltwise_Unary",
       {{"operation", 0u}},
       {x},
       {x},
       "IrOp::inferOutputShapes: IrOp n of type Eltwise_Unary"},
      {"ElementWiseNeuron",
       {{"operation", 4u}},
       {x},
       {x},
       "ElementwiseNeuronOp::inferOutputShapes: ElementwiseNeuronOp n"},
      {"Mean", {}, {x, IrTensorShape({7})}, {x}, "ElementwiseMeanOp::inferOutputShapes: ElementwiseMeanOp n"},
      {"Cast", {}, {x}, {x}, "IrOp::inferOutputShapes: IrOp n of type Cast"},
      {"Convert", {}, {x}, {x}, "IrOp::inferOutputShapes: IrOp n of type Convert"},
      {"Softmax", {}, {x}, {x}, "IrOp::inferOutputShapes: IrOp n of type Softmax"},
      {"RmsNorm", axes1, {x, IrTensorShape({5})}, {x}, "RMSNormOp::inferOutputShapes: IrOp n"},
      // A dynamic batch axis, a dynamic row and a dynamic column.
      {"MatMul",
       {},
       {IrTensorShape({4, 2, 3}, {0, 1}), IrTensorShape({3, 6}, {1})},
       {IrTensorShape({4, 2, 6}, {0, 1, 2})},
       "MatMulOp::inferOutputShapes: MatMulOp n"},
      {"MatMul",
       {{"transpose_in0", true}},
       {IrTensorShape({1, 3, 2}, {2}), IrTensorShape({4, 3, 6}, {0})},
       {IrTensorShape({4, 2, 6}, {0, 1})},
       "MatMulOp::inferOutputShapes: MatMulOp n"},
      {"MatMul",
       {},
       {IrTensorShape({9, 2, 3}, {2}), IrTensorShape({9, 3, 6}, {1})},
       {IrTensorShape({9, 2, 6})},
       "MatMulOp::inferOutputShapes: MatMulOp n"},
      {"Eltwise_Ternary",
       ternary,
       {x, x, x},
       {},
       "ElementwiseTernaryOp::inferOutputShapes: IrOp n of type Eltwise_Ternary"},
      {"ElementWiseMux",
       {},
       {IrTensorShape({1}), x},
       {},
       "ElementWiseMuxOp::inferOutputShapes: IrOp n of type ElementWiseMux"},
      {"Prelu", {}, {x, IrTensorShape({5})}, {}, "PreluOp::inferOutputShapes: IrOp n of type Prelu"},
      {"ThresholdedRelu",
       {{"alpha", 1.0f}},
       {x},
       {},
       "ThresholdedReluOp::inferOutputShapes: IrOp n of type ThresholdedRelu"},
      {"Batchnorm", {}, {x}, {}, "BatchnormOp::inferOutputShapes: IrOp n of type Batchnorm"},
      {"LayerNorm", axes1, {x}, {}, "LayerNormOp::inferOutputShapes: IrOp n of type LayerNorm"},
      {"HadamardTransform",
       {},
       {x},
       {},
       "HadamardTransformOp::inferOutputShapes: IrOp n of type HadamardTransform"},
      {"Inverse",
       {},
       {IrTensorShape({5, 2, 2}, {0})},
       {},
       "InverseOp::inferOutputShapes: IrOp n of type Inverse"},
      {"TopK", {{"k", 1u}}, {x}, {}, "TopKOp::inferOutputShapes: IrOp n of type TopK"},
      {"FullyConnected",
       {},
       {x, IrTensorShape({8, 5})},
       {},
       "FullyConnectedOp::inferOutputShapes: IrOp n of type FullyConnected"},
  };
  for (const DynamicCase& c : cases) {
    SCOPED_TRACE(c.type);
    const BuiltOp built = build(c.type, c.params, c.inputs);
    expectFailure<std::invalid_argument>(std::string("netforge::ops::") + c.refusal + advice,
                                         [&] { built.op->inferOutputShapes(spatialFirst, 1); });
    if (c.expected.empty()) {
      EXPECT_THROW(built.op->inferOutputTensorShapes(spatialFirst, 1), std::invalid_argument);
    } else {
      EXPECT_EQ(built.op->inferOutputTensorShapes(spatialFirst, 1), c.expected);
    }
  }
}

struct FailureCase {
  const char* type;
  OpParams params;
  Shapes inputs;
  const char* text;
};

TEST(PointwiseOps, InferenceRefusesInputsThatDoNotFit) {
  const FailureCase cases[] = {
      {"Prelu",
       {},
       statics({{2, 3, 5}, {3, 5}}),
       "PreluOp::inferOutputShapes: Prelu coefficient rank must equal either 1 or input rank {3}, but got "
       "{2} "
       "instead."},
      {"Inverse",
       {},
       statics({{2}}),
       "InverseOp::inferOutputShapes: Inverse Op n expects rank 2 or above, but got 1"},
      {"Inverse",
       {},
       statics({{5, 2, 3}}),
       "InverseOp::inferOutputShapes: Inverse Op n expects a square matrix, but got 2x3 in the last two "
       "dimensions"},
      {"Inverse",
       {},
       statics({{5, 3, 3}}),
       "InverseOp::inferOutputShapes: Currently, only inverse of up to 2x2 matrices are supported, but op n "
       "got a "
       "3x3 matrix"},
      {"MatMul",
       {},
       statics({{2, 3}, {4, 5}}),
       "MatMulOp::inferOutputTensorShapes: Improper input shapes received for n op. Input0 shape: "
       "IrTensorShape(dims = [2,3] , dy_axes=[]) Input1 shape: IrTensorShape(dims = [4,5] , dy_axes=[]). "
       "Matrix "
       "multiply is not possible."},
      {"MatMul",
       {},
       statics({{3}, {3, 5}}),
       "MatMulOp::inferOutputTensorShapes: Improper input shapes received for n op. Input0 shape: "
       "IrTensorShape(dims = [3] , dy_axes=[]) Input1 shape: IrTensorShape(dims = [3,5] , dy_axes=[]). "
       "Matrix "
       "multiply is not possible."},
      {"MatMul",
       {},
       statics({{4, 2, 3}, {5, 3, 6}}),
       "MatMulOp::inferOutputTensorShapes: Unable to calculate output shapes for op n. Input0 shape: "
       "IrTensorShape(dims = [4,2,3] , dy_axes=[]), Input1 shape: IrTensorShape(dims = [5,3,6] , "
       "dy_axes=[]). "
       "Batch dimensions are not broadcastable, matrix multiply is not possible."},
      {"FullyConnected",
       {},
       statics({{2, 3}, {3}}),
       "FullyConnectedOp::inferOutputShapes: Shape needs to be of length 2 for FC weights, but got length 1"},
      {"FullyConnected",
       {},
       statics({{2, 3}, {4, 0}}),
       "FullyConnectedOp::inferOutputShapes: FullyConnectedOp n has a weight without input features"},
      {"FullyConnected",
       {{"keep_dims", true}},
       statics({{}, {4, 3}}),
       "FullyConnectedOp::inferOutputShapes: FullyConnectedOp n expects rank 1 or above, but got 0"},
      {"TopK",
       {{"k", 1u}},
       statics({{}}),
       "TopKOp::inferOutputShapes: TopK Op n expects rank 1 or above, but got 0"},
  };
  for (const FailureCase& c : cases) {
    SCOPED_TRACE(c.type);
    const BuiltOp built = build(c.type, c.params, c.inputs);
    std::string text = std::string("netforge::ops::") + c.text;
    if (text.find("FC weights") != std::string::npos) {
      // The axis order speaks here.
      text = "netforge::SpatialFirstAxisOrder::extractFcWeightsDims" + text.substr(text.find(": "));
    }
    expectFailure<std::invalid_argument>(text, [&] { built.op->inferOutputShapes(spatialFirst, 1); });
  }

  // The inner axes of a product agree in size only: one of them is dynamic. Batch axes the same.
  for (const auto& [left, right] : {std::pair{IrTensorShape({2, 3}, {1}), IrTensorShape({3, 5})},
                                    std::pair{IrTensorShape({4, 2, 3}, {0}), IrTensorShape({4, 3, 5})},
                                    std::pair{IrTensorShape({1, 2, 3}, {0}), IrTensorShape({4, 3, 5})},
                                    std::pair{IrTensorShape({4, 2, 3}), IrTensorShape({1, 3, 5}, {0})}}) {
    const BuiltOp built = build("MatMul", {}, {left, right});
    EXPECT_THROW(built.op->inferOutputTensorShapes(spatialFirst, 1), std::invalid_argument);
  }
}

// A class that overrides the shape form and gives nothing must not be read past its end.
template <class Base>
class WithoutShapes : public Base {
 public:
  using Base::Base;
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                     std::uint32_t) override {
    return {};
  }
};

TEST(PointwiseOps, AnEmptyInferenceIsAFailure) {
  const auto check = [](IrOp& op, const std::string& text) {
    expectFailure<std::runtime_error>("netforge::ops::" + text,
                                      [&] { op.inferOutputShapes(spatialFirst, 1); });
  };
  const auto operation = test::attributesOf("operation", 0u);
  WithoutShapes<ElementwiseBinaryOp> binary("n", operation);
  check(binary, "ElementwiseBinaryOp::inferOutputShapes: No output shapes infered for n op.");
  WithoutShapes<ElementwiseNeuronOp> neuron("n", operation);
  check(neuron, "ElementwiseNeuronOp::inferOutputShapes: No output shapes infered for n op.");
  WithoutShapes<ElementwiseMeanOp> mean("n", nullptr);
  check(mean, "ElementwiseMeanOp::inferOutputShapes: No output shapes inferred for n op.");
  WithoutShapes<MatMulOp> matmul("n", nullptr);
  check(matmul, "MatMulOp::inferOutputShapes: No output shapes infered for n op.");
}

struct CountCase {
  const char* type;
  OpParams params;
  std::vector<Dims> inputs;
  std::vector<Dims> outputs;
  std::uint64_t macs;
  std::uint32_t paramsCount;
};

TEST(PointwiseOps, CountsWorkedByHand) {
  const CountCase cases[] = {
      // The last three dims alone, and 1 when there are fewer.
      {"Eltwise_Binary", {{"operation", 0u}}, {{2, 3, 4, 5}, {5}}, {{2, 3, 4, 5}}, 60, 0},
      {"Eltwise_Binary", {{"operation", 0u}}, {{7, 8}, {8}}, {{7, 8}}, 1, 0},
      {"Eltwise_Ternary", ternary, {{1}, {2, 3, 5}, {5}}, {{2, 3, 5}}, 30, 0},
      {"ElementWiseNeuron", {{"operation", 4u}}, {{2, 3, 5}}, {{2, 3, 5}}, 30, 0},
      {"Prelu", {}, {{2, 3, 5}, {5}}, {{2, 3, 5}}, 30, 0},
      {"Mean", {}, {{2, 3, 5}, {2, 3, 5}, {2, 3, 5}}, {{2, 3, 5}}, 90, 0},
      {"LayerNorm", axes1, {{2, 3, 5, 7}}, {{2, 3, 5, 7}}, 525, 0},
      {"Batchnorm", {}, {{2, 3, 5, 7}}, {{2, 3, 5, 7}}, 105, 0},
      {"Batchnorm", {}, {{5, 7}}, {{5, 7}}, 7, 0},
      {"Batchnorm", {}, {{7}}, {{7}}, 7, 0},
      // m * k * n without the batch axes.
      {"MatMul", {}, {{4, 1, 2, 3}, {5, 3, 6}}, {{4, 5, 2, 6}}, 36, 0},
      {"MatMul", {{"transpose_in0", true}}, {{9, 3, 2}, {3, 7}}, {{9, 2, 7}}, 42, 0},
      {"MatMul", {{"transpose_in1", true}}, {{2, 3}, {7, 3}}, {{2, 7}}, 42, 0},
      {"MatMul", {}, {{2, 3}}, {{2}}, 0, 0},
      {"MatMul", {}, {{3}, {3, 5}}, {{5}}, 0, 0},
      {"MatMul", {}, {{2, 3}, {3}}, {{2}}, 0, 0},
      {"FullyConnected", {}, {{2, 12}, {8, 12}}, {{2, 8}}, 96, 96},
      {"FullyConnected", {}, {{2, 12}, {8, 12}, {8}}, {{2, 8}}, 96, 104},
      // 65536 * 65537 = 2^32 + 2^16: the count of parameters keeps the low 32 bits.
      {"FullyConnected", {}, {{1, 65537}, {65536, 65537}}, {{1, 65536}}, 4295032832ull, 65536},
      {"Softmax", {}, {{2, 3, 5}}, {{2, 3, 5}}, 0, 0},
      {"Cast", {}, {{2, 3, 5}}, {{2, 3, 5}}, 0, 0},
  };
  for (const CountCase& c : cases) {
    SCOPED_TRACE(c.type);
    const BuiltOp built = build(c.type, c.params, statics(c.inputs), statics(c.outputs));
    EXPECT_EQ(built.op->macs(spatialFirst), c.macs);
    EXPECT_EQ(built.op->paramsCount(spatialFirst), c.paramsCount);
  }
}

}  // namespace
}  // namespace netforge::ops
