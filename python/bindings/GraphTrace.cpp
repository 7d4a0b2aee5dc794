#include "ir/Trace.h"
#include "python/bindings/Bindings.h"

namespace netforge::bindings {

namespace {

using Names = IrGraph::Names;
using Ops = std::vector<IrGraph::OpPtr>;
using Tensors = std::vector<IrGraph::TensorPtr>;
using Sources = std::vector<TraceSource>;

std::string kindText(TraceKind kind) {
  return kind == TraceKind::Op ? "TraceKind.Op" : "TraceKind.Tensor";
}

}  // namespace

void bindTraceRecords(py::module_& module) {
  py::class_<TraceSource>(module, "TraceSource", "One op or tensor of the source model.")
      .def(py::init([](const std::string& name, TraceKind kind) {
             return TraceSource{name, kind};
           }),
           py::arg("name"), py::arg("kind") = TraceKind::Op)
      .def_readwrite("name", &TraceSource::name)
      .def_readwrite("kind", &TraceSource::kind)
      .def(
          "__eq__", [](const TraceSource& self, const TraceSource& other) { return self == other; },
          py::is_operator())
      .def("__repr__", [](const TraceSource& self) {
        return "TraceSource('" + self.name + "', " + kindText(self.kind) + ")";
      });
  py::class_<TraceKey>(module, "TraceKey", "Names the op or tensor of the graph that a record is about.")
      .def(py::init([](TraceKind kind, const std::string& name) {
             return TraceKey{kind, name};
           }),
           py::arg("kind"), py::arg("name"))
      .def_readwrite("kind", &TraceKey::kind)
      .def_readwrite("name", &TraceKey::name);
  py::class_<TraceRecord>(module, "TraceRecord", "Where an op or tensor of the graph comes from.")
      .def(py::init([](const std::string& name, const Sources& sources) {
             return TraceRecord{name, sources};
           }),
           py::arg("name"), py::arg("sources"))
      .def_readwrite("name", &TraceRecord::name)
      .def_readwrite("sources", &TraceRecord::sources)
      .def("__repr__", [](const TraceRecord& self) {
        return "TraceRecord('" + self.name + "', " + py::repr(py::cast(self.sources)).cast<std::string>() +
               ")";
      });
}

void bindGraphTrace(Classes& classes) {
  classes.graph
      .def("getTraceInfo", &IrGraph::getTraceInfo, py::arg("kind"), py::arg("name"),
           "The sources of a record; [] without a record.")
      .def("setTraceInfo", &IrGraph::setTraceInfo, py::arg("kind"), py::arg("name"), py::arg("sources"),
           "Replaces the sources of an existing record; without one, or with no sources, nothing happens.")
      .def("addTraceSources",
           py::overload_cast<TraceKind, const std::string&, const Sources&>(&IrGraph::addTraceSources),
           py::arg("kind"), py::arg("name"), py::arg("sources"),
           "Puts sources in front of those of the record, which is made when there is none.")
      .def("addTraceSources",
           py::overload_cast<const Names&, const Names&, const Sources&>(&IrGraph::addTraceSources),
           py::arg("opNames"), py::arg("tensorNames"), py::arg("sources"))
      .def("removeTraceInfo", py::overload_cast<TraceKind, const std::string&>(&IrGraph::removeTraceInfo),
           py::arg("kind"), py::arg("name"))
      .def("removeTraceInfo", py::overload_cast<const Ops&>(&IrGraph::removeTraceInfo), py::arg("ops"))
      .def("collectTraceSources", &IrGraph::collectTraceSources, py::arg("keys"),
           "The sources of all keys' records, in order, without duplicates.")
      .def("updateTraceInfo",
           py::overload_cast<const Ops&, const Ops&, const Tensors&, bool>(&IrGraph::updateTraceInfo),
           py::arg("targetOps"), py::arg("sourceOps"), py::arg("sourceTensors") = Tensors(),
           py::arg("removeSources") = false,
           "Hands the sources of ops and tensors to each target; `removeSources` then erases their records.")
      .def("updateTraceInfo",
           py::overload_cast<const Tensors&, const Tensors&, const Ops&, bool>(&IrGraph::updateTraceInfo),
           py::arg("targetTensors"), py::arg("sourceTensors"), py::arg("sourceOps") = Ops(),
           py::arg("removeSources") = false)
      .def("validateTraceInfoCompleteness", &IrGraph::validateTraceInfoCompleteness, py::arg("stage"),
           "Compares the records with the graph and the source model's names and prints the differences.")
      .def(
          "getTraceRecords", [](const IrGraph& self, TraceKind kind) { return self.getTraceRecords(kind); },
          py::arg("kind"))
      .def("reEvalMacsParams", &IrGraph::reEvalMacsParams,
           "Counts, prints and returns multiply-accumulates and parameters of all ops.")
      .def("dumpJson", &IrGraph::dumpJson, py::arg("fileName"), "Writes the whole graph as JSON.")
      .def("checkInvariants", &IrGraph::checkInvariants,
           "One line \"<invariant>: <what is wrong>\" for each violation; [] for a sound graph.");
}

}  // namespace netforge::bindings
