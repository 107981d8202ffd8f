// SPDX-License-Identifier: LGPL-2.1-or-later
// Writes wrxctl's completion for bash from the tree that its command line is read with.

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/client/options.h"

namespace {

constexpr char kHead[] = R"(# Completion of wrxctl for bash.
# Made from the program's option tree by wrx-generate-completion; do not edit.

_wrxctl() {
  local -A takes=(
)";

// Options are offered for the command that stands before the cursor; the words of values that
// look like commands are passed over, since they follow an option.
constexpr char kTail[] =
    R"(  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command= word before= next
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    next="${command:+$command }$word"
    [[ $before == -* && $before != --json && $before != --simulate ]] ||
      case " $groups " in
        *" $next "*) command=$next ;;
        *) [[ ! -v takes[$next] ]] || command=$next ;;
      esac
    before=$word
  done
  if [[ " $files " == *" $previous "* ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  elif [[ $previous == --uid ]]; then
    mapfile -t COMPREPLY < <(compgen -u -W all -- "$current")
  elif [[ -v takes[$command] && -n $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${takes[$command]}" -- "$current")
  elif [[ -n $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${below[$command]}" -- "$current")
  else
    mapfile -t COMPREPLY < <(compgen -W "${below[top]}" -- "$current")
  fi
}
complete -F _wrxctl wrxctl
)";

std::string joined(std::vector<std::string> words) {
  std::ranges::sort(words);
  words.erase(std::unique(words.begin(), words.end()), words.end());
  return fmt::format("{}", fmt::join(words, " "));
}

}  // namespace

int main() {
  std::vector<std::string> top, below, groups, files;
  fmt::print("{}", kHead);
  for (const auto& command : wrx::client::command_shapes()) {
    fmt::print("    [\"{}\"]=\"{}\"\n", command.name, joined(command.options));
    files.insert(files.end(), command.files.begin(), command.files.end());
    const std::size_t space = command.name.find(' ');
    top.push_back(command.name.substr(0, space));
    if (space == std::string::npos) continue;
    groups.push_back(command.name.substr(0, space));
    below.push_back(command.name.substr(space + 1));
  }
  fmt::print("  )\n  local -A below=([top]=\"{}\" [{}]=\"{}\")\n", joined(top), joined(groups),
             joined(below));
  fmt::print("  local groups=\"{}\"\n  local files=\"{}\"\n", joined(groups), joined(files));
  fmt::print("{}", kTail);
  return 0;
}
