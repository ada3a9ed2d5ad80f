#!/usr/bin/env bash
# Builds the library and runs its tests in every configuration CI checks.
#
#   scripts/test.sh [leg...]     no leg = all of them, in this order:
#
#   linux-asan  Debug, AddressSanitizer + UndefinedBehaviorSanitizer, ctest
#   linux-m32   32-bit Linux build (-m32), ctest
#   win64       MinGW x86_64 cross build; ctest under wine64 in Xvfb
#   win32       MinGW i686 cross build (the library's own target), always
#               built and linked; its tests run under 32-bit wine in a 32-bit
#               Debian root (scripts/i386-root.sh) when one can be made
#   tsan        ThreadSanitizer; every test program with only its Stress,
#               Concurrency and ArgumentSweep suites
#   install     Release build installed into a prefix; a program outside the
#               tree is built against it through find_package and pkg-config
#               (the win64 leg does the same for the MinGW build under wine)
#   fuzz        clang libFuzzer targets (fuzz/*.cpp), each run for
#               ZK_FUZZ_SECONDS (20) seconds from the seeds in fuzz/corpus/<target>/;
#               what they find grows in the build folder
#
# Each leg installs what it needs first (scripts/setup.sh). Builds go to
# build-ci/<leg> (ZK_CI_BUILD_DIR overrides build-ci). Exit status is non-zero
# when any leg failed; a summary with times closes the output.
set -uo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
BUILD_ROOT=${ZK_CI_BUILD_DIR:-$ROOT/build-ci}
JOBS=2
ALL_LEGS=(linux-asan linux-m32 win64 win32 tsan install fuzz)

declare -A LEG_STATUS LEG_TIME LEG_NOTE

header() { printf '\n==================== %s ====================\n' "$*"; }

setup() { bash "$ROOT/scripts/setup.sh" "$@"; }

configure_and_build() {
    local dir=$1
    shift
    cmake -S "$ROOT" -B "$dir" -G Ninja "$@" && cmake --build "$dir" -j "$JOBS"
}

# ctest's closing line ("100% tests passed, 0 tests failed out of 5") from a log.
ctest_summary() {
    grep -E 'tests passed|No tests were found' "$1" | tail -n 1
}

run_ctest() {
    local leg=$1 dir=$2
    shift 2
    local log="$dir/ctest.log"
    ctest --test-dir "$dir" --output-on-failure "$@" 2>&1 | tee "$log"
    local status=${PIPESTATUS[0]}
    LEG_NOTE[$leg]=$(ctest_summary "$log")
    return "$status"
}

# The exported names must be exactly those pinned in tests/kernel/export_list.h:
# an export added or removed without its entry there fails the leg.
compare_with_pinned() {
    local lib=$1 names=$2 pinned extra missing
    pinned=$(grep -o 'X(_\{0,1\}zk[A-Za-z0-9_]*)' "$ROOT/tests/kernel/export_list.h" | sed 's/^X(//; s/)$//' | sort -u)
    extra=$(comm -13 <(printf '%s\n' "$pinned") <(printf '%s\n' "$names" | grep -v '^$' | sort -u))
    missing=$(comm -23 <(printf '%s\n' "$pinned") <(printf '%s\n' "$names" | grep -v '^$' | sort -u))
    if [ -n "$extra$missing" ]; then
        echo "exports: $(basename "$lib") differs from the pinned list in tests/kernel/export_list.h"
        [ -n "$extra" ] && printf '  exported, not pinned: %s\n' $extra | head -n 20
        [ -n "$missing" ] && printf '  pinned, not exported: %s\n' $missing | head -n 20
        return 1
    fi
    return 0
}

# The DLL exports zk names only; on 32-bit they must be undecorated (no
# leading underscore but the one _zkSlideExpand has, no @n suffix).
check_exports() {
    local dll=$1 objdump=$2
    local names bad
    names=$("$objdump" -p "$dll" | awk '/\[Ordinal\/Name Pointer\] Table/ { on = 1; next }
        on && /^\t\[/ { print $NF; next } on && !/^\t/ { on = 0 }')
    bad=$(printf '%s\n' "$names" | grep -v -E '^(zk[A-Za-z0-9_]+|_zkSlideExpand)$' | grep -v '^$')
    if [ -n "$bad" ]; then
        echo "exports: unexpected names in $(basename "$dll"):"
        printf '  %s\n' $bad | head -n 20
        return 1
    fi
    compare_with_pinned "$dll" "$names" || return 1
    echo "exports: $(printf '%s\n' "$names" | grep -c '^zk\|^_zk') zk names, nothing else, as pinned"
}

# The Linux library exports zk names only, like the DLL: everything else is
# hidden. _zkSlideExpand is the one name allowed a leading underscore.
check_linux_exports() {
    local lib=$1 names bad
    names=$(nm -D --defined-only "$lib" | awk 'NF >= 3 { print $3 }')
    bad=$(printf '%s\n' "$names" | grep -v -E '^(zk[A-Za-z0-9_]+|_zkSlideExpand)$' | grep -v '^$')
    if [ -n "$bad" ]; then
        echo "exports: unexpected names in $(basename "$lib"):"
        printf '  %s\n' $bad | head -n 20
        return 1
    fi
    compare_with_pinned "$lib" "$names" || return 1
    echo "exports: $(printf '%s\n' "$names" | grep -c '^zk\|^_zk') zk names, nothing else, as pinned"
}

leg_linux_asan() {
    local dir="$BUILD_ROOT/linux-asan"
    setup base || return 1
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=Debug -DZK_SANITIZE=address,undefined || return 1
    check_linux_exports "$dir/bin/libqaxkrnl.so" || return 1
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
        run_ctest linux-asan "$dir" -j "$JOBS"
}

leg_linux_m32() {
    local dir="$BUILD_ROOT/linux-m32"
    setup base m32 || return 1
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 \
        -DCMAKE_EXE_LINKER_FLAGS=-m32 -DCMAKE_SHARED_LINKER_FLAGS=-m32 || return 1
    check_linux_exports "$dir/bin/libqaxkrnl.so" || return 1
    # Hosts whose kernel cannot run 32-bit programs run them under qemu's
    # user-mode emulation, which does not deliver a signal raised while other
    # threads block in system calls: the interrupt tests are left to the
    # native legs there.
    local how=0
    bash "$ROOT/scripts/i386-exec.sh" --native 2>/dev/null || how=$?
    if [ "$how" -eq 2 ]; then
        echo "linux-m32: no 32-bit program can be compiled here (see scripts/i386-exec.sh)"
        return 1
    fi
    if [ "$how" -eq 0 ]; then
        run_ctest linux-m32 "$dir" -j "$JOBS"
    elif bash "$ROOT/scripts/i386-exec.sh"; then
        echo "linux-m32: under qemu-i386; interrupt (signal) tests excluded"
        GTEST_FILTER='-CloseOnInterrupt.*:Interrupt.*' run_ctest linux-m32 "$dir" -j "$JOBS"
    else
        LEG_NOTE[linux-m32]="built; tests skipped (this host cannot run 32-bit programs)"
        echo "linux-m32 tests: skipped (this host cannot run 32-bit programs)"
    fi
}

leg_win64() {
    local dir="$BUILD_ROOT/win64"
    setup win64 || return 1
    configure_and_build "$dir" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw-x86_64.cmake" \
        -DCMAKE_BUILD_TYPE=Debug || return 1
    check_exports "$dir/bin/qaxkrnl.dll" x86_64-w64-mingw32-objdump || return 1

    # One Xvfb and one wine prefix (inside the build folder) for all tests.
    local log="$dir/ctest.log"
    xvfb-run -a env WINEPREFIX="$dir/wineprefix" WINEDEBUG=-all bash -c '
        dir=$1 jobs=$2 root=$3
        if [ ! -f "$WINEPREFIX/system.reg" ]; then
            # Without a window manager, wine waits two seconds for every
            # visible window it hides unless windows are unmanaged.
            { /usr/lib/wine/wine64 wineboot -i &&
                /usr/lib/wine/wine64 reg add "HKCU\\Software\\Wine\\X11 Driver" \
                    /v Managed /d N /f; } >"$dir/wineboot.log" 2>&1 ||
                echo "win64: wine prefix set-up failed, see $dir/wineboot.log"
        fi
        ctest --test-dir "$dir" --output-on-failure -j "$jobs"
        status=$?
        bash "$root/scripts/consumer-check.sh" "$dir" "$dir/consumer" win64 || status=1
        /usr/lib/wine/wineserver64 -k 2>/dev/null
        exit $status' _ "$dir" "$JOBS" "$ROOT" 2>&1 | tee "$log"
    local status=${PIPESTATUS[0]}
    LEG_NOTE[win64]=$(ctest_summary "$log")
    return "$status"
}

I386_MOUNTED=()
unmount_i386() {
    local dir
    for dir in "${I386_MOUNTED[@]}"; do bash "$ROOT/scripts/i386-root.sh" umount "$dir"; done
    I386_MOUNTED=()
}

leg_win32() {
    local dir="$BUILD_ROOT/win32" runner="$ROOT/scripts/i386-root.sh"
    setup win32 || return 1
    configure_and_build "$dir" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw-i686.cmake" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        "-DCMAKE_CROSSCOMPILING_EMULATOR=$runner;run" || return 1
    check_exports "$dir/bin/qaxkrnl.dll" i686-w64-mingw32-objdump || return 1

    local reason
    # wine needs a kernel that runs 32-bit programs itself: under qemu's
    # user-mode emulation it cannot load its own kernel32.dll.
    if ! reason=$(bash "$ROOT/scripts/i386-exec.sh" --native 2>&1 >/dev/null) ||
        ! reason=$(bash "$runner" prepare 2>&1 >"$dir/i386-root.log"); then
        echo "win32 tests: skipped (32-bit wine unavailable: ${reason##*$'\n'})"
        LEG_NOTE[win32]="built and linked; tests skipped (32-bit wine unavailable)"
        return 0
    fi
    # The sources and the build must look the same inside the root.
    local mounts=("$ROOT")
    case "$dir/" in "$ROOT"/*) ;; *) mounts+=("$dir") ;; esac
    local mount
    for mount in "${mounts[@]}"; do
        if ! reason=$(bash "$runner" mount "$mount" 2>&1); then
            unmount_i386
            echo "win32 tests: skipped (32-bit wine unavailable: cannot mount into the root: $reason)"
            LEG_NOTE[win32]="built and linked; tests skipped (32-bit wine unavailable)"
            return 0
        fi
        I386_MOUNTED+=("$mount")
    done
    # Every test run starts its own Xvfb inside the root: one at a time.
    run_ctest win32 "$dir" -j 1
    local status=$?
    unmount_i386
    return "$status"
}

leg_tsan() {
    local dir="$BUILD_ROOT/tsan"
    setup base || return 1
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZK_SANITIZE=thread \
        -DZK_BUILD_BENCH=OFF -DZK_BUILD_EXAMPLES=OFF -DZK_BUILD_TOOLS=OFF || return 1
    local program ran=0 failed=0
    for program in "$dir"/bin/test_*; do
        [ -x "$program" ] || continue
        echo "--- $(basename "$program") (Stress, Concurrency and ArgumentSweep suites)"
        ran=$((ran + 1))
        GTEST_FILTER='*Stress*:*Concurrency*:*ArgumentSweep*' TSAN_OPTIONS='halt_on_error=1 second_deadlock_stack=1' \
            "$program" || failed=$((failed + 1))
    done
    LEG_NOTE[tsan]="$((ran - failed)) of $ran test programs passed"
    [ "$failed" -eq 0 ]
}

leg_install() {
    local dir="$BUILD_ROOT/install"
    setup install || return 1
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=Release -DZK_BUILD_TESTS=OFF \
        -DZK_BUILD_BENCH=OFF -DZK_BUILD_EXAMPLES=OFF || return 1
    bash "$ROOT/scripts/consumer-check.sh" "$dir" "$dir/consumer" linux || return 1
    LEG_NOTE[install]="installed; consumer built through find_package and pkg-config and ran"
}

leg_fuzz() {
    local dir="$BUILD_ROOT/fuzz" seconds=${ZK_FUZZ_SECONDS:-20}
    setup fuzz || return 1
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DZK_BUILD_FUZZ=ON \
        -DZK_BUILD_TESTS=OFF -DZK_BUILD_BENCH=OFF -DZK_BUILD_EXAMPLES=OFF \
        -DZK_BUILD_TOOLS=OFF || return 1
    local program name log runs seeds ran=0 failed=0
    mkdir -p "$dir/artifacts"
    for program in "$dir"/bin/fuzz_*; do
        [ -x "$program" ] || continue
        name=$(basename "$program")
        log="$dir/$name.log"
        mkdir -p "$dir/corpus/$name"
        ran=$((ran + 1))
        echo "--- $name ($seconds s)"
        # The repository's seeds (fuzz/corpus/<target>/) are read; what the
        # run finds grows in the build folder.
        seeds=()
        [ -d "$ROOT/fuzz/corpus/${name#fuzz_}" ] && seeds=("$ROOT/fuzz/corpus/${name#fuzz_}")
        if "$program" -max_total_time="$seconds" -print_final_stats=1 \
            -artifact_prefix="$dir/artifacts/$name-" "$dir/corpus/$name" "${seeds[@]}" >"$log" 2>&1; then
            runs=$(awk '/stat::number_of_executed_units/ { print $NF }' "$log")
            echo "$name: ${runs:-?} runs, no finding"
        else
            failed=$((failed + 1))
            echo "$name: FINDING (log $log; reproducer in $dir/artifacts/)"
            grep -E '^(==[0-9]+==ERROR|SUMMARY|.*runtime error)' "$log" | head -n 5
        fi
    done
    LEG_NOTE[fuzz]="$((ran - failed)) of $ran targets ran $seconds s without a finding"
    [ "$ran" -gt 0 ] && [ "$failed" -eq 0 ]
}

main() {
    local legs=("$@") leg
    [ ${#legs[@]} -gt 0 ] || legs=("${ALL_LEGS[@]}")
    for leg in "${legs[@]}"; do
        case " ${ALL_LEGS[*]} " in
        *" $leg "*) ;;
        *)
            echo "test.sh: unknown leg '$leg' (legs: ${ALL_LEGS[*]})" >&2
            exit 2
            ;;
        esac
    done
    mkdir -p "$BUILD_ROOT"
    trap 'unmount_i386' EXIT
    trap 'unmount_i386; exit 130' INT TERM

    local failed=0 start
    for leg in "${legs[@]}"; do
        header "$leg"
        start=$SECONDS
        if "leg_${leg//-/_}"; then
            LEG_STATUS[$leg]=passed
        else
            LEG_STATUS[$leg]=FAILED
            failed=1
        fi
        LEG_TIME[$leg]=$((SECONDS - start))
        echo "---- $leg: ${LEG_STATUS[$leg]} in ${LEG_TIME[$leg]} s"
    done

    header "summary"
    for leg in "${legs[@]}"; do
        printf '%-11s %-7s %5s s  %s\n' "$leg" "${LEG_STATUS[$leg]}" "${LEG_TIME[$leg]}" \
            "${LEG_NOTE[$leg]:-}"
    done
    return "$failed"
}

main "$@"
