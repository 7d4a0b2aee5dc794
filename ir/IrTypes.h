#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace netforge {

class IrTensor;

/// Element types, with the numbers of the target runtime: the high byte is the class, the low byte mostly
/// the width in binary-coded decimal (BFLOAT_16 is the exception, so never compute a width from it).
/// Unscoped on purpose: the constants are used by their bare names throughout.
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

/// The constant's own name, "ORLO_DATATYPE_FLOAT_32"; "UNKNOWN" for a number that is no constant.
std::string getDataTypeName(DataType type);
/// The short form of dumps, "float32"; "undefined" for types without one.
std::string getDataTypeShortName(DataType type);
/// Float in the sense of quantisation: FLOAT_16 and FLOAT_32 only.
bool isFloatDataType(DataType type);
/// The eight fixed-point types of width 4, 8, 16 and 32; width 2 does not count.
bool isQuantizedType(DataType type);

/// Layouts. A letter names an axis: N batch, C channels, D depth, H height, W width, F feature, T time,
/// I input channels, O output channels. The enumerators are the string forms.
enum class AxisFormat : std::uint32_t {
  NCDHW = 0,
  NDHWC = 1,
  NCHW = 2,
  NHWC = 3,
  NCF = 4,
  NFC = 5,
  TNF = 6,
  NTF = 7,
  NF = 8,
  NC = 9,
  ANY = 10,
  NONTRIVIAL = 11,
  DHWIO = 12,
  DHWOI = 13,
  IODHW = 14,
  OIDHW = 15,
  HWIO = 16,
  HWOI = 17,
  IOHW = 18,
  OIHW = 19,
  FIO = 20,
  FOI = 21,
  IOF = 22,
  OIF = 23,
  NOT_YET_DEFINED = 0xFFFFFFFF
};
/// The string form, "NHWC"; "NOT_YET_DEFINED" also for a number that is no layout.
std::string axisFormatToString(AxisFormat format);

/// How the target runtime sees a tensor.
enum class TensorType : std::uint32_t {
  GraphInput = 0,        ///< written by the application
  GraphOutput = 1,       ///< read by the application
  GraphInputOutput = 2,  ///< both
  Native = 3,            ///< lives inside the graph
  Static = 4,            ///< constant data
  Null = 5,
  OptionalInput = 11,
  OptionalOutput = 12,
  OptionalInputOutput = 13,
  StaticOwnNumbering = 0x70000000  ///< static, in our own numbering; 4 towards the runtime
};

/// Which group of a QuantInfo is in force.
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

/// One scale and offset entry. Equal field by field, floats by value, so a NaN is never equal.
struct EncodingInfo {
  std::uint32_t bitwidth = 0;  ///< of the quantised value
  float minimum = 0.0f;        ///< lower end of the real range
  float maximum = 0.0f;        ///< upper end of the real range
  float scale = 0.0f;
  double offset = 0.0;  ///< zero point; the runtime gets it truncated to a signed 32-bit value
  bool isSymmetric = false;
  bool isFixedPoint = true;
  std::int32_t mappedWidth = 0;  ///< BwAxisScaleOffsetMapped takes it from the first entry
  bool operator==(const EncodingInfo& other) const;
  bool operator!=(const EncodingInfo& other) const;
};

/// The quantisation record of a tensor: a header (`encoding` to `auxDefinition`) and one group of fields
/// per encoding kind, of which only the one that `encoding` selects has meaning.
///
/// Copying takes the header and the group in force and leaves the other groups at their defaults. Two
/// records are equal when their headers and the group in force are; `arrayIndexTensor` compares by identity.
/// A kind up to 13 that has no group is compared by its header; an undefined kind above 13 equals nothing.
struct QuantInfo {
  QuantInfo();
  QuantInfo(const QuantInfo& other);
  /// Safe for the record itself and for an element of its own `arrayEncodings`.
  QuantInfo& operator=(const QuantInfo& other);
  bool operator==(const QuantInfo& other) const;
  bool operator!=(const QuantInfo& other) const;

  QuantEncodingKind encoding = QuantEncodingKind::Undefined;
  bool isOverridden = false;              ///< a float tensor's record that the user gave
  std::uint32_t definition = 0x7FFFFFFF;  ///< of the runtime's encoding definition; undefined by default
  std::uint32_t auxDefinition = 0x7FFFFFFF;
  // ScaleOffset, BwScaleOffset and Undefined.
  EncodingInfo scaleOffset;
  // AxisScaleOffset, BwAxisScaleOffset, BwAxisScaleOffsetMapped: one entry per channel of `axis`.
  std::int32_t axis = 0;
  std::vector<EncodingInfo> axisEncodings;
  // Block, BlockMapped.
  std::uint32_t blockFlags = 0;
  std::int32_t blockAxis = 0;
  std::uint32_t blockSize = 0;
  std::vector<EncodingInfo> blockEncodings;
  // SbqBlockwise; the reserved words are kept and compared, never read.
  std::int32_t sbqAxis = 0;
  std::uint32_t sbqReserved = 0;
  std::vector<EncodingInfo> sbqEncodings;
  std::uint32_t sbqBlocksPerAxis = 0;
  std::uint32_t sbqReserved2 = 0;
  std::uint32_t sbqBlockScaleBitwidth = 0;
  std::vector<std::uint8_t> sbqScales8;
  std::vector<std::uint16_t> sbqScales16;
  // LaneEncoding; the flags are kept and compared, never read.
  std::uint32_t laneAxis = 0;
  std::vector<EncodingInfo> laneEncodings;
  std::uint32_t laneCount = 0;
  std::uint32_t laneStride = 0;
  std::array<std::uint8_t, 5> laneFlags{};
  // ArrayEncoding.
  std::uint32_t arrayElementKind = 0x7FFFFFFF;
  std::vector<QuantInfo> arrayEncodings;
  std::shared_ptr<IrTensor> arrayIndexTensor;
  // TableEncoding.
  std::uint32_t tableKind = 0x7FFFFFFF;
  std::uint32_t tableCount = 0;
  std::vector<std::uint32_t> tableDims;
  std::uint32_t tableValue0 = 0;           // first of the two further values
  std::uint32_t tableValue1 = 0x7FFFFFFF;  // the second
  std::vector<std::uint8_t> tableBytes;
  std::vector<std::uint32_t> tableWords;
};

/// Sparse storage of a tensor; the two counts have meaning for layout 0, the one layout in use.
struct SparseParams {
  std::uint32_t layout = 0x7FFFFFFF;  ///< undefined by default: a dense tensor
  std::uint32_t numSpecifiedElements = 1;
  std::uint32_t numSparseDimensions = 1;
};

/// Where the bytes of a static tensor lie that has not been read yet. The range holds 32-bit floats when the
/// tensor's type is FLOAT_16, and the tensor's own bytes otherwise.
struct ExternalDataRef {
  std::string path;
  std::uint64_t offset = 0;           ///< bytes from the start of the file
  std::uint64_t length = 0;           ///< bytes in the file
  std::vector<std::uint64_t> values;  // carried, not read
  std::uint32_t extra = 0;            // carried, not read
};

}  // namespace netforge
