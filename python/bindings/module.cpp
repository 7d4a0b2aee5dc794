// The extension module `netforge._core`: graphs, tensors, ops and backends for Python.

#include "python/bindings/Bindings.h"

namespace netforge::bindings {

Classes::Classes(py::module_& module)
    : quantInfo(
          module, "QuantInfo",
          "Quantisation record of a tensor: a header and one group of fields per encoding kind, of which "
          "only the one that `encoding` selects has meaning. Copies keep the header and that group."),
      shape(module, "IrTensorShape",
            "Dims, outermost first, and the axes whose size is not known; their dims are placeholders. "
            "Immutable. Lists of dims are accepted wherever a shape is expected."),
      tensor(module, "IrTensor",
             "A tensor of a graph: name, shape, types, layout, quantisation and the ops around it."),
      staticTensor(module, "IrStaticTensor",
                   "A tensor with constant data, row-major in the order of its dims."),
      attributes(module, "IrAttributes",
                 "The named values of an op, ordered by name. Each value has one fixed type: unsigned 8-bit, "
                 "signed or unsigned 32-bit, float, bool, string, or a constant tensor."),
      op(module, "IrOp",
         "One op: name, type, attributes and tensors. Ops of every type show as this class; they are told "
         "apart by `type`."),
      axisOrder(module, "AxisOrder",
                "Layout conversions between a source framework and the order of the IR."),
      namePolicy(module, "ConversionNamePolicy", "Hands out names for new ops."),
      graph(
          module, "IrGraph",
          "One network: its tensors by name, its ops in execution order, graph inputs and outputs, and trace "
          "records of the source model.\n\n"
          "Tensors and ops are separate name spaces. Edits keep producers, consumers, names and order true "
          "together; an edit that raises halfway leaves the graph as it is at that moment. Lists and dicts "
          "that a graph hands out are copies.") {}

}  // namespace netforge::bindings

PYBIND11_MODULE(_core, module) {
  using namespace netforge::bindings;
  module.doc() = "The intermediate representation: graphs, tensors, ops and backends.";
  bindEnumerations(module);
  Classes classes(module);
  bindQuantisation(module, classes);
  bindTensors(classes);
  bindStaticTensors(classes);
  bindAttributes(classes);
  bindAxisOrders(module, classes);
  bindOps(module, classes);
  bindTraceRecords(module);
  bindMetadata(module);
  bindGraph(module, classes);
  bindGraphEdits(classes);
  bindGraphTrace(classes);
  bindOpConfigs(module, classes);
}
