// Hadamard transforms and the scales behind them; Expand out of Tiles, and Expand into products.
#include <gtest/gtest.h>
#include "GraphRefiner/src/passes/fusion/FullyConnectedToHadamard.h"
#include "tests/support/GraphText.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

TEST(FullyConnectedToHadamard, RecognisesTheMatrix) {
  struct Row {
    const char* weights;
    bool isMatrix;
  };
  const Row rows[] = {{"[1,1] = 1", true},
                      {"[2,2] = 1 1 1 -1", true},
                      {"[2,2] f16 = 1 1 1 -1", true},
                      {"[4,4] = 1 1 1 1 1 -1 1 -1 1 1 -1 -1 1 -1 -1 1", true},
                      {"[4,4] = 1 1 1 1 1 1 -1 -1 1 -1 -1 1 1 -1 1 -1", false},  // rows in another order
                      {"[4,4] = 1 1 1 1 1 -1 1 -1 1 1 -1 -1 1 -1 -1 -1", false},
                      {"[2,2] = 1 1 1 1", false},
                      {"[2,2] = 0.5 0.5 0.5 -0.5", false},
                      {"[2,2] = -1 -1 -1 1", false},
                      {"[2,2] = 1 nan 1 -1", false},
                      {"[2,2] i32 = 1 1 1 -1", false},
                      {"[2,2] sq8 scale=1 = 1 1 1 -1", false},
                      {"[3,3] = 1 1 1 1 -1 1 1 1 -1", false},
                      {"[2,4] = 1 1 1 1 1 -1 1 -1", false},
                      {"[4] = 1 1 1 -1", false}};
  for (const Row& row : rows) {
    const auto graph = readGraph(std::string("const w") + row.weights);
    EXPECT_EQ(graphrefiner::isHadamardMatrix(graph->getStaticTensor("w")), row.isMatrix) << row.weights;
  }
}

TEST(FullyConnectedToHadamard, ReplacesTheProduct) {
  const std::string weights = "const w[2,2] = 1 1 1 -1\n";
  const auto replaced = [&](const std::string& x) {
    return "in x" + x + "\n" + weights + "y_hadamard: y = HadamardTransform(x) scale=1.0\n out y";
  };
  const std::string transposed = " keep_dims=true transpose_a=true\n";
  expectPass(PassId::FullyConnectedToHadamard,
             {{.fault = "a matrix stays",
               .before = "in x[3,2]\n" + weights + "y = FullyConnected(x, w)\n out y",
               .after = replaced("[3,2]")},
              {.fault = "a product that keeps its dims stays",
               .before = "in x[5,3,2]\n" + weights + "y = FullyConnected(x, w) keep_dims=true\n out y",
               .after = replaced("[5,3,2]")},
              {.fault = "a flattened input keeps its rows",
               .before = "in x[2,2,2]\n" + weights + "y = FullyConnected(x, w)\n out y"},
              {.fault = "a bias becomes an input of the transform",
               .before = "in x[3,2]\n const b[2] = 1 2\n" + weights + "y = FullyConnected(x, w, b)\n out y"},
              {.fault = "a transposed input passes",
               .before = "in x[2,2]\n" + weights + "y = FullyConnected(x, w)" + transposed + "out y"},
              {.fault = "weights that are computed end the run",
               .before = "in x[3,2]\n in v[2,2]\n w = Relu(v)\n y = FullyConnected(x, w)\n out y"},
              {.fault = "one constant as input and weights leaves no input",
               .before = weights + "y = FullyConnected(w, w)\n out y"},
              {.fault = "a taken name ends the run",
               .before = "in x[3,2]\n" + weights +
                         "y = FullyConnected(x, w)\n y_hadamard: z = Relu(x)\n out y\n out z"}});
}

TEST(FoldHadamardWithMul, MultipliesTheScale) {
  const std::string input = "in x[3,4]\n";
  const std::string front = input + "const c[1] = 0.25\n";
  const std::string transform = "h = HadamardTransform(x) scale=2.0\n";
  const auto graph = [&](const std::string& operands, const std::string& rest = "out y") {
    return front + transform + "y = Eltwise_Binary" + operands + " operation=13\n" + rest;
  };
  const std::string reshaped = front + transform + "r[4,3] = Reshape(h)\n";
  const std::string product = "y = Eltwise_Binary(r, c) operation=13\n out y\n";
  std::vector<PassCase> cases;
  for (const std::string operands : {"(h, c)", "(c, h)"}) {
    cases.push_back({.fault = "the operands " + operands,
                     .before = graph(operands),
                     .after = input + "h: y = HadamardTransform(x) scale=0.5\n out y"});
    std::string turned = operands;
    turned.replace(turned.find('h'), 1, "r");
    cases.push_back({.fault = "a Reshape between, operands " + turned,
                     .before = reshaped + "y = Eltwise_Binary" + turned + " operation=13\n out y",
                     .after = input + "h = HadamardTransform(x) scale=0.5\n r: y[4,3] = Reshape(h)\n out y"});
  }
  cases.insert(
      cases.end(),
      {{.fault = "the second of two products replaces the first",
        .before =
            front + "const d[1] i32 = -3\n" + transform +
            "m = Eltwise_Binary(h, c) operation=13\n y[3,4] = Eltwise_Binary(m, d) operation=13\n out y",
        .after = input + "const d[1] i32 = -3\n h: m = HadamardTransform(x) scale=0.5\n"
                         "y[3,4] = Eltwise_Binary(m, d) operation=13\n out y",
        .allow = kKeepsChanging},
       {.fault = "a transform that others read changes",
        .before = graph("(h, c)", "z = Relu(h)\n out y\n out z")},
       {.fault = "a transform that the application reads changes",
        .before = graph("(h, c)", "out y\n out h")},
       {.fault = "a Reshape that the application reads changes", .before = reshaped + product + "out r"},
       {.fault = "two elements count as one",
        .before = "in x[3,4]\n const d[4] = 2 2 2 2\n" + transform +
                  "y = Eltwise_Binary(h, d) operation=13\n out y"},
       {.fault = "a type that isn't read ends the run",
        .before =
            "in x[3,4]\n const d[1] i64 = 2\n" + transform + "y = Eltwise_Binary(h, d) operation=13\n out y"},
       {.fault = "a higher rank gets lost",
        .before =
            "in x[3,4]\n const d[1,1,1] = 2\n" + transform + "y = Eltwise_Binary(h, d) operation=13\n out y"},
       {.fault = "the user's range of the constant gets lost",
        .before = "in x[3,4]\n const d[1] range=0/2 = 2\n" + transform +
                  "y = Eltwise_Binary(h, d) operation=13\n out y"},
       {.fault = "the user's range of the transform gets lost",
        .before = front + "h[3,4] f32 range=0/2 = HadamardTransform(x) scale=2.0\n"
                          "y = Eltwise_Binary(h, c) operation=13\n out y"},
       {.fault = "the user's range of the Reshape gets lost",
        .before = front + transform + "r[4,3] f32 range=0/2 = Reshape(h)\n" + product}});
  expectPass(PassId::FoldHadamardWithMul, cases);
}

TEST(ExpandExpandOpToEltwise, MultipliesByOnes) {
  const auto graph = [](const std::string& input, const std::string& rest = "out y") {
    return "in x" + input + "\n y = Expand(x) shape=[2,3,4]\n" + rest;
  };
  const auto product = [](const std::string& x, const std::string& coefficient, int operation) {
    return "in x" + x + "\n const y_coef" + coefficient + "\n y_eltwise: y = Eltwise_Binary(x, y_coef)" +
           " operation=" + std::to_string(operation) + "\n out y";
  };
  std::vector<PassCase> cases = {
      {.fault = "ones on axes that don't grow",
       .before = graph("[3,1]"),
       .after = product("[3,1]", "[2,1,4] = fill 1", 13)},
      {.fault = "a product for bools",
       .before = graph("[3,1] bool"),
       .after = product("[3,1] bool", "[2,1,4] bool = fill 1", 1)},
      {.fault = "a scalar", .before = graph("[]"), .after = product("[]", "[2,3,4] = fill 1", 13)},
      {.fault = "a product where nothing grows",
       .before = graph("[2,3,4] u8"),
       .after = "in x[2,3,4] u8\n y_reshape: y = Reshape(x) shape=[2,3,4]\n out y"},
      {.fault = "an op that bears the Reshape's name ends the run",
       .before = graph("[2,3,4]", "y_reshape: z = Relu(x)\n out y\n out z")},
      {.fault = "a tensor that bears the constant's name ends the run",
       .before = graph("[3,1]", "y_coef = Relu(x)\n out y\n out y_coef")},
      {.fault = "an op that bears the product's name ends the run",
       .before = graph("[3,1]", "y_eltwise: z = Relu(x)\n out y\n out z")},
      {.fault = "the shape operand becomes a factor",
       .before = "in x[3,1]\n const s[3] i32 = 2 3 4\n y[2,3,4] = plain Expand(x, s) shape=[2,3,4]\n out y"},
      {.fault = "an axis of unknown length ends the run",
       .before = "in x[?3,1]\n y[2,3,4] = plain Expand(x) shape=[2,3,4]\n out y"}};
  for (const std::string type : {"i8", "u8", "i16", "u16", "i32", "u32", "i64", "u64", "f16"}) {
    cases.push_back({.fault = "the ones of " + type + " aren't ones",
                     .before = graph("[3,1] " + type),
                     .after = product("[3,1] " + type, "[2,1,4] " + type + " = fill 1", 13)});
  }
  for (const std::string type : {"sq8 scale=0.5", "uq16 scale=0.5", "str"}) {
    cases.push_back({.fault = "ones of type " + type, .before = graph("[3,1] " + type)});
  }
  expectPass(PassId::ExpandExpandOpToEltwise, cases);
}

TEST(SquashTileUnsqueezeToExpand, FormsOneExpand) {
  const auto graph = [](const std::string& x, const std::string& pair, const std::string& rest = "out y") {
    return "in x" + x + "\n" + pair + rest;
  };
  const auto expand = [](const std::string& x, const std::string& dims) {
    return "in x" + x + "\n y_expand: y = Expand(x) shape=" + dims + "\n out y";
  };
  const std::string reshape = "m[1,1,3] = Reshape(x)\n y = Tile(m) multiples=[2,4,1]\n";
  expectPass(
      PassId::SquashTileUnsqueezeToExpand,
      {{.fault = "Tile of Reshape", .before = graph("[3]", reshape), .after = expand("[3]", "[2,4,3]")},
       {.fault = "Tile of ExpandDims",
        .before = graph("[1,3]", "m = ExpandDims(x) axes=[0]\n y = Tile(m) multiples=[2,4,1]\n"),
        .after = expand("[1,3]", "[2,4,3]")},
       {.fault = "Reshape of Tile",
        .before = graph("[1,3]", "m = Tile(x) multiples=[4,1]\n y[1,4,3] = Reshape(m)\n"),
        .after = expand("[1,3]", "[1,4,3]")},
       {.fault = "ExpandDims of Tile",
        .before = graph("[1,3]", "m = Tile(x) multiples=[4,1]\n y = ExpandDims(m) axes=[0]\n"),
        .after = expand("[1,3]", "[1,4,3]")},
       {.fault = "the shape that the Reshape reads becomes an operand, or its ops stay behind",
        .before = graph("[1,3]",
                        "in s[3] i32\n t = Relu(s)\n m = Tile(x) multiples=[4,1]\n"
                        "y[1,4,3] = Reshape(m, t)\n"),
        .after = "in x[1,3]\n in s[3] i32\n y_expand: y = Expand(x) shape=[1,4,3]\n out y"},
       {.fault = "a Tile that repeats more than one row",
        .before = graph("[3]", "m[1,3] = Reshape(x)\n y = Tile(m) multiples=[1,2]\n")},
       {.fault = "an axis in the middle",
        .before = graph("[4,3]", "m = ExpandDims(x) axes=[1]\n y = Tile(m) multiples=[1,2,1]\n")},
       {.fault = "a Reshape that isn't an unsqueeze",
        .before = graph("[2,3]", "m[3,2] = Reshape(x)\n y = Tile(m) multiples=[1,1]\n")},
       {.fault = "a rank that shrinks",
        .before = graph("[1,1,3]", "m[1,3] = Reshape(x)\n y = Tile(m) multiples=[2,1]\n")},
       {.fault = "the application reads the tensor between",
        .before = graph("[3]", reshape, "out y\n out m")},
       {.fault = "somebody else reads the tensor between",
        .before = graph("[3]", reshape, "z = Relu(m)\n out y\n out z")},
       {.fault = "an op that bears the name ends the run",
        .before = graph("[3]", reshape, "y_expand: z = Relu(x)\n out y\n out z")}});
}

}  // namespace
}  // namespace netforge::testing
