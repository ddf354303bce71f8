"""softmatte.cutout against the command-line tool and the example, and on
every layout."""

import subprocess
import sys

import numpy as np
import pytest
from PIL import Image

import softmatte
from conftest import ROOT, SAMPLE, read_png

BAND = (4, 0.3)
# A 120x80 backdrop: stretched to the photo by both.
Y, X = np.mgrid[:80, :120]
BACKDROP = np.stack([X * 2, Y * 3, (X + Y) % 256], axis=-1).astype(np.uint8)

# (guide, tool arguments, cutout keywords); the files are made per test.
TOOL_CASES = [
    ("mask", [], {}),
    ("mask", ["--band", "5", "--work-size", "120", "--colour", "336699"],
     dict(band=5, work_size=120, background=(0x33, 0x66, 0x99))),
    ("trimap", ["--work-size", "200"], dict(work_size=200)),
    ("scribbles", ["--background", "@backdrop"], dict(background=BACKDROP)),
]


@pytest.mark.parametrize("guide, arguments, keywords", TOOL_CASES)
def test_matches_the_tool_bit_for_bit(tool, chelsea, tmp_path, guide,
                                      arguments, keywords):
    photo, mask, scribbles = chelsea
    # The trimap: unknown where the mask changes within 6 pixels.
    edge = ((np.roll(mask, 6, 0) != np.roll(mask, -6, 0))
            | (np.roll(mask, 6, 1) != np.roll(mask, -6, 1)))
    given = {"mask": mask, "trimap": np.where(edge, 128, mask),
             "scribbles": scribbles}[guide]
    files = {g: tmp_path / (g + ".png") for g in (guide, "@backdrop")}
    Image.fromarray(given).save(files[guide])
    Image.fromarray(BACKDROP).save(files["@backdrop"])
    tool("cutout", SAMPLE / "chelsea.png", "--" + guide, files[guide],
         *[files.get(a, a) for a in arguments], "-o", tmp_path / "out")

    result = softmatte.cutout(photo, **{guide: given}, **keywords)
    np.testing.assert_array_equal(
        result.alpha, read_png(tmp_path / "out" / "alpha.png", "L"))
    composite = read_png(tmp_path / "out" / "composite.png", "RGB")
    np.testing.assert_array_equal(result.composite(), composite)


def test_the_example_writes_what_the_library_computes(chelsea, tmp_path):
    pytest.importorskip("matplotlib")
    photo, mask, _ = chelsea
    subprocess.run([sys.executable, ROOT / "examples" / "cutout.py",
                    SAMPLE / "chelsea.png", SAMPLE / "chelsea_mask.png",
                    "--band", "12,0.1", "-o", tmp_path],
                   check=True, capture_output=True)
    want = softmatte.cutout(photo, mask=mask, band=(12, 0.1))
    for name, mode, plane in [("alpha", "L", want.alpha),
                              ("foreground", "RGB", want.foreground),
                              ("composite", "RGB", want.composite())]:
        np.testing.assert_array_equal(
            read_png(tmp_path / (name + ".png"), mode), plane)
    assert read_png(tmp_path / "figure.png", "RGB").shape[1] > photo.shape[1]


# Each the same pixels as the plain arrays, laid out otherwise; masks also
# at mid-grey (128 and brighter is the subject) and as booleans.
LAYOUTS = {
    "window of a larger array": lambda a: np.pad(
        a, [(3, 2), (5, 4)] + [(0, 0)] * (a.ndim - 2))[3:-2, 5:-4],
    "column-major": np.asfortranarray,
    "float in [0, 1]": lambda a: a / np.float32(255),
    "mid-grey mask": lambda a: a if a.ndim == 3 else a // 255 + 127,
    "bool mask": lambda a: a if a.ndim == 3 else a > 0,
}


@pytest.mark.parametrize("layout", LAYOUTS.values(), ids=LAYOUTS.keys())
def test_any_layout_gives_the_same_cutout(scene, layout):
    photo, mask = scene
    want = softmatte.cutout(photo, mask=mask, band=BAND)
    got = softmatte.cutout(layout(photo), mask=layout(mask), band=BAND)
    np.testing.assert_array_equal(got.alpha, want.alpha)
    np.testing.assert_array_equal(got.foreground, want.foreground)
    assert got.alpha.flags.c_contiguous and got.alpha.dtype == np.uint8


def test_stroke_colours_red_subject_blue_background_else_nothing():
    colours = np.array([[(192, 96, 96, 255), (191, 0, 0, 255),
                         (255, 0, 97, 255), (96, 96, 192, 128),
                         (0, 97, 255, 255), (0, 0, 255, 127),
                         (255, 255, 255, 255)]], np.uint8)
    np.testing.assert_array_equal(softmatte.scribble_labels(colours),
                                  [[2, 0, 0, 1, 0, 0, 0]])
