"""The binding's declarations and argument checks."""
import ctypes
import os
import pathlib
import re
import subprocess
import sys
import unittest

from support import HEADER, HERE, _ffi, fresh_store, libshm

BASE = {"int32_t": ctypes.c_int32, "uint32_t": ctypes.c_uint32, "uint16_t": ctypes.c_uint16, "uint8_t": ctypes.c_uint8,
        "uint64_t": ctypes.c_uint64, "FruInfo": _ffi.FruInfo, "FruDeviceList": _ffi.FruDeviceList}
UNTYPED = {"void": ctypes.c_void_p, "char": ctypes.c_char_p, "struct SHML_per_thread_data": ctypes.c_void_p}


def ctype(declaration):  # "const uint8_t *list" -> POINTER(c_uint8)
    base, pointer = re.fullmatch(r"(?:const )?(struct \w+|\w+)\s*(\*?)\s*\w*", declaration.strip()).groups()
    return (UNTYPED.get(base) or ctypes.POINTER(BASE[base])) if pointer else BASE[base]


class Declarations(unittest.TestCase):
    def test_prototypes_are_the_headers(self):
        source = re.sub(r"/\*.*?\*/", "", pathlib.Path(HEADER).read_text(), flags=re.S)
        header = {name: (result, args) for result, name, args
                  in re.findall(r"^((?:struct )?\w+\s*\**)\s*(\w+)\(([^)]*)\);", source, re.M)}
        for name in _ffi.PROTOTYPES:
            result, args = header[name]
            expected = (ctype(result), [] if args.strip() == "void" else [ctype(a) for a in args.split(",")])
            function = getattr(_ffi.lib, name)
            self.assertEqual((function.restype, function.argtypes), expected, name)

    def test_packed_layouts(self):
        self.assertEqual([ctypes.sizeof(t) for t in (_ffi.FruEntry, _ffi.FruDeviceList, _ffi.DimmWearPosition,
                                                     _ffi.DimmWearEntry, _ffi.SdcHeader)], [15, 258, 5, 18, 220])
        self.assertEqual([_ffi.FruEntry.dataOffset.offset, _ffi.FruDeviceList.entry.offset,
                          _ffi.SdcHeader.Signature.offset, _ffi.ilast_offset(1)], [9, 2, 212, 524346])

    @fresh_store  # a value let through would attach: keep that away from the test process
    def test_arguments_checked_before_the_library(self):
        for call, error in [(lambda: libshm.read(1, 2**32, 1), ValueError),  # ctypes would pass 0
                            (lambda: libshm.read(1, 0, -1), ValueError),
                            (lambda: libshm.write(1, 0, "text"), TypeError),
                            (lambda: libshm.write(1, 0, 5), TypeError),  # bytes(5) would be 5 zeros
                            (lambda: libshm.fill(1, 0, 1, 256), ValueError),
                            (lambda: libshm.set_bit(1, 0, -1), ValueError),
                            (lambda: libshm.set_capability(0, 0x10000), ValueError),
                            (lambda: libshm.fru_info(2**32), ValueError),
                            (lambda: libshm.update_dimm_wear_by_fqdd({"D" * 16: 1}), ValueError),
                            (lambda: libshm.Consumer("n" * 21), ValueError)]:
            self.assertRaises(error, call)
        self.assertFalse(libshm.is_attached())


def ipc_objects():  # (segment keys, semaphore set keys) of this IPC namespace
    keys = [[line.split()[0] for line in open(f"/proc/sysvipc/{kind}").readlines()[1:]] for kind in ("shm", "sem")]
    return tuple(sorted(int(key) for key in k) for k in keys)


class Info(unittest.TestCase):
    @fresh_store
    def test_info_creates_nothing(self):
        libc = ctypes.CDLL(None)
        for create, message in [
                ((), "no store: segment key 77777779 does not exist"),
                ((("shm", 77777779),), "no store: segment key 77777779 exists but its library lock semaphore "
                                       "set (key 77777777) does not"),
                ((("sem", 77777777),), "no store: segment key 77777779 exists but its section lock semaphore "
                                       "set (key 77777812) does not")]:
            for kind, key in create:  # IPC_CREAT | 0666
                made = libc.shmget(key, _ffi.SHM_SIZE, 0o1666) if kind == "shm" else libc.semget(key, 1, 0o1666)
                self.assertGreaterEqual(made, 0)
            before = ipc_objects()
            run = subprocess.run([sys.executable, "-m", "libshm", "info"], capture_output=True, text=True,
                                 env=dict(os.environ, PYTHONPATH=os.path.join(HERE, "..")))
            self.assertEqual((run.returncode, run.stdout, ipc_objects()), (1, "", before), message)
            self.assertTrue(run.stderr.startswith(f"libshm: {message}"), run.stderr)
