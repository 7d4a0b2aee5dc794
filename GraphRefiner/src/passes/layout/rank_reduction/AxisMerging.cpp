#include "GraphRefiner/src/passes/layout/rank_reduction/AxisMerging.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <numeric>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrTensorShape.h"

namespace netforge::graphrefiner {

std::uint32_t product(const Dims& dims) {
  return std::accumulate(dims.begin(), dims.end(), 1u, std::multiplies<>());
}

void mergeDimsExcept(Dims& dims, std::vector<std::uint32_t>& keptAxes) {
  std::sort(keptAxes.begin(), keptAxes.end());
  Dims merged;
  std::vector<std::uint32_t> newNumbers;
  bool inRun = false;
  for (std::uint32_t axis = 0; axis < dims.size(); ++axis) {
    const bool kept = std::binary_search(keptAxes.begin(), keptAxes.end(), axis);
    if (inRun && !kept) {
      merged.back() *= dims[axis];
    } else {
      merged.push_back(dims[axis]);
    }
    inRun = !kept;
    newNumbers.push_back(static_cast<std::uint32_t>(merged.size() - 1));
  }
  const auto merges = static_cast<std::uint32_t>(dims.size() - merged.size());
  for (std::uint32_t& axis : keptAxes) axis = axis < newNumbers.size() ? newNumbers[axis] : axis - merges;
  dims = merged;
}

void foldAroundAxis(Dims& dims, std::uint32_t& axis) {
  const auto place = dims.begin() + static_cast<std::ptrdiff_t>(axis);
  Dims folded;
  if (axis != 0) folded.push_back(product({dims.begin(), place}));
  folded.push_back(*place);
  if (place + 1 != dims.end()) folded.push_back(product({place + 1, dims.end()}));
  axis = axis != 0 ? 1 : 0;
  dims = folded;
}

BroadcastDims mergeBroadcastAxes(const Dims& left, const Dims& right) {
  const auto rank = static_cast<std::uint32_t>(std::max(left.size(), right.size()));
  const Dims a = IrTensorShape::padDimsToRank(left, rank);
  const Dims b = IrTensorShape::padDimsToRank(right, rank);
  BroadcastDims merged;
  const auto close = [&](std::uint32_t x, std::uint32_t y) {
    merged.left.push_back(x);
    merged.right.push_back(y);
    merged.output.push_back(std::max(x, y));
  };
  std::uint32_t x = 1;
  std::uint32_t y = 1;
  for (std::uint32_t axis = rank; axis-- > 0;) {
    const bool bothFull = x == y && a[axis] == b[axis];
    const bool leftRepeated = x == 1 && a[axis] == 1;
    const bool rightRepeated = y == 1 && b[axis] == 1;
    const bool isLast = axis + 1 == rank;
    if (!isLast && !bothFull && !leftRepeated && !rightRepeated) {
      close(x, y);
      x = y = 1;
    }
    x *= a[axis];
    y *= b[axis];
  }
  close(x, y);
  for (Dims* dims : {&merged.left, &merged.right, &merged.output}) std::reverse(dims->begin(), dims->end());
  return merged;
}

TiledDims mergeTiledAxes(const Dims& dims, const Dims& multiples) {
  TiledDims merged;
  for (std::size_t axis = 0; axis < dims.size(); ++axis) {
    if (axis > 0 && multiples[axis] == 1) {
      merged.input.back() *= dims[axis];
    } else {
      merged.input.push_back(dims[axis]);
      merged.multiples.push_back(multiples[axis]);
    }
  }
  for (std::size_t axis = 0; axis < merged.input.size(); ++axis) {
    merged.output.push_back(merged.input[axis] * merged.multiples[axis]);
  }
  return merged;
}

Dims PermutedDims::output() const {
  return IrTensorShape(input).permute(order).dims;
}

PermutedDims mergeAdjacentAxes(const PermutedDims& transpose) {
  const auto place = getInversePermutation(transpose.order);
  PermutedDims merged;
  std::vector<std::uint32_t> mergedPlace;  // in the output, of the first axis of each run
  for (std::size_t axis = 0; axis < transpose.input.size(); ++axis) {
    if (axis > 0 && place[axis] == place[axis - 1] + 1) {
      merged.input.back() *= transpose.input[axis];
    } else {
      merged.input.push_back(transpose.input[axis]);
      mergedPlace.push_back(place[axis]);
    }
  }
  merged.order.resize(merged.input.size());
  std::iota(merged.order.begin(), merged.order.end(), 0u);
  std::sort(merged.order.begin(), merged.order.end(),
            [&](std::uint32_t a, std::uint32_t b) { return mergedPlace[a] < mergedPlace[b]; });
  return merged;
}

PermutedDims dropUnitAxes(const PermutedDims& transpose) {
  PermutedDims rest;
  std::vector<std::uint32_t> newNumbers(transpose.input.size());
  for (std::size_t axis = 0; axis < transpose.input.size(); ++axis) {
    newNumbers[axis] = static_cast<std::uint32_t>(rest.input.size());
    if (transpose.input[axis] != 1) rest.input.push_back(transpose.input[axis]);
  }
  for (const std::uint32_t axis : transpose.order) {
    if (transpose.input[axis] != 1) rest.order.push_back(newNumbers[axis]);
  }
  return rest;
}

}  // namespace netforge::graphrefiner
