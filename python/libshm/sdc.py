"""The SDC ring (section 26): write, export, size, clear, start-up, and
registered consumers."""
import ctypes
import time
from collections.abc import Iterator
from types import TracebackType
from typing import NamedTuple, Optional, Union

from . import _ffi
from ._ffi import lib
from .core import SDC, Error, _Bytes, check, lock, read, read_unlocked


def sdc_init() -> None:
    """Restore section 26 from the recovery file when it is valid, else
    check the header and sign it. For the process that brings the store up."""
    check("Vond_shm_init_sdc", lib.Vond_shm_init_sdc(), SDC)


def sdc_write(data: _Bytes) -> None:
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


class PollEvents(NamedTuple):
    """One poll of a Consumer: the bytes and what happened to the stream.

    ``cleared``: the ring was cleared since the previous poll ("the SDC ring
    was cleared"); ``data`` is then what the ring holds now, as its header
    describes it. ``overrun``: at least this many bytes were overwritten
    before they were read (a lower bound: a whole number of laps between two
    polls cannot be seen). ``moved``: the slot's read position was not where
    this consumer left it (another poller of the same name, a restore, a
    repair) or named no ring index; the consumer started again at the ring's
    oldest byte, so ``data`` may repeat bytes given before.
    """
    data: bytes
    cleared: bool = False
    overrun: int = 0
    moved: bool = False


_MASK = _ffi.SDC_RING_SIZE - 1


def _sdc_address() -> int:
    """Where section 26 is mapped (the caller holds its lock, so it is attached)."""
    address = _ffi.gShmData[_ffi.SHM_SEC_SDC]
    if not address:
        raise Error("Vond_shm_init_shm", 0, "section 26 is not mapped")
    return int(address)


def _header(raw: bytes) -> _ffi.SdcHeader:
    header = _ffi.SdcHeader.from_buffer_copy(raw)
    if header.Head >= _ffi.SDC_RING_SIZE or header.Tail >= _ffi.SDC_RING_SIZE:
        raise Error("Vond_shm_memread", 0, f"the SDC header's Head/Tail ({header.Head}/{header.Tail}) "
                                           "are out of range: the ring cannot be followed")
    return header


def _read_header() -> _ffi.SdcHeader:
    return _header(read(_ffi.SHM_SEC_SDC, _ffi.SDC_HEADER_OFFSET, ctypes.sizeof(_ffi.SdcHeader)))


def _is_empty(h: _ffi.SdcHeader) -> bool:
    return bool(h.Head == 0 and h.Tail == 0 and h.Written == 0)


def _is_full(h: _ffi.SdcHeader) -> bool:
    return bool(h.Head == (h.Tail + 1) & _MASK)


def _content_size(h: _ffi.SdcHeader) -> int:
    """The count an export returns."""
    return _ffi.SDC_RING_SIZE if _is_full(h) else 0 if _is_empty(h) else int(h.Tail) + 1


class _WriterTrack:
    """Where the writer stands in the byte stream, followed from one header
    to the next: ``end`` counts the bytes written since the ring was last
    seen empty or cleared, as far as headers tell (a lower bound)."""

    def __init__(self) -> None:
        self.seen, self.was_full, self.end = False, False, 0

    def advance(self, h: _ffi.SdcHeader) -> bool:
        """Takes a new header; True when it shows a clear since the last one:
        the ring went back to empty, Tail went back while filling, or a full
        ring is filling again."""
        cleared = False
        if _is_full(h):  # the smallest count past the last one whose index is Tail + 1
            base = max(self.end if self.seen else 0, _ffi.SDC_RING_SIZE)
            end = base + ((h.Tail + 1 - base) & _MASK)
        elif _is_empty(h):
            end, cleared = 0, self.seen and self.end != 0
        else:
            end = h.Tail + 1
            cleared = self.seen and (self.was_full or end < self.end)
        self.seen, self.was_full, self.end = True, _is_full(h), end
        return cleared


class Consumer:
    """A registered SDC application, one of eight slots in the store.

    Registering an unknown name starts it at the ring's oldest byte (the
    library sets its position to Head), so its first poll delivers what the
    ring holds after that byte; registering a known name keeps its position.
    On a ring that was empty, the library's first append of n > 1 bytes
    leaves Tail one index past them: a consumer then gets bytes 1 to n - 1
    and one stale byte. Write one byte first to start clean.

    ``poll()`` returns bytes; ``poll_events()`` returns the same poll as a
    PollEvents record that also says whether the ring was cleared, how many
    bytes an overrun lost and whether the slot's position had been moved.
    The consumer also counts them for callers of poll(), iteration and
    follow(): ``clears``, ``overrun`` (bytes lost, a lower bound) and
    ``moves`` since it was made.

    ``close()`` frees the slot (only while it still holds this name); the
    consumer is a context manager that closes it on exit. A consumer that is
    never closed keeps its slot in the store for good.
    """

    def __init__(self, name: Union[str, bytes]) -> None:
        if not isinstance(name, (str, bytes)):
            raise TypeError(f"an application name must be a str or bytes, not {type(name).__name__}")
        raw = name.encode() if isinstance(name, str) else name
        if not 1 <= len(raw) <= _ffi.SDC_APP_NAME_SIZE - 1 or b"\0" in raw:
            raise ValueError(f"application name {name!r}: 1 to 20 bytes, no NUL")
        app_id = ctypes.c_int32(-1)
        check("Vond_shm_periodic_register_sdc",
              lib.Vond_shm_periodic_register_sdc(raw, ctypes.byref(app_id)),
              {-1: "all 8 application slots are taken, or the SDC header is unreadable or out of range"})
        self.name, self.id, self._raw = name, app_id.value, raw
        self._buffer = ctypes.create_string_buffer(_ffi.SDC_POLL_BUFFER_SIZE)
        self.clears = self.overrun = self.moves = 0
        self._closed = False
        h = _read_header()
        self._writer = _WriterTrack()
        self._writer.advance(h)
        # Where this consumer left the slot, and the stream position after the
        # last byte it has been given. On an empty ring the slot's position 0
        # stands for index 0, which a poll never delivers: its first byte is
        # that at index 1.
        self._expected = self._last(h)
        self._delivered = 1 if _is_empty(h) else self._writer.end - ((h.Tail - self._expected) & _MASK)

    def __repr__(self) -> str:
        return f"Consumer({self.name!r}, id={self.id})"

    def __enter__(self) -> "Consumer":
        return self

    def __exit__(self, kind: Optional[type[BaseException]], value: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self.close()

    def _slot_offset(self) -> int:
        return _ffi.ilast_offset(self.id) - int(_ffi.SdcAppEntry.iLast.offset)

    def _last(self, h: _ffi.SdcHeader) -> int:
        return int(h.SDCAppTable[self.id].iLast)

    def _holds_name(self, slot: bytes) -> bool:
        """The slot's name equals ours as the library compares names."""
        return slot[:len(self._raw)] == self._raw and slot[len(self._raw)] == 0

    def close(self) -> bool:
        """Free the slot: under section 26's lock, its 25 bytes are zeroed if
        it still holds this consumer's name. True when it was freed; False
        when it holds something else (unregistered, taken by another name)
        or the consumer was closed before. The consumer cannot poll after.
        If the lock cannot be taken, Error is raised and the consumer stays
        open (close() can be called again)."""
        if self._closed:
            return False
        size = ctypes.sizeof(_ffi.SdcAppEntry)
        with lock(_ffi.SHM_SEC_SDC):
            self._closed = True
            holds = self._holds_name(read_unlocked(_ffi.SHM_SEC_SDC, self._slot_offset(), size))
            if holds:
                ctypes.memset(_sdc_address() + self._slot_offset(), 0, size)
        return holds

    def _resync(self) -> PollEvents:
        """Under section 26's lock: the ring's whole content, as the header
        describes it, and the slot's position moved to Tail."""
        section = _ffi.SHM_SEC_SDC
        with lock(section):
            h = _header(read_unlocked(section, _ffi.SDC_HEADER_OFFSET, ctypes.sizeof(_ffi.SdcHeader)))
            cleared = self._writer.advance(h)
            if not self._holds_name(bytes(h.SDCAppTable[self.id].Name) + b"\0"):
                raise Error("Vond_shm_periodic_get_sdc", 0, f"slot {self.id} no longer holds {self.name!r} "
                                                            "(unregistered or taken by another name)")
            count = _content_size(h)
            oldest = h.Head if _is_full(h) else 0
            first = min(count, _ffi.SDC_RING_SIZE - oldest)
            data = read_unlocked(section, oldest, first) + read_unlocked(section, 0, count - first)
            ctypes.memmove(_sdc_address() + _ffi.ilast_offset(self.id),
                           h.Tail.to_bytes(4, "little"), 4)
        self._expected = h.Tail
        self._delivered = 1 if _is_empty(h) else self._writer.end
        return PollEvents(data, cleared=cleared)

    def _library_poll(self) -> int:
        """One library poll: the count the library reports."""
        length = ctypes.c_uint32()
        check("Vond_shm_periodic_get_sdc",
              lib.Vond_shm_periodic_get_sdc(ctypes.byref(length), self._buffer, self.id),
              {-1: "header unreadable or out of range, slot not registered, position out of range, "
                   "or a section access failed"})
        return length.value

    def poll_events(self) -> PollEvents:
        """The bytes written since the previous poll, with what happened.

        Normally this is the library's poll. After the writer went round the
        ring's end the library reports only the bytes from the ring's start
        (Tail + 1) although its buffer holds the older bytes up to the end
        ahead of them: every byte the buffer holds is returned, 524288 +
        Tail - before. An overrun (the writer lapped this consumer) is
        counted from the headers read before and after the poll.

        After a clear the library's poll would compare the new Tail with the
        stale position and hand over old ring bytes. Headers are therefore
        compared from poll to poll: when the ring went back to empty, Tail
        went back while the ring was not full, or a full ring is filling
        again, the ring was cleared. The consumer then reads, under section
        26's lock, what the ring holds as its header describes it (as
        sdc_export does: indexes 0 to Tail, so a first write of n > 1 bytes
        after the clear comes with one byte it did not write) and moves the
        slot's position to Tail; ``cleared`` says so. It does the same, with
        ``cleared`` also set, when the slot's position lies past Tail in a
        ring that is not full (only a clear moves Tail back behind it), and
        with ``moved`` when the position is not where this consumer left it
        or names no ring index. A clear followed by more than a ring of
        writes before the next poll cannot be told from an overrun.

        Raises Error (code 0) when the position was changed by someone else
        during the library's poll (the count cannot be known; the bytes of
        that poll are lost) or the slot no longer holds this name, and
        ValueError once the consumer is closed.
        """
        if self._closed:
            raise ValueError(f"{self!r} is closed")
        h = _read_header()
        cleared = self._writer.advance(h)
        last = self._last(h)
        behind_tail = not _is_full(h) and last > h.Tail
        moved = last != self._expected or last >= _ffi.SDC_RING_SIZE
        if cleared or behind_tail or moved:
            events = self._resync()
            events = events._replace(cleared=events.cleared or cleared or behind_tail, moved=moved)
        else:
            length = self._library_poll()
            after = _read_header()
            if self._writer.advance(after):
                # Cleared between the header read and the poll: the poll's
                # bytes may be old content. They are dropped, the ring read afresh.
                events = self._resync()._replace(cleared=True)
            else:
                events = self._account(last, length, after)
        self.clears += events.cleared
        self.overrun += events.overrun
        self.moves += events.moved
        return events

    def _account(self, before: int, length: int, after: _ffi.SdcHeader) -> PollEvents:
        tail = self._last(after)
        if length == 0:
            count = 0
        elif tail > before and length == tail - before:
            count = length
        elif tail < before and length == tail + 1:
            count = _ffi.SDC_RING_SIZE + tail - before
        else:
            raise Error("Vond_shm_periodic_get_sdc", 0,
                        f"slot {self.id}'s read position changed during the poll (from {before} to {tail}, "
                        f"length {length}): the delivered bytes cannot be told")
        self._expected = tail
        # Where the library's poll ended (its Tail, now the slot's position)
        # in the stream; what lies between the last delivery and the bytes
        # now delivered was overwritten before it was read.
        poll_end = self._writer.end - ((after.Tail - tail) & _MASK)
        overrun = max(0, poll_end - self._delivered - count)
        self._delivered = 1 if _is_empty(after) else poll_end
        return PollEvents(ctypes.string_at(self._buffer, count), overrun=overrun)

    def poll(self) -> bytes:
        """The bytes of poll_events(); its events are counted in ``clears``,
        ``overrun`` and ``moves``."""
        return self.poll_events().data

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
