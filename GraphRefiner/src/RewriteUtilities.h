#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace netforge {
class IrGraph;
class IrStaticTensor;
class IrTensor;
enum DataType : std::uint32_t;
namespace ops {
class IrOp;
}
}  // namespace netforge

namespace netforge::graphrefiner {

class MatchedOps;

// The toolbox that the passes share. Free functions without state. Failures are std::runtime_error with the
// text
// "<function>: <message>" unless stated otherwise, and end the optimization: nothing is rolled back.

using StaticTensorPtr = std::shared_ptr<IrStaticTensor>;
/// `perm[i]` is the input axis that output axis i takes, as in the "perm" of a Transpose.
using Permutation = std::vector<std::uint32_t>;

// --- constants ---

/// The value of a one-element tensor of type INT_32, UINT_32, FLOAT_16 or FLOAT_32. Throws for a null tensor,
/// another number of elements and another type.
float getConstValue(const StaticTensorPtr& tensor);
/// The same for any tensor: none unless it is a constant that `getConstValue` reads and that keeps its value
/// after compilation.
std::optional<float> findConstScalar(const std::shared_ptr<IrTensor>& tensor);
/// Whether all elements, read as 32-bit floats whatever the type, equal the value exactly (a NaN never does).
/// False when there are fewer bytes than that. Throws for a null tensor and one without elements (rank 0 has
/// none).
bool allElementsEqualToValue(const StaticTensorPtr& tensor, float value);
/// The same for elements read as bytes, for BOOL_8 data.
bool allElementsEqualToValue(const StaticTensorPtr& tensor, std::uint8_t value);
/// The same for elements read as 16-bit patterns.
bool allElementsEqualToValue(const StaticTensorPtr& tensor, std::uint16_t value);
/// The same for elements read as signed 32-bit integers.
bool allElementsEqualToValue(const StaticTensorPtr& tensor, std::int32_t value);
/// Whether some element, read as signed 32-bit, is below zero; false without elements, and when there are
/// fewer bytes than that. Throws for a null tensor.
bool anyElementNegative(const StaticTensorPtr& tensor);
/// The first dims[0] elements of a rank-1 tensor of 32-bit words. Throws std::out_of_range past the elements.
Permutation getPermutation(const StaticTensorPtr& tensor);
/// The elements of the op's attribute "axes" as they stand.
std::vector<std::uint32_t> getAxes(const std::shared_ptr<ops::IrOp>& op);
/// Replaces the attribute "axes" by an unsigned 32-bit tensor "<op>_axes".
void setAxes(const std::shared_ptr<ops::IrOp>& op, const std::vector<std::uint32_t>& axes);
/// A scalar axis attribute of either 32-bit type, a negative one counted from the end of `rank`.
std::uint32_t readAxis(const std::shared_ptr<ops::IrOp>& op, const std::string& attribute,
                       std::uint32_t rank);
/// `getAxes` with negative entries counted from the end of `rank`.
std::vector<std::uint32_t> readAxes(const std::shared_ptr<ops::IrOp>& op, std::uint32_t rank);
/// Sets the attribute "axis" in the type that the op's class reads: signed for "Gather", unsigned for the
/// others.
void writeAxis(const std::shared_ptr<ops::IrOp>& op, std::uint32_t axis);
/// The order of a Transpose. Throws when the attribute "perm" is missing or no list.
Permutation getTransposePerm(const std::shared_ptr<ops::IrOp>& transpose);
/// Replaces a list attribute by an unsigned 32-bit one of dims [n] under the same tensor name.
void replaceWordsAttribute(const std::shared_ptr<ops::IrOp>& op, const std::string& attribute,
                           const std::vector<std::uint32_t>& values);
/// Whether the op has the integer attribute "operation" of the elementwise ops, with this value.
bool hasOperation(const std::shared_ptr<ops::IrOp>& op, std::uint32_t operation);
/// The first input that is not static; null when there is none, and for a null op.
std::shared_ptr<IrTensor> firstNonStaticInput(const std::shared_ptr<ops::IrOp>& op);

// --- permutations, dims and names ---

/// inverse[perm[i]] = i. Throws for an entry that is not below the length; repeated entries go unnoticed.
Permutation getInversePermutation(const Permutation& perm);
/// The one order that stands for a Transpose with `first` followed by one with `second`:
/// result[i] = first[second[i]]. Throws for an entry of `second` that is not below the length of `first`.
Permutation composePermutations(const Permutation& first, const Permutation& second);
bool isIdentityPermutation(const Permutation& perm);
/// The decimal digits of all entries without a separator: "0231".
std::string permToString(const Permutation& perm);
/// Prefix, first, second and suffix in this order, with one "_" between parts that are not empty.
std::string joinNameParts(const std::string& first, const std::string& second, const std::string& prefix,
                          const std::string& suffix);
Permutation permChannelLastToFirst(std::uint32_t n);  ///< 0, n-1, 1, 2, ..., n-2
Permutation permChannelFirstToLast(std::uint32_t n);  ///< 0, 2, 3, ..., n-1, 1
Permutation permAxisToLast(std::uint32_t n,
                           std::uint32_t a);  ///< the identity with entries a and n-1 swapped
bool hasSameDims(const std::shared_ptr<IrTensor>& a, const std::shared_ptr<IrTensor>& b);
/// a.dims[i] == b.dims[j]; false when either index is out of range.
bool dimsEqualAt(const std::shared_ptr<IrTensor>& a, std::uint32_t i, const std::shared_ptr<IrTensor>& b,
                 std::uint32_t j);
bool hasAtMostOneNonUnitDim(const std::shared_ptr<IrTensor>& tensor);
/// Whether `small`, aligned with `big` at the right end, has in each place the entry of `big` or 1.
bool isTailBroadcastable(const std::vector<std::uint32_t>& big, const std::vector<std::uint32_t>& small);
/// IEEE half to single, exact, subnormals included; a NaN keeps its sign and payload.
float halfToFloat(std::uint16_t bits);

// --- tests in front of an edit ---

/// Whether the application reads the tensor: graph outputs, also updateable and optional ones.
bool isGraphOutput(const std::shared_ptr<IrTensor>& tensor);
/// Whether the application reads an output of a bound op other than the root.
bool hasInteriorGraphOutput(const MatchedOps& matchedOps, const std::shared_ptr<ops::IrOp>& root);
/// Whether neither a tensor nor an op bears the name.
bool isFreeName(const std::shared_ptr<IrGraph>& graph, const std::string& name);
/// Whether IrGraph::squash of this op into this input would go through as the graph stands.
bool canSquash(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
               const std::shared_ptr<IrTensor>& input, bool keepInput);
/// The same for an op that will stand between these two tensors after an edit still to come.
bool canMergeTensors(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<IrTensor>& input,
                     const std::shared_ptr<IrTensor>& output, bool keepInput);
/// Whether an Lstm reads the op's output as one of its initial states.
bool feedsLstmInitialState(const std::shared_ptr<ops::IrOp>& op);
/// What stands under the name that `injectTranspose` would give.
enum class TransposeName {
  Free,      ///< neither a tensor nor an op bears it
  Reusable,  ///< the output of a Transpose of this very tensor with this order
  Taken      ///< something else: a rule declines
};
TransposeName inspectTransposeName(const std::shared_ptr<IrGraph>& graph,
                                   const std::shared_ptr<IrTensor>& tensor, const Permutation& perm,
                                   const std::string& base);
/// The same for a Transpose that is to bear this very name.
TransposeName inspectTransposeNamed(const std::shared_ptr<IrGraph>& graph,
                                    const std::shared_ptr<IrTensor>& tensor, const Permutation& perm,
                                    const std::string& name);
/// Whether `insertOrReuseTranspose` of this tensor would go through: there is a Transpose to share, or its
/// name is free.
bool canInsertOrReuseTranspose(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<IrTensor>& tensor,
                               const Permutation& perm);
/// Whether the tensor's quantisation differs along its axes, so that it doesn't outlive a change of layout.
bool isEncodedAlongAxes(const IrTensor& tensor);
/// The axis of an encoding with one entry per channel; none for every other encoding.
std::optional<std::uint32_t> findChannelAxis(const IrTensor& tensor);
/// Tells an encoding with one entry per channel that the channels stand at this axis.
void setChannelAxis(IrTensor& tensor, std::uint32_t axis);

/// Whether the op permutes a constant that it alone reads, of a type and encoding that can be permuted, and
/// the name that `squashConstantTranspose` would give is free.
bool isFoldableConstantTranspose(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op);

// --- edits ---

/// Makes input `index` of the op arrive through a Transpose with that order: one that the tensor feeds
/// already, or a new one. A reused Transpose that stands behind the op is moved forward, so that the order
/// stays topological; where its own producer stands in the way that is reported on standard output and it is
/// moved all the same. Should the op read the tensor at several inputs, all of them are moved.
void insertOrReuseTranspose(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
                            std::uint32_t index, const Permutation& perm);
/// A Transpose among the consumers of the tensor whose "perm" equals `perm`, or null; of several the first by
/// name.
std::shared_ptr<ops::IrOp> findTransposeWithPerm(const std::shared_ptr<IrTensor>& tensor,
                                                 const Permutation& perm);
/// Puts a new Transpose behind a tensor and lets the named consumers (all, without names) read it. Op and
/// output bear the name `<base>_<digits of perm>`; an empty base stands for the tensor's name. With
/// `keepGraphOutput` a graph output keeps its name and its place, now as the output of the Transpose, and the
/// tensor itself becomes internal under the name `<base>_<digits>`, the digits being those of the inverse
/// order when its way back to the source layout is known, else none.
void injectTranspose(const std::shared_ptr<IrGraph>& graph, const std::string& tensorName,
                     const Permutation& perm, const std::vector<std::string>& consumers,
                     const std::string& base, bool keepGraphOutput);
/// Takes the inputs behind the first that other ops compute, such as a Reshape's shape tensor, off an op that
/// is about to go, and removes the ops that this leaves dead. Constants and graph inputs stay.
void dropComputedInputs(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op);
/// Removes the op that computes a tensor when nobody reads any of its outputs any more.
void removeDeadProducer(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<IrTensor>& tensor);
/// Adds a copy of a constant under a free name. The copy is internal also where the application reads the
/// original.
StaticTensorPtr copyConstant(const std::shared_ptr<IrGraph>& graph, const StaticTensorPtr& constant,
                             const std::string& name);
/// Lets input `index` of the op read another tensor. Other inputs that read the old one go on doing so.
void setInputTensor(const std::shared_ptr<ops::IrOp>& op, std::uint32_t index,
                    const std::shared_ptr<IrTensor>& tensor);
/// Gives the op a copy of its own of a static input that others read too: "<op>_kernel_weight" for input 1,
/// "<op>_kernel_bias" for every other.
void manageSharedStaticInput(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
                             std::uint32_t index);
/// Moves all consumers of the old tensor to the new one and exchanges the two names. Mind the order: NEW
/// before OLD. For each consumer the dims must be equal, with `strict` also the quantisation and the type,
/// else it throws.
void replaceAllUsers(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<IrTensor>& newTensor,
                     const std::shared_ptr<IrTensor>& oldTensor, bool strict);
/// Lets a new constant of the graph stand for the only output of an op: it takes over readers, name, trace
/// and the place among the graph's outputs, and the op is removed. Throws as `replaceAllUsers` does.
void replaceOutputByConstant(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
                             const StaticTensorPtr& constant, bool strict);
/// Lets `to` stand for the graph output `from`: it takes the place and the kind (updateable and optional
/// outputs keep theirs), and `from` becomes native, or the input that it was besides. Nothing happens when
/// `from` is no graph output. Names are the caller's work, afterwards.
void handOverGraphOutput(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<IrTensor>& from,
                         const std::shared_ptr<IrTensor>& to);
/// Behind a graph output: lets `outer`, which an op computes from the graph output `inner`, take over place,
/// kind, type, encoding and name. `inner` becomes internal and gets the name of `outer`. Nothing happens when
/// `inner` is no graph output.
void passGraphOutputOn(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<IrTensor>& inner,
                       const std::shared_ptr<IrTensor>& outer);
/// Gives `to` the type of `from`, and with it the encoding or the range that the user set.
void copyTypeAndEncoding(const std::shared_ptr<IrTensor>& from, const std::shared_ptr<IrTensor>& to);
/// Lets a constant that is not yet in the graph take the readers, the place and the name of another.
void supersedeConstant(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<IrTensor>& constant,
                       const StaticTensorPtr& successor);
/// Folds a Transpose of a constant into the constant; an encoding per channel follows its axis. Mind the
/// order: OP before GRAPH. With `intoNext` the constant that the next op reads keeps the name of the constant
/// that it replaces, unless the application reads that one by this name; else it gets the name of the
/// Transpose's output. Does nothing when the input is not static; reports on standard output and does nothing
/// when that output (without `intoNext`: the input) is a graph output.
void squashConstantTranspose(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph,
                             bool intoNext);

// --- new constants; each is not yet in a graph, and an empty name becomes "<tensor>_tensorOut_0" ---

/// Elementwise in 32-bit floats, b broadcast to the dims of a. All other properties are those of a.
StaticTensorPtr addStaticTensors(const StaticTensorPtr& a, const StaticTensorPtr& b, const std::string& name);
StaticTensorPtr multiplyStaticTensors(const StaticTensorPtr& a, const StaticTensorPtr& b,
                                      const std::string& name);
/// The same bytes under new dims. Shares the transform manager of the tensor, which gets one when it has
/// none, and records the step.
StaticTensorPtr reshapeStaticTensor(const StaticTensorPtr& tensor, const std::vector<std::uint32_t>& dims,
                                    const std::string& name);
/// The data permuted; transforms as above. Throws for a type that `isTransposableType` refuses.
StaticTensorPtr transposeStaticTensor(const StaticTensorPtr& tensor, const Permutation& perm,
                                      const std::string& name);
/// Whether constants of this type can be transposed: elements of 1, 2 or 4 whole bytes.
bool isTransposableType(DataType type);

/// The kernel behind the arithmetic, declared for its tests. All tensors row-major. `operation`: 0 sum, 2
/// quotient, 13 product, 16 power, 18 difference. Throws std::runtime_error with plain texts.
void broadcastBinaryFloat(std::uint32_t operation, const std::vector<std::uint32_t>& dimsA,
                          const std::vector<std::uint32_t>& dimsB, const std::vector<std::uint32_t>& dimsOut,
                          const float* a, const float* b, float* out);

}  // namespace netforge::graphrefiner
