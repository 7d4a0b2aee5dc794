#include "ir/IrTypes.h"

#include <iterator>

namespace netforge {

namespace {

struct DataTypeRow {
  DataType type;
  const char* name;
  const char* shortName;
};

constexpr const char* kNoShortName = "undefined";

constexpr DataTypeRow kDataTypes[] = {
    {ORLO_DATATYPE_INT_2, "ORLO_DATATYPE_INT_2", kNoShortName},
    {ORLO_DATATYPE_INT_4, "ORLO_DATATYPE_INT_4", kNoShortName},
    {ORLO_DATATYPE_INT_8, "ORLO_DATATYPE_INT_8", "int8"},
    {ORLO_DATATYPE_INT_16, "ORLO_DATATYPE_INT_16", "int16"},
    {ORLO_DATATYPE_INT_32, "ORLO_DATATYPE_INT_32", "int32"},
    {ORLO_DATATYPE_INT_64, "ORLO_DATATYPE_INT_64", "int64"},
    {ORLO_DATATYPE_UINT_2, "ORLO_DATATYPE_UINT_2", kNoShortName},
    {ORLO_DATATYPE_UINT_4, "ORLO_DATATYPE_UINT_4", kNoShortName},
    {ORLO_DATATYPE_UINT_8, "ORLO_DATATYPE_UINT_8", "uint8"},
    {ORLO_DATATYPE_UINT_16, "ORLO_DATATYPE_UINT_16", "uint16"},
    {ORLO_DATATYPE_UINT_32, "ORLO_DATATYPE_UINT_32", "uint32"},
    {ORLO_DATATYPE_UINT_64, "ORLO_DATATYPE_UINT_64", "uint64"},
    {ORLO_DATATYPE_FLOAT_4, "ORLO_DATATYPE_FLOAT_4", kNoShortName},
    {ORLO_DATATYPE_FLOAT_8, "ORLO_DATATYPE_FLOAT_8", kNoShortName},
    {ORLO_DATATYPE_FLOAT_16, "ORLO_DATATYPE_FLOAT_16", "float16"},
    {ORLO_DATATYPE_BFLOAT_16, "ORLO_DATATYPE_BFLOAT_16", kNoShortName},
    {ORLO_DATATYPE_FLOAT_32, "ORLO_DATATYPE_FLOAT_32", "float32"},
    {ORLO_DATATYPE_FLOAT_64, "ORLO_DATATYPE_FLOAT_64", kNoShortName},
    {ORLO_DATATYPE_SFIXED_POINT_2, "ORLO_DATATYPE_SFIXED_POINT_2", kNoShortName},
    {ORLO_DATATYPE_SFIXED_POINT_4, "ORLO_DATATYPE_SFIXED_POINT_4", "qint4"},
    {ORLO_DATATYPE_SFIXED_POINT_8, "ORLO_DATATYPE_SFIXED_POINT_8", "qint8"},
    {ORLO_DATATYPE_SFIXED_POINT_16, "ORLO_DATATYPE_SFIXED_POINT_16", "qint16"},
    {ORLO_DATATYPE_SFIXED_POINT_32, "ORLO_DATATYPE_SFIXED_POINT_32", "qint32"},
    {ORLO_DATATYPE_UFIXED_POINT_2, "ORLO_DATATYPE_UFIXED_POINT_2", kNoShortName},
    {ORLO_DATATYPE_UFIXED_POINT_4, "ORLO_DATATYPE_UFIXED_POINT_4", "quint4"},
    {ORLO_DATATYPE_UFIXED_POINT_8, "ORLO_DATATYPE_UFIXED_POINT_8", "quint8"},
    {ORLO_DATATYPE_UFIXED_POINT_16, "ORLO_DATATYPE_UFIXED_POINT_16", "quint16"},
    {ORLO_DATATYPE_UFIXED_POINT_32, "ORLO_DATATYPE_UFIXED_POINT_32", "quint32"},
    {ORLO_DATATYPE_BOOL_8, "ORLO_DATATYPE_BOOL_8", "bool"},
    {ORLO_DATATYPE_STRING, "ORLO_DATATYPE_STRING", "str"},
    {ORLO_DATATYPE_UNDEFINED, "ORLO_DATATYPE_UNDEFINED", kNoShortName},
};

const DataTypeRow* findDataType(DataType type) {
  for (const DataTypeRow& row : kDataTypes) {
    if (row.type == type) return &row;
  }
  return nullptr;
}

// By number, from 0 on.
constexpr const char* kAxisFormats[] = {
    "NCDHW", "NDHWC", "NCHW",  "NHWC",  "NCF",  "NFC",  "TNF",  "NTF",  "NF",  "NC",  "ANY", "NONTRIVIAL",
    "DHWIO", "DHWOI", "IODHW", "OIDHW", "HWIO", "HWOI", "IOHW", "OIHW", "FIO", "FOI", "IOF", "OIF"};

}  // namespace

std::string getDataTypeName(DataType type) {
  const DataTypeRow* row = findDataType(type);
  return row ? row->name : "UNKNOWN";
}

std::string getDataTypeShortName(DataType type) {
  const DataTypeRow* row = findDataType(type);
  return row ? row->shortName : kNoShortName;
}

bool isFloatDataType(DataType type) {
  return type == ORLO_DATATYPE_FLOAT_16 || type == ORLO_DATATYPE_FLOAT_32;
}

bool isQuantizedType(DataType type) {
  switch (type) {
    case ORLO_DATATYPE_SFIXED_POINT_4:
    case ORLO_DATATYPE_SFIXED_POINT_8:
    case ORLO_DATATYPE_SFIXED_POINT_16:
    case ORLO_DATATYPE_SFIXED_POINT_32:
    case ORLO_DATATYPE_UFIXED_POINT_4:
    case ORLO_DATATYPE_UFIXED_POINT_8:
    case ORLO_DATATYPE_UFIXED_POINT_16:
    case ORLO_DATATYPE_UFIXED_POINT_32:
      return true;
    default:
      return false;
  }
}

std::string axisFormatToString(AxisFormat format) {
  const auto number = static_cast<std::uint32_t>(format);
  return number < std::size(kAxisFormats) ? kAxisFormats[number] : "NOT_YET_DEFINED";
}

}  // namespace netforge
