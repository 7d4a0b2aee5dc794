#include "GraphRefiner/src/passes/fusion/MatchTopK.h"

#include <gtest/gtest.h>
#include "GraphRefiner/src/PassBuilders.h"
#include "tests/support/Failures.h"
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

const std::string kFunction = "netforge::graphrefiner::MatchTopKRule::";
const std::string kFused =
    kFunction + "rewriteCallback: MatchTopKPass: Fused ReduceMax 'm' + Argmax 'i' into TopK 'm_topk_0'.\n";

// A fresh pass each: the rule remembers the axis order of its first graph.
void expectFresh(const std::vector<PassCase>& cases) {
  for (const PassCase& passCase : cases) {
    for (const std::string& complaint : runPassCase(*graphrefiner::buildMatchTopK(), passCase)) {
      ADD_FAILURE() << passCase.fault << ":\n" << complaint;
    }
  }
}

struct Side {
  std::string dims;
  std::string keepDims = "true";
};

std::string pair(const std::string& x, const std::string& axes, const std::string& axis, const Side& m,
                 const Side& i) {
  return x + "\n m" + m.dims + " = Reduce(x) axes=[" + axes +
         "]:i32 reduce_type=ReduceMax keep_dims=" + m.keepDims + "\n i" + i.dims +
         " i32 = plain Arg(x) arg_type=Argmax axis=" + axis + ":u32 keep_dims=" + i.keepDims +
         "\n out m\n out i";
}

TEST(MatchTopK, FusesAlongEveryAxis) {
  const std::string rank4 = "in x[2,3,5,7]";
  const std::string topK = "m_topk_0: m_topk_0_values, m_topk_0_indices = TopK(m_topk_0_pre_transpose_";
  const auto transposed = [&](const std::string& order, const std::string& perm, const std::string& digits,
                              const std::string& inverse, const std::string& back) {
    return order + rank4 + "\n m_topk_0_pre_transpose_" + digits + " = Transpose(x) perm=" + perm + "\n" +
           topK + digits + ") k=1 largest=true\n m_topk_0_post_transpose_indice_" + back +
           ": i i32 = Transpose(m_topk_0_indices) perm=" + inverse + "\n m_topk_0_post_transpose_value_" +
           back + ": m = Transpose(m_topk_0_values) perm=" + inverse + "\n out m\n out i";
  };
  expectFresh(
      {{.fault = "the last axis gets Transposes",
        .before = pair(rank4, "-1", "3", {"[2,3,5,1]"}, {"[2,3,5,1]"}),
        .after = rank4 + "\n m_topk_0: m, i i32 = TopK(x) k=1 largest=true\n out m\n out i",
        .prints = kFused},
       {.fault = "the channels of a channel-first graph don't go through channel-last",
        .before = "order spatial_last\n" + pair(rank4, "1", "1", {"[2,1,5,7]"}, {"[2,1,5,7]"}),
        .after = transposed("order spatial_last\n", "[0,2,3,1]", "0231", "[0,3,1,2]", "0312")},
       {.fault = "another axis of a channel-first graph goes the channels' way",
        .before = "order onnx\n" + pair(rank4, "2", "2", {"[2,3,1,7]"}, {"[2,3,1,7]"}),
        .after = transposed("order onnx\n", "[0,1,3,2]", "0132", "[0,1,3,2]", "0132")},
       {.fault = "a channel-last graph has its channels at axis 1",
        .before = pair(rank4, "-3", "1", {"[2,1,5,7]"}, {"[2,1,5,7]"}),
        .after = transposed("", "[0,3,2,1]", "0321", "[0,3,2,1]", "0321")},
       {.fault = "axes are dropped on the wrong side, or the order of the ops",
        .before = pair(rank4, "1", "1", {"[2,5,7]", "false"}, {"[2,5,7]", "false"}),
        .after = rank4 + "\n m_topk_0_pre_transpose_0321 = Transpose(x) perm=[0,3,2,1]\n" + topK +
                 "0321) k=1 largest=true\n"
                 "m_topk_0_post_transpose_indice_0321 = Transpose(m_topk_0_indices) perm=[0,3,2,1]\n"
                 "m_topk_0_post_reshape_indice: i[2,5,7] i32 = Reshape(m_topk_0_post_transpose_indice_0321)\n"
                 "m_topk_0_post_transpose_value_0321 = Transpose(m_topk_0_values) perm=[0,3,2,1]\n"
                 "m_topk_0_post_reshape_value: m[2,5,7] = Reshape(m_topk_0_post_transpose_value_0321)\n"
                 "out m\n out i"},
       {.fault = "the side that keeps its dims is reshaped too",
        .before = pair("in x[2,3]", "1", "1", {"[2,1]"}, {"[2]", "false"}),
        .after = "in x[2,3]\n m_topk_0: m, m_topk_0_indices = TopK(x) k=1 largest=true\n"
                 "m_topk_0_post_reshape_indice: i[2] i32 = Reshape(m_topk_0_indices)\n out m\n out i"},
       {.fault = "a vector ends without dims",
        .before = pair("in x[3]", "0", "0", {"[1]", "false"}, {"[1]", "true"}),
        .after = "in x[3]\n m_topk_0: m_topk_0_values, i i32 = TopK(x) k=1 largest=true\n"
                 "m_topk_0_post_reshape_value: m[1] = Reshape(m_topk_0_values)\n out m\n out i"},
       {.fault = "TopK stands in front of what computes its input",
        .before = pair("in z[2,3]\n x = Relu(z)", "1", "1", {"[2,1]"}, {"[2,1]"}),
        .after = "in z[2,3]\n x = Relu(z)\n m_topk_0: m, i i32 = TopK(x) k=1 largest=true\n out m\n out i"}});
}

TEST(MatchTopK, LeavesOtherPairs) {
  const std::string good = pair("in x[2,3,5]", "2", "2", {"[2,3,1]"}, {"[2,3,1]"});
  struct Row {
    const char* fault;
    const char* from;
    const char* to;
  };
  const Row rows[] = {
      {"another reduction", "ReduceMax", "ReduceMin"},
      {"the index of the minimum", "Argmax", "Argmin"},
      {"the index along another axis", "axis=2", "axis=1"},
      {"a signed axis", "axis=2:u32", "axis=2:i32"},
      {"the index in another tensor", "Arg(x)", "Arg(z)"},
      {"two axes", "axes=[2]", "axes=[1,2]"},
      {"an axis beyond the rank", "= Reduce(x) axes=[2]", "= plain Reduce(x) axes=[3]"},
      {"an axis of unknown length", "in x[2,3,5]", "in x[2,3,?5]"},
      {"a taken op name", "out m", "m_topk_0[2,3,1] = Relu(z)\n out m_topk_0\n out m"},
      {"a taken tensor name", "out m", "m_topk_0_indices[2,3,1] = Relu(z)\n out m_topk_0_indices\n out m"},
  };
  for (const Row& row : rows) {
    std::string text = "in z[2,3,5]\n" + good;
    const std::size_t at = text.find(row.from);
    ASSERT_NE(at, std::string::npos) << row.from;
    text.replace(at, std::string(row.from).size(), row.to);
    // A plain op with its shape given stands for whatever the op's class would refuse or infer.
    if (const std::size_t reduce = text.find("= Reduce("); reduce != std::string::npos) {
      text.replace(reduce, 9, "= plain Reduce(");
    }
    expectFresh({{.fault = std::string("fused: ") + row.fault, .before = text, .prints = ""}});
  }
}

TEST(MatchTopK, ComparesEncodings) {
  const auto quantized = [](const std::string& x, const std::string& m) {
    return pair("in z[2,3]\n x " + x + " = Relu(z)", "1", "1", {"[2] " + m, "false"}, {"[2,1]"});
  };
  const std::string skipped = kFunction +
                              "hasMatchingIOEncodings: MatchTopKPass: Skipping fusion for ReduceMax 'm' + "
                              "Argmax 'i': ReduceMax ";
  const auto fused = [&](const std::string& encoding) {
    return "in z[2,3]\n x " + encoding + " = Relu(z)\n m_topk_0: m_topk_0_values " + encoding +
           ", i i32 = TopK(x) k=1 largest=true\n m_topk_0_post_reshape_value: m[2] " + encoding +
           " = Reshape(m_topk_0_values)\n out m\n out i";
  };
  expectFresh({{.fault = "an encoding of its own is lost",
                .before = quantized("", "sq8 scale=0.5"),
                .prints = skipped + "output encoding present but input (parent) encoding is missing.\n"},
               {.fault = "two encodings count as one",
                .before = quantized("sq8 scale=0.25", "sq8 scale=0.5"),
                .prints = skipped + "input and output encoding schemes differ.\n"},
               {.fault = "TopK's values have no encoding",
                .before = quantized("sq8 scale=0.5", "sq8 scale=0.5"),
                .after = fused("sq8 scale=0.5")},
               {.fault = "the user's range is lost",
                .before = quantized("range=-1/1", "range=-1/1"),
                .after = fused("range=-1/1")}});
}

TEST(MatchTopK, RefusesToDropAnAxisThatIsNotThere) {
  EXPECT_EQ(failureOf<std::runtime_error>([] {
              graphrefiner::MatchTopKRule::dropDim({2, 3}, 2);
            }),
            "MatchTopKPass: dropDim: axisToDrop (2) is out of bounds for rank 2");
}

}  // namespace
}  // namespace netforge::testing
