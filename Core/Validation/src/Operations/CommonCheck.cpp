#include "Core/Validation/src/Operations/CommonCheck.h"

#include <algorithm>
#include <string_view>
#include "Core/Validation/src/Operations/ValidationCommonUtil.h"
#include "ir/IrTypes.h"

namespace netforge {

namespace {

constexpr std::uint32_t kScalarParam = 0;
constexpr std::uint32_t kTensorParam = 1;
constexpr std::uint32_t kNullTensor = 5;
constexpr std::uint32_t kSparse = 1;
constexpr std::uint32_t kClientMemory = 0;

constexpr std::string_view kSparseTypes[] = {
    "Conv3d", "CreateSparse", "Batchnorm", "Conv2d", "GetSparseIndices", "GetSparseValues", "SparseToDense",
};

constexpr std::string_view kDynamicTypes[] = {
    "Reshape",
    "MatMul",
    "Transpose",
    "Concat",
    "Softmax",
    "Sigmoid",
    "ElementWiseNeuron",
    "Cast",
    "Convert",
    "ElementWiseSquareRoot",
    "ReduceMean",
    "ElementWiseUnary",
    "Conv2d",
    "StridedSlice",
    "Gather",
    "ExpandDims",
    "Squeeze",
    "RmsNorm",
    "ReduceSum",
    "ElementWiseBinary",
    "ElementWiseAdd",
    "FullyConnected",
    "ElementWiseDivide",
    "ElementWiseMultiply",
    "ElementWisePower",
    "ElementWiseSubtract",
    "DepthWiseConv2d",
    "RandomNormalLike",
    "RandomUniformLike",
};

template <std::size_t N>
bool isOneOf(std::string_view type, const std::string_view (&types)[N]) {
  return std::find(std::begin(types), std::end(types), type) != std::end(types);
}

std::uint32_t countOfParams(const Orlo_OpConfig_t& config) {
  return config.params == nullptr ? 0 : config.numOfParams;
}

/// Whether the first scalar parameter "operation" has this value.
bool hasOperation(const Orlo_OpConfig_t& config, std::uint32_t operation) {
  for (std::uint32_t i = 0; i < countOfParams(config); ++i) {
    const Orlo_Param_t& param = config.params[i];
    if (param.paramType != kScalarParam || param.name == nullptr) continue;
    if (std::string_view(param.name) == "operation") return param.scalar.value.uint32Value == operation;
  }
  return false;
}

bool allowsSparse(const Orlo_OpConfig_t& config) {
  constexpr std::uint32_t kAdd = 0;
  constexpr std::uint32_t kRelu = 4;
  const std::string_view type = config.typeName;
  if (type == "ElementWiseBinary") return hasOperation(config, kAdd);
  if (type == "ElementWiseNeuron") return hasOperation(config, kRelu);
  return isOneOf(type, kSparseTypes);
}

bool isSparseTensorSound(const Orlo_Tensor_t& tensor) {
  if (tensor.sparseParams.layout != 0) {
    logValidation(ORLO_LOG_ERROR, "Sparse tensors must have a hybrid COO layout.\n");
  } else if (tensor.sparseParams.numSpecifiedElements == 0) {
    logValidation(ORLO_LOG_ERROR, "Sparse tensors cannot have zero maximum specified elements.\n");
  } else if (tensor.sparseParams.numSparseDimensions > tensor.rank) {
    logValidation(ORLO_LOG_ERROR,
                  "Number of sparse dimensions must be less than or equal to the tensor rank.\n");
  } else if (tensor.sparseParams.numSparseDimensions == 0) {
    logValidation(ORLO_LOG_ERROR, "Number of sparse dimensions must be greater than zero.\n");
  } else {
    return true;
  }
  return false;
}

bool isTensorSound(const Orlo_Tensor_t& tensor) {
  if (tensor.rank != 0 && tensor.dimensions == nullptr) {
    logValidation(ORLO_LOG_ERROR, "Tensor of id %u has NULL dimensions.\n", tensor.id);
  } else if (tensor.rank == 0 && tensor.dimensions != nullptr) {
    logValidation(ORLO_LOG_ERROR, "Tensor of id %u has rank 0 and must have NULL dimensions.\n", tensor.id);
  } else if (tensor.dataType == ORLO_DATATYPE_STRING) {
    // Users match this text as it is.
    logValidation(ORLO_LOG_ERROR, "Tensor of id &u has invalid datatype: ORLO_DATATYPE_STRING.\n");
  } else {
    return tensor.version < 2 || tensor.dataFormat != kSparse || isSparseTensorSound(tensor);
  }
  return false;
}

bool hasDynamicDimensions(const Orlo_Tensor_t& tensor) {
  if (tensor.version != 2 || tensor.isDynamicDimensions == nullptr) return false;
  return std::any_of(tensor.isDynamicDimensions, tensor.isDynamicDimensions + tensor.rank,
                     [](std::uint8_t isDynamic) { return isDynamic != 0; });
}

struct Allowed {
  bool sparse;
  bool dynamic;
};

/// `role` is "Input" or "Output".
bool areTensorsSound(const Orlo_Tensor_t* tensors, std::uint32_t count, const char* role,
                     const Allowed& allowed) {
  if (tensors == nullptr && count != 0) {
    logValidation(ORLO_LOG_ERROR, "%s tensors missing.\n", role);
    return false;
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    const Orlo_Tensor_t& tensor = tensors[i];
    if (tensor.type == kNullTensor) continue;
    if (!isTensorSound(tensor)) {
      logValidation(ORLO_LOG_ERROR, "%s tensor %u failed common validation.\n", role, tensor.id);
    } else if (tensor.dataFormat == kSparse && !allowed.sparse) {
      logValidation(ORLO_LOG_ERROR, "Tensor is incorrectly sparse\n");
    } else if (!allowed.dynamic && hasDynamicDimensions(tensor)) {
      logValidation(ORLO_LOG_ERROR, "Tensor incorrectly has dynamic dimensions.\n");
    } else {
      continue;
    }
    return false;
  }
  return true;
}

bool areParamsSound(const Orlo_OpConfig_t& config) {
  for (std::uint32_t i = 0; i < config.numOfParams; ++i) {
    if (config.params == nullptr) {
      logValidation(ORLO_LOG_ERROR, "Null param passed at index %u.\n", i);
      return false;
    }
    const Orlo_Param_t& param = config.params[i];
    if (param.name == nullptr) {
      logValidation(ORLO_LOG_ERROR, "Param at index %u missing name.\n", i);
      return false;
    }
    if (param.paramType != kTensorParam) continue;
    if (!isTensorSound(param.tensor)) {
      logValidation(ORLO_LOG_ERROR, "Tensor param %u failed common validation.\n", param.tensor.id);
      return false;
    }
    if (param.tensor.memType != kClientMemory || param.tensor.clientBuf.data == nullptr) {
      logValidation(ORLO_LOG_ERROR, "NULL buffer provided to param %s.\n", param.name);
      return false;
    }
  }
  return true;
}

bool isSound(const Orlo_OpConfig_t& config) {
  if (config.version != 1 || config.name == nullptr) {
    logValidation(ORLO_LOG_ERROR, "Op config missing name.\n");
    return false;
  }
  if (config.packageName == nullptr) {
    logValidation(ORLO_LOG_ERROR, "Op config %s missing package name.\n", config.name);
    return false;
  }
  if (config.typeName == nullptr) {
    logValidation(ORLO_LOG_ERROR, "Op config %s missing opType.\n", config.name);
    return false;
  }
  const Allowed allowed = {allowsSparse(config), isOneOf(config.typeName, kDynamicTypes)};
  return areTensorsSound(config.inputTensors, config.numOfInputs, "Input", allowed) &&
         areTensorsSound(config.outputTensors, config.numOfOutputs, "Output", allowed) &&
         areParamsSound(config);
}

}  // namespace

std::uint32_t checkOpConfig(const Orlo_OpConfig_t& config) {
  return isSound(config) ? ORLO_VALIDATION_OK : ORLO_VALIDATION_FAILED;
}

}  // namespace netforge
