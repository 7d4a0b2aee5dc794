// What one edit of a graph costs, at random places of graphs of growing size. The counter "per_op" is the
// time of one edit; growth.py shows how it grows from one size to the next.

#include "bench/Fleet.h"

namespace netforge::bench {
namespace {

// Building a graph and giving it back.
void wholeLife(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Fleet(sizeOf(state)).graphs.data());
  perOp(state, kTotal);
}

// One op for each place, bearing a new name.
std::vector<IrGraph::OpPtr> makeOps(const std::string& prefix) {
  std::vector<IrGraph::OpPtr> ops;
  for (std::size_t i = 0; i < kBatch; ++i) ops.push_back(makeOp(prefix + std::to_string(i)));
  return ops;
}

void addOpAt(benchmark::State& state, bool atEnd) {
  const Fleet fleet(sizeOf(state));
  const std::vector<Place> places = fleet.places();
  std::vector<IrGraph::OpPtr> ops = makeOps("added");
  measure(
      state, kBatch,
      [&] {
        for (std::size_t i = 0; i < kBatch; ++i) {
          places[i].graph->addOp(ops[i], {"x"}, {ops[i]->getName()}, {},
                                 atEnd ? -1 : static_cast<std::int32_t>(places[i].op), false);
        }
      },
      [&] {
        for (std::size_t i = 0; i < kBatch; ++i) places[i].graph->prune(ops[i]);
        ops = makeOps("added");
      });
}
void addOpAtEnd(benchmark::State& state) {
  addOpAt(state, true);
}
void addOpInMiddle(benchmark::State& state) {
  addOpAt(state, false);
}

void injectOrSquash(benchmark::State& state, bool timeInject) {
  const Fleet fleet(sizeOf(state));
  const std::vector<Place> places = fleet.places();
  Names onto;
  for (const Place& place : places) onto.push_back(nameOf(place.op));
  std::vector<IrGraph::OpPtr> ops = makeOps("injected");
  const auto inject = [&] {
    for (std::size_t i = 0; i < kBatch; ++i) places[i].graph->inject(ops[i], onto[i], ops[i]->getName(), {});
  };
  const auto squash = [&] {
    for (std::size_t i = 0; i < kBatch; ++i) places[i].graph->squash(ops[i], onto[i], true, false);
  };
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
  const Fleet fleet(sizeOf(state));
  const std::vector<Place> places = fleet.places();
  std::vector<IrGraph::OpPtr> current;
  std::vector<IrGraph::OpPtr> next;
  for (const Place& place : places) current.push_back(place.graph->getOp(nameOf(place.op)));
  const auto renew = [&] {
    next.clear();
    for (const auto& op : current) next.push_back(makeOp(op->getName()));
  };
  renew();
  measure(
      state, kBatch,
      [&] {
        for (std::size_t i = 0; i < kBatch; ++i) places[i].graph->replace(current[i], next[i]);
      },
      [&] {
        current = next;
        renew();
      });
}

// Renames with a trace record for every tensor.
void renameTensor(benchmark::State& state) {
  const Fleet fleet(sizeOf(state));
  for (const GraphPtr& graph : fleet.graphs) addRecords(*graph, fleet.size);
  const std::vector<Place> places = fleet.places();
  Names from;
  Names to;
  for (const Place& place : places) {
    from.push_back(nameOf(place.op));
    to.push_back(nameOf(place.op) + "_renamed");
  }
  measure(
      state, kBatch,
      [&] {
        for (std::size_t i = 0; i < kBatch; ++i) places[i].graph->updateTensorName(from[i], to[i]);
      },
      [&] { std::swap(from, to); });
}

void updateTrace(benchmark::State& state) {
  const Fleet fleet(sizeOf(state));
  for (const GraphPtr& graph : fleet.graphs) addRecords(*graph, fleet.size);
  const std::vector<Place> places = fleet.places();
  // Sources are taken from a chain's first op, not from one chosen op to the next: the lists would grow along
  // the way.
  std::vector<IrGraph::OpPtr> ops;
  std::vector<IrGraph::OpPtr> firsts;
  for (const Place& place : places) {
    ops.push_back(place.graph->getOp(nameOf(place.op)));
    firsts.push_back(place.graph->getOp(nameOf(0)));
  }
  measure(
      state, kBatch,
      [&] {
        for (std::size_t i = 0; i < kBatch; ++i) {
          places[i].graph->updateTraceInfo({ops[i]}, {firsts[i]}, {ops[i]->getOutput(0)}, false);
        }
      },
      [&] {
        for (std::size_t i = 0; i < kBatch; ++i) {
          const std::string& name = ops[i]->getName();
          places[i].graph->setTraceInfo(TraceKind::Op, name, {{name, TraceKind::Op}});
        }
      });
}

BENCHMARK(wholeLife)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(addOpAtEnd)->Apply(manual);
BENCHMARK(addOpInMiddle)->Apply(manual);
BENCHMARK(inject)->Apply(manual);
BENCHMARK(squash)->Apply(manual);
BENCHMARK(replace)->Apply(manual);
BENCHMARK(renameTensor)->Apply(manual);
BENCHMARK(updateTrace)->Apply(manual);

}  // namespace
}  // namespace netforge::bench
