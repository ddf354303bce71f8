"""Bad arguments raise ValueError or TypeError naming the argument."""

import numpy as np
import pytest

import softmatte

PHOTO = np.zeros((20, 30, 3), np.uint8)
PHOTO[5:15, 10:20] = 200
MASK = np.zeros((20, 30), np.uint8)
MASK[5:15, 10:20] = 255
TRIMAP = np.where(MASK > 0, 255, 0).astype(np.uint8)
TRIMAP[4:16, 9:11] = 128
LABELS = np.zeros((20, 30), np.uint8)
LABELS[10, 12:18] = 2
LABELS[1, :] = 1


def session():
    return softmatte.Session(PHOTO)


# (call, exception, words the message must hold)
CASES = [
    (lambda: softmatte.cutout(PHOTO), ValueError, "exactly one of"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK, trimap=TRIMAP), ValueError,
     "not mask and trimap"),
    (lambda: softmatte.cutout(PHOTO.astype(np.int32), mask=MASK), TypeError,
     "image must be an (H, W, 3) RGB array"),
    (lambda: softmatte.cutout("photo.png", mask=MASK), TypeError, "image"),
    (lambda: softmatte.cutout(PHOTO[..., :2], mask=MASK), ValueError,
     "image must be an (H, W, 3) RGB array, not of shape (20, 30, 2)"),
    (lambda: softmatte.cutout(PHOTO[:, :0], mask=MASK[:, :0]), ValueError,
     "image is empty"),
    (lambda: softmatte.cutout(PHOTO * 2.0, mask=MASK), ValueError,
     "image: float values must lie in [0, 1]"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK[:, 1:]), ValueError,
     "mask has shape (20, 29) but the image has (20, 30)"),
    (lambda: softmatte.cutout(PHOTO, mask=PHOTO), ValueError,
     "mask must be an (H, W) array of the image's size (20, 30)"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK.astype(np.int64)), TypeError,
     "mask must be an (H, W) array"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK // 2), ValueError,
     "mask has no foreground"),
    (lambda: softmatte.cutout(PHOTO, trimap=MASK // 4), ValueError,
     "trimap has no foreground or unknown pixels"),
    (lambda: softmatte.cutout(PHOTO, trimap=MASK > 0), TypeError,
     "trimap must be"),
    (lambda: softmatte.cutout(PHOTO, scribbles=LABELS * 100), ValueError,
     "scribbles as labels hold 0"),
    (lambda: softmatte.cutout(PHOTO, scribbles=np.minimum(LABELS, 1)),
     ValueError, "no subject (2) labels"),
    (lambda: softmatte.cutout(PHOTO, scribbles=PHOTO), ValueError,
     "no red (subject) strokes"),
    (lambda: softmatte.cutout(PHOTO, scribbles=np.dstack([PHOTO] * 2)),
     ValueError, "scribbles as a picture must have shape (20, 30, 3)"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK, work_size=7), ValueError,
     "work_size must lie in [8,"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK, work_size=1e3), TypeError,
     "work_size must be an integer"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK, band=-1), ValueError,
     "band must lie in [0,"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK, band=(3, 0)), ValueError,
     "band's SCALE must be a positive number"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK, band="wide"), TypeError,
     "band must be MAX or (MAX, SCALE)"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK, quality="best"), ValueError,
     'quality must be "exact", "fine" or None'),
    (lambda: softmatte.cutout(PHOTO, mask=MASK, background=(1, 2)),
     ValueError, "background as a colour must be (R, G, B)"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK, background=(0, 0, 256)),
     ValueError, "colour values must lie in [0, 255]"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK, background=MASK), ValueError,
     "background must be an (h, w, 3) RGB image or an (R, G, B) colour"),
    (lambda: softmatte.cutout(PHOTO, mask=MASK).composite(PHOTO[..., 0:1]),
     ValueError, "background must be an (H, W, 3) RGB array"),
    (lambda: softmatte.solve_alpha(PHOTO, np.full_like(MASK, 128)),
     ValueError, "trimap has no known pixels"),
    (lambda: softmatte.solve_alpha(PHOTO, TRIMAP, epsilon=-1), ValueError,
     "epsilon must be a positive number"),
    (lambda: softmatte.solve_alpha(PHOTO, TRIMAP.T), ValueError,
     "trimap has shape (30, 20) but the image has (20, 30)"),
    (lambda: softmatte.segment_scribbles(PHOTO, LABELS % 2), ValueError,
     "no subject (2) labels"),
    (lambda: softmatte.scribble_labels(MASK), ValueError,
     "picture must be an (H, W, 3) RGB or (H, W, 4) RGBA array"),
    (lambda: softmatte.Session(PHOTO, work_size=0), ValueError,
     "work_size must lie in"),
    (lambda: session().matte_from_mask(np.zeros_like(MASK)), ValueError,
     "mask has no foreground"),
    (lambda: session().refine(TRIMAP[1:]), ValueError,
     "trimap has shape (19, 30)"),
    (lambda: setattr(session(), "alpha", PHOTO), ValueError,
     "alpha must be an (H, W) array"),
    (lambda: session().stroke("paint", [(1, 2)]), ValueError,
     "mode must be one of erode, dilate"),
    (lambda: session().stroke("erode", [(1, 2, 3)]), ValueError,
     "points must be an (x, y) pair or an (N, 2) sequence"),
    (lambda: session().stroke("erode", [("a", 2)]), TypeError,
     "points must be (x, y) pairs"),
    (lambda: session().stroke("erode", [(np.nan, 2)]), ValueError,
     "points must be finite"),
    (lambda: session().stroke("erode", (1, 2), radius=31), ValueError,
     "radius must lie in [0, 30]"),
    (lambda: session().stroke("erode", (1, 2), hardness=2), ValueError,
     "hardness must lie in [0, 1]"),
    (lambda: session().stroke("threshold", (1, 2), low=300), ValueError,
     "low must lie in [0, 255]"),
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
    assert softmatte.cutout(photo, mask=mask).alpha.shape == shape
    session = softmatte.Session(photo)
    assert session.matte_from_mask(mask).shape == shape
    session.stroke("smooth", [(0, 0), (8, 8)], radius=1)
    assert session.foreground().shape == shape + (3,)
    trimap = np.full(shape, 128, np.uint8)
    trimap[0, 0] = 255
    assert softmatte.solve_alpha(photo, trimap).shape == shape
