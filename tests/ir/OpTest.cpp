#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "ir/IrOp.h"
#include "tests/support/Failures.h"

namespace netforge {
namespace {

using ops::IrOp;
using testing::failureOf;
using Dims = std::vector<std::uint32_t>;
using TensorPtr = std::shared_ptr<IrTensor>;
using Tensors = IrOp::TensorList;

TensorPtr makeTensor(const std::string& name, const IrTensorShape& shape = IrTensorShape({2, 3}),
                     AxisFormat format = AxisFormat::NF, DataType type = ORLO_DATATYPE_FLOAT_32) {
  return std::make_shared<IrTensor>(name, shape, nullptr, type, format, format, TensorType::Native);
}

class OpTest : public ::testing::Test {
 protected:
  std::string inputNames() const {
    std::string names;
    for (const auto& tensor : op.getInputs()) names += tensor->getName();
    return names;
  }

  const TensorPtr a = makeTensor("a", IrTensorShape({2, 3}), AxisFormat::NF);
  const TensorPtr b = makeTensor("b", IrTensorShape({4, 5}), AxisFormat::NC);
  const TensorPtr c = makeTensor("c", IrTensorShape({6, 7}), AxisFormat::ANY);
  const std::shared_ptr<AxisOrder> axisOrder = std::make_shared<OnnxAxisOrder>();
  IrOp op{"op", "Custom", nullptr};
};

TEST_F(OpTest, InputsAndTheirLayoutsMoveTogether) {
  using Formats = std::vector<AxisFormat>;
  op.addInput(a);
  op.addInput(b, 0);
  op.addInput(c, 1);
  op.addInput(a, 3);  // the length appends
  EXPECT_EQ(inputNames(), "bcaa");
  EXPECT_EQ(op.getStoredInputAxisFormats(),
            (Formats{AxisFormat::NC, AxisFormat::ANY, AxisFormat::NF, AxisFormat::NF}));
  EXPECT_EQ(op.getInputSet().size(), 3u);

  op.rmInputAtIdx(1);
  op.replaceInputTensor(a, c);  // both places
  EXPECT_EQ(inputNames(), "bcc");
  EXPECT_EQ(op.getStoredInputAxisFormats(), (Formats{AxisFormat::NC, AxisFormat::ANY, AxisFormat::ANY}));

  c->setAxisFormat(AxisFormat::NHWC);
  EXPECT_EQ(op.getStoredInputAxisFormats()[1], AxisFormat::ANY) << "as it was on attaching";
  EXPECT_EQ(op.getInputAxisFormats()[1], AxisFormat::NHWC) << "as it is now";
  op.setInputAxisFormat(AxisFormat::NTF, 0);
  EXPECT_EQ(op.getStoredInputAxisFormats()[0], AxisFormat::NTF);
  EXPECT_EQ(b->getAxisFormat(), AxisFormat::NTF);

  op.setInput(a, 1);
  EXPECT_EQ(inputNames(), "bac");
  EXPECT_EQ(op.getStoredInputAxisFormats()[1], AxisFormat::NF);
  op.removeInput(makeTensor("stranger"));
  op.removeInput(nullptr);
  EXPECT_EQ(op.numInputs(), 3u);
  op.setInputs({c, a, c});
  op.removeInput(c);
  EXPECT_EQ(inputNames(), "a");
  EXPECT_EQ(op.getStoredInputAxisFormats(), Formats{AxisFormat::NF});
}

TEST_F(OpTest, OutputsAreEditedLikeInputs) {
  op.setOutputs({a, b, a});
  op.replaceOutputTensor(a, c);
  EXPECT_EQ(op.getOutputs(), (Tensors{c, b, c}));
  op.setOutput(a, 1);
  op.removeOutput(c);
  EXPECT_EQ(op.getOutputs(), (Tensors{a}));
  op.rmOutputAtIdx(0);
  EXPECT_EQ(op.numOutputs(), 0u);
}

// An override of addOutput must see every output.
TEST_F(OpTest, SetOutputsGoesThroughAddOutput) {
  class Recorder : public IrOp {
   public:
    using IrOp::IrOp;
    void addOutput(const TensorPtr& tensor, std::int32_t idx) override {
      tensor->setUpdateable(true);
      IrOp::addOutput(tensor, idx);
    }
  };
  Recorder recorder("r", "Custom", nullptr);
  recorder.setOutputs({a, b});
  EXPECT_TRUE(a->isUpdateable() && b->isUpdateable());
}

TEST_F(OpTest, ListEditsRefuseWhatDoesNotFit) {
  op.setInputs({a});
  op.setOutputs({b});
  const std::string scope = "netforge::ops::IrOp::";
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[&] { op.addInput(b, 2); }, "addAtIdx: Error adding val to opop. Index to insert invalid 2"},
      {[&] { op.addOutput(b, -2); }, "addAtIdx: Error adding val to opop. Index to insert invalid -2"},
      {[&] { op.rmInputAtIdx(1); }, "rmAtIdx: Error remove val to opop. Index specified invalid 1"},
      {[&] { op.setInput(b, 1); }, "setInput: Error set val to opop. Index specified invalid 1"},
      {[&] { op.setOutput(b, 1); }, "setOutput: Error set val to opop. Index specified invalid 1"},
      {[&] { op.replaceInputTensor(nullptr, b); },
       "replaceInputTensor: Invalid old input tensor: received null pointer in op op"},
      {[&] { op.replaceInputTensor(a, nullptr); },
       "replaceInputTensor: Invalid new input tensor: received null pointer in op op"},
      {[&] { op.replaceOutputTensor(nullptr, b); },
       "replaceOutputTensor: Invalid old output tensor: received null pointer in op op"},
      {[&] { op.replaceOutputTensor(b, nullptr); },
       "replaceOutputTensor: Invalid new output tensor: received null pointer in op op"},
      {[&] { op.addInput(nullptr); },
       "addInput: Invalid input tensor: received null pointer in op op[Custom]"},
      {[&] { op.getInput(1); }, "getInput: Op op[Custom] has no input 1, inputs count: 1"},
  };
  for (const auto& [edit, text] : rows) EXPECT_EQ(failureOf<std::invalid_argument>(edit), scope + text);
  EXPECT_EQ(op.getInputs(), Tensors{a});
  EXPECT_EQ(op.getOutputs(), Tensors{b});
}

TEST_F(OpTest, ATensorThatIsGoneIsReported) {
  op.addInput(makeTensor("short-lived"));
  EXPECT_EQ(failureOf<std::runtime_error>([&] { op.getInputs(); }),
            "netforge::ops::IrOp::lockWeakPtr: Tensor pointer for Op op not valid, unable to lock.");
}

TEST_F(OpTest, DefaultInferenceFollowsTheInputs) {
  op.setInputs({a, b});
  EXPECT_EQ(op.inferOutputShapes(axisOrder, 1), (std::vector<Dims>{{2, 3}, {4, 5}})) << "one per input";
  EXPECT_EQ(op.inferOutputTensorShapes(axisOrder, 1).size(), 2u);

  const TensorPtr wide = makeTensor("w", IrTensorShape({2}), AxisFormat::ANY, ORLO_DATATYPE_INT_64);
  op.setInputs({wide, a});
  EXPECT_EQ(op.inferOutputDataTypes(2), std::vector<DataType>(2, ORLO_DATATYPE_INT_32));
  EXPECT_EQ(op.inferOutputSrcDataTypes(2), std::vector<DataType>(2, ORLO_DATATYPE_INT_64));
  wide->setDataType(ORLO_DATATYPE_UINT_64);
  EXPECT_EQ(op.inferOutputDataTypes(1), std::vector<DataType>(1, ORLO_DATATYPE_UINT_64));

  op.setInputs({});
  EXPECT_EQ(op.inferOutputSrcDataTypes(1), std::vector<DataType>(1, ORLO_DATATYPE_UNDEFINED));
  EXPECT_EQ(op.macs(axisOrder), 0u);
}

TEST_F(OpTest, DefaultInferenceRefusesDynamicInputs) {
  const TensorPtr dynamic = makeTensor("d", IrTensorShape({2, 3}, {1}));
  op.setInputs({a, dynamic});
  EXPECT_EQ(failureOf<std::invalid_argument>([&] { op.inferOutputShapes(axisOrder, 1); }),
            "netforge::ops::IrOp::inferOutputShapes: IrOp op of type Custom has dynamic inputs. Use "
            "inferOutputTensorShapes instead.");
  EXPECT_EQ(
      failureOf<std::invalid_argument>([&] { op.inferOutputTensorShapes(axisOrder, 1); }),
      "netforge::ops::IrOp::inferOutputTensorShapes: Inputs with dynamic shape not supported for op type "
      "Custom. Got Input tensor d with shape IrTensorShape(dims = [2,3] , dy_axes=[1]) for op op[Custom].");
}

TEST_F(OpTest, ResizeGivesTheOutputsTheInferredShapes) {
  op.setInputs({a});
  op.setOutputs({b});
  a->setShape(IrTensorShape({8, 9}));
  op.resizeOp(axisOrder, 1);
  EXPECT_EQ(b->getDims(), (Dims{8, 9}));
  op.addInput(c);
  EXPECT_EQ(
      failureOf<std::invalid_argument>([&] { op.resizeOp(axisOrder, 1); }),
      "netforge::ops::IrOp::resizeOp: Number of output tensors for op op (type: Custom) differs from the "
      "number of output shapes calculated for resizing: current outputs count: 1, expected (inferred shapes "
      "count): 2");
}

TEST_F(OpTest, OutputLayoutsFollowRankAndInputCodes) {
  using Codes = std::map<std::string, std::uint8_t>;
  struct Row {
    Codes codes;
    bool isTimeSeries;
    std::uint32_t rank;
    AxisFormat format;
  };
  const Row rows[] = {
      {{}, false, 1, AxisFormat::ANY},
      {{}, false, 3, AxisFormat::NCF},
      {{}, true, 3, AxisFormat::TNF},
      {{{"x", 3}, {"y", 7}}, false, 3, AxisFormat::TNF},
      {{{"x", 8}}, true, 3, AxisFormat::NONTRIVIAL},
      {{{"x", 8}, {"y", 7}}, false, 4, AxisFormat::NONTRIVIAL},
      {{{"x", 8}}, false, 5, AxisFormat::NCDHW},
      {{{"x", 8}}, false, 2, AxisFormat::NF},
      {{{"x", 7}}, false, 4, AxisFormat::NCHW},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.rank);
    const TensorPtr output = makeTensor("o", IrTensorShape(Dims(row.rank, 2)));
    op.setOutputs({output, a});
    op.populateOutputAxisFormats(axisOrder, row.codes, row.isTimeSeries);
    EXPECT_EQ(output->getAxisFormat(), row.format);
    EXPECT_EQ(a->getAxisFormat(), AxisFormat::NF) << "by the rank of each output";
  }
  op.setOutputs({});
  EXPECT_EQ(
      failureOf<std::runtime_error>([&] { op.populateOutputAxisFormats(axisOrder, {}, false); }),
      "netforge::ops::IrOp::populateOutputAxisFormats: Cannot populate output axis format for op op (type: "
      "Custom): no outputs set");
}

TEST_F(OpTest, ValidationNamesWhatIsMissing) {
  struct Row {
    const char* name;
    const char* type;
    bool hasInput;
    bool hasOutput;
    const char* text;  // empty: passes
  };
  const Row rows[] = {
      {"", "", false, false, "Unable to create IrOp with empty name! (type: )"},
      {"n", "", false, false, "Unable to create IrOp n with empty operation type!"},
      {"n", "Relu", false, false, "Unable to create IrOp n (type: Relu) with no input tensor!"},
      {"n", "Relu", true, false, "Unable to create IrOp n (type: Relu) with no output tensor!"},
      {"n", "input", false, false, "Unable to create IrOp n (type: input) with no output tensor!"},
      {"n", "Input", false, true, "Unable to create IrOp n (type: Input) with no input tensor!"},
      {"n", "input", false, true, ""},
      {"n", "constant", false, true, ""},
      {"n", "Relu", true, true, ""},
  };
  for (const Row& row : rows) {
    IrOp each(row.name, row.type, nullptr);
    if (row.hasInput) each.addInput(a);
    if (row.hasOutput) each.addOutput(b);
    if (row.text[0] == '\0') {
      EXPECT_NO_THROW(each.validateOp()) << row.type;
    } else {
      EXPECT_EQ(failureOf<std::invalid_argument>([&] { each.validateOp(); }),
                std::string("netforge::ops::IrOp::validateOp: ") + row.text);
    }
  }
}

TEST_F(OpTest, TheQuantizableAttributeReachesTheTensorAttributes) {
  const float weights[] = {1.0f, 2.0f};
  const auto makeTable = [&](DataType type) {
    auto table = std::make_shared<IrAttributes>();
    table->add("weights",
               std::make_shared<IrStaticTensor>("w", Dims{2}, 8, weights, type, AxisFormat::ANY,
                                                AxisFormat::ANY, false, TensorType::Static, Dims{}),
               ATTR_ORDINARY);
    return table;
  };
  auto table = makeTable(ORLO_DATATYPE_FLOAT_32);
  table->add("quantizable", 0u, ATTR_ORDINARY);  // no bool: not looked at
  IrOp unaffected("o", "Custom", table);
  EXPECT_TRUE(table->getStaticTensor("weights")->isQuantizable());
  table->add("quantizable", false, ATTR_ORDINARY);
  IrOp cleared("o", "Custom", table);
  EXPECT_FALSE(table->getStaticTensor("weights")->isQuantizable());

  table = makeTable(ORLO_DATATYPE_INT_32);
  table->add("quantizable", true, ATTR_ORDINARY);
  EXPECT_THROW(IrOp("o", "Custom", table), std::invalid_argument);
}

TEST_F(OpTest, PlainOpsHaveATableAndACanonicalForm) {
  ASSERT_NE(op.getAttributes(), nullptr);
  EXPECT_FALSE(op.isCanonicalized());
  op.canonicalizeOp(1);
  EXPECT_TRUE(op.isCanonicalized());
  EXPECT_EQ(op.displayName(), "op[Custom]");
}

TEST(LastDimsProduct, MultipliesInSixtyFourBitsAndNeedsEnoughDims) {
  EXPECT_EQ(IrOp::lastDimsProduct({2, 3, 4, 5}, 3), 60u);
  EXPECT_EQ(IrOp::lastDimsProduct({7, 8}, 3), 1u);
  EXPECT_EQ(IrOp::lastDimsProduct({}, 0), 1u);
  EXPECT_EQ(IrOp::lastDimsProduct({65536, 65536, 2}, 3), 8589934592u);
}

}  // namespace
}  // namespace netforge
