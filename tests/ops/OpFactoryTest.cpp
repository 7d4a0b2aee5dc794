#include "ops/OpFactory.h"

#include <set>
#include <sstream>
#include <typeinfo>

#include "ops/OpFactoryTable.h"
#include "ops/TranslationRegistry.h"
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

void checkCases(const std::vector<FactoryCase>& cases) {
  for (const FactoryCase& c : cases) {
    SCOPED_TRACE(c.type);
    const auto op = createOp(c.type, "n", c.params);
    EXPECT_EQ(op->getName(), "n");
    EXPECT_EQ(op->getType(), c.type);
    EXPECT_EQ(attributesText(*op), c.expected);
    EXPECT_EQ(op->numInputs() + op->numOutputs(), 0u);
  }
}

// Only the mandatory parameters: what comes out is what the classes fill in.
std::vector<FactoryCase> fewCases() {
  const OpParams pads2d = {{"stride", Dims{2, 3}}, {"pad_amount", Dims{4, 5, 6, 7}}};
  const OpParams pads3d = {{"stride", Dims{2, 3, 4}}, {"pad_amount", Dims{5, 6, 7, 8, 9, 10}}};
  return {
      {"Batchnorm", {}, ""},
      {"Cast", {}, ""},
      {"Concat", {}, "axis=i32:-1/1"},
      {"Conv2d", pads2d,
       "bias_op_name=str:/2 dilation=dilation[2]{1,1}/1 group=u32:1/1 "
       "pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:5/2 reuse_sparse_indices=bool:0/1 stride=n_stride[2]{2,3}/1"},
      {"Conv3d", pads3d,
       "bias_op_name=str:/2 dilation=dilation[3]{1,1,1}/1 group=u32:1/1 "
       "pad_amount=n_pad_amount[3,2]{5,6,7,8,9,10}/1 padding_size_strategy=u8:5/2 "
       "reuse_sparse_indicies=bool:0/1 stride=n_stride[3]{2,3,4}/1"},
      {"CreateSparse", {}, ""},
      {"DepthToSpace", {{"block_size", Dims{2, 3}}}, "block_size=n_block_size[2]{2,3}/1 mode=u32:0/1"},
      {"DepthWiseConv2d", pads2d,
       "bias_op_name=str:/2 dilation=dilation[2]{1,1}/1 pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:5/2 stride=n_stride[2]{2,3}/1"},
      {"ElementWiseMux", {}, ""},
      {"ElementWiseNeuron", {{"operation", 4u}}, "operation=u32:4/1"},
      {"Eltwise_Binary", {{"operation", 13u}}, "operation=u32:13/1"},
      {"Eltwise_Ternary", {{"eltwise_type", "ElementWiseSelect"}}, "eltwise_type=str:ElementWiseSelect/2"},
      {"Eltwise_Unary", {{"operation", 8u}}, "operation=u32:8/1"},
      {"Expand", {{"shape", Dims{2, 3}}}, "shape=n_shape[2]{2,3}/1"},
      {"ExpandDims", {{"axes", Dims{0, 2}}}, "axes=n_axes[2]{0,2}/1"},
      {"FullyConnected",
       {},
       "bias_op_name=str:/2 keep_dims=bool:0/1 transpose_a=bool:0/3 transpose_b=bool:1/3"},
      {"Gather", {{"axis", -2}}, "axis=i32:-2/1"},
      {"GatherElements", {{"axis", 2u}}, "axis=u32:2/1"},
      {"GatherNd", {{"batch_dims", 1}}, "batch_dims=i32:1/1"},
      {"GetSparseIndices", {{"num_specified_elements", 9u}}, "num_specified_elements=u32:9/2"},
      {"GetSparseValues", {{"num_specified_elements", 9u}}, "num_specified_elements=u32:9/2"},
      {"Gru",
       {},
       "activation=str:Sigmoid/3 direction=u32:0/1 gate_activation=str:Sigmoid/3 h_0_input_name=str:/2 "
       "linear_before_reset=u32:0/1 rec_gate_activation=str:Tanh/3 time_major=bool:1/1"},
      {"HadamardTransform", {}, "scale=f32:1/1"},
      {"Inverse", {}, ""},
      {"LayerNorm", {{"axes", Dims{1, 2}}}, "axes=n_axes[2]{1,2}/1 epsilon=f32:0.001/1"},
      {"Lstm",
       {},
       "c_0_input_name=str:/2 cell_clip_threshold=f32:0/1 cell_gate_qscale=f32:0/1 direction=u32:0/1 "
       "forget_gate_qscale=f32:0/1 h_0_input_name=str:/2 hidden_state_offset=i32:0/1 "
       "hidden_state_qscale=f32:0/1 input_gate_qscale=f32:0/1 output_clip_threshold=f32:0/1 "
       "output_gate_qscale=f32:0/1 reset_state_at_time_step_0=bool:0/2 sequence_continuation_name=str:/3 "
       "time_major=bool:1/1 x_static_name=str:/3"},
      {"MatMul", {}, "transpose_in0=bool:0/1 transpose_in1=bool:0/1"},
      {"Mean", {}, ""},
      {"Pack", {}, ""},
      {"Pad",
       {{"pad_amount", Dims{1, 2, 3, 4, 5, 6}}, {"scheme", 1u}},
       "pad_amount=n_pad_amount[3,2]{1,2,3,4,5,6}/1 pad_constant_value=f32:0/1 scheme=u32:1/1"},
      {"Prelu", {}, ""},
      {"Reduce",
       {{"reduce_type", "ReduceSum"}, {"axes", Dims{1}}},
       "axes=n_axes[1]{1}/1 keep_dims=bool:0/1 reduce_type=str:ReduceSum/2"},
      {"ReduceL2", {{"axes", Dims{2, 0}}}, "axes=n_axes[2]{2,0}/1 keep_dims=bool:0/1"},
      {"Reshape", {{"shape", Dims{6, 4}}}, "shape=n_shape[2]{6,4}/2"},
      {"RmsNorm", {{"axes", Dims{2}}}, "axes=n_axes[1]{2}/1 epsilon=f32:0.001/1"},
      {"Softmax", {}, "axis=i32:-1/1"},
      {"SpaceToDepth",
       {{"block_size", Dims{3, 2}}},
       "block_size=n_block_size[2]{3,2}/1 data_format=str:NHWC/3 mode=u32:0/1"},
      {"Split",
       {{"axis", 1u}, {"split_index", Dims{2, 5}}},
       "axis=u32:1/1 split_index=n_split_index[2]{2,5}/1"},
      {"StridedSlice",
       {{"ranges", Dims{0, 4, 2, 1, 9, 3}}},
       "begin_mask=u32:0/1 end_mask=u32:0/1 new_axes_mask=u32:0/1 ranges=n_ranges[6]{0,4,2,1,9,3}/1 "
       "shrink_axes=u32:0/1"},
      {"ThresholdedRelu", {{"alpha", 0.5f}}, "alpha=f32:0.5/1"},
      {"Tile", {{"multiples", Dims{1, 3}}}, "multiples=n_multiples[2]{1,3}/1"},
      {"TopK", {{"k", 3u}}, "k=u32:3/1 largest=bool:1/1"},
      {"Transpose", {{"perm", Dims{2, 0, 1}}}, "perm=n_perm[3]{2,0,1}/1"},
      {"TransposeConv2d", pads2d,
       "bias_op_name=str:/2 group=u32:1/1 output_padding=output_padding[2]{0,0}/1 "
       "output_size=output_size[2]{0,0}/2 pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:5/2 stride=n_stride[2]{2,3}/1"},
      {"TransposeConv3d", pads3d,
       "bias_op_name=str:/2 dilation=dilation[3]{1,1,1}/1 group=u32:1/1 "
       "output_padding=output_padding[3]{0,0,0}/1 output_size=output_size[3]{0,0,0}/2 "
       "pad_amount=n_pad_amount[3,2]{5,6,7,8,9,10}/1 padding_size_strategy=u8:5/2 "
       "stride=n_stride[3]{2,3,4}/1"},
  };
}

TEST(OpFactory, FewParametersAreFilledUpByTheClass) {
  const auto cases = fewCases();
  checkCases(cases);
  std::set<std::string> types;
  for (const FactoryCase& c : cases) types.insert(c.type);
  EXPECT_EQ(types.size(), 45u);
  EXPECT_EQ(opRules().size(), 45u);
}

TEST(OpFactory, EveryGivenParameterArrivesInPlaceOfTheDefault) {
  const OpParams conv = {{"stride", Dims{2, 3}},
                         {"pad_amount", Dims{4, 5, 6, 7}},
                         {"group", 8u},
                         {"dilation", Dims{9, 10}},
                         {"padding_size_strategy", std::uint8_t{1}},
                         {"bias_op_name", "b"},
                         {"reuse_sparse_indices", true},
                         {"reuse_sparse_indicies", true},
                         {"output_padding", Dims{11, 12}},
                         {"output_size", Dims{13, 14}}};
  OpParams conv3d = conv;
  conv3d["stride"] = Dims{2, 3, 4};
  conv3d["pad_amount"] = Dims{5, 6, 7, 8, 9, 10};
  checkCases({
      {"Concat", {{"axis", 2u}}, "axis=u32:2/1"},
      {"Concat", {{"axis", -3}}, "axis=i32:-3/1"},
      {"Conv2d", conv,
       "bias_op_name=str:b/2 dilation=n_dilation[2]{9,10}/1 group=u32:8/1 "
       "pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 padding_size_strategy=u8:1/2 reuse_sparse_indices=bool:1/1 "
       "stride=n_stride[2]{2,3}/1"},
      {"Conv3d", conv3d,
       "bias_op_name=str:b/2 dilation=n_dilation[2]{9,10}/1 group=u32:8/1 "
       "pad_amount=n_pad_amount[3,2]{5,6,7,8,9,10}/1 padding_size_strategy=u8:1/2 "
       "reuse_sparse_indicies=bool:1/1 stride=n_stride[3]{2,3,4}/1"},
      {"DepthToSpace",
       {{"block_size", Dims{2, 3}}, {"mode", 1u}},
       "block_size=n_block_size[2]{2,3}/1 mode=u32:1/1"},
      {"DepthWiseConv2d", conv,
       "bias_op_name=str:b/2 dilation=n_dilation[2]{9,10}/1 pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:1/2 stride=n_stride[2]{2,3}/1"},
      {"ElementWiseNeuron",
       {{"operation", 5u}, {"min_value", -1.5f}, {"max_value", 6.0f}},
       "max_value=f32:6/1 min_value=f32:-1.5/1 operation=u32:5/1"},
      {"FullyConnected",
       {{"keep_dims", true}, {"transpose_a", true}, {"transpose_b", false}, {"bias_op_name", "b"}},
       "bias_op_name=str:b/2 keep_dims=bool:1/1 transpose_a=bool:1/3 transpose_b=bool:0/3"},
      {"Gru",
       {{"hidden_size", 7u},
        {"h_0_input_name", "h"},
        {"direction", 1u},
        {"time_major", false},
        {"linear_before_reset", 1u},
        {"activation", "A"},
        {"gate_activation", "B"},
        {"rec_gate_activation", "C"}},
       "activation=str:A/3 direction=u32:1/1 gate_activation=str:B/3 h_0_input_name=str:h/2 "
       "hidden_size=u32:7/2 linear_before_reset=u32:1/1 rec_gate_activation=str:C/3 time_major=bool:0/1"},
      {"HadamardTransform", {{"scale", 0.25f}}, "scale=f32:0.25/1"},
      {"LayerNorm", {{"axes", Dims{1}}, {"epsilon", 0.5f}}, "axes=n_axes[1]{1}/1 epsilon=f32:0.5/1"},
      {"Lstm",
       {{"hidden_size", 7u},
        {"reset_state_at_time_step_0", true},
        {"h_0_input_name", "h"},
        {"c_0_input_name", "c"},
        {"direction", 1u},
        {"time_major", false},
        {"cell_clip_threshold", 2.0f},
        {"output_clip_threshold", 3.0f},
        {"sequence_continuation_name", "s"},
        {"x_static_name", "x"}},
       "c_0_input_name=str:c/2 cell_clip_threshold=f32:2/1 cell_gate_qscale=f32:0/1 direction=u32:1/1 "
       "forget_gate_qscale=f32:0/1 h_0_input_name=str:h/2 hidden_size=u32:7/2 hidden_state_offset=i32:0/1 "
       "hidden_state_qscale=f32:0/1 input_gate_qscale=f32:0/1 output_clip_threshold=f32:3/1 "
       "output_gate_qscale=f32:0/1 reset_state_at_time_step_0=bool:1/2 sequence_continuation_name=str:s/3 "
       "time_major=bool:0/1 x_static_name=str:x/3"},
      {"MatMul",
       {{"transpose_in0", true}, {"transpose_in1", true}},
       "transpose_in0=bool:1/1 transpose_in1=bool:1/1"},
      {"Pack", {{"axis", -1}}, "axis=i32:-1/1"},
      {"Pad",
       {{"pad_amount", Dims{1, 2}}, {"scheme", 0u}, {"pad_constant_value", 9.0f}},
       "pad_amount=n_pad_amount[1,2]{1,2}/1 pad_constant_value=f32:9/1 scheme=u32:0/1"},
      {"Reduce",
       {{"reduce_type", "ReduceMax"}, {"axes", Dims{}}, {"keep_dims", true}},
       "axes=n_axes[0]{}/1 keep_dims=bool:1/1 reduce_type=str:ReduceMax/2"},
      {"ReduceL2", {{"axes", Dims{1}}, {"keep_dims", true}}, "axes=n_axes[1]{1}/1 keep_dims=bool:1/1"},
      {"RmsNorm", {{"axes", Dims{1}}, {"epsilon", 0.5f}}, "axes=n_axes[1]{1}/1 epsilon=f32:0.5/1"},
      {"Softmax", {{"axis", 1u}, {"beta", 2.0f}}, "axis=u32:1/1 beta=f32:2/1"},
      {"SpaceToDepth",
       {{"block_size", Dims{2, 3}}, {"mode", 1u}},
       "block_size=n_block_size[2]{2,3}/1 data_format=str:NHWC/3 mode=u32:1/1"},
      {"StridedSlice",
       {{"ranges", Dims{0, 1, 1}},
        {"begin_mask", 2u},
        {"end_mask", 3u},
        {"shrink_axes", 4u},
        {"new_axes_mask", 5u}},
       "begin_mask=u32:2/1 end_mask=u32:3/1 new_axes_mask=u32:5/1 ranges=n_ranges[3]{0,1,1}/1 "
       "shrink_axes=u32:4/1"},
      {"TopK", {{"k", 3u}, {"largest", false}}, "k=u32:3/1 largest=bool:0/1"},
      {"TransposeConv2d", conv,
       "bias_op_name=str:b/2 group=u32:8/1 output_padding=n_output_padding[2]{11,12}/1 "
       "output_size=n_output_size[2]{13,14}/2 pad_amount=n_pad_amount[2,2]{4,5,6,7}/1 "
       "padding_size_strategy=u8:1/2 stride=n_stride[2]{2,3}/1"},
      {"TransposeConv3d", conv3d,
       "bias_op_name=str:b/2 dilation=n_dilation[2]{9,10}/1 group=u32:8/1 "
       "output_padding=n_output_padding[2]{11,12}/1 output_size=n_output_size[2]{13,14}/2 "
       "pad_amount=n_pad_amount[3,2]{5,6,7,8,9,10}/1 padding_size_strategy=u8:1/2 "
       "stride=n_stride[3]{2,3,4}/1"},
  });
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
      "count: 3",
      [] {
        createOp("ElementWiseNeuron", "n", {{"operation", 5u}, {"min_value", 0.0f}});
      });
}

TEST(OpFactory, ParametersAreReadFromOneFieldAlone) {
  // A signed literal is not visible to a factory that reads the unsigned field, and the other way round.
  checkCases({
      {"Eltwise_Binary", {{"operation", 13}}, "operation=u32:0/1"},
      {"Gather", {{"axis", 2.0f}}, "axis=i32:0/1"},
      {"Gather", {{"axis", 2u}}, "axis=i32:0/1"},
      {"GatherElements", {{"axis", -1}}, "axis=u32:0/1"},
      {"Reduce",
       {{"reduce_type", std::string("R")}, {"axes", Dims{1}}, {"unknown", 1u}},
       "axes=n_axes[1]{1}/1 keep_dims=bool:0/1 reduce_type=str:R/2"},
  });
}

TEST(OpFactory, PackageNameIsAddedUnlessGiven) {
  for (const FactoryCase& c : fewCases()) {
    SCOPED_TRACE(c.type);
    OpParams params = c.params;
    const auto plain = createOp(c.type, "n", params)->getAttributes();
    EXPECT_EQ(plain->getAttr<std::string>("packageName"), "orlo.base");
    EXPECT_TRUE(plain->isSupplemental("packageName"));
    params["packageName"] = "mine";
    const auto given = createOp(c.type, "n", params)->getAttributes();
    EXPECT_EQ(given->getAttr<std::string>("packageName"), "mine");
    EXPECT_TRUE(given->isSupplemental("packageName"));
  }
}

struct MissingCase {
  const char* type;
  const char* parameter;
  const char* text;
};

TEST(OpFactory, EveryMandatoryParameterIsMissedByName) {
  const std::string head = "netforge::graphrefiner::";
  const MissingCase cases[] = {
      {"Conv2d", "stride", "createConv2dOp: Conv2D op 'n': Mandatory attribute 'stride' not supplied"},
      {"Conv2d", "pad_amount",
       "createConv2dOp: Conv2D op 'n': Mandatory attribute 'pad_amount' not supplied"},
      {"Conv3d", "stride", "createConv3dOp: Conv3D op 'n': Mandatory attribute 'stride' not supplied"},
      {"DepthToSpace", "block_size",
       "createDepthToSpaceOp: DepthToSpace op 'n': Mandatory attribute 'block_size' not supplied"},
      {"DepthWiseConv2d", "pad_amount",
       "createDepthwiseConv2dOp: DepthwiseConv2D op 'n': Mandatory attribute 'pad_amount' not supplied"},
      {"ElementWiseNeuron", "operation",
       "createElementwiseNeuronOp: ElementWiseNeuron op 'n': Mandatory attribute value not supplied"},
      {"Eltwise_Binary", "operation",
       "createElementwiseBinaryOp: ElementWiseBinary op 'n': Mandatory attribute 'operation' not supplied"},
      {"Eltwise_Ternary", "eltwise_type",
       "createElementwiseTernaryOp: ElementwiseTernary op 'n': Mandatory attribute 'eltwise_type' not "
       "supplied"},
      {"Eltwise_Unary", "operation",
       "createElementwiseUnaryOp: ElementWiseUnary op 'n': Mandatory attribute 'operation' not supplied"},
      {"Expand", "shape", "createExpandOp: Expand op 'n': Mandatory attribute 'shape' not supplied"},
      {"ExpandDims", "axes",
       "createExpandDimsOp: ExpandDims op 'n': Mandatory attribute 'axes' not supplied"},
      {"Gather", "axis", "createGatherOp: Gather op 'n': Mandatory attribute 'axis' not supplied"},
      {"GatherElements", "axis",
       "createGatherElementsOp: GatherElements op 'n': Mandatory attribute 'axis' not supplied"},
      {"GatherNd", "batch_dims",
       "createGatherNDOp: GatherND op 'n': Mandatory attribute 'batch_dims' not supplied"},
      {"GetSparseIndices", "num_specified_elements",
       "createGetSparseIndicesOp: GetSparseIndices op 'n': Mandatory attribute 'num_specified_elements' not "
       "supplied"},
      {"GetSparseValues", "num_specified_elements",
       "createGetSparseValuesOp: GetSparseValuesOp op 'n': Mandatory attribute 'num_specified_elements' not "
       "supplied"},
      {"LayerNorm", "axes", "createLayerNormOp: LayerNorm op 'n': Mandatory attribute 'axes' not supplied"},
      {"Pad", "pad_amount", "createPadOp: Pad op 'n': Mandatory attribute 'pad_amount' not supplied"},
      {"Pad", "scheme", "createPadOp: Pad op 'n': Mandatory attribute 'scheme' not supplied"},
      {"Reduce", "reduce_type",
       "createReduceOp: Reduce op 'n': Mandatory attribute 'reduce_type' not supplied"},
      {"Reduce", "axes", "createReduceOp: Reduce op 'n': Mandatory attribute 'axes' not supplied"},
      {"ReduceL2", "axes", "createReduceL2Op: ReduceL2 op 'n': Mandatory attribute 'axes' not supplied"},
      {"Reshape", "shape", "createReshapeOp: Reshape op 'n': Mandatory attribute 'shape' not supplied"},
      {"RmsNorm", "axes", "createRMSNormOp: RmsNorm op 'n': Mandatory attribute 'axes' not supplied"},
      {"SpaceToDepth", "block_size",
       "createSpaceToDepthOp: SpaceToDepth op 'n': Mandatory attribute 'block_size' not supplied"},
      {"Split", "axis", "createSplitOp: Split op 'n': Mandatory attribute 'axis' not supplied"},
      {"Split", "split_index", "createSplitOp: Split op 'n': Mandatory attribute 'split_index' not supplied"},
      {"StridedSlice", "ranges",
       "createStridedSliceOp: StridedSlice op 'n': Mandatory attribute 'ranges' not supplied"},
      {"ThresholdedRelu", "alpha",
       "createThresholdedReluOp: ThresholdedRelu op 'n': Mandatory attribute 'alpha' not supplied"},
      {"Tile", "multiples", "createTileOp: Tile op 'n': Mandatory attribute 'multiples' not supplied"},
      {"TopK", "k", "createTopKOp: TopK op 'n': Mandatory attribute 'k' not supplied"},
      {"Transpose", "perm", "createTransposeOp: Transpose op 'n': Mandatory attribute 'perm' not supplied"},
      {"TransposeConv2d", "stride",
       "createTransposeConv2dOp: TransposeConv2D op 'n': Mandatory attribute 'stride' not supplied"},
      {"TransposeConv3d", "pad_amount",
       "createTransposeConv3dOp: TransposeConv3D op 'n': Mandatory attribute 'pad_amount' not supplied"},
  };
  const auto complete = fewCases();
  for (const MissingCase& c : cases) {
    SCOPED_TRACE(std::string(c.type) + " " + c.parameter);
    OpParams params;
    for (const FactoryCase& f : complete) {
      if (std::string(f.type) == c.type) params = f.params;
    }
    ASSERT_EQ(params.erase(c.parameter), 1u);
    expectFailure<std::runtime_error>(head + c.text, [&] { createOp(c.type, "n", params); });
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

// The registry.

const char* const everyType[] = {"Batchnorm",
                                 "Cast",
                                 "ColorTransform",
                                 "Concat",
                                 "Conv2d",
                                 "Conv3d",
                                 "Convert",
                                 "CreateSparse",
                                 "DepthToSpace",
                                 "DepthWiseConv2d",
                                 "Dequantize",
                                 "Eltwise_Binary",
                                 "Eltwise_Ternary",
                                 "Eltwise_Unary",
                                 "ElementWiseMux",
                                 "ElementWiseNeuron",
                                 "Expand",
                                 "ExpandDims",
                                 "FullyConnected",
                                 "Gather",
                                 "GatherElements",
                                 "GatherNd",
                                 "GetSparseIndices",
                                 "GetSparseValues",
                                 "Gru",
                                 "HadamardTransform",
                                 "Inverse",
                                 "LayerNorm",
                                 "Lstm",
                                 "MatMul",
                                 "Mean",
                                 "Pack",
                                 "Pad",
                                 "Prelu",
                                 "Reduce",
                                 "ReduceL2",
                                 "Reshape",
                                 "RmsNorm",
                                 "Softmax",
                                 "SpaceToDepth",
                                 "Split",
                                 "StridedSlice",
                                 "ThresholdedRelu",
                                 "Tile",
                                 "TopK",
                                 "Transpose",
                                 "TransposeConv2d",
                                 "TransposeConv3d"};

TEST(TranslationRegistry, RebuildsEveryTypeAroundGivenTensors) {
  auto& registry = TranslationRegistry::instance();
  const auto complete = fewCases();
  std::set<std::string> types;
  for (const std::string type : everyType) {
    SCOPED_TRACE(type);
    types.insert(type);
    ASSERT_TRUE(registry.hasMethod(type));
    std::shared_ptr<ops::IrOp> original;
    for (const FactoryCase& f : complete) {
      if (type == f.type) original = createOp(type, "n", f.params);
    }
    const auto attributes = original ? original->getAttributes() : std::make_shared<IrAttributes>();
    const auto inputs = test::tensorsOf({{2, 3}, {3, 5}}, "in");
    const auto outputs = test::tensorsOf({{2, 5}}, "out");
    const auto rebuilt = registry.applyMethod(type, "n", attributes, inputs, outputs);
    EXPECT_EQ(rebuilt->getType(), type);
    EXPECT_EQ(rebuilt->getAttributes(), attributes);
    EXPECT_EQ(rebuilt->getInputs(), inputs);
    EXPECT_EQ(rebuilt->getOutputs(), outputs);
    const ops::IrOp& typed = *rebuilt;
    EXPECT_NE(typeid(typed), typeid(ops::IrOp));
    if (original) {
      const ops::IrOp& made = *original;
      EXPECT_EQ(typeid(typed), typeid(made));
    }
    // The override of addOutput has to run although the tensors arrive in a constructor.
    EXPECT_EQ(outputs[0]->isQuantizable(), type != "Dequantize");
  }
  EXPECT_EQ(types.size(), 48u);
  for (const char* type : {"Gelu", "Arg", "Neuron", "ElementWiseUnary", "ScatterNd", "Identity", ""}) {
    EXPECT_FALSE(registry.hasMethod(type)) << type;
  }
}

TEST(TranslationRegistry, FailuresComeOutAsRuntimeErrorsAndReleaseTheLock) {
  auto& registry = TranslationRegistry::instance();
  const std::string head = "netforge::TranslationRegistry::";
  expectFailure<std::runtime_error>(
      head + "applyMethod: Error creating translation type: Nope. Is your translation registered?",
      [&] { registry.applyMethod("Nope", "n", nullptr, {}, {}); });
  expectFailure<std::runtime_error>(
      head +
          "applyMethod: Translation applyMethod returned with error: "
          "netforge::ops::ElementwiseTernaryOp::ElementwiseTernaryOp: eltwise_type attribute must be set as "
          "supplemental attribute for op n",
      [&] { registry.applyMethod("Eltwise_Ternary", "n", nullptr, {}, {}); });
  EXPECT_EQ(registry.applyMethod("Cast", "n", nullptr, {}, {})->getType(), "Cast");

  const auto creator = [](const char* suffix) -> TranslationRegistry::Creator {
    return [suffix](const std::string& name, const auto& attributes, const auto&, const auto&) {
      return std::make_shared<ops::IrOp>(name + suffix, "Other", attributes);
    };
  };
  const std::string type = "OnlyInThisTest";
  EXPECT_TRUE(registry.registerTranslationMethod(type, creator("_a"), false));
  expectFailure<std::invalid_argument>(
      head + "registerTranslationMethod: Translation: OnlyInThisTest already registered",
      [&] { registry.registerTranslationMethod(type, creator("_b"), false); });
  EXPECT_EQ(registry.applyMethod(type, "n", nullptr, {}, {})->getName(), "n_a");
  EXPECT_TRUE(registry.registerTranslationMethod(type, creator("_b"), true));
  EXPECT_EQ(registry.applyMethod(type, "n", nullptr, {}, {})->getName(), "n_b");
}

}  // namespace
}  // namespace netforge::graphrefiner
