"""Seed corpora: what the shipped scenarios put on a device, in the form that each target reads."""
import json
import pathlib
import random
import shutil
import struct
import subprocess

END = b"\x1e"  # closes a text of an input
RESERVED = 0x3B5D2957
CORVEL, RIGHT_CRC = 1, 32  # second byte of an input of the target "service"


class Device:
    def __init__(self, folder):
        self.folder = folder
        self.arguments = json.loads(self.read("scenario.json")).get("run", {}).get("arguments", [])

    def read(self, path, offset=0, size=-1):
        file = self.folder / path
        if not file.is_file():
            return b""
        with file.open("rb") as stream:
            stream.seek(offset)
            return stream.read(size)

    def partition(self, name, offset, size):
        return self.read(f"dev/block/by-name/{name}", offset, size).ljust(size, b"\0")

    def history(self):
        return self.read("data/vendor/log/reliability/dumplog/history.log", 0, 300)


def near(record, flag_at, offset_at):
    """The record with its full dump moved to where the small userdata of a target has room."""
    if len(record) < flag_at + 4 or struct.unpack_from("<I", record, flag_at)[0] != RESERVED:
        return record
    return record[:offset_at] + struct.pack("<Q", 4096) + record[offset_at + 8:]


def service(device, header, meta):
    near_meta = near(meta[:56], 8, 16)
    dump_at = max(struct.unpack_from("<Q", meta, 16)[0], struct.unpack_from("<Q", header, 392)[0])
    dump_at = min(dump_at, 1 << 40)  # a damaged record may name any place
    extra = CORVEL if "-h" in device.arguments else RIGHT_CRC if near_meta != meta[:56] else 0
    return b"".join([
        bytes([0, extra, 0, 0]), near(header, 400, 392), device.partition("rawdump", 0x400000, 56),
        near_meta, device.partition("userdata", dump_at, 56), device.read("vendor/build.prop"), END,
        device.read("proc/cmdline"), END, device.read("proc/pmic_pon_log"), END,
        device.read("proc/device-tree/rootparam/qcom,boardid").ljust(16, b"\0")[:16],
        device.partition("rawdump", 0x80000, 200).replace(END, b""), END, device.history()])


def inputs(device):
    header = device.partition("rawdump", 0, 472)
    meta = device.partition("bootfail_info", 1024, 80)
    cmdline = device.read("proc/cmdline").strip()
    return {
        "power_on_log": b"\0" + device.read("proc/pmic_pon_log"),
        "command_line": END + cmdline + b"\n",
        # Validity, a history line, user type 3, a derived reason, another line, clear, a line.
        "reason_header": header + bytes(40) + b"\4\2" + cmdline + END + b"\x01" + b"3" + END +
                         b"\x08XVDD" + END + b"\2" + END + b"\3\2" + cmdline,
        "meta_record": b"\0" + header[392:472] + meta + b"3",
        "service": service(device, header, meta),
    }


def make(vortadev, scenarios, scratch, corpus):
    """Fills corpus/TARGET for each target; every device is made in `scratch` and removed again."""
    rng = random.Random(1)
    (corpus / "bounded").mkdir(parents=True)
    for number in range(32):
        (corpus / "bounded" / str(number)).write_bytes(rng.randbytes(6 + 2 * number))
    for scenario in scenarios:
        folder = pathlib.Path(scratch) / "seed"
        subprocess.run([vortadev, "create", folder, scenario], check=True)
        for target, data in inputs(Device(folder)).items():
            (corpus / target).mkdir(parents=True, exist_ok=True)
            (corpus / target / scenario).write_bytes(data)
        shutil.rmtree(folder)
