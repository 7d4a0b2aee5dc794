#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>
#include "GraphRefiner/src/PassRegistry.h"
#include "ir/IrGraph.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/Failures.h"

namespace netforge::graphrefiner::testing {

using netforge::testing::failureOf;
using OpPtr = std::shared_ptr<ops::IrOp>;
using GraphPtr = std::shared_ptr<IrGraph>;

using netforge::testing::CapturedOutput;

// Makes an empty directory the current one for the life of the object.
class OwnDirectory {
 public:
  OwnDirectory() : before(std::filesystem::current_path()) {
    static int count = 0;
    directory = std::filesystem::temp_directory_path() /
                ("netforge_refiner_" + std::to_string(::getpid()) + "_" + std::to_string(count++));
    std::filesystem::create_directories(directory);
    std::filesystem::current_path(directory);
  }
  ~OwnDirectory() {
    std::filesystem::current_path(before);
    std::filesystem::remove_all(directory);
  }
  // The names of the JSON files that lie there.
  std::set<std::string> dumps() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      if (entry.path().extension() == ".json") names.insert(entry.path().filename().string());
    }
    return names;
  }

 private:
  std::filesystem::path before;
  std::filesystem::path directory;
};

// A pass that does what the test says and counts its calls.
class ScriptedPass : public Pass {
 public:
  using Script = std::function<bool(GraphPtr&)>;
  explicit ScriptedPass(Script givenScript) : script(std::move(givenScript)) {}
  bool run(GraphPtr& graph) override {
    ++calls;
    return script(graph);
  }
  int calls = 0;

 private:
  Script script;
};

constexpr std::array kAllStages = {OptimizationStage::PreLayout, OptimizationStage::PostLayout,
                                   OptimizationStage::PreQuant, OptimizationStage::PostQuant};

// Empties the registry's tables for one test and puts the real passes back afterwards.
class OwnRegistry {
 public:
  OwnRegistry() {
    for (const auto stage : kAllStages) saved.push_back(std::exchange(getPassRegistry().table(stage), {}));
  }
  ~OwnRegistry() {
    for (std::size_t i = 0; i < saved.size(); ++i) getPassRegistry().table(kAllStages[i]) = saved[i];
  }
  std::shared_ptr<ScriptedPass> add(PassId id, ScriptedPass::Script script,
                                    PassRunMode runMode = PassRunMode::Once,
                                    OptimizationStage stage = OptimizationStage::PostLayout) {
    auto pass = std::make_shared<ScriptedPass>(std::move(script));
    pass->runMode = runMode;
    pass->stage = stage;
    pass->backends = {7};
    getPassRegistry().table(stage)[id] = pass;
    return pass;
  }

 private:
  std::vector<PassRegistry::PassTable> saved;
};

inline void addInput(const GraphPtr& graph, const std::string& name, const std::vector<std::uint32_t>& dims,
                     TensorType type = TensorType::GraphInput) {
  graph->addTensor(std::make_shared<IrTensor>(name, dims, ORLO_DATATYPE_FLOAT_32, AxisFormat::ANY,
                                              AxisFormat::ANY, type, std::vector<std::uint32_t>{}));
}

inline void addConstant(const GraphPtr& graph, const std::string& name,
                        const std::vector<std::uint32_t>& dims, const void* data, std::size_t size,
                        DataType type = ORLO_DATATYPE_FLOAT_32) {
  graph->addTensor(std::make_shared<IrStaticTensor>(name, dims, static_cast<std::uint32_t>(size), data, type,
                                                    AxisFormat::ANY, AxisFormat::ANY, false,
                                                    TensorType::Static, std::vector<std::uint32_t>{}));
}

// A plain op behind the ops that stand, with one output of the given dims that bears the op's name.
inline OpPtr addPlainOp(const GraphPtr& graph, const std::string& name, const std::string& type,
                        const std::vector<std::string>& inputs,
                        const std::vector<std::uint32_t>& dims = {2, 3},
                        const std::shared_ptr<IrAttributes>& attributes = nullptr) {
  auto op = std::make_shared<ops::IrOp>(name, type, attributes);
  graph->addOp(op, inputs, {name}, {IrTensorShape(dims)}, {AxisFormat::ANY}, -1, false);
  return op;
}

// x -> type 0 -> type 1 ...; the ops are named "<prefix>0", "<prefix>1" ...
inline GraphPtr makeChain(const std::vector<std::string>& types, const std::string& prefix = "op") {
  auto graph = std::make_shared<IrGraph>("chain");
  addInput(graph, "x", {2, 3});
  std::string last = "x";
  for (std::size_t i = 0; i < types.size(); ++i) {
    const std::string name = prefix + std::to_string(i);
    addPlainOp(graph, name, types[i], {last});
    last = name;
  }
  return graph;
}

// Makes a tensor a graph output, in the graph's list too; of another kind than 1 on demand.
inline void makeGraphOutput(const GraphPtr& graph, const std::string& name,
                            TensorType type = TensorType::GraphOutput) {
  const auto tensor = graph->getTensor(name);
  graph->removeTensor(name);
  tensor->setTensorType(TensorType::GraphOutput);
  graph->addTensor(tensor);
  tensor->setTensorType(type);
}

inline std::vector<std::string> opNames(const GraphPtr& graph) {
  std::vector<std::string> names;
  for (const auto& op : graph->getOps()) names.push_back(op->getName());
  return names;
}

inline void expectSound(const GraphPtr& graph) {
  EXPECT_EQ(graph->checkInvariants(), std::vector<std::string>{});
}

// The text of the exception, or "nothing thrown", for tables that hold both.
template <class F>
std::string messageOf(F&& action) {
  try {
    action();
  } catch (const std::exception& failure) {
    return failure.what();
  }
  return "nothing thrown";
}

}  // namespace netforge::graphrefiner::testing
