#pragma once
// Whole-file reads and writes for tests that check what a program left on disk.
#include <filesystem>
#include <string>

namespace qbtest {

// The file's bytes; empty when it cannot be read.
std::string ReadText(const std::filesystem::path& file);
// Writes `text` as the whole file, creating its folders.
void WriteText(const std::filesystem::path& file, const std::string& text);

}  // namespace qbtest
