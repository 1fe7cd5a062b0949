#!/bin/bash
# Builds and tests everything: the default, asan, m32 and armhf presets (the
# m32 build's tests under qemu-i386 on a kernel that runs no i386 program; the
# armhf build cross-built, its tests run under qemu-arm, except the cases listed in
# tests/arm-system/cases, which run on a 32-bit ARM kernel under
# qemu-system-arm (tests/arm-system/run.sh); each preset's CTest run
# includes the interface checks of tests/interface: exported symbols, NEEDED,
# static initialisers, the Debian symbols file and the ABI baselines), and an
# installed copy used by a C and a C++ consumer; the firmware preset's size
# budget (interface.size_budget). Installs missing Debian
# packages first.
#
#   bash tests/run-all.sh [PRESET...]      (default: default asan m32 armhf firmware, then
#                                          valgrind, a benchmark smoke run, the
#                                          Debian packages and the fuzz targets)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
bash scripts/install-deps.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(default asan m32 armhf firmware)
passed=0 failed=0

check() {  # check NAME COMMAND...: a named check that counts as one test
    local started=$SECONDS
    if "${@:2}"; then
        echo "check $1: ok ($((SECONDS - started)) s)"; passed=$((passed + 1))
    else
        echo "check $1: FAILED ($((SECONDS - started)) s)"; failed=$((failed + 1))
    fi
}

arm_hard_float() {  # an ARM shared object that passes floating point in VFP registers
    local kind
    kind=$(file -b "$1")
    [[ $kind == "ELF 32-bit LSB shared object, ARM"* ]] || { echo "file: $kind"; return 1; }
    arm-linux-gnueabihf-readelf -A "$1" | grep -q 'Tag_ABI_VFP_args: VFP registers' \
        || { echo "no VFP argument passing (soft-float build?)"; return 1; }
}

i386_runs() {  # whether this kernel runs a 32-bit x86 program
    local probe rc=0
    probe=$(mktemp -d)
    printf 'int main(void) { return 0; }\n' > "$probe/probe.c"
    gcc -m32 -static -o "$probe/probe" "$probe/probe.c" 2>/dev/null && "$probe/probe" 2>/dev/null || rc=1
    rm -rf "$probe"
    return $rc
}

installed_consumers() {
    local build=$1 work prefix consumers moved pc site rc=0
    work=$(mktemp -d)
    prefix=$work/prefix consumers=$work/consumers moved=$work/moved
    cmake --install "$build" --prefix "$prefix" >/dev/null &&
        { [ -L "$prefix/lib/libshm.so" ] && [ -L "$prefix/lib/libshm.so.1" ] && [ -f "$prefix/lib/libshm.so.1.0.0" ] \
            && [ -f "$prefix/include/libshm.h" ] || { echo "install tree incomplete"; false; }; } &&
        pc=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs libshm) &&
        { [ "$(echo $pc)" = "-I$prefix/include -L$prefix/lib -lshm" ] || { echo "pkg-config: $pc"; false; }; } &&
        PKG_CONFIG_PATH=$prefix/lib/pkgconfig cmake -S tests/install -B "$consumers" -G Ninja \
            -DCMAKE_PREFIX_PATH="$prefix" >/dev/null && cmake --build "$consumers" >/dev/null &&
        LD_LIBRARY_PATH=$prefix/lib tests/sandbox.sh "$consumers/consumer_c" &&
        LD_LIBRARY_PATH=$prefix/lib tests/sandbox.sh "$consumers/consumer_c" --layout | diff - tests/install/layout.expected &&
        LD_LIBRARY_PATH=$prefix/lib tests/sandbox.sh "$consumers/consumer_cpp" &&
        # The manual and the Python binding, as installed.
        MANPATH=$prefix/share/man man -w 7 libshm >/dev/null &&
        MANPATH=$prefix/share/man man -w Vond_shm_write_sdc >/dev/null &&
        site=$(dirname "$(find "$prefix" -path '*/libshm/__init__.py' | head -1)") && [ "$site" != . ] &&
        PYTHONPATH=$(dirname "$site") LIBSHM_PATH=$prefix/lib/libshm.so.1 \
            tests/sandbox.sh /usr/bin/python3 -c 'import libshm; print("python: system id", libshm.system_id())' &&
        # The installed tool finds the library by itself, also once the tree has
        # moved; pkg-config --define-prefix follows the move.
        env -u LD_LIBRARY_PATH tests/sandbox.sh "$prefix/bin/shmtool" --json poke 6 5 00 >/dev/null &&
        mv "$prefix" "$moved" &&
        env -u LD_LIBRARY_PATH tests/sandbox.sh "$moved/bin/shmtool" poke 6 5 00 >/dev/null &&
        pc=$(PKG_CONFIG_PATH=$moved/lib/pkgconfig pkg-config --define-prefix --cflags libshm) &&
        { [ "$(echo $pc)" = "-I$moved/include" ] || { echo "pkg-config --define-prefix: $pc"; false; }; } || rc=1
    rm -rf "$work"
    return $rc
}

run_preset() {  # run_preset PRESET: configure, build and test one preset
    local preset=$1 started=$SECONDS extra exclude log summary total bad m32_emulated
    echo "=== preset $preset"
    # The default build carries the benchmarks too, for the smoke run below.
    extra=()
    [ "$preset" != default ] || extra=(-DSHM_BUILD_BENCH=ON)
    if [ "$preset" = m32 ]; then
        # Some kernels run no i386 program (IA32 emulation switched off: "Exec
        # format error"); the 32-bit build's tests then run under qemu-i386,
        # as the ARM build's run under qemu-arm.
        if i386_runs; then extra=(-DSHM_TEST_EMULATOR= -DSHM_BUILD_TOOLS=ON); m32_emulated=0; else
            echo "m32: this kernel does not run i386 programs; the library's tests run under qemu-i386," \
                 "without the creation kills, and the tool is left to the other builds (see below)"
            extra=(-DSHM_TEST_EMULATOR=qemu-i386 -DSHM_BUILD_TOOLS=OFF); m32_emulated=1
        fi
    fi
    cmake --preset "$preset" "${extra[@]}" >/dev/null
    cmake --build --preset "$preset"
    log=$(mktemp)
    # The cases that need an ARM kernel run in the ARM system stage below,
    # not also under qemu-user.
    exclude=()
    [ "$preset" != armhf ] || exclude=(-E "$(grep -v '^#' tests/arm-system/cases | grep . | paste -sd '|')")
    # Under qemu-i386 the library's cases run as on a 32-bit x86 controller
    # (its layout, alignment and signed char). The tool's cases and the 1000
    # creation kills would mostly time the emulator (every tool run and every
    # fork is an emulated process: 275 of the preset's 376 test seconds): the
    # tool is built 32-bit by the armhf and firmware presets and its cases run
    # on the ARM kernel, the kills there and natively in the 64-bit build.
    [ "$preset" != m32 ] || [ "$m32_emulated" = 0 ] || exclude=(-E '^Crash\.KillsDuringCreation')
    # The 1000 creation kills look for a member left stuck, a statistic the
    # optimised builds and the ARM kernel gather; the heal that follows a kill
    # runs under the sanitizers in Store.HalfInitialisedSetsHealAtAttach and
    # Crash.KilledWhileAttaching. Sanitized, the kills alone took 70 s.
    [ "$preset" != asan ] || exclude=(-E '^Crash\.KillsDuringCreation')
    ctest --preset "$preset" "${exclude[@]}" 2>&1 | tee "$log" || true
    summary=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" || echo "0% tests passed, 1 tests failed out of 1")
    total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$summary")
    bad=$(sed -E 's/.*passed, ([0-9]+) tests? failed.*/\1/' <<<"$summary")
    passed=$((passed + total - bad)) failed=$((failed + bad))
    rm -f "$log"
    if [ "$preset" = armhf ]; then
        check "armhf: libshm.so.1.0.0 is an ARM hard-float shared object" arm_hard_float build/armhf/libshm.so.1.0.0
        check "armhf on a 32-bit ARM kernel: the cases of tests/arm-system/cases (qemu-system-arm)" \
            bash tests/arm-system/run.sh build/armhf
    fi
    if [ "$preset" = default ]; then
        check "installed library with C (pkg-config) and C++ (find_package) consumers" installed_consumers build/default
    fi
    echo "=== preset $preset: $((SECONDS - started)) s"
}

# Parts of a full run that leave a processor idle much of their time (the
# package build: dh's steps one after another, the tool's one compile unit,
# lintian; the firmware build: one long compile unit) run beside the others;
# their reports and counts come at the end. A part that stops short of its
# count line counts as one failure.
beside=()
start_beside() {  # start_beside COMMAND...
    local log
    log=$(mktemp)
    (passed=0 failed=0; "$@"; echo "counted: $passed $failed") >"$log" 2>&1 &
    beside+=("$! $log")
}
finish_beside() {
    local entry pid log counts
    for entry in "${beside[@]}"; do
        read -r pid log <<<"$entry"
        wait "$pid" || true
        grep -v '^counted: ' "$log" || true
        counts=$(sed -n 's/^counted: //p' "$log")
        if [ -n "$counts" ]; then
            passed=$((passed + ${counts% *})) failed=$((failed + ${counts#* }))
        else
            echo "a part run beside the others stopped early"; failed=$((failed + 1))
        fi
        rm -f "$log"
    done
    beside=()
}

full=0
[ $# -gt 0 ] || full=1
[ "$full" = 0 ] || start_beside check "Debian packages build, pass lintian and serve both consumers" bash scripts/build-debs.sh
for preset in "${presets[@]}"; do
    if [ "$full" = 1 ] && [ "$preset" = armhf ]; then
        start_beside run_preset firmware   # the same cross compiler, its own build tree
    elif [ "$full" = 1 ] && [ "$preset" = firmware ]; then
        continue
    fi
    run_preset "$preset"
done

# A full run also checks the unsanitized build under valgrind and fuzzes every
# target for a bounded time (SHM_FUZZ_SECONDS each, 10 by default).
if [ "$full" = 1 ]; then
    check "valgrind memcheck: access, SDC, FRU and DIMM cases" \
        bash tests/valgrind.sh build/default test_access test_sdc test_fru test_dimm
    check "benchmarks: every case runs once (bench/run --smoke; timings are not checked)" \
        bash bench/run --smoke --build-dir build/default
    check "fuzz: every target ${SHM_FUZZ_SECONDS:-10} s on its seed corpus" bash fuzz/run "${SHM_FUZZ_SECONDS:-10}"
    finish_beside
fi

echo "total: $passed passed, $failed failed ($SECONDS s)"
[ "$failed" -eq 0 ]
