#include "ops/ReductionOps.h"

#include "tests/ops/DataMovementSupport.h"

namespace netforge::ops {
namespace {

using namespace netforge::test;

Attrs reduceAttrs(const std::vector<std::int32_t>& axes, bool keepDims = false,
                  AttrClass typeClass = ATTR_SUPPLEMENTAL) {
  Attrs attrs;
  attrs.list("axes", axes, {static_cast<std::uint32_t>(axes.size())}).set("keep_dims", keepDims);
  attrs.table->add("reduce_type", "ReduceSum", typeClass);
  return attrs;
}

TEST(Reduction, ShapesAndCanonicalAxes) {
  using Axes = std::set<std::uint32_t>;
  struct Case {
    IrTensorShape input;
    std::vector<std::int32_t> axes;
    bool keepDims;
    std::string canonical;
    IrTensorShape expected;
  };
  const Case cases[] = {
      {IrTensorShape({2, 3, 4}), {0, 1, 2}, false, "[3][0,1,2]", IrTensorShape({1})},
      {IrTensorShape({2, 3, 4}), {0, 1, 2}, true, "[3][0,1,2]", IrTensorShape({1, 1, 1})},
      {IrTensorShape({2, 3}), {-1}, false, "[1][1]", IrTensorShape({2})},
      {IrTensorShape({2, 3, 4, 5}), {-1, 1}, false, "[2][3,1]", IrTensorShape({2, 4})},  // never sorted
      {IrTensorShape({2, 3, 4}), {-1, 2}, true, "[2][2,2]", IrTensorShape({2, 3, 1})},
      {IrTensorShape({2, 3, 4}), {}, false, "[0][]", IrTensorShape({2, 3, 4})},
      {{{2, 3, 4}, Axes{0, 2}}, {1}, false, "[1][1]", {{2, 4}, Axes{0, 1}}},
      {{{2, 3, 4}, Axes{0, 2}}, {0}, true, "[1][0]", {{1, 3, 4}, Axes{2}}},
      {{{2, 3}, Axes{0, 1}}, {0, 1}, false, "[2][0,1]", IrTensorShape({1})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    const auto input = tensor(c.input.dims, c.input.dynamicAxes);
    const auto reduce = build<ReduceOp>(reduceAttrs(c.axes, c.keepDims), {input});
    const auto norm = build<ReduceL2Op>(reduceAttrs(c.axes, c.keepDims), {input});
    for (IrOp* op : {static_cast<IrOp*>(reduce.op.get()), static_cast<IrOp*>(norm.op.get())}) {
      op->canonicalizeOp(1);
      op->canonicalizeOp(1);  // changes nothing more
      EXPECT_TRUE(op->isCanonicalized());
      EXPECT_EQ(attributeText(*op->getAttributes(), "axes"),
                "uint32 axes_values " + c.canonical + " class 1");
      EXPECT_EQ(op->inferOutputTensorShapes(spatialFirst, 1), std::vector{c.expected});
      if (c.input.hasDynamicAxes()) continue;
      EXPECT_EQ(op->inferOutputShapes(spatialFirst, 1), std::vector<Dims>{c.expected.dims});
    }
  }
}

TEST(Reduction, AnAxisEqualToTheRankReducesNothing) {
  const auto reduce = build<ReduceOp>(reduceAttrs({3}), {tensor({2, 3, 4})});
  reduce->canonicalizeOp(1);
  EXPECT_EQ(reduce->inferOutputShapes(spatialFirst, 1), (std::vector<Dims>{{2, 3, 4}}));
}

TEST(Reduction, OutputFormats) {
  struct Case {
    AxisFormat input;
    std::vector<std::int32_t> axes;
    bool keepDims;
    AxisFormat expected;
  };
  const Case cases[] = {
      {AxisFormat::NHWC, {1, 2}, false, AxisFormat::NC},
      {AxisFormat::NHWC, {2, 1}, false, AxisFormat::NONTRIVIAL},
      {AxisFormat::NHWC, {1}, false, AxisFormat::NONTRIVIAL},
      {AxisFormat::NHWC, {1, 2, 3}, false, AxisFormat::NC},
      {AxisFormat::NCHW, {2, 3}, false, AxisFormat::NC},
      {AxisFormat::NDHWC, {1, 2, 3}, false, AxisFormat::NC},
      {AxisFormat::NCDHW, {2, 3, 4}, false, AxisFormat::NC},
      {AxisFormat::NFC, {1}, false, AxisFormat::NC},
      {AxisFormat::NCF, {2}, false, AxisFormat::NC},
      {AxisFormat::NONTRIVIAL, {1, 2}, false, AxisFormat::NONTRIVIAL},
      {AxisFormat::NONTRIVIAL, {1, 2}, true, AxisFormat::NHWC},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    const auto input = tensor({2, 3, 4, 5}, {}, c.input);
    const auto reduce = build<ReduceOp>(reduceAttrs(c.axes, c.keepDims), {input}, {tensor({2, 1, 1, 5})});
    const auto norm = build<ReduceL2Op>(reduceAttrs(c.axes, c.keepDims), {input}, {tensor({2, 1, 1, 5})});
    input->setAxisFormat(AxisFormat::ANY);  // the format at the time of attaching counts
    reduce->populateOutputAxisFormats(spatialFirst, {}, false);
    norm->populateOutputAxisFormats(spatialFirst, {}, false);
    EXPECT_EQ(reduce.outputs[0]->getAxisFormat(), c.expected);
    EXPECT_EQ(norm.outputs[0]->getAxisFormat(), c.expected);
  }
}

TEST(Reduction, NormCountsAndType) {
  const auto input = tensor({2, 3, 4, 5, 6}, {}, AxisFormat::NDHWC, ORLO_DATATYPE_INT_64);
  const auto norm = build<ReduceL2Op>(reduceAttrs({4}), {input}, {tensor({2, 3, 4, 5})});
  const auto reduce = build<ReduceOp>(reduceAttrs({4}), {input}, {tensor({2, 3, 4, 5})});
  EXPECT_EQ(norm->macs(spatialFirst), 120u);
  EXPECT_EQ(reduce->macs(spatialFirst), 0u);
  EXPECT_EQ(norm->inferOutputDataTypes(2), std::vector{ORLO_DATATYPE_INT_32});
}

TEST(Reduction, Failures) {
  EXPECT_NO_THROW(ReduceOp("op", reduceAttrs({-1, -1}).table));  // not comparable before the rank is known
  EXPECT_THROW(ReduceL2Op("op", nullptr), std::runtime_error);
  const auto reduce = build<ReduceOp>(reduceAttrs({-5}), {tensor({2, 3, 4}, {0})});
  const auto norm = build<ReduceL2Op>(reduceAttrs({3}), {tensor({2, 3, 4}, {0})});
  expectFailures({
      {typeid(std::invalid_argument),
       "netforge::ops::ReduceOp::ReduceOp: ReduceOp (op) axes 2 can't be repeated",
       [] {
         ReduceOp("op", reduceAttrs({0, 2, 1, 2, 0}).table);
       }},
      {typeid(std::invalid_argument),
       "netforge::ops::ReduceL2Op::ReduceL2Op: ReduceL2Op (op) axis 1 can't be repeated",
       [] {
         ReduceL2Op("op", reduceAttrs({1, 1}).table);
       }},
      {typeid(std::invalid_argument),
       "netforge::ops::ReduceOp::ReduceOp: reduce_type attribute must be set as supplemental attribute for "
       "op op",
       [] { ReduceOp("op", reduceAttrs({1}, true, ATTR_ORDINARY).table); }},
      {typeid(std::invalid_argument),
       "netforge::ops::ReduceOp::canonicalizeOp: ReduceOp op axis must be in range [0, 3], but got -2",
       [&] { reduce->canonicalizeOp(1); }},
      {typeid(std::invalid_argument),
       "netforge::ops::ReduceL2Op::canonicalizeOp: ReduceL2Op axis must be in [0, rank) = [0, 3), but got: 3",
       [&] { norm->canonicalizeOp(1); }},
      {typeid(std::invalid_argument),
       "netforge::ops::ReduceOp::inferOutputShapes: ReduceOp op has dynamic inputs. Use "
       "inferOutputTensorShapes instead.",
       [&] { reduce->inferOutputShapes(spatialFirst, 1); }},
      {typeid(std::invalid_argument),
       "netforge::ops::ReduceL2Op::inferOutputShapes: ReduceL2Op op has dynamic inputs. Use "
       "inferOutputTensorShapes instead.",
       [&] { norm->inferOutputShapes(spatialFirst, 1); }},
  });
}

}  // namespace
}  // namespace netforge::ops
