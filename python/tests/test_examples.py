"""examples/cutout.py writes what the library computes."""

import subprocess
import sys

import numpy as np
import pytest

import softmatte
from conftest import ROOT, SAMPLE, read_png

pytest.importorskip("matplotlib")


def test_cutout_example(chelsea, tmp_path):
    photo, mask = chelsea
    subprocess.run([sys.executable, ROOT / "examples" / "cutout.py",
                    SAMPLE / "chelsea.png", SAMPLE / "chelsea_mask.png",
                    "--band", "12,0.1", "-o", tmp_path],
                   check=True, capture_output=True)
    want = softmatte.cutout(photo, mask=mask, band=(12, 0.1))
    np.testing.assert_array_equal(read_png(tmp_path / "alpha.png", "L"),
                                  want.alpha)
    rgba = read_png(tmp_path / "foreground.png", "RGBA")
    np.testing.assert_array_equal(rgba[..., :3], want.foreground)
    np.testing.assert_array_equal(read_png(tmp_path / "composite.png", "RGB"),
                                  want.composite())
    assert read_png(tmp_path / "figure.png", "RGB").shape[1] > photo.shape[1]
