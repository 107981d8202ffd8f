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
#include "words.h"

namespace wrx::client {
namespace {

/// Groups of options; a command takes a set of them.
enum Takes : unsigned {
  kUser = 1,         ///< --uid of one user
  kEveryone = 2,     ///< --uid of one user or all, all by default
  kIndex = 4,        ///< --index
  kRange = 8,        ///< --range
  kName = 16,        ///< --name
  kTimeout = 32,     ///< --timeout
  kAll = 64,         ///< --all
  kManyUsers = 128,  ///< --uid of one user or all, the caller by default
  kRepair = 256,     ///< --repair
  kPicture = 512,    ///< --output, --now
};

struct Row {
  Command command;
  unsigned takes;
  const char* name;
  const char* help;
};

constexpr Row kCommands[] = {
    {Command::Info, 0, "info", N_("Show the driver and what it is set up with; the module rests")},
    {Command::Discover, 0, "discover", N_("Start the driver and look for the module")},
    {Command::Init, 0, "init", N_("Start the driver, and show a firmware upgrade as it goes")},
    {Command::Enroll, kUser | kIndex | kName | kTimeout, "enroll",
     N_("Enrol a finger: a first touch shows that it is new, then it is pressed 12 times")},
    {Command::Verify, kUser | kIndex | kTimeout, "verify", N_("Is it this finger of this user?")},
    {Command::Identify, kEveryone | kIndex | kRange | kTimeout, "identify",
     N_("Whose finger is it?")},
    {Command::Search, kEveryone | kIndex | kRange | kTimeout, "search",
     N_("Which stored fingerprints does the finger match?")},
    {Command::List, kManyUsers | kIndex | kRange, "list", N_("List stored fingerprints")},
    {Command::Clean, kUser | kIndex | kRange | kAll, "clean",
     N_("Delete fingerprints from the module and the database")},
    {Command::Firmware, 0, "firmware",
     N_("Show the module's firmware, the image carried, and what the next start would do")},
    {Command::Doctor, 0, "doctor",
     N_("Look at everything that a finger's way needs, and say what to do about what is amiss")},
    {Command::Fsck, kRepair, "fsck",
     N_("Compare the module's template slots with the stored records")},
    {Command::ModuleHandshake, 0, "module handshake", N_("Does the module answer?")},
    {Command::ModuleSerial, 0, "module serial", N_("Show the module's serial number")},
    {Command::ModuleParameters, 0, "module parameters", N_("Show the module's parameters")},
    {Command::ModuleInfoPage, 0, "module info-page", N_("Show the module's information page")},
    {Command::ModuleCount, 0, "module count", N_("Show how many templates the module holds")},
    {Command::ModuleSlots, 0, "module slots", N_("Draw a map of the module's template slots")},
    {Command::ModuleImage, kPicture | kTimeout, "module image",
     N_("Take a picture of the finger on the sensor")},
};
static_assert(std::ranges::is_sorted(kCommands, {}, &Row::command) &&
              std::size(kCommands) == kCommandCount);

constexpr std::string_view kModule = "module";

/// Option texts as they were typed, before they are read.
struct Texts {
  std::string uid, index, range, timeout, script;
};

std::string exit_code_help() {
  std::string text = tr("Exit codes:") + "\n";
  for (int code = 0; code <= static_cast<int>(host::Outcome::Failed); ++code)
    text += fmt::format("  {}  {}\n", code, tr(host::meaning(static_cast<host::Outcome>(code))));
  return text;
}

/// Refuses a text that `read` does not know; `refusal` says so, with the text for its {}.
template <class Reader>
CLI::Validator readable(Reader read, const char* refusal) {
  return CLI::Validator(
      [read, refusal](std::string& text) { return read(text) ? "" : tr(refusal, text); }, "");
}

/// A name is shown on terminals and stands in lines of the trace.
bool without_controls(std::string_view name) {
  return std::ranges::none_of(name, [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

void add_common(CLI::App& app, Options& options, Texts& texts) {
  app.add_flag("--json", options.json,
               tr("JSON on standard output: events a line each, then one object"))
      ->group("Common");
  app.add_option("--config", options.config, tr("Driver configuration"))
      ->check(CLI::Validator(CLI::ExistingFile).description(""))
      ->type_name("FILE")
      ->group("Common");
  app.add_option("--db", options.database, tr("Feature database"))
      ->type_name("FILE")
      ->group("Common");
  app.add_option("--plugin", options.plugin, tr("The driver's plug-in"))
      ->check(CLI::Validator(CLI::ExistingFile).description(""))
      ->type_name("FILE")
      ->group("Common");
  app.add_option("--trace", options.trace, tr("Where the driver's own output goes"))
      ->type_name("FILE")
      ->group("Common");
  app.add_option("--simulate", texts.script,
                 tr("A simulated module; SCRIPT is a file or text such as \"press thumb x13\""))
      ->expected(0, 1)
      ->type_name("[SCRIPT]")
      ->group("Common");
  app.add_option("--templates", options.templates, tr("Memory of the simulated module"))
      ->type_name("FILE")
      ->group("Common");
}

void add_selection(CLI::App& app, unsigned takes, Options& options, Texts& texts) {
  if ((takes & (kUser | kEveryone | kManyUsers)) != 0)
    app.add_option("--uid", texts.uid,
                   (takes & kUser) != 0 ? tr("User id or log-in name (default: you)")
                   : (takes & kEveryone) != 0
                       ? tr("User id, log-in name or \"all\" (default: all)")
                       : tr("User id, log-in name or \"all\" (default: you)"))
        ->check(readable(read_user, N_("\"{}\" is not a user")))
        ->type_name("USER");
  CLI::Option* index = nullptr;
  if ((takes & kIndex) != 0)
    index = app.add_option("--index", texts.index, tr("Which of the user's fingers (0, 1, ...)"))
                ->check(readable(
                    [](std::string_view text) {
                      return text.find("..") == text.npos && read_range(text);
                    },
                    N_("\"{}\" is not an index")))
                ->type_name("N");
  if ((takes & kRange) != 0)
    app.add_option("--range", texts.range, tr("Indexes A to B; without B: from A on"))
        ->check(readable(read_range, N_("\"{}\" is not a range A..B")))
        ->type_name("A..B")
        ->excludes(index);
  if ((takes & kName) != 0)
    app.add_option("--name", options.finger_name, tr("What to call the finger"))
        ->check(CLI::Validator(
            [](std::string& name) {
              return without_controls(name) ? "" : tr("a name has no control characters");
            },
            ""))
        ->capture_default_str()
        ->type_name("TEXT");
  if ((takes & kTimeout) != 0)
    app.add_option("--timeout", texts.timeout,
                   tr("Give up after this time, 1500ms or 20s (default: 10s; identify: never)"))
        ->check(readable(read_timeout, N_("\"{}\" is not a time from 1ms to 3600s")))
        ->type_name("TIME");
  if ((takes & kAll) != 0) app.add_flag("--all", options.all, tr("All fingers of the user"));
}

void add_purpose(CLI::App& app, unsigned takes, Options& options) {
  if ((takes & kRepair) != 0)
    app.add_flag("--repair", options.repair,
                 tr("Erase templates that no record names, and records without a template"));
  if ((takes & kPicture) == 0) return;
  app.add_option("-o,--output", options.output, tr("The picture's file, .png or .pgm"))
      ->required()
      ->type_name("FILE");
  app.add_flag("--now", options.at_once, tr("Do not wait for a finger"));
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
    throw CLI::ValidationError("--uid", tr("one user at a time, not \"all\""));
  if (!texts.index.empty()) options.index = read_range(texts.index)->first;
  if (!texts.range.empty()) options.range = read_range(texts.range);
  if (!texts.timeout.empty()) options.timeout_ms = read_timeout(texts.timeout);
  if ((takes & kAll) != 0 && options.all == (options.index || options.range))
    throw CLI::ValidationError("clean", tr("say which: --index N, --range A..B, or --all"));
}

void fill_defaults(Options& options) {
  const auto unless_given = [](std::string& file, std::string otherwise) {
    if (file.empty()) file = std::move(otherwise);
  };
  options.trace_chosen = !options.trace.empty();
  // A name without a folder would be looked for along the linker's path.
  if (!options.plugin.empty()) options.plugin = std::filesystem::absolute(options.plugin).string();
  unless_given(options.plugin, host::default_plugin());
  unless_given(options.config, host::default_config());
  unless_given(options.database, host::default_database(options.simulate));
  unless_given(options.trace, host::default_trace());
  unless_given(options.templates, host::default_templates());
}

/// CLI11's tree with the records that its options are read into.
class CommandLine {
 public:
  CommandLine() : app("", "wrxctl") {
    app.description(tr("Enrol and recognise fingers with the wrx5300 fingerprint module."));
    app.require_subcommand(1);
    app.footer(exit_code_help());
    add_common(app, options, texts);
    module_ =
        app.add_subcommand(std::string(kModule), tr("Ask the module one question, for service"));
    module_->require_subcommand(1);
    for (const Row& row : kCommands)
      add(row);
  }

  /// The command that was chosen, and its row.
  const Row& chosen() const {
    return *std::ranges::find_if(kCommands, [this](const Row& row) { return at(row).parsed(); });
  }
  CLI::App& at(const Row& row) const { return *commands_[static_cast<std::size_t>(row.command)]; }

  /// A word that stands where a command should, and is none; empty when there is no such word.
  std::string strange() const {
    const CLI::App& asked = module_->parsed() ? *module_ : app;
    const auto words = asked.remaining();
    return asked.get_subcommands().empty() && !words.empty() ? words.front() : "";
  }

  Options options;
  Texts texts;
  CLI::App app;

 private:
  void add(const Row& row) {
    const std::string_view words = row.name;
    const bool asked = words.starts_with(kModule);
    CLI::App* command =
        asked ? module_->add_subcommand(std::string(words.substr(kModule.size() + 1)), tr(row.help))
              : app.add_subcommand(row.name, tr(row.help));
    add_selection(*command, row.takes, options, texts);
    add_purpose(*command, row.takes, options);
    add_common(*command, options, texts);
    command->footer(exit_code_help());
    commands_[static_cast<std::size_t>(row.command)] = command;
  }

  CLI::App* module_;
  std::array<CLI::App*, std::size(kCommands)> commands_{};
};

Parsed refused(const CommandLine& line, int argc, char** argv, const CLI::ParseError& error) {
  // CLI11 misses the command before it looks at the word that stands in its place.
  const std::string strange = line.strange();
  const bool json = std::any_of(
      argv, argv + argc, [](const char* word) { return std::string_view(word) == "--json"; });
  return {{},
          static_cast<int>(host::Outcome::Usage),
          json,
          strange.empty() ? error.what() : tr("there is no command \"{}\"", strange)};
}

}  // namespace

const char* name(Command command) {
  return kCommands[static_cast<int>(command)].name;
}

Parsed parse(int argc, char** argv) {
  CommandLine line;
  try {
    line.app.parse(argc, argv);
    const Row& row = line.chosen();
    Options& options = line.options;
    options.command = row.command;
    options.simulate = line.app.count("--simulate") + line.at(row).count("--simulate") > 0;
    options.script = read_script(line.texts.script);
    read_texts(line.texts, row.takes, options);
    fill_defaults(options);
    return {options, 0, options.json, ""};
  } catch (const CLI::Success& help) {
    return {{}, line.app.exit(help), false, ""};
  } catch (const CLI::ParseError& error) {
    return refused(line, argc, argv, error);
  }
}

std::vector<CommandShape> command_shapes() {
  const CommandLine line;
  std::vector<CommandShape> shapes;
  for (const Row& row : kCommands) {
    CommandShape& shape = shapes.emplace_back(CommandShape{row.name, {}, {}});
    for (const CLI::Option* option : line.at(row).get_options()) {
      for (const std::string& word : option->get_snames())
        shape.options.push_back("-" + word);
      for (const std::string& word : option->get_lnames())
        shape.options.push_back("--" + word);
      if (option->get_type_name() != "FILE") continue;
      shape.files.insert(
          shape.files.end(),
          shape.options.end() - static_cast<std::ptrdiff_t>(option->get_snames().size() +
                                                            option->get_lnames().size()),
          shape.options.end());
    }
  }
  return shapes;
}

}  // namespace wrx::client
