// What the passes that fold or move Transposes and Reshapes, and the one that lowers high ranks, cost on
// graphs of growing size, repeated as the manager repeats them. The counter "per_op" is the time per op of
// the chain; growth.py shows how it grows.

#include <benchmark/benchmark.h>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>
#include "GraphRefiner/src/Pass.h"
#include "GraphRefiner/src/PassRegistry.h"
#include "bench/Fleet.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace {

using netforge::IrGraph;
using netforge::TensorType;
using netforge::TraceKind;
using netforge::graphrefiner::createOp;
using netforge::graphrefiner::OpParam;
using netforge::graphrefiner::OpParams;
using netforge::graphrefiner::PassId;
using Dims = IrGraph::Dims;
using GraphPtr = std::shared_ptr<IrGraph>;

std::string nameOf(std::size_t i) {
  return "/model/layers." + std::to_string(i) + "/attention/Transpose_output_0";
}

void addSource(IrGraph& graph, const std::string& name, const Dims& dims, bool constant) {
  using netforge::AxisFormat;
  if (!constant) {
    graph.addTensor(std::make_shared<netforge::IrTensor>(name, dims, netforge::ORLO_DATATYPE_FLOAT_32,
                                                         AxisFormat::ANY, TensorType::GraphInput, Dims{}));
    return;
  }
  std::uint32_t count = 1;
  for (const std::uint32_t dim : dims) count *= dim;
  const std::vector<float> data(count, 0.5f);
  graph.addTensor(std::make_shared<netforge::IrStaticTensor>(
      name, dims, static_cast<std::uint32_t>(count * sizeof(float)), data.data(),
      netforge::ORLO_DATATYPE_FLOAT_32, AxisFormat::ANY, AxisFormat::ANY, false, TensorType::Static, Dims{}));
}

void makeOutput(IrGraph& graph, const std::string& name) {
  const auto output = graph.getTensor(name);
  output->setTensorType(TensorType::GraphOutput);
  graph.removeTensor(name);
  graph.addTensor(output);
}

struct Step {
  std::string type;
  OpParams params;
  // Further inputs: the constant "k", or "@" for the first input again.
  std::vector<std::string> others = {};
};
Step transpose(const Dims& perm) {
  return {"Transpose", {{"perm", OpParam(perm)}}};
}
Step reshape(const Dims& shape) {
  return {"Reshape", {{"shape", OpParam(shape)}}};
}
Step reduce(const Dims& axes) {
  return {"Reduce",
          {{"axes", OpParam(axes)}, {"keep_dims", OpParam(true)}, {"reduce_type", OpParam("ReduceMax")}}};
}
Step relu() {
  return {"ElementWiseNeuron", {{"operation", OpParam(4u)}}};
}
Step sum(const std::string& other) {
  return {"Eltwise_Binary", {{"operation", OpParam(0u)}}, {other}};
}

struct Chain {
  Dims dims;
  std::vector<Step> steps;  // repeated until the chain is long enough
  bool constant = false;
  bool traced = false;
  Step last = relu();
};

// Source -> Relu -> steps ... -> last step -> output, without the Relu behind a constant.
GraphPtr build(const Chain& chain, std::size_t size) {
  auto graph = std::make_shared<IrGraph>("chain");
  addSource(*graph, "x", chain.dims, chain.constant);
  addSource(*graph, "k", {chain.dims.back()}, true);
  std::string last = "x";
  const auto append = [&](const std::string& name, const Step& step) {
    IrGraph::Names inputs{last};
    for (const std::string& other : step.others) inputs.push_back(other == "@" ? last : other);
    graph->addOp(createOp(step.type, name, step.params), inputs, {name}, {}, -1, false);
    if (chain.traced) {
      graph->addTraceSources(TraceKind::Op, name, {{name, TraceKind::Op}});
      graph->addTraceSources(TraceKind::Tensor, name, {{name, TraceKind::Tensor}});
    }
    last = name;
  };
  if (!chain.constant) append("first", relu());
  for (std::size_t i = 0; i < size; ++i) append(nameOf(i), chain.steps[i % chain.steps.size()]);
  append("last", chain.last);
  makeOutput(*graph, "last");
  return graph;
}

// One Relu -> many -> one Concat -> Transpose -> output.
GraphPtr buildFan(std::size_t size) {
  auto graph = std::make_shared<IrGraph>("fan");
  addSource(*graph, "x", {1, 2, 3, 4}, false);
  const auto append = [&](const std::string& name, const Step& step, const IrGraph::Names& inputs) {
    graph->addOp(createOp(step.type, name, step.params), inputs, {name}, {}, -1, false);
  };
  append("first", relu(), {"x"});
  IrGraph::Names branches;
  for (std::size_t i = 0; i < size; ++i) {
    branches.push_back(nameOf(i));
    append(nameOf(i), relu(), {"first"});
  }
  append("joined", {"Concat", {{"axis", OpParam(1u)}}}, branches);
  append("last", transpose({0, 2, 3, 1}), {"joined"});
  makeOutput(*graph, "last");
  return graph;
}

using BuildGraph = std::function<GraphPtr(std::size_t)>;

constexpr std::size_t kMostRounds = 51;  // as the manager's

// As many graphs as make kTotal ops together, as Fleet.h says why. The rounds of a pass that is repeated go
// over all graphs in turn, so that a small graph doesn't stay in the caches from one round to the next.
void run(benchmark::State& state, PassId id, const BuildGraph& buildGraph) {
  namespace refiner = netforge::graphrefiner;
  const std::size_t size = netforge::bench::sizeOf(state);
  const auto pass = refiner::getPassRegistry().table(refiner::OptimizationStage::PostLayout).at(id);
  const bool repeated = pass->runMode == refiner::PassRunMode::Fixpoint;
  std::vector<GraphPtr> graphs(netforge::bench::kTotal / size);
  std::uint32_t left = 0;
  for (auto _ : state) {
    for (GraphPtr& graph : graphs) graph = buildGraph(size);
    const std::clock_t start = std::clock();  // of this process alone: other load doesn't show
    bool changed = true;
    for (std::size_t round = 0; changed && round < (repeated ? kMostRounds : 1); ++round) {
      changed = false;
      for (GraphPtr& graph : graphs) changed = pass->run(graph) || changed;
    }
    state.SetIterationTime(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
    left = graphs.front()->numOps();
  }
  state.counters["ops_left"] = left;
  netforge::bench::perOp(state, netforge::bench::kTotal);
}

void bench(const std::string& name, PassId id, const BuildGraph& buildGraph) {
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
    run(state, id, buildGraph);
  })->Apply(netforge::bench::whole);
}
void bench(const std::string& name, PassId id, const Chain& chain) {
  bench(name, id, BuildGraph([=](std::size_t size) { return build(chain, size); }));
}

}  // namespace

int main(int argc, char** argv) {
  const Dims image{1, 2, 3, 4};
  const Chain inverse{image, {transpose({0, 2, 3, 1}), transpose({0, 3, 1, 2})}};
  const Chain turning{image, {transpose({0, 2, 3, 1}), transpose({1, 0, 3, 2})}};
  const Chain reshapes{image, {reshape({2, 12}), reshape({6, 4}), reshape({1, 2, 3, 4})}};
  const auto with = [](Chain chain, bool constant, bool traced) {
    chain.constant = constant;
    chain.traced = traced;
    return chain;
  };
  bench("OptimizeTransposes_inverse", PassId::OptimizeTransposes, inverse);
  bench("OptimizeTransposes_turning", PassId::OptimizeTransposes, turning);
  bench("OptimizeTransposes_traced", PassId::OptimizeTransposes, with(turning, false, true));
  bench("SquashMultiplePermute_inverse", PassId::SquashMultiplePermute, inverse);
  bench("SquashMultiplePermute_turning", PassId::SquashMultiplePermute, turning);
  bench("SquashMultiplePermute_traced", PassId::SquashMultiplePermute, with(turning, false, true));
  bench("SquashConstantTranspose", PassId::SquashConstantTranspose, with(turning, true, false));
  bench("RemoveInverseTransposePair", PassId::RemoveInverseTransposePair,
        {image, {transpose({0, 2, 3, 1}), reduce({1}), transpose({0, 3, 1, 2})}});
  bench("FoldReshapes", PassId::FoldReshapesInstance1, reshapes);
  bench("FoldReshapes_traced", PassId::FoldReshapesInstance1, with(reshapes, false, true));
  bench("SquashReshape", PassId::SquashReshapeInstance1, with(reshapes, true, false));
  bench("OptimizeTransposeReshape", PassId::OptimizeTransposeReshape,
        {{1, 5, 1}, {transpose({1, 0, 2}), reshape({1, 5, 1})}});
  bench("ReplaceTRTWithReshape", PassId::ReplaceTRTWithReshape,
        {{2, 1, 6}, {transpose({1, 0, 2}), reshape({1, 12, 1}), transpose({2, 1, 0}), reshape({2, 1, 6})}});
  const auto endingIn = [](Chain chain, const Step& last) {
    chain.last = last;
    return chain;
  };
  const Step channelLast = transpose({0, 2, 3, 1});
  bench("HoistTranspose_chain", PassId::HoistTranspose, endingIn({image, {relu()}}, channelLast));
  bench("HoistTranspose_constant", PassId::HoistTranspose, endingIn({image, {sum("k")}}, channelLast));
  bench("HoistTranspose_refused", PassId::HoistTranspose, {image, {relu()}});
  bench("HoistTranspose_fan", PassId::HoistTranspose, BuildGraph(buildFan));
  bench("HoistTransposeAboveElementWiseMux", PassId::HoistTransposeAboveElementWiseMux,
        {image, {{"ElementWiseMux", {}, {"@", "@"}}, channelLast}});
  bench("SinkTransposeBelowSum", PassId::SinkTransposeBelowSum, {image, {channelLast, sum("@")}});
  bench("ReduceEltwiseBinTranspose", PassId::ReduceEltwiseBinTranspose,
        {image, {channelLast, sum("@"), transpose({0, 3, 1, 2})}});
  bench("PermuteAxisToLast", PassId::PermuteAxisToLast, {image, {{"Softmax", {{"axis", OpParam(1u)}}}}});
  const Dims high{2, 1, 3, 1, 2, 4};
  const Step softmax{"Softmax", {{"axis", OpParam(2u)}}};
  const Step unary{"Eltwise_Unary", {{"operation", OpParam(0u)}}};
  bench("Replace6dOps_reshaped", PassId::Replace6dOps, {high, {unary, softmax}});
  bench("Replace6dOps_traced", PassId::Replace6dOps, with({high, {unary, softmax}}, false, true));
  bench("Replace6dOps_transposed", PassId::Replace6dOps,
        {{2, 2, 2, 2, 2, 2}, {transpose({5, 4, 3, 2, 1, 0})}});
  bench("Replace6dOps_idle", PassId::Replace6dOps, {image, {softmax}});
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
