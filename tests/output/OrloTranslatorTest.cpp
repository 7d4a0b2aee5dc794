#include <gtest/gtest.h>

#include <cstring>

#include "ir/IrGraph.h"
#include "output/IrOrloTranslator.h"
#include "tests/output/RecordText.h"
#include "tests/support/Failures.h"
#include "tests/support/GraphText.h"

namespace netforge {
namespace {

using testing::configText;
using testing::failureOf;
using testing::paramsText;
using testing::readGraph;
using testing::tensorText;

/// The runtime's type and parameters of an op "y" that is written as in the text form of graphs.
std::string translated(const std::string& op, const std::string& dims = "[2,3,5,7]",
                       const std::string& target = "") {
  const auto graph = readGraph("in x" + dims + " f32\ny = plain " + op + "\nout y");
  const Orlo_OpConfig_t& config = *graph->getTranslator().getOrloOp(graph->getOp("y"), true, target);
  return std::string(config.typeName == nullptr ? "(null)" : config.typeName) + " " + paramsText(config);
}

TEST(OrloOpTypes, TypesAndParameters) {
  struct Case {
    std::string op, expected, dims = "[2,3,5,7]", target = "";
  };
  const std::string bilinear = "Resize(x) interpolation_mode=1 transformation_mode=";
  const std::string modes = "interpolation_mode=u32 1, transformation_mode=u32 ";
  const std::string color = "ColorTransform(x) input_encoding_in=";
  const auto ends = [](int in, int out) {
    return "input_encoding_in=u8 " + std::to_string(in) + ", input_encoding_out=u8 " + std::to_string(out);
  };
  const Case cases[] = {
      {"Eltwise_Unary(x) eltwise_type=ElementWiseSquareRoot", "ElementWiseUnary operation=u32 15"},
      {"Eltwise_Binary(x, x) eltwise_type=ElementWiseXor", "ElementWiseBinary operation=u32 19"},
      {"Neuron(x) neuron_type=HardSwish", "ElementWiseNeuron operation=u32 3"},
      {"Eltwise_Unary(x) operation=11", "ElementWiseUnary operation=u32 11"},
      {"Eltwise_Unary(x) eltwise_type=ElementWiseSoftplus beta=0.5 threshold=20.0 other=1",
       "ElementWiseNeuron beta=f32 0.5, operation=u32 7, other=u32 1, threshold=f32 20"},
      {"Neuron(x) neuron_type=ReluMinMax min_value=-1.0 max_value=6.0",
       "ElementWiseNeuron max_value=f32 6, min_value=f32 -1, operation=u32 5"},
      {"Gelu(x)", "ElementWiseNeuron operation=u32 1"},
      {"Eltwise_Ternary(x, x, x) eltwise_type=ElementWiseSelect", "ElementWiseSelect "},
      {"Arg(x) arg_type=Argmax", "Argmax arg_type=str Argmax"},
      {"Reduce(x) reduce_type=ReduceMean", "ReduceMean "},
      {"Custom(x) count=-3 half=0.5 on=true", "Custom count=i32 4294967293, half=f32 0.5, on=bool 1"},
      {"Resize(x) k=1", "Resize k=u32 1", "[3,5,7]"},
      {"Resize(x) interpolation_mode=2", "Resize interpolation_mode=u32 2", "[3,5]"},
      {"Resize(x) interpolation_mode=0", "(null) interpolation_mode=u32 0", "[3,5]"},
      {"Resize(x) interpolation_mode=1", "Resize interpolation_mode=u32 1", "[2,3,5,7]", "NIMB"},
      {bilinear + "0",
       "ResizeBilinear align_corners=bool 0, antialias=bool 0, half_pixel_centers=bool 1, " + modes + "0"},
      {bilinear + "1 antialias=true",
       "ResizeBilinear align_corners=bool 0, antialias=bool 1, half_pixel_centers=bool 0, " + modes + "1"},
      {"Resize(x) interpolation_mode=0 transformation_mode=2",
       "ResizeNearestNeighbor align_corners=bool 1, half_pixel_centers=bool 0, interpolation_mode=u32 0, "
       "transformation_mode=u32 2"},
      {color + "2:u8 input_encoding_out=1:u8",
       "ArgbToRgb " + ends(2, 1) + ", input_order=u32 0, reverse_output=bool 0"},
      {color + "3:u8 input_encoding_out=0:u8",
       "ArgbToRgb " + ends(3, 0) + ", input_order=u32 1, reverse_output=bool 1"},
      {color + "6:u8 input_encoding_out=1:u8", "Nv12ToRgb " + ends(6, 1) + ", output_order=i32 0"},
      {color + "5:u8 input_encoding_out=0:u8", "Nv21ToRgb " + ends(5, 0) + ", output_order=i32 1"},
  };
  for (const Case& test : cases) {
    EXPECT_EQ(translated(test.op, test.dims, test.target), test.expected) << test.op << test.dims;
  }
}

TEST(OrloOpTypes, Refusals) {
  const std::string prefix = "netforge::IrOrloTranslator::getOrloOp: ";
  const std::pair<const char*, const char*> cases[] = {
      {"Eltwise_Unary(x) eltwise_type=ElementWiseAdd",
       "ElementwiseUnaryOp y eltwise_type provided, ElementWiseAdd, is incorrect "},
      {"Eltwise_Binary(x, x) eltwise_type=Add",
       "ElementwiseBinaryOp y eltwise_type provided, Add, is incorrect "},
      {"Neuron(x) neuron_type=Gelu", "ElementwiseNeuronOp y neuron_type provided, Gelu, is incorrect "},
      {"ColorTransform(x) input_encoding_in=4:u8 input_encoding_out=1:u8",
       "Invalid color transformation on op y"},
      {"ColorTransform(x) input_encoding_in=2:u8 input_encoding_out=2:u8",
       "Invalid color transformation on op y"},
  };
  for (const auto& [op, text] : cases) {
    EXPECT_EQ(failureOf<std::invalid_argument>([&, line = op] { translated(line); }), prefix + text);
  }
  for (const char* op : {"Eltwise_Unary(x)", "Neuron(x)", "Reduce(x)", "Resize(x) interpolation_mode=1"}) {
    EXPECT_NE(failureOf<std::runtime_error>([&] { translated(op); }).find("not present"), std::string::npos);
  }
}

TEST(OrloParams, ScalarsOfEveryWidth) {
  const auto paramOf = [](DataType type, AttrType attrType = ORLO_PARAMTYPE_SCALAR) {
    const auto graph = readGraph("in x[2,3] f32\ny = Custom(x) a=1\nout y");
    auto& attribute = const_cast<IrAttribute&>(graph->getOp("y")->getAttributes()->entries().at("a"));
    attribute.intValue = -2;  // low bits show
    attribute.floatValue = 0.5f;
    attribute.stringValue = "text";
    attribute.dataType = type;
    attribute.attrType = attrType;
    const std::string text = paramsText(*graph->getTranslator().getOrloOp(graph->getOp("y"), true, ""));
    return text.substr(text.find(' ') + 1);
  };
  const std::pair<DataType, const char*> cases[] = {
      {ORLO_DATATYPE_INT_8, "254"},
      {ORLO_DATATYPE_BOOL_8, "254"},
      {ORLO_DATATYPE_UFIXED_POINT_8, "254"},
      {ORLO_DATATYPE_INT_16, "65534"},
      {ORLO_DATATYPE_UFIXED_POINT_16, "65534"},
      {ORLO_DATATYPE_INT_32, "4294967294"},
      {ORLO_DATATYPE_UINT_64, "4294967294"},
      {ORLO_DATATYPE_FLOAT_16, "0.5"},
      {ORLO_DATATYPE_FLOAT_32, "0.5"},
      {ORLO_DATATYPE_STRING, "text"},
  };
  for (const auto& [type, value] : cases) EXPECT_EQ(paramOf(type), value) << type;
  const std::string prefix = "netforge::IrOrloTranslator::getOrloOp: IrOrloTranslator::getOrloOp ";
  EXPECT_EQ(failureOf<std::invalid_argument>([&] { paramOf(ORLO_DATATYPE_FLOAT_64); }),
            prefix + "DataType unsupported for attribute: a");
  EXPECT_EQ(failureOf<std::invalid_argument>([&] { paramOf(ORLO_DATATYPE_INT_8, static_cast<AttrType>(2)); }),
            prefix + "AttrType undefined for attribute: a");
}

TEST(OrloParams, OnlyOrdinaryAttributesAndThePackage) {
  const auto graph = readGraph("in x[2,3] f32\ny = Custom(x) a=1 b=[4,9] packageName=mine\nout y");
  IrAttributes& attributes = *graph->getOp("y")->getAttributes();
  attributes.add("hidden", 3u, ATTR_SUPPLEMENTAL);
  attributes.add("extra", "word", ATTR_EXTRA);
  const Orlo_OpConfig_t& config = *graph->getTranslator().getOrloOp(graph->getOp("y"), true, "");
  EXPECT_EQ(configText(config),
            "y mine Custom\nparams a=u32 1, b=b[2] u32 type 4 size 8 data 04000000 09000000\n"
            "in x[2,3] f32 type 0\nout y[2,3] f32 type 1\n");
}

TEST(OrloTensors, TypesAndForms) {
  const auto graph = readGraph(R"(in x[2,?3] f32
      in o[4] f32 optional
      const c[2] i32 = 7 8
      null n[0] f32
      y = Custom(x, o, c, n)
      out y)");
  IrOrloTranslator translator;
  const auto text = [&](const std::shared_ptr<IrTensor>& tensor) {
    return tensorText(*translator.translateTensor(tensor));
  };
  EXPECT_EQ(text(graph->getTensor("x")), "x[2,3] f32 type 0 dynamic 0001");
  EXPECT_EQ(text(graph->getTensor("o")), "o[4] f32 type 11");
  EXPECT_EQ(text(graph->getTensor("n")), "n[0] f32 type 5");
  EXPECT_EQ(text(graph->getTensor("c")), "c[2] i32 type 4");
  EXPECT_EQ(text(graph->getTensor("y")), "y[2,3] f32 type 1 dynamic 0001");
  const auto plain = [](const char* name, const std::vector<std::uint32_t>& dims) {
    return std::make_shared<IrTensor>(name, dims, ORLO_DATATYPE_FLOAT_32, AxisFormat::NF, TensorType::Native,
                                      std::vector<std::uint32_t>{});
  };
  EXPECT_EQ(text(plain("", {3})), "[3] f32 type 5");
  EXPECT_EQ(text(plain("scalar", {})), "scalar[] f32 type 0");
  const auto sparse = plain("sparse", {5, 6});
  sparse->setSparseParams({0, 9, 2});
  EXPECT_EQ(text(sparse), "sparse[5,6] f32 type 0 sparse 9 2");
  const auto dense = plain("dense", {5, 6});
  dense->setSparseParams({1, 9, 2});
  EXPECT_EQ(text(dense), "dense[5,6] f32 type 0");
}

TEST(OrloCache, TheFirstFormStays) {
  const auto graph = readGraph("in x[2,3] f32\nconst c[2] i32 = 7 8\ny = Custom(x, c) a=1\nout y");
  IrOrloTranslator translator;
  const auto op = graph->getOp("y");
  const Orlo_OpConfig_t* config = translator.getOrloOp(op, true, "");
  EXPECT_EQ(tensorText(config->inputTensors[1]), "c[2] i32 type 4 size 8") << "true size without data";

  op->getAttributes()->add("a", 2u, ATTR_ORDINARY);
  const auto other = std::make_shared<ops::IrOp>("y", "Relu", nullptr);
  EXPECT_EQ(translator.getOrloOp(op, false, ""), config);
  EXPECT_EQ(translator.getOrloOp(other, false, ""), config) << "an op of the same name gets the stale record";
  EXPECT_EQ(paramsText(*config), "a=u32 1");

  const auto constant = graph->getStaticTensor("c");
  const Orlo_Tensor_t* record = translator.translateStaticTensor(constant, false);
  EXPECT_EQ(record->clientBuf.data, nullptr) << "cached without its data";
  const auto apart = std::make_shared<IrStaticTensor>("d", std::vector<std::uint32_t>{1, 2});
  EXPECT_EQ(translator.translateStaticTensor(apart, false)->clientBuf.data, apart->getData());
  EXPECT_EQ(translator.translateStaticTensor(std::make_shared<IrStaticTensor>("d", std::vector{3u}), true),
            translator.translateTensor(apart));

  // A name that another tensor has taken over gets a new record; the old one stays readable.
  const Orlo_Tensor_t* old = translator.translateTensor(graph->getTensor("x"));
  graph->updateTensorName("x", "before");
  const auto taker =
      std::make_shared<IrTensor>("x", std::vector<std::uint32_t>{9}, ORLO_DATATYPE_INT_32, AxisFormat::NF,
                                 TensorType::Native, std::vector<std::uint32_t>{});
  EXPECT_EQ(tensorText(*translator.translateTensor(taker)), "x[9] i32 type 0");
  EXPECT_EQ(tensorText(*old), "x[2,3] f32 type 0");
  EXPECT_NE(translator.translateTensor(graph->getTensor("before")), old);
}

TEST(OrloCache, AFailureLeavesNoRecord) {
  const auto graph = readGraph("in x[2,3] f32\nq[2,3] uq8 scale=0.5 = Custom(x)\ny = Relu(q)\nout y");
  IrOrloTranslator translator;
  QuantInfo info;
  info.encoding = QuantEncodingKind::Block;
  const auto translate = [&] {
    graph->getTensor("q")->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, info);
    translator.getOrloOp(graph->getOp("y"), true, "");
  };
  failureOf<std::invalid_argument>(translate);
  info.blockEncodings.resize(1);
  EXPECT_NO_THROW(translate());
}

TEST(OrloCache, RecordsOutliveAllThatTheyDescribe) {
  IrOrloTranslator translator;
  const Orlo_OpConfig_t* config = nullptr;
  std::string before;
  {
    const auto graph = readGraph(R"(in a_name_that_is_too_long_for_small_strings[2,?3,5] f32
        const weights[4] f32 = 1 2 3 4
        q[2,3,5] uq8 scale=0.25 offset=-3 = Custom(a_name_that_is_too_long_for_small_strings)
        y = AnotherLongCustomOpTypeName(q, weights) axes=[4,9] note="a text beyond the small string"
        out y)");
    QuantInfo info;
    info.encoding = QuantEncodingKind::SbqBlockwise;
    info.sbqEncodings.resize(2);
    info.sbqScales16 = {5, 6};
    graph->getTensor("q")->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, info);
    const auto op = graph->getOp("y");
    config = translator.getOrloOp(op, false, "");
    before = configText(*config);
    graph->getTensor("q")->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, QuantInfo(info));
    const auto weights = graph->getStaticTensor("weights");
    weights->updateData(new std::uint8_t[16]{}, 16, true);
    weights->setShape(IrTensorShape({16}));
    graph->updateTensorName("a_name_that_is_too_long_for_small_strings", "x");
    op->getAttributes()->add("axes", std::make_shared<IrStaticTensor>("axes", std::vector{1u}), ATTR_EXTRA);
    op->getAttributes()->remove("note");
    graph->prune(op, true);
  }
  EXPECT_EQ(configText(*config), before);
  EXPECT_NE(before.find("0000803f 00000040"), std::string::npos) << "the data is in the record";
}

}  // namespace
}  // namespace netforge
