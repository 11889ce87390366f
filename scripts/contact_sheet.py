#!/usr/bin/python3
"""Contact sheets of every command's defaults on sample photos.

For each photo, at its own size and enlarged four times, every command of
the korvane tool is run with its defaults (animate and disperse need an
input: a flow line across the middle and an ellipse in the middle as the
subject; they show frame 24 of their 48). Each result is shrunk to a tile
and the tiles are laid out one photo a row, labelled, in two sheets:
at-size.jpg and enlarged.jpg in the output folder.

    /usr/bin/python3 scripts/contact_sheet.py --photos DIR [--korvane build/release/tools/korvane] [--out docs/contact_sheet]

Needs Pillow (Debian: python3-pil). The sheets are small JPEGs, to look at
and keep in the tree.
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile

from PIL import Image, ImageDraw

TILE = 224
COMMANDS = ["focus-blur", "glitch", "glow", "light-rays", "bokeh", "sparkle", "animate", "disperse"]


def inputs_for(command, photo, work):
    """What a command needs beside the photo, made for this photo."""
    with Image.open(photo) as img:
        w, h = img.size
    if command == "animate":
        flows = os.path.join(work, "flows.json")
        line = [[w * (0.2 + 0.1 * i), h * 0.5] for i in range(7)]
        with open(flows, "w") as f:
            json.dump({"flows": [{"type": "path", "points": line}]}, f)
        return ["--flows", flows, "--frame", "24"]
    if command == "disperse":
        mask = Image.new("L", (w, h), 0)
        ImageDraw.Draw(mask).ellipse([w * 0.3, h * 0.25, w * 0.7, h * 0.75], fill=255)
        path = os.path.join(work, "subject.png")
        mask.save(path)
        return ["--mask", path, "--frame", "24"]
    return []


def render(korvane, command, photo, work):
    out = os.path.join(work, command + ".png")
    args = [korvane, command, photo] + inputs_for(command, photo, work) + ["-q", "-o", out]
    done = subprocess.run(args, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(" ".join(args) + ": " + done.stderr.strip())
    return out


def tile(path):
    with Image.open(path) as img:
        img = img.convert("RGB")
        return img.resize((TILE, max(1, round(img.height * TILE / img.width))), Image.LANCZOS)


def sheet(rows, labels):
    """Rows of tiles under a header of labels."""
    pad, head = 6, 22
    height = head + sum(max(t.height for t in row) + pad for row, _ in rows)
    out = Image.new("RGB", (pad + len(labels) * (TILE + pad), height), (24, 24, 24))
    draw = ImageDraw.Draw(out)
    for i, label in enumerate(labels):
        draw.text((pad + i * (TILE + pad) + 4, 5), label, fill=(230, 230, 230))
    y = head
    for row, name in rows:
        for i, t in enumerate(row):
            out.paste(t, (pad + i * (TILE + pad), y))
        draw.text((pad + 4, y + 4), name, fill=(255, 255, 0))
        y += max(t.height for t in row) + pad
    return out


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--photos", required=True, help="folder of sample photos (PNG or JPEG)")
    parser.add_argument("--korvane", default="build/release/tools/korvane")
    parser.add_argument("--out", default="docs/contact_sheet")
    args = parser.parse_args()
    photos = sorted(p for p in os.listdir(args.photos) if p.lower().endswith((".png", ".jpg", ".jpeg")))
    os.makedirs(args.out, exist_ok=True)
    labels = ["photo"] + COMMANDS
    for scale, name in ((1, "at-size.jpg"), (4, "enlarged.jpg")):
        rows = []
        for p in photos:
            with tempfile.TemporaryDirectory() as work:
                photo = os.path.join(work, "photo.png")
                with Image.open(os.path.join(args.photos, p)) as img:
                    img = img.convert("RGB")
                    img.resize((img.width * scale, img.height * scale), Image.LANCZOS).save(photo, compress_level=1)
                    size = "%dx%d" % (img.width * scale, img.height * scale)
                row = [tile(photo)] + [tile(render(args.korvane, c, photo, work)) for c in COMMANDS]
                rows.append((row, "%s %s" % (p, size)))
                print("%s at %dx: done" % (p, scale), flush=True)
        sheet(rows, labels).save(os.path.join(args.out, name), quality=80, optimize=True)


if __name__ == "__main__":
    main()
