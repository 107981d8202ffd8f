// SPDX-License-Identifier: LGPL-2.1-or-later
// Before the first input of any fuzzer: a scratch folder below which the driver's paths lie, and a
// silent standard output.
#include "fuzz/scratch.h"

#include <unistd.h>

#include <cstdio>
#include <list>

namespace fs = std::filesystem;

// Paths among the arguments stay the ones that were meant.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  static std::list<std::string> kept;
  for (char** word = *argv + 1; word != *argv + *argc; ++word) {
    if ((*word)[0] != '-' && fs::exists(*word))
      *word = kept.emplace_back(fs::absolute(*word)).data();
  }
  std::string folder = (fs::temp_directory_path() / "wrx-fuzz-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr || chdir(folder.c_str()) != 0) std::abort();
  fs::create_directories("etc/biometric-auth/extra.conf.d");
  fs::create_directories("etc/wrx6600/extra");
  // The driver's log file takes all that is written into it, and stays empty.
  fs::create_symlink("/dev/null", "etc/wrx6600/extra/log_wrx.txt");
  return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}
