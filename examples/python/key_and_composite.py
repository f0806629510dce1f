#!/usr/bin/python3
"""Keys a green- or blue-screen picture and lays it over a plate (Pillow reads and writes the files).

    /usr/bin/python3 key_and_composite.py take.png plate.jpg shot.png
"""
import sys

from PIL import Image

import kvimage

take, plate, shot = sys.argv[1:4]
frame = kvimage.from_rgb(Image.open(take).convert("RGBA"))
keyed = kvimage.key(frame, balance=0.8, spill=1.0, erode=1)  # a new BGRA frame, the matte as alpha
background = kvimage.from_rgb(Image.open(plate).convert("RGB").resize(frame.shape[1::-1]))
Image.fromarray(kvimage.to_rgba(kvimage.composite(background, keyed))).save(shot)
print(f"{take}: {(keyed[..., 3] == 0).mean():.0%} keyed out, {(keyed[..., 3] == 255).mean():.0%} kept; wrote {shot}")
