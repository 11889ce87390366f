"""Korvane's photo effects over numpy arrays.

Every command of the ``korvane`` tool is a function here, named as the
command with ``_`` for ``-``: ``focus_blur``, ``glitch``, ``glow``,
``light_rays``, ``bokeh``, ``sparkle``, ``animate`` and ``disperse``. Each
takes the photo as a ``uint8`` array of shape H x W x 3 (RGB) or H x W x 4
(RGBA), or in OpenCV's order with ``order="bgr"``/``"bgra"``, and returns a
new array of the same shape and order; with ``frames=N`` (N >= 2) a list of
N frames of the loop. Keyword options are the tool's long options with
``_`` for ``-``, with the same defaults, ranges and units.

Each command also has a class (``FocusBlur``, ``Glitch``, ``Glow``,
``LightRays``, ``Bokeh``, ``Sparkle``, ``Animate``, ``Disperse``) that does
the per-photo work once (light-point detection, a dispersion's particles,
an animation's mesh) and renders any frame with any settings after::

    fx = korvane.Bokeh(photo, guide=depth)
    frame = fx.render(frame=3, frames=24, amount=0.5)

Rendering releases the GIL; several threads may render at once, each with
its own objects. Bad values raise ``ValueError`` with the tool's message,
failed library calls ``korvane.Error`` with the result code.
"""

from . import _korvane


class Error(RuntimeError):
    """A library call failed. ``code`` is its result code, a negative 32-bit
    number such as -2147024809 (E_INVALIDARG, 0x80070057)."""

    def __init__(self, message, code=0):
        super().__init__(message)
        self.code = code


class KorvaneWarning(UserWarning):
    """Something worth knowing before trusting a render (flow points outside
    the photo, an empty subject mask), as the tool warns about it."""


_korvane._set_error_class(Error)


def engine_info():
    """The library's version and what it runs on: a dict with ``version``,
    ``processor_count``, ``worker_count``, ``simd_level``, ``avx_level`` and
    ``kernel_forms``."""
    return _korvane.engine_info()


__version__ = engine_info()["version"]

from ._api import build as _build  # noqa: E402

_names = _build(globals(), KorvaneWarning)
__all__ = ["Error", "KorvaneWarning", "engine_info", "__version__", *_names]
del _build, _names
