// The transform metadata file: what is written, what is read, and files that are broken on purpose.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include "tests/metadata/MetadataSupport.h"
#include "tests/support/Failures.h"

namespace netforge::testing {
namespace {

using graphrefiner::DType;
using graphrefiner::ODLTransformManager;
using graphrefiner::TransformGraph;

const std::string kLoad = "netforge::graphrefiner::ODLTransformManager::loadMetadata: ";
const std::string kSave = "netforge::graphrefiner::ODLTransformManager::saveMetadata: ";

std::string repeated(const std::string& text, std::size_t times) {
  std::string result;
  result.reserve(text.size() * times);
  for (std::size_t i = 0; i < times; ++i) result += text;
  return result;
}

std::string transform(const std::string& attributes, const std::string& more = "") {
  return R"("transforms": [{"src_tensors": ["a"], "dest_tensors": ["b"], "operator": {"op_type": "Scale",)"
         R"("attributes": )" +
         attributes + more + "}}]";
}

TEST(MetadataFile, IsWrittenInItsFormat) {
  MetadataFolder folder;
  ODLTransformManager manager;
  TransformGraph& graph = manager.createTransformGraph("g", -7, "conc", 3, std::nullopt);
  graph.addTransform({"a"}, {"b"},
                     {"Transpose", {{"perm", "[0, 2,1]"}, {"bad", "{"}}, {{2, 4294967295}}, {{}}}, false,
                     {{"b", DType::Int8}, {"a", DType::Float16}});
  manager.createTransformGraph("empty", 0, std::nullopt, std::nullopt, -1);
  manager.saveMetadata(folder.path());
  const std::string text = folder.read();
  std::string squeezed;
  std::copy_if(text.begin(), text.end(), std::back_inserter(squeezed), [](char c) { return c > ' '; });
  EXPECT_EQ(squeezed, R"({"version":"1.0.0","graphs":{)"
                      R"("empty":{"execution_order":0,"ar_n":-1,"input_tensors":[],"output_tensors":[],)"
                      R"("transforms":[]},)"
                      R"("g":{"execution_order":-7,"concurrency_name":"conc","split_num":3,)"
                      R"("input_tensors":["a"],"output_tensors":["b"],"transforms":[{)"
                      R"("src_tensors":["a"],"dest_tensors":["b"],)"
                      R"("tensor_dtypes":{"a":"float16","b":"int8"},"operator":{"op_type":"Transpose",)"
                      R"("attributes":{"bad":null,"perm":[0,2,1]},)"
                      R"("input_shapes":[[2,4294967295]],"output_shapes":[[]]}}]}}})");
  EXPECT_EQ(text.rfind("{\n    \"version\": \"1.0.0\",\n    \"graphs\": {\n        \"empty\": {\n", 0), 0U)
      << text;
  ODLTransformManager again;
  again.loadMetadata(folder.path());
  again.saveMetadata(folder.path());
  EXPECT_EQ(folder.read(), text);
}

TEST(MetadataFile, OptionalMembersOfAnotherTypeCountAsAbsent) {
  MetadataFolder folder;
  for (const std::string value : {"2.5", "\"2\"", "null", "2147483648", "-2147483649", "1e3", "[2]"}) {
    folder.writeGraph("\"concurrency_name\": 4, \"transforms\": {}, \"split_num\": " + value +
                      ", \"ar_n\": " + value);
    ODLTransformManager manager;
    manager.loadMetadata(folder.path());
    const TransformGraph& graph = manager.getTransformGraph("g");
    EXPECT_FALSE(graph.splitNum || graph.arN || graph.concurrencyName) << value;
  }
  folder.write(
      R"({"version": "9.9.9", "graphs": {"g": {"execution_order": -2147483648, "ar_n": 2147483647}}})");
  ODLTransformManager manager;
  manager.loadMetadata(folder.path());
  EXPECT_EQ(manager.getTransformGraph("g").arN, 2147483647);
}

TEST(MetadataFile, ListsOfTheFileReplaceTheDerivedOnesTogetherOnly) {
  MetadataFolder folder;
  const auto inputsOf = [&](const std::string& lists) {
    folder.writeGraph(transform("{}") + lists);
    ODLTransformManager manager;
    manager.loadMetadata(folder.path());
    return sorted(manager.getTransformGraph("g").inputTensors);
  };
  EXPECT_EQ(inputsOf(R"(, "input_tensors": ["q"], "output_tensors": [])"), std::set<std::string>{"q"});
  EXPECT_EQ(inputsOf(R"(, "input_tensors": ["q"])"), std::set<std::string>{"a"});
}

TEST(MetadataFile, ReadsAttributeValuesAndKeepsThem) {
  const std::string deepList = repeated("[", 100'000) + repeated("]", 100'000);
  const std::string deepObject = repeated("{\"k\":", 100'000) + "0" + repeated("}", 100'000);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"-0.1", "-0.1"},
      {"1e-300", "1e-300"},
      {"18446744073709551615", "18446744073709551615"},
      {"{\"k\":[null,true,\"\xC3\xA9\"]}", "{\"k\":[null,true,\"\xC3\xA9\"]}"},
      {"\"\\u0000\"", "\"\\u0000\""},
      {"0e302", "0.0"},
      {"1e-400", "0.0"},
      {"-0", "0"},
      {"1E2", "100.0"},
      {"1000000000000000000000000000000", "1e30"},
      {deepList, deepList},
      {deepObject, deepObject},
  };
  MetadataFolder folder;
  for (const auto& [text, expected] : cases) {
    folder.writeGraph(transform("{\"v\": " + text + "}"));
    for (int round = 0; round < 2; ++round) {
      ODLTransformManager manager;
      manager.loadMetadata(folder.path());
      EXPECT_EQ(manager.getTransformGraph("g").transforms[0].op.attributes.at("v"), expected);
      // The blanks in front of the deepest level alone would fill gigabytes.
      if (text.size() > 1000) break;
      manager.saveMetadata(folder.path());
    }
  }
}

TEST(MetadataFile, RefusesBrokenFiles) {
  MetadataFolder folder;
  const std::string file = ": " + folder.path();
  const std::string parse = kLoad + "JSON parse error in file" + file;
  const std::string missing = kLoad + "Metadata file missing 'graphs' object" + file;
  const std::string order = kLoad + "Metadata transform graph: g, is missing execution order field";
  const auto graph = [](const std::string& members) {
    return R"({"graphs": {"g": {"execution_order": 0, )" + members + "}}}";
  };
  const std::string head = kLoad + "Metadata transform graph: g";
  const std::string entry = head + ", transform 0";
  const auto one = [&](const std::string& members) { return graph("\"transforms\": [{" + members + "}]"); };
  const std::string ends = R"("src_tensors": ["a"], "dest_tensors": ["b"])";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", parse},
      {"{\"graphs\": {}", parse},
      {std::string("{\"graphs\": {}}\0{}", 17), parse},
      {"{\"graphs\": {\"\xFF\": {}}}", parse},
      {"{\"graphs\": {\"\\ud800\": {}}}", parse},
      {"{\"graphs\": 1e999}", parse},
      {repeated("[", 2'000'000), parse},
      {"[]", missing},
      {R"({"graphs": []})", missing},
      {R"({"graphs": {}, "graphs": {}})", kLoad + "Metadata file has two members 'graphs'" + file},
      {R"({"graphs": {"g": {}}})", order},
      {R"({"graphs": {"g": {"execution_order": 1.0}}})", order},
      {R"({"graphs": {"g": {"execution_order": 2147483648}}})",
       head + " has an execution order beyond 32 bits" + file},
      {R"({"graphs": {"g": 3}})", head + " is no object" + file},
      {R"({"graphs": {"g": {"execution_order": 1}, "g": {"execution_order": 1}}})",
       kLoad + "Unable to load graph 'g', Graph already exists with same name!"},
      {graph(R"("transforms": [7])"), entry + " is no object" + file},
      {one(R"("dest_tensors": ["b"])"), entry + " has no member 'src_tensors'" + file},
      {one(R"("src_tensors": [1])"), entry + " has a member 'src_tensors' that is no list of strings" + file},
      {one(R"("src_tensors": [])"), entry + " has no member 'dest_tensors'" + file},
      {one(ends), entry + " has no member 'operator'" + file},
      {one(ends + R"(, "operator": [])"), entry + ", operator is no object" + file},
      {one(ends + R"(, "operator": {"op_type": 1})"),
       entry + ", operator has a member 'op_type' that is no string" + file},
      {graph(transform(R"({"k": 1, "k": 2})")), entry + ", operator, attributes has two members 'k'" + file},
      {graph(transform("{}", R"(, "input_shapes": [[-1]])")),
       entry + ", operator has a member 'input_shapes' that is no list of lists of unsigned 32-bit integers" +
           file},
      {graph(R"("input_tensors": [1], "output_tensors": [])"),
       head + " has a member 'input_tensors' that is no list of strings" + file},
  };
  for (const auto& [text, message] : cases) {
    folder.write(text);
    ODLTransformManager manager;
    EXPECT_EQ(failureOf<std::runtime_error>([&] { manager.loadMetadata(folder.path()); }), message)
        << text.substr(0, 200);
  }
}

TEST(MetadataFile, RefusesPathsThatLeadNowhere) {
  MetadataFolder folder;
  const std::string absent = (folder.folder / "absent" / "file").string();
  const std::string directory = folder.folder.string();
  ODLTransformManager manager;
  for (const std::string& path : {absent, directory}) {
    EXPECT_EQ(failureOf<std::runtime_error>([&] { manager.loadMetadata(path); }),
              kLoad + "Cannot open file for reading: " + path);
    EXPECT_EQ(failureOf<std::runtime_error>([&] { manager.saveMetadata(path); }),
              kSave + "Cannot open file for writing: " + path);
  }
  // A device takes the bytes in place, and nothing takes its place.
  EXPECT_EQ(failureOf<std::runtime_error>([&] { manager.saveMetadata("/dev/full"); }),
            kSave + "Failed to close file (data may not be fully written): /dev/full");
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
  manager.createTransformGraph(std::string(200'000, 'n'), 0, std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(failureOf<std::runtime_error>([&] { manager.saveMetadata("/dev/full"); }),
            kSave + "Failed to write JSON to file: /dev/full");
}

TEST(MetadataFile, ReplacesAFileWithItsLinksAndRights) {
  MetadataFolder folder;
  folder.writeGraph("");
  ::chmod(folder.path().c_str(), 0640);
  const auto link = folder.folder / "link.json";
  std::filesystem::create_symlink("transforms.json", link);
  ODLTransformManager manager;
  manager.loadMetadata(link.string());
  manager.saveMetadata(link.string());
  EXPECT_NE(folder.read().find("\"version\": \"1.0.0\""), std::string::npos);
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(folder.path()).permissions()), 0640U);
  EXPECT_EQ(folder.dumps(), (std::set<std::string>{"link.json", "transforms.json"}));
}

TEST(MetadataFile, NamesOfGraphsAreUnique) {
  const std::string head = "netforge::graphrefiner::ODLTransformManager::";
  ODLTransformManager manager;
  const auto create = [&] { manager.createTransformGraph("a", 2, std::nullopt, std::nullopt, std::nullopt); };
  create();
  EXPECT_EQ(failureOf<std::runtime_error>(create),
            head + "createTransformGraph: Transform_graph a already exists!");
  EXPECT_EQ(failureOf<std::runtime_error>([&] { manager.getTransformGraph("c"); }),
            head + "getTransformGraph: Transform graph c doesn't exist");
}

}  // namespace
}  // namespace netforge::testing
