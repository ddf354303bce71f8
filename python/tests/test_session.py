"""Session: the same mattes as cutout, brushes, undo, threads."""

import threading

import numpy as np
import pytest

import softmatte
from conftest import band_trimap

BAND = (4, 0.3)


@pytest.fixture
def edited(scene):
    """A session with a solved matte, and that matte."""
    photo, mask = scene
    session = softmatte.Session(photo)
    return session, session.matte_from_mask(mask, band=BAND)


@pytest.mark.parametrize("work_size", [1000, 30])
@pytest.mark.parametrize("quality", ["exact", "fine"])
def test_solves_are_soft_only_near_the_edge(scene, work_size, quality):
    photo, mask = scene
    session = softmatte.Session(photo, work_size, quality=quality)
    # Beyond the band and the smoothing's reach the matte is the mask's.
    far = band_trimap(mask, 8)
    for solve in (lambda: session.matte_from_mask(mask, band=BAND),
                  lambda: session.refine(band_trimap(mask, 3))):
        alpha = solve()
        np.testing.assert_array_equal(session.alpha, alpha)
        np.testing.assert_array_equal(alpha[far != 128], far[far != 128])
        assert ((alpha > 0) & (alpha < 255)).sum() > 20
        assert session.foreground().shape == photo.shape


# mode, extra settings, how the dab's square may change: -1 only down, +1
# only up, 0 either way
STROKES = [
    ("erode", {}, -1),
    ("dilate", {}, +1),
    ("subject", {}, +1),
    ("background", {}, -1),
    ("smooth", {"ksize": 7}, 0),
    ("threshold", {"low": 250, "high": 255}, -1),
    ("threshold", {"low": 0, "high": 5}, +1),
]


@pytest.mark.parametrize("mode, settings, direction", STROKES)
def test_strokes_change_only_their_dab_and_undo(edited, mode, settings,
                                                direction):
    session, before = edited
    # Along the disc's top edge, so that every brush has work.
    points = [(30 + dx, 7) for dx in (-6, 0, 6)]
    assert session.stroke(mode, points, radius=6, **settings)
    after = session.alpha
    change = after.astype(int) - before
    assert change.any()
    assert not change[:, :18].any() and not change[:, 43:].any()
    assert not change[14:].any()
    if direction:
        assert (change * direction >= 0).all()
    assert session.undoable == 1
    assert session.undo() and not session.undo()
    np.testing.assert_array_equal(session.alpha, before)


@pytest.mark.parametrize("x, y", [(30, 22), (0, 0), (60, 46)])
def test_a_dab_covers_its_square_clipped_to_the_photo(scene, x, y):
    photo, mask = scene
    session = softmatte.Session(photo)
    session.alpha = np.zeros_like(mask)
    session.stroke("subject", [(x, y)], radius=4)
    want = np.zeros(mask.shape, bool)
    want[max(y - 4, 0):y + 5, max(x - 4, 0):x + 5] = True
    np.testing.assert_array_equal(session.alpha > 0, want)
    assert session.alpha[y, x] == 254  # full weight stops a step short


def test_restore_smooth_and_history(edited):
    session, before = edited
    session.stroke("background", [(30, y) for y in range(0, 47, 3)],
                   radius=5, hardness=1)
    session.smooth(5)
    assert session.undoable == 2
    session.stroke("restore", [(30, y) for y in range(0, 47, 3)], radius=7,
                   hardness=1)
    assert session.undoable == 3
    # Full weight moves within a step of the target (rounding).
    assert np.abs(session.alpha[:, 27:34].astype(int) -
                  before[:, 27:34]).max() <= 1
    assert not session.stroke("subject", [(-50, -50)])  # off the photo
    session.alpha = before  # a new matte: nothing left to undo
    assert session.undoable == 0 and not session.undo()


def test_colours_follow_the_edited_matte(scene, edited):
    photo, _ = scene
    session, _ = edited
    first = session.foreground()
    session.stroke("erode", [(30, 8), (40, 12)], radius=8)
    fresh = softmatte.Session(photo)
    fresh.alpha = session.alpha
    np.testing.assert_array_equal(session.foreground(), fresh.foreground())
    assert session.undo()
    np.testing.assert_array_equal(session.foreground(), first)


def edit(session, mask):
    session.matte_from_mask(mask, band=BAND)
    session.stroke("dilate", [(20, 20), (25, 25)], radius=5)
    session.stroke("background", [(35, 15)], radius=4)
    return session.alpha, session.foreground()


def in_threads(work, count):
    results = [None] * count
    threads = [threading.Thread(target=lambda i=i: results.__setitem__(
        i, work(i))) for i in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return results


def test_sessions_on_threads_give_the_results_in_turn(scene):
    photo, mask = scene
    photos = [photo, np.ascontiguousarray(photo[::-1])]
    masks = [mask, np.ascontiguousarray(mask[::-1])]
    want = [edit(softmatte.Session(p), m) for p, m in zip(photos, masks)]
    got = in_threads(lambda i: edit(softmatte.Session(photos[i]), masks[i]),
                     2)
    cutouts = in_threads(
        lambda i: softmatte.cutout(photos[i], mask=masks[i], band=BAND), 2)
    # One session shared by both threads: the calls take turns.
    shared = softmatte.Session(photo)
    both = in_threads(lambda i: edit(shared, mask), 2)
    for i in range(2):
        for a, b in zip(got[i], want[i]):
            np.testing.assert_array_equal(a, b)
        np.testing.assert_array_equal(
            cutouts[i].alpha,
            softmatte.cutout(photos[i], mask=masks[i], band=BAND).alpha)
        assert both[i][0].shape == mask.shape
