#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "metadata/ODLTransformManager.h"

namespace netforge::testing {

/// A folder of its own for a test, with one metadata file that it writes and reads.
class MetadataFolder {
 public:
  MetadataFolder()
      : folder(std::filesystem::temp_directory_path() /
               ("netforge_metadata_" + std::to_string(::getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name())) {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
  }
  ~MetadataFolder() { std::filesystem::remove_all(folder); }
  MetadataFolder(const MetadataFolder&) = delete;
  MetadataFolder& operator=(const MetadataFolder&) = delete;

  std::string path() const { return (folder / "transforms.json").string(); }
  void write(const std::string& text) const { std::ofstream(path(), std::ios::binary) << text; }
  std::string read() const {
    std::ifstream stream(path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  }
  /// A file with one graph "g" of execution order 0 and these members behind it.
  void writeGraph(const std::string& members) const {
    write(std::string(R"({"graphs": {"g": {"execution_order": 0)") + (members.empty() ? "" : ", ") + members +
          "}}}");
  }
  std::set<std::string> fileNames() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  const std::filesystem::path folder;
};

inline std::set<std::string> sorted(const graphrefiner::HashedNames& names) {
  return {names.begin(), names.end()};
}

}  // namespace netforge::testing
