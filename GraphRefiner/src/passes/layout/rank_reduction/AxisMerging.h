#pragma once

#include <cstdint>
#include <vector>

namespace netforge::graphrefiner {

// Which axes of a row-major tensor can be one axis. Dims are outermost first; nothing here touches a graph.

using Dims = std::vector<std::uint32_t>;

std::uint32_t product(const Dims& dims);

/// Merges every run of axes that are not kept into one axis. `keptAxes` is sorted and rewritten to the new
/// numbers; an axis behind the last one stays as far behind it. [2,3,4,5,6,7] with 1 and 4 kept gives
/// [2,3,20,6,7] with 1 and 3 kept.
void mergeDimsExcept(Dims& dims, std::vector<std::uint32_t>& keptAxes);

/// Merges what lies in front of the axis and what lies behind it, up to three axes in all. `axis` becomes its
/// new number. Nothing is put in front of axis 0, and nothing behind the last one.
void foldAroundAxis(Dims& dims, std::uint32_t& axis);

/// The operands and the result of a broadcasting op of two inputs, all of one rank.
struct BroadcastDims {
  Dims left;
  Dims right;
  Dims output;
};
/// Merges neighbouring axes along which both operands are full, or the same one is repeated.
BroadcastDims mergeBroadcastAxes(const Dims& left, const Dims& right);

/// A tiled tensor: its dims, the multiple of each axis, the dims of the result.
struct TiledDims {
  Dims input;
  Dims multiples;
  Dims output;
};
/// Merges each axis that is not repeated into the one in front of it: the block is then repeated as a whole.
TiledDims mergeTiledAxes(const Dims& dims, const Dims& multiples);

/// A Transpose: dims of the input, and for each output axis the input axis that it takes.
struct PermutedDims {
  Dims input;
  std::vector<std::uint32_t> order;

  Dims output() const;
};
/// Merges input axes that stay neighbours in the same order.
PermutedDims mergeAdjacentAxes(const PermutedDims& transpose);
/// Leaves out axes of size 1, which carry no data.
PermutedDims dropUnitAxes(const PermutedDims& transpose);

}  // namespace netforge::graphrefiner
