#include <gtest/gtest.h>

#include <functional>

#include "Core/Validation/src/Operations/CommonCheck.h"
#include "Core/Validation/src/Operations/ValidationCommonUtil.h"
#include "ir/IrTypes.h"
#include "output/ZeroedRecord.h"

namespace netforge {
namespace {

/// A sound op with one tensor of each role and the parameters "operation" (2) and "axes".
struct Op {
  std::uint32_t dims[2] = {3, 5};
  std::uint8_t dynamic[2] = {0, 0};
  std::uint32_t words[3] = {1, 2, 3};
  Orlo_Tensor_t input = tensor(21);
  Orlo_Tensor_t output = tensor(22);
  Orlo_Param_t params[2] = {zeroedRecord<Orlo_Param_t>(), zeroedRecord<Orlo_Param_t>()};
  Orlo_OpConfig_t config = zeroedRecord<Orlo_OpConfig_t>();

  Op() {
    params[0].name = "operation";
    params[0].scalar.dataType = ORLO_DATATYPE_UINT_32;
    params[0].scalar.value.uint32Value = 2;
    params[1].name = "axes";
    params[1].paramType = 1;
    params[1].tensor = tensor(23);
    params[1].tensor.clientBuf = {words, sizeof words};
    config = {1, "op", "package", "TopK", 2, params, 1, &input, 1, &output};
  }
  Op(const Op&) = delete;

  Orlo_Tensor_t tensor(std::uint32_t id) {
    auto record = zeroedRecord<Orlo_Tensor_t>();
    record.version = 2;
    record.id = id;
    record.name = "t";
    record.dataType = ORLO_DATATYPE_FLOAT_32;
    record.rank = 2;
    record.dimensions = dims;
    record.isDynamicDimensions = dynamic;
    record.sparseParams.layout = 0x7FFFFFFF;
    return record;
  }

  void makeSparse(Orlo_Tensor_t& tensor) const {
    tensor.dataFormat = 1;
    tensor.sparseParams = {0, 4, 2};
  }

  /// The code, and the messages when it isn't 0.
  std::string check() const {
    const std::size_t before = getValidationLogText().size();
    const std::uint32_t code = checkOpConfig(config);
    const std::string text = getValidationLogText().substr(before);
    EXPECT_TRUE(code == ORLO_VALIDATION_OK || code == ORLO_VALIDATION_FAILED) << code;
    EXPECT_EQ(code == ORLO_VALIDATION_OK, text.empty()) << text;
    return text;
  }
};

struct Case {
  std::function<void(Op&)> spoil;
  std::string messages;  // none: sound
};

void expectMessages(const std::vector<Case>& cases) {
  for (std::size_t i = 0; i < cases.size(); ++i) {
    Op op;
    cases[i].spoil(op);
    EXPECT_EQ(op.check(), cases[i].messages) << "row " << i;
  }
}

TEST(CommonCheck, ConfigsAndParams) {
  const std::string nullBuffer = "NULL buffer provided to param axes.\n";
  expectMessages({
      {[](Op&) {}, ""},
      {[](Op& op) { op.config.version = 2; }, "Op config missing name.\n"},
      {[](Op& op) { op.config.name = nullptr; }, "Op config missing name.\n"},
      {[](Op& op) { op.config.packageName = op.config.typeName = nullptr; },
       "Op config op missing package name.\n"},
      {[](Op& op) { op.config.typeName = nullptr; }, "Op config op missing opType.\n"},
      {[](Op& op) { op.config.params = nullptr; }, "Null param passed at index 0.\n"},
      {[](Op& op) { op.params[1].name = nullptr; }, "Param at index 1 missing name.\n"},
      {[](Op& op) { op.params[1].tensor.dimensions = nullptr; },
       "Tensor of id 23 has NULL dimensions.\nTensor param 23 failed common validation.\n"},
      {[](Op& op) { op.params[1].tensor.clientBuf.data = nullptr; }, nullBuffer},
      {[](Op& op) { op.params[1].tensor.memType = 1; }, nullBuffer},
      {[](Op& op) { op.config.inputTensors = nullptr; }, "Input tensors missing.\n"},
      {[](Op& op) { op.output.dimensions = op.input.dimensions = nullptr; },
       "Tensor of id 21 has NULL dimensions.\nInput tensor 21 failed common validation.\n"},
      {[](Op& op) { op.output.dimensions = nullptr; },
       "Tensor of id 22 has NULL dimensions.\nOutput tensor 22 failed common validation.\n"},
  });
}

TEST(CommonCheck, Tensors) {
  const std::string failed = "Input tensor 21 failed common validation.\n";
  const auto sparse = [](std::uint32_t layout, std::uint32_t elements, std::uint32_t dimensions) {
    return [=](Op& op) {
      op.config.typeName = "Conv2d";
      op.input.dataFormat = 1;
      op.input.sparseParams = {layout, elements, dimensions};
    };
  };
  expectMessages({
      {[](Op& op) { op.input.rank = 0; },
       "Tensor of id 21 has rank 0 and must have NULL dimensions.\n" + failed},
      {[](Op& op) { op.input.dataType = ORLO_DATATYPE_STRING; },
       "Tensor of id &u has invalid datatype: ORLO_DATATYPE_STRING.\n" + failed},
      {[](Op& op) {
         op.input.dimensions = nullptr;
         op.input.type = 5;
         op.input.dataFormat = 1;
       },
       ""},
      {sparse(1, 4, 2), "Sparse tensors must have a hybrid COO layout.\n" + failed},
      {sparse(0, 0, 2), "Sparse tensors cannot have zero maximum specified elements.\n" + failed},
      {sparse(0, 4, 3),
       "Number of sparse dimensions must be less than or equal to the tensor rank.\n" + failed},
      {sparse(0, 4, 0), "Number of sparse dimensions must be greater than zero.\n" + failed},
      {sparse(0, 4, 2), ""},
      {[&](Op& op) {
         sparse(1, 0, 0)(op);
         op.input.version = 1;
       },
       ""},
  });
}

TEST(CommonCheck, WhereSparseTensorsStand) {
  const std::string refused = "Tensor is incorrectly sparse\n";
  for (const char* type : {"Conv2d", "SparseToDense"}) {
    Op op;
    op.config.typeName = type;
    op.makeSparse(op.input);
    EXPECT_EQ(op.check(), "") << type;
  }
  const auto typed = [](const char* type, std::uint32_t operation) {
    return [=](Op& op) {
      op.makeSparse(op.output);
      op.config.typeName = type;
      op.params[0].scalar.value.uint32Value = operation;
    };
  };
  expectMessages({
      {typed("TransposeConv2d", 0), refused},
      {typed("ElementWiseBinary", 0), ""},
      {typed("ElementWiseBinary", 1), refused},
      {typed("ElementWiseNeuron", 4), ""},
      {[&](Op& op) {
         typed("ElementWiseBinary", 0)(op);
         op.params[0].name = "other";
       },
       refused},
      // The first scalar of the name counts; a tensor of the name doesn't.
      {[&](Op& op) {
         typed("ElementWiseBinary", 0)(op);
         std::swap(op.params[0], op.params[1]);
         op.params[0].name = "operation";
       },
       ""},
  });
}

TEST(CommonCheck, WhereDynamicDimensionsStand) {
  const std::string refused = "Tensor incorrectly has dynamic dimensions.\n";
  const auto typed = [](const char* type) {
    return [=](Op& op) {
      op.config.typeName = type;
      op.dynamic[1] = 1;
    };
  };
  const auto dynamic = typed("GatherNd");
  expectMessages({
      {typed("Gather"), ""},
      {typed("ReduceMean"), ""},
      {dynamic, refused},
      {typed("ReduceMax"), refused},
      {[&](Op& op) {
         dynamic(op);
         op.input.isDynamicDimensions = nullptr;
         op.output.rank = 1;
       },
       ""},
      {[&](Op& op) {
         dynamic(op);
         op.input.version = op.output.version = 3;
       },
       ""},
      {[&](Op& op) {
         dynamic(op);
         op.config.numOfInputs = 0;
       },
       refused},
  });
}

}  // namespace
}  // namespace netforge
