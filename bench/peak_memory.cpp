// What the whole pipeline adds to the peak of resident memory on a network with 500 MB of weights that no
// pass changes: convolutions with activations between them. Constants are read and copied only where a pass
// changes them, so it has to be a small share of the weights.

#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>
#include "GraphRefiner/src/GraphRefiner.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace {

using netforge::AxisFormat;
using netforge::IrGraph;
using netforge::TensorType;
using Dims = IrGraph::Dims;

constexpr std::uint32_t kChannels = 512;
constexpr std::size_t kLayers = 53;
constexpr std::size_t kElements = std::size_t{3} * 3 * kChannels * kChannels;  // of one layer's weights

// The process's peak so far, in MiB.
double peakMebibytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024;
  }
  return 0;
}

std::shared_ptr<IrGraph> build(const std::vector<std::vector<float>>& weights) {
  auto graph = std::make_shared<IrGraph>("convolutions");
  graph->addTensor(std::make_shared<netforge::IrTensor>("x", Dims{1, 8, 8, kChannels},
                                                        netforge::ORLO_DATATYPE_FLOAT_32, AxisFormat::NHWC,
                                                        TensorType::GraphInput, Dims{}));
  std::string last = "x";
  for (std::size_t i = 0; i < weights.size(); ++i) {
    const std::string number = std::to_string(i);
    const std::vector<float>& values = weights[i];
    graph->addTensor(std::make_shared<netforge::IrStaticTensor>(
        "w" + number, Dims{3, 3, kChannels, kChannels},
        static_cast<std::uint32_t>(values.size() * sizeof(float)), values.data(),
        netforge::ORLO_DATATYPE_FLOAT_32, AxisFormat::ANY, AxisFormat::ANY, true, TensorType::Static,
        Dims{}));
    const netforge::graphrefiner::OpParam pads(Dims{1, 1, 1, 1});
    const netforge::graphrefiner::OpParam stride(Dims{1, 1});
    graph->addOp(netforge::graphrefiner::createOp("Conv2d", "conv" + number,
                                                  {{"pad_amount", pads}, {"stride", stride}}),
                 {last, "w" + number}, {"c" + number}, {}, -1, false);
    graph->addOp(netforge::graphrefiner::createOp("ElementWiseNeuron", "relu" + number,
                                                  {{"operation", netforge::graphrefiner::OpParam(4u)}}),
                 {"c" + number}, {"r" + number}, {}, -1, false);
    last = "r" + number;
  }
  const auto output = graph->getTensor(last);
  output->setTensorType(TensorType::GraphOutput);
  graph->removeTensor(last);
  graph->addTensor(output);
  return graph;
}

}  // namespace

int main() {
  using netforge::graphrefiner::OptimizationStage;
  const std::vector<std::vector<float>> weights(kLayers, std::vector<float>(kElements, 0.01f));
  const auto graph = build(weights);
  const double before = peakMebibytes();
  std::ostringstream account;
  std::streambuf* const screen = std::cout.rdbuf(account.rdbuf());
  netforge::graphrefiner::GraphRefiner(graph,
                                       {OptimizationStage::PreLayout, OptimizationStage::PostLayout,
                                        OptimizationStage::PreQuant, OptimizationStage::PostQuant},
                                       nullptr, netforge::graphrefiner::GraphRefinerContext())
      .optimize();
  std::cout.rdbuf(screen);
  const double added = peakMebibytes() - before;
  const double all = static_cast<double>(kLayers * kElements * sizeof(float)) / (1024 * 1024);
  std::cout << "weights " << all << " MiB, the pipeline adds " << added << " MiB, " << 100 * added / all
            << " % of the weights\n";
  return added < all / 20 ? 0 : 1;
}
