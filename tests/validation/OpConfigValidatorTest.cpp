#include "Core/Validation/src/Operations/OpConfigValidator.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "ir/IrGraph.h"
#include "output/IrOrloTranslator.h"
#include "tests/support/Failures.h"
#include "tests/support/GraphText.h"

namespace netforge {
namespace {

using testing::failureOf;
using testing::readGraph;
using Function = OpConfigValidator::ValidatorFunction;
using Map = OpConfigValidator::ValidatorMap;

Function giving(std::uint32_t code) {
  return [code](const Orlo_OpConfig_t&) { return code; };
}

std::shared_ptr<OpConfigValidator> validatorOf(const Map& functions, const Map& extra = {}) {
  return std::make_shared<OpConfigValidator>(std::make_shared<Map>(functions), extra);
}

/// What the log gains from here on.
class LogGain {
 public:
  std::string text() const { return getValidationLogText().substr(start); }

 private:
  std::size_t start = getValidationLogText().size();
};

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

TEST(OpConfigValidator, Codes) {
  struct Case {
    Map functions, extra;
    std::uint32_t code;
    std::string messages = "";
  };
  const std::string refused = "Op specific validation failed.\n";
  const Case cases[] = {
      {{{"Relu", giving(0)}}, {}, 0},
      {{{"Relu", nullptr}}, {}, 4005},
      {{{"Relu", giving(7)}}, {{"Relu", giving(0)}}, 3110, refused},
      {{{"Relu", giving(0)}}, {{"Relu", giving(9)}}, 9},
      {{{"Relu", giving(0)}}, {{"Relu", nullptr}}, 4005},
      {{}, {{"Relu", giving(0)}}, 4005},
  };
  Orlo_OpConfig_t config{1, "op", "package", "Relu", 0, nullptr, 0, nullptr, 0, nullptr};
  for (const Case& test : cases) {
    const LogGain gain;
    EXPECT_EQ(validatorOf(test.functions, test.extra)->validate(config), test.code);
    EXPECT_EQ(gain.text(), test.messages);
  }
  OpConfigValidator validator;
  EXPECT_EQ(validator.validate(config), 4005u) << "no map at all";
  validator.fallbackValidator = giving(0);
  EXPECT_EQ(validator.validate(config), 0u);
  validator.opValidators = std::make_shared<Map>(Map{{"Relu", nullptr}});
  EXPECT_EQ(validator.validate(config), 4005u) << "an empty function isn't replaced";

  const LogGain gain;
  config.typeName = nullptr;
  EXPECT_EQ(validator.validate(config), 3110u);
  EXPECT_EQ(gain.text(), "Op config op missing opType.\nOp config was not well formed.\n");
  EXPECT_TRUE(endsWith(validator.getLog(), gain.text()));
}

TEST(OpConfigValidator, LoggersGetMessagesOfTheirLevel) {
  constexpr std::uint64_t kHandle = 0xF00D00000001;
  std::string heard;
  const auto logger = std::make_shared<ValidationLogger>();
  logger->level = 5;
  logger->sink = [&](const char* format, std::uint32_t level, std::uint64_t, std::va_list args) {
    char line[200];
    std::vsnprintf(line, sizeof line, format, args);
    heard += std::to_string(level) + " " + line;
    getValidationLogText();  // no lock is held
  };
  registerValidationLogger(kHandle, logger);
  OpConfigValidator validator(nullptr, {}, kHandle);
  Orlo_OpConfig_t config{1, "op", nullptr, "Relu", 0, nullptr, 0, nullptr, 0, nullptr};
  const std::string failure = "1 Op config op missing package name.\n1 Op config was not well formed.\n";
  const LogGain gain;
  validator.validate(config);
  EXPECT_EQ(heard, "5 Validating Op Config op.\n" + failure);
  EXPECT_EQ(gain.text(), "Op config op missing package name.\nOp config was not well formed.\n");

  heard.clear();
  logger->level = 4;
  validator.validate(config);
  logValidation(6, "%s%u\n", "quiet ", 1u);
  EXPECT_EQ(heard, failure);
  EXPECT_TRUE(endsWith(gain.text(), "quiet 1\n")) << "the log takes every level";

  heard.clear();
  registerValidationLogger(kHandle, nullptr);
  validator.validate(config);
  EXPECT_EQ(heard, "");
}

TEST(GraphOpConfig, EveryEditChecksWhenAsked) {
  const auto graph = readGraph("in x[2,3] f32\na = Relu(x)\nb = Relu(a)\nout b");
  std::string checked;
  graph->opConfigValidator = validatorOf({{"Copy", [&](const Orlo_OpConfig_t& config) {
                                             checked += std::string(config.name) + " ";
                                             return config.name[0] == 'b' ? 1u : 0u;
                                           }}});
  const auto copy = [](const char* name) { return std::make_shared<ops::IrOp>(name, "Copy", nullptr); };
  const auto attached = [&](const char* name) {
    const auto op = copy(name);
    op->addInput(graph->getTensor("x"));
    op->addOutput(graph->getTensor("b"));
    return op;
  };
  const std::vector<AxisFormat> formats;
  graph->addOp(copy("good1"), {"x"}, {"o1"}, formats, -1, true);
  graph->addOp(copy("good2"), {"x"}, {"o2"}, {IrTensorShape({2, 3})}, formats, -1, true);
  graph->inject(copy("good3"), "a", "o3", {}, AxisFormat::NF, true);
  graph->injectAtIndex(copy("good4"), "x", "o4", 0, {"a"}, AxisFormat::NF, true);
  graph->addOp(attached("good5"), -1, true);
  EXPECT_EQ(checked, "good1 good2 good3 good4 good5 ");

  const auto failing = [&](const char* name, const std::function<void()>& edit) {
    const std::string end =
        std::string("netforge::IrGraph::validateOrloOpConfig: Failed ORLO validation for ") + name +
        " with error\n";
    const std::string text = failureOf<std::runtime_error>(edit);
    EXPECT_EQ(text.substr(0, end.size()), end);
    EXPECT_TRUE(endsWith(text, "Op specific validation failed.\n")) << text;
    EXPECT_FALSE(graph->hasOp(name));
    return text;
  };
  failing("bad2", [&] { graph->inject(copy("bad2"), "b", "p2", {}, AxisFormat::NF, true); });
  failing("bad3", [&] { graph->injectAtIndex(copy("bad3"), "b", "p3", 9, {}, AxisFormat::NF, true); });
  const std::string first = failing("bad4", [&] { graph->addOp(attached("bad4"), 0, true); });
  const std::string second = failing("bad5", [&] { graph->addOp(attached("bad5"), 0, true); });
  EXPECT_GT(second.size(), first.size()) << "a failure's text holds those of all before";
}

TEST(GraphOpConfig, WhatIsCheckedAndWhatIsRefused) {
  struct Case {
    std::string op;
    std::string end;  // of the failure; empty: sound
  };
  const std::string malformed = "Op config was not well formed.\n";
  const Case cases[] = {
      {"Eltwise_Binary(s, s) eltwise_type=ElementWiseAdd", ""},
      {"Eltwise_Binary(s, s) eltwise_type=ElementWiseSubtract", "Tensor is incorrectly sparse\n" + malformed},
      {"Gather(d) axis=0:i32", ""},
      {"TopK(d) k=1", "Tensor incorrectly has dynamic dimensions.\n" + malformed},
      {"Resize(x) interpolation_mode=0", "Op config z missing opType.\n" + malformed},
  };
  for (const Case& test : cases) {
    const auto graph =
        readGraph("in x[2,3] f32\nin s[2,3] f32\nin d[?2,3] f32\nz[2,3] f32 = plain " + test.op);
    graph->getTensor("s")->setSparseParams({0, 4, 2});
    graph->opConfigValidator = std::make_shared<OpConfigValidator>();
    graph->opConfigValidator->fallbackValidator = giving(0);
    const auto op = graph->getOp("z");
    const auto check = [&] { graph->validateOrloOpConfig(op, true, ""); };
    if (test.end.empty()) {
      EXPECT_NO_THROW(check()) << test.op;
    } else {
      const std::string text = failureOf<std::runtime_error>(check);
      EXPECT_TRUE(endsWith(text, test.end)) << text;
    }
  }
}

TEST(GraphOpConfig, AConstantThatLostItsDataAsAnInput) {
  const auto graph = readGraph("in x[2,3] f32\nconst c[2] u32 = 1 2\ny = Custom(x, c)\nz = Custom(y)\nout z");
  graph->opConfigValidator = std::make_shared<OpConfigValidator>();
  graph->opConfigValidator->fallbackValidator = giving(0);
  graph->getOp("z")->getAttributes()->add("perm", graph->getStaticTensor("c"), ATTR_ORDINARY);
  graph->validateOrloOpConfig(graph->getOp("y"), true, "");
  const std::string text =
      failureOf<std::runtime_error>([&] { graph->validateOrloOpConfig(graph->getOp("z"), true, ""); });
  EXPECT_TRUE(endsWith(text, "NULL buffer provided to param perm.\nOp config was not well formed.\n"));
}

TEST(GraphOpConfig, ARecordThatBearsAnotherNameCollides) {
  const auto graph = readGraph("in x[2,3] f32\ny = Relu(x)\nout y");
  graph->opConfigValidator = validatorOf({{"Relu", giving(0)}});
  auto* record = const_cast<Orlo_OpConfig_t*>(graph->getTranslator().getOrloOp(graph->getOp("y"), true, ""));
  record->name = "other";
  EXPECT_EQ(failureOf<std::runtime_error>([&] { graph->validateOrloOpConfig(graph->getOp("y"), true, ""); }),
            "netforge::IrGraph::validateOrloOpConfig: Collision detected! Op name y does not match opConfig "
            "name other (op type: Relu)");
}

TEST(GraphOpConfig, AValidatorMayChangeTheGraphsValidator) {
  const auto graph = readGraph("in x[2,3] f32\ny = Relu(x)\nout y");
  auto functions = std::make_shared<Map>();
  (*functions)["Relu"] = [graph = graph.get(), functions = functions.get()](const Orlo_OpConfig_t& config) {
    graph->opConfigValidator = nullptr;
    functions->clear();
    return config.numOfInputs == 1 ? 0u : 1u;
  };
  graph->opConfigValidator = std::make_shared<OpConfigValidator>(functions);
  graph->validateOrloOpConfig(graph->getOp("y"), true, "");
  EXPECT_EQ(graph->opConfigValidator, nullptr);
}

}  // namespace
}  // namespace netforge
