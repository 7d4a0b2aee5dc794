#include "ops/RecurrentOps.h"

#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

using Values = std::vector<std::uint32_t>;

void requireLstmRank(const LstmOp& op, const char* function) {
  const std::uint32_t rank = op.getInput(0)->getRank();
  if (rank == 2 || rank == 3) return;
  throwRuntimeError(function, "LstmOp ", op.getName(),
                    " error: Expected Input rank to be 2 for single timestep and 3 for multi timestep, got ",
                    rank);
}

void requireGruRank(const GruOp& op, const char* function) {
  const std::uint32_t rank = op.getInput(0)->getRank();
  if (rank == 3) return;
  throwRuntimeError(function, "GruOp ", op.getName(), " error: Expected Input rank to be 3, got ", rank);
}

/// The tensors' formats are set past the op: the formats that it recorded stay.
void setRecurrentFormats(const IrOp& op, AxisFormat dataFormat) {
  const auto inputs = op.getInputs();
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    inputs[i]->setAxisFormat(i == 0 ? dataFormat : AxisFormat::NONTRIVIAL);
  }
}

}  // namespace

LstmOp::LstmOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Lstm", attributes) {
  const auto& table = getAttributes();
  addDefault(table, "direction", 0u, ATTR_ORDINARY);
  addDefault(table, "time_major", true, ATTR_ORDINARY);
  addDefault(table, "hidden_state_offset", std::int32_t{0}, ATTR_ORDINARY);
  for (const char* parameter :
       {"cell_clip_threshold", "output_clip_threshold", "input_gate_qscale", "forget_gate_qscale",
        "cell_gate_qscale", "output_gate_qscale", "hidden_state_qscale"}) {
    addDefault(table, parameter, 0.0f, ATTR_ORDINARY);
  }
  addDefault(table, "reset_state_at_time_step_0", false, ATTR_SUPPLEMENTAL);
  addDefault(table, "h_0_input_name", "", ATTR_SUPPLEMENTAL);
  addDefault(table, "c_0_input_name", "", ATTR_SUPPLEMENTAL);
  addDefault(table, "sequence_continuation_name", "", ATTR_EXTRA);
  addDefault(table, "x_static_name", "", ATTR_EXTRA);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(LstmOp)

std::uint64_t LstmOp::macs(const std::shared_ptr<AxisOrder>&) {
  requireLstmRank(*this, "netforge::ops::LstmOp::macs");
  const auto dims = getInput(0)->getDims();
  const std::uint64_t outputSize = lastDimsProduct(getOutput(0)->getDims(), 1);
  const std::uint64_t perStep = ((dims.back() + outputSize) * 4 + 3) * outputSize;
  return dims.size() == 2 ? perStep : perStep * dims[1];
}

std::uint32_t LstmOp::paramsCount(const std::shared_ptr<AxisOrder>& axisOrder) {
  requireLstmRank(*this, "netforge::ops::LstmOp::paramsCount");
  const auto dims = getInput(0)->getDims();
  const auto outputSize = static_cast<std::uint32_t>(lastDimsProduct(getOutput(0)->getDims(), 1));
  if (dims.size() == 2) return (dims[1] + 1 + outputSize) * getInput(1)->getDims().at(0) * 4;
  const std::uint32_t features = axisOrder->extractTimeSeriesDims(dims)[2];
  return (outputSize + 1 + features) * getAttributes()->getAttr<std::uint32_t>("hidden_size") * 4;
}

std::vector<std::vector<std::uint32_t>> LstmOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&,
                                                                  std::uint32_t) {
  constexpr const char* kFunction = "netforge::ops::LstmOp::inferOutputShapes";
  requireLstmRank(*this, kFunction);
  refuseDynamicInputs(*this, kFunction);
  const auto dims = getInput(0)->getDims();
  const std::uint32_t cellSize = getInput(1)->getDims().at(0);
  const std::uint32_t outputSize = getInput(4)->getDims().at(1);

  Values hiddenStates = dims;
  hiddenStates.back() = outputSize;
  const bool timeMajor = dims.size() == 3 && getAttributes()->getAttr<bool>("time_major");
  const std::uint32_t batch = timeMajor ? dims[1] : dims[0];
  return {hiddenStates, {batch, cellSize}, {batch, outputSize}};
}

std::vector<DataType> LstmOp::inferOutputDataTypes(std::uint32_t numOutputs) {
  return std::vector<DataType>(numOutputs, ORLO_DATATYPE_FLOAT_32);
}

std::vector<DataType> LstmOp::inferOutputSrcDataTypes(std::uint32_t numOutputs) {
  return std::vector<DataType>(numOutputs, ORLO_DATATYPE_FLOAT_32);
}

void LstmOp::overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) {
  requireLstmRank(*this, "netforge::ops::LstmOp::overrideDataAxisFormats");
  const bool singleStep = getInput(0)->getRank() == 2;
  setRecurrentFormats(*this, singleStep ? AxisFormat::NF : axisOrder->getAxisFormat(3, true));
}

GruOp::GruOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Gru", attributes) {
  const auto& table = getAttributes();
  addDefault(table, "direction", 0u, ATTR_ORDINARY);
  addDefault(table, "linear_before_reset", 0u, ATTR_ORDINARY);
  addDefault(table, "time_major", true, ATTR_ORDINARY);
  addDefault(table, "h_0_input_name", "", ATTR_SUPPLEMENTAL);
  addDefault(table, "activation", "Sigmoid", ATTR_EXTRA);
  addDefault(table, "gate_activation", "Sigmoid", ATTR_EXTRA);
  addDefault(table, "rec_gate_activation", "Tanh", ATTR_EXTRA);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(GruOp)

std::vector<std::vector<std::uint32_t>> GruOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&,
                                                                 std::uint32_t) {
  constexpr const char* kFunction = "netforge::ops::GruOp::inferOutputShapes";
  requireGruRank(*this, kFunction);
  refuseDynamicInputs(*this, kFunction);
  const auto dims = getInput(0)->getDims();
  const auto hiddenSize = getAttributes()->getAttr<std::uint32_t>("hidden_size");
  const std::uint32_t batch = getAttributes()->getAttr<bool>("time_major") ? dims[1] : dims[0];
  return {{dims[0], dims[1], hiddenSize}, {1, batch, hiddenSize}};
}

std::vector<DataType> GruOp::inferOutputDataTypes(std::uint32_t numOutputs) {
  return std::vector<DataType>(numOutputs, ORLO_DATATYPE_FLOAT_32);
}

std::vector<DataType> GruOp::inferOutputSrcDataTypes(std::uint32_t numOutputs) {
  return std::vector<DataType>(numOutputs, ORLO_DATATYPE_FLOAT_32);
}

void GruOp::overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) {
  requireGruRank(*this, "netforge::ops::GruOp::overrideDataAxisFormats");
  const bool timeMajor = getAttributes()->getAttr<bool>("time_major");
  setRecurrentFormats(*this, timeMajor ? AxisFormat::TNF : axisOrder->getAxisFormat(3, true));
}

}  // namespace netforge::ops
