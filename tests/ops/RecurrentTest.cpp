#include "ops/RecurrentOps.h"

#include "tests/ops/DataMovementSupport.h"

namespace netforge::ops {
namespace {

using namespace netforge::test;

Attrs recurrentAttrs(bool timeMajor, std::uint32_t hiddenSize) {
  return Attrs().set("time_major", timeMajor).set("hidden_size", hiddenSize);
}

/// x and four more inputs: cell size 32, output size 24.
std::vector<Tensor> lstmInputs(const Dims& x) {
  return {tensor(x), tensor({32, 16}), tensor({1, 1}), tensor({1, 1}), tensor({32, 24})};
}

TEST(Recurrent, LstmShapesAndCounts) {
  struct Case {
    bool timeMajor;
    Dims x;
    std::vector<Dims> expected;
    std::uint64_t macs;
    std::uint32_t params;
  };
  const Case cases[] = {
      {false, {5, 16}, {{5, 24}, {5, 32}, {5, 24}}, 163 * 24, 41 * 32 * 4},
      {true, {5, 16}, {{5, 24}, {5, 32}, {5, 24}}, 163 * 24, 41 * 32 * 4},
      {false, {5, 8, 16}, {{5, 8, 24}, {5, 32}, {5, 24}}, 163 * 8 * 24, 41 * 40 * 4},
      {true, {5, 8, 16}, {{5, 8, 24}, {8, 32}, {8, 24}}, 163 * 8 * 24, 41 * 40 * 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    const auto op = build<LstmOp>(recurrentAttrs(c.timeMajor, 40), lstmInputs(c.x), {tensor(c.expected[0])});
    EXPECT_EQ(op->inferOutputShapes(spatialFirst, 3), c.expected);
    EXPECT_EQ(op->macs(spatialFirst), c.macs);
    // The features are the last axis of x in both axis orders.
    EXPECT_EQ(op->paramsCount(spatialFirst), c.params);
    EXPECT_EQ(op->paramsCount(spatialLast), c.params);
  }
}

TEST(Recurrent, GruShapes) {
  const auto batchMajor = build<GruOp>(recurrentAttrs(false, 8), {tensor({4, 2, 3})});
  const auto timeMajor = build<GruOp>(recurrentAttrs(true, 8), {tensor({4, 2, 3})});
  EXPECT_EQ(batchMajor->inferOutputShapes(spatialFirst, 2), (std::vector<Dims>{{4, 2, 8}, {1, 4, 8}}));
  EXPECT_EQ(timeMajor->inferOutputShapes(spatialFirst, 2), (std::vector<Dims>{{4, 2, 8}, {1, 2, 8}}));
}

TEST(Recurrent, OutputsAreFloatWhateverTheInputs) {
  const auto x = tensor({4, 2, 3}, {}, AxisFormat::NTF, ORLO_DATATYPE_INT_64);
  const auto gru = build<GruOp>({}, {x});
  const auto lstm = build<LstmOp>({}, {x});
  const std::vector<DataType> floats(3, ORLO_DATATYPE_FLOAT_32);
  EXPECT_EQ(gru->inferOutputDataTypes(3), floats);
  EXPECT_EQ(gru->inferOutputSrcDataTypes(3), floats);
  EXPECT_EQ(lstm->inferOutputDataTypes(3), floats);
  EXPECT_EQ(lstm->inferOutputSrcDataTypes(3), floats);
}

TEST(Recurrent, Formats) {
  const auto weights = tensor({32, 16}, {}, AxisFormat::NF);
  const auto single = build<LstmOp>({}, {tensor({5, 16}), weights});
  const auto multi = build<LstmOp>({}, {tensor({5, 8, 16}), weights});
  const auto batchMajor = build<GruOp>(recurrentAttrs(false, 8), {tensor({5, 8, 16}), weights});
  const auto timeMajor = build<GruOp>(recurrentAttrs(true, 8), {tensor({5, 8, 16}), weights});
  struct Case {
    IrOp& op;
    const std::shared_ptr<AxisOrder>& order;
    AxisFormat expected;
  };
  const Case cases[] = {
      {*single.op, spatialLast, AxisFormat::NF},      {*multi.op, spatialFirst, AxisFormat::NTF},
      {*multi.op, spatialLast, AxisFormat::TNF},      {*batchMajor.op, spatialFirst, AxisFormat::NTF},
      {*timeMajor.op, spatialFirst, AxisFormat::TNF}, {*batchMajor.op, spatialLast, AxisFormat::TNF},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    weights->setAxisFormat(AxisFormat::NF);
    c.op.overrideDataAxisFormats(c.order);
    EXPECT_EQ(c.op.getInputAxisFormats(), (std::vector{c.expected, AxisFormat::NONTRIVIAL}));
    // What the op recorded when the tensors were attached stays.
    EXPECT_EQ(c.op.getStoredInputAxisFormats(), (std::vector{AxisFormat::NOT_YET_DEFINED, AxisFormat::NF}));
  }
}

TEST(Recurrent, Failures) {
  const auto lstm = build<LstmOp>({}, lstmInputs({2, 3, 4, 5}));
  const auto gru = build<GruOp>(recurrentAttrs(true, 8), {tensor({2, 3})});
  const auto dynamic = build<GruOp>(recurrentAttrs(true, 8), {tensor({4, 2, 3}, {0})});
  std::vector<Failure> failures;
  const std::pair<std::string, std::function<void()>> lstmCalls[] = {
      {"macs", [&] { lstm->macs(spatialFirst); }},
      {"paramsCount", [&] { lstm->paramsCount(spatialFirst); }},
      {"inferOutputShapes", [&] { lstm->inferOutputShapes(spatialFirst, 3); }},
      {"overrideDataAxisFormats", [&] { lstm->overrideDataAxisFormats(spatialFirst); }},
  };
  for (const auto& [function, call] : lstmCalls) {
    failures.push_back(
        {typeid(std::runtime_error),
         "netforge::ops::LstmOp::" + function +
             ": LstmOp op error: Expected Input rank to be 2 for single timestep and 3 for multi "
             "timestep, got 4",
         call});
  }
  const std::string gruText = ": GruOp op error: Expected Input rank to be 3, got 2";
  failures.push_back({typeid(std::runtime_error), "netforge::ops::GruOp::inferOutputShapes" + gruText,
                      [&] { gru->inferOutputShapes(spatialFirst, 2); }});
  failures.push_back({typeid(std::runtime_error), "netforge::ops::GruOp::overrideDataAxisFormats" + gruText,
                      [&] { gru->overrideDataAxisFormats(spatialFirst); }});
  failures.push_back({typeid(std::invalid_argument),
                      "netforge::ops::GruOp::inferOutputShapes: IrOp op of type Gru has dynamic inputs. Use "
                      "inferOutputTensorShapes instead.",
                      [&] { dynamic->inferOutputShapes(spatialFirst, 2); }});
  expectFailures(failures);
}

}  // namespace
}  // namespace netforge::ops
