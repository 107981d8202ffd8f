// SPDX-License-Identifier: LGPL-2.1-or-later
// wrxctl: the command-line client. Reads the command line, sets up the streams and the signals,
// runs one command and turns its report into words and an exit code.

#include <fcntl.h>
#include <libintl.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <filesystem>

#include "commands.h"
#include "interrupts.h"
#include "streams.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Failure;
using host::Outcome;

/// Opens what the caller has closed of the three standard streams: a file opened later must not get
/// such a stream's number, and with it what is written there.
void open_standard_streams() {
  int file = 0;
  while (file >= 0 && file <= STDERR_FILENO)
    file = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (file >= 0) close(file);
}

int code(Outcome outcome) {
  return static_cast<int>(outcome);
}

/// The reasons that the rest of the tree gives are in the catalogue too, when they are one text.
std::string translated(const Failure& failure) {
  return *failure.what() != '\0' ? gettext(failure.what()) : "";
}

/// The message catalogues: beside this program in a build tree, else as installed.
std::string locale_folder() {
  namespace fs = std::filesystem;
  std::error_code ignored;
  const fs::path prefix = fs::read_symlink("/proc/self/exe", ignored).parent_path().parent_path();
  const fs::path beside = prefix / "share" / "locale";
  return fs::is_directory(beside, ignored) ? beside.string() : WRX_LOCALE_DIR;
}

int refuse_command_line(const Parsed& parsed) {
  if (parsed.error.empty()) return parsed.exit_code;
  Output output(stdout, parsed.json, false);
  output.end("", {Outcome::Usage, parsed.error + (parsed.json ? "" : tr(" (see --help)")), "", {}});
  return parsed.exit_code;
}

Report run_guarded(const Options& options, Output& output) {
  try {
    Client client(options, output);
    const Interrupts interrupts(
        [&] {
          output.note(tr("Stopping; press Ctrl-C again to leave at once."));
          client.requestStop();
        },
        [&] {
          output.endAtOnce(name(options.command), {Outcome::Stopped, tr("left at once"), "", {}});
          _exit(code(Outcome::Stopped));
        });
    Report report = run_command(client);
    client.finish();
    return report;
  } catch (const Failure& failure) {
    return {failure.outcome(), translated(failure), "", {}};
  } catch (const std::exception& error) {
    return {Outcome::Failed, error.what(), "", {}};
  }
}

int run(const Options& options) {
  try {
    Streams streams(options.trace, options.trace_chosen);
    Output output(streams.own(), options.json, streams.terminal());
    const Report report = run_guarded(options, output);
    output.end(name(options.command), report);
    if (!output.lost() || report.outcome != Outcome::Success) return code(report.outcome);
    std::fprintf(stderr, "wrxctl: %s\n", tr("the answer cannot be written").c_str());
    return code(Outcome::Failed);
  } catch (const Failure& failure) {
    Output(stdout, options.json, false)
        .end(name(options.command), {failure.outcome(), failure.what(), "", {}});
    return code(failure.outcome());
  }
}

}  // namespace
}  // namespace wrx::client

int main(int argc, char** argv) {
  using namespace wrx::client;
  open_standard_streams();
  std::setlocale(LC_ALL, "");
  bindtextdomain("wrx5300", locale_folder().c_str());
  textdomain("wrx5300");
  block_interrupts();
  const Parsed parsed = parse(argc, argv);
  return parsed.options ? run(*parsed.options) : refuse_command_line(parsed);
}
