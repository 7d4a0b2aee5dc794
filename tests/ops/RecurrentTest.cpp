#include "ops/RecurrentOps.h"

#include <functional>

#include "tests/ops/OpScaffold.h"

namespace netforge::ops {
namespace {

using namespace netforge::test;

std::shared_ptr<IrAttributes> recurrentAttributes(bool timeMajor, std::uint32_t hiddenSize) {
  auto attributes = std::make_shared<IrAttributes>();
  attributes->add("time_major", timeMajor, ATTR_ORDINARY);
  attributes->add("hidden_size", hiddenSize, ATTR_SUPPLEMENTAL);
  return attributes;
}

/// x and four more inputs: cell size 32, output size 24.
std::vector<TensorPtr> lstmInputs(const TensorPtr& x) {
  return {x, makeTensor({32, 16}), makeTensor({1, 1}), makeTensor({1, 1}), makeTensor({32, 24})};
}

TEST(Recurrent, LstmShapesAndCounts) {
  struct Case {
    bool timeMajor;
    Values x;
    std::vector<Values> expected;
    std::uint64_t macs;
    std::uint32_t params;
  };
  // The features are the last axis of x in both axis orders.
  const Case cases[] = {
      {false, {5, 16}, {{5, 24}, {5, 32}, {5, 24}}, (16 + 24) * 4 * 24 + 3 * 24, 41 * 32 * 4},
      {true, {5, 16}, {{5, 24}, {5, 32}, {5, 24}}, (16 + 24) * 4 * 24 + 3 * 24, 41 * 32 * 4},
      {false, {5, 8, 16}, {{5, 8, 24}, {5, 32}, {5, 24}}, 163 * 8 * 24, 41 * 40 * 4},
      {true, {5, 8, 16}, {{5, 8, 24}, {8, 32}, {8, 24}}, 163 * 8 * 24, 41 * 40 * 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    const auto inputs = lstmInputs(makeTensor(c.x));
    const auto output = makeTensor(c.expected[0]);
    LstmOp op("l", recurrentAttributes(c.timeMajor, 40), inputs, {output});
    EXPECT_EQ(op.inferOutputShapes(kFirst, 3), c.expected);
    EXPECT_EQ(op.macs(kFirst), c.macs);
    EXPECT_EQ(op.paramsCount(kFirst), c.params);
    EXPECT_EQ(op.paramsCount(kLast), c.params);
  }
}

TEST(Recurrent, GruShapes) {
  const auto x = makeTensor({4, 2, 3});
  GruOp batchMajor("g", recurrentAttributes(false, 8), {x}, {});
  GruOp timeMajor("g", recurrentAttributes(true, 8), {x}, {});
  EXPECT_EQ(batchMajor.inferOutputShapes(kFirst, 2), (std::vector<Values>{{4, 2, 8}, {1, 4, 8}}));
  EXPECT_EQ(timeMajor.inferOutputShapes(kFirst, 2), (std::vector<Values>{{4, 2, 8}, {1, 2, 8}}));
}

TEST(Recurrent, OutputsAreFloatWhateverTheInputs) {
  const auto x = makeTensor({4, 2, 3}, {}, ORLO_DATATYPE_INT_64);
  GruOp gru("g", nullptr, {x}, {});
  LstmOp lstm("l", nullptr, {x}, {});
  const std::vector<DataType> floats(3, ORLO_DATATYPE_FLOAT_32);
  EXPECT_EQ(gru.inferOutputDataTypes(3), floats);
  EXPECT_EQ(gru.inferOutputSrcDataTypes(3), floats);
  EXPECT_EQ(lstm.inferOutputDataTypes(3), floats);
  EXPECT_EQ(lstm.inferOutputSrcDataTypes(3), floats);
}

TEST(Recurrent, Formats) {
  const auto step = makeTensor({5, 16});
  const auto sequence = makeTensor({5, 8, 16});
  const auto weights = makeTensor({32, 16}, {}, ORLO_DATATYPE_FLOAT_32, AxisFormat::NF);
  LstmOp single("l", nullptr, {step, weights}, {});
  LstmOp multi("l", nullptr, {sequence, weights}, {});
  GruOp batchMajor("g", recurrentAttributes(false, 8), {sequence, weights}, {});
  GruOp timeMajor("g", recurrentAttributes(true, 8), {sequence, weights}, {});
  struct Case {
    IrOp& op;
    const std::shared_ptr<AxisOrder>& order;
    AxisFormat expected;
  };
  const Case cases[] = {{single, kLast, AxisFormat::NF},      {multi, kFirst, AxisFormat::NTF},
                        {multi, kLast, AxisFormat::TNF},      {batchMajor, kFirst, AxisFormat::NTF},
                        {timeMajor, kFirst, AxisFormat::TNF}, {batchMajor, kLast, AxisFormat::TNF}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    weights->setAxisFormat(AxisFormat::NF);
    c.op.overrideDataAxisFormats(c.order);
    EXPECT_EQ(c.op.getInput(0)->getAxisFormat(), c.expected);
    EXPECT_EQ(weights->getAxisFormat(), AxisFormat::NONTRIVIAL);
    // What the op recorded when the tensors were attached stays.
    EXPECT_EQ(c.op.getStoredInputAxisFormats(), (std::vector{AxisFormat::NONTRIVIAL, AxisFormat::NF}));
  }
}

TEST(Recurrent, WrongRanks) {
  const auto inputs = lstmInputs(makeTensor({2, 3, 4, 5}));
  LstmOp lstm("l", nullptr, inputs, {});
  GruOp gru("g", recurrentAttributes(true, 8), {inputs[1]}, {});
  struct Case {
    std::string function;
    std::function<void()> call;
  };
  for (const Case& c :
       {Case{"macs", [&] { lstm.macs(kFirst); }}, Case{"paramsCount", [&] { lstm.paramsCount(kFirst); }},
        Case{"inferOutputShapes", [&] { lstm.inferOutputShapes(kFirst, 3); }},
        Case{"overrideDataAxisFormats", [&] { lstm.overrideDataAxisFormats(kFirst); }}}) {
    expectThrows<std::runtime_error>("netforge::ops::LstmOp::" + c.function +
                                         ": LstmOp l error: Expected Input rank to be 2 for single timestep "
                                         "and 3 for multi timestep, got 4",
                                     c.call);
  }
  for (const Case& c : {Case{"inferOutputShapes", [&] { gru.inferOutputShapes(kFirst, 2); }},
                        Case{"overrideDataAxisFormats", [&] { gru.overrideDataAxisFormats(kFirst); }}}) {
    expectThrows<std::runtime_error>(
        "netforge::ops::GruOp::" + c.function + ": GruOp g error: Expected Input rank to be 3, got 2",
        c.call);
  }
  const auto dynamic = makeTensor({4, 2, 3}, {0});
  GruOp dynamicGru("g", recurrentAttributes(true, 8), {dynamic}, {});
  EXPECT_THROW(dynamicGru.inferOutputShapes(kFirst, 2), std::invalid_argument);
}

TEST(Recurrent, Defaults) {
  EXPECT_EQ(
      attributesText(LstmOp("l", nullptr)),
      "c_0_input_name=''/2 cell_clip_threshold=0f/1 cell_gate_qscale=0f/1 direction=0u/1 "
      "forget_gate_qscale=0f/1 h_0_input_name=''/2 hidden_state_offset=0i/1 hidden_state_qscale=0f/1 "
      "input_gate_qscale=0f/1 output_clip_threshold=0f/1 output_gate_qscale=0f/1 "
      "reset_state_at_time_step_0=0b/2 sequence_continuation_name=''/3 time_major=1b/1 x_static_name=''/3");
  EXPECT_EQ(attributesText(GruOp("g", recurrentAttributes(false, 8))),
            "activation='Sigmoid'/3 direction=0u/1 gate_activation='Sigmoid'/3 h_0_input_name=''/2 "
            "hidden_size=8u/2 linear_before_reset=0u/1 rec_gate_activation='Tanh'/3 time_major=0b/1");
}

}  // namespace
}  // namespace netforge::ops
