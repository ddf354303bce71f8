"""Bad arguments raise ValueError or TypeError naming the argument."""

import numpy as np
import pytest

import softmatte

P = np.zeros((20, 30, 3), np.uint8)  # photo
P[5:15, 10:20] = 200
M = np.where(P[..., 0] > 0, 255, 0).astype(np.uint8)  # mask
T = M | 128  # trimap: subject and unknown
C, S, A = softmatte.cutout, softmatte.Session, softmatte.solve_alpha
V, E = ValueError, TypeError

# (call, exception, words the message must hold)
CASES = [
    (lambda: C(P), V, "exactly one of"),
    (lambda: C(P, mask=M, trimap=T), V, "not mask and trimap"),
    (lambda: C(P.astype(np.int32), mask=M), E, "image must be an (H, W, 3)"),
    (lambda: C(P[..., :2], mask=M), V, "RGB array, not of shape (20, 30, 2)"),
    (lambda: C(P[:, :0], mask=M[:, :0]), V, "image is empty"),
    (lambda: C(P * 2.0, mask=M), V, "image: float values must lie in [0, 1]"),
    (lambda: C(P, mask=M[:, 1:]), V, "(20, 29) but the image has (20, 30)"),
    (lambda: C(P, mask=M // 2), V, "mask has no foreground"),
    (lambda: C(P, trimap=M // 4), V, "trimap has no foreground or unknown"),
    (lambda: C(P, scribbles=M // 255), V, "no subject (2) labels"),
    (lambda: C(P, scribbles=P), V, "no red (subject) strokes"),
    (lambda: C(P, mask=M, work_size=7), V, "work_size must lie in [8,"),
    (lambda: C(P, mask=M, band=(3, 0)), V, "band's SCALE must be a positive"),
    (lambda: C(P, mask=M, quality="best"), V, 'quality must be "exact", "fi'),
    (lambda: C(P, mask=M, background=(0, 0, 256)), V, "lie in [0, 255]"),
    (lambda: C(P, mask=M).composite(P[..., :1]), V, "background must be an"),
    (lambda: A(P, np.full_like(M, 128)), V, "trimap has no known pixels"),
    (lambda: A(P, T, epsilon=-1), V, "epsilon must be a positive number"),
    (lambda: setattr(S(P), "alpha", P), V, "alpha must be an (H, W) array"),
    (lambda: S(P).stroke("paint", [(1, 2)]), V, "must be one of erode, dil"),
    (lambda: S(P).stroke("erode", [(np.nan, 2)]), V, "points must be finite"),
]


@pytest.mark.parametrize("call, error, words", CASES)
def test_bad_arguments_raise_naming_them(call, error, words):
    with pytest.raises(error) as raised:
        call()
    assert words in str(raised.value)


@pytest.mark.parametrize("shape", [(1, 1), (1, 9), (9, 1), (2, 3), (3, 5)])
def test_tiny_photos_do_not_crash(shape):
    photo = np.full(shape + (3,), 90, np.uint8)
    mask = np.zeros(shape, np.uint8)
    mask[0, 0] = 255
    assert C(photo, mask=mask).alpha.shape == shape
    session = S(photo)
    assert session.matte_from_mask(mask).shape == shape
    assert session.foreground().shape == shape + (3,)
    assert A(photo, mask | 128).shape == shape
