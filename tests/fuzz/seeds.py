"""Seeds for whole boots: what the shipped scenarios put on a device, in the order in which service.cpp reads it."""

from vortadev import content, records, scenario

END = b"\x1e"  # closes a text of an input
CORVEL, RIGHT_CRC = 1, 32  # second byte of an input
META, HEADER = records.FULLDUMP_META, records.REASON_HEADER


def near(record, raw, flag, offset):
    """The record with its full dump moved to where the small userdata of the target has room."""
    moved = bytearray(raw)
    if record.number(raw, flag) == records.FULLDUMP_RESERVED:
        record.put(moved, offset, 4096)
    return bytes(moved)


def boot(phone):
    near_meta = near(META, phone.meta, "reservedFlag", "dumpOffset")
    extra = CORVEL if "-h" in phone.arguments else RIGHT_CRC if near_meta != phone.meta else 0
    header = near(HEADER, phone.reason_header, "fulldumpReservedFlag", "fulldumpOffset")
    dump = phone.fulldump.header if phone.fulldump else bytes(records.DUMP_HEADER.size)
    properties = "".join(f"{name}={value}\n" for name, value in phone.properties.items()).encode()
    board_id = (phone.board_id or b"").ljust(16, b"\0")[:16]
    log = content.render(phone.logs["xbl_abl"], "xbl_abl")[:200].replace(END, b"")
    files = {entry.path.rpartition("/")[2]: entry for entry in phone.data}
    history = content.render(files["history.log"].fill, "history.log")[:300] if "history.log" in files else b""
    texts = [text + END for text in (properties, phone.cmdline, phone.pon_log or b"")]
    return b"".join(
        [bytes([0, extra, 0, 0]), header, phone.minidump.header, near_meta, dump, *texts, board_id, log, END, history]
    )


def make(corpus):
    """Writes a file for each scenario."""
    for name in scenario.shipped():
        (corpus / name).write_bytes(boot(scenario.load(name)))
