"""The SDC ring (section 26): write, export, size, clear, start-up, and
registered consumers."""
import ctypes
import time
from typing import Iterator, Optional

from . import _ffi
from ._ffi import lib
from .core import READ, SDC, Error, check


def sdc_init() -> None:
    """Restore section 26 from the recovery file when it is valid, else
    check the header and sign it. For the process that brings the store up."""
    check("Vond_shm_init_sdc", lib.Vond_shm_init_sdc(), SDC)


def sdc_write(data) -> None:
    """Append the bytes of ``data``; a full ring overwrites its oldest bytes.

    Data longer than the ring is written in ring-sized pieces, each one call;
    the pieces are not atomic as a whole. Empty data writes nothing (the
    library would refuse a count of 0).
    """
    data = bytes(memoryview(data))
    for start in range(0, len(data), _ffi.SDC_RING_SIZE):
        piece = data[start:start + _ffi.SDC_RING_SIZE]
        length = ctypes.c_uint32(len(piece))
        check("Vond_shm_write_sdc", lib.Vond_shm_write_sdc(ctypes.byref(length), piece), SDC)


def sdc_export() -> bytes:
    """The whole ring, oldest byte first (at most 524288 bytes)."""
    buffer = ctypes.create_string_buffer(_ffi.SDC_EXPORT_BUFFER_SIZE)
    length = ctypes.c_uint32()
    check("Vond_shm_export_sdc", lib.Vond_shm_export_sdc(ctypes.byref(length), buffer), SDC)
    return ctypes.string_at(buffer, min(length.value, _ffi.SDC_EXPORT_BUFFER_SIZE))


def sdc_size() -> int:
    """The number of bytes an export would return now."""
    size = ctypes.c_uint32()
    check("Vond_shm_get_size_sdc", lib.Vond_shm_get_size_sdc(ctypes.byref(size)), SDC)
    return size.value


def sdc_clear() -> None:
    """Empty the ring; registered applications and their positions stay."""
    check("Vond_shm_clear_sdc", lib.Vond_shm_clear_sdc(), SDC)


class Consumer:
    """A registered SDC application (one of eight slots, kept in the store
    for good: the library has no unregistration).

    Registering an unknown name starts it at the ring's oldest byte (the
    library sets its position to Head), so its first poll delivers what the
    ring holds after that byte; registering a known name keeps its position.
    On a ring that was empty, the library's first append of n > 1 bytes
    leaves Tail one index past them: a consumer then gets bytes 1 to n - 1
    and one stale byte. Write one byte first to start clean.
    """

    def __init__(self, name: str):
        raw = name.encode() if isinstance(name, str) else bytes(name)
        if not 1 <= len(raw) <= _ffi.SDC_APP_NAME_SIZE - 1 or b"\0" in raw:
            raise ValueError(f"application name {name!r}: 1 to 20 bytes, no NUL")
        app_id = ctypes.c_int32(-1)
        check("Vond_shm_periodic_register_sdc",
              lib.Vond_shm_periodic_register_sdc(raw, ctypes.byref(app_id)),
              {-1: "all 8 application slots are taken, or the SDC header is unreadable or out of range"})
        self.name, self.id = name, app_id.value
        self._buffer = ctypes.create_string_buffer(_ffi.SDC_POLL_BUFFER_SIZE)

    def __repr__(self):
        return f"Consumer({self.name!r}, id={self.id})"

    def _position(self) -> int:
        raw = ctypes.create_string_buffer(4)
        check("Vond_shm_memread", lib.Vond_shm_memread(_ffi.SHM_SEC_SDC, raw, _ffi.ilast_offset(self.id), 4), READ)
        return int.from_bytes(raw.raw, "little")

    def poll(self) -> bytes:
        """The bytes written since the previous poll (b"" when none).

        After the writer went round the ring's end the library reports only
        the bytes from the ring's start (Tail + 1) although its buffer holds
        the older bytes up to the end ahead of them. This method reads the
        slot's position before and after the poll (a successful poll sets it
        to Tail) and returns every byte the buffer holds: Tail - before
        bytes, or 524288 + Tail - before after a wrap. When the position was
        changed by someone else meanwhile (a second poller of the same slot,
        a restore) the count cannot be known and Error with code 0 is raised;
        the bytes of that poll are lost. Bytes overwritten before a poll are
        gone without notice, as in the library.
        """
        before = self._position()
        length = ctypes.c_uint32()
        check("Vond_shm_periodic_get_sdc",
              lib.Vond_shm_periodic_get_sdc(ctypes.byref(length), self._buffer, self.id),
              {-1: "header unreadable or out of range, slot not registered, position out of range, "
                   "or a section access failed"})
        if length.value == 0:
            return b""
        tail = self._position()
        if tail > before and length.value == tail - before:
            count = length.value
        elif tail < before and length.value == tail + 1:
            count = _ffi.SDC_RING_SIZE + tail - before
        else:
            raise Error("Vond_shm_periodic_get_sdc", 0,
                        f"slot {self.id}'s read position changed during the poll (from {before} to {tail}, "
                        f"length {length.value}): the delivered bytes cannot be told")
        return ctypes.string_at(self._buffer, count)

    def __iter__(self) -> Iterator[bytes]:
        """Poll until nothing new is left; each non-empty poll is one chunk."""
        while chunk := self.poll():
            yield chunk

    def follow(self, interval: float = 0.5, timeout: Optional[float] = None) -> Iterator[bytes]:
        """Like tail -f: yield each non-empty poll, sleeping ``interval``
        seconds after an empty one, until ``timeout`` seconds have passed
        (None: for ever)."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            chunk = self.poll()
            if chunk:
                yield chunk
            remaining = None if deadline is None else deadline - time.monotonic()
            if remaining is not None and remaining <= 0:
                return
            if not chunk:
                time.sleep(interval if remaining is None else min(interval, remaining))
