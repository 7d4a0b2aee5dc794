#include <algorithm>
#include <set>
#include <typeinfo>
#include "ir/Failure.h"
#include "tests/support/GraphText.h"
#include "tests/support/TextValues.h"

namespace netforge::testing {

namespace {

using TensorPtr = std::shared_ptr<IrTensor>;
using OpPtr = std::shared_ptr<ops::IrOp>;
using Names = std::vector<std::string>;

template <class Items>
Names namesOf(const Items& items) {
  Names names;
  for (const auto& item : items) names.push_back(item->getName());
  return names;
}

std::string roleWord(const IrTensor& tensor) {
  static constexpr const char* words[] = {"graph input", "graph output", "graph input and output",
                                          "native",      "static",       "null"};
  const auto number = static_cast<std::uint32_t>(tensor.getTensorType());
  return number < std::size(words) ? words[number] : "type " + std::to_string(number);
}

std::map<std::string, std::string> attributesThatMatter(const ops::IrOp& op) {
  std::map<std::string, std::string> result;
  for (const auto& [name, attribute] : op.getAttributes()->entries()) {
    const std::string value = attributeText(op.getType(), name, attribute);
    if (name == "packageName" && value == "orlo.base") continue;
    if (name == "shape" && op.getType() == "Reshape") continue;
    result[name] = value;
  }
  return result;
}

class Comparison {
 public:
  std::string run(const IrGraph& expected, const IrGraph& actual) {
    compareOps(expected, actual);
    check("graph inputs", namesOf(expected.getGraphInputs()), namesOf(actual.getGraphInputs()));
    check("graph outputs", namesOf(expected.getGraphOutputs()), namesOf(actual.getGraphOutputs()));
    for (const auto& [name, tensor] : expected.getTensors()) {
      const TensorPtr found = actual.getTensor(name);
      if (found == nullptr) {
        report("tensor ", name, " is missing");
      } else {
        compareTensors(*tensor, *found);
      }
    }
    for (const auto& [name, tensor] : actual.getTensors()) {
      if (!expected.hasTensor(name)) report("tensor ", name, " is not expected");
    }
    return lines;
  }

 private:
  template <class... Parts>
  void report(const Parts&... parts) {
    lines += concatText(parts..., "\n");
  }

  template <class T>
  void check(const std::string& what, const T& expected, const T& found) {
    if (expected != found) report(what, ": expected ", expected, ", found ", found);
  }

  void compareOps(const IrGraph& expected, const IrGraph& actual) {
    bool sameSet = true;
    for (const OpPtr& op : expected.getOps()) {
      const OpPtr found = actual.getOp(op->getName());
      if (found == nullptr) {
        report("op ", op->displayName(), " is missing");
        sameSet = false;
      } else {
        compareOp(*op, *found);
      }
    }
    for (const OpPtr& op : actual.getOps()) {
      if (expected.hasOp(op->getName())) continue;
      report("op ", op->displayName(), " is not expected");
      sameSet = false;
    }
    if (sameSet) check("order of the ops", namesOf(expected.getOps()), namesOf(actual.getOps()));
  }

  void compareOp(const ops::IrOp& expected, const ops::IrOp& found) {
    const std::string op = "op " + expected.getName() + ": ";
    check(op + "type", expected.getType(), found.getType());
    if (expected.getType() == found.getType() && typeid(expected) != typeid(found)) {
      report(op, "expected ", isPlainOp(expected) ? "a plain op" : "an op of its class", ", found ",
             isPlainOp(found) ? "a plain op" : "an op of its class");
    }
    check(op + "inputs", namesOf(expected.getInputs()), namesOf(found.getInputs()));
    check(op + "outputs", namesOf(expected.getOutputs()), namesOf(found.getOutputs()));
    const auto expectedValues = attributesThatMatter(expected);
    const auto foundValues = attributesThatMatter(found);
    for (const auto& [name, value] : expectedValues) {
      const auto entry = foundValues.find(name);
      if (entry == foundValues.end()) {
        report(op, "attribute ", name, "=", value, " is missing");
      } else {
        check(op + "attribute " + name, value, entry->second);
      }
    }
    for (const auto& [name, value] : foundValues) {
      if (expectedValues.count(name) == 0) report(op, "attribute ", name, "=", value, " is not expected");
    }
  }

  void compareTensors(const IrTensor& expected, const IrTensor& found) {
    const std::string tensor = "tensor " + expected.getName() + ": ";
    check(tensor + "shape", concatText(expected.getShape()), concatText(found.getShape()));
    check(tensor + "type", typeWord(expected.getDataType()), typeWord(found.getDataType()));
    check(tensor + "role", roleWord(expected), roleWord(found));
    check(tensor + "updateable", expected.isUpdateable(), found.isUpdateable());
    check(tensor + "sparsity", sparseText(expected.getSparseParams()), sparseText(found.getSparseParams()));
    check(tensor + "quantizable", expected.isQuantizable(), found.isQuantizable());
    if (expected.getAxisFormat() != AxisFormat::NOT_YET_DEFINED) {
      check(tensor + "layout", axisFormatToString(expected.getAxisFormat()),
            axisFormatToString(found.getAxisFormat()));
    }
    if (expected.getSrcAxisFormat() != AxisFormat::NOT_YET_DEFINED) {
      check(tensor + "source layout", axisFormatToString(expected.getSrcAxisFormat()),
            axisFormatToString(found.getSrcAxisFormat()));
    }
    if (!expected.getExplicitPermuteOrder().empty()) {
      check(tensor + "permute order", expected.getPermuteOrder(), found.getPermuteOrder());
    }
    if (expected.getQuantInfo() != found.getQuantInfo()) {
      const EncodingInfo& a = expected.getQuantInfo().scaleOffset;
      const EncodingInfo& b = found.getQuantInfo().scaleOffset;
      report(tensor, "quantisation: expected encoding ", expected.getQuantInfo().encoding, " scale ", a.scale,
             " offset ", a.offset, ", found encoding ", found.getQuantInfo().encoding, " scale ", b.scale,
             " offset ", b.offset);
    }
    if (expected.isStatic() != found.isStatic()) {
      report(tensor, expected.isStatic() ? "expected constant data" : "expected no constant data");
    } else if (expected.isStatic()) {
      compareData(tensor, const_cast<IrTensor&>(expected), const_cast<IrTensor&>(found));
    }
  }

  // Reading constant data may load it, hence not const.
  void compareData(const std::string& tensor, IrTensor& expected, IrTensor& found) {
    const auto valuesOf = [](IrTensor& holder) {
      auto& constant = dynamic_cast<IrStaticTensor&>(holder);
      return decodeElements(constant.getData(), constant.getDataSize(), constant.getDataType());
    };
    const std::vector<double> a = valuesOf(expected);
    const std::vector<double> b = valuesOf(found);
    check(tensor + "number of elements", a.size(), b.size());
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
      if (a[i] == b[i] || (a[i] != a[i] && b[i] != b[i])) continue;
      report(tensor, "element ", i, ": expected ", numberText(a[i], expected.getDataType()), ", found ",
             numberText(b[i], found.getDataType()));
      return;
    }
  }

  std::string lines;
};

}  // namespace

std::string explainDifference(const IrGraph& expected, const IrGraph& actual) {
  return Comparison().run(expected, actual);
}

}  // namespace netforge::testing
