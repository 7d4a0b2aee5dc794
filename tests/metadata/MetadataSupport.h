#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "metadata/ODLTransformManager.h"
#include "tests/support/OwnDirectory.h"

namespace netforge::testing {

/// A folder of its own for a test, with one metadata file that it writes and reads.
class MetadataFolder : public OwnDirectory {
 public:
  std::string path() const { return (folder / "transforms.json").string(); }
  void write(const std::string& text) const { std::ofstream(path(), std::ios::binary) << text; }
  std::string read() const { return OwnDirectory::read(path()); }
  /// A file with one graph "g" of execution order 0 and these members behind it.
  void writeGraph(const std::string& members) const {
    write(std::string(R"({"graphs": {"g": {"execution_order": 0)") + (members.empty() ? "" : ", ") + members +
          "}}}");
  }
};

inline std::set<std::string> sorted(const graphrefiner::HashedNames& names) {
  return {names.begin(), names.end()};
}

}  // namespace netforge::testing
