// The transform graph in memory: derived sets, dtypes, renaming, dependency order.
#include <gtest/gtest.h>
#include "tests/metadata/MetadataSupport.h"
#include "tests/support/Failures.h"

namespace netforge::testing {
namespace {

using graphrefiner::DType;
using graphrefiner::TransformEntry;
using graphrefiner::TransformGraph;
using Names = std::vector<std::string>;
using NameSet = std::set<std::string>;
using Dtypes = std::map<std::string, DType>;

struct Step {
  Names sources;
  Names destinations;
  std::string opType = "Transpose";
};

TransformGraph graphOf(const std::vector<Step>& steps) {
  TransformGraph graph;
  for (const Step& step : steps) {
    graph.addTransform(step.sources, step.destinations, {step.opType, {}, {}, {}}, false, {});
  }
  return graph;
}

TEST(TransformGraph, KeepsTheDerivedSets) {
  struct Case {
    const char* fault;
    std::vector<Step> steps;
    NameSet inputs, outputs;
  };
  const std::vector<Case> cases = {
      {"a tensor whose producer comes later stays an input", {{{"B"}, {"C"}}, {{"A"}, {"B"}}}, {"A"}, {"C"}},
      {"an identity of other tensors counts as one of a single tensor",
       {{{"A"}, {"B"}, "Identity"}, {{"B"}, {"C"}}},
       {"A"},
       {"C"}},
      {"an identity takes its tensor out of the sets", {{{"X"}, {"X"}, "Identity"}}, {"X"}, {"X"}},
      {"any transform onto itself counts as identity", {{{"X"}, {"X"}}}, {}, {}},
      {"one of two results that is read further hides the other",
       {{{"A"}, {"B", "C"}}, {{"B"}, {"D"}}},
       {"A"},
       {"C", "D"}},
  };
  for (const Case& entry : cases) {
    const TransformGraph graph = graphOf(entry.steps);
    EXPECT_EQ(sorted(graph.inputTensors), entry.inputs) << entry.fault;
    EXPECT_EQ(sorted(graph.outputTensors), entry.outputs) << entry.fault;
  }
  EXPECT_TRUE(graphOf({{{"X"}, {"X"}, "Identity"}}).allSrcTensors.empty());
  TransformGraph skipped;
  skipped.addTransform({"A"}, {"B"}, {}, true, {{"A", DType::Int8}});
  EXPECT_TRUE(skipped.inputTensors.empty() && skipped.tensorDtypes.empty() && skipped.allDestTensors.empty());
}

TEST(TransformGraph, RefusesATransformThatIsThere) {
  TransformGraph graph = graphOf({{{"A", "B"}, {"C"}}});
  const auto add = [&](const Names& sources, const Names& destinations) {
    graph.addTransform(sources, destinations, {}, false, {});
  };
  EXPECT_EQ(failureOf<std::runtime_error>([&] {
              add({"B", "A"}, {"C"});
            }),
            "netforge::graphrefiner::TransformGraph::addTransform: "
            "Transform already exists with given src/dest tensors in this graph");
  add({"A", "B", "B"}, {"C"});  // another multiset
  EXPECT_TRUE(graph.hasTransform({"B", "A", "B"}, {"C"}));
  EXPECT_FALSE(graph.hasTransform({"A", "A", "B"}, {"C"}));
  EXPECT_FALSE(graph.hasTransform({"C"}, {"A", "B"}));
}

TEST(TransformGraph, ChecksDtypesAcrossTransforms) {
  const std::string head = "netforge::graphrefiner::TransformGraph::addTensorDtypes: ";
  TransformGraph graph;
  graph.addTransform({"A"}, {"B"}, {}, false, {{"A", DType::Float16}, {"B", DType::Unknown}});
  const auto add = [&](const Dtypes& dtypes) { graph.addTensorDtypes({"A"}, {"B"}, dtypes); };
  EXPECT_EQ(failureOf<std::runtime_error>([&] {
              add({{"C", DType::Int8}});
            }),
            head + "Tensor C not found in transform src or dest tensors. Cannot set datatype");
  const std::string mismatch =
      head + "Datatype mismatch for tensor: A. Already found datatype: float16, Newly specified datatype: ";
  EXPECT_EQ(failureOf<std::runtime_error>([&] { add({{"A", DType::Int8}}); }), mismatch + "int8");
  EXPECT_EQ(failureOf<std::runtime_error>([&] { add({{"A", DType::Unknown}}); }), mismatch + "Unknown");
  add({{"A", DType::Float16}, {"B", DType::Uint64}});
  EXPECT_EQ(graph.getTensorDtype("B"), DType::Uint64);
  EXPECT_EQ(graph.getTensorDtype("C"), DType::Unknown);
}

TEST(TransformGraph, NamesDtypes) {
  for (std::uint32_t value = 1; value <= 10; ++value) {
    const auto dtype = static_cast<DType>(value);
    EXPECT_EQ(TransformGraph::dtypeFromString(TransformGraph::dtypeToString(dtype)), dtype);
  }
  for (const std::string text : {"", "Float32", "Unknown"}) {
    EXPECT_EQ(
        failureOf<std::runtime_error>([&] { TransformGraph::dtypeFromString(text); }),
        "netforge::graphrefiner::TransformGraph::dtypeFromString: Unknown dtype string: '" + text + "'");
  }
  for (const std::uint32_t value : {0U, 11U, 0xFFFFFFFFU}) {
    EXPECT_EQ(
        failureOf<std::runtime_error>([&] { TransformGraph::dtypeToString(static_cast<DType>(value)); }),
        "netforge::graphrefiner::TransformGraph::dtypeToString: Cannot convert DType::Unknown to string");
  }
}

TEST(TransformGraph, RenamesATensorWhereItIsAskedTo) {
  // A is an input, B a result of one and a source of the other, C an output.
  const auto renamed = [](const std::string& oldName, bool keepInputs, bool keepOutputs) {
    TransformGraph graph = graphOf({{{"A", "B"}, {"C"}}, {{"A"}, {"B"}}});
    graph.addTensorDtypes({"A", "B", "C"}, {}, {{oldName, DType::Int16}});
    graph.renameTensor(oldName, "N", keepInputs, keepOutputs);
    EXPECT_EQ(graph.getTensorDtype("N"), DType::Int16);
    EXPECT_EQ(graph.getTensorDtype(oldName), DType::Unknown);
    return graph;
  };
  const TransformGraph all = renamed("A", false, false);
  EXPECT_EQ(sorted(all.inputTensors), (NameSet{"N"}));
  EXPECT_EQ(all.transforms[0].srcTensors, (Names{"N", "B"}));
  const TransformGraph kept = renamed("A", true, true);
  EXPECT_EQ(sorted(kept.inputTensors), (NameSet{"A"}));
  EXPECT_EQ(sorted(kept.allSrcTensors), (NameSet{"B", "N"}));
  EXPECT_EQ(kept.transforms[1].srcTensors, (Names{"A"}));
  const TransformGraph inner = renamed("B", true, true);  // no input, so its readers follow
  EXPECT_EQ(inner.transforms[0].srcTensors, (Names{"A", "N"}));
  EXPECT_EQ(inner.transforms[1].destTensors, (Names{"N"}));
  const TransformGraph output = renamed("C", true, true);
  EXPECT_EQ(sorted(output.outputTensors), (NameSet{"C"}));
  EXPECT_EQ(sorted(output.allDestTensors), (NameSet{"B", "N"}));
  EXPECT_EQ(sorted(renamed("C", true, false).outputTensors), (NameSet{"N"}));

  TransformGraph typed;
  typed.addTransform({"A"}, {"B"}, {}, false, {{"A", DType::Int8}, {"B", DType::Int8}});
  typed.renameTensor("B", "N", true, true);
  typed.renameTensor("A", "M", true, true);  // an input: the source keeps its name, and its dtype
  EXPECT_EQ(typed.transforms[0].tensorDtypes, (Dtypes{{"A", DType::Int8}, {"N", DType::Int8}}));
}

TEST(TransformGraph, OrdersByDependency) {
  struct Case {
    const char* fault;
    std::vector<Step> steps;
    Names order;  // of the first destinations
  };
  const std::vector<Case> cases = {
      {"a join is taken with its first source",
       {{{"a", "d"}, {"e"}}, {{"c"}, {"d"}}, {{"x"}, {"a"}}, {{"y"}, {"c"}}},
       {"a", "c", "d", "e"}},
      {"a cycle is taken", {{{"a"}, {"b"}}, {{"p", "r"}, {"q"}}, {{"q"}, {"r"}}}, {"b"}},
      {"readers come in the order of results and not of adding",
       {{{"x"}, {"p", "q"}}, {{"q"}, {"r"}}, {{"p"}, {"s"}}},
       {"p", "s", "r"}},
      {"an entry with two results of one producer is taken twice",
       {{{"x"}, {"p", "q"}}, {{"p", "q"}, {"r"}}},
       {"p", "r"}},
  };
  for (const Case& entry : cases) {
    Names order;
    const TransformGraph graph = graphOf(entry.steps);
    for (const TransformEntry* found : graph.getOrderedTransforms()) order.push_back(found->destTensors[0]);
    EXPECT_EQ(order, entry.order) << entry.fault;
  }
}

}  // namespace
}  // namespace netforge::testing
