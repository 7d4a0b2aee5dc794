#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace netforge {

class BaseTransform {
 public:
  virtual ~BaseTransform();
  virtual std::string serialize() const = 0;
};
class ReshapeTransform : public BaseTransform {
 public:
  explicit ReshapeTransform(const std::vector<std::uint32_t>& shape);
  std::string serialize() const override;
  std::vector<std::uint32_t> shape;
};
class TransposeTransform : public BaseTransform {
 public:
  explicit TransposeTransform(const std::vector<std::uint32_t>& perm);
  std::string serialize() const override;
  std::vector<std::uint32_t> perm;
};
class TransformManager {
 public:
  void addTransform(const std::shared_ptr<BaseTransform>& transform);
  const std::vector<std::shared_ptr<BaseTransform>>& getTransforms() const;
};
std::string toListText(const std::vector<std::uint32_t>& values);

}  // namespace netforge
