"""Session and solve_alpha: brushes, undo, threads, and the solve on a real
photo."""

import os
import pathlib
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import softmatte
from conftest import ROOT, read_png

BAND = (4, 0.3)


def test_strokes_change_their_way_and_undo(scene):
    photo, mask = scene
    session = softmatte.Session(photo)
    before = session.matte_from_mask(mask, band=BAND)
    # How the dab may change the matte: -1 only down, +1 only up, 0 either
    # way. Along the disc's top edge, so that every brush has work.
    for mode, settings, direction in [
            ("erode", {}, -1), ("dilate", {}, +1), ("subject", {}, +1),
            ("background", {}, -1), ("smooth", {"ksize": 7}, 0),
            ("threshold", {"low": 250, "high": 255}, -1),
            ("threshold", {"low": 0, "high": 5}, +1)]:
        assert session.stroke(mode, [(30 + dx, 7) for dx in (-6, 0, 6)],
                              radius=6, **settings)
        change = session.alpha.astype(int) - before
        assert change.any() and (change * direction >= 0).all(), mode
        assert session.undoable == 1 and session.undo()
        np.testing.assert_array_equal(session.alpha, before)
    assert not session.undo()


def test_sessions_on_threads_give_the_results_in_turn(scene):
    photo, mask = scene
    cases = [(photo, mask), (photo[::-1].copy(), mask[::-1].copy())]

    def edit(session, mask):
        session.matte_from_mask(mask, band=BAND)
        session.stroke("dilate", [(20, 20), (25, 25)], radius=5)
        session.stroke("background", [(35, 15)], radius=4)
        return session.alpha, session.foreground()

    def work(case):
        return (edit(softmatte.Session(case[0]), case[1]),
                softmatte.cutout(case[0], mask=case[1], band=BAND).alpha)

    shared = softmatte.Session(photo)
    with ThreadPoolExecutor(2) as pool:
        got = list(pool.map(work, cases))
        # One session shared by both threads: the calls take turns.
        both = list(pool.map(lambda _: edit(shared, mask), range(2)))
    for case, ((alpha, colours), cut) in zip(cases, got):
        (want_alpha, want_colours), want_cut = work(case)
        np.testing.assert_array_equal(alpha, want_alpha)
        np.testing.assert_array_equal(colours, want_colours)
        np.testing.assert_array_equal(cut, want_cut)
    assert all(alpha.shape == mask.shape for alpha, _ in both)


# Bounds on the SAD (thousands) over the unknown band; PyMatting's closed
# form scores 1.13 on this photo.
@pytest.mark.parametrize("quality, bound", [("exact", 2.0), ("fine", 1.5)])
def test_real_photo_within_its_error_bound(quality, bound):
    base = os.environ.get("SOFTMATTE_DATA_DIR", ROOT.parent / "shared/data")
    folder = pathlib.Path(base) / "alphamatting"
    if not (folder / "input" / "GT01.png").exists():
        pytest.skip("the alphamatting photos are not there")
    photo, trimap, truth = (read_png(folder / part / "GT01.png", mode)
                            for part, mode in [("input", "RGB"),
                                               ("trimap", "L"), ("gt", "L")])
    alpha = softmatte.solve_alpha(photo, trimap, quality=quality)
    unknown = trimap == 128
    sad = np.abs(alpha[unknown].astype(int) - truth[unknown]).sum() / 255e3
    assert sad < bound
