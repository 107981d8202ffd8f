# Completion of wrxctl for bash.
# Made from the program's option tree by wrx-generate-completion; do not edit.

_wrxctl() {
  local -A takes=(
    ["info"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["discover"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["init"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["enroll"]="--config --db --help --index --json --name --plugin --simulate --templates --timeout --trace --uid -h"
    ["verify"]="--config --db --help --index --json --plugin --simulate --templates --timeout --trace --uid -h"
    ["identify"]="--config --db --help --index --json --plugin --range --simulate --templates --timeout --trace --uid -h"
    ["search"]="--config --db --help --index --json --plugin --range --simulate --templates --timeout --trace --uid -h"
    ["list"]="--config --db --help --index --json --plugin --range --simulate --templates --trace --uid -h"
    ["clean"]="--all --config --db --help --index --json --plugin --range --simulate --templates --trace --uid -h"
    ["firmware"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["doctor"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["fsck"]="--config --db --help --json --plugin --repair --simulate --templates --trace -h"
    ["module handshake"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["module serial"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["module parameters"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["module info-page"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["module count"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["module slots"]="--config --db --help --json --plugin --simulate --templates --trace -h"
    ["module image"]="--config --db --help --json --now --output --plugin --simulate --templates --timeout --trace -h -o"
  )
  local -A below=([top]="clean discover doctor enroll firmware fsck identify info init list module search verify" [module]="count handshake image info-page parameters serial slots")
  local groups="module"
  local files="--config --db --output --plugin --templates --trace -o"
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
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
