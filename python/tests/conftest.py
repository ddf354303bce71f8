"""Shared inputs: the bundled sample, a small synthetic scene, the tool."""

import os
import pathlib
import subprocess

import numpy as np
import pytest
from PIL import Image

ROOT = pathlib.Path(__file__).resolve().parents[2]
SAMPLE = ROOT / "tools" / "sample"


def read_png(path, mode):
    """A PNG file as a uint8 array: mode "RGB", "RGBA" or "L"."""
    with Image.open(path) as picture:
        return np.asarray(picture.convert(mode))


@pytest.fixture(scope="session")
def chelsea():
    """The sample photo (RGB), its rough mask and its scribbles (RGBA)."""
    return (read_png(SAMPLE / "chelsea.png", "RGB"),
            read_png(SAMPLE / "chelsea_mask.png", "L"),
            read_png(SAMPLE / "chelsea_scribbles.png", "RGBA"))


@pytest.fixture(scope="session")
def scene():
    """A small noisy disc on a ramp (odd sizes) and its 0/255 mask."""
    rng = np.random.default_rng(24)
    y, x = np.mgrid[:47, :61]
    inside = np.hypot(x - 30, y - 22) < 15
    ramp = 20 + x[..., None] + np.array([0, 40, 80])
    base = np.where(inside[..., None], np.array([200, 170, 140]), ramp)
    photo = (base + rng.integers(0, 24, base.shape)).astype(np.uint8)
    return photo, np.where(inside, 255, 0).astype(np.uint8)


@pytest.fixture(scope="session")
def tool():
    """Runs the built command-line tool; skips when there is none."""
    path = os.environ.get("SOFTMATTE_TOOL")
    if not path or not os.path.exists(path):
        pytest.skip("the softmatte tool is not built (SOFTMATTE_TOOL)")
    return lambda *args: subprocess.run([path, *map(str, args)], check=True,
                                        capture_output=True)
