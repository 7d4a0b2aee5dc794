#include <algorithm>
#include <optional>
#include <random>
#include "DataMovementSupport.h"
#include "ops/SliceOps.h"

namespace netforge::ops {
namespace {

using namespace netforge::test;
using Words = std::vector<std::int32_t>;

/// The elements that begin:end:stride picks from `dim` elements, with the rules of array slicing in Python. A
/// negative stride with end -1 runs to the first element.
Words slice(std::int32_t dim, std::int32_t begin, std::int32_t end, std::int32_t stride) {
  const std::int32_t lowest = stride > 0 ? 0 : -1;
  const auto place = [&](std::int32_t bound) {
    return std::clamp(bound < 0 ? bound + dim : bound, lowest, lowest + dim);
  };
  const std::int32_t stop = stride < 0 && end == -1 ? -1 : place(end);
  Words picked;
  for (std::int32_t i = place(begin); stride > 0 ? i < stop : i > stop; i += stride) picked.push_back(i);
  return picked;
}

/// The elements of a row whose bounds are places already.
Words walk(std::int32_t begin, std::int32_t end, std::int32_t stride) {
  Words picked;
  for (std::int32_t i = begin; stride > 0 ? i < end : i > end; i += stride) picked.push_back(i);
  return picked;
}

Words rangesOf(IrOp& op) {
  IrStaticTensor& ranges = *op.getAttributes()->getStaticTensor("ranges");
  const auto* words = ranges.getDataAs<std::int32_t>();
  return Words(words, words + ranges.getDataSize() / 4);
}

/// Size along the only axis, nothing where the op refuses the row.
std::optional<std::uint32_t> sizeOf(StridedSliceOp& op) {
  try {
    op.canonicalizeOp(1);
    return op.inferOutputShapes(spatialFirst, 1).front().front();
  } catch (const std::invalid_argument&) {
    return std::nullopt;
  }
}

TEST(StridedSliceOp, EveryRowOfSmallAxes) {
  for (std::int32_t dim = 1; dim <= 5; ++dim) {
    const Tensor x = tensor({static_cast<std::uint32_t>(dim)});
    for (std::int32_t begin = -7; begin <= 7; ++begin) {
      for (std::int32_t end = -7; end <= 7; ++end) {
        for (const std::int32_t stride : {-6, -3, -2, -1, 1, 2, 3, 6}) {
          SCOPED_TRACE(testing::Message() << begin << ':' << end << ':' << stride << " of " << dim);
          const Words expected = slice(dim, begin, end, stride);
          const auto op = build<StridedSliceOp>(Attrs().list("ranges", {begin, end, stride}), {x});
          const auto size = sizeOf(*op.op);
          if (expected.empty()) {
            EXPECT_EQ(size.value_or(0), 0u);  // refused, or known to be empty
            continue;
          }
          ASSERT_EQ(size, expected.size());
          const Words row = rangesOf(*op.op);
          EXPECT_EQ(walk(row[0], row[1], row[2]), expected);
          op->canonicalizeOp(1);
          EXPECT_EQ(rangesOf(*op.op), row);
        }
      }
    }
  }
}

TEST(StridedSliceOp, NewAndShrunkAxes) {
  std::mt19937 random(20240917);
  const auto below = [&](std::uint32_t bound) { return static_cast<std::uint32_t>(random() % bound); };
  for (int round = 0; round < 3000; ++round) {
    const std::uint32_t rank = 1 + below(4);
    Dims dims, sizes;
    Words rows;
    while (dims.size() < rank) {
      const auto dim = static_cast<std::int32_t>(1 + below(9));
      const auto begin = static_cast<std::int32_t>(below(20)) - 10;
      const auto end = static_cast<std::int32_t>(below(20)) - 10;
      const auto stride = static_cast<std::int32_t>(below(7)) - 3;
      if (stride == 0 || slice(dim, begin, end, stride).empty()) continue;
      dims.push_back(static_cast<std::uint32_t>(dim));
      sizes.push_back(static_cast<std::uint32_t>(slice(dim, begin, end, stride).size()));
      rows.insert(rows.end(), {begin, end, stride});
    }
    const std::uint32_t newAxes = below(4) == 0 ? below(256) : below(256) & below(256) & below(256);
    const std::uint32_t shrunkAxes = below(256) & below(256);

    // The places of the masks run over new axes and axes of the input as they would be written in brackets. A
    // new axis stands in front of a row, so there is none behind the last.
    Dims expected;
    std::uint32_t axis = 0;
    for (std::uint32_t place = 0; axis < rank; ++place) {
      if (((newAxes >> place) & 1u) != 0) {
        expected.push_back(1);
      } else {
        if (((shrunkAxes >> place) & 1u) == 0) expected.push_back(sizes[axis]);
        ++axis;
      }
    }
    const auto op = build<StridedSliceOp>(Attrs()
                                              .list("ranges", rows)
                                              .set("new_axes_mask", newAxes)
                                              .set("shrink_axes", shrunkAxes)
                                              .set("begin_mask", below(16))
                                              .set("end_mask", below(16)),
                                          {tensor(dims)});
    op->canonicalizeOp(1);
    ASSERT_EQ(op->inferOutputShapes(spatialFirst, 1), std::vector<Dims>{expected}) << "round " << round;
  }
}

TEST(StridedSliceOp, DynamicAxes) {
  const auto op =
      build<StridedSliceOp>(Attrs().list("ranges", {1, 4, 1, 0, 8, 1, 0, 9, 4}), {tensor({7, 8, 9}, {0, 1})});
  EXPECT_EQ(op->inferOutputTensorShapes(spatialFirst, 1),
            std::vector<IrTensorShape>{IrTensorShape({3, 8, 3}, {1})});

  struct Case {
    std::int32_t begin, end;
    std::uint32_t size;
    bool staysDynamic;
  };
  for (const Case& test : std::vector<Case>{
           {0, 7, 7, true}, {-3, 7, 3, false}, {2, -1, 4, true}, {2, 5, 3, false}, {2, 7, 5, false}}) {
    EXPECT_EQ(op->calcSliceSizeDynamic(test.begin, test.end, 1, 0),
              std::make_pair(test.size, test.staysDynamic))
        << test.begin << ':' << test.end;
  }
}

TEST(StridedSliceOp, Failures) {
  const auto& invalid = typeid(std::invalid_argument);
  const auto& runtime = typeid(std::runtime_error);
  const Tensor x = tensor({5});
  const Tensor dynamic = tensor({7, 8}, {1});
  const auto canonicalize = [&](const Words& row) {
    return [=] { build<StridedSliceOp>(Attrs().list("ranges", row), {x})->canonicalizeOp(1); };
  };
  const auto infer = [](const Attrs& attrs, const std::vector<Tensor>& inputs) {
    return [=] { build<StridedSliceOp>(attrs, inputs)->inferOutputShapes(spatialFirst, 1); };
  };
  const auto inferDynamic = [&](const char* mask) {
    return [=] {
      build<StridedSliceOp>(Attrs().list("ranges", {0, 7, 1, 0, 8, 1}).set(mask, 2u), {dynamic})
          ->inferOutputTensorShapes(spatialFirst, 1);
    };
  };
  const auto dynamicSize = [&](std::int32_t begin, std::int32_t end, std::int32_t stride) {
    return [=] { build<StridedSliceOp>(Attrs(), {dynamic})->calcSliceSizeDynamic(begin, end, stride, 1); };
  };
  const std::string canonical = "netforge::ops::StridedSliceOp::canonicalizeOp: ";
  const std::string inference = "netforge::ops::StridedSliceOp::inferOutputTensorShapes: ";
  const std::string dims = "netforge::ops::StridedSliceOp::inferOutputShapes: ";
  const std::string size = "netforge::ops::StridedSliceOp::calcSliceSizeDynamic: For StridedSlice op op ";
  const std::string masked = " with value 2 is not supported in op op which has dynamic dimensions.";
  const std::string combination = " stride = 1 is not supported for axis 1 with dynamic dimensions.";
  expectFailures({
      // The bounds are reported as they were given.
      {invalid, canonical + "invalid stride 1 for begin -2 and end -4 at axis 0", canonicalize({-2, -4, 1})},
      {invalid, canonical + "invalid stride 2 for begin 5 and end 9 at axis 0", canonicalize({5, 9, 2})},
      {invalid, canonical + "invalid stride -1 for begin -9 and end -9 at axis 0",
       canonicalize({-9, -9, -1})},
      {typeid(std::out_of_range), "Index out of bounds for IrStaticTensor", canonicalize({0, 5})},
      {invalid, inference + "invalid stride 0 for begin 0 and end 5 at axis 0",
       infer(Attrs().list("ranges", {0, 5, 0}), {x})},
      {invalid, inference + "Unsupported length for ranges in op. Expected length of ranges >= 2, but got 1.",
       infer(Attrs().list("ranges", {0, 5, 1}), {tensor({5, 6})})},
      {invalid, inference + "Attribute new_axes_mask" + masked, inferDynamic("new_axes_mask")},
      {invalid, inference + "Attribute shrink_axes" + masked, inferDynamic("shrink_axes")},
      {invalid, inference + "Attribute begin_mask" + masked, inferDynamic("begin_mask")},
      {invalid, inference + "Attribute end_mask" + masked, inferDynamic("end_mask")},
      {invalid, dims + "StridedSliceOp op inputs have dynamic shapes. Use inferOutputTensorShapes instead.",
       infer(Attrs().list("ranges", {0, 7, 1, 0, 8, 1}), {dynamic})},
      {runtime, dims + "No output shapes infered for op op.", infer(Attrs(), {})},
      {runtime, size + "stride 2 is not supported for axis 1 with dynamic dimensions.", dynamicSize(0, 8, 2)},
      {runtime, size + "combination of  begin = -2 end = 3" + combination, dynamicSize(-2, 3, 1)},
      {runtime, size + "combination of  begin = 3 end = 3" + combination, dynamicSize(3, 3, 1)},
      {runtime, size + "combination of  begin = 6 end = -5" + combination, dynamicSize(6, -5, 1)},
  });
}

}  // namespace
}  // namespace netforge::ops
