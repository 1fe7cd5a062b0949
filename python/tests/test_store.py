"""The binding against a fresh store per test (support.fresh_store)."""
import ctypes
import os
import struct
import unittest

from support import _ffi, fresh_store, libshm


def lock_value(section):  # semctl(GETVAL)
    return ctypes.CDLL(None).semctl(libshm.attachment().section_semaphores, section - 1, 12)


def consumer_position(consumer):  # the slot's iLast
    return struct.unpack("<I", libshm.read(26, _ffi.ilast_offset(consumer.id), 4))[0]


class Store(unittest.TestCase):
    @fresh_store
    def test_errors_carry_function_and_code(self):
        libc = ctypes.CDLL(None)
        stale = libc.shmget(77777779, 4096, 0o1666)  # a segment of the wrong size: attaching fails
        rows = [(lambda: libshm.read(6, 0, 1), "Vond_shm_memread", -1),
                (lambda: libshm.write(6, 0, b"x"), "Vond_shm_memwrite", -4),
                (lambda: libshm.lock(6).__enter__(), "Vond_shm_init_shm", -1),
                (lambda: libc.shmctl(stale, 0, None), None, None),  # IPC_RMID: the store can be made
                (lambda: libshm.set_bit(6, 6, 1), "Vond_shm_mem_set_bit_on_uint", -3),  # the word runs past the end
                (lambda: libshm.fru_info(7), "Vond_shm_get_fruinfo", 1),
                (lambda: (libshm.write(26, 524288, b"\xff" * 4), libshm.sdc_size()), "Vond_shm_get_size_sdc", -1)]
        for call, function, code in rows:
            if function is None:
                self.assertEqual(call(), 0)
                continue
            with self.assertRaises(libshm.Error, msg=function) as caught:
                call()
            e = caught.exception
            self.assertEqual((e.function, e.code, str(e)), (function, code, f"{function} returned {code}: {e.meaning}"))

    @fresh_store
    def test_bytes_and_platform_table(self):
        libshm.write(1, 5, b"\x00ab\x00\x00c\x00")
        libshm.set_bit(1, 16, 1 << 63)  # needs the 64-bit mask argument
        self.assertEqual(libshm.read(1, 5, 19), b"\x00ab\x00\x00c\x00" + b"\x00" * 11 + b"\x80")
        libshm.write(6, 4, bytes([2, 39, 7, 0, 5, 8, 0, 1]))
        self.assertEqual([libshm.platform_type(), libshm.system_id(), libshm.blade_slot(), libshm.generation(),
                          libshm.modular_chassis_type(), libshm.cpu_type(), libshm.is_qillan(), libshm.is_16g(),
                          libshm.is_amd(), libshm.is_ngm(), libshm.is_qv()], [2, 39, 7, 5, 8, 1] + [True] * 4 + [False])

    @fresh_store
    def test_lock_released_on_exception(self):
        with self.assertRaises(KeyError):
            with libshm.lock(6):
                self.assertEqual((lock_value(6), libshm.read(6, 4, 1, locked=False)), (0, b"\x00"))
                self.assertRaises(RuntimeError, libshm.read, 6, 0, 1)  # would wait for ever
                raise KeyError
        self.assertEqual((lock_value(6), libshm.read(6, 4, 1)), (1, b"\x00"))

    @fresh_store
    def test_consumer_across_the_wrap(self):
        libshm.sdc_write(b"\x01")  # then Tail marks the last byte written (see Consumer)
        consumer, written, received = libshm.Consumer("py"), b"", []
        for piece in [os.urandom(300000), os.urandom(300000)]:  # the second poll spans the ring's end
            libshm.sdc_write(piece)
            written, received = written + piece, received + list(consumer)
        self.assertEqual([len(chunk) for chunk in received], [300000, 300000])
        self.assertEqual(b"".join(received), written)
        self.assertEqual(libshm.sdc_export(), (b"\x01" + written)[-libshm.SDC_RING_SIZE:])
        libshm.sdc_write(b"xyz")
        self.assertEqual(list(consumer.follow(0.01, timeout=0.05)), [b"xyz"])

    @fresh_store
    def test_fru_block_length(self):
        libshm.write(22, 6, struct.pack("<HBHBBBBHI2s", 1, 1, 17, 0, 0x42, 3, 1, 5, 1000, b""))
        libshm.write(22, 1000, b"\x00FRU\x00\xff")
        self.assertEqual((libshm.fru_data(17), libshm.fru_class(3, 1)), (b"\x00FRU\x00", [(17, 0x42, 1)]))

    @fresh_store
    def test_log_hook(self):
        messages = []
        libshm.attach()
        libshm.set_log_hook(messages.append)
        libshm.write(6, 12, b"xy")  # clipped, with two messages
        libshm.set_log_hook(None)
        libshm.write(6, 12, b"xy")
        function = "Vond_shm_memwrite" if _ffi.HOOK_READS_PREFIX else None
        self.assertEqual([m[:3] + m[5:] for m in messages][:1],
                         [(1, 37, "The caller requested a length beyond the end of thesection.\n", function)])
        self.assertEqual(len(messages), 2)

    @fresh_store
    def test_consumer_across_clears(self):
        libshm.sdc_write(b"\x01")
        consumer = libshm.Consumer("py")
        libshm.sdc_write(os.urandom(4000))
        self.assertEqual(len(consumer.poll()), 4000)
        # (what happens before the poll, bytes written, expected events): a
        # clear seen as Tail going back, a lap seen as an overrun, a clear
        # seen as a full ring filling again (Tail went forward), and a clear
        # seen as an empty ring
        for clear, size, cleared, overrun in [(True, 80, True, 0), (False, 600000, False, 524288),
                                              (True, 100000, True, 0), (True, 0, True, 0)]:
            if clear:
                libshm.sdc_clear()
            written = os.urandom(size)
            libshm.sdc_write(written)
            events = consumer.poll_events()
            # after a clear: the ring as the header describes it (see Consumer)
            expected = libshm.sdc_export() if cleared else written[-len(events.data):]
            self.assertEqual((events.cleared, events.overrun, events.moved), (cleared, overrun, False), size)
            self.assertEqual((events.data, events.data[:size]), (expected, written if cleared else expected), size)
            self.assertEqual(consumer_position(consumer), struct.unpack_from("<I", libshm.read(26, 524292, 4))[0])
        self.assertEqual((consumer.clears, consumer.overrun), (3, 524288))
        libshm.sdc_write(b"\x02")  # into the empty ring: Tail stays 0
        libshm.sdc_write(b"tail")
        self.assertEqual(consumer.poll(), b"tail")

    @fresh_store
    def test_consumer_close(self):
        with libshm.Consumer("first") as first:
            second = libshm.Consumer("second")
        slot = _ffi.ilast_offset(0) - _ffi.SDC_APP_NAME_SIZE
        self.assertEqual(libshm.read(26, slot, 50), bytes(25) + b"second".ljust(21, b"\0") + bytes(4))
        self.assertRaises(ValueError, first.poll)
        libshm.write(26, slot + 25, b"other\0")  # slot 1 taken over by another name: it stays
        self.assertFalse(second.close())
        self.assertEqual(libshm.read(26, slot + 25, 6), b"other\0")
        self.assertEqual(libshm.Consumer("third").id, 0)
        fourth = libshm.Consumer("fourth")
        ctypes.CDLL(None).semctl(libshm.attachment().section_semaphores, 0, 0)  # IPC_RMID: no lock can be taken
        for _ in range(2):  # a close that could not lock leaves the consumer open
            self.assertRaises(libshm.Error, fourth.close)
