#!/usr/bin/env python3
"""Cuts the subject out of a photo with a rough mask, using softmatte.

    python3 examples/cutout.py PHOTO MASK [-o DIR] [--band MAX[,SCALE]]
                               [--colour RRGGBB]

Writes into DIR (default softmatte-out):

    alpha.png       the matte, 255 the subject
    foreground.png  the subject's own colours, the matte as alpha channel
    composite.png   the subject over the colour (default white)
    figure.png      photo, mask, matte and composite side by side

softmatte has to be importable: installed, or from a build with
PYTHONPATH=build/python.
"""

import argparse
import pathlib

import matplotlib
import numpy as np
from PIL import Image

import softmatte

matplotlib.use("Agg")  # files only, no window
import matplotlib.pyplot as plt  # noqa: E402 (after choosing the backend)


def parse_band(text):
    """MAX or MAX,SCALE as softmatte.cutout takes it."""
    parts = text.split(",")
    if len(parts) == 1:
        return int(parts[0])
    return int(parts[0]), float(parts[1])


def parse_colour(text):
    value = int(text.lstrip("#"), 16)
    return value >> 16, (value >> 8) & 0xFF, value & 0xFF


def save_figure(path, panels):
    height, width = panels[0][1].shape[:2]
    figure, axes = plt.subplots(1, len(panels),
                                figsize=(4 * len(panels), 4 * height / width))
    for axis, (title, picture) in zip(axes, panels):
        # Grey planes as grey, not in a colour map.
        axis.imshow(picture, cmap="gray", vmin=0, vmax=255)
        axis.set_title(title)
        axis.axis("off")
    figure.tight_layout()
    figure.savefig(path, dpi=100)
    plt.close(figure)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("photo", type=pathlib.Path)
    parser.add_argument("mask", type=pathlib.Path,
                        help="128 and brighter is the subject")
    parser.add_argument("-o", dest="out", type=pathlib.Path,
                        default=pathlib.Path("softmatte-out"))
    parser.add_argument("--band", type=parse_band, default=None,
                        help="MAX[,SCALE]: the unknown band around the mask's "
                        "edge; a rough mask wants a wide one, e.g. 12,0.1")
    parser.add_argument("--colour", type=parse_colour, default=None,
                        help="RRGGBB behind the subject (default FFFFFF)")
    args = parser.parse_args()

    photo = np.asarray(Image.open(args.photo).convert("RGB"))
    mask = np.asarray(Image.open(args.mask).convert("L"))
    result = softmatte.cutout(photo, mask=mask, band=args.band,
                              background=args.colour)
    composite = result.composite()

    args.out.mkdir(parents=True, exist_ok=True)
    Image.fromarray(result.alpha).save(args.out / "alpha.png")
    Image.fromarray(np.dstack([result.foreground, result.alpha])).save(
        args.out / "foreground.png")
    Image.fromarray(composite).save(args.out / "composite.png")
    save_figure(args.out / "figure.png",
                [("photo", photo), ("mask", mask), ("alpha", result.alpha),
                 ("composite", composite)])
    print(f"wrote alpha.png, foreground.png, composite.png and figure.png "
          f"in {args.out.resolve()}")


if __name__ == "__main__":
    main()
