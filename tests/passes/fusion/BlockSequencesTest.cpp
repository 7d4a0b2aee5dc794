// Sequences that move blocks of pixels into channels and back.
#include <gtest/gtest.h>
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

// The ops behind x; `n` ends their names.
std::string sequence(const std::string& n, const std::string& y, const std::string& a) {
  return "a" + n + a + " = Reshape(x)\n b" + n + " = Transpose(a" + n + ") perm=[0,1,2,4,3,5]\n c" + n +
         "[1,3,6,4] = Reshape(b" + n + ")\n d" + n + " = Transpose(c" + n + ") perm=[0,1,3,2]\n e" + n +
         "[1,3,4,6] = Reshape(d" + n + ")\n f" + n + " = Transpose(e" + n + ") perm=[0,2,1,3]\n y" + n + y +
         " = Reshape(f" + n + ")\n";
}

std::string blocksToChannels(const std::string& rest, const std::string& y = "[1,12,2,3]",
                             const std::string& a = "[1,3,2,2,3,2]") {
  return "in x[1,3,4,6]\n" + sequence("", y, a) + rest;
}

TEST(MatchSpaceToDepth, ReplacesTheSequence) {
  const std::string head =
      "in x[1,3,4,6]\n x.nhwc NHWC = Transpose(x) perm=[0,2,3,1]\n"
      "a_space_to_depth: y[1,2,3,12] NCHW = SpaceToDepth(x.nhwc) block_size=[2,2]\n";
  const std::string back = "y.nchw = Transpose(y) perm=[0,3,1,2]\n z = Relu(y.nchw)\n out z\n";
  const TraceSource source{"blocks", TraceKind::Op};
  expectPass(
      PassId::MatchSpaceToDepth,
      {{.fault = "a reader sees the channel-last tensor",
        .before = blocksToChannels("z = Relu(y)\n out z"),
        .after = head + back,
        .prepare =
            [&](IrGraph& graph) {
              graph.addTraceSources({"a", "d"}, {}, {source});
            },
        .inspect =
            [&](const IrGraph& graph) {
              const std::vector<TraceSource> expected = {source};
              EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, "a_space_to_depth"), expected);
            }},
       {.fault = "the graph output loses its name, or its place to the Transpose",
        .before = blocksToChannels("out y"),
        .after = head + "out y",
        .allow = kOutputsChange | kValuesChange},
       {.fault = "readers of a graph output see the channel-last tensor",
        .before = blocksToChannels("z = Relu(y)\n out z\n out y"),
        .after = head + back + "out y",
        .allow = kOutputsChange | kValuesChange},
       {"other dims at the end pass", blocksToChannels("out y", "[1,12,3,2]")},
       {"the block is read off another axis", blocksToChannels("out y", "[1,12,2,3]", "[1,3,4,1,3,2]")},
       {"the application reads a tensor between", blocksToChannels("out y\n out e")},
       {"somebody else reads a tensor between", blocksToChannels("z = Relu(c)\n out y\n out z")},
       {"a taken name ends the run",
        "in x.nhwc[1]\n" + blocksToChannels("z = Relu(x.nhwc)\n out y\n out z")}});
}

// The later sequence is met first, and its Transpose has to stand in front of the earlier one as well.
TEST(MatchSpaceToDepth, SharesTheTransposeOfItsInput) {
  const std::string second = sequence("2", "[1,12,2,3]", "[1,3,2,2,3,2]") + "out z\n out y2";
  const std::string depth = " NCHW = SpaceToDepth(x.nhwc) block_size=[2,2]\n";
  expectPass(PassId::MatchSpaceToDepth, {{.fault = "the earlier sequence reads the Transpose before it runs",
                                          .before = blocksToChannels("z = Relu(y)\n") + second,
                                          .after = "in x[1,3,4,6]\n x.nhwc = Transpose(x) perm=[0,2,3,1]\n"
                                                   "a_space_to_depth: y[1,2,3,12]" +
                                                   depth +
                                                   "y.nchw = Transpose(y) perm=[0,3,1,2]\n z = Relu(y.nchw)\n"
                                                   "a2_space_to_depth: y2[1,2,3,12]" +
                                                   depth + "out z\n out y2",
                                          .allow = kOutputsChange | kValuesChange}});
}

// Channel k of the last axis reads what channel (k % 3) * 4 + k / 3 was.
const std::string kOld = " = 0 1 2 3 4 5 6 7 8 9 10 11\n";
const std::string kNew = " = 0 4 8 1 5 9 2 6 10 3 7 11\n";
const std::string kConv = " stride=[1,1] pad_amount=[[0,0],[0,0]]\n";

struct Blocks {
  std::string weights = "const w[1,1,1,12]" + kOld;
  std::string bias = "const b[12]" + kOld;
  std::string conv = "v = Conv2d(x, w, b)" + kConv;
  std::string split = "s: s[1,4,5,4], t[1,4,5,4], u[1,4,5,4] = Split(v) axis=3 split_index=[4,8]\n";
  std::string concat = "y = Concat(d, e, f) axis=3\n";
  std::string rest = "out y\n";
  std::string text() const {
    std::string blocks;
    for (const std::string pair : {"d = DepthToSpace(s)", "e = DepthToSpace(t)", "f = DepthToSpace(u)"}) {
      blocks += pair + " block_size=[2,2] mode=0\n";
    }
    return "in x[1,4,5,1]\n" + weights + bias + conv + split + blocks + concat + rest;
  }
  std::string joined() const {
    return "in x[1,4,5,1]\n" + weights + bias + conv +
           "s_DCR_DepthToSpace: y[1,8,10,3] = DepthToSpace(v) block_size=[2,2] mode=0\n" + rest;
  }
};

TEST(OptimizeDepthToSpace, JoinsTheThirds) {
  std::vector<PassCase> cases;
  const auto joins = [&](const std::string& fault, const Blocks& before) {
    Blocks after = before;
    const auto reorder = [](std::string& text) {
      if (!text.empty()) text.replace(text.find(kOld), kOld.size(), kNew);
    };
    reorder(after.weights);
    reorder(after.bias);
    cases.push_back({fault, before.text(), after.joined()});
  };
  joins("the channels of weights or bias have another order", {});
  joins("a reader of the result is lost", {.rest = "z = Relu(y)\n out z\n"});
  joins("the bias is needed", {.bias = "", .conv = "v = Conv2d(x, w)" + kConv});
  joins("two bytes are taken for four",
        {.weights = "const w[1,1,1,12] f16" + kOld, .bias = "const b[12] f16" + kOld});
  for (const std::string type : {"uq8", "sq8", "uq16", "sq16"}) {
    joins(type + " weights", {.weights = "const w[1,1,1,12] " + type + " scale=0.5" + kOld});
  }
  for (const std::string type : {"i32", "sq32 scale=0.5", "uq8 scale=0.5", "sq8 scale=0.5"}) {
    joins(type + " bias", {.bias = "const b[12] " + type + kOld});
  }
  expectPass(PassId::OptimizeDepthToSpace, cases);
}

TEST(OptimizeDepthToSpace, Refuses) {
  const std::string grouped = " stride=[1,1] pad_amount=[[0,0],[0,0]] group=3\n";
  const std::vector<std::pair<std::string, Blocks>> rows = {
      {"weights of another type", {.weights = "const w[1,1,1,12] i32" + kOld}},
      {"a bias of another type", {.bias = "const b[12] u32" + kOld}},
      {"weights that can be updated", {.weights = "const w[1,1,1,12] f32 updateable" + kOld}},
      {"a computed bias", {.bias = "in i[12]\n b = Relu(i)\n"}},
      {"weights that others read", {.rest = "z = Relu(w)\n out y\n out z\n"}},
      {"a bias that the application reads", {.rest = "out y\n out b\n"}},
      {"a group of filters on inputs of its own", {.conv = "v = Conv2d(x, w, b)" + grouped}},
      {"a fourth block", {.concat = "g[1,8,10,1] = Relu(d)\n y = Concat(d, e, f, g) axis=3\n"}},
      {"the application reads a block", {.rest = "out y\n out e\n"}},
      {"the application reads a part of the Split", {.rest = "out y\n out t\n"}},
      {"a part of the channels that isn't used",
       {.split = "s: s[1,4,5,4], t[1,4,5,4], u[1,4,5,4] = Split(v) axis=3 split_index=[4,8]\n",
        .concat = "in q[1,4,5,4]\n g = DepthToSpace(q) block_size=[2,2] mode=0\n"
                  "y = Concat(d, e, g) axis=3\n k = Relu(f)\n out k\n"}}};
  std::vector<PassCase> cases;
  for (const auto& [fault, blocks] : rows) cases.push_back({fault, blocks.text()});
  cases.push_back({.fault = "an encoding per channel stays behind",
                   .before = Blocks{.weights = "const w[1,1,1,12] uq8 scale=0.5" + kOld}.text(),
                   .prepare = [](IrGraph& graph) {
                     QuantInfo info;
                     info.encoding = QuantEncodingKind::AxisScaleOffset;
                     info.axisEncodings.resize(12);
                     graph.getTensor("w")->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, info);
                   }});
  expectPass(PassId::OptimizeDepthToSpace, cases);
}

}  // namespace
}  // namespace netforge::testing
