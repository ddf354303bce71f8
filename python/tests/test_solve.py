"""solve_alpha: the solve alone, on the scene and on a real photo."""

import os
import pathlib
import re
import subprocess

import numpy as np
import pytest

import softmatte
from conftest import ROOT, band_trimap, read_png


@pytest.mark.parametrize("quality, epsilon", [
    ("exact", None), ("fine", None), ("fine", 1e-5)])
def test_known_pixels_stay_and_the_band_turns_soft(scene, quality, epsilon):
    photo, mask = scene
    trimap = band_trimap(mask, 3)
    alpha = softmatte.solve_alpha(photo, trimap, quality=quality,
                                  epsilon=epsilon)
    known = trimap != 128
    np.testing.assert_array_equal(alpha[known], trimap[known])
    assert len(np.unique(alpha[~known])) > 10
    # The band's inner half leans to the subject, its outer half away.
    inner = alpha[~known & (mask > 0)].mean()
    outer = alpha[~known & (mask == 0)].mean()
    assert 0 < outer < 128 < inner < 255


def test_trimap_without_unknowns_comes_back(scene):
    photo, mask = scene
    np.testing.assert_array_equal(softmatte.solve_alpha(photo, mask), mask)


def alphamatting():
    base = os.environ.get("SOFTMATTE_DATA_DIR", ROOT.parent / "shared/data")
    folder = pathlib.Path(base) / "alphamatting"
    if not (folder / "input" / "GT01.png").exists():
        pytest.skip("the alphamatting photos are not there")
    return folder


# Bounds on the SAD (thousands) over the unknown band; PyMatting's closed
# form scores 1.13 on this photo.
@pytest.mark.parametrize("quality, bound", [("exact", 2.0), ("fine", 1.5)])
def test_real_photo_matches_the_table_program(quality, bound):
    folder = alphamatting()
    name = "GT01.png"
    photo = read_png(folder / "input" / name, "RGB")
    trimap = read_png(folder / "trimap" / name, "L")
    truth = read_png(folder / "gt" / name, "L")
    alpha = softmatte.solve_alpha(photo, trimap, quality=quality)
    unknown = trimap == 128
    sad = np.abs(alpha[unknown].astype(int) - truth[unknown]).sum() / 255e3
    assert sad < bound
    table = os.environ.get("SOFTMATTE_TABLE")
    if not table:
        pytest.skip("the table program is not built (SOFTMATTE_TABLE)")
    printed = subprocess.run(
        [table, "--paths", quality, "--photos", "1"], check=True,
        capture_output=True, text=True).stdout
    row = re.search(r"^\| GT01 \| \d+ \| ([\d.]+) \|", printed, re.M)
    assert f"{sad:.3f}" == row.group(1)
