// Folding Transposes into each other, into a Reduce between them and into constants.
#include <gtest/gtest.h>
#include "GraphRefiner/src/PassRegistry.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/GraphText.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

// Orders that don't commute, on dims that all differ, between ops that stay.
const std::string kTurning = R"(
    in x[2,3,5,7]
    r = Relu(x)
    a = Transpose(r) perm=[0,2,3,1]
    b = Transpose(a) perm=[1,0,3,2]
    y = Relu(b)
    out y)";

// The source statements, a Transpose a(source) and its inverse b, and what comes behind.
std::string inversePair(const std::string& front, const std::string& source, const std::string& behind) {
  return front + "\n a = Transpose(" + source + ") perm=[0,2,3,1]\n b = Transpose(a) perm=[0,3,1,2]\n" +
         behind;
}
const std::string kRelu = "in x[2,3,5,7]\n r = Relu(x)";

TEST(OptimizeTransposes, FoldsIntoEveryTransposeThatReads) {
  expectPass(
      PassId::OptimizeTransposes,
      {{.fault = "composes in the wrong order",
        .before = kTurning,
        .after = "in x[2,3,5,7]\n r = Relu(x)\n b = Transpose(r) perm=[2,0,1,3]\n y = Relu(b)\n out y"},
       {.fault = "takes the Transpose away from another reader",
        .before = inversePair(kRelu, "r", "c = Transpose(a) perm=[1,0,2,3]\n y = Add(a, c)\n out y"),
        .after = kRelu + "\n a = Transpose(r) perm=[0,2,3,1]\n c = Transpose(r) perm=[2,0,3,1]\n"
                         "y = Add(a, c)\n out y"},
       {.fault = "drops the readers of an identity",
        .before = inversePair(kRelu, "r", "y = Add(b, r)\n z = Relu(b)\n out y\n out z"),
        .after = kRelu + "\n y = Add(r, r)\n z = Relu(r)\n out y\n out z"},
       {.fault = "can't remove a chain of identities in front of a graph output",
        .before = inversePair(kRelu, "r",
                              "c = Transpose(b) perm=[1,0,2,3]\n d = Transpose(c) perm=[1,0,2,3]\n"
                              "out d"),
        .after = "in x[2,3,5,7]\n r: d = Relu(x)\n out d"},
       {.fault = "fails on an identity that nobody reads",
        .before = inversePair(kRelu, "r", "y = Relu(a)\n out y"),
        .after = kRelu + "\n a = Transpose(r) perm=[0,2,3,1]\n y = Relu(a)\n out y"},
       {.fault = "composes with an axis that isn't there",
        .before = kRelu + "\n a[2,5,7,3] = Transpose(r) perm=[0,2,3,1]\n"
                          "b[2,3,5,7] = Transpose(a) perm=[0,3,1,4]\n y = Relu(b)\n out y",
        .throws = "composePermutations: Invalid permutation value 4 at index 3 for permutation of "
                  "size 4"}});
}

TEST(OptimizeTransposes, KeepsWhatTheApplicationHandsInAndReads) {
  const std::string identity = "\n b = Transpose(SOURCE) perm=[0,1,2,3]\n";
  const auto identityOf = [&](const std::string& source) {
    return std::string(identity).replace(identity.find("SOURCE"), 6, source);
  };
  expectPass(PassId::OptimizeTransposes,
             {{.fault = "the tensor between is read", .before = inversePair(kRelu, "r", "out b\n out a")},
              {.fault = "the tensor between is an optional output",
               .before = inversePair(kRelu, "r", "out b\n out a optional")},
              {.fault = "the readers of a graph output that goes are cut off",
               .before = inversePair(kRelu, "r", "y = Relu(b)\n out y\n out b"),
               .after = "in x[2,3,5,7]\n r: b = Relu(x)\n y = Relu(b)\n out y\n out b"},
              {.fault = "a second graph output takes the first one's place",
               .before = inversePair(kRelu, "r", "c = Transpose(a) perm=[0,3,1,2]\n out c\n out b"),
               .after = "in x[2,3,5,7]\n r: b = Relu(x)\n c = Transpose(b) perm=[0,1,2,3]\n out c\n out b"},
              {.fault = "an updateable output becomes a plain one",
               .before = inversePair(kRelu, "r", "out b"),
               .after = "in x[2,3,5,7]\n r: b updateable = Relu(x)\n out b",
               .prepare = [](IrGraph& graph) { graph.getTensor("b")->setUpdateable(true); }},
              {.fault = "an input that is wired to an output vanishes",
               .before = inversePair("in x[2,3,5,7]", "x", "out b"),
               .after = "in x[2,3,5,7]" + identityOf("x") + "out b"},
              {.fault = "a constant loses its name to the output",
               .before = inversePair("const x[1,2,3,2] = iota", "x", "out b"),
               .after = "const x[1,2,3,2] = iota" + identityOf("x") + "out b"},
              {.fault = "one graph output replaces another",
               .before = inversePair(kRelu, "r", "out b\n out r"),
               .after = kRelu + identityOf("r") + "out b\n out r"}});
}

TEST(OptimizeTransposes, HandsTraceRecordsOn) {
  const auto sourcesOf = [](const IrGraph& graph, const std::string& op) {
    std::vector<std::string> names;
    for (const auto& source : graph.getTraceInfo(TraceKind::Op, op)) names.push_back(source.name);
    return names;
  };
  using Names = std::vector<std::string>;
  const auto addRecords = [](IrGraph& graph) {
    for (const std::string name : {"r", "a", "b"}) {
      graph.addTraceSources(TraceKind::Op, name, {{"op_" + name, TraceKind::Op}});
      graph.addTraceSources(TraceKind::Tensor, name, {{"of_" + name, TraceKind::Tensor}});
    }
  };
  expectPass(PassId::OptimizeTransposes,
             {{.fault = "the folded op's record stays, or the remaining one's misses its source",
               .before = kTurning,
               .after = "in x[2,3,5,7]\n r = Relu(x)\n b = Transpose(r) perm=[2,0,1,3]\n y = Relu(b)\n out y",
               .prepare = addRecords,
               .inspect =
                   [&](const IrGraph& graph) {
                     EXPECT_EQ(sourcesOf(graph, "b"), (Names{"of_r", "op_b"}));
                     EXPECT_EQ(sourcesOf(graph, "a"), Names{});
                   }},
              {.fault = "records of removed ops stay behind",
               .before = inversePair(kRelu, "r", "out b"),
               .after = "in x[2,3,5,7]\n r: b = Relu(x)\n out b",
               .prepare = addRecords,
               .inspect = [&](const IrGraph& graph) {
                 EXPECT_EQ(sourcesOf(graph, "a"), Names{});
                 EXPECT_EQ(sourcesOf(graph, "b"), Names{});
               }}});
}

TEST(SquashMultiplePermute, FoldsPairs) {
  expectPass(
      PassId::SquashMultiplePermute,
      {{.fault = "composes in the wrong order",
        .before = kTurning,
        .after = "in x[2,3,5,7]\n r = Relu(x)\n a: b = Transpose(r) perm=[2,0,1,3]\n y = Relu(b)\n out y"},
       {.fault = "a longer chain isn't folded to its end",
        .before = kRelu + "\n a = Transpose(r) perm=[0,2,3,1]\n b = Transpose(a) perm=[1,0,3,2]\n"
                          "c = Transpose(b) perm=[2,0,1,3]\n d = Transpose(c) perm=[3,0,2,1]\n"
                          "e = Transpose(d) perm=[1,0,2,3]\n out e",
        .after = kRelu + "\n a: e = Transpose(r) perm=[1,3,0,2]\n out e"},
       {.fault = "an undone pair stays",
        .before = inversePair(kRelu, "r", "y = Relu(b)\n out y"),
        .after = "in x[2,3,5,7]\n r: b = Relu(x)\n y = Relu(b)\n out y"},
       {.fault = "an undone pair takes its source away from another reader",
        .before = inversePair(kRelu, "r", "y = Add(b, r)\n out y"),
        .after = kRelu + "\n y = Add(r, r)\n out y"},
       {.fault = "an undone pair on a graph input stays",
        .before = inversePair("in x[2,3,5,7]", "x", "y = Relu(b)\n out y"),
        .after = "in x[2,3,5,7]\n y = Relu(x)\n out y"},
       {.fault = "a pair between input and output ends the run",
        .before = inversePair("in x[2,3,5,7]", "x", "out b"),
        .after = "in x[2,3,5,7]\n a: b = Transpose(x) perm=[0,1,2,3]\n out b"},
       {.fault = "a pair between a shared tensor and an output ends the run",
        .before = inversePair(kRelu, "r", "y = Relu(r)\n out b\n out y"),
        .after = kRelu + "\n a: b = Transpose(r) perm=[0,1,2,3]\n y = Relu(r)\n out b\n out y"},
       {.fault = "the encoding of the tensor between is lost",
        .before = kRelu + "\n a[2,5,7,3] sq8 scale=0.5 offset=-3 = Transpose(r) perm=[0,2,3,1]\n"
                          "b f32 = Transpose(a) perm=[1,0,3,2]\n y = Relu(b)\n out y",
        .after = kRelu + "\n a: b[5,2,3,7] sq8 scale=0.5 offset=-3 = Transpose(r) perm=[2,0,1,3]\n"
                         "y f32 = Relu(b)\n out y"},
       {.fault = "the tensor between is a graph output", .before = kTurning + "\n out a"},
       {.fault = "somebody else reads the tensor between", .before = kTurning + "\n z = Relu(a)\n out z"}});
}

// r -> a = Transpose(p) -> s = Reduce(axes) -> b = Transpose(q)
std::string reduceBetween(const std::string& p, const std::string& reduce, const std::string& q,
                          const std::string& behind = "out b") {
  return kRelu + "\n a = Transpose(r) perm=" + p + "\n s = " + reduce + "\n b = Transpose(s) perm=" + q +
         "\n" + behind;
}

TEST(RemoveInverseTransposePair, TurnsTheAxes) {
  const auto pair = [](const std::string& axes) {
    return reduceBetween("[0,2,3,1]", "Reduce(a) axes=" + axes + " keep_dims=true reduce_type=ReduceMax",
                         "[0,3,1,2]");
  };
  const auto single = [](const std::string& axes) {
    return kRelu + "\n s: b = Reduce(r) axes=" + axes + " keep_dims=true reduce_type=ReduceMax\n out b";
  };
  const std::string plainReduce = "[2,5,7,3] = plain Reduce(a) keep_dims=true reduce_type=ReduceMax axes=";
  expectPass(
      PassId::RemoveInverseTransposePair,
      {{.fault = "an axis is turned the wrong way", .before = pair("[1]"), .after = single("[2]")},
       {.fault = "several axes are sorted", .before = pair("[3,1]"), .after = single("[1,2]")},
       {.fault = "a graph input or its other readers stand in the way",
        .before =
            "in x[2,3,5,7]\n a = Transpose(x) perm=[0,2,3,1]\n"
            "s = Reduce(a) axes=[1] keep_dims=true reduce_type=ReduceMax\n b = Transpose(s) perm=[0,3,1,2]\n"
            "y = Relu(x)\n z = Relu(b)\n out y\n out z",
        .after = "in x[2,3,5,7]\n s: b = Reduce(x) axes=[2] keep_dims=true reduce_type=ReduceMax\n y = "
                 "Relu(x)\n z = Relu(b)\n"
                 "out y\n out z"},
       {.fault = "a vector that is reduced to one element stays",
        .before = "in x[5]\n a = Transpose(x) perm=[0]\n s = Reduce(a) axes=[0] keep_dims=false "
                  "reduce_type=ReduceMax\n"
                  "b = Transpose(s) perm=[0]\n out b",
        .after = "in x[5]\n s: b = Reduce(x) axes=[0] keep_dims=false reduce_type=ReduceMax\n out b"}});
  const auto count = [&](const std::string& axes) {
    return "in x[2,3,5,7]\n r = Relu(x)\n a = Transpose(r) perm=[0,2,3,1]\n s" + plainReduce + axes +
           "\n b[2,3,5,7] = Transpose(s) perm=[0,3,1,2]\n out b";
  };
  expectPass(
      PassId::RemoveInverseTransposePair,
      {{.fault = "a negative axis is carried into the new layout",
        .before = count("[-1]"),
        .after = kRelu +
                 "\n s: b[2,3,5,7] = plain Reduce(r) keep_dims=true reduce_type=ReduceMax axes=[1]\n out b"},
       {.fault = "an axis that isn't there is lost",
        .before = count("[7]"),
        .after =
            kRelu +
            "\n s: b[2,3,5,7] = plain Reduce(r) keep_dims=true reduce_type=ReduceMax axes=[7]\n out b"}});
}

TEST(RemoveInverseTransposePair, LeavesWhatIsNoPairOrIsRead) {
  const std::string keeping = "Reduce(a) axes=[1] keep_dims=true reduce_type=ReduceMax";
  const auto pair = [&](const std::string& behind) {
    return reduceBetween("[0,2,3,1]", keeping, "[0,3,1,2]", behind);
  };
  expectPass(
      PassId::RemoveInverseTransposePair,
      {{.fault = "an order and itself count as a pair",
        .before = reduceBetween("[0,2,3,1]", keeping, "[0,2,3,1]")},
       {.fault = "orders of different lengths are compared",
        .before = reduceBetween("[0,2,3,1]", "Reduce(a) axes=[1] keep_dims=false reduce_type=ReduceMax",
                                "[0,2,1]")},
       {.fault = "the transposed tensor is a graph output", .before = pair("out b\n out a")},
       {.fault = "the reduced tensor is a graph output", .before = pair("out b\n out s")},
       {.fault = "somebody reads the transposed tensor", .before = pair("y = Relu(a)\n out b\n out y")},
       {.fault = "somebody reads the reduced tensor", .before = pair("y = Relu(s)\n out b\n out y")},
       {.fault = "an order out of range goes unnoticed",
        .before = kRelu + "\n a[2,5,7,3] = Transpose(r) perm=[0,2,3,4]\n s = " + keeping +
                  "\n b = Transpose(s) perm=[0,3,1,2]\n out b",
        .throws = "getInversePermutation: Invalid permutation value 4 at index 3 for permutation of "
                  "size 4"}});
}

TEST(SquashConstantTranspose, MovesTheBytes) {
  const std::string constant = "const c[2,3] = 1 2 3 4 5 6\n t = Transpose(c) perm=[1,0]\n";
  const std::string turned = "[3,2] = 1 4 2 5 3 6\n";
  const std::string input = "in x[4,2]\n";
  const std::string product = "y[4,3] = plain ";
  const auto weight = [&](const std::string& type) {
    return PassCase{.fault = "the weight of " + type + " loses its name",
                    .before = input + constant + product + type + "(x, t)\n out y",
                    .after = input + "const c" + turned + "const t[2,3] = 1 2 3 4 5 6\n" + product + type +
                             "(x, c)\n out y"};
  };
  expectPass(PassId::SquashConstantTranspose,
             {weight("Conv2d"),
              weight("Conv3d"),
              weight("DepthWiseConv2d"),
              weight("FullyConnected"),
              weight("TransposeConv2d"),
              weight("TransposeConv3d"),
              {.fault = "other readers don't find the constant under their name",
               .before = input + constant + product + "MatMul(x, t)\n z = Relu(t)\n out y\n out z",
               .after = input + "const t" + turned + "const c[2,3] = 1 2 3 4 5 6\n" + product +
                        "MatMul(x, t)\n z = Relu(t)\n out y\n out z"},
              {.fault = "a graph output loses its name",
               .before = constant + "out t",
               .after = "const t" + turned + "const c[2,3] = 1 2 3 4 5 6\n out t"},
              {.fault = "a constant that the application reads loses its name to the weight",
               .before = input + constant + product + "FullyConnected(x, t)\n out c\n out y",
               .after = input + "const t" + turned + "const c[2,3] = 1 2 3 4 5 6\n" + product +
                        "FullyConnected(x, t)\n out c\n out y"},
              {.fault = "a chain needs several runs",
               .before = "const c[2,3,1] f16 = 1 2 3 4 5 6\n t = Transpose(c) perm=[1,0,2]\n"
                         "u = Transpose(t) perm=[2,0,1]\n y = Relu(u)\n out y",
               .after = "const u[1,3,2] f16 = 1 4 2 5 3 6\n const c[2,3,1] f16 = 1 2 3 4 5 6\n"
                        "const t[3,2,1] f16 = 1 4 2 5 3 6\n y = Relu(u)\n out y"},
              {.fault = "a constant that others read is copied",
               .before = constant + "y = Relu(t)\n z = Relu(c)\n out y\n out z"},
              {.fault = "elements of eight bytes end the run",
               .before = "const c[2,3] i64 = 1 2 3 4 5 6\n t = Transpose(c) perm=[1,0]\n"
                         "y = Relu(t)\n out y"},
              {.fault = "a taken name ends the run",
               .before = "in t_c[2]\n" + constant + "y = Relu(t)\n z = Relu(t_c)\n out y\n out z"},
              {.fault = "a tensor that is no constant is taken for one",
               .before = "in x[2,3]\n t = Transpose(x) perm=[1,0]\n y = Relu(t)\n out y"}});
}

TEST(SquashConstantTranspose, AnEncodingPerChannelFollowsItsAxis) {
  const std::string weight =
      "in x[1,2]\n const c[2,3,5] sq8 scale=1 offset=0 = iota\n t = Transpose(c) perm=[1,2,0]\n"
      "y[1,2] = plain FullyConnected(x, t)\n out y";
  const auto encode = [](IrGraph& graph, QuantEncodingKind kind) {
    QuantInfo record;
    record.encoding = kind;
    record.axis = -3;
    record.axisEncodings.resize(2);
    graph.getTensor("c")->setQInfo(ORLO_DATATYPE_SFIXED_POINT_8, record);
  };
  auto graph = readGraph(weight);
  encode(*graph, QuantEncodingKind::AxisScaleOffset);
  const auto stage = graphrefiner::OptimizationStage::PostLayout;
  EXPECT_TRUE(graphrefiner::getPassRegistry().table(stage).at(PassId::SquashConstantTranspose)->run(graph));
  EXPECT_EQ(graph->getOp("y")->getInput(1)->getQuantInfo().axis, 2);
  expectPass(PassId::SquashConstantTranspose,
             {{.fault = "blocks of elements that no longer lie side by side keep their scales",
               .before = weight,
               .prepare = [&](IrGraph& before) { encode(before, QuantEncodingKind::Block); }}});
}

TEST(SquashConstantTranspose, ReportsAWeightThatTheApplicationReads) {
  auto graph = readGraph(
      "in x[4,2]\n const c[2,3] = 1 2 3 4 5 6\n t = Transpose(c) perm=[1,0]\n"
      "y[4,3] = plain FullyConnected(x, t)\n out t\n out y");
  const std::string before = printGraph(*graph);
  const auto pass = graphrefiner::getPassRegistry()
                        .table(graphrefiner::OptimizationStage::PostLayout)
                        .at(PassId::SquashConstantTranspose);
  CapturedOutput output;
  EXPECT_TRUE(pass->run(graph)) << "counts as a change all the same";
  EXPECT_EQ(output.text(),
            "squashConstantTranspose: Cannot squash constant Transpose op t into next op: output tensor t is "
            "a graph output (app-read) tensor.\n");
  EXPECT_EQ(printGraph(*graph), before);
}

}  // namespace
}  // namespace netforge::testing
