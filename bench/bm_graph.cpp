// What edits and lookups cost on graphs of growing size. The counter "per_op" is the time of one operation;
// growth.py shows how it grows from one size to the next.

#include <benchmark/benchmark.h>
#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>
#include "ir/IrGraph.h"

namespace {

using netforge::IrGraph;
using netforge::TraceKind;
using Names = std::vector<std::string>;

constexpr std::size_t kBatch = 500;  // operations per measured stretch

IrGraph::OpPtr makeOp(const std::string& name, const char* type = "Relu") {
  return std::make_shared<netforge::ops::IrOp>(name, type, nullptr);
}

std::string nameOf(std::size_t i) {
  return "/model/layers." + std::to_string(i) + "/mlp/act_fn/Relu_output_0";
}

// A chain of `size` ops; op i writes tensor nameOf(i).
std::unique_ptr<IrGraph> buildChain(std::size_t size) {
  auto graph = std::make_unique<IrGraph>("chain");
  std::string last = "x";
  graph->addTensor(std::make_shared<netforge::IrTensor>(
      last, IrGraph::Dims{1, 8, 8, 16}, netforge::ORLO_DATATYPE_FLOAT_32, netforge::AxisFormat::NHWC,
      netforge::TensorType::GraphInput, IrGraph::Dims{}));
  for (std::size_t i = 0; i < size; ++i) {
    const std::string name = nameOf(i);
    graph->addOp(makeOp(name), {last}, {name}, {}, -1, false);
    last = name;
  }
  return graph;
}

std::vector<std::size_t> places(std::size_t size) {
  std::mt19937 random(7);
  std::vector<std::size_t> result(kBatch);
  // Not the ends, whose neighbours some edits need.
  for (std::size_t& place : result) place = 1 + random() % (size - 2);
  return result;
}

void perOp(benchmark::State& state, std::size_t operations) {
  state.counters["per_op"] =
      benchmark::Counter(static_cast<double>(operations),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Times `measured` alone, once per iteration; `restore` brings the graph back.
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

std::size_t sizeOf(const benchmark::State& state) {
  return static_cast<std::size_t>(state.range(0));
}

std::vector<IrGraph::OpPtr> makeOps(const std::string& prefix) {
  std::vector<IrGraph::OpPtr> ops;
  for (std::size_t i = 0; i < kBatch; ++i) ops.push_back(makeOp(prefix + std::to_string(i)));
  return ops;
}

void build(benchmark::State& state) {
  std::unique_ptr<IrGraph> graph;
  measure(
      state, sizeOf(state), [&] { graph = buildChain(sizeOf(state)); }, [&] { graph.reset(); });
}

void destroy(benchmark::State& state) {
  std::unique_ptr<IrGraph> graph = buildChain(sizeOf(state));
  measure(
      state, sizeOf(state), [&] { graph.reset(); }, [&] { graph = buildChain(sizeOf(state)); });
}

void addOpAt(benchmark::State& state, bool atEnd) {
  const auto graph = buildChain(sizeOf(state));
  const auto middle = static_cast<std::int32_t>(sizeOf(state) / 2);
  std::vector<IrGraph::OpPtr> ops = makeOps("added");
  measure(
      state, kBatch,
      [&] {
        for (const auto& op : ops) graph->addOp(op, {"x"}, {op->getName()}, {}, atEnd ? -1 : middle, false);
      },
      [&] {
        for (const auto& op : ops) graph->prune(op);
        ops = makeOps("added");
      });
}
void addOpAtEnd(benchmark::State& state) {
  addOpAt(state, true);
}
void addOpInMiddle(benchmark::State& state) {
  addOpAt(state, false);
}

void injectAll(IrGraph& graph, const std::vector<IrGraph::OpPtr>& ops,
               const std::vector<IrGraph::TensorPtr>& onto) {
  for (std::size_t i = 0; i < ops.size(); ++i) {
    graph.inject(ops[i], onto[i]->getName(), ops[i]->getName(), {});
  }
}

void squashAll(IrGraph& graph, const std::vector<IrGraph::OpPtr>& ops) {
  for (const auto& op : ops) graph.squash(op, op->getInput(0)->getName(), true, false);
}

std::vector<IrGraph::TensorPtr> tensorsAt(const IrGraph& graph, std::size_t size) {
  std::vector<IrGraph::TensorPtr> result;
  for (const std::size_t place : places(size)) result.push_back(graph.getTensor(nameOf(place)));
  return result;
}

void injectOrSquash(benchmark::State& state, bool timeInject) {
  const auto graph = buildChain(sizeOf(state));
  const auto onto = tensorsAt(*graph, sizeOf(state));
  std::vector<IrGraph::OpPtr> ops = makeOps("injected");
  const auto inject = [&] { injectAll(*graph, ops, onto); };
  const auto squash = [&] { squashAll(*graph, ops); };
  const auto renew = [&] { ops = makeOps("injected"); };
  if (timeInject) {
    measure(state, kBatch, inject, [&] {
      squash();
      renew();
    });
  } else {
    inject();
    measure(state, kBatch, squash, [&] {
      renew();
      inject();
    });
  }
}
void inject(benchmark::State& state) {
  injectOrSquash(state, true);
}
void squash(benchmark::State& state) {
  injectOrSquash(state, false);
}

void replace(benchmark::State& state) {
  const auto graph = buildChain(sizeOf(state));
  auto chosen = places(sizeOf(state));
  std::sort(chosen.begin(), chosen.end());
  chosen.erase(std::unique(chosen.begin(), chosen.end()), chosen.end());
  std::vector<IrGraph::OpPtr> current;
  std::vector<IrGraph::OpPtr> next;
  for (const std::size_t place : chosen) current.push_back(graph->getOp(nameOf(place)));
  const auto renew = [&] {
    next.clear();
    for (const auto& op : current) next.push_back(makeOp(op->getName()));
  };
  renew();
  measure(
      state, chosen.size(),
      [&] {
        for (std::size_t i = 0; i < next.size(); ++i) graph->replace(current[i], next[i]);
      },
      [&] {
        current = next;
        renew();
      });
}

void addRecords(IrGraph& graph, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    const std::string name = nameOf(i);
    graph.addTraceSources(TraceKind::Op, name, {{name, TraceKind::Op}});
    graph.addTraceSources(TraceKind::Tensor, name, {{name, TraceKind::Tensor}});
  }
}

// Renames with a trace record for every tensor.
void renameTensor(benchmark::State& state) {
  const auto graph = buildChain(sizeOf(state));
  addRecords(*graph, sizeOf(state));
  const auto chosen = places(sizeOf(state));
  Names from;
  Names to;
  for (const std::size_t place : chosen) {
    if (std::find(from.begin(), from.end(), nameOf(place)) != from.end()) continue;
    from.push_back(nameOf(place));
    to.push_back(nameOf(place) + "_renamed");
  }
  measure(
      state, from.size(),
      [&] {
        for (std::size_t i = 0; i < from.size(); ++i) graph->updateTensorName(from[i], to[i]);
      },
      [&] { std::swap(from, to); });
}

void updateTrace(benchmark::State& state) {
  const auto graph = buildChain(sizeOf(state));
  addRecords(*graph, sizeOf(state));
  std::vector<IrGraph::OpPtr> ops;
  for (const std::size_t place : places(sizeOf(state))) ops.push_back(graph->getOp(nameOf(place)));
  // Not from one chosen op to the next: the lists of sources would grow along the way.
  const auto first = graph->getOp(nameOf(0));
  measure(
      state, ops.size(),
      [&] {
        for (const auto& op : ops) graph->updateTraceInfo({op}, {first}, {op->getOutput(0)}, false);
      },
      [&] {
        for (const auto& op : ops) {
          graph->setTraceInfo(TraceKind::Op, op->getName(), {{op->getName(), TraceKind::Op}});
        }
      });
}

void lookUp(benchmark::State& state, bool shuffled) {
  const auto graph = buildChain(sizeOf(state));
  Names names;
  for (std::size_t i = 0; i < sizeOf(state); ++i) names.push_back(nameOf(i));
  if (shuffled) std::shuffle(names.begin(), names.end(), std::mt19937(3));
  for (auto _ : state) {
    for (const std::string& name : names) benchmark::DoNotOptimize(graph->getTensor(name));
  }
  perOp(state, names.size());
}
void lookUpInOrder(benchmark::State& state) {
  lookUp(state, false);
}
void lookUpShuffled(benchmark::State& state) {
  lookUp(state, true);
}

void opIndex(benchmark::State& state) {
  const auto graph = buildChain(sizeOf(state));
  std::vector<IrGraph::OpPtr> ops;
  for (const std::size_t place : places(sizeOf(state))) ops.push_back(graph->getOp(nameOf(place)));
  for (auto _ : state) {
    for (const auto& op : ops) benchmark::DoNotOptimize(graph->getOpIndex(op));
  }
  perOp(state, ops.size());
}

// A walk over one type that a handful of ops have, and over one that none has.
void opsOfRareType(benchmark::State& state) {
  const auto graph = buildChain(sizeOf(state));
  for (std::size_t i = 0; i < 5; ++i) {
    graph->inject(makeOp("rare" + std::to_string(i), "Rare"), nameOf(i * sizeOf(state) / 6 + 1),
                  "rare" + std::to_string(i), {});
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(graph->opsOfType("Rare"));
    benchmark::DoNotOptimize(graph->opsOfType("None"));
  }
}

// getOps after an edit in the middle: per op of the graph.
void materialiseOps(benchmark::State& state) {
  const auto graph = buildChain(sizeOf(state));
  const auto op = graph->getOp(nameOf(sizeOf(state) / 2));
  const std::uint32_t index = graph->getOpIndex(op);
  for (auto _ : state) {
    graph->moveOptoIndex(op, index);
    benchmark::DoNotOptimize(graph->getOps().data());
  }
  perOp(state, sizeOf(state));
}

// getTensors after a rename: the ordered view follows.
void sortedTensorsAfterRename(benchmark::State& state) {
  const auto graph = buildChain(sizeOf(state));
  std::string from = nameOf(sizeOf(state) / 2);
  std::string to = from + "_renamed";
  (void)graph->getTensors();
  for (auto _ : state) {
    graph->updateTensorName(from, to);
    std::swap(from, to);
    benchmark::DoNotOptimize(graph->getTensors().size());
  }
  perOp(state, 1);
}

void reEvalMacsParams(benchmark::State& state) {
  const auto graph = buildChain(sizeOf(state));
  std::ostringstream sink;
  std::streambuf* const screen = std::cout.rdbuf(sink.rdbuf());
  for (auto _ : state) {
    benchmark::DoNotOptimize(graph->reEvalMacsParams());
    sink.str("");
  }
  std::cout.rdbuf(screen);
  perOp(state, sizeOf(state));
}

void sizes(benchmark::internal::Benchmark* run) {
  run->Arg(1000)->Arg(10000)->Arg(100000);
}
void manual(benchmark::internal::Benchmark* run) {
  sizes(run);
  run->UseManualTime();
}
void whole(benchmark::internal::Benchmark* run) {
  manual(run);
  run->Unit(benchmark::kMillisecond);
}

BENCHMARK(build)->Apply(whole);
BENCHMARK(destroy)->Apply(whole);
BENCHMARK(addOpAtEnd)->Apply(manual);
BENCHMARK(addOpInMiddle)->Apply(manual);
BENCHMARK(inject)->Apply(manual);
BENCHMARK(squash)->Apply(manual);
BENCHMARK(replace)->Apply(manual);
BENCHMARK(renameTensor)->Apply(manual);
BENCHMARK(updateTrace)->Apply(manual);
BENCHMARK(lookUpInOrder)->Apply(sizes);
BENCHMARK(lookUpShuffled)->Apply(sizes);
BENCHMARK(opIndex)->Apply(sizes);
BENCHMARK(opsOfRareType)->Apply(sizes);
BENCHMARK(materialiseOps)->Apply(sizes);
BENCHMARK(sortedTensorsAfterRename)->Apply(sizes);
BENCHMARK(reEvalMacsParams)->Apply(sizes);

}  // namespace
