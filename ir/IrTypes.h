#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace netforge {

class IrTensor;

// Unscoped on purpose: the constants are used by their bare names throughout.
enum DataType : std::uint32_t {
  ORLO_DATATYPE_INT_2 = 0x0002,
  ORLO_DATATYPE_INT_4 = 0x0004,
  ORLO_DATATYPE_INT_8 = 0x0008,
  ORLO_DATATYPE_INT_16 = 0x0016,
  ORLO_DATATYPE_INT_32 = 0x0032,
  ORLO_DATATYPE_INT_64 = 0x0064,
  ORLO_DATATYPE_UINT_2 = 0x0102,
  ORLO_DATATYPE_UINT_4 = 0x0104,
  ORLO_DATATYPE_UINT_8 = 0x0108,
  ORLO_DATATYPE_UINT_16 = 0x0116,
  ORLO_DATATYPE_UINT_32 = 0x0132,
  ORLO_DATATYPE_UINT_64 = 0x0164,
  ORLO_DATATYPE_FLOAT_4 = 0x0204,
  ORLO_DATATYPE_FLOAT_8 = 0x0208,
  ORLO_DATATYPE_FLOAT_16 = 0x0216,
  ORLO_DATATYPE_BFLOAT_16 = 0x0226,
  ORLO_DATATYPE_FLOAT_32 = 0x0232,
  ORLO_DATATYPE_FLOAT_64 = 0x0264,
  ORLO_DATATYPE_SFIXED_POINT_2 = 0x0302,
  ORLO_DATATYPE_SFIXED_POINT_4 = 0x0304,
  ORLO_DATATYPE_SFIXED_POINT_8 = 0x0308,
  ORLO_DATATYPE_SFIXED_POINT_16 = 0x0316,
  ORLO_DATATYPE_SFIXED_POINT_32 = 0x0332,
  ORLO_DATATYPE_UFIXED_POINT_2 = 0x0402,
  ORLO_DATATYPE_UFIXED_POINT_4 = 0x0404,
  ORLO_DATATYPE_UFIXED_POINT_8 = 0x0408,
  ORLO_DATATYPE_UFIXED_POINT_16 = 0x0416,
  ORLO_DATATYPE_UFIXED_POINT_32 = 0x0432,
  ORLO_DATATYPE_BOOL_8 = 0x0508,
  ORLO_DATATYPE_STRING = 0x0608,
  ORLO_DATATYPE_UNDEFINED = 0x7FFFFFFF
};

std::string getDataTypeName(DataType type);       // "ORLO_DATATYPE_...", "UNKNOWN" for other values
std::string getDataTypeShortName(DataType type);  // "float32" ..., "undefined" without one
bool isFloatDataType(DataType type);              // FLOAT_16 and FLOAT_32 only
bool isQuantizedType(DataType type);              // the eight fixed-point types of width 4 to 32

// Scoped; the enumerators are the string forms.
enum class AxisFormat : std::uint32_t {
  NCDHW = 0, NDHWC = 1, NCHW = 2, NHWC = 3, NCF = 4, NFC = 5, TNF = 6, NTF = 7,
  NF = 8, NC = 9, ANY = 10, NONTRIVIAL = 11,
  DHWIO = 12, DHWOI = 13, IODHW = 14, OIDHW = 15,
  HWIO = 16, HWOI = 17, IOHW = 18, OIHW = 19,
  FIO = 20, FOI = 21, IOF = 22, OIF = 23,
  NOT_YET_DEFINED = 0xFFFFFFFF
};
std::string axisFormatToString(AxisFormat format);


enum class TensorType : std::uint32_t {
  GraphInput = 0,
  GraphOutput = 1,
  GraphInputOutput = 2,
  Native = 3,
  Static = 4,
  Null = 5,
  OptionalInput = 11,
  OptionalOutput = 12,
  OptionalInputOutput = 13,
  StaticOwnNumbering = 0x70000000
};

enum class QuantEncodingKind : std::uint32_t {
  ScaleOffset = 0,
  AxisScaleOffset = 1,
  BwScaleOffset = 2,
  BwAxisScaleOffset = 3,
  Block = 4,
  SbqBlockwise = 5,
  LaneEncoding = 6,
  BwAxisScaleOffsetMapped = 8,
  BlockMapped = 11,
  TableEncoding = 12,
  ArrayEncoding = 13,
  Undefined = 0x7FFFFFFF
};

struct EncodingInfo {
  std::uint32_t bitwidth = 0;
  float minimum = 0.0f;
  float maximum = 0.0f;
  float scale = 0.0f;
  double offset = 0.0;
  bool isSymmetric = false;
  bool isFixedPoint = true;
  std::int32_t mappedWidth = 0;
  bool operator==(const EncodingInfo& other) const;
  bool operator!=(const EncodingInfo& other) const;
};

struct QuantInfo {
  QuantInfo();
  QuantInfo(const QuantInfo& other);             // same rule as assignment
  QuantInfo& operator=(const QuantInfo& other);  // header and the group in force; other groups reset
  bool operator==(const QuantInfo& other) const;
  bool operator!=(const QuantInfo& other) const;

  QuantEncodingKind encoding = QuantEncodingKind::Undefined;
  bool isOverridden = false;
  std::uint32_t definition = 0x7FFFFFFF;
  std::uint32_t auxDefinition = 0x7FFFFFFF;
  EncodingInfo scaleOffset;
  // kinds 1, 3, 8
  std::int32_t axis = 0;
  std::vector<EncodingInfo> axisEncodings;
  // kinds 4, 11
  std::uint32_t blockFlags = 0;
  std::int32_t blockAxis = 0;
  std::uint32_t blockSize = 0;
  std::vector<EncodingInfo> blockEncodings;
  // kind 5
  std::int32_t sbqAxis = 0;
  std::uint32_t sbqReserved = 0;
  std::vector<EncodingInfo> sbqEncodings;
  std::uint32_t sbqBlocksPerAxis = 0;
  std::uint32_t sbqReserved2 = 0;
  std::uint32_t sbqBlockScaleBitwidth = 0;
  std::vector<std::uint8_t> sbqScales8;
  std::vector<std::uint16_t> sbqScales16;
  // kind 6
  std::uint32_t laneAxis = 0;
  std::vector<EncodingInfo> laneEncodings;
  std::uint32_t laneCount = 0;
  std::uint32_t laneStride = 0;
  std::array<std::uint8_t, 5> laneFlags{};
  // kind 13
  std::uint32_t arrayElementKind = 0x7FFFFFFF;
  std::vector<QuantInfo> arrayEncodings;
  std::shared_ptr<IrTensor> arrayIndexTensor;
  // kind 12
  std::uint32_t tableKind = 0x7FFFFFFF;
  std::uint32_t tableCount = 0;
  std::vector<std::uint32_t> tableDims;
  std::uint32_t tableValue0 = 0;           // first of the two further values
  std::uint32_t tableValue1 = 0x7FFFFFFF;  // the second
  std::vector<std::uint8_t> tableBytes;
  std::vector<std::uint32_t> tableWords;
};

struct SparseParams {
  std::uint32_t layout = 0x7FFFFFFF;
  std::uint32_t numSpecifiedElements = 1;
  std::uint32_t numSparseDimensions = 1;
};

struct ExternalDataRef {
  std::string path;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  std::vector<std::uint64_t> values;  // carried, not read
  std::uint32_t extra = 0;            // carried, not read
};

}  // namespace netforge
