# SPDX-License-Identifier: LGPL-2.1-or-later
# The scenarios, a function each: the installed driver with the kernel's USB and a module there.
. /lib.sh
GUEST=$1
GUESTS=$2
shift 2
WANTED="$*"
cp -a /etc /etc.installed

start_with_module_and_autosuspend_off_and_on() {
  plug
  set_key $EXTRA AutoSuspend 0
  expect 0 init
  file_is $USB/1-1/power/control on
  set_key $EXTRA AutoSuspend 1
  expect 0 init
  says '"version":"acm32_btl_zelta_pc_000100"' '"found":1'
  file_is $USB/1-1/idVendor 4d2e
  file_is $USB/1-1/power/control auto
  file_is $USB/1-1/power/autosuspend_delay_ms 2000
  logged "usb dev port path: $USB/1-1" "echo 2000 > $USB/1-1/power/autosuspend_delay_ms"
}

suspended() { [ "$(cat $USB/1-1/power/runtime_status)" = suspended ]; }

wakes_from_suspend() {
  plug_enrolled
  expect 0 discover
  until_true 6 "a suspended module" suspended
  recognised
  says '"match":true'
}

enrol_verify_identify_search_list_clean() {
  plug
  touches "thumb x4; press thumb smudged; press thumb x9"
  expect 0 enroll --uid 1000 --name right
  says '"percent":100' '"slots":[20]'
  module_has '"presses_left":0'
  slots_are "20 "
  [ -s $DATABASE ] || fail "no database at $DATABASE"
  recognised
  touches index
  expect 1 verify --uid 1000
  # An identification would take a result that waits, so this press comes late instead.
  tell "set press-gap 1s; press thumb"
  expect 0 identify
  tell "set press-gap 20ms"
  says '"uid":1000'
  touches thumb
  expect 0 search
  says '"name":"right"'
  expect 0 list --uid 1000
  says '"index":0' '"name":"right"'
  expect 0 clean --uid 1000 --all
  slots_are ""
  expect 0 list --uid 1000
  says '"fingers":[]'
  logged ":ops_configure] wrx5300 driver version:V1.0.31" ":fp_auto_enroll] start." \
    ":wrx7700_ops_clean] idx_start = 0"
  head -n 1 $LOG | grep -qE '^[0-9]{2}:[0-9]{2}:[0-9]{2} \[wrx7700:[0-9]+:[a-z_]+\] ' ||
    fail "first line of the log: $(head -n 1 $LOG)"
}

power_up_finger() {
  plug_enrolled
  tell "powerup match 20"
  session "returned 1000" identify -1 0 -1
  # Too old: the module is asked, and shown another finger.
  tell "powerup match 20; set press-gap 1s; press index"
  begin_session
  call start
  call sleep 15000
  call open
  answers "returned -1" identify -1 0 -1 || fail "$answer"
  end_session
  module_has '"presses_left":0'
}

# Four presses of an enrolment that does not end.
four_presses() {
  plug
  touches thumb x5
  begin enroll --uid 1000 "$@"
  until_true 10 "four presses" grep -q '"done":4' $OUT
}

stop_and_timeout_in_enrolment() {
  four_presses
  kill -INT $client
  finish 3
  says '"outcome":"stopped"'
  slots_are ""
  enrol_thumb
  expect 4 verify --uid 1000 --timeout 1s
  expect 4 enroll --uid 1000 --timeout 1s
}

unplug_in_enrolment() {
  four_presses --timeout 2s
  pull
  finish 6
  put_back
  enrol_thumb
}

unplug_in_verify() {
  plug_enrolled
  begin verify --uid 1000 --timeout 5s
  until_true 10 "a search of the verification" grep -qF ":fp_auto_identify]" $LOG
  tell "unplug"
  finish 6
  put_back
  recognised
}

# Transfers that the module has seen.
transfers() { state | sed 's/.*"transfers":\([0-9]*\).*/\1/'; }

unplug_in_clean() {
  local before whole
  plug_enrolled
  before=$(transfers)
  expect 0 clean --uid 1000 --all
  whole=$(($(transfers) - before))
  take_away
  plug_enrolled
  # The last exchanges of a clean are the deletion.
  tell "unplug after $((whole - 5)) transfers"
  expect 6 clean --uid 1000 --all
  says '"removed":[]'
  until_true 5 "an empty bus" absent
  put_back
  expect 0 clean --uid 1000 --all
  slots_are ""
}

driver_first_module_later() {
  attach m --script unplug
  begin_session
  call start
  answers "returned 0" discover || fail "$answer"
  put_back "plug; press thumb x13"
  # The event goes through udev to the libusb of the running process.
  until_true 5 "the module seen" answers "returned 1" discover
  answers "returned 0" open || fail "$answer"
  answers "returned 0" enroll 1000 0 late || fail "$answer"
  end_session
  file_is $USB/1-1/power/control auto
  slots_are "20 "
}

module_of_the_older_product_id() {
  attach m --id 4d2e:5100
  until_true 5 "the module on the bus" enumerated 1-1 5100
  enrol_thumb
  recognised
  # Power management is for the newer product alone.
  file_is $USB/1-1/power/control on
  not_logged "usb dev port path"
}

two_modules() {
  plug first
  attach second
  until_true 5 "the second module" enumerated 1-2
  wrx-module tell /run/first "powerup nomatch; press thumb x13"
  wrx-module tell /run/second "powerup nomatch; press thumb x13"
  expect 0 enroll --uid 1000
  case "$(slots first)/$(slots second)" in
    "20 /" | "/20 ") ;;
    *) fail "slots: $(slots first)/$(slots second)" ;;
  esac
  # One of the two is the module; the path is that of the last one found.
  logged "usb dev port path: $USB/1-1" "usb dev port path: $USB/1-2"
}

# An image of 240 KiB that says what version it is, and the driver's leave to write it once.
carry_image() {
  head -c 245735 /dev/urandom >$FIRMWARE/ACM32FP_V123.bin
  printf 'acm32_btl_zelta_pc_000123' >>$FIRMWARE/ACM32FP_V123.bin
  echo ACM32FP_V123 >$FIRMWARE/trv_fw.conf
  set_key $EXTRA UpgradeFlag 1
}

firmware_upgrade_240_KiB() {
  plug
  carry_image
  cp $EXTRA /run/as_before
  expect 0 init
  says '"upgraded":true' '"version":"acm32_btl_zelta_pc_000123"'
  module_has '"version":123' '"bytes":245760' '"mode":"application"' '"enumeration":3'
  enumerated || fail "the module is not back on the bus"
  set_key /run/as_before UpgradeFlag 0
  cmp -s /run/as_before $EXTRA || fail "the configuration has not kept its text"
  expect 0 init
  says '"upgraded":false'
}

firmware_upgrade_interrupted_and_recovered() {
  plug
  carry_image
  # Two transfers a block of 240 bytes.
  tell "unplug after 1000 transfers"
  expect 6 init
  state | grep -qE '"bytes":1[0-9]{5}[,}]' || fail "not half the image: $(state)"
  grep -q '^UpgradeFlag=1' $EXTRA || fail "a failed upgrade was counted"
  tell "plug"
  until_true 5 "the bootloader" enumerated 1-1 abce
  expect 0 init
  module_has '"version":123' '"bytes":245760' '"mode":"application"'
  expect 0 init
  says '"version":"acm32_btl_zelta_pc_000123"'
  grep -q '^UpgradeFlag=0' $EXTRA || fail "the upgrade was not counted"
}

one_shot_mode_and_reboot_flags() {
  plug
  cp $CONFIG /run/as_before
  set_key $CONFIG ModeFlag 7700
  set_key $CONFIG RebootFlag 5809
  expect 6 init
  cmp -s /run/as_before $CONFIG || fail "not as it was: $(diff /run/as_before $CONFIG)"
  until_true 5 "the bootloader" enumerated 1-1 abce
  logged ":wrx7700_set_mode]" ":wrx7700_set_reboot]"
  put_back "power-cycle"
  expect 0 init
}

served_to_the_standard_usbip_tool() {
  local turn
  wrx-module serve --instant --control /run/m --script "set empty-read at-once" >/run/m.out 2>&1 &
  echo $! >/run/m.pid
  until_true 5 "the module's control socket" [ -S /run/m ]
  for turn in 1 2; do
    usbip list --remote 127.0.0.1 >$OUT 2>&1 || fail "no list: $(cat $OUT)"
    says "4d2e:5300"
    usbip attach --remote 127.0.0.1 --busid 1-1 >$OUT 2>&1 || fail "no attach: $(cat $OUT)"
    until_true 5 "the module on the bus" enumerated
    expect 0 init
    says '"version":"acm32_btl_zelta_pc_000100"'
    usbip detach --port 0 >$OUT 2>&1 || fail "no detach: $(cat $OUT)"
    until_true 5 "an empty bus" absent
  done
}

# The bulk transfers that moved anything, out of the kernel's text about its bus, as the in-process
# session writes them.
bulk_transfers() {
  awk '$3 $4 ~ /^(SBo|CBi)/ && $7 == "=" {
    split($4, at, ":")
    printf "%s %d %d ", $3 == "S" ? "out" : "in", at[4], $6
    for (i = 8; i <= NF; ++i) printf "%s", $i
    print ""
  }' "$1"
}

usbmon_sees_the_wire_of_the_in_process_module() {
  local presses="set empty-read at-once; set press-gap 20ms; powerup nomatch; press thumb x13"
  printf '%s\n' start open "enroll 1000 0 finger" close |
    wrx-session-inprocess $TRACE /run/inprocess.db "$presses" /run/inprocess.wire >$OUT 2>&1
  says "enroll: returned 0 "
  cat /sys/kernel/debug/usb/usbmon/1u >/run/usbmon &
  plug
  touches thumb x13
  session "returned 0" enroll 1000 0 finger
  kill $(jobs -p) 2>/dev/null
  bulk_transfers /run/usbmon >/run/kernel.wire
  [ "$(wc -l </run/kernel.wire)" -gt 50 ] || fail "the kernel saw $(wc -l </run/kernel.wire) transfers"
  cmp -s /run/inprocess.wire /run/kernel.wire ||
    fail "they differ: $(diff /run/inprocess.wire /run/kernel.wire | head -n 6)"
}

# Descriptors and threads of a process, and its KiB in memory.
held() { echo $(ls /proc/$1/fd | wc -l) $(sed -n 's/^Threads:[^0-9]*//p' /proc/$1/status); }
resident() { sed -n 's/^VmRSS:[^0-9]*\([0-9]*\).*/\1/p' /proc/$1/status; }

# On a busy machine the module may answer later than the driver waits; then it is asked again.
used() {
  tell "press thumb"
  answers "result 300" verify 1000 0
}

# One long-lived process; ENDURED is how often the module is plugged in and out on it: noticed,
# opened, used, pulled out while it is open, and missed. After a warm-up nothing may grow.
endurance() {
  local cycle=0 cycles=${ENDURED:-100} before kib module
  plug_enrolled
  tell "set empty-read at-once; unplug"
  module=$(cat /run/m.pid)
  begin_session
  call start
  while [ $((cycle += 1)) -le $cycles ]; do
    tell "plug; press thumb"
    until_true 5 "a module in cycle $cycle" answers "returned 1" discover
    call open
    answers "result 300" verify 1000 0 || until_true 1 "the finger recognised in cycle $cycle" used
    tell "unplug"
    ! answers "result 300" verify 1000 0 || fail "cycle $cycle: recognised without a module"
    call close
    until_true 5 "no module in cycle $cycle" answers "returned 0" discover
    if [ $cycle = 30 ]; then
      before="$(held $session) $(held $module)"
      kib=$(resident $session)
    fi
  done
  [ "$(held $session) $(held $module)" = "$before" ] ||
    fail "descriptors and threads: $before, then $(held $session) $(held $module)"
  echo "     $cycles cycles: $before descriptors and threads, $kib, then $(resident $session) KiB"
  [ "$(resident $session)" -le $((kib + 256)) ] || fail "the process grows"
  end_session
}

# The guests take turns; the order shares the long ones out evenly.
for each in start_with_module_and_autosuspend_off_and_on wakes_from_suspend \
  enrol_verify_identify_search_list_clean power_up_finger stop_and_timeout_in_enrolment \
  unplug_in_enrolment unplug_in_verify unplug_in_clean driver_first_module_later \
  module_of_the_older_product_id two_modules firmware_upgrade_240_KiB \
  firmware_upgrade_interrupted_and_recovered one_shot_mode_and_reboot_flags \
  served_to_the_standard_usbip_tool endurance usbmon_sees_the_wire_of_the_in_process_module; do
  scenario $each
done

if dmesg | grep -E 'BUG|WARNING|Oops|Call trace'; then
  failed=$((failed + 1))
  echo "FAIL the kernel complained"
fi
echo "$passed passed, $failed failed"
