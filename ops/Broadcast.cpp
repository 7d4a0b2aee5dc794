#include "ops/Broadcast.h"

#include <algorithm>
#include <set>

#include "ops/OpFailure.h"

namespace netforge::ops {

namespace {

using Dims = std::vector<std::uint32_t>;

}  // namespace

Dims getBroadcastedShape(const Dims& dimsOne, const Dims& dimsTwo,
                         const std::shared_ptr<AxisOrder>& axisOrder, bool permuted) {
  Dims one = dimsOne;
  Dims two = dimsTwo;
  if (permuted) {
    one = axisOrder->permuteDimsToIr(one, AxisFormat::NOT_YET_DEFINED, false, false);
    two = axisOrder->permuteDimsToIr(two, AxisFormat::NOT_YET_DEFINED, false, false);
  } else {
    const auto rank = static_cast<std::uint32_t>(std::max(one.size(), two.size()));
    one = IrTensorShape::padDimsToRank(one, rank);
    two = IrTensorShape::padDimsToRank(two, rank);
  }

  // The longer list keeps its leading axes, the shared trailing ones are broadcast in place.
  Dims result = one.size() >= two.size() ? one : two;
  const std::size_t shared = std::min(one.size(), two.size());
  for (std::size_t back = 1; back <= shared; ++back) {
    const std::size_t i = one.size() - back;
    const std::size_t j = two.size() - back;
    if (one[i] != two[j] && one[i] != 1 && two[j] != 1) {
      throwInvalidArgument("netforge::ops::getBroadcastedShape",
                           "Unable to broadcast shapes: dimension mismatch at axis ", i, ", dimsOne[", i,
                           "]=", one[i], " vs dimsTwo[", j, "]=", two[j]);
    }
    result[result.size() - back] = one[i] == 1 ? two[j] : one[i];
  }
  return permuted ? axisOrder->permuteDimsFromIr(result, AxisFormat::NOT_YET_DEFINED, false, false) : result;
}

Dims getBroadcastedShape(const Dims& dimsOne, const Dims& dimsTwo, const Dims& dimsThree,
                         const std::shared_ptr<AxisOrder>& axisOrder, bool permuted) {
  return getBroadcastedShape(getBroadcastedShape(dimsOne, dimsTwo, axisOrder, permuted),
                             getBroadcastedShape(dimsTwo, dimsThree, axisOrder, permuted), axisOrder,
                             permuted);
}

IrTensorShape getBroadcastedTensorShape(const IrTensorShape& shapeOne, const IrTensorShape& shapeTwo) {
  const std::uint32_t rank = std::max(shapeOne.rank(), shapeTwo.rank());
  const IrTensorShape one = shapeOne.padToRank(rank);
  const IrTensorShape two = shapeTwo.padToRank(rank);
  Dims dims(rank);
  std::set<std::uint32_t> dynamicAxes;
  for (std::uint32_t axis = rank; axis-- > 0;) {
    const bool oneDynamic = one.isDynamicDim(axis);
    const bool twoDynamic = two.isDynamicDim(axis);
    const bool equal = one.dims[axis] == two.dims[axis] && oneDynamic == twoDynamic;
    const bool oneBroadcasts = one.dims[axis] == 1 && !oneDynamic;
    const bool twoBroadcasts = two.dims[axis] == 1 && !twoDynamic;
    if (!equal && !oneBroadcasts && !twoBroadcasts) {
      throwInvalidArgument("netforge::ops::getBroadcastedTensorShape",
                           "Unable to broadcast shapes: ", shapeOne, " and ", shapeTwo);
    }
    const bool takeTwo = !equal && oneBroadcasts;
    dims[axis] = takeTwo ? two.dims[axis] : one.dims[axis];
    if (takeTwo ? twoDynamic : oneDynamic) dynamicAxes.insert(axis);
  }
  return IrTensorShape(dims, dynamicAxes);
}

}  // namespace netforge::ops
