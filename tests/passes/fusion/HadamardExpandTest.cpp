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
  expectPass(
      PassId::FullyConnectedToHadamard,
      {{"a matrix stays", "in x[3,2]\n" + weights + "y = FullyConnected(x, w)\n out y", replaced("[3,2]")},
       {"a product that keeps its dims stays",
        "in x[5,3,2]\n" + weights + "y = FullyConnected(x, w) keep_dims=true\n out y", replaced("[5,3,2]")},
       {"a flattened input keeps its rows", "in x[2,2,2]\n" + weights + "y = FullyConnected(x, w)\n out y"},
       {"weights that can be updated are dropped",
        "in x[3,2]\n const w[2,2] f32 updateable = 1 1 1 -1\n y = FullyConnected(x, w)\n out y"},
       {"a bias becomes an input of the transform",
        "in x[3,2]\n const b[2] = 1 2\n" + weights + "y = FullyConnected(x, w, b)\n out y"},
       {"a transposed input passes",
        "in x[2,2]\n" + weights + "y = FullyConnected(x, w)" + transposed + "out y"},
       {"weights that are computed end the run",
        "in x[3,2]\n in v[2,2]\n w = Relu(v)\n y = FullyConnected(x, w)\n out y"},
       {"one constant as input and weights leaves no input", weights + "y = FullyConnected(w, w)\n out y"},
       {"a taken name ends the run",
        "in x[3,2]\n" + weights + "y = FullyConnected(x, w)\n y_hadamard: z = Relu(x)\n out y\n out z"}});
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
    cases.push_back({"the operands " + operands, graph(operands),
                     input + "h: y = HadamardTransform(x) scale=0.5\n out y"});
    std::string turned = operands;
    turned.replace(turned.find('h'), 1, "r");
    cases.push_back({"a Reshape between, operands " + turned,
                     reshaped + "y = Eltwise_Binary" + turned + " operation=13\n out y",
                     input + "h = HadamardTransform(x) scale=0.5\n r: y[4,3] = Reshape(h)\n out y"});
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
       {"a transform that others read changes", graph("(h, c)", "z = Relu(h)\n out y\n out z")},
       {"a transform that the application reads changes", graph("(h, c)", "out y\n out h")},
       {"a Reshape that the application reads changes", reshaped + product + "out r"},
       {"two elements count as one",
        "in x[3,4]\n const d[4] = 2 2 2 2\n" + transform + "y = Eltwise_Binary(h, d) operation=13\n out y"},
       {"a type that isn't read ends the run",
        "in x[3,4]\n const d[1] i64 = 2\n" + transform + "y = Eltwise_Binary(h, d) operation=13\n out y"},
       {"a higher rank gets lost",
        "in x[3,4]\n const d[1,1,1] = 2\n" + transform + "y = Eltwise_Binary(h, d) operation=13\n out y"},
       {"the user's range of the constant gets lost", "in x[3,4]\n const d[1] range=0/2 = 2\n" + transform +
                                                          "y = Eltwise_Binary(h, d) operation=13\n out y"},
       {"the user's range of the transform gets lost",
        front + "h[3,4] f32 range=0/2 = HadamardTransform(x) scale=2.0\n"
                "y = Eltwise_Binary(h, c) operation=13\n out y"},
       {"the user's range of the Reshape gets lost",
        front + transform + "r[4,3] f32 range=0/2 = Reshape(h)\n" + product}});
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
      {"ones on axes that don't grow", graph("[3,1]"), product("[3,1]", "[2,1,4] = fill 1", 13)},
      {"a product for bools", graph("[3,1] bool"), product("[3,1] bool", "[2,1,4] bool = fill 1", 1)},
      {"a scalar", graph("[]"), product("[]", "[2,3,4] = fill 1", 13)},
      {"a product where nothing grows", graph("[2,3,4] u8"),
       "in x[2,3,4] u8\n y_reshape: y = Reshape(x) shape=[2,3,4]\n out y"},
      {"an op that bears the Reshape's name ends the run",
       graph("[2,3,4]", "y_reshape: z = Relu(x)\n out y\n out z")},
      {"a tensor that bears the constant's name ends the run",
       graph("[3,1]", "y_coef = Relu(x)\n out y\n out y_coef")},
      {"an op that bears the product's name ends the run",
       graph("[3,1]", "y_eltwise: z = Relu(x)\n out y\n out z")},
      {"the shape operand becomes a factor",
       "in x[3,1]\n const s[3] i32 = 2 3 4\n y[2,3,4] = plain Expand(x, s) shape=[2,3,4]\n out y"},
      {"an axis of unknown length ends the run",
       "in x[?3,1]\n y[2,3,4] = plain Expand(x) shape=[2,3,4]\n out y"}};
  for (const std::string type : {"i8", "u8", "i16", "u16", "i32", "u32", "i64", "u64", "f16"}) {
    cases.push_back({"the ones of " + type + " aren't ones", graph("[3,1] " + type),
                     product("[3,1] " + type, "[2,1,4] " + type + " = fill 1", 13)});
  }
  for (const std::string type : {"sq8 scale=0.5", "uq16 scale=0.5", "str"}) {
    cases.push_back({"ones of type " + type, graph("[3,1] " + type)});
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
      {{"Tile of Reshape", graph("[3]", reshape), expand("[3]", "[2,4,3]")},
       {"Tile of ExpandDims", graph("[1,3]", "m = ExpandDims(x) axes=[0]\n y = Tile(m) multiples=[2,4,1]\n"),
        expand("[1,3]", "[2,4,3]")},
       {"Reshape of Tile", graph("[1,3]", "m = Tile(x) multiples=[4,1]\n y[1,4,3] = Reshape(m)\n"),
        expand("[1,3]", "[1,4,3]")},
       {"ExpandDims of Tile", graph("[1,3]", "m = Tile(x) multiples=[4,1]\n y = ExpandDims(m) axes=[0]\n"),
        expand("[1,3]", "[1,4,3]")},
       {"the shape that the Reshape reads becomes an operand, or its ops stay behind",
        graph("[1,3]",
              "in s[3] i32\n t = Relu(s)\n m = Tile(x) multiples=[4,1]\n"
              "y[1,4,3] = Reshape(m, t)\n"),
        "in x[1,3]\n in s[3] i32\n y_expand: y = Expand(x) shape=[1,4,3]\n out y"},
       {"a Tile that repeats more than one row",
        graph("[3]", "m[1,3] = Reshape(x)\n y = Tile(m) multiples=[1,2]\n")},
       {"an axis in the middle",
        graph("[4,3]", "m = ExpandDims(x) axes=[1]\n y = Tile(m) multiples=[1,2,1]\n")},
       {"a Reshape that isn't an unsqueeze",
        graph("[2,3]", "m[3,2] = Reshape(x)\n y = Tile(m) multiples=[1,1]\n")},
       {"a rank that shrinks", graph("[1,1,3]", "m[1,3] = Reshape(x)\n y = Tile(m) multiples=[2,1]\n")},
       {"the application reads the tensor between", graph("[3]", reshape, "out y\n out m")},
       {"somebody else reads the tensor between", graph("[3]", reshape, "z = Relu(m)\n out y\n out z")},
       {"an op that bears the name ends the run",
        graph("[3]", reshape, "y_expand: z = Relu(x)\n out y\n out z")}});
}

}  // namespace
}  // namespace netforge::testing
