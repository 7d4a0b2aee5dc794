#pragma once

#include <memory>
#include <string>
#include <vector>
#include "ops/ElementwiseOps.h"
#include "ops/OpFactory.h"
#include "tests/ops/OpTestSupport.h"

namespace netforge::test {

/// An op named "n" together with its tensors "i0", "i1", ... and "o0", ..., which it refers to weakly.
struct BuiltOp {
  std::vector<std::shared_ptr<IrTensor>> inputs;
  std::vector<std::shared_ptr<IrTensor>> outputs;
  std::shared_ptr<ops::IrOp> op;
};

/// An op of any type that the factory or a constructor without parameters builds.
inline std::shared_ptr<ops::IrOp> makeTyped(const std::string& type, const graphrefiner::OpParams& params) {
  if (type == "Convert") return std::make_shared<ops::ConvertOp>("n", nullptr);
  if (type == "Dequantize") return std::make_shared<ops::DequantizeOp>("n", nullptr);
  return graphrefiner::createOp(type, "n", params);
}

inline BuiltOp build(const std::string& type, const graphrefiner::OpParams& params,
                     const std::vector<IrTensorShape>& inputs,
                     const std::vector<IrTensorShape>& outputs = {}) {
  const auto tensors = [](const std::vector<IrTensorShape>& shapes, const char* prefix) {
    std::vector<std::shared_ptr<IrTensor>> list;
    for (const auto& shape : shapes) list.push_back(tensorOf(prefix + std::to_string(list.size()), shape));
    return list;
  };
  BuiltOp built{tensors(inputs, "i"), tensors(outputs, "o"), makeTyped(type, params)};
  built.op->setInputs(built.inputs);
  built.op->setOutputs(built.outputs);
  return built;
}

/// Shapes without dynamic axes.
inline std::vector<IrTensorShape> statics(const std::vector<Dims>& list) {
  return {list.begin(), list.end()};
}

/// Parameters with which createOp builds every one of its types: a type ignores what it does not know.
inline graphrefiner::OpParams everyMandatoryParameter() {
  return {{"stride", Dims{2, 3}},
          {"pad_amount", Dims{4, 5, 6, 7}},
          {"block_size", Dims{3, 4}},
          {"operation", 4u},
          {"eltwise_type", "ElementWiseSelect"},
          {"shape", Dims{6, 2}},
          {"axes", Dims{2, 0}},
          {"axis", -2},
          {"batch_dims", 1},
          {"num_specified_elements", 9u},
          {"scheme", 1u},
          {"reduce_type", "ReduceSum"},
          {"split_index", Dims{2, 5}},
          {"ranges", Dims{0, 4, 2, 1, 9, 3}},
          {"alpha", 1.5f},
          {"multiples", Dims{1, 3}},
          {"k", 3u},
          {"perm", Dims{2, 0, 1}}};
}

}  // namespace netforge::test
