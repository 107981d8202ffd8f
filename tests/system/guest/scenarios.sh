# SPDX-License-Identifier: LGPL-2.1-or-later
# The scenarios, a function each: the installed driver with the kernel's USB and a module there.
. /lib.sh
GUEST=$1
GUESTS=$2
shift 2
WANTED="$*"
cp -a /etc /etc.installed

start_with_module() {
  plug
  file_is $USB/1-1/power/control on
  expect 0 init
  says '"version":"acm32_btl_zelta_pc_000100"' '"found":1'
  file_is $USB/1-1/idVendor 4d2e
  file_is $USB/1-1/power/control auto
  file_is $USB/1-1/power/autosuspend_delay_ms 2000
  logged "usb dev port path: $USB/1-1" "echo 2000 > $USB/1-1/power/autosuspend_delay_ms"
}

autosuspend_off() {
  set_key $EXTRA AutoSuspend 0
  plug
  expect 0 init
  file_is $USB/1-1/power/control on
}

suspended() { [ "$(cat $USB/1-1/power/runtime_status)" = suspended ]; }

wakes_from_suspend() {
  plug_enrolled
  expect 0 discover
  until_true 6 "a suspended module" suspended
  touches thumb
  expect 0 verify --uid 1000
  says '"match":true'
}

whole_life() {
  plug
  enrol_thumb --name right
  says '"percent":100' '"slots":[20]'
  [ "$(slots)" = "20 " ] || fail "slots of the module: $(slots)"
  [ -s $DATABASE ] || fail "no database at $DATABASE"
  touches thumb
  expect 0 verify --uid 1000
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
  [ -z "$(slots)" ] || fail "slots left in the module: $(slots)"
  expect 0 list --uid 1000
  says '"fingers":[]'
  logged ":ops_configure] wrx5300 driver version:V1.0.31" ":fp_auto_enroll] start." \
    ":wrx7700_ops_clean] idx_start = 0"
  head -n 1 $LOG | grep -qE '^[0-9]{2}:[0-9]{2}:[0-9]{2} \[wrx7700:[0-9]+:[a-z_]+\] ' ||
    fail "first line of the log: $(head -n 1 $LOG)"
}

bad_press_is_repeated() {
  plug
  touches "thumb x4; press thumb smudged; press thumb x9"
  expect 0 enroll --uid 1000
  module_has '"presses_left":0'
}

# session CALL…: a service's process that makes the calls, one after the other.
session() {
  printf '%s\n' "$@" | wrx-session $TRACE $DATABASE >$OUT 2>&1 || fail "session: $(tail -n 1 $OUT)"
}

power_up_finger() {
  plug_enrolled
  tell "powerup match 20"
  session start open "identify -1 0 -1" close
  says "identify: returned 1000 "
  # Too old: the module is asked, and shown another finger.
  tell "powerup match 20; set press-gap 1s; press index"
  session start "sleep 15000" open "identify -1 0 -1" close
  says "identify: returned -1 "
  module_has '"presses_left":0'
}

stop_in_enrolment() {
  plug
  touches thumb x5
  begin enroll --uid 1000
  until_true 10 "four presses" grep -q '"done":4' $OUT
  kill -INT $client
  finish 3
  says '"outcome":"stopped"'
  [ -z "$(slots)" ] || fail "slots left in the module: $(slots)"
  enrol_thumb
}

timeout_ends_waiting() {
  plug_enrolled
  expect 4 verify --uid 1000 --timeout 1s
  expect 4 enroll --uid 1000 --timeout 1s
}

unplug_in_enrolment() {
  plug
  touches thumb x5
  begin enroll --uid 1000 --timeout 2s
  until_true 10 "four presses" grep -q '"done":4' $OUT
  tell "unplug"
  finish 6
  until_true 5 "an empty bus" absent
  tell "plug"
  until_true 5 "the module back" enumerated
  enrol_thumb
}

unplug_in_verify() {
  plug_enrolled
  begin verify --uid 1000 --timeout 5s
  until_true 10 "a search of the verification" grep -qF ":fp_auto_identify]" $LOG
  tell "unplug"
  finish 6
  tell "plug"
  until_true 5 "the module back" enumerated
  touches thumb
  expect 0 verify --uid 1000
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
  tell "plug"
  until_true 5 "the module back" enumerated
  expect 0 clean --uid 1000 --all
  [ -z "$(slots)" ] || fail "slots left in the module: $(slots)"
}

plugged_in_later() {
  attach m --script unplug
  mkfifo /run/calls
  wrx-session $TRACE $DATABASE </run/calls >$OUT 2>&1 &
  exec 3>/run/calls
  rm /run/calls
  printf 'start\ndiscover\n' >&3
  until_true 10 "a search without a module" grep -q '^discover: returned 0 ' $OUT
  tell "plug; press thumb x13"
  until_true 5 "the module on the bus" enumerated
  # The event goes through udev to the libusb of the running process.
  udevadm settle
  usleep 300000
  printf 'discover\nopen\nenroll 1000 0 late\nclose\n' >&3
  exec 3>&-
  wait $! || fail "session: $(tail -n 1 $OUT)"
  says "discover: returned 1 " "open: returned 0 " "enroll: returned 0 "
  file_is $USB/1-1/power/control auto
  [ "$(slots)" = "20 " ] || fail "slots of the module: $(slots)"
}

older_product() {
  attach m --id 4d2e:5100
  until_true 5 "the module on the bus" enumerated 1-1 5100
  enrol_thumb
  touches thumb
  expect 0 verify --uid 1000
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

firmware_upgrade() {
  plug
  carry_image
  expect 0 init
  says '"upgraded":true' '"version":"acm32_btl_zelta_pc_000123"'
  module_has '"version":123' '"bytes":245760' '"mode":"application"' '"enumeration":3'
  enumerated || fail "the module is not back on the bus"
  sed 's/^UpgradeFlag=0/UpgradeFlag=1/' $EXTRA >/run/as_before
  carry_image
  cmp -s /run/as_before $EXTRA || fail "the configuration has not kept its text"
  set_key $EXTRA UpgradeFlag 0
  expect 0 init
  says '"upgraded":false'
}

interrupted_upgrade() {
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

one_shot_flags() {
  plug
  cp $CONFIG /run/as_before
  set_key $CONFIG ModeFlag 7700
  set_key $CONFIG RebootFlag 5809
  expect 6 init
  cmp -s /run/as_before $CONFIG || fail "not as it was: $(diff /run/as_before $CONFIG)"
  until_true 5 "the bootloader" enumerated 1-1 abce
  logged ":wrx7700_set_mode]" ":wrx7700_set_reboot]"
  tell "power-cycle"
  until_true 5 "the module back" enumerated
  expect 0 init
}

standard_tool() {
  wrx-module serve --instant --control /run/m --script "set empty-read at-once" >/run/m.out 2>&1 &
  echo $! >/run/m.pid
  until_true 5 "the module's control socket" [ -S /run/m ]
  usbip list --remote 127.0.0.1 >$OUT 2>&1 || fail "no list: $(cat $OUT)"
  says "4d2e:5300"
  usbip attach --remote 127.0.0.1 --busid 1-1 >$OUT 2>&1 || fail "no attach: $(cat $OUT)"
  until_true 5 "the module on the bus" enumerated
  expect 0 init
  says '"version":"acm32_btl_zelta_pc_000100"'
  usbip detach --port 0 >$OUT 2>&1 || fail "no detach: $(cat $OUT)"
  until_true 5 "an empty bus" absent
  usbip list --remote 127.0.0.1 >$OUT 2>&1 || fail "no list after a detach: $(cat $OUT)"
  says "4d2e:5300"
}

wire_is_the_same() {
  local presses="set empty-read at-once; set press-gap 20ms; powerup nomatch; press thumb x13"
  wrx-session-inprocess $TRACE /run/inprocess.db "$presses" /run/inprocess.wire >$OUT 2>&1 <<-END
	start
	open
	enroll 1000 0 finger
	close
	END
  says "enroll: returned 0 "
  wrx-usbmon /dev/usbmon1 >/run/kernel.wire &
  plug
  touches thumb x13
  session start open "enroll 1000 0 finger" close
  says "enroll: returned 0 "
  kill $(jobs -p) 2>/dev/null
  [ "$(wc -l </run/kernel.wire)" -gt 50 ] || fail "the kernel saw $(wc -l </run/kernel.wire) transfers"
  cmp -s /run/inprocess.wire /run/kernel.wire ||
    fail "they differ: $(diff /run/inprocess.wire /run/kernel.wire | head -n 6)"
}

# One long-lived process; ENDURED is how often the module is plugged in and out on it.
endurance() {
  local module_held
  plug_enrolled
  tell "unplug"
  until_true 5 "an empty bus" absent
  module_held=$(ls /proc/$(cat /run/m.pid)/fd | wc -l)
  wrx-endure /run/m $DATABASE "${ENDURED:-100}" >$OUT 2>&1 || fail "wrx-endure: $(cat $OUT)"
  sed 's/^/     /' $OUT
  [ "$(ls /proc/$(cat /run/m.pid)/fd | wc -l)" = "$module_held" ] ||
    fail "the module holds $(ls -l /proc/$(cat /run/m.pid)/fd)"
}

# The guests take turns; the order shares the long ones out evenly.
scenario "start with the module present" start_with_module
scenario "autosuspend switched off" autosuspend_off
scenario "module wakes from suspend" wakes_from_suspend
scenario "enrol, verify, identify, search, list, clean" whole_life
scenario "a bad press is repeated" bad_press_is_repeated
scenario "power-up finger" power_up_finger
scenario "stop in an enrolment" stop_in_enrolment
scenario "timeout" timeout_ends_waiting
scenario "unplug in an enrolment" unplug_in_enrolment
scenario "unplug in a verify wait" unplug_in_verify
scenario "unplug in a clean" unplug_in_clean
scenario "driver first, module later" plugged_in_later
scenario "module of the older product id" older_product
scenario "two modules" two_modules
scenario "firmware upgrade, 240 KiB" firmware_upgrade
scenario "firmware upgrade interrupted and recovered" interrupted_upgrade
scenario "one-shot mode and reboot flags" one_shot_flags
scenario "served to the standard usbip tool" standard_tool
scenario "plugged in and out again and again" endurance
scenario "usbmon sees the wire of the in-process module" wire_is_the_same

if dmesg | grep -E 'BUG|WARNING|Oops|Call trace'; then
  failed=$((failed + 1))
  echo "FAIL the kernel complained"
fi
echo "$passed passed, $failed failed"
