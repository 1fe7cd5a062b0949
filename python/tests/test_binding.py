"""The binding's declarations and argument checks."""
import ctypes
import importlib.metadata
import importlib.util
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import tomllib
import unittest
from unittest import mock

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

    def test_arguments_checked_before_the_library(self):
        class NoLibrary:  # any ctypes call fails the case
            def __getattr__(self, name):
                def call(*args):
                    raise AssertionError(f"{name}{args} was called")
                return call
        rows = [(lambda: libshm.read(99, 0, 1), ValueError),  # section: 1 to 33
                (lambda: libshm.read_unlocked(0, 0, 1), ValueError),
                (lambda: libshm.section_size(34), ValueError),
                (lambda: libshm.lock(34).__enter__(), ValueError),
                (lambda: libshm.read(6, -1, 1), ValueError),  # offset: inside the section
                (lambda: libshm.write(6, 13, b"x"), ValueError),
                (lambda: libshm.read(1, 2**32, 1), ValueError),  # ctypes would pass 0
                (lambda: libshm.read(1, 0, -1), ValueError),
                (lambda: libshm.read(True, 0, 1), TypeError),
                (lambda: libshm.write(1, 0, "text"), TypeError),
                (lambda: libshm.write(1, 0, 5), TypeError),  # bytes(5) would be 5 zeros
                (lambda: libshm.fill(1, 0, 1, 256), ValueError),
                (lambda: libshm.set_bit(1, 0, -1), ValueError),
                (lambda: libshm.quorx_progress(256), ValueError),  # the library reads bit 0
                (lambda: libshm.set_quorx_progress(0), ValueError),
                (lambda: libshm.capability(9), ValueError),
                (lambda: libshm.set_capability(0, 0x10000), ValueError),
                (lambda: libshm.vr_sensor_enabled(1, 0), ValueError),
                (lambda: libshm.vr_sensor_enabled(libshm.VR_CPU, 4), ValueError),
                (lambda: libshm.fru_info(2**16), ValueError),
                (lambda: libshm.fru_class(3, 4), ValueError),
                (lambda: libshm.update_dimm_wear([(0, 0, 0, 1), (4, 0, 0, 1)]), ValueError),  # none written
                (lambda: libshm.update_dimm_wear_by_fqdd({"D" * 16: 1}), ValueError),
                (lambda: libshm.Consumer("n" * 21), ValueError),
                (lambda: libshm.Consumer(5), TypeError)]
        with mock.patch.object(libshm.core, "lib", NoLibrary()), mock.patch.object(libshm.sdc, "lib", NoLibrary()):
            for number, (call, error) in enumerate(rows):
                with self.subTest(row=number):
                    self.assertRaises(error, call)


PACKAGE = pathlib.Path(libshm.__file__).parent


class Package(unittest.TestCase):
    def test_version_and_metadata(self):
        self.assertTrue((PACKAGE / "py.typed").is_file())
        cmake = (pathlib.Path(HERE).parents[1] / "CMakeLists.txt").read_text()
        self.assertEqual(libshm.__version__, re.search(r"project\(libshm VERSION ([\d.]+)", cmake)[1])
        pyproject = tomllib.loads((PACKAGE.parent / "pyproject.toml").read_text())["project"]
        with tempfile.TemporaryDirectory() as site:  # the CMake install's metadata (dist_info.py)
            shutil.copytree(PACKAGE, pathlib.Path(site, "libshm"), ignore=shutil.ignore_patterns("__pycache__"))
            subprocess.run([sys.executable, PACKAGE.parent / "dist_info.py", site], check=True)
            installs = [site]
            if all(importlib.util.find_spec(m) for m in ("pip", "setuptools", "wheel")):  # pip install python/
                source = pathlib.Path(site, "source")
                shutil.copytree(PACKAGE.parent, source, ignore=shutil.ignore_patterns("__pycache__", "tests"))
                subprocess.run([sys.executable, "-m", "pip", "install", "-q", "--no-build-isolation", "--no-deps",
                                "--no-index", "--target", pathlib.Path(site, "pip"), source], check=True)
                installs.append(pathlib.Path(site, "pip"))
            texts = set()  # the two ways write the same METADATA
            for path in installs:
                [dist] = importlib.metadata.distributions(path=[str(path)])
                self.assertEqual((dist.version, dist.metadata["Name"], dist.metadata["Requires-Python"]),
                                 (libshm.__version__, "libshm", pyproject["requires-python"]), path)
                self.assertIn("libshm/py.typed", [str(f) for f in dist.files])
                texts.add(dist.read_text("METADATA"))
            self.assertEqual(len(texts), 1)


def ipc_objects():  # (segment keys, semaphore set keys) of this IPC namespace
    keys = [[line.split()[0] for line in open(f"/proc/sysvipc/{kind}").readlines()[1:]] for kind in ("shm", "sem")]
    return tuple(sorted(int(key) for key in k) for k in keys)


def run_views(*args):
    return subprocess.run([sys.executable, "-m", "libshm", *args], capture_output=True, text=True,
                          env=dict(os.environ, PYTHONPATH=os.path.join(HERE, "..")))


class Views(unittest.TestCase):
    @fresh_store
    def test_views_create_nothing(self):
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
            for view in ["info", "platform", "sdc-status"]:
                run = run_views("--json", view)
                self.assertEqual((run.returncode, run.stdout, ipc_objects()), (1, "", before), (view, message))
                self.assertTrue(run.stderr.startswith(f"libshm: {message}"), run.stderr)

    @fresh_store
    def test_json_views(self):
        libshm.write(6, 4, bytes([2, 39, 7, 0, 5, 8, 0, 1]))
        libshm.set_quorx_progress(5)
        libshm.sdc_init()
        libshm.sdc_write(b"\x01")
        consumer = libshm.Consumer(b"rig\x1b")
        libshm.sdc_write(b"twelve bytes")
        docs = {view: json.loads(run_views(view, "--json").stdout) for view in ("info", "platform", "sdc-status")}
        self.assertEqual({k: docs["info"][k] for k in ("schema", "version", "system_id", "sdc_size")},
                         {"schema": 1, "version": libshm.__version__, "system_id": 39, "sdc_size": 13})
        platform = {name: getattr(libshm, name)() for name in libshm.core.GETTERS + libshm.core.PREDICATES}
        self.assertEqual(docs["platform"], {"schema": 1, **platform, "blade_slot": 7, "quorx_progress": [5]})
        status = docs["sdc-status"]
        self.assertEqual([status[k] for k in ("state", "tail", "size", "signature")],
                         ["filling", 12, 13, {"text": "VondSDC", "valid": True}])
        self.assertEqual(status["applications"][consumer.id],
                         {"id": consumer.id, "registered": True, "name": "rig\\x1b", "last": 0,
                          "last_in_range": True, "behind": 12})
