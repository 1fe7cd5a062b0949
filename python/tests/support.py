"""@fresh_store runs a test in a forked child that first enters a new IPC
namespace, so it starts unattached on an empty store and leaves nothing
behind; the test process itself never attaches. Needs CAP_SYS_ADMIN: run the
suite inside tests/sandbox.sh. Works under pytest and unittest alike."""
import ctypes
import functools
import os
import select
import signal
import sys
import traceback

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, ".."))  # test this tree's package
import libshm  # noqa: E402
from libshm import _ffi  # noqa: E402,F401

HEADER, TIMEOUT = os.path.join(HERE, "..", "..", "include", "libshm.h"), 30


def fresh_store(test):
    @functools.wraps(test)
    def run(*args):
        reader, writer = os.pipe()
        pid = os.fork()
        if pid == 0:
            report = b""
            try:
                if ctypes.CDLL(None, use_errno=True).unshare(0x08000000) != 0:  # CLONE_NEWIPC
                    raise OSError(ctypes.get_errno(), "unshare(CLONE_NEWIPC): run inside tests/sandbox.sh")
                if libshm.is_attached():
                    raise AssertionError("the test process attached: no fresh store for its children")
                test(*args)
            except BaseException:
                report = traceback.format_exc().encode()
            sys.stdout.flush(), sys.stderr.flush(), os.write(writer, report), os._exit(0)
        os.close(writer)
        done = select.select([reader], [], [], TIMEOUT)[0]
        report = b"".join(iter(lambda: os.read(reader, 65536), b"")) if done else None
        if report is None:
            os.kill(pid, signal.SIGKILL)
        status = os.waitpid(pid, 0)[1]
        os.close(reader)
        if report is None or report or status != 0:  # not `assert`: python -O must not drop it
            raise AssertionError(f"the test did not end within {TIMEOUT} s (killed)" if report is None else
                                 f"in the fresh-store child (status {status}):\n{report.decode()}")
    return run
