#include "ops/ConvolutionOps.h"

#include <optional>
#include <random>

#include "tests/ops/DataMovementSupport.h"

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
        << "case " << (&c - cases);
  }
}

constexpr std::uint32_t kBefore = 9, kAfter = 8;  // the given pads

TEST(Padding, ExplicitPads) {
  struct Case {
    std::uint32_t input, kernel, output, stride, dilation;
    std::uint8_t strategy;
    std::pair<std::uint32_t, std::uint32_t> expected;
  };
  const Case cases[] = {
      {7, 3, 4, 2, 1, PaddingSameBegin, {1, 1}}, {8, 4, 8, 1, 1, PaddingSameBegin, {2, 1}},
      {8, 4, 8, 1, 1, PaddingSameEnd, {1, 2}},   {9, 3, 9, 1, 2, PaddingSameEnd, {2, 2}},
      {5, 1, 5, 1, 1, PaddingSameBegin, {0, 0}}, {8, 1, 3, 3, 1, PaddingSameBegin, {kBefore, kAfter}},
      {8, 4, 8, 1, 1, PaddingValid, {9, 8}},     {8, 4, 8, 1, 1, PaddingExplicitFloor, {kBefore, kAfter}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ConvOp::calcExplicitPaddingSize(c.input, c.kernel, c.output, c.stride, c.dilation, c.strategy,
                                              kBefore, kAfter),
              c.expected)
        << "case " << (&c - cases);
  }
}

TEST(Padding, ExplicitPadsOfTransposeConvolution) {
  struct Case {
    std::uint32_t input, output, kernel, stride;
    std::uint8_t strategy;
    std::uint32_t outputPadding, dilation;
    std::array<std::uint32_t, 3> expected;
  };
  const Case cases[] = {
      {4, 8, 5, 2, PaddingSameBegin, 0, 1, {2, 1, 0}},
      {4, 8, 5, 2, PaddingSameEnd, 0, 1, {1, 2, 0}},
      {4, 8, 3, 2, PaddingSameEnd, 1, 2, {2, 2, 1}},
      {5, 15, 2, 3, PaddingSameEnd, 0, 1, {kBefore, kAfter, 1}},
      {5, 15, 1, 3, PaddingSameBegin, 0, 1, {kBefore, kAfter, 2}},
      {4, 8, 5, 2, PaddingExplicitFloor, 7, 1, {kBefore, kAfter, 7}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TransposeConvOp::calcExplicitPaddingSize(c.input, c.output, c.kernel, c.stride, c.strategy,
                                                       kBefore, kAfter, c.outputPadding, c.dilation),
              c.expected)
        << "case " << (&c - cases);
  }
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

/// An op with tensors of these dims and an output of the inferred shape.
template <class Op>
Built<Op> infer(const Attrs& attrs, const std::shared_ptr<AxisOrder>& order, const std::vector<Dims>& dims) {
  std::vector<Tensor> inputs;
  for (const Dims& entry : dims) inputs.push_back(tensor(entry));
  auto built = build<Op>(attrs, inputs);
  built.outputs = {tensor(built->inferOutputTensorShapes(order, 1).at(0).dims)};
  built->setOutputs(built.outputs);
  return built;
}

Attrs convAttrs(std::uint8_t strategy, const std::vector<std::int32_t>& stride,
                const std::vector<std::int32_t>& pads, std::uint32_t group = 1) {
  return Attrs()
      .set("padding_size_strategy", strategy)
      .set("group", group)
      .list("stride", stride)
      .list("pad_amount", pads);
}

std::string tensorText(const IrOp& op, const std::string& attribute) {
  return attributeText(*op.getAttributes(), attribute);
}

TEST(Convolution, Conv2dByStrategyInBothLayouts) {
  struct Case {
    std::uint8_t strategy;
    std::uint32_t height, width;
    std::string pads;
  };
  const Case cases[] = {
      {PaddingExplicitFloor, 4, 7, "[1,0,2,1]"}, {PaddingExplicitCeil, 5, 7, "[1,0,2,1]"},
      {PaddingValid, 4, 6, "[1,0,2,1]"},         {PaddingSameBegin, 6, 7, "[2,2,2,1]"},
      {PaddingSameEnd, 6, 7, "[2,2,1,2]"},
  };
  for (const Case& c : cases) {
    for (const auto& order : {spatialFirst, spatialLast}) {
      const bool last = order == spatialLast;
      SCOPED_TRACE(testing::Message() << "strategy " << int{c.strategy} << " spatial last " << last);
      auto attrs = convAttrs(c.strategy, {2, 3}, {1, 0, 2, 1}, 2).list("dilation", {2, 1});
      const auto op = infer<Conv2dOp>(attrs, order,
                                      last ? std::vector<Dims>{{2, 6, 11, 20}, {8, 3, 3, 5}, {8}}
                                           : std::vector<Dims>{{2, 11, 20, 6}, {3, 5, 3, 8}, {8}});
      const Dims expected = last ? Dims{2, 8, c.height, c.width} : Dims{2, c.height, c.width, 8};
      EXPECT_EQ(op.outputs[0]->getDims(), expected);
      EXPECT_EQ(op->inferOutputShapes(order, 1), std::vector<Dims>{expected});  // reads the written pads
      EXPECT_EQ(tensorText(*op.op, "pad_amount"), "uint32 pad_amount_values [2,2]" + c.pads + " class 1");
      EXPECT_EQ(op->macs(order), std::uint64_t{c.height} * c.width * 8 * 3 * 5 * 3);
      EXPECT_EQ(op->paramsCount(order), 3u * 5 * 3 * 8 + 8);
      op->overrideDataAxisFormats(order);
      const std::vector formats = {last ? AxisFormat::NCHW : AxisFormat::NHWC,
                                   last ? AxisFormat::OIHW : AxisFormat::HWIO, AxisFormat::NOT_YET_DEFINED};
      EXPECT_EQ(op->getInputAxisFormats(), formats);
      EXPECT_EQ(op->getStoredInputAxisFormats(), formats);
    }
  }
}

TEST(Convolution, DepthwiseAnd3d) {
  const auto plain = [] { return convAttrs(PaddingExplicitFloor, {1, 1}, {0, 0, 0, 0}); };
  const auto first = infer<DepthwiseConv2dOp>(plain(), spatialFirst, {{1, 5, 8, 6}, {3, 2, 1, 6}});
  const auto last = infer<DepthwiseConv2dOp>(plain(), spatialLast, {{1, 6, 5, 8}, {6, 1, 3, 2}});
  EXPECT_EQ(first.outputs[0]->getDims(), (Dims{1, 3, 7, 6}));
  EXPECT_EQ(last.outputs[0]->getDims(), (Dims{1, 6, 3, 7}));
  EXPECT_EQ(first->macs(spatialFirst), 3u * 7 * 6 * 3 * 2);
  EXPECT_EQ(last->paramsCount(spatialLast), 36u);

  const auto deep = [] {
    return convAttrs(PaddingExplicitFloor, {1, 2, 3}, {1, 1, 0, 1, 2, 0}).list("dilation", {1, 3, 1});
  };
  const auto first3d = infer<Conv3dOp>(deep(), spatialFirst, {{2, 7, 9, 15, 5}, {3, 2, 4, 5, 10}});
  const auto last3d = infer<Conv3dOp>(deep(), spatialLast, {{2, 5, 7, 9, 15}, {10, 5, 3, 2, 4}});
  EXPECT_EQ(first3d.outputs[0]->getDims(), (Dims{2, 7, 4, 5, 10}));
  EXPECT_EQ(last3d.outputs[0]->getDims(), (Dims{2, 10, 7, 4, 5}));
  EXPECT_EQ(tensorText(*first3d.op, "pad_amount"), "uint32 pad_amount_values [3,2][1,1,0,1,2,0] class 1");
  // The last three dims of the output count, whichever they are in the layout.
  EXPECT_EQ(first3d->macs(spatialFirst), 4u * 5 * 10 * 120);
  EXPECT_EQ(last3d->macs(spatialLast), 7u * 4 * 5 * 120);
  EXPECT_EQ(last3d->paramsCount(spatialLast), 1200u);
}

TEST(Convolution, TransposeConv2dByStrategyAndRequest) {
  using Words = std::vector<std::int32_t>;
  struct Case {
    std::uint8_t strategy;
    Words outputPadding, request;
    std::uint32_t height, width;
    std::string pads, newOutputPadding;
  };
  const Case cases[] = {
      {PaddingExplicitFloor, {1, 0}, {0, 0}, 9, 13, "[1,0,0,1]", "[1,0]"},
      {PaddingValid, {1, 0}, {0, 0}, 9, 14, "[1,0,0,1]", "[1,0]"},
      {PaddingSameEnd, {1, 0}, {0, 0}, 8, 15, "[1,1,0,1]", "[1,1]"},
      {PaddingExplicitFloor, {0, 0}, {9, 14}, 9, 14, "[1,0,0,1]", "[1,1]"},
      {PaddingExplicitFloor, {1, 0}, {9, 0}, 9, 13, "[1,0,0,1]", "[1,0]"},   // half a request is none
      {PaddingExplicitFloor, {1, 0}, {5, 12}, 5, 12, "[1,0,0,1]", "[1,0]"},  // less than the natural size
      {PaddingExplicitFloor, {0, 0}, {9, 12}, 9, 12, "[1,0,0,1]", "[1,0]"},
  };
  for (const Case& c : cases) {
    for (const auto& order : {spatialFirst, spatialLast}) {
      const bool last = order == spatialLast;
      SCOPED_TRACE(testing::Message() << "case " << (&c - cases) << " spatial last " << last);
      auto attrs = convAttrs(c.strategy, {2, 3}, {1, 0, 0, 1}, 2);
      attrs.list("output_padding", c.outputPadding).list("output_size", c.request);
      const auto op = infer<TransposeConv2dOp>(attrs, order,
                                               last ? std::vector<Dims>{{2, 6, 4, 5}, {6, 4, 3, 2}}
                                                    : std::vector<Dims>{{2, 4, 5, 6}, {3, 2, 6, 4}});
      EXPECT_EQ(op.outputs[0]->getDims(),
                last ? (Dims{2, 8, c.height, c.width}) : (Dims{2, c.height, c.width, 8}));
      EXPECT_EQ(tensorText(*op.op, "pad_amount"), "uint32 pad_amount_values [2,2]" + c.pads + " class 1");
      EXPECT_EQ(tensorText(*op.op, "output_padding"),
                "uint32 output_padding_values [2]" + c.newOutputPadding + " class 1");
      EXPECT_EQ(op->macs(order), std::uint64_t{c.height} * c.width * 8 * 3 * 2 * 6 / 2);
      EXPECT_EQ(op->paramsCount(order), 0u);
      op->overrideDataAxisFormats(order);
      EXPECT_EQ(op.inputs[1]->getAxisFormat(), last ? AxisFormat::IOHW : AxisFormat::HWIO);
    }
  }
}

TEST(Convolution, TransposeConv3dDilates) {
  const auto attrs = [](std::uint8_t strategy) {
    return convAttrs(strategy, {2, 1, 3}, {0, 1, 1, 1, 0, 2})
        .list("dilation", {1, 2, 3})
        .list("output_padding", {1, 0, 2});
  };
  const auto given =
      infer<TransposeConv3dOp>(attrs(PaddingExplicitFloor), spatialFirst, {{1, 2, 3, 4, 6}, {2, 3, 2, 6, 7}});
  EXPECT_EQ(given.outputs[0]->getDims(), (Dims{1, 4, 5, 13, 7}));
  EXPECT_EQ(given->macs(spatialFirst), 4u * 5 * 13 * 7 * 2 * 3 * 2 * 6);

  const auto same =
      infer<TransposeConv3dOp>(attrs(PaddingSameBegin), spatialLast, {{1, 6, 2, 3, 4}, {6, 7, 2, 3, 2}});
  EXPECT_EQ(same.outputs[0]->getDims(), (Dims{1, 7, 4, 3, 12}));
  EXPECT_EQ(tensorText(*same.op, "pad_amount"), "uint32 pad_amount_values [3,2][1,0,2,2,2,1] class 1");
  EXPECT_EQ(tensorText(*same.op, "output_padding"), "uint32 output_padding_values [3][1,0,2] class 1");
}

TEST(Convolution, Conv2dDynamicAxes) {
  using Axes = std::set<std::uint32_t>;
  struct Case {
    Axes data, weight;         // NCHW, OIHW
    std::optional<Axes> bias;  // nothing: no bias
    Axes expected;
  };
  const Case cases[] = {
      {{0}, {}, Axes{}, {0}}, {{1}, {}, Axes{}, {}},  {{2}, {}, Axes{}, {2}},  {{}, {3}, Axes{}, {3}},
      {{}, {0}, Axes{}, {}},  {{}, {1}, Axes{0}, {}}, {{}, {0}, Axes{0}, {1}}, {{0, 3}, {0}, {}, {0, 1, 3}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    std::vector<Tensor> inputs = {tensor({2, 6, 11, 20}, c.data), tensor({8, 6, 3, 5}, c.weight)};
    if (c.bias) inputs.push_back(tensor({8}, *c.bias));
    const auto op = build<Conv2dOp>(convAttrs(PaddingExplicitFloor, {1, 1}, {0, 0, 0, 0}), inputs);
    EXPECT_EQ(op->inferOutputTensorShapes(spatialLast, 1),
              std::vector{IrTensorShape({2, 8, 9, 16}, c.expected)});
  }
}

TEST(Convolution, Failures) {
  const auto attrs = [] { return convAttrs(PaddingExplicitFloor, {1, 1, 1}, {0, 0, 0, 0, 0, 0}); };
  const auto weight = tensor({8, 6, 3, 5});
  const auto deepWeight = tensor({2, 3, 2, 6, 7});
  const auto dynamic2d = build<Conv2dOp>(attrs(), {tensor({2, 6, 11, 20}, {0}), weight});
  const auto dynamic3d = build<Conv3dOp>(attrs(), {tensor({1, 2, 3, 4, 6}, {0}), deepWeight});
  const auto transposed = build<TransposeConv2dOp>(attrs(), {tensor({2, 6, 11, 20}, {0}), weight});
  const auto wrongRank = build<Conv2dOp>(attrs(), {tensor({2, 6, 11, 20}), deepWeight});
  const auto shortPads =
      build<Conv2dOp>(convAttrs(PaddingExplicitFloor, {1, 1}, {0, 0, 0}), {tensor({2, 6, 11, 20}), weight});
  expectFailures({
      {typeid(std::invalid_argument),
       "netforge::ops::BaseConv2dOp::inferOutputShapes: Conv2D op op inputs have dynamic shapes. Use "
       "inferOutputTensorShapes instead.",
       [&] { dynamic2d->inferOutputShapes(spatialLast, 1); }},
      {typeid(std::invalid_argument),
       "netforge::ops::BaseConv3dOp::inferOutputShapes: IrOp op of type Conv3d has dynamic inputs. Use "
       "inferOutputTensorShapes instead.",
       [&] { dynamic3d->inferOutputShapes(spatialFirst, 1); }},
      {typeid(std::invalid_argument),
       "netforge::ops::BaseTransposeConv2dOp::inferOutputShapes: IrOp op of type TransposeConv2d has dynamic "
       "inputs. Use inferOutputTensorShapes instead.",
       [&] { transposed->inferOutputShapes(spatialLast, 1); }},
      {typeid(std::invalid_argument),
       "netforge::ops::BaseConv2dOp::inferOutputTensorShapes: Op op[Conv2d] needs weight of rank 4, got rank "
       "5",
       [&] { wrongRank->inferOutputTensorShapes(spatialLast, 1); }},
      {typeid(std::out_of_range), "Index out of bounds for IrStaticTensor",
       [&] { shortPads->inferOutputShapes(spatialLast, 1); }},
      {typeid(std::invalid_argument), "netforge::ops::calcOutputSize: Stride must be at least 1.",
       [] { calcOutputSize(7, 3, 0, 0, 0, 1, PaddingSameEnd); }},
      {typeid(std::invalid_argument),
       "netforge::ops::TransposeConvOp::calcExplicitPaddingSize: Unable to adjust TransposeConv implicit pad "
       "strategy. Got pad difference of 4, which is greater than the allowed pad difference 1 (stride=3, "
       "outputPad=1).",
       [] { TransposeConvOp::calcExplicitPaddingSize(5, 18, 1, 3, PaddingSameEnd, 0, 0, 1, 1); }},
  });
}

}  // namespace
}  // namespace netforge::ops
