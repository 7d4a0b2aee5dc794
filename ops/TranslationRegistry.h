#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include "ir/IrOp.h"

namespace netforge {

/// The process's table of creators, by op type, that rebuild a typed op around given attributes and tensors.
/// The op classes register theirs when the library loads.
class TranslationRegistry {
 public:
  using TensorList = std::vector<std::shared_ptr<IrTensor>>;
  using Creator = std::function<std::shared_ptr<ops::IrOp>(
      const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& inputs,
      const TensorList& outputs)>;

  static TranslationRegistry& instance();

  /// Stores the creator. Always gives true, so that a file-scope static can be initialised by one call.
  /// Throws std::invalid_argument when the type is there already and `allowOverwrite` is false.
  bool registerTranslationMethod(const std::string& type, const Creator& creator, bool allowOverwrite);

  /// Runs the creator of `type`. The op shares the attribute table and the tensors with the caller. Throws
  /// std::runtime_error for an unknown type, and in place of a std::exception out of the creator. The creator
  /// runs under the registry's lock and must not call back into the registry.
  std::shared_ptr<ops::IrOp> applyMethod(const std::string& type, const std::string& name,
                                         const std::shared_ptr<IrAttributes>& attributes,
                                         const TensorList& inputs, const TensorList& outputs);

  bool hasMethod(const std::string& type);

 private:
  TranslationRegistry() = default;

  std::map<std::string, Creator> translations;
  std::mutex mutex;
};

}  // namespace netforge
