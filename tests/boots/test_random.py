"""Every input is random bytes: the daemon ends by itself, without a signal or a sanitizer's report, and writes only its
own fields. VORTA_RANDOM_BOOTS sets the number of devices."""

from __future__ import annotations

import os
from random import Random
from typing import List, Tuple

from conftest import MakePhone
import pytest
from simulated import Phone

from vortadev import scenario

INPUTS = ("/proc/cmdline", "/proc/pmic_pon_log", "/proc/device-tree/rootparam/qcom,boardid")
PROPERTIES = ("ro.logsystem.usertype", "msc.sys.country", "ro.runmode", "persist.log.remotedebug")
USUAL = (b"3", b"cn", b"factory", b"true")

# What the daemon may write in rawdump: offset and size of the corvel value and the reason node, of the user type, of
# the board identifier's magic word and value, of the minidump's header. In the others nothing: no record is valid.
FIELDS: Tuple[Tuple[int, int], ...] = ((0, 328), (404, 8), (456, 4), (464, 4), (0x400000, 56))


def randomised(make_phone: MakePhone, random: Random) -> Phone:
    file = scenario.load("damaged-records").file.with_name("random.json")
    phone = make_phone(scenario.parse({"base": "damaged-records", "seed": random.randrange(1 << 32)}, file))
    for path in INPUTS:
        phone.write(path, random.randbytes(random.randrange(random.choice((16, 4096)))))
    values = [random.choice((random.choice(USUAL), random.randbytes(random.randrange(92)))) for _ in PROPERTIES]
    lines = [name.encode() + b"=" + value + b"\n" for name, value in zip(PROPERTIES, values)]
    phone.write("/vendor/build.prop", b"".join(lines))
    # The boot level: about half are abnormal. The minidump's flag.
    phone.poke("rawdump", {20: bytes((random.randrange(4), 0, 0, 0)), 0x40000C: random.randbytes(1)})
    return phone


def arguments(random: Random) -> List[str]:
    return [
        random.choice(("-h", "-r", "-r", "-r")),
        "".join(random.choices("minduxp-\n\x7f", k=random.randrange(1, 13))),
    ]


@pytest.mark.parametrize("seed", range(1, int(os.environ.get("VORTA_RANDOM_BOOTS", "8")) + 1))
def test_random_device_survives_and_only_its_fields_change(make_phone: MakePhone, seed: int) -> None:
    random = Random(seed)
    boot = randomised(make_phone, random).boot(*arguments(random))
    assert boot.run.status == 0, boot.run.err
    assert b"Sanitizer" not in boot.run.err and b"runtime error" not in boot.run.err
    expected = boot.before.partitions
    for offset, size in FIELDS:
        expected["rawdump"].put(offset, boot.after.partitions["rawdump"].read(offset, size))
    assert boot.after.partitions == expected
    added = boot.after.history[len(boot.before.history) :]
    assert boot.after.history.startswith(boot.before.history)
    assert added.count(b"system exception core [NA], reason [") <= 1
