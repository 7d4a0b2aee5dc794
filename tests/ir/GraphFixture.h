#pragma once

#include <gtest/gtest.h>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>
#include "ir/IrGraph.h"

namespace netforge {

/// Small graphs of plain ops over float tensors; checks the graph's invariants when a test ends.
class GraphTest : public ::testing::Test {
 protected:
  using Names = std::vector<std::string>;
  using Dims = std::vector<std::uint32_t>;

  void TearDown() override {
    if (soundAtEnd) {
      EXPECT_EQ(graph.checkInvariants(), Names());
    }
  }

  static IrGraph::OpPtr makeOp(const std::string& name, const std::string& type = "Relu") {
    return std::make_shared<ops::IrOp>(name, type, nullptr);
  }

  IrGraph::TensorPtr tensor(const std::string& name, const Dims& dims = {2, 3, 5, 7},
                            TensorType type = TensorType::GraphInput) {
    graph.addTensor(
        std::make_shared<IrTensor>(name, dims, ORLO_DATATYPE_FLOAT_32, AxisFormat::NHWC, type, Dims{}));
    return graph.getTensor(name);
  }

  IrGraph::TensorPtr constant(const std::string& name, const Dims& values) {
    graph.addTensor(std::make_shared<IrStaticTensor>(name, values));
    return graph.getTensor(name);
  }

  /// Adds an op "<output>" that writes the tensor "<output>" with the shape of its first input.
  IrGraph::OpPtr op(const std::string& output, const Names& inputs, const std::string& type = "Relu") {
    return opWith({output}, inputs, type);
  }

  IrGraph::OpPtr opWith(const Names& outputs, const Names& inputs, const std::string& type = "Relu") {
    const auto added = makeOp(outputs.front(), type);
    const std::vector<IrTensorShape> shapes(outputs.size(), graph.getTensor(inputs.front())->getShape());
    graph.addOp(added, inputs, outputs, shapes, {}, -1, false);
    return added;
  }

  /// Makes a tensor of the graph a graph output, as a builder does that knows outputs at the end.
  void makeOutput(const std::string& name) {
    const auto added = graph.getTensor(name);
    added->setTensorType(TensorType::GraphOutput);
    graph.removeTensor(name);
    graph.addTensor(added);
  }

  Names opNames() const {
    Names names;
    for (const auto& entry : graph.getOps()) names.push_back(entry->getName());
    return names;
  }

  static Names namesOf(const ops::IrOp::TensorList& list) {
    Names names;
    for (const auto& entry : list) names.push_back(entry->getName());
    return names;
  }

  Names inputsOf(const std::string& opName) const { return namesOf(graph.getOp(opName)->getInputs()); }

  Names consumersOf(const std::string& tensorName) const {
    Names names;
    for (const auto& entry : consumersInGraphOrder(graph, graph.getTensor(tensorName)->getConsumers())) {
      names.push_back(entry->getName());
    }
    return names;
  }

  IrGraph graph{"test"};
  bool soundAtEnd = true;  // a test that breaks the graph on purpose clears it
};

/// One failing call, the exception type ('r' runtime_error, 'i' invalid_argument, 'o' out_of_range) and text.
struct Failure {
  char type;
  std::string text;
  std::function<void()> call;
};

inline void expectFailures(const std::vector<Failure>& rows) {
  for (const Failure& row : rows) {
    SCOPED_TRACE(row.text);
    std::string text;
    char type = '-';
    try {
      row.call();
    } catch (const std::invalid_argument& failure) {
      type = 'i';
      text = failure.what();
    } catch (const std::out_of_range& failure) {
      type = 'o';
      text = failure.what();
    } catch (const std::runtime_error& failure) {
      type = 'r';
      text = failure.what();
    }
    EXPECT_EQ(type, row.type);
    EXPECT_EQ(text, row.text);
  }
}

}  // namespace netforge
