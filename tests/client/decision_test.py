# SPDX-License-Identifier: LGPL-2.1-or-later
"""What `wrxctl firmware` says of an upgrade is what the driver's next start does. Uses the folder
behind the scratch plug-in, which only one test at a time can."""

import shutil

from conftest import BUILD

# Mode, budget, bytes of the image, whether it is written.
ROWS = [("SMART_UPGRADE", 1, 481, True), ("SMART_UPGRADE", 1, 481, False),  # it is new now
        ("AUTO_UPGRADE", 1, 481, False), ("DONT_UPGRADE", 1, 481, False),
        ("FORCE_UPGRADE", 0, 481, False), ("FORCE_UPGRADE", 1, 0, False),
        ("FORCE_UPGRADE", 1, 2097153, False), ("force_upgrade", 1, 481, False)]


def test_what_is_shown_is_what_the_next_start_does(client, request):
    etc = BUILD / "scratch/etc"
    request.addfinalizer(lambda: shutil.rmtree(etc))
    extra, config = etc / "wrx6600/extra", etc / "biometric-auth/extra.conf.d"
    for folder in (extra, config):
        folder.mkdir(parents=True, exist_ok=True)
    (extra / "trv_fw.conf").write_text("ACM32FP_V123\n")
    for mode, budget, size, upgrade in ROWS:
        (config / "vestrel-m6600.conf").write_text(
            f"[BASIC_PARAM]\nUpgradeMode={mode}\nUpgradeFlag={budget}\n")
        image = b"acm32_btl_zelta_pc_000123".ljust(size, b"x")[:size]
        (extra / "ACM32FP_V123.bin").write_bytes(image)
        for command, word in (("firmware", "upgrade"), ("init", "upgraded")):
            told = client.ask(f"{command} --plugin {BUILD}/lib/wrx5300-scratch.so")[1][-1]
            assert told[word] == upgrade, (mode, command)
