// SPDX-License-Identifier: LGPL-2.1-or-later
// Gives a fuzzer's seeds to it without libFuzzer, with any compiler, as a test: replay FILE|FOLDER…
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/scratch.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> files_of(int argc, char** argv) {
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    if (!fs::is_directory(argv[i])) {
      files.emplace_back(argv[i]);
      continue;
    }
    for (const auto& entry : fs::directory_iterator(argv[i]))
      files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  const std::vector<fs::path> files = files_of(argc, argv);
  for (const fs::path& file : files) {
    // Said first: an input that ends the process is the last one named.
    std::fprintf(stderr, "%s\n", file.c_str());
    const std::string content = wrx_fuzz::read_file(file.c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(content.data()), content.size());
  }
  std::error_code ignored;
  fs::remove_all(fs::current_path(), ignored);
  return files.empty() ? 1 : 0;
}
