// What is made of Gathers: indices that the target can read, and a GatherNd of two coordinates.
#include <gtest/gtest.h>
#include "tests/support/PassFixture.h"

namespace netforge::testing {
namespace {

using graphrefiner::PassId;

TEST(HandleGatherNegativeIndices, CountsFromTheFront) {
  const std::string x = "in x[2,5,3]\n";
  const std::string shared = "y = Gather(x, c) axis=1\n z[2,5,2] = Gather(x, c) axis=2\n out y\n out z\n";
  const TraceSource source{"model_indices", TraceKind::Tensor};
  expectPass(
      PassId::HandleGatherNegativeIndices,
      {{"the length of another axis is added",
        x + "const c[2,2] i32 = -1 0 -5 4\n y = Gather(x, c) axis=1\n out y",
        x + "const c[2,2] i32 = 4 0 0 4\n y = Gather(x, c) axis=1\n out y"},
       {"an axis from the end is read as a large one",
        x + "const c[2] i32 = -1 0\n y[2,5,2] = plain Gather(x, c) axis=-1:i32\n out y",
        x + "const c[2] i32 = 2 0\n y[2,5,2] = plain Gather(x, c) axis=-1:i32\n out y"},
       {.fault = "one reader's length counts for the other",
        .before = x + "const c[2] i32 = -1 1\n" + shared,
        .after = x + "const z_indices[2] i32 = 2 1\n const c[2] i32 = 4 1\n y = Gather(x, c) axis=1\n"
                     "z[2,5,2] = Gather(x, z_indices) axis=2\n out y\n out z",
        .prepare = [&](IrGraph& graph) { graph.addTraceSources({}, {"c"}, {source}); },
        .inspect =
            [&](const IrGraph& graph) {
              const std::vector<TraceSource> expected = {source};
              EXPECT_EQ(graph.getTraceInfo(TraceKind::Tensor, "z_indices"), expected);
              EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, "z"), expected);
            }},
       {"the application reads other indices than before",
        x + "const c[1] i32 = -1\n y = Gather(x, c) axis=1\n out y\n out c",
        x + "const c[1] i32 = -1\n const y_indices[1] i32 = 4\n y = Gather(x, y_indices) axis=1\n"
            "out y\n out c"},
       {"a copy that can't be made ends the run",
        "in z_indices[2]\n" + x +
            "const c[2] i32 = -1 1\n z = Gather(x, c) axis=2\n"
            "w = Relu(c)\n v = Relu(z_indices)\n out z\n out w\n out v"},
       {"indices without a negative one change",
        x + "const c[2] i32 = 1 0\n y = Gather(x, c) axis=1\n out y"},
       {"halves of 64-bit indices change", x + "const c[2] i64 = -1 0\n y = Gather(x, c) axis=1\n out y"},
       {"indices that can be updated change",
        x + "const c[1] i32 updateable = -1\n y = Gather(x, c) axis=1\n out y"},
       {"the bytes of a float count as an index",
        x + "const c[1] f32 = -1\n y = Gather(x, c) axis=1\n out y"},
       {"a constant that is the data too changes its values",
        "const c[3] i32 = -1 0 2\n y = Gather(c, c) axis=0\n out y"},
       {"a placeholder counts as a length",
        "in x[?5,3]\n const c[1] i32 = -1\n y = Gather(x, c) axis=0\n z[1,3] = Next(y)\n out z"}});
}

const std::string kCastHead = "netforge::graphrefiner::InjectCastForGatherRule::rewriteCallback: ";

TEST(InjectCastForGather, CastsIndicesOnce) {
  const std::string inputs = "in x[5,3]\n in i[2] i64 NF src=NC\n";
  const std::string name = " cast op i_cast for node ";
  const std::string castText = "i_cast[2] i32 NF src=NC srctype=i64 = Cast(i)\n";
  const std::string taken = "in x[5,3]\n in j[2] i64\n in i[2] i64\n";
  std::vector<PassCase> cases = {
      {.fault = "the Cast stands behind its first reader, or each reader has its own",
       .before = inputs + "y = Gather(x, i) axis=0\n z = Gather(x, i) axis=1\n w = Relu(i)\n"
                          "out y\n out z\n out w",
       .after = inputs + castText +
                "y = Gather(x, i_cast) axis=0\n z = Gather(x, i_cast) axis=1\n"
                "w = Relu(i)\n out y\n out z\n out w",
       .prints = kCastHead + "Injecting" + name + "z's indices input.\n\n" + kCastHead + "Reusing existing" +
                 name + "y's indices input.\n\n"},
      {"indices that are the data too give cast data", "in i[5] i64\n y = Gather(i, i) axis=0\n out y",
       "in i[5] i64\n i_cast[5] i32 srctype=i64 = Cast(i)\n y = Gather(i, i_cast) axis=0\n out y"},
      {"an axis of unknown length gets one",
       "in x[5,3]\n in i[?2] u8\n y = Gather(x, i) axis=0\n z[2,3] = Next(y)\n out z",
       "in x[5,3]\n in i[?2] u8\n i_cast[?2] i32 srctype=u8 = Cast(i)\n y = Gather(x, i_cast) axis=0\n"
       "z[2,3] = Next(y)\n out z"},
      {"a Cast that moves behind its reader",
       inputs + castText + "w = Relu(i_cast)\n y = Gather(x, i) axis=0\n out y\n out w",
       inputs + castText + "w = Relu(i_cast)\n y = Gather(x, i_cast) axis=0\n out y\n out w"},
      {.fault = "a third input is ignored",
       .before = inputs + "y[2,3] = plain Gather(x, i, i) axis=0:i32\n out y",
       .prints = ""},
      {"a Cast of other indices is reused",
       taken + "i_cast[2] i32 = Cast(j)\n y = Gather(x, i) axis=0\n out y\n out i_cast"},
      {"a Cast to another type is reused",
       taken + "i_cast[2] f32 = Cast(i)\n y = Gather(x, i) axis=0\n out y\n out i_cast"},
      {"an op that bears the name ends the run",
       taken + "i_cast: k[2] = Relu(j)\n y = Gather(x, i) axis=0\n out y\n out k"}};
  for (const std::string type : {"i32", "u32"}) {
    cases.push_back(
        {type + " is cast", "in x[5,3]\n in i[2] " + type + "\n y = Gather(x, i) axis=0\n out y"});
  }
  expectPass(PassId::InjectCastForGather, cases);
}

// The flat gather; `index` makes i, `data` the tensor f, `front` stands before both.
std::string flatGather(const std::string& front, const std::string& index,
                       const std::string& rest = "z = Relu(y)\n out z\n") {
  return front + "d = Transpose(x) perm=[2,3,0,1]\n f[35,2,3] = Reshape(d)\n" + index +
         "g = Gather(f, i) axis=0\n h[24,2,3] = Reshape(g)\n t = Transpose(h) perm=[1,2,0]\n" +
         "y[2,3,4,6] = Reshape(t)\n" + rest;
}

TEST(OptimizeGatherND, TakesRowsAndColumns) {
  const std::string front = "in x[2,3,5,7]\n in r[4,6] i32\n in c[4,6] i32\n const w[1] i32 = 7\n";
  const std::string result =
      front + "d = Transpose(x) perm=[2,3,0,1]\n i_pack: i[4,6,2] i32 = Pack(r, c) axis=2\n";
  const std::string read =
      "g: y[4,6,2,3] = GatherNd(d, i) batch_dims=0:i32\n"
      "g_permute = Transpose(y) perm=[2,3,0,1]\n z = Relu(g_permute)\n out z\n";
  const auto index = [](const std::string& product, const std::string& sum) {
    return "p = Eltwise_Binary" + product + " operation=13\n i = Eltwise_Binary" + sum + " operation=0\n";
  };
  std::vector<PassCase> cases;
  for (const std::string product : {"(r, w)", "(w, r)"}) {
    for (const std::string sum : {"(p, c)", "(c, p)"}) {
      cases.push_back({"row and column are mixed up for " + product + sum,
                       flatGather(front, index(product, sum)), result + read});
    }
  }
  const std::string usual = index("(r, w)", "(p, c)");
  cases.push_back({"a graph output gets the layout of the GatherNd",
                   flatGather(front, usual, "z = Relu(y)\n out y\n out z"),
                   result + "g: g_permute[4,6,2,3] = GatherNd(d, i) batch_dims=0:i32\n"
                            "g_permute: y = Transpose(g_permute) perm=[2,3,0,1]\n z = Relu(y)\n"
                            "out y\n out z"});
  const auto refuses = [&](const std::string& fault, const std::string& before) {
    cases.push_back({fault, before});
  };
  const std::string columns = "in x[2,3,5,7]\n in r[4,1] i32\n in c[1,6] i32\n const w[1] i32 = 7\n";
  refuses("indices that broadcast are stacked", flatGather(columns, usual));
  refuses("the application reads the index", flatGather(front, usual, "z = Relu(y)\n out z\n out i"));
  refuses("the application reads the gathered", flatGather(front, usual, "z = Relu(y)\n out z\n out g"));
  refuses("the index is read elsewhere",
          flatGather(front, usual, "z = Relu(y)\n v = Relu(i)\n out z\n out v"));
  refuses("twice the product counts as row and column", flatGather(front, index("(r, w)", "(p, p)")));
  refuses("a taken name ends the run", flatGather("in g_permute[1]\n" + front, usual,
                                                  "z = Relu(y)\n v = Relu(g_permute)\n out z\n out v"));
  expectPass(PassId::OptimizeGatherND, cases);
}

// The result of a rank-3 gather can't stand for the rank-4 tensor: reported as no change, but not undone.
TEST(OptimizeGatherND, StopsHalfwayForAnotherRank) {
  const std::string front =
      "in x[5,7,3]\n in r[4,6] i32\n in c[4,6] i32\n const w[1] i32 = 7\n"
      "d = Transpose(x) perm=[0,1,2]\n";
  expectPass(PassId::OptimizeGatherND,
             {{.fault = "the gather itself isn't made",
               .before = front + "f[35,3] = Reshape(d)\n p = Eltwise_Binary(r, w) operation=13\n"
                                 "i = Eltwise_Binary(p, c) operation=0\n g = Gather(f, i) axis=0\n"
                                 "h[4,6,3] = Reshape(g)\n t = Transpose(h) perm=[1,2,0]\n"
                                 "y[1,6,3,4] = Reshape(t)\n out y",
               .after = front + "i_pack: i[4,6,2] i32 = Pack(r, c) axis=2\n"
                                "g: y[4,6,3] = GatherNd(d, i) batch_dims=0:i32\n out y",
               .allow = kOutputsChange | kReportsNothing | kValuesChange}});
}

}  // namespace
}  // namespace netforge::testing
