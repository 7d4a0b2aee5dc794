#include <gtest/gtest.h>

#include <stdexcept>

#include "ir/AxisOrder.h"
#include "tests/support/Failures.h"

namespace netforge {
namespace {

using testing::failureOf;
using Dims = AxisOrder::Dims;
using F = AxisFormat;

// Every axis letter has a size of its own, so the letters of two layouts say where each dim must go.
Dims dimsOf(const std::string& letters) {
  Dims dims;
  for (const char letter : letters) dims.push_back(static_cast<std::uint32_t>(letter));
  return dims;
}

std::string lettersOf(const Dims& dims) {
  return {dims.begin(), dims.end()};
}

class AxisOrders : public ::testing::Test {
 protected:
  const SpatialFirstAxisOrder first;
  const SpatialLastAxisOrder last;
  const OnnxAxisOrder onnx;
};

TEST_F(AxisOrders, NameLayoutsByRank) {
  struct Row {
    std::uint32_t rank;
    F first, firstSeries, last, lastSeries, weights, convLast, transposeConvLast;
  };
  const Row rows[] = {
      {0, F::NONTRIVIAL, F::NONTRIVIAL, F::NONTRIVIAL, F::NONTRIVIAL, F::NONTRIVIAL, F::NONTRIVIAL,
       F::NONTRIVIAL},
      {1, F::ANY, F::ANY, F::ANY, F::ANY, F::NONTRIVIAL, F::NONTRIVIAL, F::NONTRIVIAL},
      {2, F::NF, F::NF, F::NF, F::NF, F::NONTRIVIAL, F::NONTRIVIAL, F::NONTRIVIAL},
      {3, F::NFC, F::NTF, F::NCF, F::TNF, F::FIO, F::OIF, F::IOF},
      {4, F::NHWC, F::NHWC, F::NCHW, F::NCHW, F::HWIO, F::OIHW, F::IOHW},
      {5, F::NDHWC, F::NDHWC, F::NCDHW, F::NCDHW, F::DHWIO, F::OIDHW, F::IODHW},
      {6, F::NONTRIVIAL, F::NONTRIVIAL, F::NONTRIVIAL, F::NONTRIVIAL, F::NONTRIVIAL, F::NONTRIVIAL,
       F::NONTRIVIAL},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.rank);
    EXPECT_EQ(first.getAxisFormat(row.rank, false), row.first);
    EXPECT_EQ(first.getAxisFormat(row.rank, true), row.firstSeries);
    EXPECT_EQ(onnx.getAxisFormat(row.rank, false), row.last);
    EXPECT_EQ(onnx.getAxisFormat(row.rank, true), row.lastSeries);
    EXPECT_EQ(first.getConvWeightsFormat(row.rank), row.weights);
    EXPECT_EQ(first.getTransposeConvWeightsFormat(row.rank), row.weights);
    EXPECT_EQ(onnx.getConvWeightsFormat(row.rank), row.convLast);
    EXPECT_EQ(onnx.getTransposeConvWeightsFormat(row.rank), row.transposeConvLast);
  }
}

TEST_F(AxisOrders, TakeDimsApartAsTheirLayoutsSay) {
  for (const AxisOrder* order :
       {static_cast<const AxisOrder*>(&first), static_cast<const AxisOrder*>(&last)}) {
    for (std::uint32_t rank = 3; rank <= 5; ++rank) {
      SCOPED_TRACE(rank);
      const auto layout = [](F format) { return dimsOf(axisFormatToString(format)); };
      EXPECT_EQ(order->extractSpatialDims(layout(order->getAxisFormat(rank, false))),
                layout(first.getAxisFormat(rank, false)));
      EXPECT_EQ(order->extractConvWeightsDims(layout(order->getConvWeightsFormat(rank))),
                layout(first.getConvWeightsFormat(rank)));
      EXPECT_EQ(order->extractTransposeConvWeightsDims(layout(order->getTransposeConvWeightsFormat(rank))),
                layout(first.getTransposeConvWeightsFormat(rank)));
    }
    EXPECT_EQ(
        lettersOf(order->extractTimeSeriesDims(dimsOf(axisFormatToString(order->getAxisFormat(3, true))))),
        "NTF");
  }
  EXPECT_EQ(first.extractFcWeightsDims({7, 9}), (Dims{7, 9}));
  EXPECT_EQ(last.extractFcWeightsDims({7, 9}), (Dims{9, 7}));
}

TEST_F(AxisOrders, BuildDimsOfTheirLayouts) {
  for (const AxisOrder* order :
       {static_cast<const AxisOrder*>(&first), static_cast<const AxisOrder*>(&last)}) {
    const auto expected = [order](std::uint32_t rank, bool series) {
      return axisFormatToString(order->getAxisFormat(rank, series));
    };
    EXPECT_EQ(lettersOf(order->makeSpatial1dDims('N', 'F', 'C')), expected(3, false));
    EXPECT_EQ(lettersOf(order->makeSpatial2dDims('N', 'H', 'W', 'C')), expected(4, false));
    EXPECT_EQ(lettersOf(order->makeSpatial3dDims('N', 'D', 'H', 'W', 'C')), expected(5, false));
    EXPECT_EQ(lettersOf(order->makeTimeSeriesDims('N', 'T', 'F')), expected(3, true));
  }
}

struct PermuteRow {
  F format;
  bool isConvWeights;
  bool isTransposeConvWeights;
  const char* ir;
  const char* source;
};

TEST_F(AxisOrders, PermuteBetweenIrAndSourceLayouts) {
  const PermuteRow rows[] = {
      {F::NDHWC, true, false, "DHWIO", "OIDHW"},
      {F::NCDHW, true, false, "DHWIO", "OIDHW"},
      {F::NDHWC, false, true, "DHWIO", "IODHW"},
      {F::NCDHW, false, true, "DHWIO", "IODHW"},
      {F::NHWC, true, false, "HWIO", "OIHW"},
      {F::NCHW, true, false, "HWIO", "OIHW"},
      {F::NHWC, false, true, "HWIO", "IOHW"},
      {F::NCHW, false, true, "HWIO", "IOHW"},
      {F::NTF, false, false, "NTF", "TNF"},
      {F::TNF, true, false, "NTF", "TNF"},
      {F::NTF, false, true, "NTF", "TNF"},
      {F::NOT_YET_DEFINED, false, false, "N", "N"},
      {F::NOT_YET_DEFINED, false, false, "NF", "NF"},
      {F::NOT_YET_DEFINED, false, false, "NFC", "NCF"},
      {F::NOT_YET_DEFINED, false, false, "NHWC", "NCHW"},
      {F::NOT_YET_DEFINED, false, false, "NDHWC", "NCDHW"},
      // The rank decides, whatever the format and the flag say.
      {F::NDHWC, false, false, "NHWC", "NCHW"},
      {F::NF, true, false, "NHWC", "NCHW"},
      {F::NOT_YET_DEFINED, false, false, "", ""},
  };
  for (const PermuteRow& row : rows) {
    SCOPED_TRACE(row.ir);
    const Dims ir = dimsOf(row.ir);
    const Dims source = dimsOf(row.source);
    EXPECT_EQ(last.permuteDimsFromIr(ir, row.format, row.isConvWeights, row.isTransposeConvWeights), source);
    EXPECT_EQ(last.permuteDimsToIr(source, row.format, row.isConvWeights, row.isTransposeConvWeights), ir);
    EXPECT_EQ(first.permuteDimsFromIr(ir, row.format, row.isConvWeights, row.isTransposeConvWeights), ir);
    EXPECT_EQ(first.permuteDimsToIr(ir, row.format, row.isConvWeights, row.isTransposeConvWeights), ir);

    // A shape takes its dynamic axis along: mark the first axis of the IR layout.
    if (ir.empty()) continue;
    const auto moved = static_cast<std::uint32_t>(std::string(row.source).find(row.ir[0]));
    const IrTensorShape irShape(ir, {0});
    const IrTensorShape sourceShape(source, {moved});
    EXPECT_EQ(last.permuteShapeFromIr(irShape, row.format, row.isConvWeights, row.isTransposeConvWeights),
              sourceShape);
    EXPECT_EQ(last.permuteShapeToIr(sourceShape, row.format, row.isConvWeights, row.isTransposeConvWeights),
              irShape);
    EXPECT_EQ(first.permuteShapeToIr(sourceShape, row.format, row.isConvWeights, row.isTransposeConvWeights),
              sourceShape);
  }
}

// Weights over one spatial axis have an order of their own towards IR only.
TEST_F(AxisOrders, WeightsOverOneSpatialAxisAreNotSymmetric) {
  for (const F format : {F::NCF, F::NFC}) {
    EXPECT_EQ(lettersOf(last.permuteDimsToIr(dimsOf("OIF"), format, true, false)), "FIO");
    EXPECT_EQ(lettersOf(last.permuteDimsToIr(dimsOf("IOF"), format, false, true)), "FIO");
    EXPECT_EQ(lettersOf(last.permuteDimsFromIr(dimsOf("FIO"), format, true, false)), "FOI");
    EXPECT_EQ(lettersOf(last.permuteDimsFromIr(dimsOf("FIO"), format, false, true)), "FOI");
  }
}

TEST_F(AxisOrders, FailuresOfExtraction) {
  struct Row {
    Dims (AxisOrder::*extract)(const Dims&) const;
    Dims dims;
    const char* function;
    const char* firstText;
    const char* lastText;
  };
  const char* conv = "Invalid dimension rank 2 for extracting conv weights, expected rank 3, 4, or 5";
  const char* transposeConv =
      "Invalid dimension rank 6 for extracting transpose conv weights, expected rank 3, 4, or 5";
  const char* timeSeries = "Invalid dimension rank 4 for extracting time series dims, expected rank 3";
  const char* fc = "Shape needs to be of length 2 for FC weights, but got length 3";
  const Row rows[] = {
      {&AxisOrder::extractSpatialDims, Dims(2, 1), "extractSpatialDims",
       "Invalid dimension rank 2 for extracting spatial dims, expected rank 3, 4, or 5",
       "Invalid dimension rank 2 for extracting tensor, expected rank 3, 4, or 5"},
      {&AxisOrder::extractTimeSeriesDims, Dims(4, 1), "extractTimeSeriesDims", timeSeries, timeSeries},
      {&AxisOrder::extractConvWeightsDims, Dims(2, 1), "extractConvWeightsDims", conv, conv},
      {&AxisOrder::extractFcWeightsDims, Dims(3, 1), "extractFcWeightsDims", fc, fc},
      {&AxisOrder::extractTransposeConvWeightsDims, Dims(6, 1), "extractTransposeConvWeightsDims",
       transposeConv, transposeConv},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { (first.*row.extract)(row.dims); }),
              std::string("netforge::SpatialFirstAxisOrder::") + row.function + ": " + row.firstText);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { (onnx.*row.extract)(row.dims); }),
              std::string("netforge::SpatialLastAxisOrder::") + row.function + ": " + row.lastText);
  }
}

TEST_F(AxisOrders, FailuresOfPermutation) {
  const std::string both = "These dimensions cannot represent both conv weights and deconv weights.";
  const Dims dims(6, 2);
  const IrTensorShape shape(dims);
  const struct {
    const char* className;
    const AxisOrder* order;
  } classes[] = {{"netforge::SpatialFirstAxisOrder::", &first}, {"netforge::SpatialLastAxisOrder::", &last}};
  for (const auto& [className, order] : classes) {
    SCOPED_TRACE(className);
    const AxisOrder& each = *order;
    const std::string head = className;
    // Before any other test: TNF has an order, rank 6 has none.
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { each.permuteDimsFromIr(dims, F::TNF, true, true); }),
              head + "permuteDimsFromIr: " + both);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { each.permuteDimsToIr(dims, F::TNF, true, true); }),
              head + "permuteDimsToIr: " + both);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { each.permuteShapeFromIr(shape, F::ANY, true, true); }),
              head + "permuteShapeFromIr: " + both);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { each.permuteShapeToIr(shape, F::ANY, true, true); }),
              head + "permuteShapeToIr: " + both);
  }
  EXPECT_EQ(
      failureOf<std::invalid_argument>([&] { last.permuteDimsToIr(dims, F::NHWC, false, false); }),
      "netforge::SpatialLastAxisOrder::permuteDimsToIr: Cannot assume permute order of dimensions with rank "
      "6, maximum supported rank is 5");
  EXPECT_EQ(
      failureOf<std::invalid_argument>([&] { last.permuteShapeFromIr(shape, F::NHWC, false, false); }),
      "netforge::SpatialLastAxisOrder::permuteShapeFromIr: Cannot assume permute order of shape with rank "
      "6, maximum supported rank is 5");
  EXPECT_EQ(first.permuteDimsToIr(dims, F::NHWC, false, false), dims);
  // An order picked by the format that does not suit the rank.
  EXPECT_EQ(
      failureOf<std::invalid_argument>([&] {
        last.permuteDimsToIr({1, 2, 3}, F::NCHW, true, false);
      }),
      "netforge::IrTensorShape::permute: IrTensorShape permute error: permute order [2,3,1,0] does not have "
      "the same rank as TensorShape [1,2,3]");
}

}  // namespace
}  // namespace netforge
