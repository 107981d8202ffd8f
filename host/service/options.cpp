// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading the command line.

#include "host/service/options.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>

#include "host/common/folders.h"

namespace wrx::service {
namespace {

constexpr char kSystemConfig[] = "/etc/biometric-auth/biometric-drivers.conf";
constexpr char kStateFolder[] = "/var/lib/wrxd";

/// A script named by its file, or the text itself.
std::string script_of(const std::string& text) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(text, ignored)) return text;
  std::ifstream file(text, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

std::variant<Options, int> parse_options(int argc, char** argv) {
  Options options;
  std::string script;
  int64_t idle_s = options.idle_exit.count();
  int64_t wait_ms = options.wait.count();
  CLI::App app("Fingerprint service of the desktop, on the wrx5300 fingerprint module.", "wrxd");
  app.set_version_flag("--version", WRX_VERSION);
  app.add_option("--config", options.config, "Driver configuration")
      ->check(CLI::Validator(CLI::ExistingFile).description(""))
      ->type_name("FILE");
  app.add_option("--plugin", options.plugin, "The driver's plug-in")
      ->check(CLI::Validator(CLI::ExistingFile).description(""))
      ->type_name("FILE");
  app.add_option("--state", options.state, "Folder of the feature database and the trace")
      ->default_str(kStateFolder)
      ->type_name("FOLDER");
  app.add_option("--idle-exit", idle_s, "Leave after this time without a client; 0: never")
      ->check(CLI::Range(0, 86400).description(""))
      ->capture_default_str()
      ->type_name("SECONDS");
  app.add_option("--wait", wait_ms, "The driver's own limit of a wait for a finger")
      ->check(CLI::Range(100, 3600000).description(""))
      ->capture_default_str()
      ->type_name("MILLISECONDS");
  CLI::Option* simulate =
      app.add_option("--simulate", script, "A simulated module; SCRIPT is a file or text")
          ->type_name("SCRIPT");
  app.add_option("--simulate-control", options.control, "Socket to steer the simulated module by")
      ->needs(simulate)
      ->type_name("PATH");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return app.exit(end) == 0 ? 0 : 2;
  }
  if (options.config.empty() && std::filesystem::exists(kSystemConfig))
    options.config = kSystemConfig;
  // A name without a folder would be looked for along the linker's path.
  options.plugin = options.plugin.empty() ? host::default_plugin()
                                          : std::filesystem::absolute(options.plugin).string();
  if (options.state.empty()) options.state = kStateFolder;
  options.idle_exit = std::chrono::seconds(idle_s);
  options.wait = std::chrono::milliseconds(wait_ms);
  if (simulate->count() > 0) options.script = script_of(script);
  return options;
}

}  // namespace wrx::service
