// Moving channel-last Transposes up to the inputs: the regions that are found, and what is made of them.
#include <gtest/gtest.h>
#include "GraphRefiner/src/PassRegistry.h"
#include "GraphRefiner/src/passes/layout/HoistTransposeRegions.h"
#include "tests/support/GraphText.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::HoistRefusal;
using graphrefiner::HoistRegions;
using graphrefiner::PassId;

const std::string kInput = "in x[1,2,5,7]\n";
const std::string kHoisted = kInput + "x_hoist_0231 = Transpose(x) perm=[0,2,3,1]\n";

std::string channelLast(const std::string& output, const std::string& input) {
  return output + " = Transpose(" + input + ") perm=[0,2,3,1]\n";
}

// An input, statements that end with the tensor r, a Transpose of it and a Conv2d that ends all regions.
std::string region(const std::string& statements, const std::string& behind = "") {
  return kInput + statements + channelLast("t", "r") + "c = plain Conv2d(t)\n out c\n" + behind;
}

void expectHoisted(std::vector<PassCase> cases) {
  for (PassCase& passCase : cases) passCase.allow |= kReportsNothing;
  expectPass(PassId::HoistTranspose, cases);
}

TEST(HoistTranspose, MovesARegionToItsInputs) {
  const std::string neuron = "r = ElementWiseNeuron(x) operation=4\n";
  const std::string conv = "c = plain Conv2d(r)\n out c\n";
  const std::string turned = "r[1,5,7,2] = ElementWiseNeuron(x_hoist_0231) operation=4\n";
  expectHoisted(
      {{.fault = "the region's tensors keep their dims",
        .before = region(neuron),
        .after = kHoisted + turned + conv},
       {.fault = "the Transposes of several inputs stand in another order than the inputs",
        .before = "in a[1,2,5,7]\n in b[1,1,5,7]\n s = Eltwise_Binary(b, a) operation=0\n" +
                  channelLast("t", "s") + "c = plain Conv2d(t)\n out c",
        .after = "in a[1,2,5,7]\n in b[1,1,5,7]\n" + channelLast("a_hoist_0231", "a") +
                 channelLast("b_hoist_0231", "b") +
                 "s = Eltwise_Binary(b_hoist_0231, a_hoist_0231) operation=0\n c = plain Conv2d(s)\n out c"},
       {.fault = "a graph output loses its name",
        .before = kInput + neuron + channelLast("t", "r") + "out t",
        .after = kHoisted + "r: t[1,5,7,2] = ElementWiseNeuron(x_hoist_0231) operation=4\n out t"},
       {.fault = "a graph output that is also read ends the run",
        .before = kInput + neuron + channelLast("t", "r") + "c = plain Conv2d(t)\n out t\n out c",
        .after = kHoisted + "r: t[1,5,7,2] = ElementWiseNeuron(x_hoist_0231) operation=4\n"
                            "c = plain Conv2d(t)\n out t\n out c"},
       {.fault = "several Transposes of one tensor are not removed",
        .before = region(neuron, channelLast("u", "r") + "d = plain Conv2d(u)\n out d"),
        .after = kHoisted + turned + conv + "d = plain Conv2d(r)\n out d"},
       {.fault = "layout and way back to the source layout stay those of channel-first",
        .before = kInput + "r NCHW order=[0,2,1,3] = ElementWiseNeuron(x) operation=4\n" +
                  channelLast("t", "r") + "c = plain Conv2d(t)\n out c",
        .after = kHoisted +
                 "r[1,5,7,2] NHWC order=[0,1,3,2] = ElementWiseNeuron(x_hoist_0231) operation=4\n" + conv,
        .inspect =
            [](const IrGraph& graph) {
              EXPECT_EQ(graph.getOp("c")->getStoredInputAxisFormats().front(), AxisFormat::NHWC);
            }},
       {.fault = "an op with the name of an input shares its node",
        .before = kInput + "x: r = ElementWiseNeuron(x) operation=4\n" + channelLast("t", "r") +
                  "c = plain Conv2d(t)\n out c",
        .after = kHoisted + "x: r[1,5,7,2] = ElementWiseNeuron(x_hoist_0231) operation=4\n" + conv},
       {.fault = "what a Transpose writes counts as channel-first, and the constant behind it is turned",
        .before = kInput + "const k[1,1,1,2] = 1 2\n" + channelLast("t", "x") +
                  "m = Eltwise_Binary(t, k) operation=13\n" + channelLast("u", "m") +
                  "c = plain Conv2d(u)\n out c",
        .after = kHoisted + "const k[1,1,1,2] = 1 2\n m = Eltwise_Binary(x_hoist_0231, k) operation=13\n" +
                 channelLast("u", "m") + "c = plain Conv2d(u)\n out c"}});
}

TEST(HoistTranspose, TurnsTheConstantsOfARegion) {
  const std::string add = "r = Eltwise_Binary(x, k) operation=0\n";
  const std::string conv = "c = plain Conv2d(r)\n out c";
  const auto sum = [](const std::string& constant) {
    return "r[1,5,7,2] = Eltwise_Binary(x_hoist_0231, " + constant + ") operation=0\n";
  };
  const auto broadcast = [](const std::string& dims) {
    return "k_hoist_broadcast" + dims + " = Reshape(k)\n" + channelLast("k_hoist_0231", "k_hoist_broadcast");
  };
  const std::string vector = "const k[7] = iota\n";
  const std::string image = "const k[1,2,5,7] = iota\n";
  expectHoisted({{.fault = "a vector is turned as if it ran along the channels",
                  .before = region(vector + add),
                  .after = kHoisted + vector + broadcast("[1,1,1,7]") + sum("k_hoist_0231") + conv},
                 {.fault = "a constant of the image's dims is broadcast",
                  .before = region(image + add),
                  .after = kHoisted + image + channelLast("k_hoist_0231", "k") + sum("k_hoist_0231") + conv},
                 {.fault = "a scalar is turned",
                  .before = region("const k[1] = 3\n" + add),
                  .after = kHoisted + "const k[1] = 3\n" + sum("k") + conv},
                 {.fault = "a region of constants alone is passed over",
                  .before = "const k[1,2,5,7] = iota\n r = ElementWiseNeuron(k) operation=4\n" +
                            channelLast("t", "r") + conv.substr(0, conv.find('(')) + "(t)\n out c",
                  .after = image + channelLast("k_hoist_0231", "k") +
                           "r[1,5,7,2] = ElementWiseNeuron(k_hoist_0231) operation=4\n" + conv}});
}

TEST(HoistTranspose, TurnsTheAttributesThatCountAxes) {
  const auto attribute = [](const std::string& fault, const std::string& before, const std::string& after) {
    return PassCase{.fault = fault,
                    .before = region("r" + before + "\n"),
                    .after = kHoisted + "r" + after + "\n c = plain Conv2d(r)\n out c"};
  };
  expectHoisted(
      {attribute("Concat joins along the old axis", " = Concat(x, x) axis=1",
                 "[1,5,7,4] = Concat(x_hoist_0231, x_hoist_0231) axis=3"),
       attribute("a negative axis is taken for a large one", "[1,2,5,14] = plain Concat(x, x) axis=-1",
                 "[1,5,14,2] = plain Concat(x_hoist_0231, x_hoist_0231) axis=2:u32"),
       attribute("CumulativeSum runs along the old axis", " = CumulativeSum(x) axis=2",
                 "[1,5,7,2] = CumulativeSum(x_hoist_0231) axis=1"),
       attribute("L2Norm runs along the old axis", " = L2Norm(x) axis=1",
                 "[1,5,7,2] = L2Norm(x_hoist_0231) axis=3"),
       attribute("Pad's rows are turned the wrong way",
                 "[1,5,14,20] = Pad(x) scheme=0 pad_amount=[[0,0],[1,2],[4,5],[6,7]]",
                 "[1,14,20,5] = Pad(x_hoist_0231) scheme=0 pad_amount=[[0,0],[4,5],[6,7],[1,2]]"),
       attribute("Tile's factors are turned the wrong way", " = Tile(x) multiples=[1,2,3,4]",
                 "[1,15,28,4] = Tile(x_hoist_0231) multiples=[1,3,4,2]"),
       attribute(
           "StridedSlice's rows or masks are turned the wrong way",
           "[1,1,2,3] = StridedSlice(x) ranges=[[0,1,1],[1,2,1],[0,4,2],[1,6,2]] begin_mask=2 end_mask=12",
           "[1,2,3,1] = StridedSlice(x_hoist_0231) ranges=[[0,1,1],[0,4,2],[1,6,2],[1,2,1]] begin_mask=8 "
           "end_mask=6"),
       attribute(
           "bits beyond the axes come along",
           " = StridedSlice(x) ranges=[[0,1,1],[0,2,1],[0,5,1],[0,7,1]] end_mask=49",
           "[1,5,7,2] = StridedSlice(x_hoist_0231) ranges=[[0,1,1],[0,5,1],[0,7,1],[0,2,1]] end_mask=1"),
       {.fault = "Split cuts along the old axis, or its second output stays",
        .before = region("r, q = Split(x) axis=3 split_index=[3]\n",
                         channelLast("u", "q") + "d = plain Conv2d(u)\n out d"),
        .after = kHoisted + "r[1,5,3,2], q[1,5,4,2] = Split(x_hoist_0231) axis=2 split_index=[3]\n"
                            "c = plain Conv2d(r)\n out c\n d = plain Conv2d(q)\n out d"},
       {.fault = "a list that is too short is read past its end",
        .before = region("r = plain Pad(x) pad_amount=[0,0,1,1]\n"),
        .throws = "Index out of bounds for IrStaticTensor"}});
}

TEST(HoistTranspose, RecordsWhereTheNewTransposesComeFrom) {
  expectHoisted({{.fault = "a new op or tensor has no record",
                  .before = region("r = Identity(x)\n"),
                  .after = kHoisted + "r[1,5,7,2] = Identity(x_hoist_0231)\n c = plain Conv2d(r)\n out c",
                  .prepare =
                      [](IrGraph& graph) {
                        graph.addTraceSources(TraceKind::Tensor, "x", {{"image", TraceKind::Tensor}});
                      },
                  .inspect =
                      [](const IrGraph& graph) {
                        for (const TraceKind kind : {TraceKind::Op, TraceKind::Tensor}) {
                          const auto sources = graph.getTraceInfo(kind, "x_hoist_0231");
                          ASSERT_EQ(sources.size(), 1u);
                          EXPECT_EQ(sources.front().name, "image");
                        }
                      }}});
}

struct RefusalCase {
  std::string fault;
  std::string graph;
  HoistRefusal reason;
  std::string culprit;
};

// The regions alone tell why; the pass then leaves the graph as it is.
TEST(HoistTranspose, GivesARegionUpAsAWhole) {
  const std::string neuron = "r = ElementWiseNeuron(x) operation=4\n";
  const auto tail = channelLast("t", "r") + "out t";
  const std::vector<RefusalCase> cases{
      {"as many channels as rows", "in x[1,5,5,7]\n" + neuron + tail, HoistRefusal::LargeChannels, "x"},
      {"more channels than columns", "in x[1,4,7,3]\n" + neuron + tail, HoistRefusal::LargeChannels, "x"},
      {"an input of another rank is broadcast",
       kInput + "in v[7]\n r = Eltwise_Binary(x, v) operation=0\n" + tail, HoistRefusal::LargeChannels, "v"},
      {"a branch into an op that knows its layout", region(neuron, "d = plain Conv2d(r)\n out d"),
       HoistRefusal::UnsupportedOp, "d"},
      {"a branch into another order", region(neuron, "u = Transpose(r) perm=[0,3,1,2]\n out u"),
       HoistRefusal::OtherOrder, "u"},
      {"no Transpose at the end", kInput + neuron + "c = plain Identity(r)\n out c",
       HoistRefusal::NoTranspose, "x"},
      {"a reader that waits for a tensor of unknown layout",
       region(neuron,
              "in y[1,7,5,2]\n z = plain Conv2d(y)\n s[1,2,5,7] = plain Eltwise_Binary(r, z)\n out s"),
       HoistRefusal::ReadOutside, "s"},
      {"a constant that others read",
       region("const k[7] = iota\n r = Eltwise_Binary(x, k) operation=0\n",
              "in v[7]\n z = plain Conv2d(v)\n"
              "w = plain Mul(z, k)\n out w"),
       HoistRefusal::ReadOutside, "w"},
      {"an op that reads both layouts",
       "in x[1,1,5,5]\n" + neuron + channelLast("t", "r") + "s[1,5,5,5] = plain Eltwise_Binary(r, t)\n" +
           channelLast("u", "s") + "out u",
       HoistRefusal::ReadOutside, "s"},
      {"the application reads a dead end", region(neuron, "d = ElementWiseNeuron(r) operation=4\n out d"),
       HoistRefusal::GraphOutput, "d"},
      {"a constant of rank 3 goes through an op of its own",
       region("const k[2,5,7] = iota\n n = ElementWiseNeuron(k) operation=4\n"
              "r = Eltwise_Binary(x, n) operation=0\n"),
       HoistRefusal::Rank, "n"},
      {"a constant of rank 3 gains an axis",
       region("const k[2,5,7] = iota\n n[1,2,5,7] = plain StridedSlice(k) new_axes_mask=1\n"
              "r = Eltwise_Binary(x, n) operation=0\n"),
       HoistRefusal::Rank, "n"},
      {"a constant of rank 5",
       region("const k[1,1,2,5,7] = iota\n r[1,2,5,7] = plain Eltwise_Binary(x, k)\n"), HoistRefusal::Rank,
       "k"},
      {"an axis that isn't there", region("r = plain Concat(x) axis=4\n"), HoistRefusal::Attribute, "r"},
      {"an axis that nobody states", region("r = plain Split(x)\n"), HoistRefusal::Attribute, "r"},
      {"a list of axes", region("r = L2Norm(x) axis=1 axes=[1,2]\n"), HoistRefusal::Attribute, "r"},
      {"rows of another rank", region("r = plain Tile(x) multiples=[1,1]\n"), HoistRefusal::Attribute, "r"},
      {"one axis goes and another comes",
       region("r[1,5,1,7] = plain StridedSlice(x) shrink_axes=2 new_axes_mask=8\n"), HoistRefusal::Attribute,
       "r"},
      {"a second Transpose of a tensor whose Transpose is a graph output",
       kInput + neuron + channelLast("t", "r") + channelLast("u", "r") + "out t\n out u",
       HoistRefusal::SharedBeforeOutput, "t"},
      {"the Transpose is where it belongs", kInput + channelLast("x_hoist_0231", "x") + "out x_hoist_0231",
       HoistRefusal::NameTaken, "x"},
      {"the constant's name is taken",
       region("in k_hoist_broadcast[3]\n const k[7] = iota\n r = Eltwise_Binary(x, k) operation=0\n"),
       HoistRefusal::NameTaken, "k"}};
  for (const RefusalCase& refusal : cases) {
    SCOPED_TRACE(refusal.fault);
    const auto graph = readGraph(refusal.graph);
    HoistRegions regions(*graph);
    std::vector<std::string> left;
    for (const auto& node : regions.survivors())
      left.push_back((node.op ? node.op->getName() : node.tensor->getName()));
    EXPECT_EQ(left, std::vector<std::string>{});
    bool found = false;
    std::string reasons;
    for (const auto& withdrawal : regions.withdrawals()) {
      found = found || (withdrawal.reason == refusal.reason && withdrawal.culprit == refusal.culprit);
      reasons += std::to_string(static_cast<int>(withdrawal.reason)) + " " + withdrawal.culprit + "\n";
    }
    EXPECT_TRUE(found) << reasons;
    expectPass(PassId::HoistTranspose, {{.fault = refusal.fault, .before = refusal.graph}});
  }
}

TEST(HoistTranspose, KeepsAnEncodingAlongAnAxis) {
  PassCase quantized{.fault = "the axis of an encoding stays that of channel-first",
                     .before = kInput + "r sq8 scale=1 = ElementWiseNeuron(x) operation=4\n" +
                               channelLast("t", "r") + "out t",
                     .prepare = [](IrGraph& graph) {
                       QuantInfo record;
                       record.encoding = QuantEncodingKind::AxisScaleOffset;
                       record.axis = 1;
                       record.axisEncodings.resize(2);
                       graph.getTensor("r")->setQInfo(ORLO_DATATYPE_SFIXED_POINT_8, record);
                     }};
  expectPass(PassId::HoistTranspose, {quantized});
}

}  // namespace
}  // namespace netforge::testing
