// SPDX-License-Identifier: LGPL-2.1-or-later
// Gives a fuzzer's seeds to it without libFuzzer, with any compiler, as a test: replay FOLDER
#include <algorithm>
#include <cstdio>
#include <vector>

#include "fuzz/scratch.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  if (LLVMFuzzerInitialize(&argc, &argv) != 0 || argc != 2) return 1;
  std::vector<fs::path> files(fs::directory_iterator(argv[1]), {});
  std::sort(files.begin(), files.end());
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
