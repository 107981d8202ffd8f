# SPDX-License-Identifier: LGPL-2.1-or-later
"""What is made from the tree's own tables is as the tables are, and does its work."""

import os
import pathlib
import re
import shutil
import subprocess
import unittest

import support

PACKAGING = support.SOURCE / "packaging"


def made(*program):
    return subprocess.run([support.BUILD / "bin" / program[0], *program[1:]], text=True,
                          capture_output=True, check=True).stdout


def entries(catalogue):
    """Pairs of original and translations of a catalogue."""
    text = subprocess.run(["msgcat", "--no-wrap", support.SOURCE / "po" / catalogue], text=True,
                          capture_output=True, check=True).stdout
    joined = lambda part: "".join(re.findall(r'"(.*)"', part))
    for entry in text.split("\n\n"):
        parts = re.split(r"^(msg\w+(?:\[\d\])?) ", entry, flags=re.M)[1:]
        words = {parts[i]: joined(parts[i + 1]) for i in range(0, len(parts), 2)}
        if words.get("msgid"):
            yield words["msgid"], [v for k, v in words.items() if k.startswith("msgstr")]


class Udev(unittest.TestCase):
    def test_FilesAreAsTheDriversTablesAre(self):
        for kind in ("rules", "hwdb", "metainfo"):
            self.assertEqual((PACKAGING / f"udev/60-wrx5300.{kind}").read_text(),
                             made("wrx-generate-udev", kind))

    def test_RulesNameEveryIdentityAndOpenTheNodeToItsGroupAlone(self):
        rules = (PACKAGING / "udev/60-wrx5300.rules").read_text()
        sources = "".join((support.SOURCE / name).read_text()
                          for name in ("frame/entry.cpp", "upgrade/boot_link.cpp"))
        table = re.findall(r"\{0x(\w{4}), 0x(\w{4}),", sources)
        boot = re.search(r"kVendor = 0x(\w+).*?kProduct = 0x(\w+)", sources, re.S).groups()
        self.assertEqual(re.findall(r'idVendor}=="(\w+)", ATTR{idProduct}=="(\w+)"', rules),
                         table + [boot])
        self.assertEqual(re.findall(r'MODE="(\d+)"', rules), ["0660"])
        self.assertNotIn("uaccess", rules)
        group = re.search(r'GROUP="(\w+)"', rules).group(1)
        self.assertIn(f"g {group} -", (PACKAGING / "udev/wrx5300.sysusers").read_text())
        self.assertIn('ATTR{power/control}="auto"', rules)
        self.assertIn('ATTR{power/persist}="0"', rules)


@unittest.skipUnless((support.BUILD / "bin/wrxd").exists(), "without the service")
class Installed(unittest.TestCase):
    def test_TheServiceIsStartedFromWhereItStandsAndAChangedConfigurationStays(self):
        stage = support.Client(self).home
        changed = pathlib.Path(stage + "/etc/biometric-auth/biometric-drivers.conf")
        changed.parent.mkdir(parents=True)
        changed.touch()
        subprocess.run(["cmake", "--install", support.BUILD, "--prefix", "/opt/wrx"], check=True,
                       stdout=subprocess.DEVNULL, env=dict(os.environ, DESTDIR=stage))
        drop_in = stage + "/opt/wrx/lib/systemd/system/fprintd.service.d/wrxd.conf"
        program = re.search(r"^ExecStart=(\S+)", pathlib.Path(drop_in).read_text(), re.M)[1]
        self.assertTrue(os.access(stage + program, os.X_OK), program)
        self.assertEqual(changed.read_text(), "")
        self.assertTrue((changed.parent / "extra.conf.d/vestrel-m6600.conf").exists())


class Completion(unittest.TestCase):
    def test_IsAsTheOptionTreeIs(self):
        self.assertEqual((PACKAGING / "completion/wrxctl.bash").read_text(),
                         made("wrx-generate-completion"))

    def test_OffersWhatFitsWhereTheCursorStands(self):
        rows = [("wrxctl en", "enroll"), ("wrxctl module s", "serial slots"),
                ("wrxctl enroll --n", "--name"), ("wrxctl clean --uid 5 --a", "--all"),
                ("wrxctl --json fsck --r", "--repair"), ("wrxctl module image --o", "--output"),
                ("wrxctl --db list verify --i", "--index"), ("wrxctl list --name", ""),
                ("wrxctl search --uid roo", "root")]
        for line, offered in rows:
            words = line.split()
            script = (f"source '{PACKAGING}/completion/wrxctl.bash'; COMP_WORDS=({line}); "
                      f'COMP_CWORD={len(words) - 1}; _wrxctl; echo "${{COMPREPLY[*]}}"')
            ended = subprocess.run(["bash", "-c", script], text=True, capture_output=True)
            self.assertEqual((ended.stdout.strip(), ended.stderr), (offered, ""), line)


class Manual(unittest.TestCase):
    def test_TellsOfEveryCommandAndOption(self):
        page = (PACKAGING / "man/wrxctl.1.scd").read_text()
        for command, options in support.command_shapes().items():
            self.assertIn(f"*{command}*", page)
            for option in set(options) - {"-h", "--help"}:
                self.assertIn(f"*{option}*", page, command)

    def test_PagesAndSamplesTellOfEveryKeyThatTheDriverReads(self):
        source = (support.SOURCE / "frame/configuration.cpp").read_text()
        named = (support.SOURCE / "records/configuration_keys.h").read_text()
        keys = set(re.findall(r'constexpr char k(?!Group)\w+\[\] = "(\w+)";', named))
        own = set(re.findall(r"kGroup, k(\w+)", source))
        self.assertEqual(keys, {"PrintfLogFlag", "ModeFlag", "RebootFlag"} | own)
        for name, wanted in (("biometric-drivers.conf", keys - own | {"PrintfLogFlag", "Enable"}),
                             ("vestrel-m6600.conf", own)):
            page = (PACKAGING / f"man/{name}.5.scd").read_text()
            self.assertEqual(set(re.findall(r"^\*(\w+)\*=", page, re.M)), wanted)
            sample = (PACKAGING / "etc" / name).read_text()
            self.assertEqual(set(re.findall(r"^(\w+)=", sample, re.M)), wanted)


@unittest.skipUnless(shutil.which("xgettext"), "gettext is not installed")
class Catalogues(unittest.TestCase):
    def test_AreAsTheSourcesAre(self):
        subprocess.run([support.SOURCE / "po/update.sh", "--check"], check=True)

    def test_AreCompleteAndKeepEveryPlaceholder(self):
        driver = lambda text: not text.isascii()
        marks = lambda text: sorted(re.findall(r"{.*?}|%[%ds]", re.sub(r"{\d(?=[:}])", "{", text)))
        for catalogue, needed in (("zh_CN.po", lambda _: True), ("en.po", driver)):
            for original, translations in entries(catalogue):
                for words in translations:
                    if needed(original):
                        self.assertTrue(words, original)
                    if words:
                        self.assertEqual(marks(words), marks(original), original)

    @unittest.skipUnless((support.BUILD / "share/locale").exists(), "no catalogues were built")
    def test_AreFoundByTheProgram(self):
        client = support.Client(self)
        for language, found in (("zh_CN", "找到 TRV WRX5300。"), ("", "Found TRV WRX5300.")):
            self.assertEqual(client.run(["discover"], language=language)[1].strip(), found)
        code, text = client.run(["enroll"], "press thumb x16", "en")
        self.assertEqual(code, 0)
        self.assertIn("Enrolment begins; touch the sensor.", text)


if __name__ == "__main__":
    support.main()
