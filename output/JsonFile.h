#pragma once

#include <rapidjson/document.h>

#include <string>

/// What the JSON writers of this room share. All of them build a document whose strings are copies, the fixed
/// key names excepted, and write it in one go.

namespace netforge::output {

/// A JSON string that holds its own copy of `text`, which may contain any byte.
rapidjson::Value copyString(const std::string& text, rapidjson::Document::AllocatorType& allocator);

/// Writes the document as UTF-8 with four blanks of indentation and no newline at the end, and replaces an
/// existing file. Throws std::runtime_error "<head>Failed to open file for writing: <fileName>", or
/// "<head>Failed to write file: <fileName>" when not all bytes could be stored.
void writeJsonFile(const rapidjson::Document& document, const std::string& fileName, const std::string& head);

}  // namespace netforge::output
