#!/usr/bin/env bash
# A 32-bit Debian root with 32-bit wine, for running the i686 Windows build on
# a 64-bit host that has no 32-bit wine of its own.
#
#   scripts/i386-root.sh prepare          build the root unless it is ready
#   scripts/i386-root.sh mount <dir>      bind <dir>, /proc, /dev, /sys, /tmp into it
#   scripts/i386-root.sh umount <dir>     undo mount
#   scripts/i386-root.sh run <program.exe> [args]   run a program there under wine
#
# The root lives outside the repository (ZK_I386_ROOT, by default
# /var/cache/qaxkrnl-i386-root) and is reused once ready. <dir> is bound at
# the same absolute path inside the root, so programs, their data and the
# paths compiled into tests look the same inside and out. `run` is what ctest
# uses as the emulator of the i686 build: it uses the X display named in
# ZK_I386_DISPLAY (with ZK_I386_XAUTHORITY), such as an Xvfb on the host whose
# socket and authority file are under /tmp; without one, every run starts its
# own Xvfb inside the root.
#
# ZK_I386_ROOT_TARBALL names a tarball of a prepared root: prepare unpacks it
# when it exists and otherwise saves the root it made there, so that a machine
# whose /var/cache does not persist (a CI cache folder does) skips the download.
#
# Failures print one line to standard error, starting with the reason.
set -euo pipefail

ROOTFS=${ZK_I386_ROOT:-/var/cache/qaxkrnl-i386-root}
READY_MARK=.qaxkrnl-wine-ready
WINE_PREFIX=/root/.wine-qaxkrnl
SUITE=bookworm

SUDO=()
if [ "$(id -u)" -ne 0 ]; then SUDO=(sudo -n); fi

fail() {
    echo "$*" >&2
    exit 1
}

debian_mirror() {
    local mirror=""
    if [ -f /etc/apt/sources.list.d/debian.sources ]; then
        mirror=$(awk '/^URIs:/ { for (i = 2; i <= NF; i++) if ($i !~ /security/) { print $i; exit } }' \
            /etc/apt/sources.list.d/debian.sources)
    fi
    if [ -z "$mirror" ] && [ -f /etc/apt/sources.list ]; then
        mirror=$(awk '$1 == "deb" && $0 !~ /security/ {
                for (i = 2; i <= NF; i++) if ($i ~ /^(https?|ftp):\/\//) { print $i; exit } }' \
            /etc/apt/sources.list)
    fi
    echo "${mirror:-http://deb.debian.org/debian}"
}

# The last error line of a log, for a one-line reason.
last_error() {
    local line
    line=$(grep -E '^(E|W): ' "$1" | tail -n 1 | sed -E 's/^(E|W): //')
    [ -n "$line" ] || line=$(tail -n 1 "$1")
    echo "${line:-no output}"
}

is_mounted() {
    awk -v p="$1" '$2 == p { found = 1 } END { exit !found }' /proc/mounts
}

# Anything mounted at or below the given directory?
has_mounts_below() {
    awk -v p="$1" '$2 == p || index($2, p "/") == 1 { found = 1 } END { exit !found }' /proc/mounts
}

bind() {
    local source=$1 target=$2
    is_mounted "$target" && return 0
    "${SUDO[@]}" mkdir -p "$target"
    "${SUDO[@]}" mount --bind "$source" "$target"
}

unbind() {
    local target=$1
    is_mounted "$target" || return 0
    "${SUDO[@]}" umount "$target" 2>/dev/null || "${SUDO[@]}" umount -l "$target"
}

mount_system() {
    local root=$1 dir
    for dir in /proc /sys /dev /tmp; do bind "$dir" "$root$dir"; done
}

umount_system() {
    local root=$1 dir
    for dir in /tmp /dev /sys /proc; do unbind "$root$dir"; done
}

in_root() {
    local root=$1
    shift
    "${SUDO[@]}" chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
        LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}

# Moves a finished stage into place.
install_stage() {
    local stage=$1
    has_mounts_below "$ROOTFS" && fail "$ROOTFS has mounts; unmount them first"
    "${SUDO[@]}" rm -rf "$ROOTFS"
    "${SUDO[@]}" mv "$stage" "$ROOTFS"
}

prepare() {
    [ -f "$ROOTFS/$READY_MARK" ] && return 0
    if [ ${#SUDO[@]} -gt 0 ] && ! sudo -n true 2>/dev/null; then
        fail "needs root or password-less sudo"
    fi

    local stage="$ROOTFS.partial" log="${ZK_I386_LOG:-/tmp/qaxkrnl-i386-root.log}"
    local tarball=${ZK_I386_ROOT_TARBALL:-}
    has_mounts_below "$stage" && fail "$stage still has mounts; unmount them first"
    "${SUDO[@]}" rm -rf "$stage"
    "${SUDO[@]}" mkdir -p "$(dirname "$ROOTFS")"
    : >"$log"

    if [ -n "$tarball" ] && [ -f "$tarball" ]; then
        echo "i386 root: unpacking $tarball"
        "${SUDO[@]}" mkdir -p "$stage"
        if "${SUDO[@]}" tar -C "$stage" -xf "$tarball" >>"$log" 2>&1 &&
            [ -f "$stage/$READY_MARK" ]; then
            install_stage "$stage"
            return 0
        fi
        echo "i386 root: $tarball is not a prepared root; making one"
        "${SUDO[@]}" rm -rf "$stage"
    fi
    command -v debootstrap >/dev/null || fail "debootstrap is not installed"

    local mirror
    mirror=$(debian_mirror)
    echo "i386 root: debootstrap $SUITE from $mirror into $stage"
    if ! "${SUDO[@]}" debootstrap --arch=i386 --variant=minbase "$SUITE" "$stage" "$mirror" \
        >>"$log" 2>&1; then
        has_mounts_below "$stage" || "${SUDO[@]}" rm -rf "$stage"
        fail "debootstrap failed: $(last_error "$log") (log: $log)"
    fi
    "${SUDO[@]}" cp /etc/resolv.conf "$stage/etc/resolv.conf" 2>/dev/null || true

    echo "i386 root: installing wine, wine32, xvfb, xauth"
    mount_system "$stage"
    local status=0
    {
        in_root "$stage" apt-get update -qq &&
            in_root "$stage" apt-get install -y -qq --no-install-recommends \
                wine wine32 xvfb xauth &&
            in_root "$stage" sh -c "export WINEPREFIX=$WINE_PREFIX WINEDEBUG=-all;
                xvfb-run -a sh -c 'wine wineboot -i &&
                    wine reg add \"HKCU\\\\Software\\\\Wine\\\\X11 Driver\" /v Managed /d N /f' &&
                wineserver -w"
    } >>"$log" 2>&1 || status=$?
    umount_system "$stage"
    [ $status -eq 0 ] || fail "wine install failed: $(last_error "$log") (log: $log)"

    "${SUDO[@]}" touch "$stage/$READY_MARK"
    install_stage "$stage"
    if [ -n "$tarball" ]; then
        echo "i386 root: saving it to $tarball"
        "${SUDO[@]}" mkdir -p "$(dirname "$tarball")"
        # Written beside it under a name that keeps its suffix, which picks
        # the compression (.tar, .tar.zst, ...), then moved into place.
        local partial
        partial="$(dirname "$tarball")/.partial-$(basename "$tarball")"
        "${SUDO[@]}" tar -C "$ROOTFS" -caf "$partial" . >>"$log" 2>&1 &&
            "${SUDO[@]}" mv "$partial" "$tarball" ||
            echo "i386 root: could not save $tarball (log: $log)"
    fi
}

mount_dir() {
    local dir
    dir=$(cd "$1" && pwd -P)
    [ -f "$ROOTFS/$READY_MARK" ] || fail "the i386 root is not prepared"
    mount_system "$ROOTFS"
    bind "$dir" "$ROOTFS$dir"
}

umount_dir() {
    local dir
    dir=$(cd "$1" && pwd -P)
    # Stop the wine server of the root's prefix so nothing holds the mounts.
    in_root "$ROOTFS" sh -c "WINEPREFIX=$WINE_PREFIX wineserver -k" >/dev/null 2>&1 || true
    unbind "$ROOTFS$dir"
    umount_system "$ROOTFS"
}

run() {
    [ $# -ge 1 ] || fail "usage: i386-root.sh run <program.exe> [args]"
    local cwd vars=() wrapper=()
    cwd=$(pwd -P)
    if [ -n "${ZK_I386_DISPLAY:-}" ]; then
        vars=(DISPLAY="$ZK_I386_DISPLAY" ${ZK_I386_XAUTHORITY:+XAUTHORITY="$ZK_I386_XAUTHORITY"})
    else
        wrapper=(/usr/bin/xvfb-run -a)
    fi
    exec "${SUDO[@]}" chroot "$ROOTFS" /usr/bin/env -i PATH=/usr/bin:/bin HOME=/root \
        LANG=C.UTF-8 WINEPREFIX="$WINE_PREFIX" WINEDEBUG=-all ${GTEST_FILTER:+GTEST_FILTER="$GTEST_FILTER"} \
        "${vars[@]}" /usr/bin/env --chdir="$cwd" "${wrapper[@]}" /usr/bin/wine "$@"
}

case "${1:-}" in
prepare) prepare ;;
mount) mount_dir "${2:?directory}" ;;
umount) umount_dir "${2:?directory}" ;;
run)
    shift
    run "$@"
    ;;
*) fail "usage: i386-root.sh prepare | mount <dir> | umount <dir> | run <program.exe> [args]" ;;
esac
