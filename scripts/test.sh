#!/usr/bin/env bash
# Builds the library and runs its tests in every configuration CI checks.
#
#   scripts/test.sh [leg...]     no leg = all of them, in this order:
#
#   linux-asan  Debug, AddressSanitizer + UndefinedBehaviorSanitizer, ctest;
#               first, no include cycle between library files
#               (scripts/include-cycles.sh)
#   linux-m32   32-bit Linux build (-m32), ctest
#   win64       MinGW x86_64 cross build; ctest under wine64 in Xvfb
#   win32       MinGW i686 cross build (the library's own target), always
#               built and linked; its tests run under 32-bit wine in a 32-bit
#               Debian root (scripts/i386-root.sh) when one can be made, all
#               sharing one Xvfb of the host
#   tsan        ThreadSanitizer; every test program (and only those) with
#               only its Stress, Concurrency and ArgumentSweep suites
#   install     Release build installed into a prefix; a program outside the
#               tree is built against it through find_package and pkg-config
#               (the win64 leg does the same for the MinGW build under wine)
#   fuzz        clang libFuzzer targets (fuzz/*.cpp), each run for
#               ZK_FUZZ_SECONDS (20) seconds from the seeds in fuzz/corpus/<target>/,
#               two at a time (ZK_CI_JOBS); what they find grows in the build
#               folder
#
# The first leg's packages are installed first (scripts/setup.sh), the other
# legs' in the background while it builds (one package-list update a run);
# each leg checks its own again. When win32 is among the legs, its 32-bit
# Debian root is made in the background from the start. Builds go to
# build-ci/<leg> (ZK_CI_BUILD_DIR overrides build-ci), through ccache where
# it is installed; each leg builds only what it runs or checks. Debug information is line tables only (-g1): enough for
# sanitizer reports and backtraces. Exit status is non-zero when any leg
# failed; a summary with times closes the output.
set -uo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
BUILD_ROOT=${ZK_CI_BUILD_DIR:-$ROOT/build-ci}
JOBS=${ZK_CI_JOBS:-2}
ALL_LEGS=(linux-asan linux-m32 win64 win32 tsan install fuzz)

declare -A LEG_STATUS LEG_TIME LEG_NOTE

header() { printf '\n==================== %s ====================\n' "$*"; }

setup() { bash "$ROOT/scripts/setup.sh" "$@"; }

# Line tables only, in every build type the legs use.
LIGHT_DEBUG=(-DCMAKE_C_FLAGS_DEBUG=-g1 -DCMAKE_CXX_FLAGS_DEBUG=-g1
    "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG"
    "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG")

configure() {
    local dir=$1
    shift
    local launcher=()
    if command -v ccache >/dev/null; then
        launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
        # The tests' precompiled header is cached too.
        export CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS:-pch_defines,time_macros}
    fi
    cmake -S "$ROOT" -B "$dir" -G Ninja "${launcher[@]}" "${LIGHT_DEBUG[@]}" "$@"
}

# build DIR [target...]: everything, or only the targets named.
build() {
    local dir=$1
    shift
    local targets=()
    [ $# -gt 0 ] && targets=(--target "$@")
    cmake --build "$dir" -j "$JOBS" "${targets[@]}"
}

configure_and_build() {
    configure "$@" && build "$1"
}

# ctest's closing line ("100% tests passed, 0 tests failed out of 5") from a
# log: one line, whatever else the log holds (wine's output, carriage returns).
ctest_summary() {
    grep -a -E '^[0-9]+% tests passed|^No tests were found' "$1" | tr -d '\r' | tail -n 1
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
    bash "$ROOT/scripts/include-cycles.sh" || return 1
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
    if ! reason=$(bash "$ROOT/scripts/i386-exec.sh" --native 2>&1 >/dev/null); then
        stop_i386_root
        echo "win32 tests: skipped (32-bit wine unavailable: ${reason##*$'\n'})"
        LEG_NOTE[win32]="built and linked; tests skipped (32-bit wine unavailable)"
        return 0
    fi
    # The root was started in the background at the beginning of the run
    # (start_i386_root); without that, it is made here.
    [ -n "$I386_PREP_PID" ] || start_i386_root
    echo "win32: waiting for the 32-bit root (log $BUILD_ROOT/i386-root.log)"
    wait "$I386_PREP_PID"
    local prepared=$?
    I386_PREP_PID=""
    cat "$BUILD_ROOT/i386-root.log"
    if [ "$prepared" -ne 0 ]; then
        reason=$(tail -n 1 "$BUILD_ROOT/i386-root.log")
        echo "win32 tests: skipped (32-bit wine unavailable: ${reason})"
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
    # One Xvfb on the host serves every test: its socket and authority file
    # are under /tmp, which the root shares.
    local log="$dir/ctest.log"
    xvfb-run -a bash -c 'ZK_I386_DISPLAY=$DISPLAY ZK_I386_XAUTHORITY=$XAUTHORITY \
        ctest --test-dir "$1" --output-on-failure -j "$2"' _ "$dir" "$JOBS" 2>&1 | tee "$log"
    local status=${PIPESTATUS[0]}
    LEG_NOTE[win32]=$(ctest_summary "$log")
    unmount_i386
    return "$status"
}

# Installs the given legs' packages in the background; wait_packages waits
# for that and shows what it printed.
PACKAGES_PID=""
start_packages() {
    setup "$@" >"$BUILD_ROOT/setup.log" 2>&1 </dev/null &
    PACKAGES_PID=$!
}

wait_packages() {
    [ -n "$PACKAGES_PID" ] || return 0
    wait "$PACKAGES_PID" || echo "setup: the background installation failed; the legs try again"
    PACKAGES_PID=""
    cat "$BUILD_ROOT/setup.log"
}

# Makes the 32-bit root for the win32 leg's tests in the background (in a
# session of its own, so that an interrupted run can stop all of it): it
# downloads and installs for minutes while other legs compile. Its output goes
# to i386-root.log; it fails with the reason on its last line.
I386_PREP_PID=""
start_i386_root() {
    setsid bash "$ROOT/scripts/i386-root.sh" prepare >"$BUILD_ROOT/i386-root.log" 2>&1 </dev/null &
    I386_PREP_PID=$!
}

stop_i386_root() {
    [ -n "$I386_PREP_PID" ] && kill -- -"$I386_PREP_PID" 2>/dev/null
    I386_PREP_PID=""
}

leg_tsan() {
    local dir="$BUILD_ROOT/tsan"
    setup base || return 1
    configure "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZK_SANITIZE=thread \
        -DZK_BUILD_BENCH=OFF -DZK_BUILD_EXAMPLES=OFF -DZK_BUILD_TOOLS=OFF || return 1
    build "$dir" zk_tests || return 1
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

# Runs one fuzz target for the given seconds; its log is DIR/NAME.log and its
# exit status goes to DIR/NAME.status.
fuzz_one() {
    local program=$1 dir=$2 seconds=$3 name seeds=()
    name=$(basename "$program")
    mkdir -p "$dir/corpus/$name"
    # The repository's seeds (fuzz/corpus/<target>/) are read; what the
    # run finds grows in the build folder.
    [ -d "$ROOT/fuzz/corpus/${name#fuzz_}" ] && seeds=("$ROOT/fuzz/corpus/${name#fuzz_}")
    "$program" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$dir/artifacts/$name-" "$dir/corpus/$name" "${seeds[@]}" \
        >"$dir/$name.log" 2>&1
    echo $? >"$dir/$name.status"
}

leg_fuzz() {
    local dir="$BUILD_ROOT/fuzz" seconds=${ZK_FUZZ_SECONDS:-20}
    setup fuzz || return 1
    configure "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DZK_BUILD_FUZZ=ON \
        -DZK_BUILD_TESTS=OFF -DZK_BUILD_BENCH=OFF -DZK_BUILD_EXAMPLES=OFF \
        -DZK_BUILD_TOOLS=OFF || return 1
    # The fuzz targets only: each links its own copy of the library's objects.
    local src targets=()
    for src in "$ROOT"/fuzz/*.cpp; do targets+=("fuzz_$(basename "$src" .cpp)"); done
    build "$dir" "${targets[@]}" || return 1

    local name log runs ran=0 failed=0 pids=()
    mkdir -p "$dir/artifacts"
    rm -f "$dir"/fuzz_*.status
    # JOBS targets at a time, each for the full time.
    echo "fuzz: ${#targets[@]} targets, $seconds s each, $JOBS at a time"
    for name in "${targets[@]}"; do
        [ ${#pids[@]} -ge "$JOBS" ] && wait -n "${pids[@]}"
        fuzz_one "$dir/bin/$name" "$dir" "$seconds" &
        pids+=($!)
        # Those still running.
        local pid alive=()
        for pid in "${pids[@]}"; do kill -0 "$pid" 2>/dev/null && alive+=("$pid"); done
        pids=("${alive[@]}")
    done
    [ ${#pids[@]} -eq 0 ] || wait "${pids[@]}"
    for name in "${targets[@]}"; do
        log="$dir/$name.log"
        ran=$((ran + 1))
        if [ "$(cat "$dir/$name.status" 2>/dev/null)" = 0 ]; then
            runs=$(awk '/stat::number_of_executed_units/ { print $NF }' "$log")
            echo "$name: ${runs:-?} runs in $seconds s, no finding"
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
    trap 'stop_i386_root; unmount_i386' EXIT
    trap 'stop_i386_root; unmount_i386; exit 130' INT TERM

    # The first leg's packages (with ccache, and debootstrap for the win32
    # leg's root) are installed now; the other legs' in the background while
    # the first leg builds, with the same package lists (one update a run).
    # The win32 leg's 32-bit root is made in the background from the start too.
    local start=$SECONDS win32=0
    case " ${legs[*]} " in *" win32 "*) win32=1 ;; esac
    header "setup"
    local first=("${legs[0]}" ccache)
    [ $win32 -eq 1 ] && first+=(i386-root)
    setup "${first[@]}"
    local setup_time=$((SECONDS - start))
    echo "---- setup: $setup_time s"
    [ ${#legs[@]} -gt 1 ] && start_packages "${legs[@]:1}"
    [ $win32 -eq 1 ] && start_i386_root

    local failed=0 run_start=$start
    for leg in "${legs[@]}"; do
        header "$leg"
        start=$SECONDS
        [ "$leg" = "${legs[0]}" ] || wait_packages
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
    printf '%-11s %-7s %5s s  %s\n' setup "" "$setup_time" "the first leg's packages"
    for leg in "${legs[@]}"; do
        printf '%-11s %-7s %5s s  %s\n' "$leg" "${LEG_STATUS[$leg]}" "${LEG_TIME[$leg]}" \
            "${LEG_NOTE[$leg]:-}"
    done
    printf '%-11s %-7s %5s s\n' total "" "$((SECONDS - run_start))"
    return "$failed"
}

main "$@"
