# SPDX-License-Identifier: LGPL-2.1-or-later
"""What is tried on the booted machine, in the order of a machine's life."""

import re
import time

from machine import Failed, until

UNIT = "fprintd.service"
DATABASE = "/var/lib/wrxd/features.db"
BUS = "/sys/bus/usb/devices"
SUDO = "sudo -k; sudo true"
TOUCH = r"[Pp]lace your [^\n]*finger"
SLOW = 90  # seconds: what is done at once may take as long when the machine has other work


def expect(true, text):
    if not true:
        raise Failed(text)


# ---- the module and the service ------------------------------------------------------------------


def tell(m, statements):
    m.run(f"wrx-module tell /run/module '{statements}'")


def module(m, there=True):
    """Waits until the module is on the bus, or is not; its folder in sysfs."""
    look = f"grep -lx 5300 {BUS}/*/idProduct || true"
    until(SLOW, f"the module on the bus: {there}", lambda: bool(m.run(look)) is there)
    return m.run(look).removesuffix("/idProduct")


def node(device):
    return f"/dev/bus/usb/$(printf %03d/%03d $(cat {device}/busnum) $(cat {device}/devnum))"


def settled(m):
    """The module gets owner, mode and power settings of the rules."""
    device, wanted = module(m), ["root:wrx5300", "660", "auto", "0"]
    look = f"stat -c '%U:%G %a' {node(device)}; cat {device}/power/control {device}/power/persist"
    until(SLOW, lambda: f"{wanted} instead of {m.run(look)}", lambda: m.run(look).split() == wanted)
    return device


def enrolled(m, wanted="right-thumb"):
    """Ann has this finger and no other, as Debian's client lists them."""
    listed = m.run("fprintd-list ann", code=None)
    expect(re.findall(r"#\d+: (\S+)", listed) == wanted.split(), f"not {wanted!r} but: {listed}")


def consistent(m):
    """Slots of the module and records agree."""
    m.run(f"systemctl stop {UNIT}; wrxctl fsck --db {DATABASE}")


def drop_in(m, unit, settings):
    """Settings of a unit until the next boot, or until the file that is returned goes."""
    folder = f"/run/systemd/system/{unit}.d"
    m.run(f"mkdir -p {folder}; printf '[Service]\\n{settings}' >{folder}/zz-trial.conf; "
          "systemctl daemon-reload")
    return folder + "/zz-trial.conf"


def program(m):
    """Process and program of the service."""
    pid = m.run(f"systemctl show -P MainPID {UNIT}")
    return pid, m.run(f"readlink /proc/{pid}/exe || true")


def hold(m, words):
    """A client that holds the claim, until let_go()."""
    let_go(m)
    m.run("systemd-run -qG --unit=holder -p StandardOutput=file:/run/held "
          f"python3 /run/trial/hold.py {words}")
    until(SLOW, lambda: "a claim: " + m.run("journalctl -b -u holder -o cat | tail -n 5"),
          lambda: m.holds("grep -q held /run/held"))


def let_go(m):
    m.run("systemctl stop holder 2>/dev/null; rm -f /run/held")


# ---- ann at the terminals ------------------------------------------------------------------------


def finger(name):
    """An answer: asked for a finger, this one is used."""
    def answer(m, terminal):
        terminal.expect(TOUCH, SLOW)
        tell(m, f"press {name}")
    return answer


def secret(word):
    """An answer: asked for a password, this one is given."""
    def answer(_, terminal):
        terminal.expect(r"[Pp]assword[^\n]*: *$", SLOW)
        terminal.send(word + "\n")
    return answer


def begin(terminal, command):
    terminal.forget()
    terminal.send(command + "; echo ended-$?-$((40 + 2))\n")


def end(terminal, text="", code=0):
    terminal.expect(f"{text}.*ended-{code}-42\n?", SLOW)


def typed(m, terminal, command, *answers, text="", code=0):
    """A command, what it is answered, what it says and how it ends."""
    begin(terminal, command)
    for answer in answers:
        answer(m, terminal)
    end(terminal, text, code)


def let_in(m, terminal, *answers):
    """Through the answers to a shell of ann's, which then shows nothing that is typed."""
    for answer in answers:
        answer(m, terminal)
    terminal.expect(r"ann@machine:~\$ *$", SLOW)
    typed(m, terminal, "PS1=; bind 'set enable-bracketed-paste off'; stty -echo")


def log_in(m, terminal, answer):
    terminal.expect("machine login: *$", SLOW)
    terminal.send("ann\n")
    let_in(m, terminal, answer)


thumb, stranger, ann, ben = finger("thumb"), finger("stranger"), secret("ann"), secret("ben")


def start_over(m):
    """After a failure: module, service and console as the next scenario expects them."""
    m.run(f"systemctl stop holder {UNIT}; pkill vlock; "
          f"systemctl restart module serial-getty@{m.console_name}", code=None)
    module(m)
    log_in(m, m.console, thumb)


# ---- scenarios -----------------------------------------------------------------------------------


def first_install(m):
    m.run("dpkg -i /run/trial/packages/wrx-module_*.deb && systemctl start module")
    device = module(m)
    before = m.run(f"stat -c '%U:%G %a' {node(device)}; cat {device}/power/persist")
    expect(before.split() == ["root:root", "664", "1"], f"the module without its rules: {before}")
    m.run("dpkg -i $(ls /run/trial/packages/*.deb | grep -v wrx-module_)", seconds=300)
    settled(m)
    expect(not m.run("dpkg --audit"), "a package is not configured")
    m.run("systemctl is-system-running")


def udev_at_every_plug(m):
    for _ in range(2):
        tell(m, "unplug")
        module(m, there=False)
        tell(m, "plug")
        device = settled(m)
    m.run(f"udevadm info -q property -p {device} | grep -x 'ID_MODEL_FROM_DATABASE=TRV WRX5300'")
    m.run(f"runuser -u ann cat {node(device)}", code=1)


def activation(m):
    m.run(f"systemctl stop {UNIT}")
    expect(program(m)[0] == "0", "the service has not stopped")
    enrolled(m, "")
    expect(program(m)[1].endswith("/wrxd"), f"the service is {program(m)}")
    m.run(f"systemd-analyze security --no-pager --threshold=15 {UNIT}")


def at_the_seat(m):
    log_in(m, m.screen, ann)
    enrol = "fprintd-enroll -f right-thumb"
    typed(m, m.screen, enrol, code=1)  # nobody asks for consent
    enrolled(m, "")
    begin(m.screen, f"sh -c 'pkttyagent --process $$ & sleep 2; exec {enrol}'")
    ann(m, m.screen)
    tell(m, "press thumb x13")
    end(m.screen, "enroll-completed")
    enrolled(m)
    begin(m.screen, "fprintd-verify")
    m.screen.expect("Verify started", SLOW)
    tell(m, "press thumb")
    end(m.screen, r"verify-match \(done\)")
    consistent(m)


def console_login(m):
    m.run("pam-auth-update --enable fprintd; "
          "sed -i '/fprintd/s/=1 timeout=10/=3 timeout=90/' /etc/pam.d/common-auth; "
          "grep -q 'max-tries=3 timeout=90' /etc/pam.d/common-auth")
    log_in(m, m.console, thumb)
    for client in ("fprintd-list ann", "fprintd-verify", "fprintd-enroll", "fprintd-delete ann"):
        typed(m, m.console, client, text="PermissionDenied|Not Authorized", code=1)


def sudo(m):
    typed(m, m.console, SUDO, thumb)
    typed(m, m.console, SUDO, stranger, stranger, stranger, ann)


def sudo_unplugged(m):
    begin(m.console, SUDO)
    m.console.expect(TOUCH, SLOW)
    tell(m, "unplug")
    since = time.monotonic()
    ann(m, m.console)
    took = time.monotonic() - since
    expect(took < 20, f"the password was asked for after {took:.0f} s")
    end(m.console)
    typed(m, m.console, SUDO, ann)  # no module at all
    tell(m, "plug")
    settled(m)
    until(SLOW, "the finger", lambda: m.holds("fprintd-list ann | grep -q right-thumb"))
    typed(m, m.console, SUDO, thumb)


def sudo_while_claimed(m):
    hold(m, "ben")
    typed(m, m.console, SUDO, ann)
    let_go(m)
    typed(m, m.console, SUDO, thumb)


def su_and_login(m):
    typed(m, m.console, "su ann -c true", thumb)
    typed(m, m.console, "su ben -c true", ben)  # who has no finger
    m.console.send("exec sudo -k login ann\n")
    let_in(m, m.console, thumb, thumb)  # for sudo, and for login


def session_lock(m):
    begin(m.screen, "grep -qm1 Session.Lock <(gdbus monitor -y -d org.freedesktop.login1); vlock")
    until(SLOW, "a locker", lambda: m.holds("pgrep gdbus"))
    time.sleep(2)
    m.run("loginctl lock-session $(loginctl list-sessions --no-legend | awk '/seat0/ {print $1}')")
    m.screen.expect("This TTY is now locked.*to unlock", SLOW)
    m.screen.send("\n")
    thumb(m, m.screen)
    end(m.screen)


def suspend(m):
    drop_in(m, "systemd-suspend.service", "ExecStart=\\nExecStart=/bin/sleep 1\\n")
    begin(m.console, SUDO)
    m.console.expect(TOUCH, SLOW)
    m.run("systemd-inhibit --list | grep wrxd")
    m.run("systemctl suspend")
    ann(m, m.console)
    end(m.console)
    until(SLOW, "the machine awake", lambda: m.holds(
        "journalctl -b -u systemd-logind -o cat | grep \"Operation 'sleep' finished\""))
    m.run("journalctl -b -u systemd-logind -o cat | grep 'timeout is reached'", code=1)
    typed(m, m.console, SUDO, thumb)


def killed_in_each_state(m):
    for words in ("", "ann", "ann VerifyStart any", "ann EnrollStart left-thumb"):
        enrolled(m)
        if words:
            hold(m, words)
        if "Enroll" in words:
            tell(m, "press index x5")
            until(SLOW, "five presses", lambda: m.holds(
                "wrx-module report /run/module | grep '\"presses_left\":0'"))
        before = program(m)[0]
        m.run(f"systemctl kill -s KILL {UNIT}")
        until(SLOW, "its end", lambda: not m.holds(f"test -e /proc/{before}"))
        enrolled(m)
        expect(program(m)[0] not in ("0", before), f"not started again after {words!r}")
    let_go(m)
    typed(m, m.console, SUDO, thumb)
    consistent(m)
    m.run(f"systemctl reset-failed {UNIT}; true")


def sandbox(m):
    probe = m.run("echo /usr/bin/python3 /run/trial/probe.py $(pidof dbus-daemon)")
    outside = m.run(probe)
    expect("refused" not in outside, f"refused everywhere: {outside}")
    file = drop_in(m, UNIT, f"Type=oneshot\\nExecStart=\\nExecStart={probe}\\n"
                            "StandardOutput=file:/run/probe\\n")
    m.run(f"systemctl stop {UNIT}; systemctl start {UNIT}; rm {file}; systemctl daemon-reload")
    inside = m.run("cat /run/probe")
    same = inside.count("refused") == outside.count("done")
    expect("done" not in inside and same, f"not refused: {inside}")


def idle(m):
    hold(m, "ann")
    pid = program(m)[0]
    switches = f"cat /proc/{pid}/task/*/status | awk '/ctxt_switches/ {{n += $2}} END {{print n}}'"
    for claimed in (True, False):
        time.sleep(3)
        before = m.run(switches)
        time.sleep(30)
        after = m.run(switches)
        expect(after == before, f"{before} switches grew to {after}, claimed: {claimed}")
        let_go(m)
    until(60, "the service's leaving", lambda: not m.holds(f"test -e /proc/{pid}"))
    m.run(f"systemctl is-failed {UNIT}", code=1)
    enrolled(m)


def upgrade(m):
    begin(m.console, SUDO)
    m.console.expect(TOUCH, SLOW)
    before = program(m)[0]
    m.run("dpkg -i /run/trial/newer/*.deb", seconds=300)
    expect(program(m)[0] == before, "a wait was cut short")
    # One touch may come just when the driver's own wait ends and begins anew, and is lost then.
    tell(m, "press thumb x2")
    end(m.console)
    m.run("systemctl restart module")  # the touch that is left over
    until(SLOW, "the old program's leaving", lambda: not m.holds(f"test -e /proc/{before}"))
    enrolled(m)
    typed(m, m.console, SUDO, thumb)
    settled(m)


def reboot(m):
    m.console.send("exit\n")  # of the nested log-in, whose end a reboot would wait for
    m.console.expect("machine login: *$", SLOW)
    m.console.forget()
    m.shell.send("systemctl reboot\n")
    m.booted()
    m.run("systemctl start module")
    settled(m)
    log_in(m, m.console, thumb)
    consistent(m)


def journal_is_clean(m):
    said = m.run("journalctl -o cat --no-pager _COMM=wrxd")
    expect(not said or "No entries" in said, f"the service has said: {said}")
    m.run("journalctl -o cat --no-pager | "
          "grep -E 'type=1326|apparmor=.DENIED|segfault|dumped core|Oops:|BUG:'", code=1)
    m.run("coredumpctl list --no-pager", code=1)
    failed = m.run("systemctl --failed --no-legend --plain")
    expect(not failed, f"failed units: {failed}")


def removal(m):
    m.run("dpkg -r wrxd", seconds=300)
    m.run("fprintd-list ann | grep 'No devices available'")
    expect(program(m)[1].endswith("/fprintd"), f"the service is {program(m)}")
    m.run("dpkg -i /run/trial/newer/wrxd_*.deb", seconds=300)
    enrolled(m)
    m.run("systemctl stop module; "
          "dpkg -P wrxd wrx-module wrx5300-tools wrx5300-driver wrx5300-common", seconds=300)
    left = m.run("find / -xdev -path /root -prune -o -name '*wrx*' -print -o -name 'biometric-*' -print")
    expect(left == "/var/lib/wrxd" and m.holds(f"test -s {DATABASE}"), f"left behind: {left}")
    m.run("systemctl is-system-running")


# Whether the ones after it build on it, its name, itself.
SCENARIOS = (
    (True, "first install, the module there before the packages", first_install),
    (False, "udev at every plug: owner, group, mode, power, name", udev_at_every_plug),
    (False, "activation by the bus; exposure as systemd measures it", activation),
    (True, "log-in at the seat, enrolment with polkit's agent, verification", at_the_seat),
    (True, "log-in at a console by finger; without a seat the clients are refused", console_login),
    (False, "sudo by finger; a stranger's three times, then the password", sudo),
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
    (False, "removal: Debian's service answers; back again; purge", removal),
)
