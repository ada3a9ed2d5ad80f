#!/usr/bin/env bash
# Makes this host able to run 32-bit x86 programs, which the -m32 Linux build
# and the 32-bit wine root need.
#
# A host whose kernel runs 32-bit programs needs nothing. A host whose kernel
# has IA-32 emulation switched off runs them through qemu's user-mode
# emulator: qemu-user-static is installed and registered with binfmt_misc for
# 32-bit x86 ELF files (flag F, so it also works inside a chroot). Prints one
# line saying which way 32-bit programs run; exits 1 when neither works, and 2
# when no 32-bit program can even be compiled here (nothing was tried then).
#
#   scripts/i386-exec.sh            native, or else set up qemu
#   scripts/i386-exec.sh --native   succeed only if the kernel itself runs them
#                                   (wine needs that: it does not start under qemu)
set -euo pipefail

SUDO=()
if [ "$(id -u)" -ne 0 ]; then SUDO=(sudo -n); fi

BINFMT=/proc/sys/fs/binfmt_misc
# ELF, 32-bit, little-endian, executable or shared object, machine 386.
MAGIC='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00'
MASK='\xff\xff\xff\xff\xff\xfe\xfe\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'

# The probe program is compiled once, before any run is tried: a host without
# the 32-bit C library cannot compile it, which says nothing about whether
# the kernel runs 32-bit programs.
PROBE_DIR=$(mktemp -d)
trap 'rm -rf "$PROBE_DIR"' EXIT
PROBE="$PROBE_DIR/probe"

compile_probe() {
    bash "$(dirname "${BASH_SOURCE[0]}")/setup.sh" m32 >/dev/null || {
        echo "i386: cannot install the 32-bit C library (g++-multilib)" >&2
        return 1
    }
    printf 'int main(void) { return 0; }\n' >"$PROBE.c"
    cc -m32 "$PROBE.c" -o "$PROBE" 2>"$PROBE_DIR/cc.log" || {
        echo "i386: cannot compile a 32-bit program: $(head -n 1 "$PROBE_DIR/cc.log")" >&2
        return 1
    }
}

probe() {
    "$PROBE" 2>/dev/null
}

# A registered qemu would answer the probe too: switch it off while probing.
native_probe() {
    local entry="$BINFMT/qemu-i386" status=0
    if [ -e "$entry" ] && grep -q '^enabled' "$entry"; then
        echo 0 | "${SUDO[@]}" tee "$entry" >/dev/null
        probe || status=1
        echo 1 | "${SUDO[@]}" tee "$entry" >/dev/null
        return $status
    fi
    probe
}

compile_probe || exit 2
if native_probe; then
    echo "i386: this host runs 32-bit programs natively"
    exit 0
fi
if [ "${1:-}" = --native ]; then
    echo "i386: this host's kernel cannot run 32-bit programs" >&2
    exit 1
fi

bash "$(dirname "${BASH_SOURCE[0]}")/setup.sh" m32 qemu >/dev/null
if [ ! -e "$BINFMT/register" ]; then
    "${SUDO[@]}" mount -t binfmt_misc binfmt_misc "$BINFMT" 2>/dev/null || {
        echo "i386: cannot mount binfmt_misc to register qemu" >&2
        exit 1
    }
fi
if [ ! -e "$BINFMT/qemu-i386" ]; then
    printf ':qemu-i386:M::%s:%s:/usr/bin/qemu-i386-static:F' "$MAGIC" "$MASK" |
        "${SUDO[@]}" tee "$BINFMT/register" >/dev/null 2>&1 || {
        echo "i386: cannot register qemu-i386 with binfmt_misc" >&2
        exit 1
    }
fi
if probe; then
    echo "i386: 32-bit programs run under qemu-i386 user-mode emulation"
    exit 0
fi
echo "i386: 32-bit programs do not run, natively or under qemu" >&2
exit 1
