#include <gtest/gtest.h>
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

std::string replacedText(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from << " does not stand in the text";
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// What an activation becomes.
struct Activation {
  std::string attributes = "operation=4";
  std::string result = "n_createSparseOut";
  std::string package = "";
  std::string values = "n_out";
  std::string name = "n";
  std::string input = "x";

  std::string text() const {
    const std::string get = "(" + input + ") num_specified_elements=6" + package + "\n";
    return name + "_sparseValues: " + name + "_sparseValues_out[6,3] f32 NF src=NF = GetSparseValues" + get +
           name + "_sparseIndices: " + name + "_sparseIndices_out[6,3] i32 NF src=NF = GetSparseIndices" +
           get + name + "_postExpansion: " + values + "[6,3] f32 NF src=NF = ElementWiseNeuron(" + name +
           "_sparseValues_out) " + attributes + package + "\n" + name + "_createSparse: " + result +
           "[2,4,5,3] f32 NHWC sparse=6/3 = CreateSparse(" + name + "_sparseIndices_out, " + values + ")" +
           package + "\n";
  }
};

TEST(SparseExpansion, AnActivationMovesOntoTheValues) {
  const std::string x = "in x[2,4,5,3] f32 NHWC sparse=6/3\n";
  const std::string read = "z = Custom(n_createSparseOut)\nout z";
  const auto neuron = [&](const std::string& attributes) {
    return x + "n: y f32 NHWC = ElementWiseNeuron(x) " + attributes + "\nz = Custom(y)\nout z";
  };
  expectPass(
      PassId::ExpandSparseOpStructure,
      {{.fault = "the values keep the role of a graph input, or the result isn't sparse",
        .before = neuron("operation=4"),
        .after = x + Activation().text() + read,
        .prints = ""},
       {.fault = "the limits of a clip are lost",
        .before = neuron("operation=5 min_value=-0.5 max_value=2.0"),
        .after = x + Activation{.attributes = "operation=5 min_value=-0.5 max_value=2.0"}.text() + read},
       {.fault = "the factors of an activation become its defaults",
        .before = neuron("operation=7 beta=0.5 threshold=3.0"),
        .after = x + Activation{.attributes = "operation=7 beta=0.5 threshold=3.0"}.text() + read},
       {.fault = "a package of the user's is lost",
        .before = neuron("operation=4 packageName=mine"),
        .after = x + Activation{.package = " packageName=mine"}.text() + read},
       {.fault = "a graph output loses its name",
        .before = x + "n: y f32 NHWC = ElementWiseNeuron(x) operation=4\nz = Custom(y)\nout y\nout z",
        .after = x + Activation{.result = "y"}.text() + "z = Custom(y)\nout y\nout z"},
       {.fault = "ends the run where the output bears the name that the values would get",
        .before = x + "n: n_out f32 NHWC = ElementWiseNeuron(x) operation=4\nout n_out",
        .after = x + Activation{.result = "n_out", .values = "n_postExpansion_out"}.text() + "out n_out"},
       {.fault = "of a chain only the first or the last op is expanded",
        .before = x + "n: y f32 NHWC = ElementWiseNeuron(x) operation=4\n"
                      "m: z f32 NHWC = ElementWiseNeuron(y) operation=8\nout z",
        .after = x + Activation().text() +
                 Activation{.attributes = "operation=8",
                            .result = "z",
                            .values = "m_out",
                            .name = "m",
                            .input = "n_createSparseOut"}
                     .text() +
                 "out z"},
       {.fault = "a dense activation is expanded",
        .before = "in x[2,3] f32\ny = ElementWiseNeuron(x) operation=4\nout y",
        .prints = ""},
       {.fault = "ends the run on a name that is taken",
        .before =
            x + "n_createSparse: q = Custom(x)\nn: y = ElementWiseNeuron(x) operation=4\nout y\nout q"}});
}

TEST(SparseExpansion, RecordsAndPackagesFollowTheActivation) {
  expectPass(
      PassId::ExpandSparseOpStructure,
      {{.fault = "a new op has a package that nobody gave, or sources of another tensor",
        .before = "in x[2,3] f32 sparse=1/1\nn: y = ElementWiseNeuron(x) operation=4\nout y",
        .after = "in x[2,3] f32 sparse=1/1\n"
                 "n_sparseValues: n_sparseValues_out[1,3] f32 = GetSparseValues(x) num_specified_elements=1\n"
                 "n_sparseIndices: n_sparseIndices_out[1,1] i32 = GetSparseIndices(x) "
                 "num_specified_elements=1\n"
                 "n_postExpansion: n_out[1,3] f32 = ElementWiseNeuron(n_sparseValues_out) operation=4\n"
                 "n_createSparse: y[2,3] f32 sparse=1/1 = CreateSparse(n_sparseIndices_out, n_out)\nout y",
        .prepare =
            [](IrGraph& graph) {
              graph.getOp("n")->getAttributes()->remove("packageName");
              graph.addTraceSources({"n"}, {}, {{"op", TraceKind::Op}});
              graph.addTraceSources({}, {"x"}, {{"before", TraceKind::Tensor}});
              graph.addTraceSources({}, {"y"}, {{"behind", TraceKind::Tensor}});
            },
        .inspect =
            [](const IrGraph& graph) {
              const TraceSource op{"op", TraceKind::Op};
              const std::vector<TraceSource> before = {op, {"before", TraceKind::Tensor}};
              const std::vector<TraceSource> behind = {op, {"behind", TraceKind::Tensor}};
              for (std::uint32_t i = 0; i < 4; ++i) {
                const auto newOp = graph.getOpAt(i);
                EXPECT_FALSE(newOp->getAttributes()->hasAttr("packageName")) << newOp->getName();
                EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, newOp->getName()), i < 2 ? before : behind);
                EXPECT_EQ(graph.getTraceInfo(TraceKind::Tensor, newOp->getOutput(0)->getName()),
                          i < 2 ? before : behind);
              }
              EXPECT_TRUE(graph.getTraceInfo(TraceKind::Op, "n").empty());
            }}});
}

// a, the CreateSparse of an activation's values, and b, the same behind two convolutions.
const std::string kConv = " stride=[1,1] pad_amount=[[1,1],[1,1]] reuse_sparse_indices=true\n";
const std::string kResidual =
    "in x[1,4,5,3] f32 NHWC sparse=6/3\nconst w[3,3,3,3] f32 = fill 0.5\n"
    "xi = GetSparseIndices(x) num_specified_elements=6\nxv = GetSparseValues(x) num_specified_elements=6\n"
    "xa = ElementWiseNeuron(xv) operation=8\na[1,4,5,3] f32 sparse=6/3 = CreateSparse(xi, xa)\n"
    "c[1,4,5,3] f32 sparse=6/3 = Conv2d(a, w)" +
    kConv +
    "cv = GetSparseValues(c) num_specified_elements=6\nci = GetSparseIndices(c) num_specified_elements=6\n"
    "ca = ElementWiseNeuron(cv) operation=8\nd[1,4,5,3] f32 sparse=6/3 = CreateSparse(ci, ca)\n"
    "b[1,4,5,3] f32 sparse=6/3 = Conv2d(d, w)" +
    kConv;
const std::string kSum = "s: y f32 NHWC = Eltwise_Binary(a, b) operation=0\nz = Custom(y)\nout z";

std::string residual3d() {
  std::string text;
  for (std::size_t at = 0; at < kResidual.size();) {
    const auto rewrite = [&](const std::string& from, const std::string& to) {
      if (kResidual.compare(at, from.size(), from) != 0) return false;
      text += to;
      at += from.size();
      return true;
    };
    if (rewrite("[1,4,5,3]", "[1,2,4,5,3]") || rewrite("[3,3,3,3]", "[3,3,3,3,3]") ||
        rewrite("NHWC", "NDHWC") || rewrite("Conv2d", "Conv3d") || rewrite("[1,1] pad", "[1,1,1] pad") ||
        rewrite("[[1,1],", "[[1,1],[1,1],") || rewrite("indices=true", "indicies=true")) {
      continue;
    }
    text += kResidual[at++];
  }
  return text;
}

std::string expandedSum(const std::string& left, const std::string& right, const std::string& dims = "",
                        const std::string& rank = "3") {
  const std::string shape = dims.empty() ? "[1,4,5,3]" : dims;
  return "s_" + left + "_sparseValues: s_" + left +
         "_sparseValues_out[6,3] f32 NF src=NF = GetSparseValues(" + left + ") num_specified_elements=6\ns_" +
         right + "_sparseValues: s_" + right + "_sparseValues_out[6,3] f32 NF src=NF = GetSparseValues(" +
         right + ") num_specified_elements=6\ns_" + right + "_sparseIndices: s_" + right +
         "_sparseIndices_out[6," + rank + "] i32 NF src=NF = GetSparseIndices(" + right +
         ") num_specified_elements=6\ns_postExpansion: s_addOut[6,3] f32 NF src=NF = Eltwise_Binary(s_" +
         left + "_sparseValues_out, s_" + right +
         "_sparseValues_out) operation=0\ns_createSparse: s_createSparseOut" + shape +
         " f32 sparse=6/3 = CreateSparse(s_" + right +
         "_sparseIndices_out, s_addOut)\n"
         "z = Custom(s_createSparseOut)\nout z";
}

TEST(SparseExpansion, TheSumOfAResidualConnectionMovesOntoTheValues) {
  const std::string volumes = residual3d();
  expectPass(PassId::ExpandSparseOpStructure,
             {{.fault = "the indices are read from the other operand, or the values of one go twice",
               .before = kResidual + kSum,
               .after = kResidual + expandedSum("a", "b"),
               .prints = ""},
              {.fault = "the operands have to stand in one order",
               .before = kResidual + replacedText(kSum, "(a, b)", "(b, a)"),
               .after = kResidual + expandedSum("b", "a")},
              {.fault = "the flag of volumes is read in the spelling of images",
               .before = volumes + kSum,
               .after = volumes + expandedSum("a", "b", "[1,2,4,5,3]", "4")},
              {.fault = "a graph output inside the pattern keeps the sum on sparse tensors",
               .before = kResidual + kSum + "\nout b",
               .after = kResidual + expandedSum("a", "b") + "\nout b"}});
}

TEST(SparseExpansion, OtherSumsStay) {
  const std::string refusal =
      "netforge::graphrefiner::MatchExpandSparseOpStructure::handleAddOp: Cannot expand sparse add "
      "operation: ";
  const std::string b = "b[1,4,5,3] f32 sparse=6/3";
  const std::string flag = " reuse_sparse_indices=true";
  // One convolution alone reuses the places; kConv stands twice.
  const std::string oneFlag = replacedText(kResidual, kConv, replacedText(kConv, flag, ""));
  struct Row {
    const char* fault;
    std::string before;
    std::string prints;
  };
  const Row rows[] = {
      {"a convolution that makes new places passes", oneFlag + kSum, ""},
      {"a flag that is false passes", replacedText(kResidual, flag, " reuse_sparse_indices=false") + kSum,
       ""},
      {"a dense operand passes", replacedText(kResidual, b, "b[1,4,5,3] f32") + kSum,
       refusal + "one or both inputs are not sparse tensors\n\n"},
      {"counts that differ pass", replacedText(kResidual, b, "b[1,4,5,3] f32 sparse=7/3") + kSum,
       refusal + "numSpecifiedElements mismatch (6 vs 7)\n\n"},
      {"numbers of dimensions that differ pass",
       replacedText(kResidual, b, "b[1,4,5,3] f32 sparse=6/2") + kSum,
       refusal + "numSparseDimensions mismatch\n\n"},
      {"a difference counts as a sum", kResidual + replacedText(kSum, "operation=0", "operation=18"), ""},
      {"another CreateSparse counts as the source of b",
       kResidual +
           "ei = GetSparseIndices(x) num_specified_elements=6\n"
           "ev = GetSparseValues(x) num_specified_elements=6\nea = ElementWiseNeuron(ev) operation=4\n"
           "e[1,4,5,3] f32 sparse=6/3 = CreateSparse(ei, ea)\nf = Custom(a)\nout f\n" +
           replacedText(kSum, "(a, b)", "(b, e)"),
       ""},
      {"a name that is taken ends the run", kResidual + "s_addOut = Custom(x)\nout s_addOut\n" + kSum, ""},
  };
  for (const Row& row : rows) {
    expectPass(PassId::ExpandSparseOpStructure,
               {{.fault = row.fault, .before = row.before, .prints = row.prints}});
  }
}

}  // namespace
}  // namespace netforge::testing
