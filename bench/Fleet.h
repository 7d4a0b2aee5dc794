#pragma once

#include <benchmark/benchmark.h>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <vector>
#include "ir/IrGraph.h"

// Graphs of growing size under equal conditions. A small graph lies in the processor's caches and a large one
// doesn't, which says nothing about the structures: an array read at random places gets ten times slower by
// it too. So each size is measured on as many graphs as make kTotal ops together, taken in turn, and what
// grows with the size then is the work alone.
namespace netforge::bench {

constexpr std::size_t kTotal = 100000;  // ops of all graphs of a fleet
constexpr std::size_t kBatch = 500;     // operations per measured stretch

using GraphPtr = std::shared_ptr<IrGraph>;
using Names = std::vector<std::string>;

inline IrGraph::OpPtr makeOp(const std::string& name, const char* type = "Relu") {
  return std::make_shared<ops::IrOp>(name, type, nullptr);
}

inline std::string nameOf(std::size_t i) {
  return "/model/layers." + std::to_string(i) + "/mlp/act_fn/Relu_output_0";
}

/// A chain of `size` ops; op i writes tensor nameOf(i).
inline GraphPtr buildChain(std::size_t size) {
  auto graph = std::make_shared<IrGraph>("chain");
  std::string last = "x";
  graph->addTensor(std::make_shared<IrTensor>(last, IrGraph::Dims{1, 8, 8, 16}, ORLO_DATATYPE_FLOAT_32,
                                              AxisFormat::NHWC, TensorType::GraphInput, IrGraph::Dims{}));
  for (std::size_t i = 0; i < size; ++i) {
    const std::string name = nameOf(i);
    graph->addOp(makeOp(name), {last}, {name}, {}, -1, false);
    last = name;
  }
  return graph;
}

/// A record of trace for every op and every tensor, as an import leaves them.
inline void addRecords(IrGraph& graph, std::size_t size) {
  graph.addTraceSources(TraceKind::Tensor, "x", {{"x", TraceKind::Tensor}});
  graph.sourceTensorNames.push_back("x");
  for (std::size_t i = 0; i < size; ++i) {
    const std::string name = nameOf(i);
    graph.sourceOpNames.push_back(name);
    graph.sourceTensorNames.push_back(name);
    graph.addTraceSources(TraceKind::Op, name, {{name, TraceKind::Op}});
    graph.addTraceSources(TraceKind::Tensor, name, {{name, TraceKind::Tensor}});
  }
}

struct Place {
  IrGraph* graph;
  std::size_t op;  // its number in the chain
};

struct Fleet {
  explicit Fleet(std::size_t opsOfEach) : size(opsOfEach) {
    for (std::size_t i = 0; i < kTotal / size; ++i) graphs.push_back(buildChain(size));
  }

  /// kBatch random places, never an end of a chain, since some edits need neighbours; no place twice.
  std::vector<Place> places() const {
    std::mt19937 random(7);
    std::vector<Place> result;
    std::vector<bool> taken(kTotal);
    while (result.size() < kBatch) {
      const std::size_t graph = random() % graphs.size();
      const std::size_t op = 1 + random() % (size - 2);
      if (taken[graph * size + op]) continue;
      taken[graph * size + op] = true;
      result.push_back({graphs[graph].get(), op});
    }
    return result;
  }

  std::vector<GraphPtr> graphs;
  std::size_t size;
};

inline std::size_t sizeOf(const benchmark::State& state) {
  return static_cast<std::size_t>(state.range(0));
}

/// The counter that growth.py reads: seconds of one operation.
inline void perOp(benchmark::State& state, std::size_t operations) {
  state.counters["per_op"] =
      benchmark::Counter(static_cast<double>(operations),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

/// Times `measured` alone, once per iteration; `restore` brings the graphs back.
template <class Measured, class Restore>
void measure(benchmark::State& state, std::size_t operations, const Measured& measured,
             const Restore& restore) {
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    measured();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(elapsed.count());
    restore();
  }
  perOp(state, operations);
}

inline void sizes(benchmark::internal::Benchmark* run) {
  run->Arg(1000)->Arg(10000)->Arg(100000);
}
inline void manual(benchmark::internal::Benchmark* run) {
  sizes(run);
  run->UseManualTime();
}
inline void whole(benchmark::internal::Benchmark* run) {
  manual(run);
  run->Unit(benchmark::kMillisecond);
}

}  // namespace netforge::bench
