#include "ops/SliceOps.h"

#include "DataMovementSupport.h"
#include "ops/GatherOps.h"
#include "ops/LayoutOps.h"

namespace netforge::ops {
namespace {

using namespace netforge::test;

const auto& invalid = typeid(std::invalid_argument);

TEST(ConcatOp, SumsTheAxisAndItsDynamicFlag) {
  struct Case {
    std::vector<IrTensorShape> inputs;
    std::uint32_t axis;
    IrTensorShape result;
  };
  const std::vector<Case> cases{
      {{IrTensorShape({2, 3}), IrTensorShape({2, 4})}, 1, IrTensorShape({2, 7})},
      {{IrTensorShape({2, 3, 5}), IrTensorShape({4, 3, 5}, {0}), IrTensorShape({1, 3, 5})},
       0,
       IrTensorShape({7, 3, 5}, {0})},
      {{IrTensorShape({2, 3}, {0}), IrTensorShape({2, 4}, {0})}, 1, IrTensorShape({2, 7}, {0})},
      {{IrTensorShape({6})}, 0, IrTensorShape({6})},
  };
  for (const Case& test : cases) {
    std::vector<Tensor> inputs;
    for (const auto& shape : test.inputs) inputs.push_back(tensor(shape.dims, shape.dynamicAxes));
    const auto op = build<ConcatOp>(Attrs().set("axis", test.axis), inputs);
    EXPECT_EQ(op->inferOutputTensorShapes(spatialFirst, 1), std::vector<IrTensorShape>{test.result});
  }
}

TEST(SplitOp, PartsAndResize) {
  const Tensor x = tensor({2, 9, 4});
  const std::vector<Tensor> parts{tensor({9, 9, 9}), tensor({9, 9, 9}), tensor({9, 9, 9})};
  const auto op = build<SplitOp>(Attrs().set("axis", -2).list("split_index", {2, 7}), {x}, parts);
  op->canonicalizeOp(3);
  EXPECT_EQ(op->inferOutputShapes(spatialFirst, 3), (std::vector<Dims>{{2, 2, 4}, {2, 5, 4}, {2, 2, 4}}));
  EXPECT_THROW(op->resizeOp(spatialFirst, 3), std::invalid_argument);
  for (std::size_t i = 0; i < 3; ++i) parts[i]->setShape(IrTensorShape(Dims{1, i == 1 ? 5u : 2u, 4}));
  op->resizeOp(spatialFirst, 3);
  EXPECT_EQ(op->getOutputDims(), (std::vector<Dims>{{2, 2, 4}, {2, 5, 4}, {2, 2, 4}}));
}

TEST(SliceOps, ShapesOfPackAndPad) {
  const Tensor x = tensor({2, 3});
  for (const auto& [axis, result] :
       std::vector<std::pair<std::uint32_t, Dims>>{{0, {4, 2, 3}}, {1, {2, 4, 3}}, {2, {2, 3, 4}}}) {
    const auto op = build<PackOp>(Attrs().set("axis", axis), {x, x, x, x});
    EXPECT_EQ(op->inferOutputShapes(spatialFirst, 1), std::vector<Dims>{result});
  }
  const auto pad = build<PadOp>(Attrs().list("pad_amount", {1, 2, 0, 5}, {2, 2}), {x});
  EXPECT_EQ(pad->inferOutputShapes(spatialFirst, 1), (std::vector<Dims>{{5, 8}}));
  pad->overrideDataAxisFormats(spatialFirst);
  EXPECT_EQ(x->getAxisFormat(), AxisFormat::NF);
  EXPECT_EQ(pad->getStoredInputAxisFormats()[0], AxisFormat::NF);
}

// Every parameter in its normal form: value, type, class and tensor name; a second run changes nothing.
TEST(DataMovementOps, CanonicalAttributes) {
  struct Case {
    Built<IrOp> op;
    const char* attribute;
    std::uint32_t numOutputs;
    const char* text;
  };
  const auto as = []<class Op>(const Built<Op>& op) { return Built<IrOp>{op.inputs, op.outputs, op.op}; };
  const auto axis = [](auto value) { return Attrs().set("axis", value); };
  const Tensor x = tensor({4, 9, 6});
  const Tensor row = tensor({4, 9});
  const std::vector<Case> cases{
      {as(build<TransposeOp>(Attrs().list("perm", {0, -1, -2}), {x})), "perm", 1,
       "uint32 perm_values [3][0,2,1] class 1"},
      {as(build<ExpandDimsOp>(Attrs().list("axes", {3, -1, 0}, {}, ATTR_SUPPLEMENTAL), {x})), "axes", 1,
       "uint32 axes_values [3][0,2,3] class 1"},
      {as(build<ConcatOp>({}, {x})), "axis", 1, "uint32 2 class 1"},
      {as(build<ConcatOp>(axis(5), {x})), "axis", 1, "uint32 5 class 1"},  // refused by the inference
      {as(build<ConcatOp>(axis(0xFFFFFFFFu), {x})), "axis", 1, "uint32 2 class 1"},
      {as(build<GatherOp>(axis(-3), {x, x})), "axis", 1, "int32 0 class 1"},
      {as(build<GatherElementsOp>(axis(2u), {x, x})), "axis", 1, "uint32 2 class 1"},
      {as(build<GatherNDOp>({}, {x, x})), "batch_dims", 1, "uint32 0 class 1"},
      {as(build<PackOp>(axis(-1), {row})), "axis", 1, "uint32 2 class 1"},
      {as(build<PackOp>(axis(2), {row})), "axis", 1, "uint32 2 class 1"},
      {as(build<PackOp>(axis(-2), {row})), "axis", 1, "uint32 1 class 1"},
      {as(build<SplitOp>(axis(-1).list("split_index", {2}), {x})), "axis", 2, "uint32 2 class 1"},
      {as(build<SplitOp>(axis(1).list("split_index", {}), {x})), "split_index", 3,
       "uint32 split_index_values [2][3,6] class 1"},
      {as(build<SplitOp>(axis(1).list("split_index", {4}), {x})), "split_index", 2,
       "int32 split_index_values [1][4] class 1"},
      {as(build<StridedSliceOp>(Attrs().list("ranges", {-1, -1, -1, -4, 20, 2, 1, -1, 1, 7, 7, 7}), {x})),
       "ranges", 1, "int32 ranges_values [3,3][3,-1,-1,5,9,2,1,5,1] class 1"},
      {as(build<StridedSliceOp>(Attrs().list("ranges", {-5, -9, 3, 0, 4, 1}, {2, 3}), {tensor({7, 9}, {0})})),
       "ranges", 1, "int32 ranges_values [2,3][-5,-9,3,0,4,1] class 1"},  // a dynamic axis keeps its row
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.op->displayName() + " " + test.text);
    test.op->canonicalizeOp(test.numOutputs);
    EXPECT_TRUE(test.op->isCanonicalized());
    const std::string once = attributesText(*test.op->getAttributes());
    EXPECT_EQ(attributeText(*test.op->getAttributes(), test.attribute), test.text);
    test.op->canonicalizeOp(test.numOutputs);
    EXPECT_EQ(attributesText(*test.op->getAttributes()), once);
  }
}

TEST(DataMovementOps, TypesAndDefaults) {
  const auto text = []<class Op>(const Built<Op>& op) {
    return op->getType() + "\n" + attributesText(*op->getAttributes());
  };
  EXPECT_EQ(text(build<ConcatOp>({}, {})), "Concat\naxis: int32 -1 class 1\n");
  EXPECT_EQ(text(build<ConcatOp>(Attrs().set("axis", 3u), {})), "Concat\naxis: uint32 3 class 1\n");
  EXPECT_EQ(text(build<DepthToSpaceOp>({}, {})), "DepthToSpace\nmode: uint32 0 class 1\n");
  EXPECT_EQ(text(build<SpaceToDepthOp>({}, {})),
            "SpaceToDepth\ndata_format: str NHWC class 3\nmode: uint32 0 class 1\n");
  EXPECT_EQ(text(build<GatherNDOp>({}, {})), "GatherNd\nbatch_dims: int32 0 class 1\n");
  EXPECT_EQ(text(build<PadOp>({}, {})), "Pad\npad_constant_value: float32 0 class 1\n");
  EXPECT_EQ(text(build<StridedSliceOp>(Attrs().set("end_mask", 5u), {})),
            "StridedSlice\nbegin_mask: uint32 0 class 1\nend_mask: uint32 5 class 1\n"
            "new_axes_mask: uint32 0 class 1\nshrink_axes: uint32 0 class 1\n");
}

TEST(SliceOps, Failures) {
  const auto canonicalize = []<class Op>(const Built<Op>& op, std::uint32_t numOutputs = 1) {
    return [=] { op->canonicalizeOp(numOutputs); };
  };
  const auto infer = []<class Op>(const Built<Op>& op) {
    return [=] { op->inferOutputShapes(spatialFirst, 1); };
  };
  const auto concat = [](std::uint32_t axis, const Dims& first, const Dims& second,
                         const std::set<std::uint32_t>& dynamicAxes = {}) {
    const auto op = build<ConcatOp>(Attrs().set("axis", axis), {tensor(first), tensor(second, dynamicAxes)});
    return [=] { op->inferOutputTensorShapes(spatialFirst, 1); };
  };
  const std::string concatText = "netforge::ops::ConcatOp::inferOutputTensorShapes: ";
  const auto shapes = [](const IrTensorShape& first, const IrTensorShape& second) {
    return shapeText(first) + " and " + shapeText(second);
  };
  const Tensor x = tensor({2, 10});
  const Tensor dynamic = tensor({2, 10}, {0});
  const Attrs even = Attrs().set("axis", 1u).list("split_index", {});
  expectFailures({
      {invalid,
       "netforge::ops::ConcatOp::canonicalizeOp: ConcatOp op axis provided, -3, is incorrect for rank 2.",
       canonicalize(build<ConcatOp>(Attrs().set("axis", -3), {x}))},
      {invalid,
       concatText + "Axis 2 is out of bounds for tensor with shape " + shapeText(IrTensorShape({2, 3})),
       concat(2, {2, 3}, {2, 3})},
      {invalid,
       concatText + "Cannot Concat inputs with different ranks " +
           shapes(IrTensorShape({2, 3}), IrTensorShape({2, 3, 1})),
       concat(1, {2, 3}, {2, 3, 1})},
      {invalid,
       concatText + "Inconsistency in dynamic axis shapes. Cannot concat tensor with shapes: " +
           shapes(IrTensorShape({2, 3}), IrTensorShape({1, 4})) + " on axis 1",
       concat(1, {2, 3}, {1, 4})},
      {invalid,
       concatText + "Inconsistency in dynamic axis shapes. Cannot concat tensor with shapes: " +
           shapes(IrTensorShape({2, 3}), IrTensorShape({2, 3}, {0})) + " on axis 1",
       concat(1, {2, 3}, {2, 3}, {0})},
      {invalid,
       "netforge::ops::ConcatOp::inferOutputShapes: ConcatOp op has dynamic inputs. Use "
       "inferOutputTensorShapes instead.",
       infer(build<ConcatOp>(Attrs().set("axis", 0u), {x, dynamic}))},
      {typeid(std::runtime_error),
       "netforge::ops::ConcatOp::inferOutputShapes: No output shapes infered for op op.",
       infer(build<ConcatOp>({}, {}))},
      {invalid,
       "netforge::ops::SplitOp::canonicalizeOp: SplitOp op cannot split axis 1 equally amongst 3 outputs.",
       canonicalize(build<SplitOp>(even, {x}), 3)},
      {invalid,
       "netforge::ops::SplitOp::canonicalizeOp: SplitOp op cannot split axis 1 equally amongst 0 outputs.",
       canonicalize(build<SplitOp>(even, {x}), 0)},
      {invalid, "netforge::ops::SplitOp::canonicalizeOp: SplitOp op axis 4 is incorrect for rank 2.",
       canonicalize(build<SplitOp>(Attrs().set("axis", 4).list("split_index", {}), {x}), 2)},
      {invalid,
       "netforge::ops::SplitOp::inferOutputShapes: SplitOp op split_index must ascend up to the size 10 of "
       "axis "
       "1, but 10 follows 12.",
       infer(build<SplitOp>(Attrs().set("axis", 1u).list("split_index", {3, 12}), {x}))},
      {invalid,
       "netforge::ops::SplitOp::resizeOp: Unable to resize op op of type Split due to mismatch between input "
       "dimension (10) and sum of output dimensions (9) along split axis 1.",
       [&] {
         build<SplitOp>(Attrs().set("axis", 1u).list("split_index", {4}), {x},
                        {tensor({2, 4}), tensor({2, 5})})
             ->resizeOp(spatialFirst, 2);
       }},
      {invalid, "netforge::ops::PackOp::canonicalizeOp: PackOp op axis = 3, is incorrect for rank 2.",
       canonicalize(build<PackOp>(Attrs().set("axis", 3), {x}))},
      {invalid, "netforge::ops::PackOp::canonicalizeOp: PackOp op axis = -1, is incorrect for rank 2.",
       canonicalize(build<PackOp>(Attrs().set("axis", -3), {x}))},
      {invalid,
       "netforge::ops::PadOp::inferOutputShapes: Input Pad shape for op op dims()[1] must be equal with 2, "
       "but "
       "get:3",
       infer(build<PadOp>(Attrs().list("pad_amount", {1, 1, 1, 1, 1, 1}, {2, 3}), {x}))},
      {invalid,
       "netforge::ops::PadOp::inferOutputShapes: Input Pad shape (3) for op op must be equal to Input[0] "
       "rank "
       "(2).",
       infer(build<PadOp>(Attrs().list("pad_amount", {1, 1, 1, 1, 1, 1}, {3, 2}), {x}))},
  });
}

}  // namespace
}  // namespace netforge::ops
