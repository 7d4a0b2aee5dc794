#include "metadata/Transforms.h"

namespace netforge {

namespace {

std::string serializeStep(const char* type, const char* attribute, const std::vector<std::uint32_t>& values) {
  std::string text = "{\n";
  text += std::string("\"type\": \"") + type + "\",\n";
  text += "\"tensor_attributes\": [\n";
  text += "{\n";
  text += std::string("\"") + attribute + "\": {\n";
  text += "\"dtype\": \"uint32\",\n";
  text += "\"dims\": [" + std::to_string(values.size()) + "],\n";
  text += "\"data\": " + toListText(values) + "\n";
  text += "}\n";
  text += "}\n";
  text += "]\n";
  text += "}";
  return text;
}

}  // namespace

BaseTransform::~BaseTransform() = default;

ReshapeTransform::ReshapeTransform(const std::vector<std::uint32_t>& dims) : shape(dims) {}

std::string ReshapeTransform::serialize() const {
  return serializeStep("Reshape", "shape", shape);
}

TransposeTransform::TransposeTransform(const std::vector<std::uint32_t>& order) : perm(order) {}

std::string TransposeTransform::serialize() const {
  return serializeStep("Transpose", "perm", perm);
}

void TransformManager::addTransform(const std::shared_ptr<BaseTransform>& transform) {
  if (transform) transforms.push_back(transform);
}

const std::vector<std::shared_ptr<BaseTransform>>& TransformManager::getTransforms() const {
  return transforms;
}

std::string toListText(const std::vector<std::uint32_t>& values) {
  std::string text = "[";
  const char* separator = "";
  for (std::uint32_t value : values) {
    text += separator + std::to_string(value);
    separator = ", ";
  }
  return text + "]";
}

}  // namespace netforge
