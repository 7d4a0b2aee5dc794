// Trace records of a graph: which ops and tensors of the source model its ops and tensors come from.

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include "ir/Failure.h"
#include "ir/IrGraph.h"
#include "ir/NameTable.h"

namespace netforge {

namespace {

constexpr const char* kUpdateTraceInfo = "netforge::IrGraph::updateTraceInfo";
constexpr const char* kValidateTrace = "netforge::IrGraph::validateTraceInfoCompleteness";

void addKeys(std::vector<TraceKey>& keys, const std::vector<IrGraph::OpPtr>& ops) {
  for (const auto& op : ops) {
    if (op != nullptr) keys.push_back(TraceKey{TraceKind::Op, op->getName()});
  }
}

void addKeys(std::vector<TraceKey>& keys, const std::vector<IrGraph::TensorPtr>& tensors) {
  for (const auto& tensor : tensors) {
    if (tensor != nullptr) keys.push_back(TraceKey{TraceKind::Tensor, tensor->getName()});
  }
}

// Both forms of updateTraceInfo; the key lists say which ops and tensors are meant.
void handOver(IrGraph& graph, bool hasTargets, bool hasSources, const std::vector<TraceKey>& targets,
              const std::vector<TraceKey>& sources, bool removeSources) {
  if (!hasTargets) {
    fail<std::runtime_error>(kUpdateTraceInfo, "updateTraceInfo called with empty targets list");
  }
  if (!hasSources) {
    fail<std::runtime_error>(kUpdateTraceInfo, "updateTraceInfo called with empty sources lists");
  }
  const std::vector<TraceSource> collected = graph.collectTraceSources(sources);
  for (const TraceKey& target : targets) graph.addTraceSources(target.kind, target.name, collected);
  if (!removeSources) return;
  for (const TraceKey& source : sources) graph.removeTraceInfo(source.kind, source.name);
}

// Names that live elsewhere, some of them more than once. Two collections are mostly in the same order, so a
// name is looked for beside the last one that was found; the table is made when it isn't there.
class NameSet {
 public:
  void add(std::string_view name) { names.push_back(name); }
  void add(const std::vector<std::string>& list) { names.insert(names.end(), list.begin(), list.end()); }

  /// The names that `other` lacks, each once, in byte-wise order.
  std::vector<std::string_view> without(const NameSet& other) const {
    std::vector<std::string_view> rest;
    std::size_t last = 0;
    for (const std::string_view name : names) {
      if (!other.holds(name, last)) rest.push_back(name);
    }
    std::sort(rest.begin(), rest.end());
    rest.erase(std::unique(rest.begin(), rest.end()), rest.end());
    return rest;
  }

 private:
  // `last` is the place of the name that was found last, and becomes the place of this one.
  bool holds(std::string_view name, std::size_t& last) const {
    const std::size_t end = std::min(last + 4, names.size());
    for (std::size_t place = last; place < end; ++place) {
      if (names[place] != name) continue;
      last = place;
      return true;
    }
    if (table.size() == 0) fillTable();
    const std::uint32_t slot = slotOf(name, NameTable::hashOf(name));
    if (slot != NameTable::npos) last = slot;
    return slot != NameTable::npos;
  }

  std::uint32_t slotOf(std::string_view name, std::uint32_t hash) const {
    return table.find(hash, [&](std::uint32_t slot) { return names[slot] == name; });
  }

  void fillTable() const {
    for (std::size_t slot = 0; slot < names.size(); ++slot) {
      const std::uint32_t hash = NameTable::hashOf(names[slot]);
      if (slotOf(names[slot], hash) == NameTable::npos) table.insert(hash, static_cast<std::uint32_t>(slot));
    }
  }

  std::vector<std::string_view> names;
  mutable NameTable table;  // of the names, once one was needed
};

struct TraceNames {
  NameSet graph;   // what the graph holds now
  NameSet trace;   // what has a record
  NameSet source;  // what the records refer to
  NameSet model;   // what the source model holds
};

// One comparison; prints the names of `present` that `reference` lacks. True when there are none.
bool reportMissing(const NameSet& present, const NameSet& reference, const std::string& stage,
                   const std::string& subject, const char* relation, const std::string& noun) {
  const std::vector<std::string_view> missing = present.without(reference);
  if (missing.empty()) return true;
  std::cout << kValidateTrace << ": WARNING: " << subject << " names in " << relation << " in stage " << stage
            << ", please check below " << noun << "s:\n";
  for (const std::string_view entry : missing) {
    std::cout << kValidateTrace << ": missing " << noun << ": " << entry << '\n';
  }
  std::cout << std::flush;
  return false;
}

}  // namespace

TraceTable& IrGraph::traceTable(TraceKind kind) {
  return kind == TraceKind::Op ? opTraceInfo : tensorTraceInfo;
}

const TraceTable& IrGraph::traceTable(TraceKind kind) const {
  return kind == TraceKind::Op ? opTraceInfo : tensorTraceInfo;
}

const std::vector<TraceRecord>& IrGraph::getTraceRecords(TraceKind kind) const {
  return traceTable(kind).records();
}

std::vector<TraceSource> IrGraph::getTraceInfo(TraceKind kind, const std::string& recordName) const {
  const TraceRecord* record = traceTable(kind).find(recordName);
  return record == nullptr ? std::vector<TraceSource>() : record->sources;
}

void IrGraph::setTraceInfo(TraceKind kind, const std::string& recordName,
                           const std::vector<TraceSource>& sources) {
  if (sources.empty() || traceTable(kind).find(recordName) == nullptr) return;
  TraceSourceList list;
  list.add(sources);
  traceTable(kind).set(recordName, list.sources());
}

void IrGraph::addTraceSources(TraceKind kind, const std::string& recordName,
                              const std::vector<TraceSource>& sources) {
  if (sources.empty()) return;
  traceTable(kind).prepend(recordName, sources);
}

void IrGraph::addTraceSources(const Names& opNames, const Names& tensorNames,
                              const std::vector<TraceSource>& given) {
  const std::vector<TraceSource> sources = given;  // may be the sources of a record that changes
  for (const std::string& opName : opNames) addTraceSources(TraceKind::Op, opName, sources);
  for (const std::string& tensorName : tensorNames) addTraceSources(TraceKind::Tensor, tensorName, sources);
}

void IrGraph::removeTraceInfo(TraceKind kind, const std::string& recordName) {
  traceTable(kind).erase(recordName);
}

void IrGraph::removeTraceInfo(const std::vector<OpPtr>& ops) {
  for (const OpPtr& op : ops) {
    if (op != nullptr) opTraceInfo.erase(op->getName());
  }
}

std::vector<TraceSource> IrGraph::collectTraceSources(const std::vector<TraceKey>& keys) const {
  TraceSourceList list;
  for (const TraceKey& key : keys) {
    const TraceRecord* record = traceTable(key.kind).find(key.name);
    if (record != nullptr) list.add(record->sources);
  }
  return list.sources();
}

void IrGraph::updateTraceInfo(const std::vector<OpPtr>& targetOps, const std::vector<OpPtr>& sourceOps,
                              const std::vector<TensorPtr>& sourceTensors, bool removeSources) {
  std::vector<TraceKey> targets;
  std::vector<TraceKey> sources;
  addKeys(targets, targetOps);
  addKeys(sources, sourceOps);
  addKeys(sources, sourceTensors);
  handOver(*this, !targetOps.empty(), !sourceOps.empty() || !sourceTensors.empty(), targets, sources,
           removeSources);
}

void IrGraph::updateTraceInfo(const std::vector<TensorPtr>& targetTensors,
                              const std::vector<TensorPtr>& sourceTensors,
                              const std::vector<OpPtr>& sourceOps, bool removeSources) {
  std::vector<TraceKey> targets;
  std::vector<TraceKey> sources;
  addKeys(targets, targetTensors);
  addKeys(sources, sourceTensors);
  addKeys(sources, sourceOps);
  handOver(*this, !targetTensors.empty(), !sourceOps.empty() || !sourceTensors.empty(), targets, sources,
           removeSources);
}

void IrGraph::validateTraceInfoCompleteness(const std::string& stage) {
  TraceNames ofOps;
  TraceNames ofTensors;
  ops::IrOp::TensorList held;  // keeps the tensors alive whose names the sets refer to
  for (const OpPtr& op : opOrder.asVector()) {
    ofOps.graph.add(op->getName());
    for (const TensorPtr& tensor : op->getInputs()) held.push_back(tensor);
    for (const TensorPtr& tensor : op->getOutputs()) held.push_back(tensor);
  }
  for (const TensorPtr& tensor : held) ofTensors.graph.add(tensor->getName());
  for (const TraceKind kind : {TraceKind::Op, TraceKind::Tensor}) {
    for (const TraceRecord& record : getTraceRecords(kind)) {
      (kind == TraceKind::Op ? ofOps : ofTensors).trace.add(record.name);
      for (const TraceSource& source : record.sources) {
        (source.kind == TraceKind::Op ? ofOps : ofTensors).source.add(source.name);
      }
    }
  }
  ofOps.model.add(sourceOpNames);
  ofTensors.model.add(sourceTensorNames);

  constexpr const char* kGraphNotInTrace = "target irgraph are not all contained by framework tracing record";
  constexpr const char* kTraceNotInGraph = "framework tracing record are not all contained by target irgraph";
  constexpr const char* kModelNotInTrace = "source model are not all contained by framework tracing record";
  constexpr const char* kTraceNotInModel = "framework tracing record are not all contained by source model";
  bool complete = true;
  for (const TraceNames* names : {&ofOps, &ofTensors}) {
    const bool areOps = names == &ofOps;
    const std::string subject = areOps ? "Op" : "Tensor";
    const std::string noun = areOps ? "op" : "tensor";
    complete &= reportMissing(names->graph, names->trace, stage, subject, kGraphNotInTrace, noun);
    complete &= reportMissing(names->trace, names->graph, stage, subject, kTraceNotInGraph, noun);
  }
  for (const TraceNames* names : {&ofOps, &ofTensors}) {
    const bool areOps = names == &ofOps;
    const std::string subject = areOps ? "Op" : "Tensor";
    const std::string noun = areOps ? "op" : "tensor";
    complete &= reportMissing(names->model, names->source, stage, subject, kModelNotInTrace, noun);
    complete &= reportMissing(names->source, names->model, stage, subject, kTraceNotInModel, noun);
  }
  if (complete) {
    std::cout << kValidateTrace << ": Framework tracing record is complete in stage " << stage << ".\n"
              << std::flush;
  }
}

}  // namespace netforge
