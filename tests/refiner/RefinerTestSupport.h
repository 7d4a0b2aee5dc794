#pragma once

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>
#include "GraphRefiner/src/PassRegistry.h"
#include "ir/IrGraph.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/Failures.h"
#include "tests/support/OwnDirectory.h"

namespace netforge::graphrefiner::testing {

using netforge::testing::CapturedOutput;
using netforge::testing::failureOf;
using netforge::testing::messageOf;
using netforge::testing::OwnDirectory;
using OpPtr = std::shared_ptr<ops::IrOp>;
using GraphPtr = std::shared_ptr<IrGraph>;

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
                        const std::vector<std::uint32_t>& dims, const void* data, std::size_t size) {
  graph->addTensor(std::make_shared<IrStaticTensor>(name, dims, static_cast<std::uint32_t>(size), data,
                                                    ORLO_DATATYPE_FLOAT_32, AxisFormat::ANY, AxisFormat::ANY,
                                                    false, TensorType::Static, std::vector<std::uint32_t>{}));
}

// A plain op behind the ops that stand, with one output of the given dims that bears the op's name.
inline OpPtr addPlainOp(const GraphPtr& graph, const std::string& name, const std::string& type,
                        const std::vector<std::string>& inputs,
                        const std::vector<std::uint32_t>& dims = {2, 3}) {
  auto op = std::make_shared<ops::IrOp>(name, type, nullptr);
  graph->addOp(op, inputs, {name}, {IrTensorShape(dims)}, {AxisFormat::ANY}, -1, false);
  return op;
}

// x -> type 0 -> type 1 ...; the ops are named "op0", "op1" ...
inline GraphPtr makeChain(const std::vector<std::string>& types) {
  auto graph = std::make_shared<IrGraph>("chain");
  addInput(graph, "x", {2, 3});
  std::string last = "x";
  for (std::size_t i = 0; i < types.size(); ++i) {
    const std::string name = "op" + std::to_string(i);
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

}  // namespace netforge::graphrefiner::testing
