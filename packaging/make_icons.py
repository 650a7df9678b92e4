#!/usr/bin/env python3
"""Draws the project's 32x32 ribbon icons, one PNG per image number the library asks for.

Each icon is a rounded square in a colour of its group with a white glyph, corners transparent.
Only the standard library is used, so anyone can redraw them: python3 packaging/make_icons.py
"""
import os
import struct
import sys
import zlib

SIZE = 32
WHITE = (255, 255, 255)

# image number -> (what it stands for, square colour, glyph)
ICONS = {
    102: ("apply Morvelin", (46, 106, 196), "M"),
    318: ("apply the product", (46, 106, 196), "check"),
    303: ("insert reference", (33, 140, 116), "quote"),
    204: ("paste reference", (33, 140, 116), "paste"),
    205: ("Tomeseek", (120, 72, 170), "lens"),
    206: ("new chapter", (196, 110, 36), "page"),
    207: ("heading 1", (70, 80, 96), "H1"),
    208: ("heading 2", (70, 80, 96), "H2"),
    209: ("heading 3", (70, 80, 96), "H3"),
    210: ("heading 4", (70, 80, 96), "H4"),
    211: ("front matter", (196, 110, 36), "lines"),
    212: ("paragraph", (70, 80, 96), "pilcrow"),
    213: ("quotation", (70, 80, 96), "quote"),
    215: ("user manual", (180, 60, 60), "book"),
    314: ("Lexoscope", (120, 72, 170), "eye"),
}

# 3x5 digits and letters, for the heading numbers and the M.
FONT = {
    "1": ["010", "110", "010", "010", "111"],
    "2": ["111", "001", "111", "100", "111"],
    "3": ["111", "001", "011", "001", "111"],
    "4": ["101", "101", "111", "001", "001"],
    "H": ["101", "101", "111", "101", "101"],
    "M": ["10001", "11011", "10101", "10001", "10001"],
}


def rounded_square(colour):
    pixels = [[(0, 0, 0, 0)] * SIZE for _ in range(SIZE)]
    radius, inset = 6, 1
    lo, hi = inset, SIZE - 1 - inset
    for y in range(SIZE):
        for x in range(SIZE):
            if not (lo <= x <= hi and lo <= y <= hi):
                continue
            cx = min(max(x, lo + radius), hi - radius)
            cy = min(max(y, lo + radius), hi - radius)
            d = ((x - cx) ** 2 + (y - cy) ** 2) ** 0.5
            alpha = max(0.0, min(1.0, radius + 0.5 - d))
            if alpha > 0:
                pixels[y][x] = colour + (round(alpha * 255),)
    return pixels


def fill(pixels, x0, y0, x1, y1):
    for y in range(max(0, y0), min(SIZE, y1)):
        for x in range(max(0, x0), min(SIZE, x1)):
            pixels[y][x] = WHITE + (255,)


def text(pixels, chars, scale, x, y):
    for ch in chars:
        rows = FONT[ch]
        for ry, row in enumerate(rows):
            for rx, bit in enumerate(row):
                if bit == "1":
                    fill(pixels, x + rx * scale, y + ry * scale,
                         x + (rx + 1) * scale, y + (ry + 1) * scale)
        x += (len(rows[0]) + 1) * scale


def ring(pixels, cx, cy, outer, inner):
    for y in range(SIZE):
        for x in range(SIZE):
            d = ((x - cx) ** 2 + (y - cy) ** 2) ** 0.5
            if inner <= d <= outer:
                pixels[y][x] = WHITE + (255,)


def glyph(pixels, name):
    if name == "M":
        text(pixels, "M", 3, 9, 9)
    elif name.startswith("H"):
        text(pixels, name, 3, 5, 9)
    elif name == "check":
        for i in range(6):
            fill(pixels, 8 + i, 15 + i, 11 + i, 18 + i)
        for i in range(11):
            fill(pixels, 13 + i, 19 - i, 16 + i, 22 - i)
    elif name == "quote":
        for x in (9, 18):
            fill(pixels, x, 9, x + 5, 15)
            fill(pixels, x + 2, 15, x + 5, 20)
    elif name == "paste":
        fill(pixels, 9, 8, 23, 25)
        fill(pixels, 13, 6, 19, 10)
        for y in (13, 17, 21):
            fill(pixels, 11, y, 21, y + 1)
    elif name == "lens":
        ring(pixels, 14, 14, 7, 4.5)
        for i in range(6):
            fill(pixels, 19 + i, 19 + i, 22 + i, 22 + i)
    elif name == "page":
        fill(pixels, 10, 7, 22, 25)
        fill(pixels, 15, 11, 17, 21)
        fill(pixels, 11, 15, 21, 17)
    elif name == "lines":
        for y, w in ((9, 14), (14, 10), (19, 14), (24, 8)):
            fill(pixels, 9, y, 9 + w, y + 2)
    elif name == "pilcrow":
        ring(pixels, 14, 12, 4.5, 0)
        fill(pixels, 15, 8, 17, 25)
        fill(pixels, 20, 8, 22, 25)
        fill(pixels, 14, 8, 22, 10)
    elif name == "book":
        fill(pixels, 8, 8, 15, 24)
        fill(pixels, 17, 8, 24, 24)
    elif name == "eye":
        ring(pixels, 16, 16, 9, 7.5)
        ring(pixels, 16, 16, 3.5, 0)
    else:
        raise ValueError(name)


def png(pixels):
    raw = b"".join(b"\x00" + bytes(v for px in row for v in px) for row in pixels)

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    header = struct.pack(">IIBBBBB", SIZE, SIZE, 8, 6, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
            chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(
        os.path.dirname(os.path.abspath(__file__)), "..", "icons")
    os.makedirs(out, exist_ok=True)
    for number, (_, colour, name) in sorted(ICONS.items()):
        pixels = rounded_square(colour)
        glyph(pixels, name)
        with open(os.path.join(out, f"{number}.png"), "wb") as f:
            f.write(png(pixels))


if __name__ == "__main__":
    main()
