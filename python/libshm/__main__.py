"""python3 -m libshm [--json] VIEW: read-only views of the store for test rigs.

info: the attachment ids, system id, generation, platform type and SDC size.
platform: every platform getter and predicate, the blade slot and the set
progress bits. sdc-status: the SDC ring's header and its applications, with
how far behind each is. --json prints one JSON document ("schema": 1) whose
keys are the binding's names (libshm.system_id() is "system_id").

Exit status 0, or 1 with the error on stderr (also when the library cannot be
loaded). Like `shmtool info` the views only look: without a store they say
"no store: segment key 77777779 does not exist" and create nothing; a
segment without one of its semaphore sets is reported, never completed.
"""
import argparse
import ctypes
import errno
import json
import os
import sys
from typing import Any, Callable

import libshm
from libshm import _ffi
from libshm.core import GETTERS, PREDICATES

SEGMENT_KEY = 77777779
# (key, members, name) of the store's semaphore sets, as the library makes them.
SETS = [(77777777, 1, "library lock"), (77777812, 34, "section lock")]


def store_problem() -> str | None:
    """Why the store cannot be attached without creating part of it, or None.

    Attaching through the library creates whatever is missing, so the objects
    are looked up first, by key and without IPC_CREAT."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.shmget(SEGMENT_KEY, ctypes.c_size_t(0), 0) < 0:
        error = ctypes.get_errno()
        if error == errno.ENOENT:
            return f"no store: segment key {SEGMENT_KEY} does not exist"
        return f"cannot attach the store: shmget({SEGMENT_KEY}): {os.strerror(error)}"
    for key, members, name in SETS:
        if libc.semget(key, members, 0) < 0:
            error = ctypes.get_errno()
            if error == errno.ENOENT:
                return (f"no store: segment key {SEGMENT_KEY} exists but its {name} semaphore set (key {key}) "
                        f"does not ('ipcrm -M {SEGMENT_KEY}' removes the segment)")
            return f"cannot attach the store: {name} set: semget({key}, {members}): {os.strerror(error)}"
    return None


def printable(raw: bytes) -> str:
    """Stored bytes up to their first NUL, printable ASCII kept, the rest as \\xNN."""
    raw = raw.split(b"\0", 1)[0]
    return "".join(chr(b) if 0x20 <= b < 0x7F and b != 0x5C else f"\\x{b:02x}" for b in raw)


def info() -> dict[str, Any]:
    libshm.attach()
    ids = libshm.attachment()
    return {"version": libshm.__version__, "library": libshm.library_path, "segment_id": ids.segment,
            "library_semaphore_set": ids.library_semaphores, "section_semaphore_set": ids.section_semaphores,
            "system_id": libshm.system_id(), "generation": libshm.generation(),
            "platform_type": libshm.platform_type(), "sdc_size": libshm.sdc_size()}


def platform() -> dict[str, Any]:
    doc: dict[str, Any] = {name: getattr(libshm, name)() for name in GETTERS + PREDICATES}
    doc["blade_slot"] = libshm.blade_slot() if doc["platform_type"] == 2 else None
    doc["quorx_progress"] = [bit for bit in range(32) if libshm.quorx_progress(bit)]
    return doc


def sdc_status() -> dict[str, Any]:
    """As `shmtool sdc status` shows it, from one locked read of the header."""
    raw = libshm.read(libshm.SHM_SEC_SDC, _ffi.SDC_HEADER_OFFSET, ctypes.sizeof(_ffi.SdcHeader))
    h = _ffi.SdcHeader.from_buffer_copy(raw)
    ring, valid = _ffi.SDC_RING_SIZE, h.Head < _ffi.SDC_RING_SIZE and h.Tail < _ffi.SDC_RING_SIZE
    full, empty = h.Head == (h.Tail + 1) % ring, h.Head == h.Tail == h.Written == 0
    state = "invalid" if not valid else "full" if full else "empty" if empty else "filling"
    applications = []
    for slot, app in enumerate(h.SDCAppTable):
        entry: dict[str, Any] = {"id": slot, "registered": app.Name != b""}  # ctypes stops at the NUL
        if entry["registered"]:
            entry.update(name=printable(app.Name), last=app.iLast, last_in_range=app.iLast < ring,
                         behind=(h.Tail - app.iLast) % ring if valid and app.iLast < ring else None)
        applications.append(entry)
    signature = h.Signature  # up to its NUL: "VondSDC" then a NUL is the valid one
    return {"state": state, "head": h.Head, "tail": h.Tail, "written": h.Written,
            "size": None if not valid else ring if full else 0 if empty else h.Tail + 1, "ring_size": ring,
            "signature": {"text": printable(signature), "valid": signature == b"VondSDC"},
            "applications": applications}


VIEWS: dict[str, Callable[[], dict[str, Any]]] = {"info": info, "platform": platform, "sdc-status": sdc_status}


def show(doc: dict[str, Any], prefix: str = "") -> None:
    for key, value in doc.items():
        if isinstance(value, dict):
            show(value, f"{prefix}{key} ")
        elif isinstance(value, list) and value and isinstance(value[0], dict):
            for item in value:
                print(f"{prefix}{key[:-1] if key.endswith('s') else key} "
                      + " ".join(f"{k}={'none' if v is None else v}" for k, v in item.items()))
        else:
            text = (" ".join(map(str, value)) or "none") if isinstance(value, list) else \
                "none" if value is None else value
            print(f"{prefix}{key.replace('_', ' ')}: {text}")


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m libshm", description=__doc__.splitlines()[0])
    parser.add_argument("--version", action="version", version=f"libshm {libshm.__version__}")
    parser.add_argument("--json", action="store_true", help="print one JSON document")
    parser.add_argument("view", choices=list(VIEWS), help="what to show")
    args = parser.parse_args(argv)
    problem = store_problem()
    if problem:
        print(f"libshm: {problem}", file=sys.stderr)
        return 1
    try:
        doc = VIEWS[args.view]()
    except libshm.Error as error:
        print(f"libshm: {error}", file=sys.stderr)
        return 1
    if args.json:
        print(json.dumps({"schema": 1, **doc}, indent=2))
    else:
        show(doc)
    return 0


if __name__ == "__main__":
    sys.exit(main())
