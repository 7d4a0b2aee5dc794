#include "ops/GatherOps.h"

#include "DataMovementSupport.h"
#include "ops/SparseOps.h"

namespace netforge::ops {
namespace {

using namespace netforge::test;

const auto& invalid = typeid(std::invalid_argument);
const auto& runtime = typeid(std::runtime_error);

TEST(GatherOp, ReplacesTheAxisByTheIndices) {
  struct Case {
    std::int32_t axis;
    IrTensorShape data, indices, result;
  };
  const std::vector<Case> cases{
      {0, IrTensorShape({2, 3, 4}), IrTensorShape({5, 6}), IrTensorShape({5, 6, 3, 4})},
      {-1, IrTensorShape({2, 3, 4}, {0}), IrTensorShape({5, 6}, {1}), IrTensorShape({2, 3, 5, 6}, {0, 3})},
      {1, IrTensorShape({2, 3, 4}, {1, 2}), IrTensorShape({5}), IrTensorShape({2, 5, 4}, {2})},
      {1, IrTensorShape({2, 3, 4}), IrTensorShape(Dims{}), IrTensorShape({2, 4})},
  };
  for (const Case& test : cases) {
    const auto op = build<GatherOp>(
        Attrs().set("axis", test.axis),
        {tensor(test.data.dims, test.data.dynamicAxes), tensor(test.indices.dims, test.indices.dynamicAxes)});
    op->canonicalizeOp(1);
    EXPECT_EQ(op->inferOutputTensorShapes(spatialFirst, 1), std::vector<IrTensorShape>{test.result})
        << test.axis;
  }
}

TEST(GatherElementsOp, HasTheDimsOfTheIndices) {
  const auto op = build<GatherElementsOp>(Attrs().set("axis", 1u), {tensor({2, 3}), tensor({2, 7})});
  EXPECT_EQ(op->inferOutputShapes(spatialFirst, 1), (std::vector<Dims>{{2, 7}}));
}

TEST(GatherNDOp, BatchDimsAndCoordinates) {
  struct Case {
    std::int32_t batchDims;
    Dims data, indices, result;
  };
  const std::vector<Case> cases{
      {0, {2, 3, 4}, {5, 2}, {5, 4}}, {0, {2, 3, 4}, {5, 3}, {5}},     {1, {2, 3, 4}, {2, 5, 1}, {2, 5, 4}},
      {1, {2, 3, 4}, {2, 2}, {2}},    {-2, {2, 3, 4}, {2, 1}, {2, 4}},
  };
  for (const Case& test : cases) {
    const Tensor output = tensor({9, 9}, {0});
    const auto op = build<GatherNDOp>(Attrs().set("batch_dims", test.batchDims),
                                      {tensor(test.data), tensor(test.indices)}, {output});
    if (test.batchDims >= 0) {
      EXPECT_EQ(op->inferOutputShapes(spatialFirst, 1), std::vector<Dims>{test.result});
    }
    op->canonicalizeOp(1);
    op->resizeOp(spatialFirst, 1);
    EXPECT_EQ(output->getShape(), IrTensorShape(test.result)) << test.batchDims;
  }
}

TEST(GatherNDOp, CostAndIndexLayout) {
  const auto op = build<GatherNDOp>(
      {}, {tensor({2, 3}, {}, AxisFormat::NF), tensor({4, 1}, {}, AxisFormat::NF)}, {tensor({7, 2, 3, 5})});
  EXPECT_EQ(op->macs(spatialFirst), 30u);
  op->overrideDataAxisFormats(spatialFirst);
  EXPECT_EQ(op.inputs[0]->getAxisFormat(), AxisFormat::NF);
  EXPECT_EQ(op.inputs[1]->getAxisFormat(), AxisFormat::NONTRIVIAL);
  EXPECT_EQ(op->getStoredInputAxisFormats()[1], AxisFormat::NF);  // what the op recorded stays
}

TEST(SparseOps, ShapesAndTypes) {
  const Attrs count = Attrs().set("num_specified_elements", 11u);
  const auto int64 = ORLO_DATATYPE_INT_64;
  const Tensor sparse = tensor({1, 8, 9, 3}, {}, AxisFormat::NDHWC, int64);
  const auto indices = build<GetSparseIndicesOp>(count, {sparse});
  EXPECT_EQ(indices->inferOutputShapes(spatialFirst, 1), (std::vector<Dims>{{11, 3}}));
  EXPECT_EQ(indices->inferOutputDataTypes(1), std::vector<DataType>{ORLO_DATATYPE_INT_32});
  const auto values = build<GetSparseValuesOp>(count, {tensor({1, 8, 9, 5}, {}, AxisFormat::NDHWC, int64)});
  EXPECT_EQ(values->inferOutputShapes(spatialFirst, 1), (std::vector<Dims>{{11, 5}}));
  EXPECT_EQ(values->inferOutputDataTypes(1), std::vector<DataType>{ORLO_DATATYPE_INT_32});
  const auto create = build<CreateSparseOp>({}, {tensor({11, 3}), sparse});
  EXPECT_EQ(create->inferOutputDataTypes(1), std::vector<DataType>{int64});
}

TEST(GatherOps, Failures) {
  const auto canonicalize = []<class Op>(const Built<Op>& op) { return [=] { op->canonicalizeOp(1); }; };
  const auto infer = []<class Op>(const Built<Op>& op) {
    return [=] { op->inferOutputShapes(spatialFirst, 1); };
  };
  const auto nd = [](std::int32_t batchDims, const Dims& data, const Dims& indices) {
    return build<GatherNDOp>(Attrs().set("batch_dims", batchDims), {tensor(data), tensor(indices)});
  };
  const std::string ndText = "netforge::ops::GatherNDOp::inferOutputShapes: The ";
  const Tensor x = tensor({2, 3});
  expectFailures({
      {invalid,
       "netforge::ops::GatherOp::canonicalizeOp: GatherOp op axis provided, 2, is incorrect for rank 2.",
       canonicalize(build<GatherOp>(Attrs().set("axis", 2), {x, x}))},
      {invalid,
       "netforge::ops::GatherElementsOp::canonicalizeOp: GatherElementsOp op axis provided, -3, is incorrect "
       "for rank 2.",
       canonicalize(build<GatherElementsOp>(Attrs().set("axis", -3), {x, x}))},
      {invalid,
       "netforge::ops::GatherNDOp::canonicalizeOp: GatherNDOp op batch_dims provided, 2, is incorrect for "
       "rank "
       "2.",
       canonicalize(nd(2, {2, 3}, {2, 3}))},
      {invalid,
       "netforge::ops::GatherOp::inferOutputShapes: GatherOp op has dynamic outputs. Use "
       "inferOutputTensorShapes instead.",
       infer(build<GatherOp>(Attrs().set("axis", 0), {x, tensor({4}, {0})}))},
      {runtime, "netforge::ops::GatherOp::inferOutputShapes: No output shapes infered for op op.",
       infer(build<GatherOp>(Attrs().set("axis", 0), {x}))},
      {runtime,
       ndText + "data rank and indices rank must be >= 1 for op op, but got data rank=2, indices rank=0",
       infer(nd(0, {2, 3}, {}))},
      {runtime,
       ndText + "batch_dims must be a value in [0, min(data.rank, indices.rank)) for op op, but got "
                "batch_dims=1, data.rank=2, indices.rank=1",
       infer(nd(1, {2, 3}, {2}))},
      {runtime,
       ndText +
           "first 1 dimensions in the shape of indices tensor and data tensor must be equal for op op, "
           "but at dimension 0: data shape=" +
           shapeText(IrTensorShape({2, 3})) + ", indices shape=" + shapeText(IrTensorShape({3, 1})),
       infer(nd(1, {2, 3}, {3, 1}))},
      {runtime,
       ndText + "indices_shape[-1] must have a value in [1, data.rank - batch_dims] for op op, but got "
                "indices_shape[-1]=2, data.rank=2, batch_dims=1",
       infer(nd(1, {2, 3}, {2, 2}))},
  });
}

}  // namespace
}  // namespace netforge::ops
