#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace netforge {

/// One step that was done to the data of a static tensor.
class BaseTransform {
 public:
  virtual ~BaseTransform();
  /// A JSON object as text: one token group per line, no indentation, no line end behind the last brace.
  virtual std::string serialize() const = 0;
};

/// The data was given the dims `shape`.
class ReshapeTransform : public BaseTransform {
 public:
  explicit ReshapeTransform(const std::vector<std::uint32_t>& shape);
  std::string serialize() const override;
  std::vector<std::uint32_t> shape;
};

/// Axis i of the result is axis perm[i] of the data.
class TransposeTransform : public BaseTransform {
 public:
  explicit TransposeTransform(const std::vector<std::uint32_t>& perm);
  std::string serialize() const override;
  std::vector<std::uint32_t> perm;
};

/// The steps done to a static tensor, in order of recording. Shared by the tensor and all tensors that were
/// derived from it, so that each of them sees every later step. Entries are never removed or changed.
class TransformManager {
 public:
  void addTransform(const std::shared_ptr<BaseTransform>& transform);  ///< null is ignored
  const std::vector<std::shared_ptr<BaseTransform>>& getTransforms() const;

 private:
  std::vector<std::shared_ptr<BaseTransform>> transforms;
};

/// "[1, 2, 3]"; "[]" for none.
std::string toListText(const std::vector<std::uint32_t>& values);

}  // namespace netforge
