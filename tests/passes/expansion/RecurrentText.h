#pragma once

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include "GraphRefiner/src/Pass.h"
#include "GraphRefiner/src/PassRegistry.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/GraphText.h"

namespace netforge::testing {

/// The graph of the text after one run of the pass, which has to change it and to leave it sound.
inline std::shared_ptr<IrGraph> rewritten(graphrefiner::PassId id, const std::string& text) {
  CapturedOutput reports;
  auto graph = readGraph(text);
  const auto pass = graphrefiner::getPassRegistry().table(graphrefiner::OptimizationStage::PostLayout).at(id);
  EXPECT_TRUE(pass->run(graph));
  EXPECT_EQ(graph->checkInvariants(), std::vector<std::string>{});
  return graph;
}

inline std::string inputNames(const IrGraph& graph, const std::string& op) {
  std::string names;
  for (const auto& input : graph.getOp(op)->getInputs()) names += input->getName() + " ";
  return names;
}

inline std::string producerName(const IrGraph& graph, const std::string& tensor) {
  return graph.getTensor(tensor)->getProducer()->getName();
}

inline std::string outputNames(const IrGraph& graph) {
  std::string names;
  for (const auto& output : graph.getGraphOutputs()) names += output->getName() + " ";
  return names;
}

/// The text form of a graph with one recurrent op, of which a case changes what it is about. Batch 2, 4
/// features, 5 hidden; three time steps in front of the batch.
struct RecurrentText {
  std::string x = "in x[3,2,4] f32";
  std::string states = "in h0[2,5] f32\nin c0[2,5] f32";
  std::string attributes = "time_major=true";
  std::string outputs = "y, cT, hT";
  std::string behind = "out y\nout cT\nout hT";
  std::string name = "net";
  std::string inputs = {};  // of the Lstm, when not the usual ones

  std::string lstm() const {
    std::string text = x + "\n" + states + "\nnull n[0] f32\n";
    for (const std::string gate : {"f", "c", "o", "i"}) {
      text += "const w" + gate + "[5,4] f32 = fill 0.5\nconst r" + gate + "[5,5] f32 = fill 0.25\n";
      text += "const b" + gate + "[5] f32 = fill " + std::to_string(gate[0]) + "\n";
    }
    const std::string usual =
        "x, wf, wc, wo, rf, rc, ro, bf, bc, bo, h0, c0, n, n, n, n, wi, ri, n, n, n, bi";
    return text + statement("Lstm", inputs.empty() ? usual : inputs);
  }

  std::string gru() const {
    std::string text = x + "\nin h0[2,5] f32\n";
    for (const std::string gate : {"z", "r", "h"}) {
      text += "const w" + gate + "[5,4] f32 = fill 0.5\nconst r" + gate + "[5,5] f32 = fill 0.25\n";
      text += "const b" + gate + "[5] f32 = fill 1\nconst rb" + gate + "[5] f32 = fill 2\n";
    }
    return text + statement("Gru", inputs.empty() ? "x, wz, wr, wh, rz, rr, rh, bz, br, bh, rbz, rbr, rbh, h0"
                                                  : inputs);
  }

 private:
  std::string statement(const std::string& type, const std::string& operands) const {
    return name + ": " + outputs + " = " + type + "(" + operands + ") hidden_size=5 " + attributes + "\n" +
           behind + "\n";
  }
};

}  // namespace netforge::testing
