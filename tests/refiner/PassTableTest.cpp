// The pass table, the registry, the pipelines and the functions behind the module's functions.
#include <algorithm>
#include <stdexcept>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/PassPipeline.h"
#include "RefinerTestSupport.h"
#include "ir/BackendInfo.h"

namespace netforge::graphrefiner::testing {
namespace {

// Written out apart from the table: a row that is dropped, renamed or moved shows here.
const std::vector<std::string> kNames = {"AlignMatmulRanks",
                                         "OptimizeTransposes",
                                         "SquashMultiplePermute",
                                         "FoldReshapesInstance1",
                                         "FoldReshapesInstance2",
                                         "FoldReshapesInstance3",
                                         "FoldReshapesInstance4",
                                         "SinkTransposeBelowSum",
                                         "OptimizeTransposeReshape",
                                         "HandleGatherNegativeIndices",
                                         "SquashReshapeInstance1",
                                         "SquashReshapeInstance2",
                                         "MatchSpaceToDepth",
                                         "MultiTimeStepsGRU",
                                         "Replace6dOps",
                                         "OptimizeGatherND",
                                         "OptimizeDepthToSpace",
                                         "RemoveNoOps1",
                                         "RemoveNoOps2",
                                         "RemoveCastIdentity",
                                         "ForcePruneCast",
                                         "SquashPad",
                                         "FoldSoftmax",
                                         "FoldConcats",
                                         "ExpandGruOpStructure",
                                         "InjectCastForGather",
                                         "FullyConnectedToHadamard",
                                         "FoldHadamardWithMul",
                                         "HoistTransposeAboveElementWiseMux",
                                         "SquashConstantInput",
                                         "ExpandSparseOpStructure",
                                         "ProcessCustomIOQuantInfo",
                                         "OptimizeNegation",
                                         "UnrollGruTimeSteps",
                                         "MatchGeluApprox",
                                         "MultiTimeStepsLSTM",
                                         "ExpandLstmOpStructure",
                                         "OptimizeDepthReduce",
                                         "UnrollLstm",
                                         "SquashBatchnorm",
                                         "OptimizeNonInplaceConcat",
                                         "ReduceEltwiseBinTranspose",
                                         "SquashConstantTranspose",
                                         "PermuteAxisToLast",
                                         "OptimizeUnmatchedMatMul",
                                         "ReplaceTRTWithReshape",
                                         "ExpandInverse",
                                         "FallbackDepthBroadcastEltwiseBin",
                                         "OptimizeDepthBroadcastElementwise",
                                         "AdjustNormOpBuffers",
                                         "AdjustNormOpFlattenLastDims",
                                         "ExpandThresholdedRelu",
                                         "HoistTranspose",
                                         "RemoveInverseTransposePair",
                                         "ExpandElementwiseMean",
                                         "ExpandReduceL2Op",
                                         "FlattenPReluAlpha",
                                         "RecordLoraTensorTransforms",
                                         "ExpandExpandOpToEltwise",
                                         "SquashTileUnsqueezeToExpand",
                                         "MatchTopK"};
const std::set<std::uint32_t> kRepeating = {1, 2, 3, 4, 5, 6, 8, 14, 23, 30, 41};

PassId id(std::uint32_t number) {
  return static_cast<PassId>(number);
}

TEST(PassTable, NamesNumbersAndRunModes) {
  ASSERT_EQ(kNames.size(), 61u);
  EXPECT_EQ(getRegisteredPassNames(), kNames);
  for (std::uint32_t number = 0; number < kNames.size(); ++number) {
    EXPECT_EQ(getPassNameFromPassId(id(number)), kNames[number]);
    EXPECT_EQ(getPassIdFromPassName(kNames[number]), id(number));
    EXPECT_EQ(getPassRunMode(id(number)),
              kRepeating.count(number) ? PassRunMode::Fixpoint : PassRunMode::Once);
    EXPECT_NE(createPass(id(number)), nullptr) << kNames[number];
  }
  EXPECT_NE(createPass(id(3)), createPass(id(3))) << "each instance needs pattern bindings of its own";
  EXPECT_EQ(createPass(id(61)), nullptr);
}

TEST(PassTable, UnknownIdsAndNames) {
  EXPECT_EQ(failureOf<std::runtime_error>([] { getPassNameFromPassId(id(61)); }),
            "netforge::graphrefiner::getPassNameFromPassId:  Invalid pass Id ");
  for (const std::string name : {"matchtopk", "", "MatchTopK "}) {
    EXPECT_EQ(
        failureOf<std::runtime_error>([&] { getPassIdFromPassName(name); }),
        "netforge::graphrefiner::getPassIdFromPassName:  Invalid pass, No pass registered with the name: " +
            name);
  }
  EXPECT_THROW(getPassRegistry().table(static_cast<OptimizationStage>(4)), std::out_of_range);
}

TEST(PassTable, EveryPassIsRegisteredAfterLoad) {
  // A registration that the linker drops, or that runs too early, leaves a gap without a sound.
  const auto& table = getPassRegistry().table(OptimizationStage::PostLayout);
  ASSERT_EQ(table.size(), 61u);
  for (const auto& [passId, pass] : table) {
    EXPECT_EQ(pass->backends, std::set<std::uint32_t>{7});
    EXPECT_EQ(pass->stage, OptimizationStage::PostLayout);
    EXPECT_EQ(pass->runMode, getPassRunMode(passId)) << getPassNameFromPassId(passId);
    EXPECT_EQ(pass->enableMode, 0u);
    EXPECT_EQ(pass->keepMatchedOps, 0u);
  }
  for (const auto stage :
       {OptimizationStage::PreLayout, OptimizationStage::PreQuant, OptimizationStage::PostQuant}) {
    EXPECT_TRUE(getPassRegistry().table(stage).empty());
  }
}

TEST(PassTable, RegisterPassSetsTheFieldsAndRefusesDuplicates) {
  OwnRegistry registry;
  EXPECT_TRUE(PassManager::registerPass(PassId::FoldConcats, OptimizationStage::PreQuant, {1, 7},
                                        PassRunMode::Once, 1, 5));
  const auto pass = getPassRegistry().table(OptimizationStage::PreQuant).at(PassId::FoldConcats);
  EXPECT_EQ(pass->enableMode, 1u);
  EXPECT_EQ(pass->keepMatchedOps, 5u);
  EXPECT_EQ(pass->stage, OptimizationStage::PreQuant);
  EXPECT_EQ(failureOf<std::runtime_error>([] {
              PassManager::registerPass(PassId::FoldConcats, OptimizationStage::PreQuant, {7},
                                        PassRunMode::Once, 0, 0);
            }),
            "netforge::graphrefiner::PassManager::registerPass: Pass FoldConcats is already registered");
  EXPECT_TRUE(PassManager::registerPass(PassId::FoldConcats)) << "each stage has a table of its own";
  EXPECT_TRUE(PassManager::registerPass(PassId::MatchTopK, static_cast<OptimizationStage>(4), {7},
                                        PassRunMode::Once, 0, 0));
  EXPECT_THROW(PassManager::registerPass(id(61)), std::runtime_error);
}

TEST(PassTable, DumpPassConfigGoesByBackendKind) {
  const auto config = getDumpPassConfig(nullptr);
  EXPECT_EQ(config.size(), 61u);
  EXPECT_TRUE(std::all_of(config.begin(), config.end(), [](const auto& entry) { return entry.second; }));
  EXPECT_TRUE(getDumpPassConfig(std::make_shared<BackendInfo>(std::uint8_t(7))).empty())
      << "a real backend of kind 7 is no absent backend";

  OwnRegistry registry;
  PassManager::registerPass(PassId::MatchTopK, OptimizationStage::PreLayout, {3, 8}, PassRunMode::Once, 1, 0);
  PassManager::registerPass(PassId::FoldConcats, OptimizationStage::PostQuant, {3}, PassRunMode::Once, 0, 0);
  EXPECT_EQ(getDumpPassConfig(std::make_shared<BackendInfo>(std::uint8_t(3))),
            (std::map<std::string, bool>{{"FoldConcats", true}, {"MatchTopK", false}}));
  EXPECT_EQ(getDumpPassConfig(std::make_shared<BackendInfo>(std::uint8_t(200))),
            (std::map<std::string, bool>{{"MatchTopK", false}}));
}

TEST(Pipelines, ListsByStageAndKind) {
  const std::vector<std::uint32_t> expected = {
      60, 19, 20, 51, 55, 54, 46, 59, 58, 52, 48, 44, 40, 37, 47, 49, 50, 43, 53, 41, 11, 42, 45, 6,
      57, 7,  2,  32, 17, 23, 1,  8,  39, 34, 36, 38, 5,  33, 24, 9,  25, 18, 30, 31, 28, 29, 14, 56};
  const auto numbers = [](std::uint32_t kind, OptimizationStage stage) {
    std::vector<std::uint32_t> list;
    for (const PassId pass : createPassPipeline(kind)->getPasses(nullptr, stage)) {
      list.push_back(static_cast<std::uint32_t>(pass));
    }
    return list;
  };
  EXPECT_EQ(numbers(7, OptimizationStage::PostLayout), expected);
  EXPECT_EQ(numbers(3, OptimizationStage::PostLayout), (std::vector<std::uint32_t>{26, 27}));
  for (const auto stage :
       {OptimizationStage::PreLayout, OptimizationStage::PreQuant, OptimizationStage::PostQuant}) {
    EXPECT_TRUE(numbers(7, stage).empty());
    EXPECT_TRUE(numbers(3, stage).empty());
  }
  for (const std::uint32_t kind : {0u, 1u, 2u, 4u, 5u, 6u, 8u})
    EXPECT_EQ(createPassPipeline(kind), nullptr) << kind;
}

TEST(ModuleFunctions, PythonVersionText) {
  const struct {
    const char* text;
    bool supported;
  } cases[] = {{"3.10.13 (main, Aug 24 2023)", true},
               {"3.10", true},
               {"3.10+", true},
               {"3.100", false},
               {"3.1", false},
               {"3.11.7", false},
               {"13.10", false},
               {"", false}};
  for (const auto& c : cases) EXPECT_EQ(isSupportedPythonVersion(c.text), c.supported) << c.text;
  EXPECT_TRUE(isPythonVersion("3.12.1", "3.12"));
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
