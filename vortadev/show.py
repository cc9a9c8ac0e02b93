"""A report in words."""
from __future__ import annotations

from typing import Dict, List

from vortadev import records
from vortadev.errors import size_text
from vortadev.reading import Report

LABEL_WIDTH = 24
RESET_REASONS = {records.RESET_NORMAL: "normal", records.RESET_ABNORMAL: "abnormal"}
RESET_TYPES = {records.RESET_WARM: "warm reset: the reason below stands"}
RESERVED = records.magic_text(records.FULLDUMP_RESERVED)


def words(report: Report, history_lines: int = 10) -> str:
    lines = [f"{report['path']}: {report['kind']}"]
    lines += [report["description"]] if report["description"] else []
    lines += [f"Problem: {problem}" for problem in report["problems"]]
    if "reasonHeader" in report:
        lines += _reason(report["reasonHeader"])
    dumps = {"minidump": "minidump", "fulldump": "full dump"}
    if any(name in report for name in dumps):
        lines.append("Dump headers")
        lines += [_row(label, _dump(report[name])) for name, label in dumps.items() if name in report]
    if "meta" in report:
        lines += _meta(report["meta"])
    if "dumps" in report:
        lines.append(f"Collected boots: {len(report['dumps'])}")
        lines += [line for folder in report["dumps"] for line in _folder(folder)]
    fulldumps = report.get("fulldumps", {"files": {}})
    if fulldumps["files"] or "problem" in fulldumps:
        lines += ["Collected full dumps", *_folder(fulldumps)]
    if "history" in report:
        lines += _history(report["history"], history_lines)
    return "\n".join(lines) + "\n"


def _row(label: str, text: str) -> str:
    return f"  {label}".ljust(LABEL_WIDTH - 1) + f" {text}"


def _hex(number: int) -> str:
    return f"0x{number:X}"


def _word(word: str, meanings: Dict[int, str]) -> str:
    """A magic word with what it means; any other value is told as no such word."""
    known = {records.magic_text(number): meaning for number, meaning in meanings.items()}
    unknown = "not set" if word == records.magic_text(0) else "not a word that is known here"
    return f"{word}  {known.get(word, unknown)}"


def _flagged(text: str, flag: str) -> str:
    quoted = f'"{text}"' if text else ""
    if flag == records.magic_text(records.TEXT_VALID):
        return quoted or "empty"
    return (f"{quoted}  not valid" if quoted else "none") + f" (flag {flag})"


def _corvel(corvel: int) -> str:
    if not corvel:
        return "never written"
    tag, expected = _hex(corvel >> 48), f"{records.CORVEL_TAG >> 48:X}"
    corrected = "corrected" if corvel & records.CORVEL_CORRECTED else "not corrected"
    tag = expected if corvel >> 48 == records.CORVEL_TAG >> 48 else f"{tag} (expected {expected})"
    return f"{_hex(corvel)}  tag {tag}, {corrected}, payload {_hex(corvel & (records.CORVEL_CORRECTED - 1))}"


def _reason(header: Report) -> List[str]:
    lines = ["Reason node (rawdump)"]
    lines += [_row("damaged", header["problem"])] if "problem" in header else []
    if "corvel" not in header:
        return lines
    level = header["bootLevel"]
    meaning = "abnormal: logs are to be saved" if level >= records.ABNORMAL_LEVEL else "normal: no logs to save"
    board, known = header["boardId"], header["boardIdMagic"] == records.BOARD_ID_MAGIC
    user = header["userType"]
    reserved, flag = header["fulldumpReservedFlag"] == RESERVED, header["fulldumpReservedFlag"]
    offset = _hex(header["fulldumpOffset"])
    return lines + [
        _row("reset reason", _word(header["innerResetReason"], RESET_REASONS)),
        _row("reset type", _word(header["resetType"], RESET_TYPES)),
        _row("boot level", f"{level}  {meaning}"),
        _row("category", _flagged(header["mreasonStr"], header["mreasonStrFlag"])),
        _row("detail", _flagged(header["sreasonStr"], header["sreasonStrFlag"])),
        "Other fields of the reason header",
        _row("corvel value", _corvel(header["corvel"])),
        _row("user type", f'"{user}"' if user else "not stored"),
        _row("board", str(board) if known else f"not stored (magic {_hex(header['boardIdMagic'])})"),
        _row("full dump descriptor", _reserved("reserved", offset) if reserved else _not_reserved(flag)),
    ]


def _reserved(what: str, offset: str) -> str:
    return f"{what} at userdata offset {offset}"


def _not_reserved(flag: str) -> str:
    return f"nothing reserved (flag {flag})"


def _dump(header: Report) -> str:
    at = _hex(header["offset"])
    if "problem" in header:
        return f"damaged: {header['problem']}"
    if not any(header[field.name] for field in records.DUMP_HEADER.fields):
        return f"nothing waits, the header at {at} is clear"
    waits = "a dump waits" if header["waiting"] else "nothing waits"
    return f"{waits} at {at}, flag {_hex(header['flag'])}, texts \"{header['text0']}\" \"{header['text1']}\""


def _meta(meta: Report) -> List[str]:
    lines = ["Full dump meta record (bootfail_info)"]
    if "problem" in meta:
        return lines + [_row("damaged", meta["problem"])]
    if meta["magic"] != records.magic_text(records.META_MAGIC) or meta["magicTail"] != "Z":
        return lines + [_row("record", f"none (magic {meta['magic']})")]
    crc, expected = _hex(meta["crc"]), _hex(meta["crcExpected"])
    size = f"{size_text(meta['dumpSize'])} reserved"
    reserved = meta["reservedFlag"] == RESERVED
    return lines + [
        _row("checksum", f"holds ({crc})" if meta["crcHolds"] else f"broken: {crc}, expected {expected}"),
        _row("user type", f'"{meta["userType"]}"'),
        _row("dump", _reserved(size, _hex(meta["dumpOffset"])) if reserved else _not_reserved(meta["reservedFlag"])),
    ]


def _folder(folder: Report) -> List[str]:
    lines = [f"  {folder['name']}  {size_text(folder['size'])}  {'DONE' if folder['done'] else 'no marker'}"]
    lines += [f"    {folder['problem']}"] if "problem" in folder else []
    return lines + [f"    {size_text(size):>10}  {name}" for name, size in folder["files"].items()]


def _history(history: Report, wanted: int) -> List[str]:
    entries = history["entries"]
    title = f"History: {len(entries)} line{'' if len(entries) == 1 else 's'}"
    title += f", the last {wanted}" if len(entries) > wanted else ""
    title += f", {history['damagedBytes']} bytes damaged" if history["damagedBytes"] else ""
    title += f", {history['problem']}" if "problem" in history else ""
    shown = entries[max(len(entries) - wanted, 0) :]
    rows = [{name: name for name in ("time", "category", "reason")}, *shown] if entries else []
    widest = max((len(row["category"]) for row in rows), default=0)
    return [title] + [f"  {row['time']:<24} {row['category']:<{widest}}  {row['reason']}" for row in rows]
