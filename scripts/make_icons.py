#!/usr/bin/env python3
"""make_icons.py -- draws the two images the gateway's error page refers to, as GIFs:
htdocs/icons/bg4.gif (the page background, a quiet tile) and htdocs/icons/blogin.gif
(the button that leads back to the login page). Run it again only to change them."""
import os
import struct

FONT = {  # 5x7 capitals, one row per string, '#' = ink
    'L': ["#....", "#....", "#....", "#....", "#....", "#....", "#####"],
    'O': [".###.", "#...#", "#...#", "#...#", "#...#", "#...#", ".###."],
    'G': [".###.", "#...#", "#....", "#.###", "#...#", "#...#", ".###."],
    'I': ["#####", "..#..", "..#..", "..#..", "..#..", "..#..", "#####"],
    'N': ["#...#", "##..#", "#.#.#", "#..##", "#...#", "#...#", "#...#"],
    ' ': ["....."] * 7,
}


def lzw(pixels, min_code=8):
    """GIF LZW with a clear code before every 254 pixels: valid, simple, small enough."""
    clear, end = 1 << min_code, (1 << min_code) + 1
    bits, acc, nbits, out = min_code + 1, 0, 0, bytearray()

    def put(code):
        nonlocal acc, nbits
        acc |= code << nbits
        nbits += bits
        while nbits >= 8:
            out.append(acc & 0xff)
            acc >>= 8
            nbits -= 8
    for i, p in enumerate(pixels):
        if i % 254 == 0:
            put(clear)
        put(p)
    put(end)
    if nbits:
        out.append(acc & 0xff)
    return bytes(out)


def gif(path, width, height, palette, pixels):
    table = b"".join(bytes(c) for c in palette) + b"\0\0\0" * (256 - len(palette))
    data = lzw(pixels)
    blocks = b"".join(bytes([len(data[i:i + 255])]) + data[i:i + 255]
                      for i in range(0, len(data), 255))
    with open(path, "wb") as f:
        f.write(b"GIF89a" + struct.pack("<HHBBB", width, height, 0xF7, 0, 0) + table)
        f.write(b"," + struct.pack("<HHHHB", 0, 0, width, height, 0) + b"\x08" + blocks + b"\0;")


def background(path):
    w = h = 64
    px = [1 if ((x // 32) + (y // 32)) % 2 else 0 for y in range(h) for x in range(w)]
    gif(path, w, h, [(0xf4, 0xf7, 0xfb), (0xe8, 0xee, 0xf5)], px)


def button(path, text="LOG IN"):
    scale, w, h = 2, 120, 36
    px = [[2 if x < 2 or y < 2 or x >= w - 2 or y >= h - 2 else 0 for x in range(w)]
          for y in range(h)]
    tw = len(text) * 6 * scale - scale
    x0, y0 = (w - tw) // 2, (h - 7 * scale) // 2
    for k, ch in enumerate(text):
        for r, row in enumerate(FONT[ch]):
            for c, cell in enumerate(row):
                if cell == '#':
                    for dy in range(scale):
                        for dx in range(scale):
                            px[y0 + r * scale + dy][x0 + (k * 6 + c) * scale + dx] = 1
    gif(path, w, h, [(0x2f, 0x5d, 0x8a), (0xff, 0xff, 0xff), (0x1d, 0x3d, 0x5c)],
        [p for row in px for p in row])


if __name__ == "__main__":
    here = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "htdocs", "icons")
    os.makedirs(here, exist_ok=True)
    background(os.path.join(here, "bg4.gif"))
    button(os.path.join(here, "blogin.gif"))
