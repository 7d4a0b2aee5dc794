#pragma once

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <memory>

#include "ir/AxisOrder.h"
#include "ir/BackendInfo.h"
#include "ir/IrAttributes.h"
#include "ir/IrGraph.h"
#include "ir/IrOp.h"
#include "ir/IrTensor.h"

namespace netforge::bindings {

namespace py = pybind11;

/// The Python classes that refer to each other. All are made before any method is bound, so that the
/// signatures in docstrings show Python names whatever the order of binding.
struct Classes {
  py::class_<QuantInfo> quantInfo;
  py::class_<IrTensorShape> shape;
  py::class_<IrTensor, std::shared_ptr<IrTensor>> tensor;
  py::class_<IrStaticTensor, IrTensor, std::shared_ptr<IrStaticTensor>> staticTensor;
  py::class_<IrAttributes, std::shared_ptr<IrAttributes>> attributes;
  py::class_<ops::IrOp, std::shared_ptr<ops::IrOp>> op;
  py::class_<AxisOrder, std::shared_ptr<AxisOrder>> axisOrder;
  py::class_<ConversionNamePolicy, std::shared_ptr<ConversionNamePolicy>> namePolicy;
  py::class_<IrGraph, std::shared_ptr<IrGraph>> graph;

  explicit Classes(py::module_& module);
};

// One function per group of names; each stands in the source file of its name.
void bindEnumerations(py::module_& module);
void bindQuantisation(py::module_& module, Classes& classes);
void bindTensors(Classes& classes);
void bindStaticTensors(Classes& classes);
void bindAttributes(Classes& classes);
void bindOps(py::module_& module, Classes& classes);
void bindAxisOrders(py::module_& module, Classes& classes);
void bindTraceRecords(py::module_& module);
void bindMetadata(py::module_& module);
void bindGraph(py::module_& module, Classes& classes);
void bindGraphEdits(Classes& classes);
void bindGraphTrace(Classes& classes);
void bindOpConfigs(py::module_& module, Classes& classes);

}  // namespace netforge::bindings
