// What the passes that expand and unroll recurrent ops cost per time step, for sequences of growing length.

#include <benchmark/benchmark.h>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>
#include "GraphRefiner/src/PassManager.h"
#include "GraphRefiner/src/PassRegistry.h"
#include "bench/Fleet.h"
#include "ops/OpFactory.h"

namespace {

using netforge::AxisFormat;
using netforge::IrGraph;
using netforge::TensorType;
using netforge::TraceKind;
using netforge::graphrefiner::OpParam;
using netforge::graphrefiner::PassId;
using Dims = IrGraph::Dims;

constexpr std::size_t kSteps = 10000;  // of all graphs of a measurement
constexpr std::uint32_t kBatch = 2, kFeatures = 4, kHidden = 8;

std::string addConstant(IrGraph& graph, const std::string& name, const Dims& dims) {
  std::uint32_t count = 1;
  for (const std::uint32_t dim : dims) count *= dim;
  const std::vector<float> data(count, 0.25f);
  graph.addTensor(std::make_shared<netforge::IrStaticTensor>(
      name, dims, static_cast<std::uint32_t>(count * sizeof(float)), data.data(),
      netforge::ORLO_DATATYPE_FLOAT_32, AxisFormat::ANY, AxisFormat::ANY, false, TensorType::Static, Dims{}));
  return name;
}

// x -> recurrent op -> Relu of each output.
netforge::bench::GraphPtr build(const std::string& type, std::uint32_t steps) {
  auto graph = std::make_shared<IrGraph>("recurrent");
  graph->addTensor(std::make_shared<netforge::IrTensor>("x", Dims{steps, kBatch, kFeatures},
                                                        netforge::ORLO_DATATYPE_FLOAT_32, AxisFormat::TNF,
                                                        TensorType::GraphInput, Dims{}));
  const bool isLstm = type == "Lstm";
  const std::string w = addConstant(*graph, "w", {kHidden, kFeatures});
  const std::string r = addConstant(*graph, "r", {kHidden, kHidden});
  const std::string b = addConstant(*graph, "b", {kHidden});
  const std::string h = addConstant(*graph, "h", {kBatch, kHidden});
  const IrGraph::Names inputs =
      isLstm ? IrGraph::Names{"x", w, w, w, r, r, r, b, b, b, h, h, w, w, w, w, w, r, r, r, r, b}
             : IrGraph::Names{"x", w, w, w, r, r, r, b, b, b, b, b, b, h};
  IrGraph::Names outputs{"y", "last"};
  if (isLstm) outputs.push_back("hidden");
  graph->addOp(netforge::graphrefiner::createOp(
                   type, "layer", {{"hidden_size", OpParam(kHidden)}, {"time_major", OpParam(true)}}),
               inputs, outputs, {}, -1, false);
  graph->addTraceSources(TraceKind::Op, "layer", {{"layer", TraceKind::Op}});
  for (const std::string& output : outputs) {
    graph->addOp(
        netforge::graphrefiner::createOp("ElementWiseNeuron", output + "_relu", {{"operation", OpParam(4u)}}),
        {output}, {output + "_relu"}, {}, -1, false);
  }
  return graph;
}

void run(benchmark::State& state, PassId id, const std::string& type) {
  const std::size_t steps = netforge::bench::sizeOf(state);
  std::vector<netforge::bench::GraphPtr> graphs(kSteps / steps);
  netforge::bench::measure(
      state, kSteps,
      [&] {
        std::cout.setstate(std::ios::failbit);  // the pass reports what it did
        for (auto& graph : graphs) {
          netforge::graphrefiner::PassManager manager{netforge::graphrefiner::GraphRefinerContext{}};
          graph = build(type, static_cast<std::uint32_t>(steps));
          manager.applyOptimizationPasses(graph, {id}, netforge::graphrefiner::OptimizationStage::PostLayout);
          if (graph->countOpsOfType(type) == 1) throw std::runtime_error("the pass declined");
        }
        std::cout.clear();
      },
      [] {});
}

void bench(const std::string& name, PassId id, const std::string& type) {
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) { run(state, id, type); })
      ->Arg(10)
      ->Arg(100)
      ->Arg(1000)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  bench("ExpandLstmOpStructure_steps", PassId::ExpandLstmOpStructure, "Lstm");
  bench("UnrollLstm_steps", PassId::UnrollLstm, "Lstm");
  bench("UnrollGruTimeSteps_steps", PassId::UnrollGruTimeSteps, "Gru");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
