// SPDX-License-Identifier: LGPL-2.1-or-later
// The command line: a table of commands with the options each takes, given to CLI11.

#include "options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "host/common/folders.h"
#include "host/common/outcome.h"

namespace wrx::client {
namespace {

/// Groups of options; a command takes a set of them.
enum Takes : unsigned {
  kUser = 1,        ///< --uid of one user
  kEveryone = 2,    ///< --uid of one user or all, all by default
  kIndex = 4,       ///< --index
  kRange = 8,       ///< --range
  kName = 16,       ///< --name
  kTimeout = 32,    ///< --timeout
  kAll = 64,        ///< --all
  kManyUsers = 128  ///< --uid of one user or all, the caller by default
};

struct Row {
  Command command;
  unsigned takes;
  const char* name;
  const char* help;
};

constexpr Row kCommands[] = {
    {Command::Info, 0, "info", "Show the driver and what it is set up with; the module rests"},
    {Command::Discover, 0, "discover", "Start the driver and look for the module"},
    {Command::Init, 0, "init", "Start the driver, and show a firmware upgrade as it goes"},
    {Command::Enroll, kUser | kIndex | kName | kTimeout, "enroll",
     "Enrol a finger: a first touch shows that it is new, then it is pressed 12 times"},
    {Command::Verify, kUser | kIndex | kTimeout, "verify", "Is it this finger of this user?"},
    {Command::Identify, kEveryone | kIndex | kRange | kTimeout, "identify", "Whose finger is it?"},
    {Command::Search, kEveryone | kIndex | kRange | kTimeout, "search",
     "Which stored fingerprints does the finger match?"},
    {Command::List, kManyUsers | kIndex | kRange, "list", "List stored fingerprints"},
    {Command::Clean, kUser | kIndex | kRange | kAll, "clean",
     "Delete fingerprints from the module and the database"},
    {Command::Firmware, 0, "firmware",
     "Show the module's firmware, the image carried, and what the next start would do"},
};
static_assert(std::ranges::is_sorted(kCommands, {}, &Row::command) &&
              std::size(kCommands) == static_cast<int>(Command::Firmware) + 1);

/// Option texts as they were typed, before they are read.
struct Texts {
  std::string uid, index, range, timeout, script;
};

std::string exit_code_help() {
  std::string text = "Exit codes:\n";
  for (int code = 0; code <= static_cast<int>(host::Outcome::Failed); ++code)
    text +=
        "  " + std::to_string(code) + "  " + host::meaning(static_cast<host::Outcome>(code)) + "\n";
  return text;
}

/// Refuses a text that `read` does not know.
template <class Reader>
CLI::Validator readable(Reader read, const char* expected) {
  return CLI::Validator(
      [read, expected](std::string& text) {
        return read(text) ? std::string() : "\"" + text + "\" is not " + expected;
      },
      "");
}

void add_common(CLI::App& app, Options& options, Texts& texts) {
  app.add_flag("--json", options.json,
               "JSON on standard output: events a line each, then one object")
      ->group("Common");
  app.add_option("--config", options.config, "Driver configuration")
      ->check(CLI::Validator(CLI::ExistingFile).description(""))
      ->type_name("FILE")
      ->group("Common");
  app.add_option("--db", options.database, "Feature database")->type_name("FILE")->group("Common");
  app.add_option("--plugin", options.plugin, "The driver's plug-in")
      ->check(CLI::Validator(CLI::ExistingFile).description(""))
      ->type_name("FILE")
      ->group("Common");
  app.add_option("--trace", options.trace, "Where the driver's own output goes")
      ->type_name("FILE")
      ->group("Common");
  app.add_option("--simulate", texts.script,
                 "A simulated module; SCRIPT is a file or text such as \"press thumb x13\"")
      ->expected(0, 1)
      ->type_name("[SCRIPT]")
      ->group("Common");
  app.add_option("--templates", options.templates, "Memory of the simulated module")
      ->type_name("FILE")
      ->group("Common");
}

void add_selection(CLI::App& app, unsigned takes, Options& options, Texts& texts) {
  if ((takes & (kUser | kEveryone | kManyUsers)) != 0)
    app.add_option("--uid", texts.uid,
                   (takes & kUser) != 0       ? "User id or log-in name (default: you)"
                   : (takes & kEveryone) != 0 ? "User id, log-in name or \"all\" (default: all)"
                                              : "User id, log-in name or \"all\" (default: you)")
        ->check(readable(read_user, "a user"))
        ->type_name("USER");
  CLI::Option* index = nullptr;
  if ((takes & kIndex) != 0)
    index = app.add_option("--index", texts.index, "Which of the user's fingers (0, 1, ...)")
                ->check(readable(
                    [](std::string_view text) {
                      return text.find("..") == text.npos && read_range(text);
                    },
                    "an index"))
                ->type_name("N");
  if ((takes & kRange) != 0)
    app.add_option("--range", texts.range, "Indexes A to B; without B: from A on")
        ->check(readable(read_range, "a range A..B"))
        ->type_name("A..B")
        ->excludes(index);
  if ((takes & kName) != 0)
    app.add_option("--name", options.finger_name, "What to call the finger")
        ->capture_default_str()
        ->type_name("TEXT");
  if ((takes & kTimeout) != 0)
    app.add_option("--timeout", texts.timeout,
                   "Give up after this time, 1500ms or 20s (default: 10s; identify: never)")
        ->check(readable(read_timeout, "a time from 1ms to 3600s"))
        ->type_name("TIME");
  if ((takes & kAll) != 0) app.add_flag("--all", options.all, "All fingers of the user");
}

/// A script named by its file, or the text itself; without either, a finger that obliges.
std::string read_script(const std::string& text) {
  if (text.empty()) return "press demo x20";
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(text, ignored)) return text;
  std::ifstream file(text, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void read_texts(const Texts& texts, unsigned takes, Options& options) {
  const int nobody_said = (takes & kEveryone) != 0 ? kEveryUser : static_cast<int>(getuid());
  options.uid = texts.uid.empty() ? nobody_said : *read_user(texts.uid);
  if ((takes & kUser) != 0 && options.uid == kEveryUser)
    throw CLI::ValidationError("--uid", "one user at a time, not \"all\"");
  if (!texts.index.empty()) options.index = read_range(texts.index)->first;
  if (!texts.range.empty()) options.range = read_range(texts.range);
  if (!texts.timeout.empty()) options.timeout_ms = read_timeout(texts.timeout);
  if ((takes & kAll) != 0 && options.all == (options.index || options.range))
    throw CLI::ValidationError("clean", "say which: --index N, --range A..B, or --all");
}

void fill_defaults(Options& options) {
  const auto unless_given = [](std::string& file, std::string otherwise) {
    if (file.empty()) file = std::move(otherwise);
  };
  options.trace_chosen = !options.trace.empty();
  unless_given(options.plugin, host::default_plugin());
  unless_given(options.config, host::default_config());
  unless_given(options.database, host::default_database(options.simulate));
  unless_given(options.trace, host::default_trace());
  unless_given(options.templates, host::default_templates());
}

}  // namespace

const char* name(Command command) {
  return kCommands[static_cast<int>(command)].name;
}

Parsed parse(int argc, char** argv) {
  Options options;
  Texts texts;
  CLI::App app("Enrol and recognise fingers with the wrx5300 fingerprint module.", "wrxctl");
  app.footer(exit_code_help());
  app.require_subcommand(1);
  add_common(app, options, texts);
  std::array<CLI::App*, std::size(kCommands)> subcommands{};
  for (const Row& row : kCommands) {
    CLI::App* sub = app.add_subcommand(row.name, row.help);
    add_selection(*sub, row.takes, options, texts);
    add_common(*sub, options, texts);
    sub->footer(exit_code_help());
    subcommands[static_cast<std::size_t>(row.command)] = sub;
  }
  try {
    app.parse(argc, argv);
    const Row& row = *std::ranges::find_if(kCommands, [&](const Row& each) {
      return subcommands[static_cast<std::size_t>(each.command)]->parsed();
    });
    CLI::App* chosen = subcommands[static_cast<std::size_t>(row.command)];
    options.command = row.command;
    options.simulate = app.count("--simulate") + chosen->count("--simulate") > 0;
    options.script = read_script(texts.script);
    read_texts(texts, row.takes, options);
    fill_defaults(options);
    return {options, 0, options.json, ""};
  } catch (const CLI::Success& help) {
    return {{}, app.exit(help), false, ""};
  } catch (const CLI::ParseError& error) {
    // CLI11 misses the command before it looks at the word that stands in its place.
    const auto unknown = app.remaining();
    const bool strange = app.get_subcommands().empty() && !unknown.empty();
    const bool json = std::any_of(
        argv, argv + argc, [](const char* word) { return std::string_view(word) == "--json"; });
    return {{},
            static_cast<int>(host::Outcome::Usage),
            json,
            strange ? "there is no command \"" + unknown.front() + "\"" : error.what()};
  }
}

}  // namespace wrx::client
