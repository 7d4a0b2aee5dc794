#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "GraphRefiner/src/passes/layout/rank_reduction/AxisMerging.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

// What the handlers of rank reduction share: Reshapes and Transposes around one op, for that op alone. An op
// is lowered by reshaping its data inputs, giving its output the reduced shape, and restoring the noted dims
// behind it, so that the rest of the graph sees what it saw before.
//
// Every new op and tensor gets the trace sources of the op that it serves and of the tensor that it reads,
// and carries on the quantisation of that tensor.

/// The highest rank that the target's ops take.
constexpr std::uint32_t kRankLimit = 5;

/// Whether some input of the op has a rank above the limit.
bool hasInputAboveRankLimit(const std::shared_ptr<ops::IrOp>& op);
/// Whether an input or output of the op has dynamic axes: such a tensor can't be reshaped.
bool hasDynamicTensor(const std::shared_ptr<ops::IrOp>& op);
/// What most handlers ask first: an input above the limit, and nothing dynamic.
bool needsLowering(const std::shared_ptr<ops::IrOp>& op);

/// Gives every reader but the last of each static input above the rank limit a copy of its own,
/// "<tensor>_6d_clone_<n>", n counting from 0 in execution order. Returns whether there was one to copy.
bool cloneSharedStaticInputs(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);

/// Lets the op read input `index` through a new Reshape "<op>_idx_<index>_6d_pre_reshape". An op that reads
/// the tensor at several inputs reads it through the Reshape at all of them.
void injectPreReshape(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
                      std::uint32_t index, const Dims& dims);
/// Restores `dims` behind an output, which has the reduced shape already: a Reshape for each reader,
/// "<op>_idx_<index>_6d_post_reshape<n>", n counting from 0 in execution order. A graph output keeps its
/// name, its kind and its readers: it becomes the output of "<op>_idx_<index>_6d_post_reshape", and the op
/// writes a tensor of that name with "_input" behind it.
void injectPostReshape(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
                       std::uint32_t index, const Dims& dims);
/// The second form of injectPostReshape, whatever kind of tensor the output is.
void restoreOutputInPlace(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
                          std::uint32_t index, const Dims& dims);
/// Puts a Transpose in front of an input, for the op alone, or behind an output, for all its readers:
/// "<op>_idx_<index>_6d_pre_transpose" or "..._post_transpose".
void injectLayoutTranspose(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
                           std::uint32_t index, const std::vector<std::uint32_t>& perm, bool beforeInput);
/// The first free name of "<prefix><counter>", "<prefix><counter + 1>" ...; `counter` ends behind it. A
/// constant that was cloned in an earlier run gains readers again when a Reshape of it is given out to its
/// readers.
std::string nextFreeName(const std::shared_ptr<IrGraph>& graph, const std::string& prefix,
                         std::uint32_t& counter);
/// "<op>_idx_<index>_6d_<kind>".
std::string rankReductionName(const std::shared_ptr<ops::IrOp>& op, std::uint32_t index,
                              const std::string& kind);

/// The frame around an op: reshapes input i to inputDims[i] (all computed beforehand, since an op may read a
/// tensor twice), gives output 0 the reduced dims and restores the present ones behind it.
void reshapeAround(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
                   const std::vector<Dims>& inputDims, const Dims& outputDims);

/// Lets the op write a new native tensor in the place of output `index`; `follower`, a new op of one input
/// and one output, makes the old output of it, and stands right behind the op.
void putBehindOutput(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
                     std::uint32_t index, const std::shared_ptr<ops::IrOp>& follower,
                     const std::string& tensorName, const Dims& tensorDims);

/// The elements of an attribute of 32-bit values, row-major whatever its dims.
std::vector<std::uint32_t> readWords(const std::shared_ptr<ops::IrOp>& op, const std::string& attribute);
/// Sets an attribute to a static tensor of 32-bit values.
void setWords(const std::shared_ptr<ops::IrOp>& op, const std::string& attribute,
              const std::string& tensorName, const std::vector<std::uint32_t>& words, const Dims& dims,
              DataType type);
std::shared_ptr<ops::IrOp> makeReshape(const std::string& name, const Dims& dims);
std::shared_ptr<ops::IrOp> makeTranspose(const std::string& name, const std::vector<std::uint32_t>& perm);
/// Puts the op between its tensor and one reader under one name for op and output.
void injectFor(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& newOp,
               const std::shared_ptr<IrTensor>& tensor, const std::vector<std::string>& readers,
               const std::vector<TraceSource>& sources);
/// Enters a native tensor with the types and the quantisation of another.
std::shared_ptr<IrTensor> addTensorLike(const std::shared_ptr<IrGraph>& graph, const std::string& name,
                                        const Dims& dims, const std::shared_ptr<IrTensor>& like);
/// Gives a tensor the encoding and the type of another when that one is quantised.
void inheritQuantization(const std::shared_ptr<IrTensor>& from, const std::shared_ptr<IrTensor>& to);

}  // namespace netforge::graphrefiner
