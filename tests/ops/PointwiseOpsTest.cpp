#include <map>

#include "ops/ElementwiseOps.h"
#include "ops/MatrixOps.h"
#include "ops/NormalizationOps.h"
#include "ops/OpFactory.h"
#include "ops/TranslationRegistry.h"
#include "tests/ops/OpTestSupport.h"

// Inference, counts and layouts of the elementwise, matrix and normalisation ops.

namespace netforge::ops {
namespace {

using graphrefiner::OpParams;
using test::Dims;
using test::expectFailure;
using test::tensorOf;
using Shapes = std::vector<IrTensorShape>;

const std::shared_ptr<AxisOrder> spatialFirst = std::make_shared<SpatialFirstAxisOrder>();
const std::shared_ptr<AxisOrder> spatialLast = std::make_shared<SpatialLastAxisOrder>();

/// An op named "n" with its tensors, which it refers to weakly.
struct BuiltOp {
  std::vector<std::shared_ptr<IrTensor>> inputs;
  std::vector<std::shared_ptr<IrTensor>> outputs;
  std::shared_ptr<IrOp> op;
};

std::shared_ptr<IrOp> makeTyped(const std::string& type, const OpParams& params) {
  if (type == "Convert") return std::make_shared<ConvertOp>("n", nullptr);
  if (type == "Dequantize") return std::make_shared<DequantizeOp>("n", nullptr);
  return graphrefiner::createOp(type, "n", params);
}

BuiltOp build(const std::string& type, const OpParams& params, const Shapes& inputs,
              const Shapes& outputs = {}) {
  BuiltOp built;
  for (const auto& shape : inputs)
    built.inputs.push_back(tensorOf("i" + std::to_string(built.inputs.size()), shape));
  for (const auto& shape : outputs)
    built.outputs.push_back(tensorOf("o" + std::to_string(built.outputs.size()), shape));
  built.op = makeTyped(type, params);
  built.op->setInputs(built.inputs);
  built.op->setOutputs(built.outputs);
  return built;
}

Shapes statics(const std::vector<Dims>& list) {
  Shapes shapes;
  for (const Dims& dims : list) shapes.emplace_back(dims);
  return shapes;
}

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
  const std::string tooFew = "MatMulOp::inferOutputTensorShapes: Improper input shapes received for n op. ";
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
                                    std::pair{IrTensorShape({1, 2, 3}, {0}), IrTensorShape({4, 3, 5})}}) {
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

TEST(PointwiseOps, OutputTypesFollowTheOperation) {
  constexpr DataType f32 = ORLO_DATATYPE_FLOAT_32;
  constexpr DataType i64 = ORLO_DATATYPE_INT_64;
  constexpr DataType i32 = ORLO_DATATYPE_INT_32;
  constexpr DataType boolean = ORLO_DATATYPE_BOOL_8;
  struct TypeCase {
    const char* type;
    OpParams params;
    std::vector<DataType> inputs;
    std::vector<DataType> expected;
    std::vector<DataType> expectedSource;
  };
  std::vector<TypeCase> cases = {
      {"Eltwise_Ternary", ternary, {boolean, i64, f32}, {boolean}, {i64}},
      {"Eltwise_Ternary", {{"eltwise_type", "Other"}}, {i64, f32, f32}, {i32}, {i64, i64}},
      {"ElementWiseMux", {}, {i32, i64, f32}, {i64}, {i64}},
      {"Mean", {}, {i64, f32}, {i32}, {i64, i64}},
      {"Dequantize",
       {},
       {ORLO_DATATYPE_UFIXED_POINT_8},
       {f32},
       {ORLO_DATATYPE_UFIXED_POINT_8, ORLO_DATATYPE_UFIXED_POINT_8}},
      {"TopK", {{"k", 1u}}, {i64}, {i32, i32}, {i64, i64}},
      {"TopK", {{"k", 1u}}, {f32}, {f32, i32}, {f32, f32}},
      {"Cast", {}, {i64}, {i32, i32}, {i64, i64}},
  };
  // Add, and, divide, ... in the order of the codes; 17 is unused.
  const std::vector<bool> givesBool = {false, true,  false, true,  false, false, true,  true,  true,  true,
                                       false, false, false, false, true,  true,  false, false, false, true};
  for (std::uint32_t operation = 0; operation < givesBool.size(); ++operation) {
    cases.push_back({"Eltwise_Binary",
                     {{"operation", operation}},
                     {i64, i64},
                     {givesBool[operation] ? boolean : i32},
                     {i64, i64}});
  }
  for (const TypeCase& c : cases) {
    SCOPED_TRACE(c.type);
    BuiltOp built;
    for (const DataType type : c.inputs) built.inputs.push_back(tensorOf("i", Dims{3}, type));
    built.op = makeTyped(c.type, c.params);
    built.op->setInputs(built.inputs);
    EXPECT_EQ(built.op->inferOutputDataTypes(2), c.expected);
    EXPECT_EQ(built.op->inferOutputSrcDataTypes(2), c.expectedSource);
  }
}

TEST(PointwiseOps, OperandsShareANontrivialLayout) {
  constexpr AxisFormat nhwc = AxisFormat::NHWC;
  constexpr AxisFormat any = AxisFormat::ANY;
  constexpr AxisFormat none = AxisFormat::NONTRIVIAL;
  struct FormatCase {
    Dims one, two;
    AxisFormat first, second;
    bool spreads;
  };
  const FormatCase cases[] = {
      {{2, 3}, {2, 3}, none, nhwc, true}, {{2, 3}, {2, 3}, nhwc, none, true},
      {{2, 3}, {2, 3}, nhwc, any, false}, {{2, 3}, {3}, none, any, true},
      {{2, 3}, {3}, nhwc, none, false},   {{3}, {2, 3}, any, none, true},
      {{3}, {2, 3}, none, nhwc, false},
  };
  for (const char* type : {"Eltwise_Binary", "Eltwise_Ternary"}) {
    for (const FormatCase& c : cases) {
      SCOPED_TRACE(std::string(type) + testing::PrintToString(c.one) + testing::PrintToString(c.two));
      const auto one = tensorOf("a", c.one, ORLO_DATATYPE_FLOAT_32, c.first);
      const auto two = tensorOf("b", c.two, ORLO_DATATYPE_FLOAT_32, c.second);
      const auto three = tensorOf("c", c.two, ORLO_DATATYPE_FLOAT_32, nhwc);
      const auto op = makeTyped(type, {{"operation", 0u}, {"eltwise_type", "ElementWiseSelect"}});
      op->setInputs({one, two, three});
      op->overrideDataAxisFormats(spatialFirst);
      const std::vector<AxisFormat> kept = {c.first, c.second, nhwc};
      const std::vector<AxisFormat> spread = {none, none, none};
      EXPECT_EQ(op->getInputAxisFormats(), c.spreads ? spread : kept);
      EXPECT_EQ(op->getStoredInputAxisFormats(), c.spreads ? spread : kept);
    }
  }
}

TEST(PointwiseOps, LayoutsOfOutputsAndDataInputs) {
  // These keep the layout that their outputs have; an activation takes the one of its rank.
  for (const char* type : {"Eltwise_Binary", "Eltwise_Ternary", "Mean", "ElementWiseNeuron"}) {
    const auto output = tensorOf("o", Dims{2, 3, 5, 7}, ORLO_DATATYPE_FLOAT_32, AxisFormat::OIHW);
    const auto op = makeTyped(type, {{"operation", 4u}, {"eltwise_type", "ElementWiseSelect"}});
    op->setOutputs({output});
    op->populateOutputAxisFormats(spatialLast, {}, false);
    const bool overwritten = std::string(type) == "ElementWiseNeuron";
    EXPECT_EQ(output->getAxisFormat(), overwritten ? AxisFormat::NCHW : AxisFormat::OIHW) << type;
  }
  const auto data = tensorOf("x", Dims{2, 3, 5}, ORLO_DATATYPE_FLOAT_32, AxisFormat::NONTRIVIAL);
  const auto weight = tensorOf("w", Dims{3}, ORLO_DATATYPE_FLOAT_32, AxisFormat::NF);
  const auto op = makeTyped("Batchnorm", {});
  op->setInputs({data, weight});
  op->overrideDataAxisFormats(spatialLast);
  EXPECT_EQ(op->getStoredInputAxisFormats(), (std::vector<AxisFormat>{AxisFormat::NCF, AxisFormat::NF}));
  EXPECT_EQ(data->getAxisFormat(), AxisFormat::NCF);
}

TEST(PointwiseOps, CanonicalAxesAreUnsignedAndStayPutTheSecondTime) {
  struct AxisCase {
    graphrefiner::OpParam axis;
    std::uint32_t expected;
  };
  for (const AxisCase& c :
       {AxisCase{-1, 2}, AxisCase{-3, 0}, AxisCase{1, 1}, AxisCase{1u, 1}, AxisCase{0xFFFFFFFFu, 2}}) {
    const BuiltOp built = build("Softmax", {{"axis", c.axis}}, statics({{2, 3, 5}}));
    for (int round = 0; round < 2; ++round) {
      built.op->canonicalizeOp(1);
      EXPECT_EQ(built.op->getAttributes()->getAttr<std::uint32_t>("axis"), c.expected);
    }
    EXPECT_TRUE(built.op->isCanonicalized());
    EXPECT_FALSE(built.op->getAttributes()->isSupplemental("axis"));
  }

  const BuiltOp norm = build("LayerNorm", axes1, statics({{2, 3, 5, 7}}));
  const std::int32_t axes[] = {-1, 0, -3};
  norm.op->getAttributes()->add(
      "axes",
      std::make_shared<IrStaticTensor>("own_name", Dims{3, 1}, 12u, axes, ORLO_DATATYPE_INT_32,
                                       AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED, true,
                                       TensorType::Static, Dims{}),
      ATTR_ORDINARY);
  for (int round = 0; round < 2; ++round) {
    norm.op->canonicalizeOp(1);
    const auto tensor = norm.op->getAttributes()->getStaticTensor("axes");
    EXPECT_EQ(tensor->getName(), "own_name");
    EXPECT_EQ(tensor->getDims(), (Dims{3}));
    EXPECT_EQ(tensor->getDataType(), ORLO_DATATYPE_UINT_32);
    const auto* values = tensor->getDataAs<std::uint32_t>();
    EXPECT_EQ((Dims{values[0], values[1], values[2]}), (Dims{3, 0, 1}));
  }
  EXPECT_TRUE(norm.op->isCanonicalized());
  EXPECT_EQ(axes[0], -1) << "the caller's buffer was written";
}

TEST(PointwiseOps, FullyConnectedResizeTakesNewBatchAxes) {
  struct ResizeCase {
    Dims input, weight, output;
    Dims expected;
    const char* text;
  };
  const ResizeCase cases[] = {
      {{7, 12}, {8, 12}, {2, 8}, {7, 8}, nullptr},
      {{7, 5, 3, 4}, {8, 12}, {2, 3, 8}, {7, 5, 8}, nullptr},
      {{12},
       {8, 12},
       {8},
       {8},
       "FullyConnected layer name n can not be resized because there are no batch dimensions (numBatchDims "
       "== 0)"},
      {{7, 11},
       {8, 12},
       {2, 8},
       {2, 8},
       "Layer n: mismatch between size of input features (11) and width of weight matrix (12). Cannot resize "
       "when "
       "input feature count does not match weight matrix dimensions."},
      // Fewer axes than the batch needs; the empty product would fit the weight.
      {{7},
       {8, 1},
       {2, 3, 8},
       {2, 3, 8},
       "Layer n: mismatch between size of input features (1) and width of weight matrix (1). Cannot resize "
       "when "
       "input feature count does not match weight matrix dimensions."},
      {{7, 12},
       {8, 12},
       {2, 9},
       {2, 9},
       "Layer n: mismatch between number of output features (9) and height of weight matrix (8). Output "
       "feature "
       "count must match the weight matrix height."},
  };
  for (const ResizeCase& c : cases) {
    const BuiltOp built =
        build("FullyConnected", {}, statics({c.input, c.weight}), {IrTensorShape(c.output, {0})});
    if (c.text != nullptr) {
      expectFailure<std::runtime_error>(std::string("netforge::ops::FullyConnectedOp::resizeOp: ") + c.text,
                                        [&] { built.op->resizeOp(spatialFirst, 1); });
      EXPECT_EQ(built.outputs[0]->getShape(), IrTensorShape(c.output, {0}));
    } else {
      built.op->resizeOp(spatialFirst, 1);
      EXPECT_EQ(built.outputs[0]->getShape(), IrTensorShape(c.expected));
    }
  }
}

TEST(PointwiseOps, ConstructorsFillAndCheckTheSharedTable) {
  const auto convert = std::make_shared<IrAttributes>();
  convert->add("dynamic_input_data", true, ATTR_ORDINARY);
  ConvertOp op("n", convert);
  EXPECT_TRUE(convert->getAttr<bool>("dynamic_input_data"));
  EXPECT_FALSE(convert->getAttr<bool>("dynamic_output_data"));

  const std::string text =
      "netforge::ops::ElementwiseTernaryOp::ElementwiseTernaryOp: eltwise_type attribute must be set as "
      "supplemental attribute for op n";
  expectFailure<std::invalid_argument>(text, [] { ElementwiseTernaryOp("n", nullptr); });
  expectFailure<std::invalid_argument>(text, [] {
    ElementwiseTernaryOp("n", test::attributesOf("eltwise_type", "ElementWiseSelect", ATTR_ORDINARY));
  });

  // A quantizable float tensor stops being so the moment it becomes the output, also when it is put in later.
  const auto output = tensorOf("o", Dims{2});
  DequantizeOp dequantize("n", nullptr, {tensorOf("i", Dims{2})}, {});
  ASSERT_TRUE(output->isQuantizable());
  dequantize.setOutputs({output});
  EXPECT_FALSE(output->isQuantizable());
}

}  // namespace
}  // namespace netforge::ops
