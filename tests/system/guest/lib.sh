# SPDX-License-Identifier: LGPL-2.1-or-later
# Words that the scenarios are written in. A word that does not hold ends the scenario.

CONFIG=/etc/biometric-auth/biometric-drivers.conf
EXTRA=/etc/biometric-auth/extra.conf.d/vestrel-m6600.conf
FIRMWARE=/etc/wrx6600/extra
LOG=$FIRMWARE/log_wrx.txt
DATABASE=/root/.local/share/wrx5300/features.db
TRACE=/root/.local/state/wrx5300/last-trace.log
USB=/sys/bus/usb/devices
OUT=/run/out    # what the last program wrote
turn=0          # of the guests, for the next scenario
passed=0
failed=0

fail() {
  echo "     $*"
  exit 1
}

# until_true SECONDS WHAT COMMAND…: waits until the command succeeds.
until_true() {
  local tries=$(($1 * 20)) what=$2
  shift 2
  while ! "$@" >/dev/null 2>&1; do
    tries=$((tries - 1))
    [ $tries -gt 0 ] || fail "waited in vain for: $what"
    usleep 50000
  done
}

# --- the module ---

enumerated() { [ "$(cat $USB/${1:-1-1}/idProduct 2>/dev/null)" = "${2:-5300}" ]; }
absent() { [ ! -e $USB/${1:-1-1} ]; }

# attach [NAME] [OPTION…]: a module that keeps its memory in /run/NAME.mem, steered by /run/NAME.
attach() {
  local name=${1:-m}
  [ $# -eq 0 ] || shift
  wrx-module attach --instant --control /run/$name --memory /run/$name.mem "$@" \
    >/run/$name.out 2>&1 &
  echo $! >/run/$name.pid
  until_true 5 "the module's control socket" [ -S /run/$name ]
  wrx-module tell /run/$name "set empty-read at-once; set press-gap 20ms"
}

plug() {
  attach "$@"
  until_true 5 "the module on the bus" enumerated
}

# The module taken off the bus, and put back.
pull() {
  tell "unplug"
  until_true 5 "an empty bus" absent
}
put_back() {
  tell "${1:-plug}"
  until_true 5 "the module back" enumerated
}
tell() { wrx-module tell /run/m "$@" || fail "the module refuses: $*"; }
state() { wrx-module report /run/${1:-m}; }
state_has() { state | grep -qF -- "$1"; }
module_has() {
  local text
  for text in "$@"; do
    state_has "$text" || fail "the module's report has no $text: $(state)"
  done
}
# The templates of the module, as "20 21 ".
slots() { state "$@" | grep -o '"slot":[0-9]*' | sed 's/.*://' | tr '\n' ' '; }
slots_are() { [ "$(slots)" = "$1" ] || fail "slots of the module: $(slots)"; }

take_away() {
  local pid file
  for file in /run/*.pid; do
    [ -e "$file" ] || continue
    pid=$(cat "$file")
    kill "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    rm -f "$file"
  done
  until_true 5 "an empty bus" absent
}

# --- the client ---

# expect CODE ARGUMENT…: runs wrxctl, which must end with the exit code.
expect() {
  local code=$1 got=0
  shift
  wrxctl --json "$@" >$OUT 2>&1 || got=$?
  [ $got = "$code" ] || fail "wrxctl $*: exit code $got, not $code: $(tail -n 1 $OUT)"
}
# The same in the background; finish CODE waits for it.
begin() {
  wrxctl --json "$@" >$OUT 2>&1 &
  client=$!
}
finish() {
  local got=0
  wait $client || got=$?
  [ $got = "$1" ] || fail "exit code $got, not $1: $(tail -n 1 $OUT)"
}
says() {
  local text
  for text in "$@"; do
    grep -qF -- "$text" $OUT || fail "no $text in: $(tail -n 3 $OUT)"
  done
}
# The driver's start searches for the finger that switched the machine on; with a result waiting
# it does not take the first of these presses for one.
touches() { tell "powerup nomatch; press $*"; }
enrol_thumb() {
  touches thumb x13
  expect 0 enroll --uid 1000 "$@"
}
recognised() {
  touches "${1:-thumb}"
  expect 0 verify --uid 1000
}
# A module and a database as enrol_thumb leaves them, which the first one to ask makes.
plug_enrolled() {
  mkdir -p "$(dirname $DATABASE)"
  if [ -e /saved.mem ]; then
    cp /saved.mem /run/m.mem
    cp /saved.db $DATABASE
    plug "$@"
  else
    plug "$@"
    enrol_thumb
    take_away
    cp /run/m.mem /saved.mem
    cp $DATABASE /saved.db
    plug "$@"
  fi
}

# --- a service's process, which makes one call after another ---

begin_session() {
  mkfifo /run/calls /run/answers
  wrx-session $TRACE $DATABASE </run/calls >/run/answers 2>$OUT &
  session=$!
  exec 3>/run/calls 4</run/answers
  rm /run/calls /run/answers
}
# call VERB…: the process makes the call; what it answers is then in $answer.
call() {
  echo "$*" >&3
  read -r answer <&4 || fail "session: $(tail -n 1 $OUT)"
}
# answers WORDS VERB…: the call, and whether its answer has the words.
answers() {
  local words=$1
  shift
  call "$@"
  case "$answer " in *" $words "*) ;; *) return 1 ;; esac
}
end_session() {
  exec 3>&-
  wait $session || fail "session: $(tail -n 1 $OUT)"
  exec 4<&-
}
# session WORDS VERB…: as above, for a process of its own that is started and opens the device.
session() {
  begin_session
  call start
  call open
  answers "$@" || fail "$answer"
  call close
  end_session
}

# --- files ---

file_is() { [ "$(cat "$1")" = "$2" ] || fail "$1 is $(cat "$1"), not $2"; }
logged() {
  local text
  for text in "$@"; do grep -qF -- "$text" $LOG || fail "no line in the log: $text"; done
}
not_logged() {
  grep -qF -- "$1" $LOG || return 0
  fail "a line in the log: $1"
}
set_key() { sed -i "s/^$2=.*/$2=$3/" "$1"; }

# --- scenarios ---

# Everything as on a fresh installation, with the log file on.
fresh() {
  take_away
  rm -rf /run/*.mem /run/m /root/.local $FIRMWARE/*
  cp -a /etc.installed/. /etc/
  set_key $EXTRA PrintfLogFlag 1
}

# scenario FUNCTION: runs it when it is wanted and this guest's turn; its name is what it shows.
scenario() {
  local name begun
  name=$(echo "$1" | tr _ ' ')
  echo "$name" | grep -qF "$WANTED" || return 0
  turn=$((turn % GUESTS + 1))
  [ $turn = "$GUEST" ] || return 0
  begun=$(cut -d. -f1 /proc/uptime)
  (
    fresh
    "$1"
  )
  if [ $? = 0 ]; then
    passed=$((passed + 1))
    echo "PASS $name ($(($(cut -d. -f1 /proc/uptime) - begun)) s)"
  else
    failed=$((failed + 1))
    echo "FAIL $name"
    tail -n 25 $TRACE 2>/dev/null | sed 's/^/     | /'
  fi
}
