#include <gtest/gtest.h>
#include <numeric>
#include "GraphRefiner/src/NameNumbers.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "ir/Failure.h"
#include "tests/support/GraphText.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;
using Dims = std::vector<std::uint32_t>;

const std::string kClass = "netforge::graphrefiner::squashBatchnorm::";

std::string valuesText(const std::vector<double>& values) {
  std::string text;
  for (const double value : values) text += " " + std::to_string(static_cast<int>(value));
  return text;
}

// 1, 2, 3 ... as a constant of these dims, each element times the factor of its place along an axis.
std::string scaledWeights(const Dims& dims, std::size_t axis, const std::vector<double>& factors) {
  std::uint32_t inner = 1;
  for (std::size_t i = axis + 1; i < dims.size(); ++i) inner *= dims[i];
  const std::uint32_t count = std::accumulate(dims.begin(), dims.end(), 1u, std::multiplies<>());
  std::vector<double> values;
  for (std::uint32_t i = 0; i < count; ++i) {
    values.push_back((i + 1) * factors[i / inner % dims[axis] % factors.size()]);
  }
  return valuesText(values);
}

struct Producer {
  std::string order;
  std::string type;
  std::string attributes;
  std::string data;  // dims of the input
  Dims weights;
  std::size_t axis;    // of the output channels in the weights
  std::string result;  // dims of the output
  std::uint32_t channels;
};

// gamma is 2, 3, 4 ..., the bias 1, 3, 5 ..., beta 10, 9, 8 ...
std::string before(const Producer& p, bool hasBias) {
  const std::string channels = "[" + std::to_string(p.channels) + "]";
  return p.order + "in x" + p.data + "\n const w" + dimsText(p.weights) + " = iota 1\n const b" + channels +
         " = iota 1 2\n const g" + channels + " = iota 2\n const e" + channels + " = iota 10 -1\n c" +
         p.result + " = plain " + p.type + (hasBias ? "(x, w, b) " : "(x, w) ") + p.attributes + "\n y" +
         p.result + " = Batchnorm(c, g, e)\n out y";
}

std::string after(const Producer& p, bool hasBias, const std::string& suffix) {
  const std::string channels = "[" + std::to_string(p.channels) + "]";
  std::vector<double> gamma;
  std::vector<double> bias;
  for (std::uint32_t i = 0; i < p.channels; ++i) {
    gamma.push_back(2 + i);
    bias.push_back((1 + 2 * static_cast<int>(i)) * (2 + static_cast<int>(i)) + 10 - static_cast<int>(i));
  }
  gamma.resize(p.weights[p.axis]);  // the groups of a transposed convolution share the first ones
  const std::string w = "w" + suffix;
  const std::string b = hasBias ? "b" + suffix : "c_bias";
  return p.order + "in x" + p.data + "\n const " + w + dimsText(p.weights) + " =" +
         scaledWeights(p.weights, p.axis, gamma) + "\n const " + b + channels +
         (hasBias ? " =" + valuesText(bias) : " = iota 10 -1\n const b" + channels + " = iota 1 2") +
         "\n c: y" + p.result + " = plain " + p.type + "(x, " + w + ", " + b + ") " + p.attributes +
         "\n out y";
}

const std::string kLast = "order spatial_last\n";
const Producer kConv{"", "Conv2d", "", "[1,5,7,3]", {2, 3, 3, 4}, 3, "[1,4,5,4]", 4};
const std::vector<Producer> kConvolutions = {
    kConv,
    {"", "DepthWiseConv2d", "", "[1,5,7,3]", {2, 3, 1, 3}, 3, "[1,4,5,3]", 3},
    {"", "Conv2d", "group=2:u32", "[1,5,7,4]", {2, 3, 2, 6}, 3, "[1,4,5,6]", 6},
    {"", "Conv3d", "", "[1,5,7,4,3]", {2, 3, 1, 3, 2}, 4, "[1,4,5,4,2]", 2},
    {"", "TransposeConv2d", "", "[1,5,7,3]", {2, 3, 3, 4}, 3, "[1,6,9,4]", 4},
    {"", "TransposeConv3d", "", "[1,5,7,4,3]", {2, 1, 2, 3, 4}, 4, "[1,6,7,5,4]", 4},
    {kLast, "Conv2d", "", "[1,3,5,7]", {4, 3, 2, 1}, 0, "[1,4,4,7]", 4},
    {kLast, "DepthWiseConv2d", "", "[1,3,5,7]", {3, 1, 2, 3}, 0, "[1,3,4,5]", 3},
    {kLast, "Conv2d", "group=2:u32", "[1,4,5,7]", {6, 2, 1, 3}, 0, "[1,6,5,5]", 6},
    {kLast, "Conv3d", "", "[1,3,5,7,4]", {2, 3, 2, 1, 4}, 0, "[1,2,4,7,1]", 2},
    {kLast, "TransposeConv2d", "", "[1,3,5,7]", {3, 4, 2, 1}, 1, "[1,4,6,7]", 4},
    {kLast, "TransposeConv2d", "group=2:u32", "[1,4,5,7]", {4, 3, 2, 1}, 1, "[1,6,6,7]", 6},
    {kLast, "TransposeConv3d", "group=1:u32", "[1,3,5,7,4]", {3, 2, 2, 1, 4}, 1, "[1,2,6,7,7]", 2},
};
const Producer kMatMul{"", "MatMul", "", "[5,3]", {3, 4}, 1, "[5,4]", 4};
const std::vector<Producer> kMatrices = {
    kMatMul,
    {kLast, "MatMul", "transpose_in1=true", "[5,3]", {4, 3}, 0, "[5,4]", 4},
    {"", "MatMul", "", "[2,5,3]", {2, 3, 4}, 2, "[2,5,4]", 4},
    {"", "MatMul", "transpose_in1=true", "[2,5,3]", {2, 4, 3}, 1, "[2,5,4]", 4},
    {"", "FullyConnected", "transpose_b=false", "[5,3]", {4, 3}, 0, "[5,4]", 4},
    {kLast, "FullyConnected", "transpose_b=true", "[5,3]", {3, 4}, 1, "[5,4]", 4},
};

TEST(SquashBatchnorm, ScalesTheOutputChannels) {
  std::vector<PassCase> cases;
  for (const Producer& p : kConvolutions) {
    const std::string what = p.type + " " + p.attributes + " over " + p.data;
    cases.push_back({.fault = what,
                     .before = before(p, true),
                     .after = after(p, true, "_fused_bn"),
                     .prints = kClass + "rewriteCallback: Squashed BatchNorm y into " + p.type + " c\n"});
  }
  for (const Producer& p : kMatrices) {
    const std::string what = p.type + " " + p.attributes + " over " + p.data;
    const std::string line = "Squashed BatchNorm y into " + p.type + " c\n";
    const std::string prints =
        (p.type == "FullyConnected" ? kClass + "handleFullyConnectedOp: " + line : "") + kClass +
        "rewriteCallback: " + line;
    cases.push_back(
        {.fault = what, .before = before(p, true), .after = after(p, true, ""), .prints = prints});
    cases.push_back(
        {.fault = what + " without a bias", .before = before(p, false), .after = after(p, false, "")});
  }
  expectPass(PassId::SquashBatchnorm, cases);
}

std::string replacedText(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

TEST(SquashBatchnorm, TakesScalarsReshapesAndEncodings) {
  const std::string scalars = "in x[5,3]\n const w[3,2] = iota 1\n const g[1] = 3\n const e[1] = 4\n";
  const std::string fc =
      before({"", "FullyConnected", "transpose_b=false", "[5,3]", {4, 3}, 0, "[5,4]", 4}, true);
  const std::string reshaped =
      "in x[5,3]\n const w[3,4] = fill 1\n const g[4] = iota 2\n const e[4] = iota 1\n"
      "c[5,4] = MatMul(x, w)\n r[5,1,4] = Reshape(c)\n y[5,1,4]";
  const std::string reshapedAfter =
      "in x[5,3]\n const w[3,4] = 2 3 4 5 2 3 4 5 2 3 4 5\n"
      "const c_bias[4] = iota 1\n c[5,4] ";
  expectPass(
      PassId::SquashBatchnorm,
      {{.fault = "one element doesn't serve all channels",
        .before = scalars + "c = MatMul(x, w)\n y = Batchnorm(c, g, e)\n out y",
        .after = "in x[5,3]\n const w[3,2] = iota 3 3\n const c_bias[1] = 4\n c: y = MatMul(x, w, c_bias)\n "
                 "out y"},
       {.fault = "one element doesn't serve all groups of a transposed convolution",
        .before = kLast + "in x[1,4,5,7]\n const w[4,3,1,1] = iota 1\n const b[6] = iota 1\n const g[1] = 2\n"
                          "const e[6] = iota 1\n c[1,6,5,7] = plain TransposeConv2d(x, w, b) group=2:u32\n"
                          "y = Batchnorm(c, g, e)\n out y",
        .after = kLast +
                 "in x[1,4,5,7]\n const w_fused_bn[4,3,1,1] = iota 2 2\n const b_fused_bn[6] = iota 3 3\n"
                 "c: y[1,6,5,7] = plain TransposeConv2d(x, w_fused_bn, b_fused_bn) group=2:u32\n out y"},
       {.fault = "a Reshape that leaves the channels in place is in the way, or loses the encoding",
        .before = reshaped + " sq8 scale=0.5 = Batchnorm(r, g, e)\n out y",
        .after = reshapedAfter +
                 "sq8 scale=0.5 = MatMul(x, w, c_bias)\n r: y[5,1,4] sq8 scale=0.5 = Reshape(c)\n"
                 "out y"},
       {.fault = "a user's range isn't handed on",
        .before = reshaped + " range=-1/1 = Batchnorm(r, g, e)\n out y",
        .after = reshapedAfter +
                 "range=-1/1 = MatMul(x, w, c_bias)\n r: y[5,1,4] range=-1/1 = Reshape(c)\n out y"},
       {.fault = "a Reshape puts other elements under the channels",
        .before =
            "order spatial_last\nin x[6,3]\n const w[3,6] = iota\n const g[6] = iota\n const e[6] = iota\n"
            "c = MatMul(x, w)\n r[1,6,6] = Reshape(c)\n y = Batchnorm(r, g, e)\n out y"},
       {.fault = "a Reshape to other channels",
        .before = "in x[4,3]\n const w[3,6] = iota\n const g[1] = 2\n const e[8] = iota\n"
                  "c = MatMul(x, w)\n r[3,8] = Reshape(c)\n y = Batchnorm(r, g, e)\n out y"}});
}

TEST(SquashBatchnorm, LeavesOtherReadersTheirConstants) {
  const std::string shared = "d[1,4,5,4] = plain Conv2d(x, w, b)\n out d\n";
  const std::string w = dimsText(kConv.weights);
  const std::string folded =
      replacedText(replacedText(after(kConv, true, "_fused_bn"), "w_fused", "c_kernel_weight_fused"),
                   "b_fused", "c_kernel_bias_fused");
  const std::string untouched = "const w" + w + " = iota 1\n const b[4] = iota 1 2\n";
  const auto with = [&](std::string text, const std::string& added) {
    return text.insert(std::min(text.find("\n c["), text.find("\n c:")) + 1, added);
  };
  expectPass(
      PassId::SquashBatchnorm,
      {{.fault = "another convolution's constants change",
        .before = with(before(kConv, true), shared),
        .after = with(folded, untouched + shared)},
       {.fault = "a taken name of the copy ends the run",
        .before = with(before(kConv, true), "in c_kernel_weight[1]\n" + shared)},
       {.fault = "a constant of the application changes", .before = with(before(kConv, true), "out w\n")},
       {.fault = "a taken new name ends the run half way",
        .before = with(before(kConv, true), "in b_fused_bn[1]\n")},
       {.fault = "the bias of a MatMul takes a taken name",
        .before = with(before(kMatMul, false), "in c_bias[1]\n")}});
}

TEST(SquashBatchnorm, RefusesWhatItCannotFold) {
  struct Row {
    const char* fault;
    const char* from;
    const char* to;
  };
  const Row forAll[] = {
      {"weights of another type", " = iota 1\n const b", " f16 = iota 1\n const b"},
      {"a gamma of another type", "const g[4]", "const g[4] i32"},
      {"a beta of another length", "const e[4]", "const e[1,4,1]"},
      {"a bias that would grow", "const b[4]", "const b[1]"},
      {"a gamma along another axis", "const g[4]", "const g[4,1]"},
      {"an update of the weights undoes the fold", " = iota 1\n const b",
       " f32 updateable = iota 1\n const b"},
      {"an update of the bias undoes the fold", "const b[4]", "const b[4] f32 updateable"},
      {"an update of gamma has no effect", "const g[4]", "const g[4] f32 updateable"},
      {"a computed bias", "const b[4] = iota 1 2", "in b[4]"},
      {"a computed gamma", "const g[4] = iota 2", "in g[4]"},
      {"the application reads the op's output", "out y", "out c\n out y"},
      {"another op reads the op's output", "out y", "z = Relu(c)\n out z\n out y"},
      {"the op reads its weights as data too", "(x, w, b)", "(w, w, b)"},
  };
  std::vector<PassCase> cases;
  for (const Producer* p : {&kConv, &kMatMul}) {
    for (const Row& row : forAll) {
      const std::string text = replacedText(before(*p, true), row.from, row.to);
      EXPECT_NE(text, before(*p, true)) << row.from;
      cases.push_back({.fault = p->type + ": " + row.fault, .before = text, .prints = ""});
    }
  }
  const Row forConv[] = {
      {"overridden weights", "4] = iota 1\n", "4] range=-1/1 = iota 1\n"},
      {"quantised weights", "4] = iota 1\n", "4] sq8 scale=0.5 = iota 1\n"},
      {"an overridden bias", "const b[4]", "const b[4] range=-1/1"},
      {"no bias", "(x, w, b)", "(x, w)"},
      {"data of rank 3", "[1,4,5,4]", "[4,5,4]"},
  };
  for (const Row& row : forConv) {
    cases.push_back({.fault = row.fault, .before = replacedText(before(kConv, true), row.from, row.to)});
  }
  cases.push_back({.fault = "a quantised output of a MatMul",
                   .before = replacedText(before(kMatMul, true), "c[5,4]", "c[5,4] sq8 scale=0.5")});
  cases.push_back(
      {.fault = "groups that don't divide the channels",
       .before = kLast +
                 "in x[1,3,5,7]\n const w[3,2,1,1] = iota\n const b[4] = iota\n"
                 "const g[4] = iota\n const e[4] = iota\n c[1,4,5,7] = plain TransposeConv2d(x, w, b) "
                 "group=2:u32\n y = Batchnorm(c, g, e)\n out y"});
  expectPass(PassId::SquashBatchnorm, cases);
}

TEST(SquashBatchnorm, FoldsAConvolutionWithoutABiasOnRequest) {
  const auto accept = [](IrGraph& graph) {
    graph.acceptsBiaslessFold = true;
    graphrefiner::resetNameNumbers();
  };
  graphrefiner::resetNameNumbers();
  std::string number = graphrefiner::nextNameNumber();
  while (number[0] == '0') number = graphrefiner::nextNameNumber();
  const std::string text = before(kConv, false);
  const std::string taken = "in c_bias[1]\n const w";
  const std::string folded = replacedText(after(kConv, false, ""), "w", "w_fused_bn");
  expectPass(
      PassId::SquashBatchnorm,
      {{.fault = "the graph's wish isn't asked for", .before = text},
       {.fault = "no bias is made of beta", .before = text, .after = folded, .prepare = accept},
       {.fault = "a taken name ends the run, or the number isn't the same in every run",
        .before = replacedText(text, "const w", taken),
        .after = replacedText(replacedText(folded, "c_bias", "c_bias__" + number), "const w", taken),
        .prepare = accept},
       {.fault = "zeros are added",
        .before = replacedText(text, "iota 10 -1", "fill 0"),
        .after = replacedText(replacedText(folded, "const c_bias[4] = iota 10 -1\n", ""), ", c_bias", ""),
        .prepare = accept},
       {.fault = "a beta of another length becomes the bias",
        .before = replacedText(text, "e[4] = iota 10 -1", "e[2] = iota 1"),
        .prepare = accept}});
}

TEST(SquashBatchnorm, KeepsOverriddenOperandsAsAttributes) {
  const std::string text = replacedText(before(kConv, true), "const g[4]", "const g[4] range=-1/1");
  expectPass(PassId::SquashBatchnorm, {{.fault = "the range of gamma is lost, or beta kept without one",
                                        .before = text,
                                        .after = replacedText(after(kConv, true, "_fused_bn"), "b_fused_bn) ",
                                                              "b_fused_bn) gamma=[2,3,4,5]:f32")}});
}

TEST(SquashBatchnorm, LoadsOnlyWhatItFolds) {
  auto graph = readGraph(before(kConv, false));
  const auto weights = graph->getStaticTensor("w");
  weights->setExternalData({"no such file", 0, weights->getDataSize(), {}, 0});
  EXPECT_FALSE(graphrefiner::buildSquashBatchnorm()->run(graph));
  EXPECT_FALSE(weights->isDataLoaded());
}

}  // namespace
}  // namespace netforge::testing
