"""The JSON lines: an object a boot and one a phone. docs/report.md tells of each field."""

from __future__ import annotations

from datetime import datetime, timezone, tzinfo
import json
from typing import Any, Dict, Optional

from .evidence import Boot, KernelLog, Phone

SCHEMA = 1
Line = Dict[str, Any]


def of_whole(phone: Phone, zone: Optional[tzinfo]) -> str:
    """Of one phone: its boots in their order, then itself."""
    objects = [*(of_boot(phone, boot, zone) for boot in phone.boots), of_phone(phone, zone)]
    return "".join(json.dumps(found, ensure_ascii=False) + "\n" for found in objects)


def times(name: str, when: Optional[datetime], zone: Optional[tzinfo]) -> Line:
    return {name: when.isoformat(" ", "seconds") if when else None, f"{name}_utc": utc(when, zone)}


def utc(when: Optional[datetime], zone: Optional[tzinfo]) -> Optional[str]:
    """None also where a local time is there twice or not at all, when the clocks change."""
    if when is None or zone is None:
        return None
    try:
        either = {when.replace(tzinfo=zone, fold=fold).astimezone(timezone.utc) for fold in (0, 1)}
    except OverflowError:  # the first and the last day that there is
        return None
    return f"{either.pop():%Y-%m-%dT%H:%M:%SZ}" if len(either) == 1 else None


def of_boot(phone: Phone, boot: Boot, zone: Optional[tzinfo]) -> Line:
    kernel, found, fulldump = boot.kernel or KernelLog(), boot.collection, boot.fulldump
    return {
        "schema": SCHEMA,
        "kind": "boot",
        "phone": phone.name,
        "path": phone.path,
        "name": boot.time,
        **times("time", boot.when, zone),
        "clock_set": boot.is_set,
        "has_line": boot.category is not None,
        "category": boot.category,
        "reason": boot.reason,
        "restart": boot.restart.value,
        "unexpected": boot.restart.unexpected,
        "cause": boot.cause,
        "collection": found.state.value if found else None,
        "collection_path": found.path if found else None,
        "done": found.done if found else None,
        "minidump": found.minidump.value if found else None,
        "files": found.files if found else {},
        "fulldump": fulldump.state.value if fulldump else None,
        "fulldump_path": fulldump.path if fulldump else None,
        "fulldump_size": fulldump.size if fulldump else None,
        "kernel_version": kernel.version,
        **{name: getattr(kernel, name) for name in ("crash_line", "function", "signature", "seconds")},
    }


def of_phone(phone: Phone, zone: Optional[tzinfo]) -> Line:
    known = [boot.when for boot in phone.boots if boot.when and boot.is_set]
    versions = list(dict.fromkeys(boot.kernel.version for boot in phone.boots if boot.kernel and boot.kernel.version))
    store = phone.storage
    return {
        "schema": SCHEMA,
        "kind": "phone",
        "phone": phone.name,
        "path": phone.path,
        "boots": len(phone.boots),
        "unexpected": phone.unexpected,
        "days": phone.days,
        **times("first", min(known, default=None), zone),
        **times("last", max(known, default=None), zone),
        "kernel_version": versions[0] if len(versions) == 1 else None,
        "kernel_versions": versions,
        "attentions": [dict(vars(found)) for found in phone.attentions],
        "storage_size": store.size if store else None,
        "storage_limit": store.limit if store else None,
        "build": store.build if store else None,
        "next_removed": store.first if store else None,
        "images": list(phone.images),
        "waiting": phone.waiting if phone.images else None,
    }
