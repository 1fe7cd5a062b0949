"""python3 -m libshm info: a smoke test of the binding against the store.

Prints the attachment ids, the system id, generation, platform type and the
SDC size. Exit status 0, or 1 with the error on stderr (also when the
library cannot be loaded).
"""
import argparse
import sys


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m libshm", description=__doc__.splitlines()[0])
    parser.add_argument("command", choices=["info"], help="the command (info: attach and show the basics)")
    parser.parse_args(argv)
    import libshm  # a library that cannot be loaded fails the import, with exit status 1
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
