#include "python/bindings/RecordDicts.h"

#include <pybind11/numpy.h>

#include <cstring>
#include <vector>

#include "ir/IrTypes.h"
#include "python/bindings/NumpyData.h"

namespace netforge::bindings {

namespace {

using namespace py::literals;

py::object textOrNone(const char* text) {
  if (text == nullptr) return py::none();
  return py::str(text);
}

/// The enumerator, or the plain number when it is none.
template <class Enumeration>
py::object enumeratorOf(std::uint32_t number) {
  const py::object value = py::cast(static_cast<Enumeration>(number));
  const auto names = py::type::of(value).attr("__members__").cast<py::dict>();
  if (names.contains(value.attr("name"))) return value;
  return py::int_(number);
}

template <class T>
py::list listOf(const T* values, std::uint32_t count) {
  py::list list;
  for (std::uint32_t i = 0; values != nullptr && i < count; ++i) list.append(values[i]);
  return list;
}

py::dict pairDict(const Orlo_ScaleOffset_t& pair) {
  return py::dict("scale"_a = pair.scale, "offset"_a = pair.offset);
}

py::object scalarValue(const Orlo_Scalar_t& scalar) {
  switch (scalar.dataType) {
    case ORLO_DATATYPE_FLOAT_16:
    case ORLO_DATATYPE_FLOAT_32:
      return py::float_(scalar.value.floatValue);
    case ORLO_DATATYPE_STRING:
      return textOrNone(scalar.value.stringValue);
    case ORLO_DATATYPE_BOOL_8:
      return py::bool_(scalar.value.uint8Value != 0);
    case ORLO_DATATYPE_INT_8:
      return py::int_(static_cast<std::int8_t>(scalar.value.uint8Value));
    case ORLO_DATATYPE_INT_16:
      return py::int_(static_cast<std::int16_t>(scalar.value.uint16Value));
    case ORLO_DATATYPE_INT_32:
      return py::int_(scalar.value.int32Value);
    default:
      return py::int_(scalar.value.uint32Value);
  }
}

py::object dataOf(const Orlo_Tensor_t& tensor) {
  if (tensor.clientBuf.data == nullptr) return py::none();
  const auto type = static_cast<DataType>(tensor.dataType);
  std::vector<py::ssize_t> dims;
  std::uint64_t bytes = elementBytes(type);
  for (std::uint32_t i = 0; i < tensor.rank; ++i) {
    dims.push_back(tensor.dimensions[i]);
    bytes *= tensor.dimensions[i];
  }
  // Bytes as they lie when they are no elements in the order of the dims.
  const bool hasShape = elementBytes(type) != 0 && bytes == tensor.clientBuf.dataSize;
  py::array data = hasShape ? py::array(dtypeOf(type), dims)
                            : py::array(py::dtype("u1"), static_cast<py::ssize_t>(tensor.clientBuf.dataSize));
  std::memcpy(data.mutable_data(), tensor.clientBuf.data, tensor.clientBuf.dataSize);
  return data;
}

py::dict mappedFields(const Orlo_BwAxisScaleOffsetMapped_t& mapped) {
  return py::dict("bitwidth"_a = mapped.bitwidth, "axis"_a = mapped.axis,
                  "mappedWidth"_a = mapped.mappedWidth, "scales"_a = listOf(mapped.scales, mapped.count),
                  "offsets"_a = listOf(mapped.offsets, mapped.count));
}

py::dict laneFields(const Orlo_LaneExpansion_t& lane) {
  return py::dict("bitwidth"_a = lane.bitwidth, "axis"_a = lane.axis, "count"_a = lane.count,
                  "laneCount"_a = lane.laneCount, "laneStride"_a = lane.laneStride,
                  "flags"_a = py::make_tuple(lane.flag2, lane.flag3, lane.flag4));
}

py::dict sbqFields(const Orlo_SbqExpansion_t& sbq) {
  return py::dict("axis"_a = sbq.axis, "blocksPerAxis"_a = sbq.sbqBlocksPerAxis,
                  "blockScaleBitwidth"_a = sbq.sbqBlockScaleBitwidth, "scaleStorage"_a = sbq.scaleStorage);
}

py::dict tableFields(const Orlo_TableExpansion_t& table) {
  return py::dict("tableKind"_a = table.tableKind, "tableCount"_a = table.tableCount,
                  "value0"_a = table.value0, "value1"_a = table.value1);
}

py::dict arrayFields(const Orlo_ArrayOf_t& array, std::uint32_t rank) {
  py::list elements;
  for (std::uint32_t i = 0; i < array.count; ++i) {
    elements.append(quantizationDict(*array.elements[i], rank));
  }
  const char* index = array.indexTensor == nullptr ? nullptr : array.indexTensor->name;
  return py::dict("elementKind"_a = array.arrayElementKind, "elements"_a = elements,
                  "indexTensor"_a = textOrNone(index));
}

py::dict groupFields(const Orlo_QuantizeParams_t& params, std::uint32_t rank) {
  switch (static_cast<QuantEncodingKind>(params.quantizationEncoding)) {
    case QuantEncodingKind::ScaleOffset:
      return pairDict(params.scaleOffset);
    case QuantEncodingKind::AxisScaleOffset: {
      py::list pairs;
      for (std::uint32_t i = 0; i < params.axisScaleOffset.count; ++i) {
        pairs.append(pairDict(params.axisScaleOffset.scaleOffsets[i]));
      }
      return py::dict("axis"_a = params.axisScaleOffset.axis, "scaleOffsets"_a = pairs);
    }
    case QuantEncodingKind::BwScaleOffset:
      return py::dict("bitwidth"_a = params.bwScaleOffset.bitwidth, "scale"_a = params.bwScaleOffset.scale,
                      "offset"_a = params.bwScaleOffset.offset);
    case QuantEncodingKind::BwAxisScaleOffset: {
      const Orlo_BwAxisScaleOffset_t& group = params.bwAxisScaleOffset;
      return py::dict("bitwidth"_a = group.bitwidth, "axis"_a = group.axis,
                      "scales"_a = listOf(group.scales, group.count),
                      "offsets"_a = listOf(group.offsets, group.count));
    }
    case QuantEncodingKind::Block:
      return py::dict("blockSizes"_a = listOf(params.block.blockSizes, rank));
    case QuantEncodingKind::BlockMapped:
      return py::dict("bitwidth"_a = params.blockMapped.bitwidth,
                      "blockSizes"_a = listOf(params.blockMapped.blockSizes, rank));
    case QuantEncodingKind::BwAxisScaleOffsetMapped:
      return mappedFields(*params.bwAxisMapped);
    case QuantEncodingKind::SbqBlockwise:
      return sbqFields(*params.sbq);
    case QuantEncodingKind::LaneEncoding:
      return laneFields(*params.lane);
    case QuantEncodingKind::TableEncoding:
      return tableFields(*params.table);
    case QuantEncodingKind::ArrayEncoding:
      return params.arrayOf == nullptr ? py::dict() : arrayFields(*params.arrayOf, rank);
    default:
      return py::dict();
  }
}

}  // namespace

py::object quantizationDict(const Orlo_QuantizeParams_t& params, std::uint32_t rank) {
  constexpr auto kUndefined = static_cast<std::uint32_t>(QuantEncodingKind::Undefined);
  if (params.quantizationEncoding == kUndefined) return py::none();
  py::dict fields = groupFields(params, rank);
  fields["encoding"] = enumeratorOf<QuantEncodingKind>(params.quantizationEncoding);
  fields["definition"] = params.encodingDefinition;
  return fields;
}

py::dict tensorDict(const Orlo_Tensor_t& tensor) {
  py::set dynamicAxes;
  for (std::uint32_t i = 0; tensor.isDynamicDimensions != nullptr && i < tensor.rank; ++i) {
    if (tensor.isDynamicDimensions[i] != 0) dynamicAxes.add(i);
  }
  py::object sparse = py::none();
  if (tensor.dataFormat != 0) {
    sparse = py::dict("layout"_a = tensor.sparseParams.layout,
                      "numSpecifiedElements"_a = tensor.sparseParams.numSpecifiedElements,
                      "numSparseDimensions"_a = tensor.sparseParams.numSparseDimensions);
  }
  return py::dict("id"_a = tensor.id, "name"_a = textOrNone(tensor.name), "type"_a = tensor.type,
                  "dataType"_a = enumeratorOf<DataType>(tensor.dataType),
                  "dims"_a = listOf(tensor.dimensions, tensor.rank), "dynamicAxes"_a = dynamicAxes,
                  "data"_a = dataOf(tensor), "dataSize"_a = tensor.clientBuf.dataSize,
                  "quantization"_a = quantizationDict(tensor.quantizeParams, tensor.rank),
                  "sparse"_a = sparse);
}

py::dict opConfigDict(const Orlo_OpConfig_t& config) {
  const auto tensorsOf = [](const Orlo_Tensor_t* tensors, std::uint32_t count) {
    py::list list;
    for (std::uint32_t i = 0; i < count; ++i) list.append(tensorDict(tensors[i]));
    return list;
  };
  py::dict params;
  for (std::uint32_t i = 0; i < config.numOfParams; ++i) {
    const Orlo_Param_t& param = config.params[i];
    params[param.name] = param.paramType == 1
                             ? tensorDict(param.tensor)
                             : py::dict("dataType"_a = enumeratorOf<DataType>(param.scalar.dataType),
                                        "value"_a = scalarValue(param.scalar));
  }
  return py::dict("name"_a = textOrNone(config.name), "packageName"_a = textOrNone(config.packageName),
                  "typeName"_a = textOrNone(config.typeName), "params"_a = params,
                  "inputs"_a = tensorsOf(config.inputTensors, config.numOfInputs),
                  "outputs"_a = tensorsOf(config.outputTensors, config.numOfOutputs));
}

}  // namespace netforge::bindings
