#include <gtest/gtest.h>
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

const std::string kRule = "netforge::graphrefiner::removeIdentity::";

// Both names stand for one rule, so every case holds for both.
void expectBoth(const std::vector<PassCase>& cases) {
  expectPass(PassId::RemoveNoOps1, cases);
  expectPass(PassId::RemoveNoOps2, cases);
}

TEST(RemoveIdentity, NeutralConstantsGoWithTheirOp) {
  expectBoth({
      {.fault = "an and with true stays",
       .before = "in x[2,3] bool\nconst c[2,3] bool = fill 1\na = Custom(x)\n"
                 "y = Eltwise_Binary(a, c) operation=1\nz = Custom(y)\nout z",
       .after = "in x[2,3] bool\na: y = Custom(x)\nz = Custom(y)\nout z",
       .prints = ""},
      {.fault = "a division by one takes a reader along, or the wrong operand",
       .before = "in x[2,3] f32\nconst c[1] f32 = 1\na = Relu(x)\ny = Eltwise_Binary(a, c) operation=2\n"
                 "z = Relu(y)\nw = Relu(y)\nout z\nout w",
       .after = "in x[2,3] f32\na: y = Relu(x)\nz = Relu(y)\nw = Relu(y)\nout z\nout w"},
      {.fault = "a division by ones that broadcast stays",
       .before = "in x[1,3] f32\nconst c[2,3] f32 = fill 1\na = Relu(x)\n"
                 "y = Eltwise_Binary(a, c) operation=2\nout y",
       .after = "in x[1,3] f32\na: y[2,3] = Relu(x)\nout y"},
      {.fault = "a product with ones at the right drops its data",
       .before = "in x[2,3] f32\nconst c[2,3] f32 = fill 1\ny = Eltwise_Binary(x, c) operation=13\n"
                 "z = Relu(y)\nout z",
       .after = "in x[2,3] f32\nconst c[2,3] f32 = fill 1\nz = Relu(x)\nout z"},
      {.fault = "a product with ones at the left drops its data",
       .before = "in x[2,3] f32\nconst c[2,3] f32 = fill 1\ny = Eltwise_Binary(c, x) operation=13\n"
                 "z = Relu(y)\nout z",
       .after = "in x[2,3] f32\nconst c[2,3] f32 = fill 1\nz = Relu(x)\nout z"},
      {.fault = "integer ones are compared as floats",
       .before = "in x[2,3] i32\nconst c[2,3] i32 = fill 1\ny = Eltwise_Binary(x, c) operation=13\n"
                 "z = Custom(y)\nout z",
       .after = "in x[2,3] i32\nconst c[2,3] i32 = fill 1\nz = Custom(x)\nout z"},
      {.fault = "a signed attribute matches and then ends the run",
       .before = "in x[2,3] f32\nconst c[2,3] f32 = fill 1\ny = plain Eltwise_Binary(x, c) operation=13:i32\n"
                 "z = Relu(y)\nout z",
       .after = "in x[2,3] f32\nconst c[2,3] f32 = fill 1\nz = Relu(x)\nout z"},
      {.fault = "of two constants the one that isn't neutral goes",
       .before = "const c[3] f32 = fill 1\nconst d[3] f32 = 2 3 4\n"
                 "y = Eltwise_Binary(c, d) operation=13\nz = Relu(y)\nout z",
       .after = "const c[3] f32 = fill 1\nconst d[3] f32 = 2 3 4\nz = Relu(d)\nout z"},
  });
}

TEST(RemoveIdentity, ConstantsThatAreNotNeutralKeepTheirOp) {
  struct Row {
    const char* fault;
    const char* data;
    const char* constant;
    const char* product;
  };
  const Row rows[] = {
      {"one false element goes unseen", "a[2] bool", "c[2] bool = 1 0", "(a, c) operation=1"},
      {"a float mask counts", "a[2] f32", "c[2] f32 = fill 1", "(a, c) operation=1"},
      {"the mask is looked for at the left", "a[2] bool", "c[2] bool = fill 1", "(c, a) operation=1"},
      {"a mask that broadcasts counts", "a[1] bool", "c[2] bool = fill 1", "(a, c) operation=1"},
      {"a mask that can be updated counts", "a[2] bool", "c[2] bool updateable = fill 1",
       "(a, c) operation=1"},
      {"a divisor that can be updated counts", "a[2] f32", "c[2] f32 updateable = fill 1",
       "(a, c) operation=2"},
      {"a factor that can be updated counts", "a[2] f32", "c[2] f32 updateable = fill 1",
       "(c, a) operation=13"},
      {"a computed mask counts", "a[2] bool", "c[1] bool = 1", "(a, a) operation=1"},
      {"one element off goes unseen", "a[2] f32", "c[2] f32 = 1 1.0000001", "(a, c) operation=2"},
      {"a reciprocal counts", "a[2] f32", "c[2] f32 = fill 1", "(c, a) operation=2"},
      {"bytes are read as floats", "a[2] u8", "c[2] u8 = fill 1", "(a, c) operation=2"},
      {"a wide type is read as floats", "a[1] f64", "c[1] i64 = 1065353216", "(a, c) operation=2"},
      {"halves are read as floats", "a[2] f16", "c[2] f16 = fill 1", "(a, c) operation=2"},
      {"a sum counts as a product", "a[2] f32", "c[2] f32 = fill 1", "(a, c) operation=0"},
      {"a difference counts as a product", "a[2] f32", "c[2] f32 = fill 1", "(a, c) operation=18"},
      {"a constant that broadcasts goes", "a[2,3] f32", "c[1,3] f32 = fill 1", "(a, c) operation=13"},
      {"data that broadcast go", "a[1,3] f32", "c[2,3] f32 = fill 1", "(c, a) operation=13"},
      {"zeros count", "a[2] f32", "c[2] f32 = fill 0", "(c, a) operation=13"},
      {"byte data count", "a[2] u8", "c[2] u8 = fill 1", "(a, c) operation=13"},
      {"half data count", "a[2] f16", "c[2] f16 = fill 1", "(a, c) operation=13"},
      {"bytes at the left are read as floats", "a[2] u8", "c[2] u8 = fill 1", "(c, a) operation=13"},
      {"floats count for integers", "a[2] i32", "c[2] f32 = fill 1", "(a, c) operation=13"},
      {"the right one of two constants counts", "a[2] f32", "c[2] f32 = fill 1\nconst d[2] f32 = 2 3",
       "(d, c) operation=13"},
  };
  for (const Row& row : rows) {
    expectBoth(
        {{.fault = row.fault,
          .before = std::string("in ") + row.data + "\nconst " + row.constant +
                    "\nb = Custom(a)\ny = Eltwise_Binary" + row.product + "\nz = Custom(y)\nout z\nout b",
          .prints = ""}});
  }
  expectBoth({{.fault = "a product that two ops read goes",
               .before = "in x[2] f32\nconst c[2] f32 = fill 1\ny = Eltwise_Binary(x, c) operation=13\n"
                         "z = Relu(y)\nw = Relu(y)\nout z\nout w"},
              {.fault = "a constant without elements ends quietly",
               .before = "in x[2] f32\nconst c[0] f32 =\ny[2] = Eltwise_Binary(x, c) operation=2\n"
                         "z = Relu(y)\nout z",
               .throws = "allElementsEqualToValue: Tensor has zero elements"}});
}

TEST(RemoveIdentity, LayoutOpsThatMoveNothingGo) {
  expectBoth({
      {.fault = "a Tile by one stays, or loses the encoding of its output",
       .before =
           "in x[2,3] f32\ny[2,3] sq8 scale=0.5 offset=3 = Tile(x) multiples=[1,1]\nz[2,3] f32 = Relu(y)\n"
           "out z",
       .after = "in x[2,3] sq8 srctype=f32 scale=0.5 offset=3\nz[2,3] f32 = Relu(x)\nout z"},
      {.fault = "a Tile by two goes since its dynamic dim is a placeholder",
       .before = "in x[?1,3] f32\ny[?1,3] = Tile(x) multiples=[2,1]\nz = Relu(y)\nout z"},
      {.fault = "a Tile by one of a dynamic axis stays",
       .before = "in x[?1,3] f32\ny[?1,3] = Tile(x) multiples=[1,1]\nz = Custom(y)\nout z",
       .after = "in x[?1,3] f32\nz = Custom(x)\nout z"},
      {.fault = "a Tile goes", .before = "in x[1,3] f32\ny = Tile(x) multiples=[2,1]\nz = Relu(y)\nout z"},
      {.fault = "an identity Transpose with several readers stays",
       .before = "in x[2,3,5] f32\ny = Transpose(x) perm=[0,1,2]\nz = Relu(y)\nw = Relu(y)\nout z\nout w",
       .after = "in x[2,3,5] f32\nz = Relu(x)\nw = Relu(x)\nout z\nout w"},
      {.fault = "equal dims pass for the identity order",
       .before = "in x[3,3] f32\ny = Transpose(x) perm=[1,0]\nz = Relu(y)\nout z"},
      {.fault = "a Split without a point stays",
       .before = "in x[2,3] f32\na = Relu(x)\ny = Split(a) axis=1 split_index=[]\nout y",
       .after = "in x[2,3] f32\na: y = Relu(x)\nout y",
       .prints = ""},
      {.fault = "a Split point goes unseen",
       .before =
           "in x[2,3] f32\ny, v = Split(x) axis=1 split_index=[1]\nz = Relu(y)\nw = Relu(v)\nout z\nout w"},
      {.fault = "Concat or select count as identities",
       .before = "in x[2,3] f32\nin m[2,3] bool\ny = Concat(x) axis=1\n"
                 "z = Eltwise_Ternary(m, y, y) eltwise_type=ElementWiseSelect\nout z",
       .prints = ""},
  });
}

TEST(RemoveIdentity, AGatherOfAllPositionsInOrderGoes) {
  expectBoth({
      {.fault = "the identity Gather of a computed tensor stays",
       .before = "in x[2,3] f32\nconst i[3] i32 = 0 1 2\na = Relu(x)\ny = Gather(a, i) axis=1\nout y",
       .after = "in x[2,3] f32\nconst i[3] i32 = 0 1 2\na: y = Relu(x)\nout y",
       .prints = kRule + "handleGatherOp: Squash Gather Op: y due to IdentityOp. Input shape: "
                         "IrTensorShape(dims = [2,3] , dy_axes=[])\n\n"},
      {.fault = "the identity Gather of a graph input stays",
       .before = "in x[2,3] f32\nconst i[2] u32 = 0 1\ny = Gather(x, i) axis=-2\nz = Relu(y)\nout z",
       .after = "in x[2,3] f32\nconst i[2] u32 = 0 1\nz = Relu(x)\nout z"},
  });
  struct Row {
    const char* fault;
    const char* constants;
    const char* ops;
  };
  const Row rows[] = {
      {"another order goes", "const i[3] i32 = 0 2 1", "y = Gather(a, i) axis=1\nz = Relu(y)\nout z"},
      {"wide indices are read as 32-bit", "const i[3] i64 = 0 1 2",
       "y = Gather(a, i) axis=1\nz = Relu(y)\nout z"},
      {"repeated positions of equal number go", "const i[3] i32 = 0 1 1",
       "y = Gather(a, i) axis=1\nz = Relu(y)\nout z"},
      {"indices that come from the application are read", "in i[3] i32",
       "y = Gather(a, i) axis=1\nz = Relu(y)\nout z"},
      {"indices that are data too are cut off", "const i[3] i32 = 0 1 2",
       "y = Gather(i, i) axis=0\nz = Custom(y)\nout z"},
      {"data that others read are renamed", "const i[3] i32 = 0 1 2",
       "y = Gather(a, i) axis=1\nz = Relu(y)\nw = Relu(a)\nout z\nout w"},
  };
  for (const Row& row : rows) {
    expectBoth({{.fault = row.fault,
                 .before = std::string("in x[2,3] f32\n") + row.constants + "\na = Relu(x)\n" + row.ops,
                 .prints = ""}});
  }
  expectBoth({{.fault = "a Gather that can't go loses its indices",
               .before = "in x[3] f32\nconst i[3] i32 = 0 1 2\ny = Gather(x, i) axis=0\nout y",
               .prints = ""}});
}

TEST(RemoveIdentity, AReshapeToItsOwnShapeGoes) {
  const std::string shape = "IrTensorShape(dims = [2,3] , dy_axes=[])";
  expectBoth({
      {.fault = "a Reshape to the same shape stays",
       .before = "in x[2,3] f32\na = Relu(x)\ny[2,3] = Reshape(a)\nout y",
       .after = "in x[2,3] f32\na: y = Relu(x)\nout y",
       .prints = kRule + "handleReshapeOp: Squash Reshape Op: y due to IdentityOp. Input shape: " + shape +
                 ", shape after " + shape + "\n\n"},
      {.fault = "the op that computes the shape stays behind without an output",
       .before = "in x[2,3] f32\nin q[2] i32\na = Relu(x)\ns = Custom(q)\ny[2,3] = Reshape(a, s)\nout y",
       .after = "in x[2,3] f32\nin q[2] i32\na: y = Relu(x)\nout y"},
      {.fault = "a Reshape of a tensor that others read goes",
       .before = "in x[2,3] f32\na = Relu(x)\ny[2,3] = Reshape(a)\nz = Relu(a)\nout y\nout z",
       .prints = ""},
      {.fault = "a dynamic axis is taken for a fixed one",
       .before = "in x[2,?3] f32\na = Custom(x)\ny[2,3] = Reshape(a)\nout y"},
      {.fault = "the application loses a constant that it reads",
       .before = "const c[2,3] f32 = iota\ny[2,3] = Reshape(c)\nout y",
       .prints = ""},
  });
  // The state inputs of an Lstm are 10 and 11.
  const std::string lstm = "in x[5,2,3] f32\nin h[1,2,4] f32\nr[1,2,4] = Reshape(h)\n";
  const std::string operands = "x,x,x,x,x,x,x,x,x,";
  expectBoth({
      {.fault = "the initial hidden state loses its Reshape",
       .before = lstm + "y = plain Lstm(" + operands + "x,r)\nout y",
       .prints = ""},
      {.fault = "the initial cell state loses its Reshape",
       .before = lstm + "y = plain Lstm(" + operands + "x,x,r)\nout y",
       .prints = ""},
      {.fault = "another operand of an Lstm keeps its Reshape",
       .before = lstm + "y = plain Lstm(" + operands + "r,x)\nout y",
       .after = "in x[5,2,3] f32\nin h[1,2,4] f32\ny = plain Lstm(" + operands + "h,x)\nout y"},
      {.fault = "another op's operands pass for an Lstm's state",
       .before = lstm + "y = Custom(" + operands + "x,r)\nout y",
       .after = "in x[5,2,3] f32\nin h[1,2,4] f32\ny = Custom(" + operands + "x,h)\nout y"},
  });
}

TEST(RemoveIdentity, AReshapeInFrontOfAFlatteningFullyConnectedGoes) {
  expectBoth({
      {.fault = "a Reshape that only regroups features stays",
       .before = "in x[2,3,4] f32\nconst w[12,5] f32 = iota\nr[2,12] = Reshape(x)\n"
                 "y = FullyConnected(r, w)\nout y",
       .after = "in x[2,3,4] f32\nconst w[12,5] f32 = iota\ny = FullyConnected(x, w)\nout y",
       .prints = kRule + "handleReshapeOp: Squash Reshape Op: r due to IdentityOp. Input shape: "
                         "IrTensorShape(dims = [2,3,4] , dy_axes=[]), shape after "
                         "IrTensorShape(dims = [2,12] , dy_axes=[])\n\n"},
      {.fault = "the flat shape stays under data of another shape",
       .before = "in x[2,3,4] f32\nconst w[12,5] f32 = iota\na = Relu(x)\nr[2,12] = Reshape(a)\n"
                 "y = FullyConnected(r, w)\nout y",
       .after = "in x[2,3,4] f32\nconst w[12,5] f32 = iota\na = Relu(x)\ny = FullyConnected(a, w)\nout y"},
      {.fault = "the shape that the FullyConnected reads is not the one of the data",
       .before = "in x[2,3,4] f32\nconst w[12,5] f32 = iota\na = Relu(x)\nr[2,12] = Reshape(a)\n"
                 "y = FullyConnected(r, w)\nz = Relu(a)\nout y\nout z",
       .after = "in x[2,3,4] f32\nconst w[12,5] f32 = iota\na = Relu(x)\ny = FullyConnected(a, w)\n"
                "z = Relu(a)\nout y\nout z"},
  });
  struct Row {
    const char* fault;
    const char* input;
    const char* ops;
  };
  const Row rows[] = {
      {"rows may be regrouped", "x[2,3,4]", "r[6,4] = Reshape(x)\ny = FullyConnected(r, v)"},
      {"rank 5 is flattened", "x[2,3,1,2,2]", "r[2,12] = Reshape(x)\ny = FullyConnected(r, w)"},
      {"an op that keeps dims is fed another rank", "x[2,3,4]",
       "r[2,12] = Reshape(x)\ny = FullyConnected(r, w) keep_dims=true"},
      {"the weight is reshaped away", "x[12,5,1]", "r[12,5] = Reshape(x)\ny = FullyConnected(d, r)"},
      {"data that are the weight too are reshaped away", "x[2,1,2]",
       "r[2,2] = Reshape(x)\ny = FullyConnected(r, r)"},
      {"another op flattens", "x[2,3,4]", "r[2,12] = Reshape(x)\ny = MatMul(r, w)"},
      {"a second reader sees the flat shape change", "x[2,3,4]",
       "r[2,12] = Reshape(x)\ny = FullyConnected(r, w)\nz = Relu(r)\nout z"},
      {"the application's view of the flat tensor goes", "x[2,3,4]",
       "r[2,12] = Reshape(x)\ny = FullyConnected(r, w)\nout r"},
      {"a vector loses its rank, and the result with it", "x[2]",
       "r[2,1] = Reshape(x)\ny = FullyConnected(r, u)"},
  };
  for (const Row& row : rows) {
    expectBoth({{.fault = row.fault,
                 .before = std::string("in ") + row.input +
                           " f32\nconst w[12,5] f32 = iota\nconst v[4,5] f32 = iota\n"
                           "const u[1,5] f32 = iota\nconst d[2,12] f32 = iota\n" +
                           row.ops + "\nout y",
                 .prints = ""}});
  }
}

// Between a graph input and a graph output both tensors must stay: the op stays too, and the run goes on.
TEST(RemoveIdentity, AnOpBetweenTwoTensorsThatMustStayIsReported) {
  struct Row {
    const char* type;
    const char* op;
    const char* line;
  };
  const Row rows[] = {
      {"bool", "Eltwise_Binary(x, b) operation=1",
       "handleAndOp: Squash elementwise and op: y due to identity not possible "},
      {"f32", "Eltwise_Binary(x, c) operation=2",
       "handleDivOp: Squash elementwise div op: y due to identity not possible "},
      {"f32", "Eltwise_Binary(x, c) operation=13",
       "handleMulOp: Squash elementwise product op: y due to identity not possible "},
      {"f32", "Tile(x) multiples=[1,1]", "handleTileOp: Squash tile op: y due to shape match not possible "},
      {"f32", "Transpose(x) perm=[0,1]", "handleTransposeOp: Unable to squash identity Transpose: y."},
      {"f32", "Reshape(x) shape=[2,3]",
       "handleReshapeOp: Squash Reshape op: y due to identity not possible "},
      {"f32", "Split(x) axis=1 split_index=[]",
       "handleSplitOp: Unable to squash identity Split: ydue to split index check."},
  };
  for (const Row& row : rows) {
    expectBoth(
        {{.fault = std::string(row.op) + " ends the run or goes unreported",
          .before = std::string("in x[2,3] ") + row.type +
                    "\nconst b[2,3] bool = fill 1\nconst c[2,3] f32 = fill 1\ny = " + row.op + "\nout y",
          .prints = kRule + row.line + "\n\n"}});
  }
}

}  // namespace
}  // namespace netforge::testing
