// SPDX-License-Identifier: LGPL-2.1-or-later
// Default places of files.

#include "folders.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>

#include <filesystem>
#include <system_error>

namespace wrx::host {
namespace {

namespace fs = std::filesystem;

constexpr char kFolder[] = "wrx5300";
constexpr char kConfigName[] = "biometric-drivers.conf";
constexpr char kSystemConfig[] = "/etc/biometric-auth/biometric-drivers.conf";

bool present(const fs::path& path) {
  std::error_code ignored;
  return fs::exists(path, ignored);
}

std::string below(const char* base, const char* file) {
  return (fs::path(base) / kFolder / file).string();
}

/// The first place that has `file`: the build tree's lib folder, then the installation, found from
/// the program so that it may be moved, then as it was configured.
std::string find_library(const char* file, const char* installed_folder) {
  std::error_code ignored;
  const fs::path program = fs::read_symlink("/proc/self/exe", ignored).parent_path();
  const fs::path prefix = program.parent_path();
  const fs::path places[] = {prefix / "lib" / file, prefix / installed_folder / file,
                             fs::path(WRX_INSTALL_PREFIX) / installed_folder / file};
  for (const fs::path& place : places)
    if (present(place)) return place.string();
  return file;
}

}  // namespace

std::string default_config() {
  std::string own = below(g_get_user_config_dir(), kConfigName);
  if (present(own)) return own;
  return present(kSystemConfig) ? kSystemConfig : "";
}

std::string default_database(bool simulated) {
  return below(g_get_user_data_dir(), simulated ? "simulated.db" : "features.db");
}

std::string default_templates() {
  return below(g_get_user_state_dir(), "simulated-templates");
}

std::string default_trace() {
  return below(g_get_user_state_dir(), "last-trace.log");
}

std::string default_plugin() {
  return find_library("wrx5300.so", WRX_PLUGIN_DIR);
}

std::string module_library() {
  return find_library("libwrx-module-usb.so", WRX_LIBDIR "/wrx5300");
}

bool make_folder_of(const std::string& file) {
  const std::string folder = fs::path(file).parent_path().string();
  return folder.empty() || g_mkdir_with_parents(folder.c_str(), 0700) == 0;
}

int open_private(const std::string& path, int flags) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0600);
  struct stat status {};
  // A device or a pipe in the file's place keeps its rights.
  if (file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode)) fchmod(file, 0600);
  return file;
}

}  // namespace wrx::host
