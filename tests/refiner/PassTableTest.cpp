// The pass table, the registry, the pipelines and the functions behind the module's functions.
#include <algorithm>
#include <stdexcept>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/PassPipeline.h"
#include "RefinerTestSupport.h"
#include "ir/BackendInfo.h"

namespace netforge::graphrefiner::testing {
namespace {

PassId id(std::uint32_t number) {
  return static_cast<PassId>(number);
}

TEST(PassTable, NumbersAreInterfaceAndEveryPassHasAll) {
  const std::vector<std::string> names = getRegisteredPassNames();
  ASSERT_EQ(names.size(), 61u);
  // Configurations hold these: a row that is put in, taken out or moved shows at one of them.
  EXPECT_EQ(getPassIdFromPassName("AlignMatmulRanks"), id(0));
  EXPECT_EQ(getPassIdFromPassName("RemoveCastIdentity"), id(19));
  EXPECT_EQ(getPassIdFromPassName("OptimizeNonInplaceConcat"), id(40));
  EXPECT_EQ(getPassIdFromPassName("MatchTopK"), id(60));
  for (std::uint32_t number = 0; number < names.size(); ++number) {
    EXPECT_EQ(getPassNameFromPassId(id(number)), names[number]);
    EXPECT_EQ(getPassIdFromPassName(names[number]), id(number));
    EXPECT_NE(createPass(id(number)), nullptr) << names[number];
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
    EXPECT_EQ(pass->runMode, getPassRunMode(passId)) << getPassNameFromPassId(passId);
  }
}

TEST(PassTable, RegisterPassSetsTheFieldsAndRefusesDuplicates) {
  OwnRegistry registry;
  EXPECT_TRUE(PassManager::registerPass(PassId::FoldConcats, OptimizationStage::PreQuant, {1, 7},
                                        PassRunMode::Once, 1, 5));
  const auto pass = getPassRegistry().table(OptimizationStage::PreQuant).at(PassId::FoldConcats);
  EXPECT_EQ(pass->enableMode, 1u);
  EXPECT_EQ(pass->keepMatchedOps, 5u);
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
  EXPECT_EQ(getDumpPassConfig(nullptr).size(), 61u);
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

TEST(Pipelines, HoldEveryPassOnceAndInTheirOrder) {
  const auto passes = [](std::uint32_t kind) {
    return createPassPipeline(kind)->getPasses(nullptr, OptimizationStage::PostLayout);
  };
  const auto byDefault = passes(7);
  EXPECT_EQ(byDefault.size(), 48u);
  EXPECT_EQ(std::set<PassId>(byDefault.begin(), byDefault.end()).size(), 48u);
  const auto place = [&](PassId pass) { return std::find(byDefault.begin(), byDefault.end(), pass); };
  // What a later pass leans on.
  const std::pair<PassId, PassId> orders[] = {
      {PassId::MatchTopK, PassId::RemoveCastIdentity},
      {PassId::AdjustNormOpBuffers, PassId::AdjustNormOpFlattenLastDims},
      {PassId::SquashMultiplePermute, PassId::OptimizeTransposes},
      {PassId::ExpandLstmOpStructure, PassId::UnrollLstm},
      {PassId::Replace6dOps, PassId::FlattenPReluAlpha},
  };
  for (const auto& [first, second] : orders) {
    EXPECT_LT(place(first), place(second)) << getPassNameFromPassId(first);
    EXPECT_NE(place(second), byDefault.end());
  }
  EXPECT_EQ(passes(3), (std::vector<PassId>{PassId::FullyConnectedToHadamard, PassId::FoldHadamardWithMul}));
  EXPECT_EQ(createPassPipeline(8), nullptr);
}

TEST(ModuleFunctions, PythonVersionText) {
  for (const char* text : {"3.10.13 (main, Aug 24 2023)", "3.10", "3.10+"}) {
    EXPECT_TRUE(isSupportedPythonVersion(text)) << text;
  }
  for (const char* text : {"3.100", "3.1", "3.11.7", "13.10", ""}) {
    EXPECT_FALSE(isSupportedPythonVersion(text)) << text;
  }
  EXPECT_TRUE(isPythonVersion("3.12.1", "3.12"));
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
