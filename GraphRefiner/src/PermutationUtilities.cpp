// Rewrite utilities on permutations, dims, generated names and half floats.
#include <algorithm>
#include <bit>
#include <numeric>
#include <stdexcept>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/Failure.h"
#include "ir/IrTensor.h"

namespace netforge::graphrefiner {

Permutation getInversePermutation(const Permutation& perm) {
  Permutation inverse(perm.size());
  for (std::uint32_t i = 0; i < perm.size(); ++i) {
    if (perm[i] >= perm.size()) {
      fail<std::runtime_error>("getInversePermutation", "Invalid permutation value ", perm[i], " at index ",
                               i, " for permutation of size ", perm.size());
    }
    inverse[perm[i]] = i;
  }
  return inverse;
}

Permutation composePermutations(const Permutation& first, const Permutation& second) {
  Permutation result;
  result.reserve(second.size());
  for (std::size_t i = 0; i < second.size(); ++i) {
    if (second[i] >= first.size()) {
      fail<std::runtime_error>("composePermutations", "Invalid permutation value ", second[i], " at index ",
                               i, " for permutation of size ", first.size());
    }
    result.push_back(first[second[i]]);
  }
  return result;
}

bool isIdentityPermutation(const Permutation& perm) {
  for (std::uint32_t i = 0; i < perm.size(); ++i) {
    if (perm[i] != i) return false;
  }
  return true;
}

std::string permToString(const Permutation& perm) {
  std::string text;
  for (const std::uint32_t entry : perm) text += std::to_string(entry);
  return text;
}

std::string joinNameParts(const std::string& first, const std::string& second, const std::string& prefix,
                          const std::string& suffix) {
  std::string text = prefix;
  for (const std::string* part : {&first, &second, &suffix}) {
    if (!text.empty() && !part->empty()) text += '_';
    text += *part;
  }
  return text;
}

Permutation permChannelLastToFirst(std::uint32_t n) {
  Permutation perm(n);
  std::iota(perm.begin(), perm.end(), 0u);
  if (n > 2) std::rotate(perm.begin() + 1, perm.end() - 1, perm.end());
  return perm;
}

Permutation permChannelFirstToLast(std::uint32_t n) {
  Permutation perm(n);
  std::iota(perm.begin(), perm.end(), 0u);
  if (n > 2) std::rotate(perm.begin() + 1, perm.begin() + 2, perm.end());
  return perm;
}

Permutation permAxisToLast(std::uint32_t n, std::uint32_t a) {
  if (a >= n) fail<std::runtime_error>("permAxisToLast", "Invalid axis ", a, " for rank ", n);
  Permutation perm(n);
  std::iota(perm.begin(), perm.end(), 0u);
  std::swap(perm[a], perm[n - 1]);
  return perm;
}

bool hasSameDims(const std::shared_ptr<IrTensor>& a, const std::shared_ptr<IrTensor>& b) {
  return a->getDims() == b->getDims();
}

bool dimsEqualAt(const std::shared_ptr<IrTensor>& a, std::uint32_t i, const std::shared_ptr<IrTensor>& b,
                 std::uint32_t j) {
  return i < a->getRank() && j < b->getRank() && a->getDims()[i] == b->getDims()[j];
}

bool hasAtMostOneNonUnitDim(const std::shared_ptr<IrTensor>& tensor) {
  const auto& dims = tensor->getDims();
  return std::count_if(dims.begin(), dims.end(), [](std::uint32_t dim) { return dim != 1; }) <= 1;
}

bool isTailBroadcastable(const std::vector<std::uint32_t>& big, const std::vector<std::uint32_t>& small) {
  return small.size() <= big.size() &&
         std::equal(small.rbegin(), small.rend(), big.rbegin(),
                    [](std::uint32_t own, std::uint32_t other) { return own == other || own == 1; });
}

float halfToFloat(std::uint16_t bits) {
  const std::uint32_t sign = (bits & 0x8000u) << 16;
  const std::uint32_t exponent = (bits >> 10) & 0x1Fu;
  const std::uint32_t fraction = bits & 0x3FFu;
  if (exponent == 0x1F) return std::bit_cast<float>(sign | 0x7F800000u | (fraction << 13));
  if (exponent != 0) return std::bit_cast<float>(sign | ((exponent + 112) << 23) | (fraction << 13));
  // Zero or subnormal: a multiple of 2^-24, exact in single precision.
  const float magnitude = static_cast<float>(fraction) * 0x1p-24f;
  return sign != 0 ? -magnitude : magnitude;
}

}  // namespace netforge::graphrefiner
