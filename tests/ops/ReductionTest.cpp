#include "ops/ReductionOps.h"

#include "tests/ops/OpScaffold.h"

namespace netforge::ops {
namespace {

using namespace netforge::test;

constexpr std::uint32_t kMinusOne = 0xFFFFFFFF;
constexpr std::uint32_t kMinusFive = 0xFFFFFFFB;

std::shared_ptr<IrAttributes> reduceAttributes(const Values& axes, bool keepDims = false,
                                               AttrClass typeClass = ATTR_SUPPLEMENTAL) {
  auto attributes = makeAttributes({{"axes", axes}});
  attributes->add("keep_dims", keepDims, ATTR_ORDINARY);
  attributes->add("reduce_type", "ReduceSum", typeClass);
  return attributes;
}

TEST(Reduction, ShapesAndCanonicalAxes) {
  using Axes = std::set<std::uint32_t>;
  struct Case {
    IrTensorShape input;
    Values axes;
    bool keepDims;
    Values canonical;
    IrTensorShape expected;
  };
  const Case cases[] = {
      {IrTensorShape({2, 3, 4}), {0, 1, 2}, false, {0, 1, 2}, IrTensorShape({1})},
      {IrTensorShape({2, 3, 4}), {0, 1, 2}, true, {0, 1, 2}, IrTensorShape({1, 1, 1})},
      {IrTensorShape({2, 3}), {kMinusOne}, false, {1}, IrTensorShape({2})},
      {IrTensorShape({2, 3, 4, 5}), {kMinusOne, 1}, false, {3, 1}, IrTensorShape({2, 4})},  // never sorted
      {IrTensorShape({2, 3, 4}), {kMinusOne, 2}, true, {2, 2}, IrTensorShape({2, 3, 1})},
      {IrTensorShape({2, 3, 4}), {}, false, {}, IrTensorShape({2, 3, 4})},
      {{{2, 3, 4}, Axes{0, 2}}, {1}, false, {1}, {{2, 4}, Axes{0, 1}}},
      {{{2, 3, 4}, Axes{0, 2}}, {0}, true, {0}, {{1, 3, 4}, Axes{2}}},
      {{{2, 3}, Axes{0, 1}}, {0, 1}, false, {0, 1}, IrTensorShape({1})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    const auto input = makeTensor(c.input.dims, c.input.dynamicAxes);
    ReduceOp reduce("r", reduceAttributes(c.axes, c.keepDims), {input}, {});
    ReduceL2Op norm("n", reduceAttributes(c.axes, c.keepDims), {input}, {});
    for (IrOp* op : {static_cast<IrOp*>(&reduce), static_cast<IrOp*>(&norm)}) {
      op->canonicalizeOp(1);
      op->canonicalizeOp(1);  // changes nothing more
      EXPECT_TRUE(op->isCanonicalized());
      EXPECT_EQ(valuesOf(*op, "axes"), c.canonical);
      EXPECT_EQ(op->getAttributes()->getStaticTensorName("axes"), "axes_given");
      EXPECT_EQ(op->inferOutputTensorShapes(kFirst, 1), std::vector{c.expected});
      if (!c.input.hasDynamicAxes()) {
        EXPECT_EQ(op->inferOutputShapes(kFirst, 1), std::vector<Values>{c.expected.dims});
      }
    }
  }
}

TEST(Reduction, AxisEqualToTheRank) {
  const auto input = makeTensor({2, 3, 4});
  ReduceOp reduce("r", reduceAttributes({3}), {input}, {});
  reduce.canonicalizeOp(1);
  EXPECT_EQ(reduce.inferOutputShapes(kFirst, 1), (std::vector<Values>{{2, 3, 4}}));
  ReduceL2Op norm("n", reduceAttributes({3}), {input}, {});
  expectThrows<std::invalid_argument>(
      "netforge::ops::ReduceL2Op::canonicalizeOp: ReduceL2Op axis must be in [0, rank) = [0, 3), but got: 3",
      [&] { norm.canonicalizeOp(1); });
  EXPECT_EQ(valuesOf(norm, "axes"), Values{3});
}

TEST(Reduction, OutputFormats) {
  struct Case {
    AxisFormat input;
    Values axes;
    bool keepDims;
    AxisFormat expected;
  };
  const Case cases[] = {
      {AxisFormat::NHWC, {1, 2}, false, AxisFormat::NC},
      {AxisFormat::NHWC, {2, 1}, false, AxisFormat::NONTRIVIAL},
      {AxisFormat::NHWC, {2, 3}, false, AxisFormat::NONTRIVIAL},
      {AxisFormat::NHWC, {1}, false, AxisFormat::NONTRIVIAL},
      {AxisFormat::NHWC, {1, 2, 3}, false, AxisFormat::NC},
      {AxisFormat::NCHW, {2, 3}, false, AxisFormat::NC},
      {AxisFormat::NDHWC, {1, 2, 3}, false, AxisFormat::NC},
      {AxisFormat::NCDHW, {2, 3, 4}, false, AxisFormat::NC},
      {AxisFormat::NFC, {1}, false, AxisFormat::NC},
      {AxisFormat::NCF, {2}, false, AxisFormat::NC},
      {AxisFormat::NONTRIVIAL, {1, 2}, false, AxisFormat::NONTRIVIAL},
      {AxisFormat::NHWC, {1, 2}, true, AxisFormat::NHWC},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    const auto input = makeTensor({2, 3, 4, 5}, {}, ORLO_DATATYPE_FLOAT_32, c.input);
    const auto output = makeTensor({2, 1, 1, 5}, {}, ORLO_DATATYPE_FLOAT_32, AxisFormat::ANY);
    ReduceOp reduce("r", reduceAttributes(c.axes, c.keepDims), {input}, {output});
    ReduceL2Op norm("n", reduceAttributes(c.axes, c.keepDims), {input}, {output});
    input->setAxisFormat(AxisFormat::ANY);  // the format at the time of attaching counts
    reduce.populateOutputAxisFormats(kFirst, {}, false);
    EXPECT_EQ(output->getAxisFormat(), c.expected);
    output->setAxisFormat(AxisFormat::ANY);
    norm.populateOutputAxisFormats(kFirst, {}, false);
    EXPECT_EQ(output->getAxisFormat(), c.expected);
  }
}

TEST(Reduction, NormCountsAndType) {
  const auto input = makeTensor({2, 3, 4, 5, 6}, {}, ORLO_DATATYPE_INT_64);
  const auto output = makeTensor({2, 3, 4, 5});
  ReduceL2Op norm("n", reduceAttributes({4}), {input}, {output});
  ReduceOp reduce("r", reduceAttributes({4}), {input}, {output});
  EXPECT_EQ(norm.macs(kFirst), 120u);
  EXPECT_EQ(reduce.macs(kFirst), 0u);
  EXPECT_EQ(norm.inferOutputDataTypes(2), std::vector{ORLO_DATATYPE_INT_32});
}

TEST(Reduction, ConstructorChecksAndFailures) {
  expectThrows<std::invalid_argument>(
      "netforge::ops::ReduceOp::ReduceOp: ReduceOp (r) axes 2 can't be repeated", [] {
        ReduceOp("r", reduceAttributes({0, 2, 1, 2, 0}));
      });
  expectThrows<std::invalid_argument>(
      "netforge::ops::ReduceL2Op::ReduceL2Op: ReduceL2Op (n) axis 1 can't be repeated", [] {
        ReduceL2Op("n", reduceAttributes({1, 1}));
      });
  EXPECT_NO_THROW(ReduceOp("r", reduceAttributes({kMinusOne, kMinusOne})));
  const std::string typeText =
      "netforge::ops::ReduceOp::ReduceOp: reduce_type attribute must be set as supplemental attribute for op "
      "r";
  expectThrows<std::invalid_argument>(typeText,
                                      [] { ReduceOp("r", reduceAttributes({1}, true, ATTR_ORDINARY)); });
  expectThrows<std::invalid_argument>(typeText, [] { ReduceOp("r", makeAttributes({{"axes", {1}}})); });
  EXPECT_THROW(ReduceL2Op("n", nullptr), std::runtime_error);
  EXPECT_EQ(attributesText(ReduceL2Op("n", makeAttributes({{"axes", {1}}}))),
            "axes=axes_given[1,]/1 keep_dims=0b/1");

  const auto dynamic = makeTensor({2, 3, 4}, {0});
  ReduceOp reduce("r", reduceAttributes({kMinusFive}), {dynamic}, {});
  ReduceL2Op norm("n", reduceAttributes({kMinusFive}), {dynamic}, {});
  expectThrows<std::invalid_argument>(
      "netforge::ops::ReduceOp::canonicalizeOp: ReduceOp r axis must be in range [0, 3], but got -2",
      [&] { reduce.canonicalizeOp(1); });
  EXPECT_THROW(norm.canonicalizeOp(1), std::invalid_argument);
  expectThrows<std::invalid_argument>(
      "netforge::ops::ReduceOp::inferOutputShapes: ReduceOp r has dynamic inputs. Use "
      "inferOutputTensorShapes "
      "instead.",
      [&] { reduce.inferOutputShapes(kFirst, 1); });
  expectThrows<std::invalid_argument>(
      "netforge::ops::ReduceL2Op::inferOutputShapes: ReduceL2Op n has dynamic inputs. Use "
      "inferOutputTensorShapes instead.",
      [&] { norm.inferOutputShapes(kFirst, 1); });
}

}  // namespace
}  // namespace netforge::ops
