#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace netforge::testing {

/// Makes an empty directory the current one for the life of the object.
class OwnDirectory {
 public:
  OwnDirectory() : before(std::filesystem::current_path()) {
    static int count = 0;
    folder = std::filesystem::temp_directory_path() /
             ("netforge_test_" + std::to_string(::getpid()) + "_" + std::to_string(count++));
    std::filesystem::create_directories(folder);
    std::filesystem::current_path(folder);
  }
  ~OwnDirectory() {
    std::filesystem::current_path(before);
    std::filesystem::remove_all(folder);
  }
  OwnDirectory(const OwnDirectory&) = delete;
  OwnDirectory& operator=(const OwnDirectory&) = delete;

  /// The names of the JSON files that lie there.
  std::set<std::string> dumps() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (entry.path().extension() == ".json") names.insert(entry.path().filename().string());
    }
    return names;
  }
  static std::string read(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  std::filesystem::path before, folder;
};

}  // namespace netforge::testing
