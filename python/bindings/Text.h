#pragma once

#include <string>

#include "ir/IrGraph.h"

namespace netforge::bindings {

// Texts for a person who reads a graph; no program should take them apart.

std::string encodingText(const EncodingInfo& encoding);
std::string quantInfoText(const QuantInfo& info);
std::string shapeText(const IrTensorShape& shape);
/// "{axis=1, perm=[0,2,1]}"; tensors of up to eight elements in full. Data that lies in a file stays there.
std::string attributesText(const IrAttributes& attributes);
std::string tensorText(const IrTensor& tensor);
std::string opText(const ops::IrOp& op);
std::string graphSummary(const IrGraph& graph);
/// A line per graph input, op and graph output: "y [2,5,7,3] float32 NHWC = Transpose(x) {perm=[0,2,3,1]}".
std::string graphText(const IrGraph& graph);

}  // namespace netforge::bindings
