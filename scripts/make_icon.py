#!/usr/bin/env python3
"""Writes platform/win32/qaxkrnl.ico: the library's 16x16 icon (resource 101).

The icon is drawn from code so that it can be rebuilt byte for byte:
a white ring with a tail (a "Q") on a dark blue square, 32 bits per pixel.
Usage: python3 scripts/make_icon.py [output path]
"""
import struct
import sys

SIZE = 16


def pixel(x, y):
    cx, cy = 7.5, 7.0
    d2 = (x - cx) ** 2 + (y - cy) ** 2
    ring = 3.6 ** 2 <= d2 <= 5.6 ** 2
    tail = 9 <= x <= 13 and (x - 9) - 1 <= (y - 10) <= (x - 9) + 1 and y <= 15
    if ring or tail:
        return (255, 255, 255, 255)  # B, G, R, A
    return (96, 32, 16, 255)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "platform/win32/qaxkrnl.ico"
    # Bitmap rows are stored bottom-up; the AND mask is all zero (opaque).
    pixels = b"".join(
        bytes(pixel(x, y)) for y in reversed(range(SIZE)) for x in range(SIZE)
    )
    mask = b"\0" * (4 * SIZE)  # 16 bits per row, padded to 32
    header = struct.pack("<IiiHHIIiiII", 40, SIZE, SIZE * 2, 1, 32, 0,
                         len(pixels) + len(mask), 0, 0, 0, 0)
    image = header + pixels + mask
    directory = struct.pack("<HHH", 0, 1, 1)
    entry = struct.pack("<BBBBHHII", SIZE, SIZE, 0, 0, 1, 32, len(image), 6 + 16)
    with open(out, "wb") as f:
        f.write(directory + entry + image)


if __name__ == "__main__":
    main()
