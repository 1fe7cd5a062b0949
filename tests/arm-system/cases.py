#!/usr/bin/env python3
"""Turns a CTest test list into the ARM guest's case list.

    ctest --test-dir BUILD --show-only=json-v1 | cases.py REGEX >cases.sh

Keeps the cases whose name matches REGEX (searched, as ctest -R does) and
whose command starts with tests/sandbox.sh, and writes one line a case for the
guest's init: t NAME TIMEOUT WORKING_DIRECTORY SKIP_RETURN_CODE
SKIP_REGULAR_EXPRESSION COMMAND..., every word quoted for the shell, the
costliest cases first as ctest orders them. A case whose ENVIRONMENT sets
variables runs under env. A property the guest does not implement is an
error, so that no case passes there for a reason CTest would not accept.
"""
import json
import re
import shlex
import sys

HONOURED = {"TIMEOUT", "WORKING_DIRECTORY", "SKIP_RETURN_CODE", "SKIP_REGULAR_EXPRESSION", "ENVIRONMENT"}
IGNORED = {"LABELS", "COST"}  # COST only orders the cases


def main() -> int:
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    select = re.compile(sys.argv[1])
    tests = json.load(sys.stdin)["tests"]
    chosen = []
    for test in tests:
        name, command = test["name"], test.get("command") or []
        if not select.search(name) or not command or not command[0].endswith("/tests/sandbox.sh"):
            continue
        props = {p["name"]: p["value"] for p in test.get("properties", [])}
        unknown = set(props) - HONOURED - IGNORED
        if unknown:
            print(f"cases.py: {name}: properties the guest cannot honour: {sorted(unknown)}", file=sys.stderr)
            return 1
        skip_re = props.get("SKIP_REGULAR_EXPRESSION", [])
        env = props.get("ENVIRONMENT", [])
        words = [name.split("  #")[0], str(int(props.get("TIMEOUT", 1500))), props.get("WORKING_DIRECTORY", "/"),
                 str(props.get("SKIP_RETURN_CODE", "")), "|".join(skip_re)]
        words += (["env"] + env if env else []) + command
        chosen.append((-float(props.get("COST", 0)), len(chosen), "t " + " ".join(shlex.quote(w) for w in words)))
    if not chosen:
        print(f"cases.py: no case matches {sys.argv[1]!r}", file=sys.stderr)
        return 1
    for _, _, line in sorted(chosen):
        print(line)
    return 0


if __name__ == "__main__":
    sys.exit(main())
