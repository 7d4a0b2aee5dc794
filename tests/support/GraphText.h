#pragma once

#include <memory>
#include <string>
#include <string_view>
#include "ir/IrGraph.h"

/// The text form of graphs, for tests. One statement a line; a line that ends in a comma or a backslash goes
/// on in the next, and "#" begins a comment.
///
///   order spatial_last                       the graph's axis order: spatial_first (default), spatial_last,
///                                            onnx
///   in x[2,3,?5,7] f32 NCHW                  a graph input; "?" marks a dynamic axis
///   const c[2] f32 = 1 2                     a constant: its values, or "fill 0.5", or "iota [start [step]]"
///   null n[0] f32                            the place of an optional operand that is absent
///   a = Transpose(x) perm=[0,2,3,1]          an op; it bears the name of its first output ...
///   t0: v[2,1], i[2,1] i32 = TopK(a) k=1     ... or the name in front of the colon
///   out v                                    a graph output
///
/// A tensor is `name[dims] type FORMAT` and more words in any order; of an op's output all but the name may
/// be left out and is inferred then (a plain op's outputs have the shape of its first input):
///   src=NHWC srctype=i64 order=[0,2,3,1]     layout and type in the source model, explicit permute order
///   scale=0.5 offset=-3                      per-tensor quantisation; the type is then sq8, uq16 ...
///   sparse=3/2                               a sparse tensor: specified elements and sparse dimensions
///   range=-1/1                               a float tensor with a range that the user gave
///   updateable, noquant                      flags
///   optional, both                           of "in" and "out": the optional kinds, an input and output
///
/// An attribute is `name=literal`: 3, -1, 0.5, true, word, "text with blanks", or a tensor [0,2] or
/// [[1,1],[0,0]]. Its type is the one that the op's table gives, else by the look of the literal; ":i32" and
/// so on behind it say another one. Types with a class are built by their class, so that it fills in its
/// defaults; "plain" in front of the type makes a plain op of it. A Reshape without "shape" takes it from its
/// output.
namespace netforge::testing {

/// Throws std::invalid_argument with the line and what is wrong there; what the graph and the op classes
/// throw goes through.
std::shared_ptr<IrGraph> readGraph(std::string_view text);
/// Adds more statements to a graph; "order" is not among them. Throws like `readGraph`.
void extendGraph(const std::shared_ptr<IrGraph>& graph, std::string_view text);

/// The text that `readGraph` takes. Tensors that neither an op, a list of the graph nor constant data holds
/// show as comments. Loads constant data.
std::string printGraph(const IrGraph& graph);

/// One line for each difference, none when the graphs are equal: ops by name, in order, with type, class,
/// inputs, outputs and attributes; graph inputs and outputs; tensors with shape, types, role, flags,
/// quantisation and data. Layouts and permute orders are compared where the expected graph states them.
/// The "shape" of a Reshape is not compared: its output says it.
std::string explainDifference(const IrGraph& expected, const IrGraph& actual);

/// The literal of one attribute, as `printGraph` writes it; a tensor's name doesn't show.
std::string attributeText(const std::string& opType, const std::string& name, const IrAttribute& attribute);
/// Whether the op is a plain IrOp although its type has a class.
bool isPlainOp(const ops::IrOp& op);

}  // namespace netforge::testing
