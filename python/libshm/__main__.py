"""python3 -m libshm info: a smoke test of the binding against the store.

Prints the attachment ids, the system id, generation, platform type and the
SDC size. Exit status 0, or 1 with the error on stderr (also when the
library cannot be loaded). Like `shmtool info` it only looks: without a store
it says "no store: segment key 77777779 does not exist" and creates nothing;
a segment without one of its semaphore sets is reported, never completed.
"""
import argparse
import ctypes
import errno
import os
import sys

SEGMENT_KEY = 77777779
# (key, members, name) of the store's semaphore sets, as the library makes them.
SETS = [(77777777, 1, "library lock"), (77777812, 34, "section lock")]


def store_problem():
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


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m libshm", description=__doc__.splitlines()[0])
    parser.add_argument("command", choices=["info"], help="the command (info: attach and show the basics)")
    parser.parse_args(argv)
    import libshm  # a library that cannot be loaded fails the import, with exit status 1
    problem = store_problem()
    if problem:
        print(f"libshm: {problem}", file=sys.stderr)
        return 1
    try:
        libshm.attach()
        ids = libshm.attachment()
        print(f"library: {libshm.library_path}")
        print(f"segment id: {ids.segment}")
        print(f"library semaphore set: {ids.library_semaphores}")
        print(f"section semaphore set: {ids.section_semaphores}")
        print(f"system id: {libshm.system_id()}")
        print(f"generation: {libshm.generation()}")
        print(f"platform type: {libshm.platform_type()}")
        print(f"SDC size: {libshm.sdc_size()} bytes")
    except libshm.Error as error:
        print(f"libshm: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
