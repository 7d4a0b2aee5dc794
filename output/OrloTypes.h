#pragma once

#include <cstddef>
#include <cstdint>

// The records by which the target runtime describes an op. They are exchanged byte for byte, so every offset
// and width is checked at compile time. Plain structures that own nothing: who fills them says what their
// pointers lead to. All widths are those of a 64-bit machine.

static_assert(sizeof(void*) == 8 && sizeof(float) == 4, "the records are laid out for 64-bit machines");

#define ORLO_FIELD(record, field, at, width)                                   \
  static_assert(offsetof(record, field) == (at), #record "." #field " moved"); \
  static_assert(sizeof(record::field) == (width), #record "." #field " changed its width")
#define ORLO_SIZE(record, size) static_assert(sizeof(record) == (size), #record " changed its size")

struct Orlo_ScaleOffset_t {
  float scale;
  std::int32_t offset;
};
ORLO_SIZE(Orlo_ScaleOffset_t, 8);
ORLO_FIELD(Orlo_ScaleOffset_t, scale, 0, 4);
ORLO_FIELD(Orlo_ScaleOffset_t, offset, 4, 4);

/// The pairs of encoding 11, whose offsets are not whole numbers.
struct Orlo_FloatScaleOffset_t {
  float scale;
  float offset;
};
ORLO_SIZE(Orlo_FloatScaleOffset_t, 8);
ORLO_FIELD(Orlo_FloatScaleOffset_t, scale, 0, 4);
ORLO_FIELD(Orlo_FloatScaleOffset_t, offset, 4, 4);

/// Encoding 8.
struct Orlo_BwAxisScaleOffsetMapped_t {
  std::uint32_t bitwidth;
  std::int32_t axis;
  std::uint32_t mappedWidth;
  std::uint32_t count;
  float* scales;          // `count` values
  std::int32_t* offsets;  // `count` values
};
ORLO_SIZE(Orlo_BwAxisScaleOffsetMapped_t, 32);
ORLO_FIELD(Orlo_BwAxisScaleOffsetMapped_t, bitwidth, 0, 4);
ORLO_FIELD(Orlo_BwAxisScaleOffsetMapped_t, axis, 4, 4);
ORLO_FIELD(Orlo_BwAxisScaleOffsetMapped_t, mappedWidth, 8, 4);
ORLO_FIELD(Orlo_BwAxisScaleOffsetMapped_t, count, 12, 4);
ORLO_FIELD(Orlo_BwAxisScaleOffsetMapped_t, scales, 16, 8);
ORLO_FIELD(Orlo_BwAxisScaleOffsetMapped_t, offsets, 24, 8);

/// Encoding 5.
struct Orlo_SbqExpansion_t {
  std::int32_t axis;
  Orlo_ScaleOffset_t* scaleOffsets;
  std::uint32_t sbqBlocksPerAxis;
  std::uint32_t sbqBlockScaleBitwidth;
  std::uint32_t scaleStorage;  // of blockScales: 0 for 8-bit, 1 for 16-bit values
  void* blockScales;
};
ORLO_SIZE(Orlo_SbqExpansion_t, 40);
ORLO_FIELD(Orlo_SbqExpansion_t, axis, 0, 4);
ORLO_FIELD(Orlo_SbqExpansion_t, scaleOffsets, 8, 8);
ORLO_FIELD(Orlo_SbqExpansion_t, sbqBlocksPerAxis, 16, 4);
ORLO_FIELD(Orlo_SbqExpansion_t, sbqBlockScaleBitwidth, 20, 4);
ORLO_FIELD(Orlo_SbqExpansion_t, scaleStorage, 24, 4);
ORLO_FIELD(Orlo_SbqExpansion_t, blockScales, 32, 8);

/// Encoding 6. The slots are zeros; `reserved` is null.
struct Orlo_LaneExpansion_t {
  std::uint32_t bitwidth;
  std::uint32_t axis;
  std::uint32_t count;
  std::uint32_t* slots;  // `count` values
  void* reserved;
  std::uint32_t laneCount;
  std::uint32_t laneStride;
  std::uint8_t flag2;  // the third of the record's five flags, counted from 0
  std::uint8_t flag3;
  std::uint8_t flag4;
};
ORLO_SIZE(Orlo_LaneExpansion_t, 48);
ORLO_FIELD(Orlo_LaneExpansion_t, bitwidth, 0, 4);
ORLO_FIELD(Orlo_LaneExpansion_t, axis, 4, 4);
ORLO_FIELD(Orlo_LaneExpansion_t, count, 8, 4);
ORLO_FIELD(Orlo_LaneExpansion_t, slots, 16, 8);
ORLO_FIELD(Orlo_LaneExpansion_t, reserved, 24, 8);
ORLO_FIELD(Orlo_LaneExpansion_t, laneCount, 32, 4);
ORLO_FIELD(Orlo_LaneExpansion_t, laneStride, 36, 4);
ORLO_FIELD(Orlo_LaneExpansion_t, flag2, 40, 1);
ORLO_FIELD(Orlo_LaneExpansion_t, flag3, 41, 1);
ORLO_FIELD(Orlo_LaneExpansion_t, flag4, 42, 1);

/// Encoding 12.
struct Orlo_TableExpansion_t {
  std::uint32_t tableKind;
  std::uint32_t tableCount;
  std::uint32_t* tableDims;
  std::uint32_t value0;
  std::uint32_t value1;
  void* table;  // bytes or 32-bit words; may be null
};
ORLO_SIZE(Orlo_TableExpansion_t, 32);
ORLO_FIELD(Orlo_TableExpansion_t, tableKind, 0, 4);
ORLO_FIELD(Orlo_TableExpansion_t, tableCount, 4, 4);
ORLO_FIELD(Orlo_TableExpansion_t, tableDims, 8, 8);
ORLO_FIELD(Orlo_TableExpansion_t, value0, 16, 4);
ORLO_FIELD(Orlo_TableExpansion_t, value1, 20, 4);
ORLO_FIELD(Orlo_TableExpansion_t, table, 24, 8);

struct Orlo_Tensor_t;
struct Orlo_QuantizeParams_t;

/// Encoding 13.
struct Orlo_ArrayOf_t {
  std::uint32_t arrayElementKind;
  std::uint32_t count;
  Orlo_Tensor_t* indexTensor;  // null when there is none
  Orlo_QuantizeParams_t** elements;
};
ORLO_SIZE(Orlo_ArrayOf_t, 24);
ORLO_FIELD(Orlo_ArrayOf_t, arrayElementKind, 0, 4);
ORLO_FIELD(Orlo_ArrayOf_t, count, 4, 4);
ORLO_FIELD(Orlo_ArrayOf_t, indexTensor, 8, 8);
ORLO_FIELD(Orlo_ArrayOf_t, elements, 16, 8);

// The groups of Orlo_QuantizeParams_t, which begin at its offset 8.

/// Encoding 1.
struct Orlo_AxisScaleOffset_t {
  std::int32_t axis;
  std::uint32_t count;
  Orlo_ScaleOffset_t* scaleOffsets;
};

/// Encoding 2.
struct Orlo_BwScaleOffset_t {
  std::uint32_t bitwidth;
  float scale;
  std::int32_t offset;
};

/// Encoding 3.
struct Orlo_BwAxisScaleOffset_t {
  std::uint32_t bitwidth;
  std::int32_t axis;
  std::uint32_t count;
  float* scales;
  std::int32_t* offsets;
};

/// Encoding 4.
struct Orlo_Block_t {
  std::uint32_t* blockSizes;  // one per dimension of the tensor
  Orlo_ScaleOffset_t* scaleOffsets;
};

/// Encoding 11.
struct Orlo_BlockMapped_t {
  std::uint32_t bitwidth;
  std::uint32_t* blockSizes;  // one per dimension of the tensor
  Orlo_FloatScaleOffset_t* scaleOffsets;
};

/// Quantisation of a tensor; 0x7FFFFFFF in either word means undefined.
struct Orlo_QuantizeParams_t {
  std::uint32_t encodingDefinition;
  std::uint32_t quantizationEncoding;  // which group is in force
  union {
    Orlo_ScaleOffset_t scaleOffset;                // 0
    Orlo_AxisScaleOffset_t axisScaleOffset;        // 1
    Orlo_BwScaleOffset_t bwScaleOffset;            // 2
    Orlo_BwAxisScaleOffset_t bwAxisScaleOffset;    // 3
    Orlo_Block_t block;                            // 4
    Orlo_SbqExpansion_t* sbq;                      // 5
    Orlo_LaneExpansion_t* lane;                    // 6
    Orlo_BwAxisScaleOffsetMapped_t* bwAxisMapped;  // 8
    Orlo_BlockMapped_t blockMapped;                // 11
    Orlo_TableExpansion_t* table;                  // 12
    Orlo_ArrayOf_t* arrayOf;                       // 13
    std::uint8_t raw[32];
  };
};
ORLO_SIZE(Orlo_QuantizeParams_t, 40);
ORLO_FIELD(Orlo_QuantizeParams_t, encodingDefinition, 0, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, quantizationEncoding, 4, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, scaleOffset, 8, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, scaleOffset.scale, 8, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, scaleOffset.offset, 12, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, axisScaleOffset, 8, 16);
ORLO_FIELD(Orlo_QuantizeParams_t, axisScaleOffset.axis, 8, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, axisScaleOffset.count, 12, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, axisScaleOffset.scaleOffsets, 16, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, bwScaleOffset, 8, 12);
ORLO_FIELD(Orlo_QuantizeParams_t, bwScaleOffset.bitwidth, 8, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, bwScaleOffset.scale, 12, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, bwScaleOffset.offset, 16, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, bwAxisScaleOffset, 8, 32);
ORLO_FIELD(Orlo_QuantizeParams_t, bwAxisScaleOffset.bitwidth, 8, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, bwAxisScaleOffset.axis, 12, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, bwAxisScaleOffset.count, 16, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, bwAxisScaleOffset.scales, 24, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, bwAxisScaleOffset.offsets, 32, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, block, 8, 16);
ORLO_FIELD(Orlo_QuantizeParams_t, block.blockSizes, 8, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, block.scaleOffsets, 16, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, sbq, 8, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, lane, 8, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, bwAxisMapped, 8, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, blockMapped, 8, 24);
ORLO_FIELD(Orlo_QuantizeParams_t, blockMapped.bitwidth, 8, 4);
ORLO_FIELD(Orlo_QuantizeParams_t, blockMapped.blockSizes, 16, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, blockMapped.scaleOffsets, 24, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, table, 8, 8);
ORLO_FIELD(Orlo_QuantizeParams_t, arrayOf, 8, 8);

struct Orlo_ClientBuffer_t {
  void* data;              // row-major, or null
  std::uint32_t dataSize;  // bytes, also when there is no data
};

struct Orlo_SparseParams_t {
  std::uint32_t layout;
  std::uint32_t numSpecifiedElements;  // 0 unless the layout is 0
  std::uint32_t numSparseDimensions;   // 0 unless the layout is 0
};

struct Orlo_Tensor_t {
  std::uint32_t version;
  alignas(8) std::uint32_t id;  // left alone, it would follow the version without a gap
  const char* name;
  std::uint32_t type;        // runtime tensor type
  std::uint32_t dataFormat;  // 0 dense, 1 sparse
  std::uint32_t dataType;
  Orlo_QuantizeParams_t quantizeParams;
  std::uint32_t rank;
  std::uint32_t* dimensions;  // null for rank 0
  std::uint32_t memType;
  Orlo_ClientBuffer_t clientBuf;
  std::uint8_t* isDynamicDimensions;  // one byte per axis; null without dynamic axes
  Orlo_SparseParams_t sparseParams;
};
ORLO_SIZE(Orlo_Tensor_t, 144);
ORLO_FIELD(Orlo_Tensor_t, version, 0, 4);
ORLO_FIELD(Orlo_Tensor_t, id, 8, 4);
ORLO_FIELD(Orlo_Tensor_t, name, 16, 8);
ORLO_FIELD(Orlo_Tensor_t, type, 24, 4);
ORLO_FIELD(Orlo_Tensor_t, dataFormat, 28, 4);
ORLO_FIELD(Orlo_Tensor_t, dataType, 32, 4);
ORLO_FIELD(Orlo_Tensor_t, quantizeParams, 40, 40);
ORLO_FIELD(Orlo_Tensor_t, rank, 80, 4);
ORLO_FIELD(Orlo_Tensor_t, dimensions, 88, 8);
ORLO_FIELD(Orlo_Tensor_t, memType, 96, 4);
ORLO_FIELD(Orlo_Tensor_t, clientBuf, 104, 16);
ORLO_FIELD(Orlo_Tensor_t, clientBuf.data, 104, 8);
ORLO_FIELD(Orlo_Tensor_t, clientBuf.dataSize, 112, 4);
ORLO_FIELD(Orlo_Tensor_t, isDynamicDimensions, 120, 8);
ORLO_FIELD(Orlo_Tensor_t, sparseParams, 128, 12);
ORLO_FIELD(Orlo_Tensor_t, sparseParams.layout, 128, 4);
ORLO_FIELD(Orlo_Tensor_t, sparseParams.numSpecifiedElements, 132, 4);
ORLO_FIELD(Orlo_Tensor_t, sparseParams.numSparseDimensions, 136, 4);

/// A scalar of any type, in the low bytes of eight.
union Orlo_ScalarValue_t {
  std::uint8_t uint8Value;
  std::uint16_t uint16Value;
  std::uint32_t uint32Value;
  std::int32_t int32Value;
  float floatValue;
  const char* stringValue;
  std::uint64_t raw;
};
ORLO_SIZE(Orlo_ScalarValue_t, 8);

struct Orlo_Scalar_t {
  std::uint32_t dataType;
  Orlo_ScalarValue_t value;
};

struct Orlo_Param_t {
  std::uint32_t paramType;  // 0 scalar, 1 tensor
  const char* name;
  union {
    Orlo_Scalar_t scalar;
    Orlo_Tensor_t tensor;
  };
};
ORLO_SIZE(Orlo_Param_t, 160);
ORLO_FIELD(Orlo_Param_t, paramType, 0, 4);
ORLO_FIELD(Orlo_Param_t, name, 8, 8);
ORLO_FIELD(Orlo_Param_t, scalar, 16, 16);
ORLO_FIELD(Orlo_Param_t, scalar.dataType, 16, 4);
ORLO_FIELD(Orlo_Param_t, scalar.value, 24, 8);
ORLO_FIELD(Orlo_Param_t, tensor, 16, 144);

struct Orlo_OpConfig_t {
  std::uint32_t version;
  const char* name;
  const char* packageName;
  const char* typeName;  // null when the runtime has no type for the op
  std::uint32_t numOfParams;
  Orlo_Param_t* params;
  std::uint32_t numOfInputs;
  Orlo_Tensor_t* inputTensors;
  std::uint32_t numOfOutputs;
  Orlo_Tensor_t* outputTensors;
};
ORLO_SIZE(Orlo_OpConfig_t, 80);
ORLO_FIELD(Orlo_OpConfig_t, version, 0, 4);
ORLO_FIELD(Orlo_OpConfig_t, name, 8, 8);
ORLO_FIELD(Orlo_OpConfig_t, packageName, 16, 8);
ORLO_FIELD(Orlo_OpConfig_t, typeName, 24, 8);
ORLO_FIELD(Orlo_OpConfig_t, numOfParams, 32, 4);
ORLO_FIELD(Orlo_OpConfig_t, params, 40, 8);
ORLO_FIELD(Orlo_OpConfig_t, numOfInputs, 48, 4);
ORLO_FIELD(Orlo_OpConfig_t, inputTensors, 56, 8);
ORLO_FIELD(Orlo_OpConfig_t, numOfOutputs, 64, 4);
ORLO_FIELD(Orlo_OpConfig_t, outputTensors, 72, 8);

#undef ORLO_FIELD
#undef ORLO_SIZE
