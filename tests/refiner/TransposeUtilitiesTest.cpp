// Inserting, sharing and folding Transposes.
#include <algorithm>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "RefinerTestSupport.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner::testing {
namespace {

using Names = std::vector<std::string>;
using Dims = std::vector<std::uint32_t>;

OpPtr addTranspose(const GraphPtr& graph, const std::string& name, const std::string& input,
                   const Permutation& perm, std::int32_t idx = -1) {
  const auto op = createOp("Transpose", name, {{"perm", OpParam(perm)}});
  graph->addOp(op, {input}, {name}, {}, idx, false);
  return op;
}

// x[2,3,5] -> Relu r -> Cast a, b
class TransposeTest : public ::testing::Test {
 protected:
  TransposeTest() {
    addInput(graph, "x", {2, 3, 5});
    addPlainOp(graph, "r", "Relu", {"x"}, {2, 3, 5});
    a = addPlainOp(graph, "a", "Cast", {"r"}, {2, 3, 5});
    b = addPlainOp(graph, "b", "Cast", {"r"}, {2, 3, 5});
  }
  void TearDown() override { expectSound(graph); }
  GraphPtr graph = std::make_shared<IrGraph>("g");
  OpPtr a, b;
  CapturedOutput output;
};

TEST_F(TransposeTest, AnOpReadsNeitherItselfNorATransposeWithoutOrder) {
  graph->addOp(std::make_shared<ops::IrOp>("bare", "Transpose", nullptr), {"r"}, {"bare"},
               {IrTensorShape({2, 3, 5})}, {}, -1, false);
  const auto t = addTranspose(graph, "t", "r", {1, 0, 2});
  insertOrReuseTranspose(graph, t, 0, {1, 0, 2});
  EXPECT_EQ(t->getInput(0)->getName(), "r_102");
}

TEST_F(TransposeTest, InjectNamesMovesAndTraces) {
  graph->addTraceSources(TraceKind::Op, "r", {{"source_op", TraceKind::Op}});
  graph->addTraceSources(TraceKind::Tensor, "r", {{"source_tensor", TraceKind::Tensor}});
  graph->getTensor("r")->setExplicitPermuteOrder({0, 2, 1});
  injectTranspose(graph, "r", {1, 2, 0}, {"b", "b"}, "base", false);
  const auto op = graph->getOp("base_120");
  ASSERT_NE(op, nullptr);
  EXPECT_EQ(a->getInput(0)->getName(), "r");
  EXPECT_EQ(b->getInput(0)->getName(), "base_120");
  EXPECT_EQ(op->getOutput(0)->getExplicitPermuteOrder(), (Dims{2, 1, 0}));
  EXPECT_EQ(graph->getTraceInfo(TraceKind::Op, "base_120"),
            (std::vector<TraceSource>{{"source_op", TraceKind::Op}}));
  EXPECT_EQ(graph->getTraceInfo(TraceKind::Tensor, "base_120"),
            (std::vector<TraceSource>{{"source_tensor", TraceKind::Tensor}}));

  injectTranspose(graph, graph->getTensor("x")->getName(), {1, 0, 2}, {}, "", false);
  EXPECT_EQ(graph->getOp("r")->getInput(0)->getName(), "x_102") << "no names: all consumers move";
}

TEST_F(TransposeTest, AGraphOutputKeepsItsNameInFrontOfTheApplication) {
  const struct {
    const char* label;
    Permutation perm;
    Dims permuteOrder;  // of the graph output before
    TensorType type;
    bool keep;
    const char* innerName;
  } cases[] = {
      {"no way back to the source layout is known", {1, 2, 0}, {}, TensorType::GraphOutput, true, "base_"},
      {"the way back is known", {1, 2, 0}, {0, 1, 2}, TensorType::GraphOutput, true, "base_201"},
      {"not asked for", {1, 2, 0}, {}, TensorType::GraphOutput, false, "y"},
      {"no graph output", {1, 2, 0}, {}, TensorType::Native, true, "y"},
  };
  int count = 0;
  for (const auto& c : cases) {
    graph = std::make_shared<IrGraph>("g" + std::to_string(count++));
    addInput(graph, "x", {2, 3, 5});
    const auto op = addPlainOp(graph, "y", "Relu", {"x"}, {2, 3, 5});
    const auto reader = addPlainOp(graph, "reader", "Cast", {"y"}, {2, 3, 5});
    addPlainOp(graph, "z", "Relu", {"x"}, {2, 3, 5});
    if (c.type != TensorType::Native) makeGraphOutput(graph, "y", c.type);
    makeGraphOutput(graph, "z");
    graph->getTensor("y")->setExplicitPermuteOrder(c.permuteOrder);
    injectTranspose(graph, "y", c.perm, {"reader"}, "base", c.keep);
    const auto inner = op->getOutput(0);
    const auto outer = reader->getInput(0);
    EXPECT_EQ(inner->getName(), c.innerName) << c.label;
    EXPECT_EQ(outer->getProducer()->getInput(0), inner) << c.label;
    if (c.keep && c.type != TensorType::Native) {
      EXPECT_EQ(outer->getName(), "y") << c.label;
      EXPECT_EQ(outer->getTensorType(), c.type) << c.label;
      EXPECT_EQ(inner->getTensorType(), TensorType::Native) << c.label;
      EXPECT_EQ(graph->getGraphOutputs()[0], outer) << c.label;
    } else {
      EXPECT_EQ(inner->getTensorType(), c.type) << c.label;
      EXPECT_EQ(outer->getTensorType(), TensorType::Native) << c.label;
    }
    expectSound(graph);
  }
}

TEST_F(TransposeTest, AGraphOutputHandsItsEncodingOn) {
  QuantInfo scale;
  scale.encoding = QuantEncodingKind::ScaleOffset;
  scale.scaleOffset.scale = 0.5f;
  QuantInfo range;
  range.scaleOffset.minimum = -3.0f;
  makeGraphOutput(graph, "a");
  makeGraphOutput(graph, "b");
  graph->getTensor("a")->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, scale);
  graph->getTensor("b")->setFloatQInfo(ORLO_DATATYPE_FLOAT_32, range);
  injectTranspose(graph, "a", {1, 2, 0}, {}, "", true);
  injectTranspose(graph, "b", {1, 2, 0}, {}, "", true);
  EXPECT_EQ(graph->getTensor("a")->getDataType(), ORLO_DATATYPE_UFIXED_POINT_8);
  EXPECT_EQ(graph->getTensor("a")->getQuantInfo(), scale);
  EXPECT_NE(graph->getTensor("a"), a->getOutput(0));
  EXPECT_TRUE(graph->getTensor("b")->getQuantInfo().isOverridden);
  EXPECT_EQ(graph->getTensor("b")->getQuantInfo().scaleOffset.minimum, -3.0f);
}

TEST_F(TransposeTest, InspectTransposeName) {
  const auto r = graph->getTensor("r");
  EXPECT_EQ(inspectTransposeName(graph, r, {1, 2, 0}, ""), TransposeName::Free);
  injectTranspose(graph, "r", {1, 2, 0}, {"a"}, "", false);
  EXPECT_EQ(inspectTransposeName(graph, r, {1, 2, 0}, ""), TransposeName::Reusable);
  EXPECT_EQ(inspectTransposeName(graph, r, {1, 2, 0}, "other"), TransposeName::Free);
  EXPECT_EQ(inspectTransposeName(graph, graph->getTensor("x"), {1, 2, 0}, "r"), TransposeName::Taken);
  addPlainOp(graph, "r_201", "Relu", {"x"}, {2, 3, 5});
  EXPECT_EQ(inspectTransposeName(graph, r, {2, 0, 1}, ""), TransposeName::Taken);
}

TEST(SquashConstantTranspose, ReadersKeepTheConstantsNameAndGatherTheSources) {
  const float data[6] = {1, 2, 3, 4, 5, 6};
  GraphPtr graph = std::make_shared<IrGraph>("g");
  addConstant(graph, "c", {2, 3}, data, sizeof(data));
  addInput(graph, "x", {3, 2});
  const auto transpose = addTranspose(graph, "t", "c", {1, 0});
  graph->updateTensorName("t", "out");
  const auto u = addPlainOp(graph, "u", "Relu", {"out"}, {3, 2});
  const auto v = addPlainOp(graph, "v", "Add", {"x", "out"}, {3, 2});
  graph->addTraceSources(TraceKind::Op, "t", {{"st", TraceKind::Op}});
  graph->addTraceSources(TraceKind::Tensor, "out", {{"so", TraceKind::Tensor}});
  graph->addTraceSources(TraceKind::Op, "u", {{"su", TraceKind::Op}});
  squashConstantTranspose(transpose, graph, true);
  EXPECT_EQ(opNames(graph), (Names{"u", "v"}));
  EXPECT_EQ(u->getInput(0)->getName(), "c");
  EXPECT_EQ(v->getInput(1), u->getInput(0));
  EXPECT_EQ(graph->getStaticTensor("c")->getDataAs<float>()[1], 4.0f);
  EXPECT_EQ(
      graph->getTraceInfo(TraceKind::Op, "u"),
      (std::vector<TraceSource>{{"st", TraceKind::Op}, {"so", TraceKind::Tensor}, {"su", TraceKind::Op}}));
  expectSound(graph);
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
