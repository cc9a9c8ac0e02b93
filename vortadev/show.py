"""A report in words."""

from __future__ import annotations

from typing import Dict, List

from . import records
from .errors import size_text
from .reading import Report

LABEL_WIDTH = 24
RESET_REASONS = {records.RESET_NORMAL: "normal", records.RESET_ABNORMAL: "abnormal"}
RESET_TYPES = {records.RESET_WARM: "warm reset: the reason below stands"}
RESERVED = records.magic_text(records.FULLDUMP_RESERVED)


def words(report: Report, latest: int = 10) -> str:
    lines = [f"{report['path']}: {report['kind']}"]
    lines += [report["description"]] if report["description"] else []
    lines += [f"Problem: {problem}" for problem in report["problems"]]
    if "reasonHeader" in report:
        lines += reason_lines(report["reasonHeader"])
    dumps = {"minidump": "minidump", "fulldump": "full dump"}
    if any(name in report for name in dumps):
        lines.append("Dump headers")
        lines += [row(label, dump_text(report[name])) for name, label in dumps.items() if name in report]
    if "meta" in report:
        lines += meta_lines(report["meta"])
    if "dumps" in report:
        lines.append(f"Collected boots: {len(report['dumps'])}")
        lines += [line for folder in report["dumps"] for line in folder_lines(folder)]
    fulldumps = report.get("fulldumps", {"files": {}})
    if fulldumps["files"] or "problem" in fulldumps:
        lines += ["Collected full dumps", *folder_lines(fulldumps)]
    if "history" in report:
        lines += history_lines(report["history"], latest)
    return "\n".join(lines) + "\n" + "".join(words(image) for image in report.get("images", []))


def row(label: str, text: str) -> str:
    return f"  {label}".ljust(LABEL_WIDTH - 1) + f" {text}"


def hexadecimal(number: int) -> str:
    return f"0x{number:X}"


def magic_word(word: str, meanings: Dict[int, str]) -> str:
    """A magic word with what it means; any other value is told as no such word."""
    known = {records.magic_text(number): meaning for number, meaning in meanings.items()}
    unknown = "not set" if word == records.magic_text(0) else "not a word that is known here"
    return f"{word}  {known.get(word, unknown)}"


def flagged_text(text: str, flag: str) -> str:
    quoted = f'"{text}"' if text else ""
    if flag == records.magic_text(records.TEXT_VALID):
        return quoted or "empty"
    return (f"{quoted}  not valid" if quoted else "none") + f" (flag {flag})"


def corvel_text(corvel: int) -> str:
    if not corvel:
        return "never written"
    tag, expected = hexadecimal(corvel >> 48), f"{records.CORVEL_TAG >> 48:X}"
    corrected = "corrected" if corvel & records.CORVEL_CORRECTED else "not corrected"
    tag = expected if corvel >> 48 == records.CORVEL_TAG >> 48 else f"{tag} (expected {expected})"
    return (
        f"{hexadecimal(corvel)}  tag {tag}, {corrected}, payload {hexadecimal(corvel & (records.CORVEL_CORRECTED - 1))}"
    )


def reason_lines(header: Report) -> List[str]:
    lines = ["Reason node (rawdump)"]
    lines += [row("damaged", header["problem"])] if "problem" in header else []
    if "corvel" not in header:
        return lines
    level = header["bootLevel"]
    meaning = "abnormal: logs are to be saved" if level >= records.ABNORMAL_LEVEL else "normal: no logs to save"
    board, known = header["boardId"], header["boardIdMagic"] == records.BOARD_ID_MAGIC
    user = header["userType"]
    return lines + [
        row("reset reason", magic_word(header["innerResetReason"], RESET_REASONS)),
        row("reset type", magic_word(header["resetType"], RESET_TYPES)),
        row("boot level", f"{level}  {meaning}"),
        row("category", flagged_text(header["mreasonStr"], header["mreasonStrFlag"])),
        row("detail", flagged_text(header["sreasonStr"], header["sreasonStrFlag"])),
        "Other fields of the reason header",
        row("corvel value", corvel_text(header["corvel"])),
        row("user type", f'"{user}"' if user else "not stored"),
        row("board", str(board) if known else f"not stored (magic {hexadecimal(header['boardIdMagic'])})"),
        row(
            "full dump descriptor", reserved_text(header["fulldumpReservedFlag"], "reserved", header["fulldumpOffset"])
        ),
    ]


def reserved_text(flag: str, what: str, offset: int) -> str:
    return f"{what} at userdata offset {hexadecimal(offset)}" if flag == RESERVED else f"nothing reserved (flag {flag})"


def dump_text(header: Report) -> str:
    place = hexadecimal(header["offset"])
    if "problem" in header:
        return f"damaged: {header['problem']}"
    if not any(header[field.name] for field in records.DUMP_HEADER.fields):
        return f"nothing waits, the header at {place} is clear"
    waits = "a dump waits" if header["waiting"] else "nothing waits"
    return f"{waits} at {place}, flag {hexadecimal(header['flag'])}, texts \"{header['text0']}\" \"{header['text1']}\""


def meta_lines(meta: Report) -> List[str]:
    lines = ["Full dump meta record (bootfail_info)"]
    if "problem" in meta:
        return lines + [row("damaged", meta["problem"])]
    if meta["magic"] != records.magic_text(records.META_MAGIC) or meta["magicTail"] != "Z":
        return lines + [row("record", f"none (magic {meta['magic']})")]
    crc, expected = hexadecimal(meta["crc"]), hexadecimal(meta["crcExpected"])
    size = f"{size_text(meta['dumpSize'])} reserved"
    return lines + [
        row("checksum", f"holds ({crc})" if meta["crcHolds"] else f"broken: {crc}, expected {expected}"),
        row("user type", f'"{meta["userType"]}"'),
        row("dump", reserved_text(meta["reservedFlag"], size, meta["dumpOffset"])),
    ]


def folder_lines(folder: Report) -> List[str]:
    lines = [f"  {folder['name']}  {size_text(folder['size'])}  {'DONE' if folder['done'] else 'no marker'}"]
    lines += [f"    {folder['problem']}"] if "problem" in folder else []
    return lines + [f"    {size_text(size):>10}  {name}" for name, size in folder["files"].items()]


def history_lines(history: Report, wanted: int) -> List[str]:
    entries = history["entries"]
    title = f"History: {len(entries)} line{'' if len(entries) == 1 else 's'}"
    title += f", the last {wanted}" if len(entries) > wanted else ""
    title += f", {history['damagedBytes']} bytes damaged" if history["damagedBytes"] else ""
    title += f", {history['problem']}" if "problem" in history else ""
    shown = entries[max(len(entries) - wanted, 0) :]
    rows = [{name: name for name in ("time", "category", "reason")}, *shown] if entries else []
    widest = max((len(item["category"]) for item in rows), default=0)
    return [title] + [f"  {item['time']:<24} {item['category']:<{widest}}  {item['reason']}" for item in rows]
