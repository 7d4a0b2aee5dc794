#include "ops/ConvolutionOps.h"

#include <random>

#include "tests/ops/OpScaffold.h"

namespace netforge::ops {
namespace {

using namespace netforge::test;

TEST(Padding, OutputSizeByStrategy) {
  struct Case {
    std::uint32_t input, kernel, before, after, stride, dilation;
    std::uint8_t strategy;
    std::uint32_t expected;
  };
  const Case cases[] = {
      {7, 3, 0, 0, 2, 1, PaddingValid, 3},
      {10, 3, 5, 5, 3, 2, PaddingValid, 2},  // pads don't count
      {7, 3, 9, 9, 2, 1, PaddingSameBegin, 4},
      {7, 3, 9, 9, 2, 1, PaddingSameEnd, 4},
      {8, 3, 1, 1, 2, 1, PaddingExplicitFloor, 4},
      {8, 3, 1, 1, 2, 1, PaddingExplicitCeil, 5},
      {8, 3, 1, 1, 2, 1, 200, 5},  // a strategy without a name rounds up
      {7, 3, 1, 1, 2, 1, PaddingExplicitFloor, 4},
      {7, 3, 1, 1, 2, 1, PaddingExplicitCeil, 4},
      {10, 3, 0, 1, 1, 4, PaddingExplicitFloor, 3},
      // A kernel that doesn't fit: sizes below 1 round as signed numbers before they wrap.
      {2, 5, 0, 0, 2, 1, PaddingExplicitFloor, 0xFFFFFFFF},
      {2, 5, 0, 0, 2, 1, PaddingExplicitCeil, 0},
      {2, 5, 0, 0, 1, 1, PaddingValid, 0xFFFFFFFE},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(calcOutputSize(c.input, c.kernel, c.before, c.after, c.stride, c.dilation, c.strategy),
              c.expected)
        << c.input << " kernel " << c.kernel << " strategy " << int{c.strategy};
  }
  expectThrows<std::invalid_argument>("netforge::ops::calcOutputSize: Stride must be at least 1.",
                                      [] { calcOutputSize(7, 3, 0, 0, 0, 1, PaddingSameEnd); });
}

TEST(Padding, ExplicitPads) {
  struct Case {
    std::uint32_t input, kernel, output, stride, dilation;
    std::uint8_t strategy;
    std::pair<std::uint32_t, std::uint32_t> expected;  // given: 9 before, 8 after
  };
  const Case cases[] = {
      {7, 3, 4, 2, 1, PaddingSameBegin, {1, 1}},     {8, 4, 8, 1, 1, PaddingSameBegin, {2, 1}},
      {8, 4, 8, 1, 1, PaddingSameEnd, {1, 2}},       {9, 3, 9, 1, 2, PaddingSameEnd, {2, 2}},
      {5, 1, 5, 1, 1, PaddingSameBegin, {0, 0}},     {8, 1, 3, 3, 1, PaddingSameBegin, {9, 8}},
      {8, 4, 8, 1, 1, PaddingValid, {9, 8}},         {8, 4, 8, 1, 1, PaddingExplicitCeil, {9, 8}},
      {8, 4, 8, 1, 1, PaddingExplicitFloor, {9, 8}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(
        ConvOp::calcExplicitPaddingSize(c.input, c.kernel, c.output, c.stride, c.dilation, c.strategy, 9, 8),
        c.expected)
        << c.input << " kernel " << c.kernel << " strategy " << int{c.strategy};
  }
}

TEST(Padding, ExplicitPadsOfTransposeConvolution) {
  struct Case {
    std::uint32_t input, output, kernel, stride;
    std::uint8_t strategy;
    std::uint32_t outputPadding, dilation;
    std::array<std::uint32_t, 3> expected;  // given: 9 before, 8 after
  };
  const Case cases[] = {
      {4, 8, 5, 2, PaddingSameBegin, 0, 1, {2, 1, 0}},  {4, 8, 5, 2, PaddingSameEnd, 0, 1, {1, 2, 0}},
      {4, 8, 3, 2, PaddingSameEnd, 1, 2, {2, 2, 1}},    {5, 15, 2, 3, PaddingSameEnd, 0, 1, {9, 8, 1}},
      {5, 15, 1, 3, PaddingSameBegin, 0, 1, {9, 8, 2}}, {4, 8, 5, 2, PaddingExplicitFloor, 7, 1, {9, 8, 7}},
      {4, 8, 5, 2, PaddingValid, 7, 1, {9, 8, 7}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TransposeConvOp::calcExplicitPaddingSize(c.input, c.output, c.kernel, c.stride, c.strategy, 9,
                                                       8, c.outputPadding, c.dilation),
              c.expected)
        << c.input << " kernel " << c.kernel << " strategy " << int{c.strategy};
  }
  expectThrows<std::invalid_argument>(
      "netforge::ops::TransposeConvOp::calcExplicitPaddingSize: Unable to adjust TransposeConv implicit pad "
      "strategy. Got pad difference of 4, which is greater than the allowed pad difference 1 (stride=3, "
      "outputPad=1).",
      [] { TransposeConvOp::calcExplicitPaddingSize(5, 18, 1, 3, PaddingSameEnd, 0, 0, 1, 1); });
}

/// The runtime only sees the written pads, so they must lead to the size that was inferred.
TEST(Padding, ComputedPadsGiveTheInferredSizeBack) {
  std::mt19937 random(7);
  const auto draw = [&random](std::uint32_t low, std::uint32_t high) {
    return low + static_cast<std::uint32_t>(random() % (high - low + 1));
  };
  for (int round = 0; round < 2000; ++round) {
    const std::uint32_t input = draw(1, 40), kernel = draw(1, 7), stride = draw(1, 6), dilation = draw(1, 4);
    const auto strategy = static_cast<std::uint8_t>(draw(PaddingSameBegin, PaddingSameEnd));
    SCOPED_TRACE(testing::Message() << input << " " << kernel << " " << stride << " " << dilation);
    const std::uint32_t size = calcOutputSize(input, kernel, 0, 0, stride, dilation, strategy);
    const auto [before, after] =
        ConvOp::calcExplicitPaddingSize(input, kernel, size, stride, dilation, strategy, 0, 0);
    EXPECT_EQ(calcOutputSize(input, kernel, before, after, stride, dilation, PaddingExplicitFloor), size);

    const std::uint32_t upsampled = input * stride;
    const auto [cropBefore, cropAfter, extra] = TransposeConvOp::calcExplicitPaddingSize(
        input, upsampled, kernel, stride, strategy, 0, 0, 0, dilation);
    EXPECT_EQ((input - 1) * stride + (kernel - 1) * dilation + 1 + extra - cropBefore - cropAfter, upsampled);
  }
}

struct OpSetup {
  const std::shared_ptr<AxisOrder>& order;
  Values data, weight;
  std::shared_ptr<IrAttributes> attributes;
  bool bias = false;
};

/// An op of class Op with its tensors and its output in the inferred shape.
template <class Op>
struct Scaffold {
  explicit Scaffold(const OpSetup& setup) : order(setup.order), op("c", setup.attributes) {
    inputs = {makeTensor(setup.data), makeTensor(setup.weight)};
    if (setup.bias) inputs.push_back(makeTensor({8}));
    op.setInputs(inputs);
    output = makeTensor(op.inferOutputTensorShapes(order, 1).at(0).dims);
    op.setOutputs({output});
  }
  std::shared_ptr<AxisOrder> order;
  Op op;
  std::vector<TensorPtr> inputs;
  TensorPtr output;
};

std::shared_ptr<IrAttributes> withScalars(const std::shared_ptr<IrAttributes>& attributes,
                                          std::uint8_t strategy, std::uint32_t group = 1) {
  attributes->add("padding_size_strategy", strategy, ATTR_SUPPLEMENTAL);
  attributes->add("group", group, ATTR_ORDINARY);
  return attributes;
}

TEST(Convolution, Conv2dByStrategyInBothLayouts) {
  struct Case {
    std::uint8_t strategy;
    std::uint32_t height, width;
    Values pads;
  };
  const Case cases[] = {
      {PaddingExplicitFloor, 4, 7, {1, 0, 2, 1}}, {PaddingExplicitCeil, 5, 7, {1, 0, 2, 1}},
      {PaddingValid, 4, 6, {1, 0, 2, 1}},         {PaddingSameBegin, 6, 7, {2, 2, 2, 1}},
      {PaddingSameEnd, 6, 7, {2, 2, 1, 2}},
  };
  for (const Case& c : cases) {
    for (const bool last : {false, true}) {
      SCOPED_TRACE(testing::Message() << "strategy " << int{c.strategy} << " spatial last " << last);
      const auto attributes = withScalars(
          makeAttributes({{"stride", {2, 3}}, {"pad_amount", {1, 0, 2, 1}}, {"dilation", {2, 1}}}),
          c.strategy, 2);
      Scaffold<Conv2dOp> s(last ? OpSetup{kLast, {2, 6, 11, 20}, {8, 3, 3, 5}, attributes, true}
                                : OpSetup{kFirst, {2, 11, 20, 6}, {3, 5, 3, 8}, attributes, true});
      const Values expected = last ? Values{2, 8, c.height, c.width} : Values{2, c.height, c.width, 8};
      EXPECT_EQ(s.output->getDims(), expected);
      // A second inference reads the pads that the first one wrote.
      EXPECT_EQ(s.op.inferOutputShapes(s.order, 1), std::vector<Values>{expected});
      const auto pads = attributes->getStaticTensor("pad_amount");
      EXPECT_EQ(valuesOf(*pads), c.pads);
      EXPECT_EQ(pads->getDims(), (Values{2, 2}));
      EXPECT_EQ(pads->getName(), "pad_amount_given");
      EXPECT_EQ(s.op.macs(s.order), std::uint64_t{c.height} * c.width * 8 * 3 * 5 * 3);
      EXPECT_EQ(s.op.paramsCount(s.order), 3u * 5 * 3 * 8 + 8);
      s.op.overrideDataAxisFormats(s.order);
      EXPECT_EQ(s.inputs[0]->getAxisFormat(), last ? AxisFormat::NCHW : AxisFormat::NHWC);
      EXPECT_EQ(s.inputs[1]->getAxisFormat(), last ? AxisFormat::OIHW : AxisFormat::HWIO);
      EXPECT_EQ(
          s.op.getStoredInputAxisFormats(),
          (std::vector{s.inputs[0]->getAxisFormat(), s.inputs[1]->getAxisFormat(), AxisFormat::NONTRIVIAL}));
    }
  }
}

TEST(Convolution, DepthwiseAnd3d) {
  const auto plain = [] { return makeAttributes({{"stride", {1, 1}}, {"pad_amount", {0, 0, 0, 0}}}); };
  Scaffold<DepthwiseConv2dOp> first({kFirst, {1, 5, 8, 6}, {3, 2, 1, 6}, plain()});
  Scaffold<DepthwiseConv2dOp> last({kLast, {1, 6, 5, 8}, {6, 1, 3, 2}, plain()});
  EXPECT_EQ(first.output->getDims(), (Values{1, 3, 7, 6}));
  EXPECT_EQ(last.output->getDims(), (Values{1, 6, 3, 7}));
  EXPECT_EQ(first.op.macs(kFirst), 3u * 7 * 6 * 3 * 2);
  EXPECT_EQ(last.op.macs(kLast), 3u * 7 * 6 * 3 * 2);
  EXPECT_EQ(last.op.paramsCount(kLast), 36u);

  const auto deep = [] {
    return makeAttributes(
        {{"stride", {1, 2, 3}}, {"pad_amount", {1, 1, 0, 1, 2, 0}}, {"dilation", {1, 3, 1}}});
  };
  Scaffold<Conv3dOp> first3d({kFirst, {2, 7, 9, 15, 5}, {3, 2, 4, 5, 10}, deep()});
  Scaffold<Conv3dOp> last3d({kLast, {2, 5, 7, 9, 15}, {10, 5, 3, 2, 4}, deep()});
  EXPECT_EQ(first3d.output->getDims(), (Values{2, 7, 4, 5, 10}));
  EXPECT_EQ(last3d.output->getDims(), (Values{2, 10, 7, 4, 5}));
  EXPECT_EQ(first3d.op.getAttributes()->getStaticTensor("pad_amount")->getDims(), (Values{3, 2}));
  // Three dims of the output count, whichever they are in the layout.
  EXPECT_EQ(first3d.op.macs(kFirst), 4u * 5 * 10 * 120);
  EXPECT_EQ(last3d.op.macs(kLast), 7u * 4 * 5 * 120);
  EXPECT_EQ(last3d.op.paramsCount(kLast), 1200u);
}

TEST(Convolution, TransposeConv2dByStrategyAndRequest) {
  struct Case {
    std::uint8_t strategy;
    Values outputPadding, request;
    std::uint32_t height, width;
    Values pads, newOutputPadding;
  };
  const Case cases[] = {
      {PaddingExplicitFloor, {1, 0}, {0, 0}, 9, 13, {1, 0, 0, 1}, {1, 0}},
      {PaddingValid, {1, 0}, {0, 0}, 9, 14, {1, 0, 0, 1}, {1, 0}},
      {PaddingSameEnd, {1, 0}, {0, 0}, 8, 15, {1, 1, 0, 1}, {1, 1}},
      {PaddingExplicitFloor, {0, 0}, {9, 14}, 9, 14, {1, 0, 0, 1}, {1, 1}},
      {PaddingExplicitFloor, {1, 0}, {9, 0}, 9, 13, {1, 0, 0, 1}, {1, 0}},   // half a request is none
      {PaddingExplicitFloor, {1, 0}, {5, 12}, 5, 12, {1, 0, 0, 1}, {1, 0}},  // larger than asked for
      {PaddingExplicitFloor, {0, 0}, {9, 12}, 9, 12, {1, 0, 0, 1}, {1, 0}},
  };
  for (const Case& c : cases) {
    for (const bool last : {false, true}) {
      SCOPED_TRACE(testing::Message() << "case " << (&c - cases) << " spatial last " << last);
      const auto attributes = withScalars(makeAttributes({{"stride", {2, 3}},
                                                          {"pad_amount", {1, 0, 0, 1}},
                                                          {"output_padding", c.outputPadding},
                                                          {"output_size", c.request}}),
                                          c.strategy, 2);
      Scaffold<TransposeConv2dOp> s(last ? OpSetup{kLast, {2, 6, 4, 5}, {6, 4, 3, 2}, attributes}
                                         : OpSetup{kFirst, {2, 4, 5, 6}, {3, 2, 6, 4}, attributes});
      EXPECT_EQ(s.output->getDims(),
                last ? (Values{2, 8, c.height, c.width}) : (Values{2, c.height, c.width, 8}));
      EXPECT_EQ(valuesOf(s.op, "pad_amount"), c.pads);
      EXPECT_EQ(valuesOf(s.op, "output_padding"), c.newOutputPadding);
      EXPECT_EQ(attributes->getStaticTensorName("output_padding"), "output_padding_given");
      EXPECT_EQ(s.op.macs(s.order), std::uint64_t{c.height} * c.width * 8 * 3 * 2 * 6 / 2);
      EXPECT_EQ(s.op.paramsCount(s.order), 0u);
      s.op.overrideDataAxisFormats(s.order);
      EXPECT_EQ(s.inputs[1]->getAxisFormat(), last ? AxisFormat::IOHW : AxisFormat::HWIO);
    }
  }
}

TEST(Convolution, TransposeConv3dDilates) {
  const auto attributes = [](std::uint8_t strategy) {
    return withScalars(makeAttributes({{"stride", {2, 1, 3}},
                                       {"dilation", {1, 2, 3}},
                                       {"pad_amount", {0, 1, 1, 1, 0, 2}},
                                       {"output_padding", {1, 0, 2}}}),
                       strategy);
  };
  Scaffold<TransposeConv3dOp> given(
      {kFirst, {1, 2, 3, 4, 6}, {2, 3, 2, 6, 7}, attributes(PaddingExplicitFloor)});
  EXPECT_EQ(given.output->getDims(), (Values{1, 4, 5, 13, 7}));
  EXPECT_EQ(given.op.macs(kFirst), 4u * 5 * 13 * 7 * 2 * 3 * 2 * 6);

  Scaffold<TransposeConv3dOp> same({kLast, {1, 6, 2, 3, 4}, {6, 7, 2, 3, 2}, attributes(PaddingSameBegin)});
  EXPECT_EQ(same.output->getDims(), (Values{1, 7, 4, 3, 12}));
  EXPECT_EQ(valuesOf(same.op, "pad_amount"), (Values{1, 0, 2, 2, 2, 1}));
  EXPECT_EQ(same.op.getAttributes()->getStaticTensor("pad_amount")->getDims(), (Values{3, 2}));
  EXPECT_EQ(valuesOf(same.op, "output_padding"), (Values{1, 0, 2}));
}

TEST(Convolution, Conv2dDynamicAxes) {
  using Axes = std::set<std::uint32_t>;
  struct Case {
    Axes data, weight;
    int biasAxes;  // dynamic axes of the bias, -1 for no bias
    Axes expected;
  };
  // Spatial last: data NCHW, weight OIHW, output NCHW.
  const Case cases[] = {
      {{0}, {}, 0, {0}}, {{1}, {}, 0, {}}, {{2}, {}, 0, {2}}, {{}, {3}, 0, {3}}, {{0, 3}, {0}, -1, {0, 1, 3}},
      {{}, {0}, 0, {}},  {{}, {0}, 1, {1}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    std::vector<TensorPtr> inputs = {makeTensor({2, 6, 11, 20}, c.data), makeTensor({8, 6, 3, 5}, c.weight)};
    if (c.biasAxes >= 0) inputs.push_back(makeTensor({8}, c.biasAxes > 0 ? Axes{0} : Axes{}));
    Conv2dOp op("c", makeAttributes({{"stride", {1, 1}}, {"pad_amount", {0, 0, 0, 0}}}), inputs, {});
    EXPECT_EQ(op.inferOutputTensorShapes(kLast, 1), std::vector{IrTensorShape({2, 8, 9, 16}, c.expected)});
  }
}

TEST(Convolution, DefaultsAndGivenValues) {
  const auto given = [] { return makeAttributes({{"stride", {1, 1}}}); };
  EXPECT_EQ(attributesText(Conv2dOp("c", given())),
            "bias_op_name=''/2 dilation=dilation[1,1,]/1 group=1u/1 padding_size_strategy=58/2 "
            "reuse_sparse_indices=0b/1 stride=stride_given[1,1,]/1");
  EXPECT_EQ(
      attributesText(DepthwiseConv2dOp("c", given())),
      "bias_op_name=''/2 dilation=dilation[1,1,]/1 padding_size_strategy=58/2 stride=stride_given[1,1,]/1");
  EXPECT_EQ(attributesText(Conv3dOp("c", nullptr)),
            "bias_op_name=''/2 dilation=dilation[1,1,1,]/1 group=1u/1 padding_size_strategy=58/2 "
            "reuse_sparse_indicies=0b/1");
  EXPECT_EQ(attributesText(TransposeConv2dOp("c", nullptr)),
            "bias_op_name=''/2 group=1u/1 output_padding=output_padding[0,0,]/1 "
            "output_size=output_size[0,0,]/2 padding_size_strategy=58/2");
  EXPECT_EQ(
      attributesText(TransposeConv3dOp("c", withScalars(makeAttributes({{"dilation", {2, 3, 4}}}), 1, 9))),
      "bias_op_name=''/2 dilation=dilation_given[2,3,4,]/1 group=9u/1 "
      "output_padding=output_padding[0,0,0,]/1 output_size=output_size[0,0,0,]/2 "
      "padding_size_strategy=18/2");
}

TEST(Convolution, Failures) {
  const auto attributes = [] {
    return makeAttributes({{"stride", {1, 1, 1}}, {"pad_amount", Values(6, 0)}});
  };
  const auto dynamic = makeTensor({2, 6, 11, 20}, {0});
  const auto data = makeTensor({2, 6, 11, 20});
  const auto weight = makeTensor({8, 6, 3, 5});
  const auto deepData = makeTensor({1, 2, 3, 4, 6}, {0});
  const auto deepWeight = makeTensor({2, 3, 2, 6, 7});

  Conv2dOp conv("c", attributes(), {dynamic, weight}, {});
  expectThrows<std::invalid_argument>(
      "netforge::ops::BaseConv2dOp::inferOutputShapes: Conv2D op c inputs have dynamic shapes. Use "
      "inferOutputTensorShapes instead.",
      [&] { conv.inferOutputShapes(kLast, 1); });
  Conv3dOp conv3d("c", attributes(), {deepData, deepWeight}, {});
  expectThrows<std::invalid_argument>(
      "netforge::ops::BaseConv3dOp::inferOutputShapes: IrOp c of type Conv3d has dynamic inputs. Use "
      "inferOutputTensorShapes instead.",
      [&] { conv3d.inferOutputShapes(kFirst, 1); });
  EXPECT_THROW(conv3d.inferOutputTensorShapes(kFirst, 1), std::invalid_argument);
  TransposeConv2dOp transposed("c", attributes(), {dynamic, weight}, {});
  EXPECT_THROW(transposed.inferOutputShapes(kLast, 1), std::invalid_argument);

  Conv2dOp deep("c", attributes(), {data, deepWeight}, {});
  expectThrows<std::invalid_argument>(
      "netforge::ops::BaseConv2dOp::inferOutputTensorShapes: Op c[Conv2d] needs weight of rank 4, got rank 5",
      [&] { deep.inferOutputTensorShapes(kLast, 1); });
  Conv2dOp shortPads("c", makeAttributes({{"stride", {1, 1}}, {"pad_amount", {0, 0, 0}}}), {data, weight},
                     {});
  expectThrows<std::out_of_range>("Index out of bounds for IrStaticTensor",
                                  [&] { shortPads.inferOutputShapes(kLast, 1); });
}

}  // namespace
}  // namespace netforge::ops
