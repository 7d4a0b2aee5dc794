#include "ops/Broadcast.h"

#include <optional>
#include <set>

#include "tests/ops/OpTestSupport.h"

namespace netforge::ops {
namespace {

using test::Dims;
using test::expectFailure;

const auto spatialFirst = std::make_shared<SpatialFirstAxisOrder>();
const auto spatialLast = std::make_shared<SpatialLastAxisOrder>();

struct DimsCase {
  Dims one;
  Dims two;
  std::shared_ptr<AxisOrder> axisOrder;
  bool permuted;
  Dims expected;
};

TEST(Broadcast, DimsFollowTheTrailingAxesOfTheLayout) {
  const DimsCase cases[] = {
      {{3, 1}, {2, 1, 4}, nullptr, false, {2, 3, 4}},
      {{2, 1, 4}, {3, 1}, nullptr, false, {2, 3, 4}},
      {{}, {5, 7}, nullptr, false, {5, 7}},
      {{1}, {0}, nullptr, false, {0}},
      {{2, 3, 5, 7}, {7}, spatialFirst, true, {2, 3, 5, 7}},
      // Channels lie behind batch: a rank-1 operand meets the channels, not the last axis.
      {{2, 3, 5, 7}, {3}, spatialLast, true, {2, 3, 5, 7}},
      {{1, 3, 5, 7}, {2, 1, 1, 1}, spatialLast, true, {2, 3, 5, 7}},
      // (3, 5) is (feature 5 last) against (batch 2, channels 5, width 3) as 2, 3, 5.
      {{3, 5}, {2, 5, 1}, spatialLast, true, {2, 5, 3}},
      {{2, 3, 5, 7}, {7}, spatialLast, false, {2, 3, 5, 7}},
  };
  for (const DimsCase& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.one) + " with " + testing::PrintToString(c.two));
    EXPECT_EQ(getBroadcastedShape(c.one, c.two, c.axisOrder, c.permuted), c.expected);
  }
}

TEST(Broadcast, ThreeDimsMeetInPairs) {
  EXPECT_EQ(getBroadcastedShape(Dims{2, 1, 1}, Dims{3, 1}, Dims{5}, nullptr, false), (Dims{2, 3, 5}));
  // The outer two do not fit each other although each fits the one in the middle.
  expectFailure<std::invalid_argument>(
      "netforge::ops::getBroadcastedShape: Unable to broadcast shapes: dimension mismatch at axis 0, "
      "dimsOne[0]=2 vs dimsTwo[0]=5",
      [] { getBroadcastedShape(Dims{2}, Dims{1}, Dims{5}, nullptr, false); });
}

TEST(Broadcast, DimsThatDoNotFitNameTheirPlaces) {
  expectFailure<std::invalid_argument>(
      "netforge::ops::getBroadcastedShape: Unable to broadcast shapes: dimension mismatch at axis 1, "
      "dimsOne[1]=3 vs dimsTwo[1]=4",
      [] {
        getBroadcastedShape(Dims{2, 3, 5}, Dims{4, 5}, nullptr, false);
      });
  // After the permutation the lists keep their own lengths: channels 3 stand at 3 of one, 7 at 0 of the
  // other.
  expectFailure<std::invalid_argument>(
      "netforge::ops::getBroadcastedShape: Unable to broadcast shapes: dimension mismatch at axis 3, "
      "dimsOne[3]=3 vs dimsTwo[0]=7",
      [] {
        getBroadcastedShape(Dims{2, 3, 5, 7}, Dims{7}, spatialLast, true);
      });
}

struct ShapeCase {
  IrTensorShape one;
  IrTensorShape two;
  std::optional<IrTensorShape> expected;  // none: refused
};

TEST(Broadcast, ShapesCarryTheirDynamicAxes) {
  const ShapeCase cases[] = {
      {IrTensorShape({2, 1, 5}), IrTensorShape({3, 1}), IrTensorShape({2, 3, 5})},
      {IrTensorShape({1, 5}), IrTensorShape({7, 5}, {0}), IrTensorShape({7, 5}, {0})},
      {IrTensorShape({7, 5}, {0}), IrTensorShape({1, 5}), IrTensorShape({7, 5}, {0})},
      // Padding in front moves the dynamic axis of the shorter shape.
      {IrTensorShape({2, 3, 1}), IrTensorShape({5}, {0}), IrTensorShape({2, 3, 5}, {2})},
      {IrTensorShape({1, 4}, {0}), IrTensorShape({1, 4}, {0}), IrTensorShape({1, 4}, {0})},
      // A dynamic placeholder of 1 is no broadcast axis, but meets a static 1.
      {IrTensorShape({1}, {0}), IrTensorShape({1}), IrTensorShape({1}, {0})},
      {IrTensorShape({1}), IrTensorShape({1}, {0}), IrTensorShape({1}, {0})},
      {IrTensorShape({1}, {0}), IrTensorShape({5}), std::nullopt},
      {IrTensorShape({5}), IrTensorShape({1}, {0}), std::nullopt},
      {IrTensorShape({5}, {0}), IrTensorShape({5}), std::nullopt},
      {IrTensorShape({5}, {0}), IrTensorShape({7}, {0}), std::nullopt},
  };
  for (const ShapeCase& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.one) + " with " + testing::PrintToString(c.two));
    if (c.expected) {
      EXPECT_EQ(getBroadcastedTensorShape(c.one, c.two), *c.expected);
    } else {
      EXPECT_THROW(getBroadcastedTensorShape(c.one, c.two), std::invalid_argument);
    }
  }
  expectFailure<std::invalid_argument>(
      "netforge::ops::getBroadcastedTensorShape: Unable to broadcast shapes: IrTensorShape(dims = [2,3] , "
      "dy_axes=[0]) and IrTensorShape(dims = [4] , dy_axes=[])",
      [] {
        getBroadcastedTensorShape(IrTensorShape({2, 3}, {0}), IrTensorShape({4}));
      });
}

}  // namespace
}  // namespace netforge::ops
