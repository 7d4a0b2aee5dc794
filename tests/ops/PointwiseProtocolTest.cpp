#include <map>

#include "ops/ElementwiseOps.h"
#include "ops/MatrixOps.h"
#include "ops/NormalizationOps.h"
#include "tests/ops/BuiltOp.h"
#include "tests/ops/OpTestSupport.h"

// Types, layouts, canonical attributes and constructors of the elementwise, matrix and normalisation ops.

namespace netforge::ops {
namespace {

using graphrefiner::OpParams;
using test::build;
using test::BuiltOp;
using test::Dims;
using test::expectFailure;
using test::makeTyped;
using test::statics;
using test::tensorOf;

const std::shared_ptr<AxisOrder> spatialFirst = std::make_shared<SpatialFirstAxisOrder>();
const std::shared_ptr<AxisOrder> spatialLast = std::make_shared<SpatialLastAxisOrder>();

const OpParams axes1 = {{"axes", Dims{1}}};
const OpParams ternary = {{"eltwise_type", "ElementWiseSelect"}};

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
