#include "output/JsonFile.h"

#include <rapidjson/filewritestream.h>
#include <rapidjson/prettywriter.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

namespace netforge::output {

namespace {

constexpr std::size_t kBufferSize = 65536;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

rapidjson::Value copyString(const std::string& text, rapidjson::Document::AllocatorType& allocator) {
  return {text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator};
}

void writeJsonFile(const rapidjson::Document& document, const std::string& fileName,
                   const std::string& head) {
  std::unique_ptr<std::FILE, CloseFile> file(std::fopen(fileName.c_str(), "wb"));
  if (!file) throw std::runtime_error(head + "Failed to open file for writing: " + fileName);

  std::vector<char> buffer(kBufferSize);
  rapidjson::FileWriteStream stream(file.get(), buffer.data(), buffer.size());
  rapidjson::PrettyWriter<rapidjson::FileWriteStream> writer(stream);
  writer.SetIndent(' ', 4);
  document.Accept(writer);
  stream.Flush();

  // The stream drops errors of fwrite, and the last bytes may fail as late as in fclose.
  const bool failed = std::ferror(file.get()) != 0;
  if (std::fclose(file.release()) != 0 || failed) {
    throw std::runtime_error(head + "Failed to write file: " + fileName);
  }
}

}  // namespace netforge::output
