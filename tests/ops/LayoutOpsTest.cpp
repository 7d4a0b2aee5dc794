#include "ops/LayoutOps.h"

#include <algorithm>
#include <map>
#include <numeric>
#include "DataMovementSupport.h"

namespace netforge::ops {
namespace {

using namespace netforge::test;

AxisFormat populated(IrOp& op, const Tensor& output) {
  op.populateOutputAxisFormats(spatialFirst, {}, false);
  return output->getAxisFormat();
}

TEST(TransposeOp, MovesDynamicAxesAlong) {
  const auto op = build<TransposeOp>(Attrs().list("perm", {2, 0, 1}), {tensor({4, 5, 6}, {0, 2})});
  EXPECT_EQ(op->inferOutputTensorShapes(spatialFirst, 1),
            std::vector<IrTensorShape>{IrTensorShape({6, 4, 5}, {0, 1})});
}

TEST(TransposeOp, OrderConstructorNamesTheTensor) {
  EXPECT_EQ(attributesText(*TransposeOp("t7", Dims{2, 0, 1}).getAttributes()),
            "perm: uint32 t7_perm [3][2,0,1] class 1\n");
}

// A layout letter must follow its axis: the name of the output is checked against the permuted letters of the
// input's name, for every layout and every order.
TEST(TransposeOp, OutputLayoutFollowsTheLetters) {
  std::set<std::string> named;
  for (std::uint32_t value = 0; value <= 23; ++value) {
    const auto input = static_cast<AxisFormat>(value);
    const std::string letters = axisFormatToString(input);
    if (input == AxisFormat::ANY || input == AxisFormat::NONTRIVIAL) continue;
    std::vector<std::int32_t> order(letters.size());
    std::iota(order.begin(), order.end(), 0);
    do {
      const Tensor output = tensor(Dims(order.size(), 1));
      const auto op = build<TransposeOp>(Attrs().list("perm", order),
                                         {tensor(Dims(order.size(), 1), {}, input)}, {output});
      const AxisFormat result = populated(*op.op, output);
      if (result == AxisFormat::NONTRIVIAL) continue;
      std::string permuted;
      for (const std::int32_t axis : order) permuted += letters[static_cast<std::size_t>(axis)];
      EXPECT_EQ(axisFormatToString(result), permuted);
      if (result != input) named.insert(letters + ">" + permuted);
    } while (std::next_permutation(order.begin(), order.end()));
  }
  EXPECT_EQ(named, (std::set<std::string>{"NDHWC>NCDHW", "NCDHW>NDHWC", "NHWC>NCHW", "NCHW>NHWC", "NFC>NCF",
                                          "NCF>NFC", "NTF>TNF", "TNF>NTF", "OIDHW>DHWIO", "IODHW>DHWIO",
                                          "DHWIO>IODHW", "DHWIO>OIDHW", "OIHW>HWIO", "IOHW>HWIO", "HWIO>IOHW",
                                          "HWIO>OIHW"}));
}

TEST(TransposeOp, OnlyTheIdentityOfFourAxesKeepsALayout) {
  struct Case {
    std::vector<std::int32_t> order;
    AxisFormat input, output;
  };
  const std::vector<Case> cases{
      {{0, 1, 2, 3}, AxisFormat::NHWC, AxisFormat::NHWC},
      {{0, 1, 2, 3}, AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED},
      {{0, 1, 2}, AxisFormat::NFC, AxisFormat::NONTRIVIAL},
      {{0, 1, 2, 3, 4}, AxisFormat::NCDHW, AxisFormat::NONTRIVIAL},
      {{0, 2, 3, 1}, AxisFormat::NONTRIVIAL, AxisFormat::NONTRIVIAL},
  };
  for (const Case& test : cases) {
    const Tensor output = tensor(Dims(test.order.size(), 1));
    const auto op = build<TransposeOp>(Attrs().list("perm", test.order),
                                       {tensor(Dims(test.order.size(), 1), {}, test.input)}, {output});
    // The layout recorded with the op counts, not the one that the tensor has taken since.
    op.inputs[0]->setAxisFormat(AxisFormat::NCHW);
    EXPECT_EQ(populated(*op.op, output), test.output) << test.order.size();
  }
}

TEST(ReshapeOp, CalculateShape) {
  struct Case {
    Dims input;
    std::vector<std::int32_t> shape;
    Dims result;
  };
  const std::vector<Case> cases{
      {{2, 3, 4}, {0, -1}, {2, 12}},
      {{2, 3, 4}, {4, 0, 2}, {4, 3, 2}},
      {{2, 3, 4}, {-1, 0, 2}, {4, 3, 2}},
      {{6}, {2}, {6}},  // a smaller product grows in its first dim
      {{2, 3, 4}, {2, 3}, {8, 3}},
      {{5}, {1, 5, 1}, {1, 5, 1}},
      {{}, {1, 1}, {1, 1}},
      {{1}, {}, {}},
      {{65536, 65536}, {-1, 2}, {0x80000000u, 2}},
  };
  for (const Case& test : cases) {
    EXPECT_EQ(ReshapeOp::calculateShape("op", test.input, test.shape), test.result);
  }
}

TEST(ReshapeOp, OutputLayout) {
  struct Case {
    const char* input;
    Dims inputDims, outputDims;
    const char* output;
  };
  const std::vector<Case> cases{
      {"NCHW", {4, 3, 2, 2}, {4, 12}, "NF"},
      {"NCHW", {4, 3, 2, 2}, {2, 24}, "NONTRIVIAL"},
      {"NCHW", {4, 3, 2, 2}, {4, 6, 2}, "NONTRIVIAL"},
      {"NF", {4, 12}, {4, 12}, "NONTRIVIAL"},
      {"NDHWC", {4, 3, 2, 2, 5}, {4, 60}, "NF"},
      {"NC", {4, 6}, {4, 6, 1, 1, 1}, "NCDHW"},
      {"NC", {4, 6}, {4, 1, 1, 1, 6}, "NDHWC"},
      {"NC", {4, 6}, {4, 1, 1, 6}, "NHWC"},
      {"NC", {4, 6}, {4, 6, 1, 1}, "NCHW"},
      {"NC", {4, 6}, {4, 1, 6}, "NFC"},
      {"NC", {4, 6}, {4, 6, 1}, "NCF"},
      {"NC", {4, 6}, {4, 2, 3}, "NONTRIVIAL"},
      {"NC", {4, 1}, {4, 1, 1, 1}, "NCHW"},
      {"NC", {4, 6}, {6, 4, 1, 1}, "NONTRIVIAL"},
      {"NC", {4, 6}, {4, 6}, "NONTRIVIAL"},
      {"NC", {4, 6}, {4, 1, 2, 3}, "NONTRIVIAL"},
  };
  std::map<std::string, AxisFormat> formats;
  for (std::uint32_t value = 0; value <= 11; ++value) {
    formats[axisFormatToString(static_cast<AxisFormat>(value))] = static_cast<AxisFormat>(value);
  }
  for (const Case& test : cases) {
    const Tensor output = tensor(test.outputDims);
    const std::vector<std::int32_t> shape(test.outputDims.begin(), test.outputDims.end());
    const auto op = build<ReshapeOp>(Attrs().list("shape", shape, {}, ATTR_SUPPLEMENTAL),
                                     {tensor(test.inputDims, {}, formats.at(test.input))}, {output});
    EXPECT_EQ(axisFormatToString(populated(*op.op, output)), test.output)
        << test.input << " to rank " << test.outputDims.size();
  }
}

TEST(ExpandDimsOp, InsertsIntoTheGrowingShape) {
  const auto op = build<ExpandDimsOp>(Attrs().list("axes", {2, 0, -1}), {tensor({4, 5}, {1})});
  op->canonicalizeOp(1);
  EXPECT_EQ(op->inferOutputTensorShapes(spatialFirst, 1),
            std::vector<IrTensorShape>{IrTensorShape({1, 1, 1, 4, 5}, {4})});
  const auto behind = build<ExpandDimsOp>(Attrs().list("axes", {3, 1}), {tensor({4, 5, 6})});
  behind->canonicalizeOp(1);
  EXPECT_EQ(behind->inferOutputShapes(spatialFirst, 1), (std::vector<Dims>{{4, 1, 5, 1, 6}}));
}

TEST(LayoutOps, ShapesOfExpandTileAndBlocks) {
  const Tensor x = tensor({2, 1, 5});
  EXPECT_EQ(build<ExpandOp>(Attrs().list("shape", {3, 1, 4, 1}), {x})->inferOutputShapes(spatialFirst, 1),
            (std::vector<Dims>{{3, 2, 4, 5}}));
  EXPECT_EQ(build<TileOp>(Attrs().list("multiples", {3, 4, 1}), {x})->inferOutputShapes(spatialFirst, 1),
            (std::vector<Dims>{{6, 4, 5}}));

  const Attrs block = Attrs().list("block_size", {2, 3});
  const auto deepFirst = build<DepthToSpaceOp>(block, {tensor({2, 5, 7, 24})});
  const auto deepLast = build<DepthToSpaceOp>(block, {tensor({2, 24, 5, 7})});
  EXPECT_EQ(deepFirst->inferOutputShapes(spatialFirst, 1), (std::vector<Dims>{{2, 10, 21, 4}}));
  EXPECT_EQ(deepLast->inferOutputShapes(spatialLast, 1), (std::vector<Dims>{{2, 4, 10, 21}}));
  const auto flatLast = build<SpaceToDepthOp>(block, {tensor({2, 4, 10, 21})});
  EXPECT_EQ(flatLast->inferOutputShapes(spatialLast, 1), (std::vector<Dims>{{2, 24, 5, 7}}));
}

TEST(LayoutOps, Failures) {
  const auto& invalid = typeid(std::invalid_argument);
  const std::string transpose = "netforge::ops::TransposeOp::checkOrderAndInput: TransposeOp op error: ";
  const std::string reshape =
      "netforge::ops::ReshapeOp::calculateShape: Unable to calculate ReshapeOp output shape for op op: ";
  const std::string axes = "netforge::ops::ExpandDimsOp::canonicalizeOp: ExpandDimsOp axis value ";
  const std::string zeroBlock = ", which causes division by zero when calculating output dimensions. block_";
  const auto check = [](const Attrs& attrs, const std::vector<Tensor>& inputs) {
    return [=] { build<TransposeOp>(attrs, inputs)->checkOrderAndInput(); };
  };
  const auto calculate = [](const Dims& dims, const std::vector<std::int32_t>& shape) {
    return [=] { ReshapeOp::calculateShape("op", dims, shape); };
  };
  const auto expandAxes = [](const std::vector<std::int32_t>& values) {
    return [=] { build<ExpandDimsOp>(Attrs().list("axes", values), {tensor({4, 5})})->canonicalizeOp(1); };
  };
  const auto infer = []<class Op>(const Built<Op>& op) {
    return [=] { op->inferOutputShapes(spatialFirst, 1); };
  };
  const Tensor x = tensor({2, 3, 4});
  const Tensor dynamic = tensor({2, 3, 4}, {1});
  const Attrs perm = Attrs().list("perm", {2, 0, 1});
  const Attrs axis = Attrs().list("axes", {0});
  expectFailures({
      {invalid, transpose + "TransposeOp expect 1 input, but the size of inputs is 2", check(perm, {x, x})},
      {invalid, transpose + "order rank expect 1, but actually 2.",
       check(Attrs().list("perm", {0, 1, 2}, {1, 3}), {x})},
      {invalid, transpose + "order dim 2 is not equal input rank 3.",
       check(Attrs().list("perm", {0, 1}), {x})},
      {invalid, transpose + "illegal order. Axis value 0 at index 2 is either duplicate or >= input rank 3",
       check(Attrs().list("perm", {0, 1, 0}), {x})},
      {invalid, transpose + "illegal order. Axis value 3 at index 1 is either duplicate or >= input rank 3",
       check(Attrs().list("perm", {0, 3, 1}), {x})},
      {invalid,
       "netforge::ops::TransposeOp::populateOutputAxisFormats: TransposeOp op error: TransposeOp expect 1 "
       "output, but the size of output is 0",
       [&] { build<TransposeOp>(perm, {x})->populateOutputAxisFormats(spatialFirst, {}, false); }},
      {invalid,
       "netforge::ops::TransposeOp::inferOutputShapes: TransposeOp op inputs have dynamic shapes. Use "
       "inferOutputTensorShapes instead.",
       infer(build<TransposeOp>(perm, {dynamic}))},
      {typeid(std::runtime_error),
       "netforge::ops::TransposeOp::inferOutputShapes: TransposeOp op inferOutputTensorShapes did not return "
       "any shapes. Input shape: " +
           shapeText(IrTensorShape()) + ".",
       infer(build<TransposeOp>(perm, {}))},
      {invalid,
       "netforge::ops::ReshapeOp::ReshapeOp: shape attribute must be set as supplemental attr for op op",
       [&] { build<ReshapeOp>(Attrs().list("shape", {24}), {x}); }},
      {invalid, reshape + "shape param has 0 at index 1, but input shape has only 1 dimensions",
       calculate({6}, {6, 0})},
      {invalid, reshape + "input total element count (7) != output total element count (2)",
       calculate({7}, {2})},
      {invalid, reshape + "input total element count (6) != output total element count (12)",
       calculate({6}, {3, 4})},
      {invalid, axes + "3 at index 1 is out of range [0,2)", expandAxes({0, 3})},
      {invalid, axes + "-3 at index 0 is out of range [0,2)", expandAxes({-3})},
      {invalid, axes + "-1 at index 1 is not unique.", expandAxes({1, -1})},
      {invalid,
       "netforge::ops::ExpandDimsOp::inferOutputShapes: ExpandDimsOp op has dynamic inputs. Use "
       "inferOutputTensorShapes instead.",
       infer(build<ExpandDimsOp>(axis, {dynamic}))},
      {typeid(std::runtime_error),
       "netforge::ops::ExpandDimsOp::inferOutputShapes: No output shapes infered for op op.",
       infer(build<ExpandDimsOp>(axis, {}))},
      {invalid,
       "netforge::ops::ExpandOp::inferOutputShapes: Unable to calculate ExpandOp output shape for op op. The "
       "value of output_shape parameter must be greater than 0. But got -1 at index 1.",
       infer(build<ExpandOp>(Attrs().list("shape", {2, -1, 4}), {x}))},
      {invalid,
       "netforge::ops::TileOp::inferOutputShapes: TileOp (op) multiples length 2 doesn't equal input rank 3",
       infer(build<TileOp>(Attrs().list("multiples", {2, 1}), {x}))},
      {invalid,
       "netforge::ops::TileOp::inferOutputShapes: IrOp op of type Tile has dynamic inputs. Use "
       "inferOutputTensorShapes instead.",
       infer(build<TileOp>(Attrs().list("multiples", {2, 1, 1}), {dynamic}))},
      {invalid,
       "netforge::ops::DepthToSpaceOp::inferOutputShapes: DepthToSpaceOp op has zero block_height" +
           zeroBlock + "height must be > 0",
       infer(build<DepthToSpaceOp>(Attrs().list("block_size", {0, 0}), {tensor({1, 2, 3, 4})}))},
      {invalid,
       "netforge::ops::SpaceToDepthOp::inferOutputShapes: SpaceToDepthOp op has zero block_width" +
           zeroBlock + "width must be > 0",
       infer(build<SpaceToDepthOp>(Attrs().list("block_size", {2, 0}), {tensor({1, 2, 3, 4})}))},
      {typeid(std::out_of_range), "Index out of bounds for IrStaticTensor",
       infer(build<SpaceToDepthOp>(Attrs().list("block_size", {2}), {tensor({1, 2, 3, 4})}))},
  });
}

}  // namespace
}  // namespace netforge::ops
