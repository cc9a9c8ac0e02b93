"""Seed corpora: what the shipped scenarios put on a device, in the form that each target reads."""

import random

from vortadev import content, records, scenario

END = b"\x1e"  # closes a text of an input
CORVEL, RIGHT_CRC = 1, 32  # second byte of an input of the target "service"
META, HEADER = records.FULLDUMP_META, records.REASON_HEADER


def near(record, raw, flag, offset):
    """The record with its full dump moved to where the small userdata of a target has room."""
    moved = bytearray(raw)
    if record.number(raw, flag) == records.FULLDUMP_RESERVED:
        record.put(moved, offset, 4096)
    return bytes(moved)


def service(phone, properties):
    near_meta = near(META, phone.meta, "reservedFlag", "dumpOffset")
    extra = CORVEL if "-h" in phone.arguments else RIGHT_CRC if near_meta != phone.meta else 0
    header = near(HEADER, phone.reason_header, "fulldumpReservedFlag", "fulldumpOffset")
    log = content.render(phone.logs["xbl_abl"], "xbl_abl")[:200].replace(END, b"")
    files = {entry.path.rpartition("/")[2]: entry for entry in phone.data}
    history = content.render(files["history.log"].fill, "history.log")[:300] if "history.log" in files else b""
    dump = phone.fulldump.header if phone.fulldump else bytes(records.DUMP_HEADER.size)
    texts = [properties, phone.cmdline, phone.pon_log or b""]
    tail = [(phone.board_id or b"").ljust(16, b"\0")[:16], log, END, history]
    records_of = [bytes([0, extra, 0, 0]), header, phone.minidump.header, near_meta, dump]
    return b"".join([*records_of, *(text + END for text in texts), *tail])


def inputs(phone):
    properties = "".join(f"{name}={value}\n" for name, value in phone.properties.items()).encode()
    cmdline, pon_log = phone.cmdline.strip(), phone.pon_log or b""
    descriptor = phone.reason_header[HEADER.field("fulldumpOffset").offset :]
    return {
        "power_on_log": b"\0" + pon_log,
        "command_line": END + cmdline + b"\n",
        # Validity, a history line, user type 3, a derived reason, another line, clear, a line.
        "reason_header": phone.reason_header
        + bytes(40)
        + b"\4\2"
        + cmdline
        + END
        + b"\x01"
        + b"3"
        + END
        + b"\x08XVDD"
        + END
        + b"\2"
        + END
        + b"\3\2"
        + cmdline,
        "meta_record": b"\0" + descriptor + phone.meta.ljust(80, b"\0") + b"3",
        "service": service(phone, properties),
    }


def make(folders):
    """Fills the folder corpus in the folder of each target."""
    rng = random.Random(1)
    seeds = {("bounded", str(number)): bytes(rng.choices(range(256), k=6 + 2 * number)) for number in range(32)}
    for name in scenario.shipped():
        seeds.update({(target, name): data for target, data in inputs(scenario.load(name)).items()})
    for target, folder in folders.items():
        (folder / "corpus").mkdir()
        for (wanted, name), data in seeds.items():
            if wanted == target:
                (folder / "corpus" / name).write_bytes(data)
