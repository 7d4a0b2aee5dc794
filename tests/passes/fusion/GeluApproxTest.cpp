#include "GraphRefiner/src/passes/fusion/GeluApprox.h"

#include <gtest/gtest.h>
#include <set>
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

const std::string kClass = "netforge::graphrefiner::MatchGeluApproxPass::";
const std::string kConstants = R"(
  const half[1] f32 = 0.5
  const one[1] f32 = 1
  const two[1] f32 = 2
  const three[1] f32 = 3
  const k[1] f32 = 0.7978845608
  const coef[1] f32 = 0.044715
)";
// x comes from an op of the kinds that stand inside the formula too: it must never be taken for a part.
const std::string kInput = "in m[2,3] f32\nin n[2,3] f32\nx = Eltwise_Binary(m, n) operation=0\n";

std::string swapped(bool swap, const std::string& a, const std::string& b) {
  return swap ? "(" + b + ", " + a + ")" : "(" + a + ", " + b + ")";
}

// The formula, arrangement 1 to 4; bit i of `swaps` turns the operands of the i-th commutative op around.
std::string cluster(int arrangement, bool expanded, unsigned swaps = 0) {
  unsigned bit = 0;
  const auto binary = [&](const std::string& name, int operation, const std::string& a,
                          const std::string& b) {
    return name + " = Eltwise_Binary" + swapped((swaps >> bit++ & 1u) != 0, a, b) +
           " operation=" + std::to_string(operation) + "\n";
  };
  std::string text;
  if (expanded) {
    text += "square = Eltwise_Binary(x, x) operation=13\n" + binary("cube", 13, "square", "x");
  } else {
    text += "cube = Eltwise_Binary(x, three) operation=16\n";
  }
  text += binary("scaled", 13, "cube", "coef") + binary("sum", 0, "x", "scaled") +
          binary("arg", 13, "sum", "k") + "tanh = ElementWiseNeuron(arg) operation=8\n" +
          binary("t", 0, "tanh", "one");
  switch (arrangement) {
    case 1:
      return text + binary("inner", 13, "x", "half") + binary("y", 13, "inner", "t");
    case 2:
      return text + binary("inner", 13, "t", "half") + binary("y", 13, "inner", "x");
    case 3:
      return text + "inner = Eltwise_Binary(t, two) operation=2\n" + binary("y", 13, "inner", "x");
    default:
      return text + binary("inner", 13, "x", "t") + binary("y", 13, "inner", "half");
  }
}

std::string matched(int arrangement) {
  return kClass + "rewriteCallback: MatchGeluApproxPass: Matched pattern " + std::to_string(arrangement) +
         "\n";
}

std::string refused(int arrangement, const std::string& reason) {
  return matched(arrangement) +
         (reason.empty() ? ""
                         : kClass + "validateConstantsAndExtract: MatchGeluApproxPass: " + reason + "\n") +
         kClass + "rewriteCallback: MatchGeluApproxPass: Validation failed for pattern " +
         std::to_string(arrangement) + "\n";
}

std::string replacedText(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from << " does not stand in the text";
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// All orders of the ops around the tanh, with the ops inside of it in one order, in the other, or with one of
// them turned around.
bool isTelling(unsigned swaps, unsigned innerOps) {
  const unsigned all = (1u << innerOps) - 1;
  const unsigned inner = swaps & all;
  return inner == 0 || inner == all || ((inner & (inner - 1)) == 0 && swaps == inner);
}

TEST(GeluApprox, FusesEveryArrangementInEveryOperandOrder) {
  for (int arrangement = 1; arrangement <= 4; ++arrangement) {
    for (const bool expanded : {false, true}) {
      const unsigned commutative = (expanded ? 5 : 4) + (arrangement == 3 ? 1 : 2);
      std::vector<PassCase> cases;
      for (unsigned swaps = 0; swaps < 1u << commutative; ++swaps) {
        if (!isTelling(swaps, expanded ? 4 : 3)) continue;
        cases.push_back(
            {.fault = "arrangement " + std::to_string(arrangement) + (expanded ? " expanded" : " power") +
                      ", swaps " + std::to_string(swaps) + " stays or takes the producer of x along",
             .before = kConstants + kInput + cluster(arrangement, expanded, swaps) + "out y",
             .after =
                 kConstants + kInput + "_elementwiseneuron_0: y = ElementWiseNeuron(x) operation=1\nout y",
             .prints = matched(arrangement) + kClass +
                       "replaceWithGelu: MatchGeluApproxPass: Successfully replaced approximate GELU pattern "
                       "with GELU op\n"});
      }
      expectPass(PassId::MatchGeluApprox, cases);
    }
  }
}

TEST(GeluApprox, RefusesOtherConstants) {
  struct Row {
    const char* fault;
    int arrangement;
    const char* from;
    const char* to;
    std::string reason;
  };
  const std::string add = "Add constant validation failed (expected 1.0)";
  const std::string mul = "Mul constant validation failed (expected sqrt(2/pi))";
  const std::string cubic = "Cubic coefficient 0.044715 not found";
  const std::string half = "Scaling constant validation failed (expected 0.5)";
  const Row rows[] = {
      {"1 + tanh", 1, "one[1] f32 = 1", "one[1] f32 = 1.002", add},
      {"sqrt(2/pi)", 2, "= 0.7978845608", "= 0.70", mul},
      {"the cubic coefficient", 3, "= 0.044715", "= 0.0448", cubic},
      {"a coefficient in front of x instead of its cube", 1, "cube, coef", "cube, half", cubic},
      {"the exponent", 4, "three[1] f32 = 3", "three[1] f32 = 2", ""},
      {"the scale of arrangement 1", 1, "half[1] f32 = 0.5", "half[1] f32 = 0.499", half},
      {"the scale of arrangement 2", 2, "half[1] f32 = 0.5", "half[1] f32 = 2", half},
      {"the divisor", 3, "two[1] f32 = 2", "two[1] f32 = 0.5",
       "Scaling constant validation failed (expected 2)"},
      {"the scale of arrangement 4", 4, "half[1] f32 = 0.5", "half[1] f32 = -0.5", half},
      {"two elements count as a scalar", 1, "one[1] f32 = 1", "one[1,1,1,3] f32 = fill 1", add},
      {"a value that can be updated counts", 1, "one[1] f32 = 1", "one[1] f32 updateable = 1", add},
      {"an integer counts as a float", 1, "one[1] f32 = 1", "one[1] i32 = 1", add},
  };
  for (const Row& row : rows) {
    const std::string text = kConstants + kInput + cluster(row.arrangement, false) + "out y";
    expectPass(PassId::MatchGeluApprox, {{.fault = std::string("another value passes: ") + row.fault,
                                          .before = replacedText(text, row.from, row.to),
                                          .prints = refused(row.arrangement, row.reason)}});
  }
  // The coefficient hides in front of x, where it is a part of another formula.
  expectPass(PassId::MatchGeluApprox,
             {{.fault = "a coefficient that belongs to x is taken for the cube's",
               .before = kConstants + "in m[2,3] f32\nx = Eltwise_Binary(m, coef) operation=13\n" +
                         replacedText(cluster(1, false), "cube, coef", "cube, half") + "out y",
               .prints = refused(1, "")}});
}

TEST(GeluApprox, AcceptsConstantsWithinATolerance) {
  struct Row {
    const char* from;
    const char* to;
  };
  const Row rows[] = {
      {"half[1] f32 = 0.5", "half[1] f16 = 0.5"},
      {"coef[1] f32 = 0.044715", "coef[1] f16 = 0.044715"},
      {"= 0.7978845608", "= 0.7978"},
      {"= 0.044715", "= 0.04475"},
      {"half[1] f32", "half[1,1] f32"},
  };
  for (const Row& row : rows) {
    const std::string constants = replacedText(kConstants, row.from, row.to);
    expectPass(PassId::MatchGeluApprox,
               {{.fault = std::string(row.to) + " is refused",
                 .before = constants + kInput + cluster(4, true) + "out y",
                 .after = constants + kInput +
                          "_elementwiseneuron_0: y = ElementWiseNeuron(x) operation=1\nout y"}});
  }
}

TEST(GeluApprox, RefusesAnotherTensorInAPlaceOfX) {
  struct Row {
    int arrangement;
    bool expanded;
    const char* from;
    const char* to;
  };
  const Row rows[] = {
      {1, false, "inner = Eltwise_Binary(x", "inner = Eltwise_Binary(n"},
      {2, false, "(inner, x)", "(inner, n)"},
      {3, false, "(inner, x)", "(inner, n)"},
      {4, false, "inner = Eltwise_Binary(x", "inner = Eltwise_Binary(n"},
      {1, false, "sum = Eltwise_Binary(x", "sum = Eltwise_Binary(n"},
      {1, false, "(x, three)", "(n, three)"},
      {2, true, "square = Eltwise_Binary(x, x)", "square = Eltwise_Binary(x, n)"},
      {2, true, "square = Eltwise_Binary(x, x)", "square = Eltwise_Binary(n, n)"},
      {2, true, "(square, x)", "(square, n)"},
  };
  for (const Row& row : rows) {
    const std::string text = kInput + cluster(row.arrangement, row.expanded);
    expectPass(PassId::MatchGeluApprox,
               {{.fault = std::string("two inputs fuse: ") + row.to,
                 .before = kConstants + replacedText(text, row.from, row.to) + "out y\nout x",
                 .prints = refused(row.arrangement, "")}});
  }
}

TEST(GeluApprox, RefusesAClusterThatShowsOutside) {
  const std::string text = kConstants + kInput + cluster(1, true);
  std::vector<PassCase> cases;
  for (const std::string inner : {"square", "cube", "scaled", "sum", "arg", "tanh", "t", "inner"}) {
    cases.push_back({.fault = inner + " is taken from another reader",
                     .before = text + "z = Relu(" + inner + ")\nout y\nout z",
                     .prints = ""});
    cases.push_back({.fault = inner + " is taken from the application",
                     .before = text + "out y\nout " + inner,
                     .prints = refused(1, "")});
  }
  cases.push_back({.fault = "a constant of higher rank lifts the result, and the fused op drops it",
                   .before = replacedText(text, "half[1] f32", "half[1,1,1] f32") + "out y",
                   .prints = refused(1, "")});
  expectPass(PassId::MatchGeluApprox, cases);
}

TEST(GeluApprox, FusesTwoClustersAndReadersStay) {
  const std::string second = R"(
    c2 = Eltwise_Binary(y, three) operation=16
    s2 = Eltwise_Binary(c2, coef) operation=13
    a2 = Eltwise_Binary(y, s2) operation=0
    k2 = Eltwise_Binary(a2, k) operation=13
    h2 = ElementWiseNeuron(k2) operation=8
    t2 = Eltwise_Binary(h2, one) operation=0
    i2 = Eltwise_Binary(y, half) operation=13
    z = Eltwise_Binary(i2, t2) operation=13
    u = Relu(z)
    v = Relu(z)
    out u
    out v
    out y
  )";
  expectPass(
      PassId::MatchGeluApprox,
      {{.fault = "one of two clusters in a row stays, or a name is given twice",
        .before = kConstants + "in x[2,3] f32\n_elementwiseneuron_0 = Relu(x)\n" + cluster(2, false) + second,
        .after = kConstants + R"(
                 in x[2,3] f32
                 _elementwiseneuron_0 = Relu(x)
                 _elementwiseneuron_2: y = ElementWiseNeuron(x) operation=1
                 _elementwiseneuron_1: z = ElementWiseNeuron(y) operation=1
                 u = Relu(z)
                 v = Relu(z)
                 out u
                 out v
                 out y
               )"}});
}

TEST(GeluApprox, AnOpThatTheNamePolicyDoesNotKnowKeepsItsName) {
  const std::string name = "_elementwiseneuron_0";
  expectPass(PassId::MatchGeluApprox,
             {{.fault = "a name is given twice, and the graph is left half edited",
               .before = kConstants + kInput + cluster(1, false) + "out y",
               .after = kConstants + kInput + "_elementwiseneuron_1: y = ElementWiseNeuron(x) operation=1\n" +
                        name + "[2,3] = Custom(x)\nout y",
               .prepare = [&](IrGraph& graph) {
                 graph.getNamePolicy();  // made before the op comes in
                 graph.addOp(std::make_shared<ops::IrOp>(name, "Custom", nullptr), {"x"}, {name},
                             std::vector<AxisFormat>{}, -1, false);
               }}});
}

TEST(GeluApprox, TheSourcesOfTheRootGoToTheFusedOp) {
  const TraceSource opSource{"model_op", TraceKind::Op};
  const TraceSource tensorSource{"model_tensor", TraceKind::Tensor};
  expectPass(
      PassId::MatchGeluApprox,
      {{.fault = "the fused op has no sources, or an op that is gone has some",
        .before = kConstants + kInput + cluster(1, false) + "out y",
        .after = kConstants + kInput + "_elementwiseneuron_0: y = ElementWiseNeuron(x) operation=1\nout y",
        .prepare =
            [&](IrGraph& graph) {
              graph.addTraceSources(TraceKind::Op, "y", {opSource});
              graph.addTraceSources(TraceKind::Op, "tanh", {{"model_tanh", TraceKind::Op}});
              graph.addTraceSources(TraceKind::Tensor, "y", {tensorSource});
            },
        .inspect =
            [&](const IrGraph& graph) {
              ASSERT_EQ(graph.getTraceRecords(TraceKind::Op).size(), 1u);
              EXPECT_EQ(graph.getTraceRecords(TraceKind::Op)[0].name, "_elementwiseneuron_0");
              for (const TraceKind kind : {TraceKind::Op, TraceKind::Tensor}) {
                const auto sources = graph.getTraceRecords(kind).at(0).sources;
                EXPECT_EQ(sources, (std::vector<TraceSource>{opSource, tensorSource}));
              }
            }}});
}

}  // namespace
}  // namespace netforge::testing
