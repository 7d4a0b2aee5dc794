// Folding Concats into Concats, Pads into nothing and scales into Softmaxes.
#include <gtest/gtest.h>
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

const std::string kConcatHead = "netforge::graphrefiner::MatchConcatSequence::rewriteCallback: Found concat ";

TEST(FoldConcats, FoldsEveryLevel) {
  const std::string inputs = "in a[2,1]\n in b[2,3]\n in c[2,4]\n";
  expectPass(
      PassId::FoldConcats,
      {{.fault = "the parts lose their order",
        .before = inputs + "m = Concat(b, c) axis=1\n y = Concat(a, m, b) axis=1\n z = Relu(y)\n out z",
        .after = inputs + "y = Concat(a, b, c, b) axis=1\n z = Relu(y)\n out z",
        .prints = ""},
       {"a deep tree isn't folded to its end",
        inputs + "l = Concat(a, a) axis=1\n m = Concat(l, b) axis=1\n n = Concat(c, b) axis=1\n"
                 "y = Concat(m, n) axis=1\n z = Relu(y)\n out z",
        inputs + "y = Concat(a, a, b, c, b) axis=1\n z = Relu(y)\n out z"},
       {"an inner Concat that is read twice loses a place",
        inputs + "m = Concat(a, b) axis=1\n y = Concat(m, c, m) axis=1\n z = Relu(y)\n out z",
        inputs + "y = Concat(a, b, c, a, b) axis=1\n z = Relu(y)\n out z"},
       {"a graph output is rewired", inputs + "m = Concat(a, b) axis=1\n"
                                              "y = Concat(m, c) axis=1\n out y"},
       {.fault = "where the parts come from is forgotten",
        .before = inputs + "m = Concat(b, c) axis=1\n y = Concat(a, m) axis=1\n z = Relu(y)\n out z",
        .after = inputs + "y = Concat(a, b, c) axis=1\n z = Relu(y)\n out z",
        .prepare =
            [](IrGraph& graph) {
              graph.addTraceSources({"m", "y"}, {}, {{"source", TraceKind::Op}});
            },
        .inspect =
            [](const IrGraph& graph) { EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, "y").size(), 1u); }}});
}

TEST(FoldConcats, SaysWhyItRefuses) {
  const std::string inputs = "in a[2,3]\n in b[2,3]\n";
  const std::string pair =
      inputs + "m = Concat(a, b) axis=1\n y = Concat(m, m) axis=1\n z = Relu(y)\n out z\n";
  const std::string shared = kConcatHead +
                             "node y with a concat input m, but it has multiple consumers (2), "
                             "skipping folding\n\n";
  expectPass(PassId::FoldConcats,
             {{.fault = "somebody else reads the inner one",
               .before = pair + "w = Relu(m)\n out w",
               .prints = shared},
              {.fault = "the application reads the inner one", .before = pair + "out m", .prints = shared},
              {.fault = "an input of another axis is folded, or another in spite of it",
               .before = inputs + "in c[4,9]\n n = Concat(c, c) axis=1\n m = Concat(a, b) axis=0\n"
                                  "y = Concat(n, m) axis=1\n z = Relu(y)\n out z",
               .prints = kConcatHead + "node y with a concat input, but axis does not match for input m, 0 "
                                       "!= 1\n\n"}});
}

TEST(SquashPad, RemovesWhatAddsNothing) {
  const std::string input = "in x[2,3]\n";
  const std::string relu = input + "r = Relu(x)\n";
  const std::string zero = "pad_amount=[[0,0],[0,0]] scheme=0\n";
  expectPass(
      PassId::SquashPad,
      {{"behind an op it stays", relu + "p = Pad(r) " + zero + "y = Relu(p)\n out y",
        input + "r: p = Relu(x)\n y = Relu(p)\n out y"},
       {"a graph input loses its name", input + "p = Pad(x) " + zero + "y = Relu(p)\n out y",
        input + "y = Relu(x)\n out y"},
       {"a constant loses its name", "const c[2,3] = iota\n p = Pad(c) " + zero + "y = Relu(p)\n out y",
        "const c[2,3] = iota\n y = Relu(c)\n out y"},
       {"one amount at the end counts as none",
        relu + "p = Pad(r) pad_amount=[[0,0],[0,1]] scheme=0\n y = Relu(p)\n out y"},
       {"a second reader sees another tensor",
        relu + "p = Pad(r) " + zero + "y = Relu(p)\n z = Relu(r)\n out y\n out z"},
       {"a graph output goes", relu + "p = Pad(r) " + zero + "out p"},
       {"a Pad of an input that nobody reads ends the run", input + "p = Pad(x) " + zero},
       {"a Pad without readable amounts ends the run",
        relu + "p = plain Pad(r)\n q = plain Pad(p) pad_amount=[0.5]\n y = Relu(q)\n out y"}});
}

TEST(FoldSoftmax, FoldsAPositiveScale) {
  const std::string softmax = "y = Softmax(m) axis=1 beta=0.5\n out y";
  const auto folded = [](const std::string& front, const std::string& beta) {
    return front + "y = Softmax(x) axis=1 beta=" + beta + "\n out y";
  };
  std::vector<PassCase> cases;
  for (const std::string constant :
       {"const s[1] = 3", "const s[1,1] f16 = 3", "const s[1] i32 = 3", "const s[1] u32 = 3"}) {
    const std::string front = "in x[2,5]\n" + constant + "\n";
    for (const std::string operands : {"(x, s)", "(s, x)"}) {
      cases.push_back({constant + " stays at " + operands,
                       front + "m[2,5] f32 = Eltwise_Binary" + operands + " operation=13\n" + softmax,
                       folded(front, "1.5")});
    }
  }
  const std::string front = "in x[2,5]\n const s[1] = 3\n";
  cases.push_back({"an absent beta counts as 0",
                   front + "m = Eltwise_Binary(x, s) operation=13\n y = Softmax(m) axis=1\n out y",
                   folded(front, "3.0")});
  cases.push_back({"of two constants the data goes",
                   "const x[2,5] = iota\n const s[1] = 3\n"
                   "m = Eltwise_Binary(x, s) operation=13\n" +
                       softmax,
                   folded("const x[2,5] = iota\n const s[1] = 3\n", "1.5")});
  expectPass(PassId::FoldSoftmax, cases);
}

TEST(FoldSoftmax, Refuses) {
  const auto graph = [](const std::string& x, const std::string& scale, const std::string& rest) {
    return "in x" + x + "\n const s" + scale + "\n m = Eltwise_Binary(x, s) operation=13\n" +
           "y = Softmax(m) axis=1\n out y\n" + rest;
  };
  const std::string sum = "in x[2,5]\n const s[1] = 3\n m = Eltwise_Binary(x, s) operation=0\n";
  expectPass(PassId::FoldSoftmax,
             {{"zero", graph("[2,5]", "[1] = 0", "")},
              {"a negative scale", graph("[2,5]", "[1] = -3", "")},
              {"not a number", graph("[2,5]", "[1] = nan", "")},
              {"two elements", graph("[2,2]", "[2] = 3 3", "")},
              {"a scale that can be updated", graph("[2,5]", "[1] updateable = 3", "")},
              {"a type whose value isn't read", graph("[2,5] u8", "[1] u8 = 3", "")},
              {"a constant that lifts the rank", graph("[5]", "[1,1] = 3", "")},
              {"quantised data", graph("[2,5] uq8 scale=0.5", "[1] = 3", "")},
              {"data with a range", graph("[2,5] range=0/1", "[1] = 3", "")},
              {"a scale with a range", graph("[2,5]", "[1] range=0/4 = 3", "")},
              {"a product with a range",
               "in x[2,5]\n const s[1] = 3\n m[2,5] f32 range=0/1 = Eltwise_Binary(x, s) operation=13\n"
               "y = Softmax(m) axis=1\n out y"},
              {"a second reader", graph("[2,5]", "[1] = 3", "z = Relu(m)\n out z")},
              {"the product as graph output", graph("[2,5]", "[1] = 3", "out m")},
              {"a sum", sum + "y = Softmax(m) axis=1\n out y"},
              {"a square of the constant",
               "const s[1] = 3\n m = Eltwise_Binary(s, s) operation=13\n"
               "y = Softmax(m) axis=0\n out y"}});
}

}  // namespace
}  // namespace netforge::testing
