// The replay driver of the ordinary build: runs every input of the given
// folders (or files) once through the target, in name order, without
// libFuzzer. Fails when it finds no input, so a lost corpus is noticed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fs = std::filesystem;

namespace {

std::vector<fs::path> Inputs(int argc, char** argv) {
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (fs::is_directory(argv[i], ec)) {
      std::vector<fs::path> found;
      for (const auto& e : fs::directory_iterator(argv[i], ec))
        if (e.is_regular_file()) found.push_back(e.path());
      std::sort(found.begin(), found.end());
      files.insert(files.end(), found.begin(), found.end());
    } else if (fs::is_regular_file(argv[i], ec)) {
      files.emplace_back(argv[i]);
    } else {
      std::fprintf(stderr, "no such corpus: %s\n", argv[i]);
    }
  }
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  const std::vector<fs::path> files = Inputs(argc, argv);
  for (const fs::path& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replay %s\n", file.c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("replayed %zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
