#include "ops/OpFactory.h"

#include <set>
#include <sstream>

#include "ops/OpFactoryTable.h"
#include "tests/ops/BuiltOp.h"
#include "tests/ops/OpTestSupport.h"

namespace netforge::graphrefiner {
namespace {

using test::Dims;
using test::expectFailure;
using U = std::uint32_t;

/// One attribute as text: its name, kind, value and class, tensors with their name, dims and values.
std::string attributeText(const std::string& name, const IrAttribute& attribute) {
  std::ostringstream text;
  text << name << '=';
  if (attribute.attrType == ORLO_PARAMTYPE_TENSOR) {
    const auto& tensor = attribute.tensorValue;
    const bool plain = attribute.dataType == ORLO_DATATYPE_UINT_32 &&
                       tensor->getDataType() == ORLO_DATATYPE_UINT_32 &&
                       tensor->getTensorType() == TensorType::Static &&
                       tensor->getAxisFormat() == AxisFormat::NOT_YET_DEFINED &&
                       tensor->getSrcAxisFormat() == AxisFormat::NOT_YET_DEFINED && !tensor->isDataBorrowed();
    text << (plain ? "" : "NOT PLAIN ") << tensor->getName() << concatText(tensor->getDims()) << '{';
    for (U i = 0; i < tensor->getDataSize() / 4; ++i) text << (i > 0 ? "," : "") << tensor->getElement(i);
    text << '}';
  } else if (attribute.dataType == ORLO_DATATYPE_FLOAT_32) {
    text << "f32:" << attribute.floatValue;
  } else if (attribute.dataType == ORLO_DATATYPE_STRING) {
    text << "str:" << attribute.stringValue;
  } else {
    const char* kind = attribute.dataType == ORLO_DATATYPE_UINT_32  ? "u32:"
                       : attribute.dataType == ORLO_DATATYPE_INT_32 ? "i32:"
                       : attribute.dataType == ORLO_DATATYPE_UINT_8 ? "u8:"
                       : attribute.dataType == ORLO_DATATYPE_BOOL_8 ? "bool:"
                                                                    : "?:";
    text << kind << attribute.intValue;
  }
  text << '/' << static_cast<int>(attribute.attrClass);
  return text.str();
}

/// All attributes but "packageName", in map order, one blank between.
std::string attributesText(const ops::IrOp& op) {
  std::string text;
  for (const auto& [name, attribute] : op.getAttributes()->entries()) {
    if (name == "packageName") continue;
    if (!text.empty()) text += ' ';
    text += attributeText(name, attribute);
  }
  return text;
}

struct FactoryCase {
  const char* type;
  OpParams params;
  const char* expected;
};

void checkCase(const std::string& type, const OpParams& params, const std::string& expected) {
  SCOPED_TRACE(type);
  const auto op = createOp(type, "n", params);
  EXPECT_EQ(op->getName(), "n");
  EXPECT_EQ(op->getType(), type);
  EXPECT_EQ(attributesText(*op), expected);
  EXPECT_EQ(op->numInputs() + op->numOutputs(), 0u);
}

void checkCases(const std::vector<FactoryCase>& cases) {
  for (const FactoryCase& c : cases) checkCase(c.type, c.params, c.expected);
}

/// Every optional parameter of any type, none with its default.
OpParams everyOptionalParameter() {
  return {{"axis", -3},
          {"group", 8u},
          {"dilation", Dims{9, 10}},
          {"padding_size_strategy", std::uint8_t{1}},
          {"bias_op_name", "b"},
          {"reuse_sparse_indices", true},
          {"reuse_sparse_indicies", true},
          {"output_padding", Dims{11, 12}},
          {"output_size", Dims{13, 14}},
          {"mode", 1u},
          {"min_value", -1.5f},
          {"max_value", 6.0f},
          {"keep_dims", true},
          {"transpose_a", true},
          {"transpose_b", false},
          {"hidden_size", 7u},
          {"h_0_input_name", "h"},
          {"c_0_input_name", "c"},
          {"direction", 1u},
          {"time_major", false},
          {"linear_before_reset", 1u},
          {"activation", "A"},
          {"gate_activation", "B"},
          {"rec_gate_activation", "C"},
          {"reset_state_at_time_step_0", true},
          {"cell_clip_threshold", 2.0f},
          {"output_clip_threshold", 3.0f},
          {"sequence_continuation_name", "s"},
          {"x_static_name", "x"},
          {"scale", 0.25f},
          {"epsilon", 0.5f},
          {"transpose_in0", true},
          {"transpose_in1", true},
          {"pad_constant_value", 9.0f},
          {"beta", 2.5f},
          {"begin_mask", 2u},
          {"end_mask", 3u},
          {"shrink_axes", 4u},
          {"new_axes_mask", 5u},
          {"largest", false}};
}

struct TypeCase {
  const char* type;
  const char* few;             // what comes out of the mandatory parameters
  const char* full = nullptr;  // and of all parameters of all types; null when nothing is added
};

// A type takes its own parameters, the class fills in the rest, and neither takes any other's.
TEST(OpFactory, EveryTypeWithFewAndWithAllParameters) {
  const TypeCase cases[] = {
      {"Batchnorm", ""},
      {"Cast", ""},
      {"Concat", "axis=i32:-1/1", "axis=i32:-3/1"},
      {"Conv2d",
       "bias_op_name=str:/2 dilation=dilation[2]{1,1}/1 group=u32:1/1 "
       "pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:5/2 reuse_sparse_indices=bool:0/1 stride=n_stride[2]{2,3}/1",
       "bias_op_name=str:b/2 dilation=n_dilation[2]{9,10}/1 group=u32:8/1 "
       "pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:1/2 reuse_sparse_indices=bool:1/1 stride=n_stride[2]{2,3}/1"},
      {"Conv3d",
       "bias_op_name=str:/2 dilation=dilation[3]{1,1,1}/1 group=u32:1/1 "
       "pad_amount=n_pad_amount[3,2]{5,6,7,8,9,10}/1 padding_size_strategy=u8:5/2 "
       "reuse_sparse_indicies=bool:0/1 stride=n_stride[2]{2,3}/1",
       "bias_op_name=str:b/2 dilation=n_dilation[2]{9,10}/1 group=u32:8/1 "
       "pad_amount=n_pad_amount[3,2]{5,6,7,8,9,10}/1 padding_size_strategy=u8:1/2 "
       "reuse_sparse_indicies=bool:1/1 stride=n_stride[2]{2,3}/1"},
      {"CreateSparse", ""},
      {"DepthToSpace", "block_size=n_block_size[2]{3,4}/1 mode=u32:0/1",
       "block_size=n_block_size[2]{3,4}/1 mode=u32:1/1"},
      {"DepthWiseConv2d",
       "bias_op_name=str:/2 dilation=dilation[2]{1,1}/1 pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:5/2 stride=n_stride[2]{2,3}/1",
       "bias_op_name=str:b/2 dilation=n_dilation[2]{9,10}/1 pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:1/2 stride=n_stride[2]{2,3}/1"},
      {"ElementWiseMux", ""},
      {"ElementWiseNeuron", "operation=u32:4/1", "max_value=f32:6/1 min_value=f32:-1.5/1 operation=u32:4/1"},
      {"Eltwise_Binary", "operation=u32:4/1"},
      {"Eltwise_Ternary", "eltwise_type=str:ElementWiseSelect/2"},
      {"Eltwise_Unary", "operation=u32:4/1"},
      {"Expand", "shape=n_shape[2]{6,2}/1"},
      {"ExpandDims", "axes=n_axes[2]{2,0}/1"},
      {"FullyConnected", "bias_op_name=str:/2 keep_dims=bool:0/1 transpose_a=bool:0/3 transpose_b=bool:1/3",
       "bias_op_name=str:b/2 keep_dims=bool:1/1 transpose_a=bool:1/3 transpose_b=bool:0/3"},
      {"Gather", "axis=i32:-2/1"},
      {"GatherElements", "axis=u32:0/1"},
      {"GatherNd", "batch_dims=i32:1/1"},
      {"GetSparseIndices", "num_specified_elements=u32:9/2"},
      {"GetSparseValues", "num_specified_elements=u32:9/2"},
      {"Gru",
       "activation=str:Sigmoid/3 direction=u32:0/1 gate_activation=str:Sigmoid/3 h_0_input_name=str:/2 "
       "linear_before_reset=u32:0/1 rec_gate_activation=str:Tanh/3 time_major=bool:1/1",
       "activation=str:A/3 direction=u32:1/1 gate_activation=str:B/3 h_0_input_name=str:h/2 "
       "hidden_size=u32:7/2 linear_before_reset=u32:1/1 rec_gate_activation=str:C/3 time_major=bool:0/1"},
      {"HadamardTransform", "scale=f32:1/1", "scale=f32:0.25/1"},
      {"Inverse", ""},
      {"LayerNorm", "axes=n_axes[2]{2,0}/1 epsilon=f32:0.001/1", "axes=n_axes[2]{2,0}/1 epsilon=f32:0.5/1"},
      {"Lstm",
       "c_0_input_name=str:/2 cell_clip_threshold=f32:0/1 cell_gate_qscale=f32:0/1 direction=u32:0/1 "
       "forget_gate_qscale=f32:0/1 h_0_input_name=str:/2 hidden_state_offset=i32:0/1 "
       "hidden_state_qscale=f32:0/1 input_gate_qscale=f32:0/1 output_clip_threshold=f32:0/1 "
       "output_gate_qscale=f32:0/1 reset_state_at_time_step_0=bool:0/2 sequence_continuation_name=str:/3 "
       "time_major=bool:1/1 x_static_name=str:/3",
       "c_0_input_name=str:c/2 cell_clip_threshold=f32:2/1 cell_gate_qscale=f32:0/1 direction=u32:1/1 "
       "forget_gate_qscale=f32:0/1 h_0_input_name=str:h/2 hidden_size=u32:7/2 hidden_state_offset=i32:0/1 "
       "hidden_state_qscale=f32:0/1 input_gate_qscale=f32:0/1 output_clip_threshold=f32:3/1 "
       "output_gate_qscale=f32:0/1 reset_state_at_time_step_0=bool:1/2 sequence_continuation_name=str:s/3 "
       "time_major=bool:0/1 x_static_name=str:x/3"},
      {"MatMul", "transpose_in0=bool:0/1 transpose_in1=bool:0/1",
       "transpose_in0=bool:1/1 transpose_in1=bool:1/1"},
      {"Mean", ""},
      {"Pack", "", "axis=i32:-3/1"},
      {"Pad", "pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 pad_constant_value=f32:0/1 scheme=u32:1/1",
       "pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 pad_constant_value=f32:9/1 scheme=u32:1/1"},
      {"Prelu", ""},
      {"Reduce", "axes=n_axes[2]{2,0}/1 keep_dims=bool:0/1 reduce_type=str:ReduceSum/2",
       "axes=n_axes[2]{2,0}/1 keep_dims=bool:1/1 reduce_type=str:ReduceSum/2"},
      {"ReduceL2", "axes=n_axes[2]{2,0}/1 keep_dims=bool:0/1", "axes=n_axes[2]{2,0}/1 keep_dims=bool:1/1"},
      {"Reshape", "shape=n_shape[2]{6,2}/2"},
      {"RmsNorm", "axes=n_axes[2]{2,0}/1 epsilon=f32:0.001/1", "axes=n_axes[2]{2,0}/1 epsilon=f32:0.5/1"},
      {"Softmax", "axis=i32:-1/1", "axis=i32:-3/1 beta=f32:2.5/1"},
      {"SpaceToDepth", "block_size=n_block_size[2]{3,4}/1 data_format=str:NHWC/3 mode=u32:0/1",
       "block_size=n_block_size[2]{3,4}/1 data_format=str:NHWC/3 mode=u32:1/1"},
      {"Split", "axis=i32:-2/1 split_index=n_split_index[2]{2,5}/1"},
      {"StridedSlice",
       "begin_mask=u32:0/1 end_mask=u32:0/1 new_axes_mask=u32:0/1 ranges=n_ranges[6]{0,4,2,1,9,3}/1 "
       "shrink_axes=u32:0/1",
       "begin_mask=u32:2/1 end_mask=u32:3/1 new_axes_mask=u32:5/1 ranges=n_ranges[6]{0,4,2,1,9,3}/1 "
       "shrink_axes=u32:4/1"},
      {"ThresholdedRelu", "alpha=f32:1.5/1"},
      {"Tile", "multiples=n_multiples[2]{1,3}/1"},
      {"TopK", "k=u32:3/1 largest=bool:1/1", "k=u32:3/1 largest=bool:0/1"},
      {"Transpose", "perm=n_perm[3]{2,0,1}/1"},
      {"TransposeConv2d",
       "bias_op_name=str:/2 group=u32:1/1 output_padding=output_padding[2]{0,0}/1 "
       "output_size=output_size[2]{0,0}/2 pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:5/2 stride=n_stride[2]{2,3}/1",
       "bias_op_name=str:b/2 group=u32:8/1 output_padding=n_output_padding[2]{11,12}/1 "
       "output_size=n_output_size[2]{13,14}/2 pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:1/2 stride=n_stride[2]{2,3}/1"},
      {"TransposeConv3d",
       "bias_op_name=str:/2 dilation=dilation[3]{1,1,1}/1 group=u32:1/1 "
       "output_padding=output_padding[3]{0,0,0}/1 output_size=output_size[3]{0,0,0}/2 "
       "pad_amount=n_pad_amount[3,2]{5,6,7,8,9,10}/1 padding_size_strategy=u8:5/2 stride=n_stride[2]{2,3}/1",
       "bias_op_name=str:b/2 dilation=n_dilation[2]{9,10}/1 group=u32:8/1 "
       "output_padding=n_output_padding[2]{11,12}/1 output_size=n_output_size[2]{13,14}/2 "
       "pad_amount=n_pad_amount[3,2]{5,6,7,8,9,10}/1 padding_size_strategy=u8:1/2 stride=n_stride[2]{2,3}/1"},
  };
  std::set<std::string> types;
  for (const TypeCase& c : cases) {
    const std::string type = c.type;
    types.insert(type);
    OpParams few = test::everyMandatoryParameter();
    if (type.find("3d") != std::string::npos) few["pad_amount"] = Dims{5, 6, 7, 8, 9, 10};
    OpParams full = few;
    full.merge(everyOptionalParameter());
    if (type == "Concat" || type == "Pack" || type == "Softmax") {
      few.erase("axis");
      full["axis"] = -3;
    }
    checkCase(type, few, c.few);
    checkCase(type, full, c.full == nullptr ? c.few : c.full);
  }
  EXPECT_EQ(types.size(), 45u);
  EXPECT_EQ(opRules().size(), 45u);
}

TEST(OpFactory, NeuronDefaultsDependOnTheOperation) {
  checkCases({
      {"ElementWiseNeuron", {{"operation", 0u}}, "alpha=f32:1/1 operation=u32:0/1"},
      {"ElementWiseNeuron", {{"operation", 2u}}, "alpha=f32:0.2/1 beta=f32:0.5/1 operation=u32:2/1"},
      {"ElementWiseNeuron", {{"operation", 7u}}, "beta=f32:1/1 operation=u32:7/1 threshold=f32:-1/1"},
      {"ElementWiseNeuron", {{"operation", 8u}, {"max_value", 3.0f}}, "max_value=f32:3/1 operation=u32:8/1"},
  });
  expectFailure<std::runtime_error>(
      "netforge::IrAttributes::assertAttrExists: Attribute 'max_value' not present. Available attributes "
      "count: 2",
      [] {
        createOp("ElementWiseNeuron", "n", {{"operation", 5u}, {"min_value", 0.0f}});
      });
}

TEST(OpFactory, ParametersAreReadFromOneFieldAlone) {
  // A signed literal is not visible to a factory that reads the unsigned field, and the other way round.
  checkCases({
      {"Eltwise_Binary", {{"operation", 13}}, "operation=u32:0/1"},
      {"Concat", {{"axis", 2u}}, "axis=u32:2/1"},
      {"Gather", {{"axis", 2.0f}}, "axis=i32:0/1"},
      {"Gather", {{"axis", 2u}}, "axis=i32:0/1"},
      {"GatherElements", {{"axis", -1}}, "axis=u32:0/1"},
      {"Reduce",
       {{"reduce_type", std::string("R")}, {"axes", Dims{1}}, {"unknown", 1u}},
       "axes=n_axes[1]{1}/1 keep_dims=bool:0/1 reduce_type=str:R/2"},
  });
}

TEST(OpFactory, PackageNameIsAddedUnlessGiven) {
  for (const OpRule& rule : opRules()) {
    SCOPED_TRACE(rule.type);
    OpParams params = test::everyMandatoryParameter();
    const auto plain = createOp(rule.type, "n", params)->getAttributes();
    EXPECT_EQ(plain->getAttr<std::string>("packageName"), "orlo.base");
    EXPECT_TRUE(plain->isSupplemental("packageName"));
    params["packageName"] = "mine";
    const auto given = createOp(rule.type, "n", params)->getAttributes();
    EXPECT_EQ(given->getAttr<std::string>("packageName"), "mine");
    EXPECT_TRUE(given->isSupplemental("packageName"));
  }
}

struct MandatoryCase {
  const char* type;
  const char* className;  // the factory is "create" and this
  const char* word;       // what the failure calls the op
  std::vector<const char*> parameters;
};

TEST(OpFactory, EveryMandatoryParameterIsMissedByName) {
  const std::vector<const char*> conv = {"stride", "pad_amount"};
  const std::vector<MandatoryCase> cases = {
      {"Conv2d", "Conv2dOp", "Conv2D", conv},
      {"Conv3d", "Conv3dOp", "Conv3D", conv},
      {"DepthToSpace", "DepthToSpaceOp", "DepthToSpace", {"block_size"}},
      {"DepthWiseConv2d", "DepthwiseConv2dOp", "DepthwiseConv2D", conv},
      {"ElementWiseNeuron", "ElementwiseNeuronOp", "ElementWiseNeuron", {"operation"}},
      {"Eltwise_Binary", "ElementwiseBinaryOp", "ElementWiseBinary", {"operation"}},
      {"Eltwise_Ternary", "ElementwiseTernaryOp", "ElementwiseTernary", {"eltwise_type"}},
      {"Eltwise_Unary", "ElementwiseUnaryOp", "ElementWiseUnary", {"operation"}},
      {"Expand", "ExpandOp", "Expand", {"shape"}},
      {"ExpandDims", "ExpandDimsOp", "ExpandDims", {"axes"}},
      {"Gather", "GatherOp", "Gather", {"axis"}},
      {"GatherElements", "GatherElementsOp", "GatherElements", {"axis"}},
      {"GatherNd", "GatherNDOp", "GatherND", {"batch_dims"}},
      {"GetSparseIndices", "GetSparseIndicesOp", "GetSparseIndices", {"num_specified_elements"}},
      {"GetSparseValues", "GetSparseValuesOp", "GetSparseValuesOp", {"num_specified_elements"}},
      {"LayerNorm", "LayerNormOp", "LayerNorm", {"axes"}},
      {"Pad", "PadOp", "Pad", {"pad_amount", "scheme"}},
      {"Reduce", "ReduceOp", "Reduce", {"reduce_type", "axes"}},
      {"ReduceL2", "ReduceL2Op", "ReduceL2", {"axes"}},
      {"Reshape", "ReshapeOp", "Reshape", {"shape"}},
      {"RmsNorm", "RMSNormOp", "RmsNorm", {"axes"}},
      {"SpaceToDepth", "SpaceToDepthOp", "SpaceToDepth", {"block_size"}},
      {"Split", "SplitOp", "Split", {"axis", "split_index"}},
      {"StridedSlice", "StridedSliceOp", "StridedSlice", {"ranges"}},
      {"ThresholdedRelu", "ThresholdedReluOp", "ThresholdedRelu", {"alpha"}},
      {"Tile", "TileOp", "Tile", {"multiples"}},
      {"TopK", "TopKOp", "TopK", {"k"}},
      {"Transpose", "TransposeOp", "Transpose", {"perm"}},
      {"TransposeConv2d", "TransposeConv2dOp", "TransposeConv2D", conv},
      {"TransposeConv3d", "TransposeConv3dOp", "TransposeConv3D", conv},
  };
  for (const MandatoryCase& c : cases) {
    for (const std::string parameter : c.parameters) {
      SCOPED_TRACE(c.type + parameter);
      OpParams params = test::everyMandatoryParameter();
      ASSERT_EQ(params.erase(parameter), 1u);
      const bool unnamed = std::string(c.type) == "ElementWiseNeuron";
      expectFailure<std::runtime_error>(std::string("netforge::graphrefiner::create") + c.className + ": " +
                                            c.word + " op 'n': Mandatory attribute " +
                                            (unnamed ? "value" : "'" + parameter + "'") + " not supplied",
                                        [&] { createOp(c.type, "n", params); });
    }
  }
}

TEST(OpFactory, RefusesValuesThatTheTypeTests) {
  const std::string head = "netforge::graphrefiner::";
  for (const char* type : {"Concat", "Pack", "Softmax", "Split"}) {
    const std::string text = head + "create" + type + "Op: " + type +
                             " op 'n': Invalid type for axis parameter, expected INT32 or UINT32";
    for (const OpParam& axis : {OpParam(1.0f), OpParam(true), OpParam("1"), OpParam()}) {
      expectFailure<std::runtime_error>(text, [&] {
        createOp(type, "n", {{"axis", axis}, {"split_index", Dims{1}}});
      });
    }
  }
  expectFailure<std::runtime_error>(
      head +
          "createDepthToSpaceOp: DepthToSpace block size must have exactly 2 elements (height, width), got 3",
      [] {
        createOp("DepthToSpace", "n", {{"block_size", Dims{2, 2, 2}}});
      });
  expectFailure<std::runtime_error>(
      head +
          "createSpaceToDepthOp: SpaceToDepth block size must have exactly 2 elements (height, width), got 1",
      [] {
        createOp("SpaceToDepth", "n", {{"block_size", Dims{2}}});
      });
  for (const char* type : {"ColorTransform", "Convert", "Dequantize", "Gelu", "Eltwise_unary", ""}) {
    expectFailure<std::runtime_error>(head + "createOp: Op not supported: " + type, [&] {
      createOp(type, "n", {{"axis", 1.0f}});
    });
  }
}

}  // namespace
}  // namespace netforge::graphrefiner
