#include "tests/output/RecordText.h"

#include <cstdio>
#include "ir/Failure.h"
#include "ir/IrTypes.h"
#include "tests/support/TextValues.h"

namespace netforge::testing {

namespace {

template <class T>
std::string listText(const T* values, std::uint32_t count) {
  return concatText(std::vector<T>(values, values + count));
}

template <class Pair>
std::string pairsText(const Pair* pairs, std::uint32_t count) {
  std::string text;
  for (std::uint32_t i = 0; i < count; ++i) text += concatText(" ", pairs[i].scale, "/", pairs[i].offset);
  return text;
}

std::string bytesText(const void* data, std::uint32_t size) {
  std::string text;
  for (std::uint32_t i = 0; i < size; ++i) {
    char byte[3];
    std::snprintf(byte, sizeof byte, "%02x", static_cast<const std::uint8_t*>(data)[i]);
    if (i % 4 == 0) text += ' ';
    text += byte;
  }
  return text;
}

std::string scalarText(const Orlo_Scalar_t& scalar) {
  const auto type = static_cast<DataType>(scalar.dataType);
  if (type == ORLO_DATATYPE_STRING) return scalar.value.stringValue;
  if (isFloatDataType(type)) return concatText(scalar.value.floatValue);
  return concatText(scalar.value.raw);
}

}  // namespace

std::string quantText(const Orlo_QuantizeParams_t& params, std::uint32_t rank, std::uint32_t entries) {
  const auto more = [&](const auto&... parts) {
    return concatText(params.encodingDefinition, " kind ", params.quantizationEncoding, ":", parts...);
  };
  switch (params.quantizationEncoding) {
    case 0:
      return more(pairsText(&params.scaleOffset, 1));
    case 1:
      return more(" axis ", params.axisScaleOffset.axis,
                  pairsText(params.axisScaleOffset.scaleOffsets, params.axisScaleOffset.count));
    case 2:
      return more(" bits ", params.bwScaleOffset.bitwidth, " ", params.bwScaleOffset.scale, "/",
                  params.bwScaleOffset.offset);
    case 3: {
      const auto& group = params.bwAxisScaleOffset;
      return more(" bits ", group.bitwidth, " axis ", group.axis, " ", listText(group.scales, group.count),
                  listText(group.offsets, group.count));
    }
    case 4:
      return more(" ", listText(params.block.blockSizes, rank),
                  pairsText(params.block.scaleOffsets, entries));
    case 5:
      return more(" axis ", params.sbq->axis, " blocks ", params.sbq->sbqBlocksPerAxis, " bits ",
                  params.sbq->sbqBlockScaleBitwidth, " storage ", params.sbq->scaleStorage,
                  bytesText(params.sbq->blockScales, entries * (params.sbq->scaleStorage + 1)),
                  pairsText(params.sbq->scaleOffsets, entries));
    case 6: {
      const auto& lane = *params.lane;
      return more(" bits ", lane.bitwidth, " axis ", lane.axis, " ", listText(lane.slots, lane.count),
                  lane.reserved == nullptr ? " null " : " set ", lane.laneCount, " ", lane.laneStride, " ",
                  lane.flag2, " ", lane.flag3, " ", lane.flag4);
    }
    case 8: {
      const auto& group = *params.bwAxisMapped;
      return more(" bits ", group.bitwidth, " axis ", group.axis, " mapped ", group.mappedWidth, " ",
                  listText(group.scales, group.count), listText(group.offsets, group.count));
    }
    case 11:
      return more(" bits ", params.blockMapped.bitwidth, " ", listText(params.blockMapped.blockSizes, rank),
                  pairsText(params.blockMapped.scaleOffsets, entries));
    case 12: {
      const auto& table = *params.table;
      return more(" ", table.tableKind, " ", table.tableCount, " ", listText(table.tableDims, entries), " ",
                  table.value0, " ", table.value1, bytesText(table.table, 4 * entries));
    }
    case 13: {
      std::string text =
          more(" of ", params.arrayOf->arrayElementKind, " by ", params.arrayOf->indexTensor->name);
      for (std::uint32_t i = 0; i < params.arrayOf->count; ++i) {
        text += " {" + quantText(*params.arrayOf->elements[i], rank, entries) + "}";
      }
      return text;
    }
    default:
      return params.encodingDefinition == 0x7FFFFFFF ? "" : more();
  }
}

std::string tensorText(const Orlo_Tensor_t& tensor) {
  std::string text =
      concatText(tensor.name, tensor.dimensions == nullptr ? "[]" : listText(tensor.dimensions, tensor.rank),
                 " ", typeWord(static_cast<DataType>(tensor.dataType)), " type ", tensor.type);
  if (tensor.isDynamicDimensions != nullptr) {
    text += " dynamic" + bytesText(tensor.isDynamicDimensions, tensor.rank);
  }
  const auto& sparse = tensor.sparseParams;
  if (tensor.dataFormat != 0 || sparse.numSpecifiedElements != 0) {
    text += concatText(" sparse ", sparse.numSpecifiedElements, " ", sparse.numSparseDimensions);
  }
  const auto& buffer = tensor.clientBuf;
  if (buffer.dataSize != 0) text += concatText(" size ", buffer.dataSize);
  if (buffer.data != nullptr) text += " data" + bytesText(buffer.data, buffer.dataSize);
  const std::string quant = quantText(tensor.quantizeParams, tensor.rank, 2);
  return quant.empty() ? text : text + " quant " + quant;
}

std::string paramsText(const Orlo_OpConfig_t& config) {
  std::string text;
  for (std::uint32_t i = 0; i < config.numOfParams; ++i) {
    const Orlo_Param_t& param = config.params[i];
    if (i != 0) text += ", ";
    text += std::string(param.name) + "=";
    text += param.paramType == 1
                ? tensorText(param.tensor)
                : typeWord(static_cast<DataType>(param.scalar.dataType)) + " " + scalarText(param.scalar);
  }
  return text;
}

std::string configText(const Orlo_OpConfig_t& config) {
  std::string text = concatText(config.name, " ", config.packageName, " ",
                                config.typeName == nullptr ? "(null)" : config.typeName, "\n");
  text += "params " + paramsText(config) + "\n";
  for (std::uint32_t i = 0; i < config.numOfInputs; ++i) {
    text += "in " + tensorText(config.inputTensors[i]) + "\n";
  }
  for (std::uint32_t i = 0; i < config.numOfOutputs; ++i) {
    text += "out " + tensorText(config.outputTensors[i]) + "\n";
  }
  return text;
}

}  // namespace netforge::testing
