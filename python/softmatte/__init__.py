"""Soft alpha mattes from a photo and a coarse mask, trimap or scribbles.

softmatte computes an 8-bit alpha matte with fractional edges (hair, fur,
motion blur) and the subject's own colours along those edges, so that the
subject can be composited onto another background without fringes::

    import softmatte
    result = softmatte.cutout(photo, mask=mask)
    picture = result.composite((40, 90, 160))

Arrays
    Photos are (H, W, 3) RGB arrays; masks, trimaps and scribble labels are
    (H, W) arrays of the photo's size. All are uint8 (0..255); masks may
    also be bool, and float arrays with values in [0, 1] are accepted
    everywhere and scaled to 0..255 (rounded). Slices, views and other
    non-contiguous arrays are fine. Every result is a new uint8 array.

Contents
    cutout             photo and mask, trimap or scribbles to matte, colours
                       and composite: the command-line tool's flow
    solve_alpha        the matting solve alone, over a trimap, at full size
    segment_scribbles  red and blue strokes to the subject's mask
    scribble_labels    a picture of strokes to a label array
    Session            one photo kept for repeated solves and brush edits

Threads
    The long calls release the GIL, so that photos can be processed in
    parallel on threads. cutout, solve_alpha, segment_scribbles and
    scribble_labels keep no state and may run on any number of threads at
    once. A Session serves one thread at a time: calls on a Session that
    several threads share wait for each other; give each thread its own
    Session to work in parallel.

Errors
    Bad arguments raise ValueError (shape, size or content) or TypeError
    (type or dtype), naming the argument and what was expected.

The solver reports each solve on standard output ("np=" and the number of
unknowns), as the library does for every program that uses it.
"""

import numbers

import numpy as np

from . import _softmatte as _core

__all__ = [
    "Cutout",
    "Session",
    "cutout",
    "scribble_labels",
    "segment_scribbles",
    "solve_alpha",
]

# The library's own defaults (a value-initialised mat_cutout_options), which
# the command-line tool uses too.
_DEFAULTS = _core.cutout_defaults()
_QUALITIES = {"exact": _core.SOLVER_EXACT, "fine": _core.SOLVER_FINE}
# A session always smooths its new matte's boundary; over this window unless
# told otherwise.
_SESSION_KSIZE = 3
_INT_MAX = 2**31 - 1
_WHITE = (255, 255, 255)


# ---- Argument checks and conversions ----

def _uint8(value, name, expected, allow_bool=False):
    """value as a uint8 array: as it is, or converted from bool or float."""
    array = np.asarray(value)
    if array.dtype == np.uint8:
        return array
    if array.dtype == np.bool_ and allow_bool:
        return np.where(array, np.uint8(255), np.uint8(0))
    if array.dtype.kind == "f":
        if array.size and not (np.isfinite(array).all()
                               and array.min() >= 0 and array.max() <= 1):
            raise ValueError(f"{name}: float values must lie in [0, 1]")
        return np.rint(array * 255).astype(np.uint8)
    kinds = "uint8, bool or float" if allow_bool else "uint8 or float"
    raise TypeError(f"{name} must be {expected} of {kinds} values, "
                    f"not of dtype {array.dtype}")


def _photo(value, name="image"):
    array = _uint8(value, name, "an (H, W, 3) RGB array")
    if array.ndim != 3 or array.shape[2] != 3:
        raise ValueError(f"{name} must be an (H, W, 3) RGB array, "
                         f"not of shape {array.shape}")
    if array.shape[0] == 0 or array.shape[1] == 0:
        raise ValueError(f"{name} is empty (shape {array.shape})")
    return array


def _plane(value, name, shape, allow_bool=False):
    """An (H, W) uint8 array of the given photo shape."""
    height, width = shape[:2]
    expected = f"an (H, W) array of the image's size ({height}, {width})"
    array = _uint8(value, name, expected, allow_bool)
    if array.ndim != 2:
        raise ValueError(f"{name} must be {expected}, "
                         f"not of shape {array.shape}")
    if array.shape != (height, width):
        raise ValueError(f"{name} has shape {array.shape} but the image "
                         f"has ({height}, {width})")
    return array


def _labels(value, shape, name="scribbles"):
    """Scribbles (labels or a picture of strokes) as labels 0, 1, 2."""
    array = _uint8(value, name, "an (H, W) label array or an (H, W, 3) or "
                   "(H, W, 4) picture")
    if array.ndim == 3:
        if array.shape[:2] != tuple(shape[:2]) or array.shape[2] not in (3, 4):
            raise ValueError(f"{name} as a picture must have shape "
                             f"({shape[0]}, {shape[1]}, 3) or "
                             f"({shape[0]}, {shape[1]}, 4), "
                             f"not {array.shape}")
        labels, subject, background = _core.scribble_labels(array)
        if not subject:
            raise ValueError(f"{name} have no red (subject) strokes: "
                             "R >= 192 with G and B <= 96")
        if not background:
            raise ValueError(f"{name} have no blue (background) strokes: "
                             "B >= 192 with R and G <= 96")
        return labels
    labels = _plane(array, name, shape)
    if labels.max() > 2:
        raise ValueError(f"{name} as labels hold 0 (nothing), 1 (background) "
                         f"and 2 (subject), not {labels.max()}; a picture of "
                         "strokes has shape (H, W, 3) or (H, W, 4)")
    for label, what in ((2, "subject (2)"), (1, "background (1)")):
        if not (labels == label).any():
            raise ValueError(f"{name} have no {what} labels")
    return labels


def _integer(value, name, low, high=_INT_MAX):
    if isinstance(value, bool) or not isinstance(value, numbers.Integral):
        raise TypeError(f"{name} must be an integer, "
                        f"not {type(value).__name__}")
    if not low <= value <= high:
        raise ValueError(f"{name} must lie in [{low}, {high}], not {value}")
    return int(value)


def _positive(value, name):
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise TypeError(f"{name} must be a number, "
                        f"not {type(value).__name__}")
    if not (np.isfinite(value) and value > 0):
        raise ValueError(f"{name} must be a positive number, not {value}")
    return float(value)


def _band(band):
    """band as (max_band, band_scale); None for the library's defaults."""
    if band is None:
        return None, None
    if isinstance(band, numbers.Integral) and not isinstance(band, bool):
        return _integer(band, "band", 0), None
    try:
        max_band, scale = band
    except (TypeError, ValueError):
        raise TypeError("band must be MAX or (MAX, SCALE): at most MAX "
                        "pixels, SCALE times the subject's half-thickness, "
                        f"not {band!r}") from None
    return (_integer(max_band, "band's MAX", 0),
            _positive(scale, "band's SCALE"))


def _solver(quality):
    if quality is None:
        return None
    if isinstance(quality, str) and quality in _QUALITIES:
        return _QUALITIES[quality]
    raise ValueError(f'quality must be "exact", "fine" or None, '
                     f"not {quality!r}")


def _epsilon(epsilon):
    return None if epsilon is None else _positive(epsilon, "epsilon")


def _background(value, name="background"):
    """An (h, w, 3) image or an RGB colour as a list of three ints."""
    array = np.asarray(value)
    if array.ndim == 1:
        if array.shape != (3,) or array.dtype.kind not in "iuf":
            raise ValueError(f"{name} as a colour must be (R, G, B), "
                             f"not {value!r}")
        if array.dtype.kind in "iu":
            if array.min() < 0 or array.max() > 255:
                raise ValueError(f"{name}: colour values must lie in "
                                 f"[0, 255], not {value!r}")
            return [int(v) for v in array]
        return [int(v) for v in _uint8(array, name, "an (R, G, B) colour")]
    if array.ndim != 3:
        raise ValueError(f"{name} must be an (h, w, 3) RGB image or an "
                         f"(R, G, B) colour, not of shape {array.shape}")
    return _photo(array, name)


def _composite(foreground, alpha, background):
    if isinstance(background, list):
        return _core.composite(foreground, alpha, None, background)
    return _core.composite(foreground, alpha, background, [0, 0, 0])


# ---- One-shot cut-out ----

class Cutout:
    """A finished cut-out, as softmatte.cutout returns it.

    Attributes:
        alpha: (H, W) uint8 matte, 255 the subject and 0 the background.
        foreground: (H, W, 3) uint8 RGB, the subject's own estimated
            colours, with the background no longer bleeding through hair
            and fur; it matters where alpha is above 0.
        timings: seconds spent in each stage of the library's flow, by
            name ("scribbles", "trimap", "tables", "solve", "upsampling",
            "cleanup", "colours"); 0.0 for a stage the input did not need.
    """

    __slots__ = ("alpha", "foreground", "timings", "_background")

    def __init__(self, alpha, foreground, timings, background=None):
        self.alpha = alpha
        self.foreground = foreground
        self.timings = timings
        self._background = list(_WHITE) if background is None else background

    def composite(self, background=None):
        """The subject over a background: a new (H, W, 3) uint8 RGB array.

        Args:
            background: an (h, w, 3) RGB image, stretched to the photo's
                size when its size differs (as the command-line tool
                stretches it); an (R, G, B) colour; or None for the
                background given to cutout (white when it was given none).

        Each channel is (foreground * alpha + background * (255 - alpha))
        / 255, rounded.
        """
        backdrop = (self._background if background is None
                    else _background(background))
        return _composite(self.foreground, self.alpha, backdrop)

    def __repr__(self):
        height, width = self.alpha.shape
        return f"<softmatte.Cutout {width}x{height}>"


def cutout(image, *, mask=None, trimap=None, scribbles=None,
           work_size=_DEFAULTS["work_size"], band=None, quality=None,
           background=None):
    """Cuts the subject out of a photo: its matte, own colours, composite.

    The command-line tool's flow (``softmatte cutout``), with the same
    defaults, and the same results bit for bit on the same inputs and
    settings. Describe the subject with exactly one of mask, trimap and
    scribbles.

    Args:
        image: the photo, (H, W, 3) RGB.
        mask: (H, W), a two-valued segmentation such as a phone's
            segmenter gives: 128 and brighter (or True) is the subject. An
            unknown band is drawn around its edge (see band) and solved.
        trimap: (H, W): below 64 background, above 191 subject, anything in
            between unknown (0 / 128 / 255 trimaps, but also noisy ones).
        scribbles: either an (H, W) label array (2 subject, 1 background, 0
            nothing) or an (H, W, 3) RGB or (H, W, 4) RGBA picture of
            strokes read as the tool reads it: pure red strokes (R >= 192,
            G and B <= 96) mark the subject, pure blue strokes (B >= 192, R
            and G <= 96) the background, anything else, transparent pixels
            (alpha < 128) included, nothing. A pixel is the subject when it
            is geodesically closer to a red stroke than to a blue one; that
            mask is then used as a mask. Both kinds must be present.
        work_size: the matting system is solved on a copy reduced so that
            its longer side is work_size pixels, when both sides of the
            photo exceed it; the result is carried back to full size.
        band: for masks and scribbles, the unknown band around the edge:
            (MAX, SCALE) reaches SCALE times the subject's half-thickness
            to each side, at most MAX pixels; MAX alone keeps the default
            SCALE; None keeps both defaults, which suit masks that sit on
            the true edge. A rough mask wants a wider band, say (12, 0.1).
        quality: "exact" (the pinned solve), "fine" (a symmetric solve in
            double precision with a smaller regulariser), or None for the
            library's default.
        background: what Cutout.composite puts behind the subject unless
            told otherwise: an (h, w, 3) RGB image (stretched to the
            photo's size) or an (R, G, B) colour; None is white.

    Returns:
        A Cutout with alpha, foreground, timings and composite().

    Raises:
        ValueError: a shape or size that does not fit, a mask or trimap
            without subject, scribbles lacking a kind of stroke, not
            exactly one of mask, trimap and scribbles, a setting out of
            range.
        TypeError: an argument of the wrong type or dtype.

    Keeps no state: any number of threads may call it at once; it runs
    without the GIL.
    """
    photo = _photo(image)
    given = [name for name, value in (("mask", mask), ("trimap", trimap),
                                      ("scribbles", scribbles))
             if value is not None]
    if len(given) != 1:
        raise ValueError("cutout needs exactly one of mask, trimap and "
                         "scribbles" + (", not " + " and ".join(given)
                                        if given else ""))
    work_size = _integer(work_size, "work_size", _DEFAULTS["min_work_size"])
    max_band, band_scale = _band(band)
    solver = _solver(quality)
    # Checked before the long solve, so that a bad one fails at once.
    backdrop = None if background is None else _background(background)
    if mask is not None:
        guide = _plane(mask, "mask", photo.shape, allow_bool=True)
        kind = _core.GUIDE_MASK
    elif trimap is not None:
        guide = _plane(trimap, "trimap", photo.shape)
        kind = _core.GUIDE_TRIMAP
    else:
        guide = _labels(scribbles, photo.shape)
        kind = _core.GUIDE_SCRIBBLES
    status, alpha, foreground, timings = _core.cutout(
        photo, guide, kind, work_size, max_band, band_scale, solver)
    if status == _core.CUTOUT_NO_SUBJECT:
        raise ValueError(
            "trimap has no foreground or unknown pixels (none is 64 or more)"
            if kind == _core.GUIDE_TRIMAP else
            f"{given[0]} has no foreground (no pixel is mid-grey or "
            "brighter)")
    if status != _core.CUTOUT_OK:
        raise RuntimeError(f"the cut-out failed (status {status})")
    return Cutout(alpha, foreground, timings, backdrop)


# ---- The solve alone, scribbles ----

def solve_alpha(image, trimap, *, quality="exact", epsilon=None):
    """Solves the matte over a trimap's unknown pixels at full resolution.

    The matting system alone (closed-form matting over 3 x 3 colour
    windows), as the library's mat_update and mat_run give it: no reduced
    working copy, no cleanup, no colours. Its cost grows quickly with the
    number of unknown pixels; for large photos use cutout or a Session.

    Args:
        image: the photo, (H, W, 3) RGB.
        trimap: (H, W): 128 is unknown; every other value is a known alpha
            (0 and 255 in practice) that the solve keeps.
        quality: "exact" (SuperLU on the whole system, the pinned results)
            or "fine" (a symmetric solve of the system reduced to the
            unknown pixels, in double precision).
        epsilon: the regulariser added to each window's colour covariance
            (colours in 0..1); None for the solver's default (1e-4 exact,
            1e-7 fine). Smaller values follow colour edges more closely.

    Returns:
        The (H, W) uint8 matte; known pixels keep their trimap value.

    Raises:
        ValueError: shapes or sizes that do not fit, a trimap without known
            pixels, or unknown pixels the fine solve cannot reach from any
            known one.
        TypeError: an argument of the wrong type or dtype.

    Keeps no state; runs without the GIL.
    """
    photo = _photo(image)
    plane = _plane(trimap, "trimap", photo.shape)
    solver = _solver(quality)
    epsilon = _epsilon(epsilon)
    if not (plane != 128).any():
        raise ValueError("trimap has no known pixels (every pixel is 128)")
    status, alpha = _core.solve_alpha(photo, plane, solver, epsilon)
    if status < 0:
        raise ValueError("trimap: the fine solve cannot factorise the system "
                         "(unknown pixels that no known pixel reaches); try "
                         'quality="exact"')
    return alpha


def scribble_labels(picture):
    """Reads a picture of strokes as the command-line tool reads it.

    Args:
        picture: (H, W, 3) RGB or (H, W, 4) RGBA.

    Returns:
        (H, W) uint8 labels: 2 on pure red strokes (R >= 192, G and B <=
        96), the subject; 1 on pure blue strokes (B >= 192, R and G <= 96),
        the background; 0 elsewhere and wherever alpha is below 128.
    """
    array = _uint8(picture, "picture", "an (H, W, 3) or (H, W, 4) array")
    if array.ndim != 3 or array.shape[2] not in (3, 4) or 0 in array.shape:
        raise ValueError("picture must be an (H, W, 3) RGB or (H, W, 4) RGBA "
                         f"array, not of shape {array.shape}")
    return _core.scribble_labels(array)[0]


def segment_scribbles(image, scribbles):
    """The subject's mask from scribbles, by geodesic distance.

    A pixel is the subject when it is geodesically closer (a step between
    neighbours costs their squared colour difference) to a subject stroke
    than to a background one: the segmentation cutout uses for scribbles.

    Args:
        image: the photo, (H, W, 3) RGB.
        scribbles: labels or a picture of strokes, as cutout takes them.

    Returns:
        (H, W) uint8 mask: 255 the subject, 0 the background.

    Keeps no state; runs without the GIL.
    """
    photo = _photo(image)
    return _core.segment_scribbles(photo, _labels(scribbles, photo.shape))


# ---- Session ----

class Session:
    """One photo held for repeated solves and brush editing.

    A session keeps the photo, a reduced working copy and the tables that
    carry a working matte back to full size, so that an editor can solve,
    touch up, and solve again without starting over::

        session = softmatte.Session(photo)
        session.matte_from_mask(mask, band=(12, 0.1))
        session.stroke("erode", [(120, 40), (124, 46), (130, 50)], radius=9)
        session.stroke("subject", [(200, 210)], radius=25)
        session.undo()                      # takes the last stroke back
        alpha, colours = session.alpha, session.foreground()

    The matte is (H, W) uint8 with 255 the subject. matte_from_mask and
    refine make a new matte (with the same settings, the matte cutout
    gives); smooth and the brushes edit it, and undo takes edits back, the
    most recent first, up to undo_depth of them. A new matte, from a solve
    or assigned to alpha, clears that history.

    Brushes: stroke(mode, points, ...) puts a round dab of the brush at each
    point of a stroke. Its weight is full over the inner hardness of the
    radius and falls off towards the edge; within one stroke a pixel is
    changed once, by the strongest dab that reaches it (erode and dilate
    act at every dab). The modes:

        "erode"       lowers the matte towards its local mean, pulling the
                      edge in (thins hair, removes halos)
        "dilate"      raises it, pushing the edge out
        "subject"     paints towards 255
        "background"  paints towards 0
        "smooth"      blends in the local ksize x ksize mean
        "restore"     brings back the matte of the last solve
        "threshold"   snaps to 0 where the ksize-window maximum is below
                      low, and to 255 where its minimum is above high

    Threads: a session serves one thread at a time. Its calls run without
    the GIL; calls from several threads on one session wait for each other.
    Sessions on different threads run in parallel.
    """

    MODES = _core.BRUSH_MODES

    def __init__(self, image, work_size=_DEFAULTS["work_size"], *,
                 quality=None, epsilon=None, undo_depth=32):
        """Takes the photo.

        Args:
            image: the photo, (H, W, 3) RGB.
            work_size: the system is solved on a copy whose longer side is
                work_size pixels, when both sides of the photo exceed it.
            quality: "exact", "fine" or None (the library's default) for
                every solve of this session.
            epsilon: the solve's regulariser; None for its default.
            undo_depth: how many edits undo can take back.
        """
        photo = _photo(image)
        work_size = _integer(work_size, "work_size",
                             _DEFAULTS["min_work_size"])
        undo_depth = _integer(undo_depth, "undo_depth", 0)
        self._core = _core.Session(photo, work_size, _solver(quality),
                                   _epsilon(epsilon), undo_depth)
        self._shape = photo.shape[:2]

    @property
    def shape(self):
        """(H, W) of the photo."""
        return self._shape

    def matte_from_mask(self, mask, band=None, *, ksize=_SESSION_KSIZE,
                        keep=_DEFAULTS["keep_fragments"]):
        """Makes the matte from a segmentation mask and returns it.

        Args:
            mask: (H, W), 128 and brighter (or True) the subject.
            band: the unknown band drawn around the mask's edge, as for
                cutout: (MAX, SCALE), MAX, or None for the defaults.
            ksize: the window over which the new matte's boundary is
                smoothed.
            keep: when 1 or more, the cleanup keeps only the keep largest
                pieces of background and fills smaller ones (holes in the
                subject) as subject, as the library's flows clean a matte;
                0 keeps all.

        Returns:
            A copy of the new (H, W) uint8 matte.
        """
        plane = _plane(mask, "mask", self._shape, allow_bool=True)
        max_band, band_scale = _band(band)
        alpha = self._core.matte_from_mask(
            plane,
            _DEFAULTS["max_band"] if max_band is None else max_band,
            _DEFAULTS["band_scale"] if band_scale is None else band_scale,
            _integer(ksize, "ksize", 1), _integer(keep, "keep", 0))
        if alpha is None:
            raise ValueError("mask has no foreground (no pixel is mid-grey "
                             "or brighter)")
        return alpha

    def refine(self, trimap, *, ksize=_SESSION_KSIZE,
               keep=_DEFAULTS["keep_fragments"]):
        """Solves the matte over a trimap's unknown pixels and returns it.

        Args:
            trimap: (H, W): below 64 background, above 191 subject,
                anything in between unknown.
            ksize, keep: the cleanup, as for matte_from_mask.

        Returns:
            A copy of the new (H, W) uint8 matte.
        """
        plane = _plane(trimap, "trimap", self._shape)
        if not (plane >= 64).any():
            raise ValueError("trimap has no foreground or unknown pixels "
                             "(none is 64 or more)")
        return self._core.refine(plane, _integer(ksize, "ksize", 1),
                                 _integer(keep, "keep", 0))

    @property
    def alpha(self):
        """A copy of the current (H, W) uint8 matte, 255 the subject.

        Assigning an (H, W) array replaces the matte (a new starting point
        for the restore brush, with no edits to undo).
        """
        return self._core.alpha()

    @alpha.setter
    def alpha(self, value):
        self._core.set_alpha(_plane(value, "alpha", self._shape))

    def foreground(self):
        """The subject's own colours under the current matte.

        Returns:
            (H, W, 3) uint8 RGB; estimated again only when the matte has
            changed since the last call.
        """
        return self._core.foreground()

    def smooth(self, ksize=_SESSION_KSIZE, keep=0):
        """Smooths the matte's boundary over a ksize window (undoable).

        When keep is 1 or more, only the keep largest pieces of the subject
        (pixels above 0) are kept afterwards: specks go. (The keep of
        matte_from_mask and refine fills holes instead.)
        """
        self._core.smooth(_integer(ksize, "ksize", 1),
                          _integer(keep, "keep", 0))

    def stroke(self, mode, points, *, radius=16, hardness=0.5, ksize=5,
               low=64, high=192):
        """Applies one brush stroke to the matte (undoable).

        Args:
            mode: one of Session.MODES (see the class's description).
            points: the dabs' centres, (x, y) = (column, row) pixel
                coordinates: one pair or a sequence of them, shape (N, 2).
                Dabs reaching past the photo's edge are clipped.
            radius: the dab reaches radius pixels from its centre.
            hardness: the part of the radius (0 to 1) painted at full
                strength; the weight falls off beyond it.
            ksize: the window of erode, dilate, smooth and threshold.
            low, high: threshold's limits (0 to 255).

        Returns:
            True when the stroke touched the photo (and can be undone).
        """
        if mode not in self.MODES:
            raise ValueError(f"mode must be one of {', '.join(self.MODES)}, "
                             f"not {mode!r}")
        try:
            centres = np.asarray(points, dtype=np.float64)
        except (TypeError, ValueError):
            raise TypeError("points must be (x, y) pairs of numbers") from None
        if centres.shape == (2,):
            centres = centres.reshape(1, 2)
        if centres.ndim != 2 or centres.shape[1] != 2:
            raise ValueError("points must be an (x, y) pair or an (N, 2) "
                             f"sequence of them, not of shape {centres.shape}")
        if not np.isfinite(centres).all():
            raise ValueError("points must be finite")
        if isinstance(hardness, bool) or not isinstance(hardness,
                                                        numbers.Real):
            raise TypeError("hardness must be a number")
        if not 0 <= hardness <= 1:
            raise ValueError(f"hardness must lie in [0, 1], not {hardness}")
        return self._core.stroke(
            self.MODES.index(mode), centres,
            _integer(radius, "radius", 0, max(self._shape)),
            1.0 - float(hardness), _integer(ksize, "ksize", 1, 255),
            _integer(low, "low", 0, 255), _integer(high, "high", 0, 255))

    def undo(self):
        """Takes back the most recent edit (stroke or smooth).

        Returns:
            False when there was nothing to take back.
        """
        return self._core.undo()

    @property
    def undoable(self):
        """How many edits undo can still take back."""
        return self._core.undo_count()

    def __repr__(self):
        height, width = self._shape
        return f"<softmatte.Session {width}x{height}>"
