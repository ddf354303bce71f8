"""softmatte.cutout against the command-line tool, and on every layout."""

import numpy as np
import pytest

import softmatte
from conftest import SAMPLE, band_trimap, read_png, write_png


def backdrop():
    """A 120x80 backdrop: stretched to the photo by both."""
    y, x = np.mgrid[:80, :120]
    return np.stack([x * 2, y * 3, (x + y) % 256], axis=-1).astype(np.uint8)


# (guide, tool arguments, cutout keywords); the files are made per test.
TOOL_CASES = [
    ("mask", [], {}),
    ("mask", ["--band", "12,0.1", "--quality", "fine", "--colour", "336699"],
     dict(band=(12, 0.1), quality="fine", background=(0x33, 0x66, 0x99))),
    ("mask", ["--band", "5", "--work-size", "120"],
     dict(band=5, work_size=120)),
    ("trimap", ["--work-size", "200"], dict(work_size=200)),
    ("scribbles", ["--background", "@backdrop"],
     dict(background=backdrop())),
]


@pytest.mark.parametrize("guide, arguments, keywords", TOOL_CASES)
def test_matches_the_tool_bit_for_bit(tool, chelsea, tmp_path, guide,
                                      arguments, keywords):
    photo, mask = chelsea
    files = {"mask": SAMPLE / "chelsea_mask.png",
             "scribbles": SAMPLE / "chelsea_scribbles.png",
             "trimap": tmp_path / "trimap.png",
             "@backdrop": tmp_path / "backdrop.png"}
    write_png(files["trimap"], band_trimap(mask, 6))
    write_png(files["@backdrop"], backdrop())
    mode = {"mask": "L", "trimap": "L", "scribbles": "RGBA"}[guide]
    given = read_png(files[guide], mode)
    tool("cutout", SAMPLE / "chelsea.png", "--" + guide, files[guide],
         *[files.get(a, a) for a in arguments], "-o", tmp_path / "out")

    result = softmatte.cutout(photo, **{guide: given}, **keywords)
    foreground = read_png(tmp_path / "out" / "foreground.png", "RGBA")
    np.testing.assert_array_equal(
        result.alpha, read_png(tmp_path / "out" / "alpha.png", "L"))
    np.testing.assert_array_equal(result.alpha, foreground[..., 3])
    # The file keeps black where the matte is 0: nothing shows there.
    visible = result.alpha[..., None] > 0
    np.testing.assert_array_equal(np.where(visible, result.foreground, 0),
                                  foreground[..., :3])
    composite = read_png(tmp_path / "out" / "composite.png", "RGB")
    np.testing.assert_array_equal(result.composite(), composite)


# Each the same pixels as the plain arrays, laid out otherwise.
LAYOUTS = [
    ("reversed twice", lambda a: a[::-1, ::-1][::-1, ::-1]),
    ("window of a larger array",
     lambda a: np.pad(a, [(3, 2), (5, 4)] + [(0, 0)] * (a.ndim - 2))[3:-2,
                                                                     5:-4]),
    ("column-major", np.asfortranarray),
    ("every other element", lambda a: np.repeat(a, 2, axis=1)[:, ::2]),
    ("float in [0, 1]", lambda a: a / np.float32(255)),
]


@pytest.mark.parametrize("name, layout", LAYOUTS, ids=[n for n, _ in LAYOUTS])
def test_any_layout_gives_the_same_cutout(scene, name, layout):
    photo, mask = scene
    want = softmatte.cutout(photo, mask=mask, band=(4, 0.3))
    got = softmatte.cutout(layout(photo), mask=layout(mask), band=(4, 0.3))
    np.testing.assert_array_equal(got.alpha, want.alpha)
    np.testing.assert_array_equal(got.foreground, want.foreground)
    assert got.alpha.flags.c_contiguous and got.alpha.dtype == np.uint8


def test_channel_reversed_view_and_bool_mask(scene):
    photo, mask = scene
    want = softmatte.cutout(photo, mask=mask, band=(4, 0.3))
    bgr = np.ascontiguousarray(photo[..., ::-1])
    got = softmatte.cutout(bgr[..., ::-1], mask=mask > 0, band=(4, 0.3))
    np.testing.assert_array_equal(got.alpha, want.alpha)
    np.testing.assert_array_equal(got.foreground, want.foreground)
    # A soft band: the solve ran.
    assert np.count_nonzero((want.alpha > 0) & (want.alpha < 255)) > 20
    assert set(want.timings) >= {"trimap", "solve", "colours"}


def test_scribbles_as_picture_labels_or_segmented_mask(chelsea,
                                                       chelsea_scribbles):
    photo, _ = chelsea
    labels = softmatte.scribble_labels(chelsea_scribbles)
    assert set(np.unique(labels)) == {0, 1, 2}
    mask = softmatte.segment_scribbles(photo, chelsea_scribbles)
    assert set(np.unique(mask)) == {0, 255}
    want = softmatte.cutout(photo, scribbles=chelsea_scribbles)
    for guide in ({"scribbles": chelsea_scribbles[..., :3]},
                  {"scribbles": labels}, {"mask": mask}):
        np.testing.assert_array_equal(
            softmatte.cutout(photo, **guide).alpha, want.alpha)


@pytest.mark.parametrize("rgba, label", [
    ((192, 96, 96, 255), 2), ((191, 0, 0, 255), 0), ((255, 0, 97, 255), 0),
    ((96, 96, 192, 128), 1), ((0, 97, 255, 255), 0), ((0, 0, 255, 127), 0),
    ((255, 255, 255, 255), 0),
])
def test_stroke_colours(rgba, label):
    picture = np.array(rgba, np.uint8).reshape(1, 1, 4)
    assert softmatte.scribble_labels(picture)[0, 0] == label


def test_composite_over_colour_image_and_default(scene):
    photo, mask = scene
    result = softmatte.cutout(photo, mask=mask, band=(4, 0.3),
                              background=(10, 20, 30))
    a = result.alpha[..., None].astype(np.int64)
    f = result.foreground.astype(np.int64)

    def over(back):
        return ((f * a + back * (255 - a) + 127) // 255).astype(np.uint8)

    np.testing.assert_array_equal(result.composite(),
                                  over(np.array([10, 20, 30])))
    np.testing.assert_array_equal(result.composite((255, 255, 255)),
                                  over(np.array([255, 255, 255])))
    np.testing.assert_array_equal(result.composite(photo[::-1]),
                                  over(photo[::-1].astype(np.int64)))
    plain = softmatte.cutout(photo, mask=mask, band=(4, 0.3))
    np.testing.assert_array_equal(plain.composite(),
                                  over(np.array([255, 255, 255])))
