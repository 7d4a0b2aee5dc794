#include "ops/TranslationRegistry.h"

#include <set>
#include <sstream>
#include <typeinfo>

#include "ops/OpFactory.h"
#include "ops/OpFactoryTable.h"
#include "tests/ops/BuiltOp.h"
#include "tests/ops/OpTestSupport.h"

namespace netforge {
namespace {

using test::expectFailure;

constexpr const char* everyType =
    "Batchnorm Cast ColorTransform Concat Conv2d Conv3d Convert CreateSparse DepthToSpace DepthWiseConv2d "
    "Dequantize Eltwise_Binary Eltwise_Ternary Eltwise_Unary ElementWiseMux ElementWiseNeuron Expand "
    "ExpandDims FullyConnected Gather GatherElements GatherNd GetSparseIndices GetSparseValues Gru "
    "HadamardTransform Inverse LayerNorm Lstm MatMul Mean Pack Pad Prelu Reduce ReduceL2 Reshape RmsNorm "
    "Softmax SpaceToDepth Split StridedSlice ThresholdedRelu Tile TopK Transpose TransposeConv2d "
    "TransposeConv3d";

TEST(TranslationRegistry, RebuildsEveryTypeAroundGivenTensors) {
  auto& registry = TranslationRegistry::instance();
  std::set<std::string> factoryTypes;
  for (const auto& rule : graphrefiner::opRules()) factoryTypes.insert(rule.type);
  std::set<std::string> types;
  std::istringstream names(everyType);
  for (std::string type; names >> type;) {
    SCOPED_TRACE(type);
    types.insert(type);
    ASSERT_TRUE(registry.hasMethod(type));
    const bool direct = type == "ColorTransform" || type == "Convert" || type == "Dequantize";
    ASSERT_EQ(factoryTypes.count(type), direct ? 0u : 1u);
    const auto made = direct ? nullptr : graphrefiner::createOp(type, "n", test::everyMandatoryParameter());
    const auto attributes = made ? made->getAttributes() : std::make_shared<IrAttributes>();
    const auto inputs = test::tensorsOf({{2, 3}, {3, 5}}, "in");
    const auto outputs = test::tensorsOf({{2, 5}}, "out");
    const auto rebuilt = registry.applyMethod(type, "n", attributes, inputs, outputs);
    EXPECT_EQ(rebuilt->getType(), type);
    EXPECT_EQ(rebuilt->getAttributes(), attributes);
    EXPECT_EQ(rebuilt->getInputs(), inputs);
    EXPECT_EQ(rebuilt->getOutputs(), outputs);
    const ops::IrOp& typed = *rebuilt;
    EXPECT_NE(typeid(typed), typeid(ops::IrOp));
    if (made) {
      const ops::IrOp& original = *made;
      EXPECT_EQ(typeid(typed), typeid(original));
    }
    // The override of addOutput has to run although the tensors arrive in a constructor.
    EXPECT_EQ(outputs[0]->isQuantizable(), type != "Dequantize");
  }
  EXPECT_EQ(types.size(), 48u);
  EXPECT_EQ(factoryTypes.size(), 45u);
  for (const char* type : {"Gelu", "Arg", "Neuron", "ElementWiseUnary", "ScatterNd", "Identity", ""}) {
    EXPECT_FALSE(registry.hasMethod(type)) << type;
  }
}

TEST(TranslationRegistry, FailuresComeOutAsRuntimeErrorsAndReleaseTheLock) {
  auto& registry = TranslationRegistry::instance();
  const std::string head = "netforge::TranslationRegistry::";
  expectFailure<std::runtime_error>(
      head + "applyMethod: Error creating translation type: Nope. Is your translation registered?",
      [&] { registry.applyMethod("Nope", "n", nullptr, {}, {}); });
  expectFailure<std::runtime_error>(
      head +
          "applyMethod: Translation applyMethod returned with error: "
          "netforge::ops::ElementwiseTernaryOp::ElementwiseTernaryOp: eltwise_type attribute must be set as "
          "supplemental attribute for op n",
      [&] { registry.applyMethod("Eltwise_Ternary", "n", nullptr, {}, {}); });
  EXPECT_EQ(registry.applyMethod("Cast", "n", nullptr, {}, {})->getType(), "Cast");

  const auto creator = [](const char* suffix) -> TranslationRegistry::Creator {
    return [suffix](const std::string& name, const auto& attributes, const auto&, const auto&) {
      return std::make_shared<ops::IrOp>(name + suffix, "Other", attributes);
    };
  };
  const std::string type = "OnlyInThisTest";
  EXPECT_TRUE(registry.registerTranslationMethod(type, creator("_a"), false));
  expectFailure<std::invalid_argument>(
      head + "registerTranslationMethod: Translation: OnlyInThisTest already registered",
      [&] { registry.registerTranslationMethod(type, creator("_b"), false); });
  EXPECT_EQ(registry.applyMethod(type, "n", nullptr, {}, {})->getName(), "n_a");
  EXPECT_TRUE(registry.registerTranslationMethod(type, creator("_b"), true));
  EXPECT_EQ(registry.applyMethod(type, "n", nullptr, {}, {})->getName(), "n_b");
}

}  // namespace
}  // namespace netforge
