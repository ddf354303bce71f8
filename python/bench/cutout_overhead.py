#!/usr/bin/env python3
"""What the Python binding adds to a 12-megapixel cut-out.

Times softmatte.cutout (an RGB array and a mask in, new arrays out) against
the library's mat_cutout called straight on the same photo already in its
own B, G, R layout, into freshly allocated outputs as a C++ caller would
have them. Both run in the same process on the same synthetic 4000 x 3000
photo, alternately; the medians of processor time (which other processes
on a busy machine disturb far less than wall-clock time) and of wall-clock
time are printed with their ratios.

    PYTHONPATH=build/python python3 python/bench/cutout_overhead.py

--repeats N runs each call N times (default 3).
"""

import argparse
import statistics
import time

import numpy as np

import softmatte
from softmatte import _softmatte

WIDTH, HEIGHT = 4000, 3000


def scene():
    """A noisy ellipse on a colour ramp, and its mask."""
    rng = np.random.default_rng(7)
    y, x = np.ogrid[:HEIGHT, :WIDTH]
    inside = ((x - 2000) / 1300.0) ** 2 + ((y - 1500) / 1000.0) ** 2 < 1
    photo = np.empty((HEIGHT, WIDTH, 3), np.uint8)
    photo[...] = (x * 255 // WIDTH)[..., None]
    photo[..., 1] = (y * 255 // HEIGHT)
    photo[inside] = (210, 160, 120)
    photo += rng.integers(0, 16, photo.shape, dtype=np.uint8)
    return photo, np.where(inside, 255, 0).astype(np.uint8)


def timed(call):
    """(processor seconds, wall-clock seconds, result) of call()."""
    cpu, wall = time.process_time(), time.perf_counter()
    result = call()
    return time.process_time() - cpu, time.perf_counter() - wall, result


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--repeats", type=int, default=3)
    args = parser.parse_args()

    photo, mask = scene()
    bgr = np.ascontiguousarray(photo[..., ::-1])

    def direct():
        alpha = np.empty(mask.shape, np.uint8)
        colours = np.empty(photo.shape, np.uint8)
        status = _softmatte.cutout_raw(bgr, mask, _softmatte.GUIDE_MASK,
                                       alpha, colours)
        assert status == _softmatte.CUTOUT_OK
        return alpha, colours

    def binding():
        return softmatte.cutout(photo, mask=mask)

    library, python = [], []
    for _ in range(args.repeats):
        *seconds, (alpha, colours) = timed(direct)
        library.append(seconds)
        *seconds, result = timed(binding)
        python.append(seconds)
    # The same cut-out both ways, the colours in the other order.
    assert np.array_equal(result.alpha, alpha)
    assert np.array_equal(result.foreground, colours[..., ::-1])

    # After a line break: the solver's own output ends without one.
    print(f"\n12 MP cut-out, median of {args.repeats} runs each:")
    for i, clock in enumerate(("processor", "wall-clock")):
        lib = statistics.median(s[i] for s in library)
        py = statistics.median(s[i] for s in python)
        print(f"  {clock:>10} time: mat_cutout {lib:.3f} s, softmatte.cutout "
              f"{py:.3f} s, the binding adds {100 * (py - lib) / lib:+.1f} %")


if __name__ == "__main__":
    main()
