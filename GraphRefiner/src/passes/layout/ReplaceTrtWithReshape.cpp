#include "GraphRefiner/src/passes/layout/ReplaceTrtWithReshape.h"

#include <algorithm>
#include <random>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

using Dims = std::vector<std::uint32_t>;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kSeed = 2286461685u;

std::uint64_t countOf(const Dims& dims) {
  std::uint64_t count = 1;
  for (const std::uint32_t dim : dims) count *= dim;
  return count;
}

bool isOrderOf(const Permutation& perm, const Dims& dims) {
  Permutation sorted = perm;
  std::sort(sorted.begin(), sorted.end());
  return perm.size() == dims.size() && isIdentityPermutation(sorted);
}

Dims permuted(const Dims& dims, const Permutation& perm) {
  Dims result;
  for (const std::uint32_t axis : perm) result.push_back(dims[axis]);
  return result;
}

// Walks the elements of a transposed tensor in row-major order and gives the place of each in the tensor that
// is transposed.
class TransposedPlaces {
 public:
  TransposedPlaces(const Dims& dims, const Permutation& perm) : outDims(permuted(dims, perm)) {
    std::vector<std::uint64_t> strides(dims.size());
    std::uint64_t stride = 1;
    for (std::size_t axis = dims.size(); axis-- > 0; stride *= dims[axis]) strides[axis] = stride;
    for (const std::uint32_t axis : perm) outStrides.push_back(strides[axis]);
    index.resize(dims.size());
  }
  std::uint64_t next() {
    const std::uint64_t current = place;
    for (std::size_t axis = index.size(); axis-- > 0;) {
      place += outStrides[axis];
      if (++index[axis] < outDims[axis]) break;
      place -= outStrides[axis] * outDims[axis];
      index[axis] = 0;
    }
    return current;
  }

 private:
  Dims outDims;
  std::vector<std::uint64_t> outStrides;
  Dims index;
  std::uint64_t place = 0;
};

Bytes transposeBytes(const Bytes& data, const Dims& dims, const Permutation& perm) {
  TransposedPlaces places(dims, perm);
  Bytes result(data.size());
  for (std::uint8_t& byte : result) byte = data[places.next()];
  return result;
}

Bytes randomBytes(std::uint64_t count) {
  std::mt19937 generator(kSeed);
  Bytes data(count);
  // The distributions of the standard library differ between its makers, the generator does not.
  for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(generator() & 0xFFu);
  return data;
}

// The bytes of a few elements can agree by chance, so the places have the last word: an element must come
// back to the place from which `first` took it. Compares where the elements of the input stand behind `first`
// with where `last` takes them from.
bool keepsPlaces(const Dims& inDims, const Permutation& firstPerm, const Dims& middleDims,
                 const Permutation& lastPerm) {
  TransposedPlaces moved(permuted(inDims, firstPerm), getInversePermutation(firstPerm));
  TransposedPlaces taken(middleDims, lastPerm);
  const std::uint64_t count = countOf(inDims);
  for (std::uint64_t i = 0; i < count; ++i) {
    if (moved.next() != taken.next()) return false;
  }
  return true;
}

// In a Reshape's "shape" a 0 stands for the input's dim of the same place.
bool canBeShape(const Dims& outDims, const Dims& inDims) {
  for (std::size_t i = 0; i < outDims.size(); ++i) {
    if (outDims[i] == 0 && (i >= inDims.size() || inDims[i] != 0)) return false;
  }
  return true;
}

}  // namespace

ReplaceTrtWithReshapePass::ReplaceTrtWithReshapePass() {
  pattern = makeOp("Transpose", makeOp("Reshape", makeOpType("Transpose")));
}

bool ReplaceTrtWithReshapePass::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto last = matchedOps.at(pattern);
  const auto reshaped = last->getInput(0);
  const auto reshape = reshaped->getProducer();
  const auto transposed = reshape->getInput(0);
  const auto first = transposed->getProducer();
  const auto input = first->getInput(0);
  if (input->getShape().hasDynamicAxes()) return false;
  if (isGraphOutput(transposed) || isGraphOutput(reshaped)) return false;
  if (!canSquash(graph, last, reshaped, false) || !canSquash(graph, reshape, transposed, false)) return false;
  const std::string name = reshape->getName() + "_replaced";
  if (graph->hasOp(name)) return false;
  const Dims inDims = input->getDims();
  const Dims outDims = last->getOutput(0)->getDims();
  if (!canBeShape(outDims, inDims)) return false;
  if (!isEquivalentToReshape(first, reshape, last, inDims, outDims)) return false;

  // ---- edits ----
  dropComputedInputs(graph, reshape);
  graph->squash(last, reshaped->getName(), false, true);
  graph->squash(reshape, transposed->getName(), false, true);
  graph->replace(first, createOp("Reshape", name, OpParams{{"shape", OpParam(outDims)}}));
  return true;
}

bool ReplaceTrtWithReshapePass::isEquivalentToReshape(const std::shared_ptr<ops::IrOp>& first,
                                                      const std::shared_ptr<ops::IrOp>& reshape,
                                                      const std::shared_ptr<ops::IrOp>& last,
                                                      const Dims& inDims, const Dims& outDims) {
  const Permutation firstPerm = getTransposePerm(first);
  const Permutation lastPerm = getTransposePerm(last);
  const Dims middleDims = reshape->getOutput(0)->getDims();
  if (!isOrderOf(firstPerm, inDims) || !isOrderOf(lastPerm, middleDims)) return false;
  if (permuted(middleDims, lastPerm) != outDims) return false;
  const std::uint64_t count = countOf(inDims);
  if (countOf(middleDims) != count || countOf(outDims) != count) return false;
  const Bytes data = randomBytes(count);
  if (transposeBytes(transposeBytes(data, inDims, firstPerm), middleDims, lastPerm) != data) return false;
  return keepsPlaces(inDims, firstPerm, middleDims, lastPerm);
}

std::shared_ptr<Pass> buildReplaceTRTWithReshape() {
  return makeSequencePass<ReplaceTrtWithReshapePass>();
}
[[maybe_unused]] static const bool registeredReplaceTRTWithReshape =
    PassManager::registerPass(PassId::ReplaceTRTWithReshape);

}  // namespace netforge::graphrefiner
