// What reading a graph costs, whole walks and single questions, and an `optimize` that finds nothing to do,
// on graphs of growing size. The counter "per_op" is the time of one question, or of a walk per op of the
// graph.

#include <malloc.h>
#include <algorithm>
#include <iostream>
#include <sstream>
#include <utility>
#include "GraphRefiner/src/GraphRefiner.h"
#include "GraphRefiner/src/PassManager.h"
#include "bench/Fleet.h"

namespace netforge::bench {
namespace {

// Keeps what the library prints off the screen.
class Silence {
 public:
  Silence() : screen(std::cout.rdbuf(sink.rdbuf())) {}
  ~Silence() { std::cout.rdbuf(screen); }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;
  void forget() { sink.str(""); }

 private:
  std::ostringstream sink;
  std::streambuf* screen;
};

// Every tensor of every graph, in order or at random.
void lookUp(benchmark::State& state, bool shuffled) {
  const Fleet fleet(sizeOf(state));
  std::vector<std::pair<IrGraph*, std::string>> asked;
  for (const GraphPtr& graph : fleet.graphs) {
    for (std::size_t i = 0; i < fleet.size; ++i) asked.emplace_back(graph.get(), nameOf(i));
  }
  if (shuffled) std::shuffle(asked.begin(), asked.end(), std::mt19937(3));
  for (auto _ : state) {
    for (const auto& [graph, name] : asked) benchmark::DoNotOptimize(graph->getTensor(name));
  }
  perOp(state, asked.size());
}
void lookUpInOrder(benchmark::State& state) {
  lookUp(state, false);
}
void lookUpShuffled(benchmark::State& state) {
  lookUp(state, true);
}

void opIndex(benchmark::State& state) {
  const Fleet fleet(sizeOf(state));
  std::vector<std::pair<IrGraph*, IrGraph::OpPtr>> asked;
  for (const GraphPtr& graph : fleet.graphs) {
    for (std::size_t i = 0; i < fleet.size; ++i) asked.emplace_back(graph.get(), graph->getOp(nameOf(i)));
  }
  std::shuffle(asked.begin(), asked.end(), std::mt19937(3));
  for (auto _ : state) {
    for (const auto& [graph, op] : asked) benchmark::DoNotOptimize(graph->getOpIndex(op));
  }
  perOp(state, asked.size());
}

// A walk over one type that a handful of ops have, and over one that none has: per graph.
void opsOfRareType(benchmark::State& state) {
  const Fleet fleet(sizeOf(state));
  for (const GraphPtr& graph : fleet.graphs) {
    for (std::size_t i = 0; i < 5; ++i) {
      const std::string name = "rare" + std::to_string(i);
      graph->inject(makeOp(name, "Rare"), nameOf(i * fleet.size / 6 + 1), name, {});
    }
  }
  for (auto _ : state) {
    for (const GraphPtr& graph : fleet.graphs) {
      benchmark::DoNotOptimize(graph->opsOfType("Rare"));
      benchmark::DoNotOptimize(graph->opsOfType("None"));
    }
  }
  perOp(state, fleet.graphs.size());
}

// getOps after an edit in the middle: per op of the graph.
void materialiseOps(benchmark::State& state) {
  const Fleet fleet(sizeOf(state));
  std::vector<IrGraph::OpPtr> moved;
  for (const GraphPtr& graph : fleet.graphs) moved.push_back(graph->getOp(nameOf(fleet.size / 2)));
  for (auto _ : state) {
    for (std::size_t i = 0; i < fleet.graphs.size(); ++i) {
      fleet.graphs[i]->moveOptoIndex(moved[i], fleet.graphs[i]->getOpIndex(moved[i]));
      benchmark::DoNotOptimize(fleet.graphs[i]->getOps().data());
    }
  }
  perOp(state, kTotal);
}

// getTensors after a rename: the ordered view follows.
void sortedTensorsAfterRename(benchmark::State& state) {
  const Fleet fleet(sizeOf(state));
  std::string from = nameOf(fleet.size / 2);
  std::string to = from + "_renamed";
  for (const GraphPtr& graph : fleet.graphs) (void)graph->getTensors();
  for (auto _ : state) {
    for (const GraphPtr& graph : fleet.graphs) {
      graph->updateTensorName(from, to);
      benchmark::DoNotOptimize(graph->getTensors().size());
    }
    std::swap(from, to);
  }
  perOp(state, fleet.graphs.size());
}

void reEvalMacsParams(benchmark::State& state) {
  const Fleet fleet(sizeOf(state));
  Silence silence;
  for (auto _ : state) {
    for (const GraphPtr& graph : fleet.graphs) benchmark::DoNotOptimize(graph->reEvalMacsParams());
    silence.forget();
  }
  perOp(state, kTotal);
}

// One stage in which no pass finds anything, its totals included, and its check of the trace where told.
void optimizeNothing(benchmark::State& state, bool traced) {
  using namespace graphrefiner;
  const Fleet fleet(sizeOf(state));
  GraphRefinerContext context;
  context.enable_trace = traced;
  for (const GraphPtr& graph : fleet.graphs) {
    if (traced) addRecords(*graph, fleet.size);
  }
  Silence silence;
  for (auto _ : state) {
    for (const GraphPtr& graph : fleet.graphs) {
      GraphRefiner(graph, {OptimizationStage::PostLayout}, nullptr, context).optimize();
    }
    silence.forget();
  }
  perOp(state, kTotal);
}

void optimizePlain(benchmark::State& state) {
  optimizeNothing(state, false);
}
void optimizeTraced(benchmark::State& state) {
  optimizeNothing(state, true);
}

// A pass whose root type no op has, snapshot included: per op of the graph.
void absentRootType(benchmark::State& state) {
  using namespace graphrefiner;
  Fleet fleet(sizeOf(state));
  for (auto _ : state) {
    for (GraphPtr& graph : fleet.graphs) {
      PassManager{GraphRefinerContext{}}.applyOptimizationPasses(graph, {PassId::SquashMultiplePermute},
                                                                 OptimizationStage::PostLayout);
    }
  }
  perOp(state, kTotal);
}

// What a graph takes of memory, per op with its output tensor.
void memory(benchmark::State& state) {
  for (auto _ : state) {
    const auto before = mallinfo2().uordblks;
    const Fleet fleet(sizeOf(state));
    state.counters["bytes_per_op"] =
        static_cast<double>(mallinfo2().uordblks - before) / static_cast<double>(kTotal);
  }
}

BENCHMARK(lookUpInOrder)->Apply(sizes);
BENCHMARK(lookUpShuffled)->Apply(sizes);
BENCHMARK(opIndex)->Apply(sizes);
BENCHMARK(opsOfRareType)->Apply(sizes);
BENCHMARK(materialiseOps)->Apply(sizes);
BENCHMARK(sortedTensorsAfterRename)->Apply(sizes);
BENCHMARK(reEvalMacsParams)->Apply(sizes);
BENCHMARK(optimizePlain)->Apply(sizes);
BENCHMARK(optimizeTraced)->Apply(sizes);
BENCHMARK(absentRootType)->Apply(sizes);
BENCHMARK(memory)->Apply(sizes);

}  // namespace
}  // namespace netforge::bench
