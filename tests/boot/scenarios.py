# SPDX-License-Identifier: LGPL-2.1-or-later
"""What is tried on the booted machine, in the order of a machine's life."""

import re
import time

from machine import Failed, until

UNIT = "fprintd.service"
DATABASE = "/var/lib/wrxd/features.db"
NODE = "$(readlink -f /dev/bus/usb/$(printf %03d/%03d $(cat {0}/busnum) $(cat {0}/devnum)))"
USB = "/sys/bus/usb/devices"
TOUCH = r"[Pp]lace your \w*.*?finger|[Pp]lace your .*?on "
SLOW = 60  # seconds: what is done at once may take as long when the machine has other work


def expect(true, text):
    if not true:
        raise Failed(text)


# ---- words ---------------------------------------------------------------------------------------


def tell(m, *statements):
    m.run("wrx-module tell /run/module '" + "; ".join(statements) + "'")


def module_in(m):
    """The module's folder in sysfs."""
    return until(20, "the module on the bus", lambda: m.run(
        f"grep -lx 5300 {USB}/*/idProduct || true")).removesuffix("/idProduct")


def module_out(m):
    until(20, "an empty bus", lambda: not m.run(f"grep -lx 5300 {USB}/*/idProduct || true"))


def fingers(m, user="ann"):
    """The user's fingers, as Debian's client lists them."""
    return re.findall(r"#\d+: (\S+)", m.run(f"fprintd-list {user}", code=None))


def main_pid(m):
    return int(m.run(f"systemctl show -P MainPID {UNIT}"))


def hold(m, *words):
    """A client that holds the claim, until let_go()."""
    m.run("systemctl stop holder 2>/dev/null; systemctl reset-failed holder 2>/dev/null; rm -f /run/held; "
          "systemd-run -q --unit=holder -p StandardOutput=file:/run/held "
          "python3 /run/trial/hold.py " + " ".join(words))
    until(SLOW, lambda: "a claim: " + m.run("journalctl -b -u holder -o cat | tail -n 5"),
          lambda: m.holds("grep -q held /run/held"))


def let_go(m):
    m.run("systemctl stop holder")


def type_in(m, command):
    """Begins a command of ann's on the serial console; expect_end() is its end."""
    m.console.text = ""
    m.console.send(command + "; echo ended-$?-$((40 + 2))\n")


def expect_end(m, code=0, seconds=SLOW):
    got = m.console.expect(r"ended-(\d+)-42\n", seconds)[1]
    expect(int(got) == code, f"exit code {got}, not {code}")


def sudo(m, command="true"):
    type_in(m, "sudo -k; sudo " + command)


def asked_for_finger(m):
    m.console.expect(TOUCH, SLOW)


def password(m, word, seconds=SLOW):
    """Asked for a password, ann types it."""
    begun = time.monotonic()
    m.console.expect(r"[Pp]assword.*?: ", seconds)
    m.console.send(word + "\n")
    return time.monotonic() - begun


def sudo_by_finger(m, finger="thumb"):
    sudo(m)
    asked_for_finger(m)
    tell(m, f"press {finger}")
    expect_end(m)


def session_begins(m):
    """Let in at the console; nothing that is typed is shown from here on."""
    m.console.expect(r"ann@machine:~\$ ", SLOW)
    type_in(m, "PS1=; bind 'set enable-bracketed-paste off'; stty -echo")
    expect_end(m)


def log_in(m):
    m.console.send("ann\n")
    asked_for_finger(m)
    tell(m, "press thumb")
    session_begins(m)


def start_over(m):
    """After a failure: module, service and console as the next scenario expects them."""
    m.run("systemctl stop holder; pkill vlock; systemctl daemon-reload; "
          f"systemctl stop {UNIT}; systemctl restart module serial-getty@" + m.console_name, code=None)
    module_in(m)
    m.console.expect("machine login: ", SLOW)
    log_in(m)


def consistent(m):
    """Slots of the module and records agree."""
    m.run(f"systemctl stop {UNIT}; wrxctl fsck --db {DATABASE}")


# ---- scenarios -----------------------------------------------------------------------------------


def first_install(m):
    m.run("dpkg -i /run/trial/packages/wrx-module_*.deb && systemctl start module")
    device = module_in(m)
    before = m.run(f"stat -c '%U:%G %a' {NODE.format(device)}; cat {device}/power/persist")
    expect(before.split() == ["root:root", "664", "1"], f"the module without a package: {before}")
    m.run("dpkg -i $(ls /run/trial/packages/*.deb | grep -v wrx-module_)", seconds=180)
    expect(not m.run("dpkg --audit"), "a package is not configured")
    settled(m, device)
    expect("running" in m.run("systemctl is-system-running"), "a unit has failed")


def settled(m, device):
    """The module has the owner, the mode and the power settings of the rules."""
    wanted = ["root:wrx5300", "660", "auto", "0"]
    look = f"stat -c '%U:%G %a' {NODE.format(device)}; cat {device}/power/control {device}/power/persist"
    until(20, lambda: f"{wanted} of the module, which has {m.run(look)}", lambda: m.run(look).split() == wanted)


def udev_at_every_plug(m):
    for _ in range(2):
        tell(m, "unplug")
        module_out(m)
        tell(m, "plug")
        device = module_in(m)
        settled(m, device)
    name = m.run(f"udevadm info -q property -p {device} | grep ^ID_MODEL_FROM_DATABASE=")
    expect(name.endswith("=TRV WRX5300"), name)
    expect(not m.holds(f"su ann -c 'cat {NODE.format(device)}'"), "ann may read the module's node")


def activation_and_exposure(m):
    m.run(f"systemctl stop {UNIT}")
    expect(main_pid(m) == 0, "the service has not stopped")
    expect(fingers(m) == [], "fingers before any enrolment")
    expect(m.run(f"readlink /proc/{main_pid(m)}/exe").endswith("/wrxd"), "another service has answered")
    m.run(f"systemd-analyze security --no-pager --threshold=15 {UNIT}")


def seat_login_and_enrolment(m):
    m.screen.expect("machine login: *$")
    m.screen.send("ann\n")
    m.screen.expect("Password: *$")
    m.screen.send("ann\n")
    m.screen.expect(r"\$ *$")
    m.screen.send("PS1=; clear; fprintd-enroll -f right-thumb; echo ended-$?-$((40 + 2))\n")
    m.screen.expect("ended-1-42", SLOW)
    expect(fingers(m) == [], "enrolled without consent")
    m.screen.send("sh -c 'pkttyagent --process $$ & sleep 2; exec fprintd-enroll -f right-thumb'; echo ended-$?-$((40 + 2))\n")
    m.screen.expect("Password: *$", SLOW)
    m.screen.send("ann\n")
    tell(m, "press thumb x13")
    m.screen.expect("enroll-completed.*ended-0-42", SLOW)
    expect(fingers(m) == ["right-thumb"], f"ann's fingers are {fingers(m)}")
    m.screen.send("fprintd-verify; echo ended-$?-$((40 + 2))\n")
    until(SLOW, "a wait", lambda: m.holds("grep -q 'Verify started' /dev/vcs1"))
    tell(m, "press thumb")
    m.screen.expect(r"verify-match \(done\).*ended-0-42", SLOW)
    consistent(m)


def console_login(m):
    m.run("pam-auth-update --enable fprintd; "
          "sed -i '/pam_fprintd/s/max-tries=1 timeout=10/max-tries=3 timeout=60/' /etc/pam.d/common-auth; "
          "grep -q max-tries=3 /etc/pam.d/common-auth")
    log_in(m)
    type_in(m, "fprintd-list ann")  # a session without a seat
    m.console.expect("not [Aa]uthorized|[Pp]ermission|PermissionDenied|denied", SLOW)


def sudo_finger_and_password(m):
    sudo_by_finger(m)
    sudo(m)
    for _ in range(3):
        asked_for_finger(m)
        tell(m, "press stranger")
        m.console.expect("Failed to match", SLOW)
    password(m, "ann")
    expect_end(m)


def sudo_unplugged(m):
    sudo(m)
    asked_for_finger(m)
    tell(m, "unplug")
    took = password(m, "ann")
    expect(took < 20, f"the password was asked for after {took:.0f} s")
    expect_end(m)
    sudo(m)  # no module at all
    password(m, "ann")
    expect_end(m)
    tell(m, "plug")
    module_in(m)
    until(20, "the service to have it", lambda: fingers(m) == ["right-thumb"])
    sudo_by_finger(m)


def sudo_while_claimed(m):
    hold(m, "ben")
    sudo(m)
    password(m, "ann")
    expect_end(m)
    let_go(m)
    sudo_by_finger(m)


def su_and_login(m):
    type_in(m, "su ann -c true")
    asked_for_finger(m)
    tell(m, "press thumb")
    expect_end(m)
    type_in(m, "su ben -c true")  # has none
    password(m, "ben")
    expect_end(m)
    m.console.send("exec sudo -k login ann\n")
    for _ in range(2):  # sudo's question, and login's
        asked_for_finger(m)
        tell(m, "press thumb")
    session_begins(m)


def session_lock(m):
    session = m.run("loginctl list-sessions --no-legend | awk '/seat0/ {print $1}'")
    m.screen.send("clear; grep -qm1 Session.Lock <(gdbus monitor --system --dest org.freedesktop.login1); "
                  "vlock; echo ended-$?-$((40 + 2))\n")
    until(SLOW, "a locker", lambda: m.holds("pgrep gdbus"))
    time.sleep(2)
    m.run(f"loginctl lock-session {session}")
    m.screen.expect("This TTY is now locked.*to unlock", SLOW)
    m.screen.send("\n")
    m.screen.expect("on the fingerprint reader|finger", SLOW)
    tell(m, "press thumb")
    m.screen.expect("ended-0-42", SLOW)


def suspend(m):
    m.run("mkdir -p /run/systemd/system/systemd-suspend.service.d; "
          "printf '[Service]\\nExecStart=\\nExecStart=/bin/sleep 1\\n' "
          ">/run/systemd/system/systemd-suspend.service.d/stub.conf; systemctl daemon-reload")
    sudo(m)
    asked_for_finger(m)
    expect("wrxd" in m.run("systemd-inhibit --list"), "sleep is not held up")
    begun = time.monotonic()
    m.run("systemctl suspend")
    password(m, "ann")
    expect_end(m)
    until(SLOW, "the machine awake", lambda: m.run("systemctl is-active systemd-suspend", code=None) == "inactive")
    heard = m.run("journalctl -b -u systemd-logind -o cat")
    expect("timeout is reached" not in heard, "logind waited in vain for the service")
    expect(time.monotonic() - begun < 45, "the suspend took too long")
    sudo_by_finger(m)


def killed_in_each_state(m):
    states = {"idle": (), "claimed": ("ann",), "in a verification": ("ann", "VerifyStart", "any"),
              "in an enrolment": ("ann", "EnrollStart", "left-thumb")}
    for state, words in states.items():
        fingers(m)
        if words:
            hold(m, *words)
        if "EnrollStart" in words:
            tell(m, "press index x5")
            until(SLOW, "five presses", lambda: '"presses_left":0' in m.run("wrx-module report /run/module"))
        pid = main_pid(m)
        expect(pid != 0, f"no service to kill ({state})")
        m.run(f"systemctl kill -s KILL {UNIT}")
        until(20, "its end", lambda: not m.holds(f"test -e /proc/{pid}"))
        expect(fingers(m) == ["right-thumb"], f"killed {state}: ann's fingers are {fingers(m)}")
        expect(main_pid(m) not in (0, pid), f"killed {state}: it was not started again")
        let_go(m)
    m.run(f"systemctl reset-failed {UNIT} holder || true")
    sudo_by_finger(m)
    consistent(m)


def sandbox(m):
    probe = "/usr/bin/python3 /run/trial/probe.py $(pidof dbus-daemon) >/run/probe.out"
    outside = m.run(f"mkdir -p /var/lib/wrxd; {probe}; cat /run/probe.out")
    expect("refused" not in outside and outside.count("done") > 15, f"probes that fail anywhere: {outside}")
    m.run(f"systemctl stop {UNIT}; mkdir -p /run/systemd/system/{UNIT}.d; "
          f"printf '[Service]\\nType=oneshot\\nBusName=\\nExecStart=\\nExecStart=/usr/bin/python3 /run/trial/probe.py '"
          f"$(pidof dbus-daemon)'\\nStandardOutput=file:/run/probe.in\\n' >/run/systemd/system/{UNIT}.d/zz-probe.conf; "
          f"systemctl daemon-reload")
    try:
        m.run(f"systemctl start {UNIT}")
        inside = m.run("cat /run/probe.in")
    finally:
        m.run(f"rm /run/systemd/system/{UNIT}.d/zz-probe.conf; systemctl daemon-reload")
    expect("done" not in inside and inside.count("refused") == outside.count("done"),
           f"not everything was refused: {inside}")


def switches(m, pid):
    return int(m.run(f"cat /proc/{pid}/task/*/status | awk '/ctxt_switches/ {{n += $2}} END {{print n}}'"))


def idle(m):
    for claimed in (True, False):
        if claimed:
            hold(m, "ann")
        else:
            let_go(m)
        pid = main_pid(m)
        time.sleep(3)
        before = switches(m, pid)
        time.sleep(30)
        woken = switches(m, pid) - before
        expect(woken == 0, f"{woken} wake-ups in 30 s, claimed: {claimed}")
    until(60, "the service's leaving", lambda: not m.holds(f"test -e /proc/{pid}"))
    expect(m.run(f"systemctl is-failed {UNIT}", code=None) == "inactive", "it has not left in peace")
    expect(fingers(m) == ["right-thumb"], "it was not started again")


def upgrade(m):
    version = m.run("dpkg-query -W -f '${Version}' wrxd")
    sudo(m)
    asked_for_finger(m)
    m.run("dpkg -i /run/trial/newer/*.deb", seconds=180)
    expect(m.run("dpkg-query -W -f '${Version}' wrxd") != version, "no newer version")
    tell(m, "press thumb")
    expect_end(m)  # the wait was not cut short
    expect(fingers(m) == ["right-thumb"], f"ann's fingers are {fingers(m)}")
    sudo_by_finger(m)
    settled(m, module_in(m))


def reboot(m):
    m.shell.send("systemctl reboot\n")
    m.booted(180)
    m.run("mkdir -p /run/trial; tar -C /run/trial -xf /dev/vdb; systemctl start module")
    settled(m, module_in(m))
    log_in(m)
    consistent(m)


def journal_is_clean(m):
    ours = m.run(f"journalctl -u {UNIT} -o cat --no-pager _COMM=wrxd + _COMM=wrxctl", code=None)
    expect(not re.sub("-- .*", "", ours).strip(), f"the service has said: {ours}")
    bad = m.run("journalctl --no-pager -o cat | grep -iE 'type=1326|type=1400.*DENIED|SECCOMP|segfault|dumped core|"
                "oops|BUG:|wrx.*(warn|fail)' || true")
    expect(not bad, f"the journal holds {bad}")
    expect("No coredumps" in m.run("coredumpctl list --no-pager", code=None), "a process has dumped core")
    failed = m.run("systemctl --failed --no-legend --plain")
    expect(not failed, f"failed units: {failed}")


def removal(m):
    m.run("dpkg -r wrxd", seconds=120)
    answer = m.run("fprintd-list ann", code=None)
    expect("No devices available" in answer, f"Debian's service says: {answer}")
    expect(m.run(f"readlink /proc/{main_pid(m)}/exe").endswith("/fprintd"), "it is not Debian's service")
    m.run("dpkg -i /run/trial/newer/wrxd_*.deb", seconds=120)
    expect(fingers(m) == ["right-thumb"], "the fingers are not back")
    m.run("systemctl stop module; dpkg -P wrxd wrx5300-tools wrx-module wrx5300-driver wrx5300-common", seconds=120)
    left = m.run("ls -d /etc/wrx* /var/lib/wrx* /usr/lib/*/wrx* /lib/systemd/system/fprintd.service.d 2>/dev/null", code=None)
    expect(left in ("", "/var/lib/wrxd"), f"left behind: {left}")
    expect("running" in m.run("systemctl is-system-running"), "a unit has failed")


# Whether the ones after it build on it, its name, itself.
SCENARIOS = (
    (True, "first install, the module there before the packages", first_install),
    (False, "udev at every plug: owner, group, mode, power, name", udev_at_every_plug),
    (False, "activation by the bus; exposure as systemd measures it", activation_and_exposure),
    (True, "log-in at the seat, enrolment with polkit's agent, verification", seat_login_and_enrolment),
    (True, "log-in at a console by finger; a session without a seat is refused", console_login),
    (False, "sudo by finger; a stranger's three times, then the password", sudo_finger_and_password),
    (False, "sudo, unplugged in the wait: the password at once", sudo_unplugged),
    (False, "sudo while another user holds the claim", sudo_while_claimed),
    (False, "su and login by finger", su_and_login),
    (False, "the lock of a session", session_lock),
    (False, "suspend as logind announces it, in a wait", suspend),
    (False, "killed in each state", killed_in_each_state),
    (False, "the sandbox refuses what it should", sandbox),
    (False, "idle: no wake-up in 30 s, claimed and not; leaves; is started again", idle),
    (False, "upgrade of the packages in a wait", upgrade),
    (False, "reboot", reboot),
    (False, "the journal is clean, no core dump, no failed unit", journal_is_clean),
    (False, "removal: Debian's service answers; back; purge", removal),
)
