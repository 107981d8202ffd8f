// SPDX-License-Identifier: LGPL-2.1-or-later
//
// wrx-module: the simulated module as a program, on a real USB bus. `serve` exports it over
// USB/IP, `attach` puts it on this machine's own bus, `tell` and `report` steer one that runs.
#include <fmt/core.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>

#include "module/device/storage.h"
#include "module/play/control_socket.h"
#include "module/usb/usbip_server.h"
#include "module/usb/vhci_port.h"

namespace {

namespace wm = wrx_module;

struct Options {
  std::string script, memory, control;
  bool instant = false;
  std::pair<uint16_t, uint16_t> id{0x4d2e, 0x5300};
  std::string address = "127.0.0.1";
  uint16_t port = wm::usbip::kPort;
  std::string vhci = wm::usbip::kVhciFolder;
  std::optional<unsigned> vhci_port;
  std::string socket;
  std::vector<std::string> words;
};

constexpr int kUsage = 2;  // a mistake on the command line; other failures are 1

constexpr char kExample[] =
    "The script drives the module's fingers, faults and settings, for example:\n"
    "  press thumb x13; at 40s; press index; wait 1s; lift\n"
    "  unplug after 20 transfers; fault at 3 stall; powerup match 21\n"
    "  set press-gap 500ms\n";

std::string script_help() {
  std::string text = std::string(kExample) + "Settings:\n";
  for (const std::string& name : wm::setting_names())
    text += "  " + name + "\n";
  text += "Faults:\n";
  for (const std::string& name : wm::fault_words())
    text += "  " + name + "\n";
  return text;
}

// "4d2e:5300" into its two numbers.
std::pair<uint16_t, uint16_t> read_id(const std::string& text) {
  unsigned vendor = 0, product = 0;
  int end = 0;
  const bool sound = std::sscanf(text.c_str(), "%4x:%4x%n", &vendor, &product, &end) == 2 &&
                     static_cast<size_t>(end) == text.size();
  if (!sound) throw CLI::ValidationError("--id", "\"" + text + "\" is not VENDOR:PRODUCT in hex");
  return {static_cast<uint16_t>(vendor), static_cast<uint16_t>(product)};
}

/// The script named by a file, or the text itself.
std::string read_script(const std::string& text) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(text, ignored)) return text;
  std::ifstream file(text, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

wm::Script parsed_script(const std::string& text) {
  wm::ParsedScript parsed = wm::parse_script(read_script(text));
  if (parsed.error) throw std::runtime_error("script: " + parsed.error->text());
  return std::move(parsed.script);
}

/// Keeps the memory for this program, if it has one.
wm::MemoryLock locked_memory(const Options& options) {
  wm::MemoryLock lock;
  std::string why;
  if (!options.memory.empty() && !lock.take(options.memory, why)) throw std::runtime_error(why);
  return lock;
}

std::unique_ptr<wm::Stand> make_stand(wm::Clock& clock, const Options& options) {
  wm::Settings settings = options.instant ? wm::Settings{} : wm::Settings::lifelike();
  std::tie(settings.usb.vendor, settings.usb.product) = options.id;
  wm::Memory memory = wm::factory_memory(settings.identity.version);
  std::string why;
  if (!options.memory.empty() &&
      wm::load_memory(options.memory, memory, why) == wm::LoadResult::failed)
    throw std::runtime_error(why);
  wm::Script script = parsed_script(options.script);
  auto stand = std::make_unique<wm::Stand>(clock, settings, std::move(memory));
  stand->play(std::move(script));
  return stand;
}

/// Blocks the signals that end the program and makes them readable.
wm::Descriptor end_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return wm::Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
}

void save(const Options& options, wm::Stand& stand) {
  std::string why;
  if (!options.memory.empty() && !wm::save_memory(options.memory, stand.device().memory(), why))
    throw std::runtime_error(why);
}

int run(const Options& options, bool served) {
  const wm::Descriptor stop = end_signals();
  const wm::MemoryLock lock = locked_memory(options);
  wm::RealClock clock;
  const auto stand = make_stand(clock, options);
  std::optional<wm::ControlSocket> control;
  std::optional<wm::usbip::Server> server;
  std::optional<wm::usbip::VhciPort> vhci;
  std::vector<wm::Served*> parts;
  if (!options.control.empty()) parts.push_back(&control.emplace(*stand, options.control));
  if (served) {
    parts.push_back(&server.emplace(*stand, options.address, options.port));
    fmt::print("serving bus id {} on {} port {}\n", wm::usbip::kBusId, options.address,
               server->port());
  } else {
    parts.push_back(&vhci.emplace(*stand, options.vhci, options.vhci_port));
    fmt::print("attaching to port {} of the virtual host controller\n", vhci->port());
  }
  std::fflush(stdout);
  try {
    if (!wm::run_loop(*stand, parts, stop.get()))
      throw std::runtime_error("the system cannot wait");
  } catch (...) {
    save(options, *stand);
    throw;
  }
  save(options, *stand);
  return 0;
}

int put_request(const std::string& socket, const std::string& request) {
  const std::string answer = wm::ask(socket, request);
  const bool refused = answer.empty() || answer.starts_with("error");
  if (refused) {
    fmt::print(stderr, "wrx-module: {}", answer.empty() ? "the module gave no answer\n" : answer);
  } else if (answer != "ok\n") {
    fmt::print("{}", answer);
  }
  return refused ? 1 : 0;
}

void add_module_options(CLI::App& app, Options& options) {
  app.add_option("--script", options.script, "What happens: a file, or the text itself")
      ->type_name("SCRIPT");
  app.add_option("--memory", options.memory, "Where templates, flash and version are kept")
      ->type_name("FILE");
  app.add_option("--control", options.control, "Socket for tell and report")->type_name("SOCKET");
  app.add_flag("--instant", options.instant, "Answer at once instead of as fast as a real one");
  app.add_option_function<std::string>(
         "--id", [&options](const std::string& text) { options.id = read_id(text); },
         "USB identity (default: 4d2e:5300)")
      ->type_name("VENDOR:PRODUCT");
  app.footer(script_help());
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words)
    text += (text.empty() ? "" : " ") + word;
  return text;
}

int main_guarded(int argc, char** argv) {
  Options options;
  CLI::App app("The simulated wrx5300 fingerprint module on a USB bus.", "wrx-module");
  app.require_subcommand(1);
  CLI::App* serve = app.add_subcommand("serve", "Export the module over USB/IP");
  serve->add_option("--address", options.address, "IPv4 address to listen on")
      ->capture_default_str();
  serve->add_option("--port", options.port, "TCP port to listen on")->capture_default_str();
  add_module_options(*serve, options);
  CLI::App* attach = app.add_subcommand("attach", "Put the module on this machine's bus (root)");
  attach->add_option("--port", options.vhci_port, "Port of the controller (default: a free one)")
      ->type_name("N");
  attach->add_option("--vhci", options.vhci, "Folder of the controller")->capture_default_str();
  add_module_options(*attach, options);
  CLI::App* tell = app.add_subcommand("tell", "Run statements on a running module");
  tell->add_option("socket", options.socket, "Its control socket")->required();
  tell->add_option("script", options.words, "The statements")->required();
  tell->footer(script_help());
  CLI::App* report = app.add_subcommand("report", "Show a running module's state as JSON");
  report->add_option("socket", options.socket, "Its control socket")->required();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return app.exit(end) == 0 ? 0 : kUsage;
  }

  if (tell->parsed()) return put_request(options.socket, "play\n" + joined(options.words));
  if (report->parsed()) return put_request(options.socket, "report\n");
  return run(options, serve->parsed());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return main_guarded(argc, argv);
  } catch (const std::exception& error) {
    fmt::print(stderr, "wrx-module: {}\n", error.what());
    return 1;
  }
}
