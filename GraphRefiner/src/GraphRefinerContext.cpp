#include "GraphRefiner/src/GraphRefinerContext.h"

#include <cstring>
#include <stdexcept>
#include "ir/Failure.h"

namespace netforge::graphrefiner {

std::string stageName(OptimizationStage stage) {
  switch (stage) {
    case OptimizationStage::PreLayout:
      return "PreLayout";
    case OptimizationStage::PostLayout:
      return "PostLayout";
    case OptimizationStage::PreQuant:
      return "PreQuant";
    case OptimizationStage::PostQuant:
      return "PostQuant";
  }
  fail<std::invalid_argument>("netforge::graphrefiner::stageName", "Invalid optimization stage ", stage);
}

bool isPythonVersion(const char* versionText, const char* wanted) {
  if (versionText == nullptr || wanted == nullptr) return false;
  const std::size_t length = std::strlen(wanted);
  if (std::strncmp(versionText, wanted, length) != 0) return false;
  const char next = versionText[length];
  return next < '0' || next > '9';
}

bool isSupportedPythonVersion(const char* versionText) {
  return isPythonVersion(versionText, "3.10");
}

}  // namespace netforge::graphrefiner
