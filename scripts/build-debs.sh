#!/bin/bash
# Builds the Debian packages (libshm1, libshm-dev, shmtool, python3-libshm) from a copy of the
# working tree, checks them with lintian (errors fail), installs them, builds
# the C and C++ consumers against the installed packages, runs both and the
# tool's help on a private store, and removes the packages again.
#   bash scripts/build-debs.sh [OUTPUT_DIR]      (default: build/debs)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
out=$(realpath -m "${1:-build/debs}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

rm -rf "$out" && mkdir -p "$out"
src=$work/libshm-1.0.0
mkdir -p "$src"
git ls-files --cached --others --exclude-standard | while IFS= read -r file; do
    [ ! -e "$file" ] || cp --parents -t "$src" "$file"  # skips files deleted but not yet committed
done
started=$SECONDS
# -J: as many compile jobs as processors (debhelper honours it; the build
# runs one job otherwise).
(cd "$src" && dpkg-buildpackage -us -uc -b -J"$(nproc)" >"$work/build.log" 2>&1) || { tail -40 "$work/build.log"; exit 1; }
mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$out"/
echo "packages: $(cd "$out" && ls *.deb | tr '\n' ' ')(built in $((SECONDS - started)) s)"
started=$SECONDS

lintian_log=$(lintian --tag-display-limit 0 "$out"/*.changes 2>&1 || true)
grep -E '^[EW]:' <<<"$lintian_log" || true
! grep -q '^E:' <<<"$lintian_log" || { echo "lintian reports errors"; exit 1; }
echo "lintian: $((SECONDS - started)) s"

installed=(libshm1 libshm-dev shmtool python3-libshm)
cd "$out"
arch=$(dpkg --print-architecture)
dpkg -i libshm1_1.0.0_"$arch".deb libshm-dev_1.0.0_"$arch".deb shmtool_1.0.0_"$arch".deb \
    python3-libshm_1.0.0_all.deb >/dev/null
cleanup() { dpkg -r "${installed[@]}" >/dev/null 2>&1 || true; rm -rf "$work"; }
trap cleanup EXIT
cd "$root"
consumers=$work/consumers
cmake -S tests/install -B "$consumers" -G Ninja >/dev/null
cmake --build "$consumers" >/dev/null
tests/sandbox.sh "$consumers/consumer_c"
tests/sandbox.sh "$consumers/consumer_c" --layout | diff - tests/install/layout.expected
tests/sandbox.sh "$consumers/consumer_cpp"
tests/sandbox.sh /usr/bin/shmtool --help >/dev/null
man -w shmtool >/dev/null 2>&1 || [ -e /usr/share/man/man1/shmtool.1.gz ]
# The binding from its package, against the packaged library.
# (info never creates the store: the first call, in the same sandbox, does)
tests/sandbox.sh /bin/sh -c '/usr/bin/python3 -c "import libshm; print(\"system id\", libshm.system_id())" &&
    /usr/bin/python3 -m libshm --json info >/dev/null'
# Its dist-info: importlib.metadata and pip see the package's version, and the
# package depends on the Python version the binding declares.
metadata=$(/usr/bin/python3 -c 'import importlib.metadata as m, libshm
assert m.version("libshm") == libshm.__version__, m.version("libshm")
print(libshm.__version__, m.metadata("libshm")["Requires-Python"])')
read -r version requires <<<"$metadata"
grep -qF "python3 (${requires/>=/>= })" <<<"$(dpkg-query -W -f='${Depends}' python3-libshm)" ||
    { echo "python3-libshm does not depend on python3 $requires"; exit 1; }
if /usr/bin/python3 -m pip --version >/dev/null 2>&1; then
    grep -qx "Version: $version" <<<"$(/usr/bin/python3 -m pip show libshm 2>/dev/null)" ||
        { echo "pip show libshm does not see the package"; exit 1; }
fi
[ -e /usr/share/doc/libshm-dev/examples/sdc_pair.c ]
man -w 7 libshm >/dev/null && man -w Vond_shm_write_sdc >/dev/null
echo "packages: built, lintian clean of errors, installed and used by both consumers"
