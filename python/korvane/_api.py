"""The package's functions and classes, made from the tool's option tables.

Nothing here names an option: signatures, defaults and docstrings come from
``_korvane.commands()``, values are checked by the render core, so Python
offers exactly the tool's options with the tool's messages.
"""

import inspect
import json
import operator
import os
import re
import sys
import textwrap
import warnings

from . import _korvane

P = inspect.Parameter


def commands():
    """The commands with their keyword options (cached)."""
    if not hasattr(commands, "cached"):
        commands.cached = _korvane.commands()
    return commands.cached


def class_name(command):
    return "".join(part.capitalize() for part in command["name"].split("_"))


def default_value(option):
    """The table's default as a Python value; None where it depends on the
    photo or there is none."""
    text, kind = option["default"], option["kind"]
    if kind == "flag":
        return False
    if not text:
        return None
    if kind == "whole":
        return int(text)
    if kind == "number":
        value = float(text)
        return int(value) if value.is_integer() and "." not in text else value
    if kind in ("point", "rect", "numbers"):
        return tuple(default_value({"kind": "number", "default": t}) for t in text.split(","))
    return text


def loop_defaults(command):
    """The default frame count of the command, or None for stills."""
    for option in command["options"]:
        if option["name"] == "frames":
            return default_value(option)
    return None


# ---- Docstrings ---------------------------------------------------------------

_PHOTO_DOC = ("photo: uint8 array of shape H x W x 3 (RGB) or H x W x 4 (RGBA), as Pillow and imageio give them; "
              "any strides. order: 'rgb', 'rgba', 'bgr' or 'bgra' (OpenCV's order); by default RGB or RGBA by the "
              "channel count. A 'bgra' array with a 4-byte pixel step (padded rows too) is read where it lies.")

_KIND_NOTES = {
    "image": "an H x W uint8 array",
    "flows": "a dict or list shaped like that JSON; points may also be N x 2 arrays",
    "sparkles": "a dict or list shaped like that JSON; an entry may also be (x, y) or (x, y, scale)",
    "point": "a tuple",
    "rect": "a tuple (left, top, right, bottom)",
    "numbers": "a tuple",
}


def help_text(option, names):
    """The tool's help line, speaking of keyword arguments instead of flags."""
    text = option["help_line"].replace("or an image file", "or an image array")
    text = re.sub(r"--([a-z][a-z0-9-]*)", lambda m: m.group(1).replace("-", "_") if m.group(1).replace("-", "_") in names
                  else m.group(0), text)
    note = _KIND_NOTES.get(option["kind"])
    return f"{text} ({note})" if note else text


def options_doc(options, names, indent="    "):
    lines = []
    for option in options:
        lines.append(textwrap.fill(help_text(option, names), width=100, initial_indent=f"{indent}{option['name']}: ",
                                   subsequent_indent=indent + "    ", break_on_hyphens=False))
    return "\n".join(lines)


def function_doc(command, names):
    render = [o for o in command["options"] if o["role"] in ("input", "render")]
    loop = [o for o in command["options"] if o["role"] == "loop"]
    returns = "Returns a new array of the photo's shape and order (the size of roi where it is given)."
    if command["animated"]:
        returns += (" With frames=N (N >= 2) returns a list of the N frames of the loop, frame 0 first, or only "
                    "frame I with frame=I.")
    doc = [command["summary"] + ".", "", textwrap.fill(_PHOTO_DOC, 100), "", textwrap.fill(returns, 100), "",
           f"Options, as `korvane {command['command']}` has them (--name becomes name, - becomes _):",
           options_doc(render + loop, names)]
    return "\n".join(doc)


def class_doc(command, names):
    inputs = [o for o in command["options"] if o["role"] in ("input", "render")]
    render = "render(frame=0, frames=N, **options)" if command["animated"] else "render(**options)"
    doc = [f"{command['summary']}, prepared once for a photo and rendered any number of times.", "",
           textwrap.fill(_PHOTO_DOC, 100), "",
           textwrap.fill(f"The inputs beside the photo are given here; settings given here are those every "
                         f"{render} starts from, and a render may change them for that render only, without "
                         f"preparing the photo again.", 100), "",
           "Options:", options_doc(inputs, names)]
    return "\n".join(doc)


# ---- Values the core reads as the tool's JSON -----------------------------------

def _plain(value):
    if hasattr(value, "tolist"):  # numpy arrays and scalars
        return value.tolist()
    raise TypeError(f"{type(value).__name__} is not a number or a list")


def _glint(entry):
    if isinstance(entry, dict):
        return entry
    entry = _plain(entry) if hasattr(entry, "tolist") else list(entry)
    keys = ("x", "y", "scale")[:len(entry)]
    return dict(zip(keys, entry))


def json_input(option, value):
    """Flows and placed glints as the JSON text of the tool's files."""
    key = option["name"] if option["kind"] == "flows" else "sparkles"
    if isinstance(value, (str, bytes)) or not (isinstance(value, dict) or hasattr(value, "__iter__")):
        raise TypeError(f"{option['name']} must be a dict or a list, not {type(value).__name__}")
    if not isinstance(value, dict):
        entries = [_glint(e) for e in value] if key == "sparkles" else list(value)
        value = {key: entries}
    return json.dumps(value, default=_plain, allow_nan=False)


def core_options(command, given):
    """The keyword arguments as the core takes them (JSON inputs as text)."""
    kinds = {o["name"]: o for o in command["options"]}
    out = {}
    for name, value in given.items():
        option = kinds.get(name)
        if value is not None and option and option["kind"] in ("flows", "sparkles"):
            value = json_input(option, value)
        out[name] = value
    return out


# ---- Functions and classes ------------------------------------------------------

def _parameter(option, default):
    return P(option["name"], P.KEYWORD_ONLY, default=default)


def _warn(texts, category):
    """Warnings pointing at the caller's line, outside this package."""
    here = os.path.dirname(__file__)
    level, frame = 2, sys._getframe(1)
    while frame and os.path.dirname(frame.f_code.co_filename) == here:
        level, frame = level + 1, frame.f_back
    for text in texts:
        warnings.warn(text, category, stacklevel=level)


def _whole(value, name):
    try:
        return operator.index(value)
    except TypeError:
        raise TypeError(f"{name} must be a whole number, not {type(value).__name__}") from None


def _bind(signature, name, args, kwargs):
    try:
        signature.bind(*args, **kwargs)
    except TypeError as e:
        raise TypeError(f"{name}(): {e}") from None


def make_class(command, warning):
    animated = command["animated"]
    frames_default = loop_defaults(command)
    made = [o for o in command["options"] if o["role"] in ("input", "render")]
    settings = [o for o in command["options"] if o["role"] == "render"]
    names = {o["name"] for o in command["options"]}
    head = [P("self", P.POSITIONAL_ONLY), P("photo", P.POSITIONAL_ONLY), P("order", P.KEYWORD_ONLY, default=None)]
    init_signature = inspect.Signature(head + [_parameter(o, default_value(o)) for o in made])
    frame_params = [P("frame", P.POSITIONAL_OR_KEYWORD, default=0),
                    P("frames", P.POSITIONAL_OR_KEYWORD, default=frames_default)] if animated else []
    render_signature = inspect.Signature([P("self", P.POSITIONAL_ONLY)] + frame_params +
                                         [_parameter(o, None) for o in settings])
    cls_name = class_name(command)

    def __init__(self, photo, /, *, order=None, **options):
        _bind(init_signature, cls_name, (self, photo), dict(options, order=order))
        self._open(photo, order, options)
        _warn(self._effect.warnings, warning)

    def _open(self, photo, order, options):
        self._effect = _korvane.Effect(command["command"], photo, order, core_options(command, options))

    if animated:
        def render(self, frame=0, frames=frames_default, **options):
            _bind(render_signature, cls_name + ".render", (self, frame, frames), options)
            return self._effect.render(_whole(frame, "frame"), _whole(frames, "frames"), options)
        render.__doc__ = (textwrap.fill("Frame `frame` of a loop of `frames` (1: a still) as a new array in the "
                                        "photo's order. Options given here change this render only (None: as the "
                                        "object was made):", 100) + "\n" + options_doc(settings, names))
    else:
        def render(self, **options):
            _bind(render_signature, cls_name + ".render", (self,), options)
            return self._effect.render(0, 1, options)
        render.__doc__ = (textwrap.fill("The effect as a new array in the photo's order. Options given here "
                                        "change this render only (None: as the object was made):", 100) + "\n" +
                          options_doc(settings, names))

    def light_points(self):
        """The light points found in the photo, as the tool's --points-json writes them:
        {"width", "height" (of the 640-pixel detection copy), "points": [{"x", "y", "phase", "random",
        "color"}, ...]}."""
        return self._effect.light_points()

    __init__.__signature__ = init_signature
    render.__signature__ = render_signature
    members = {
        "__init__": __init__, "_open": _open, "render": render, "__doc__": class_doc(command, names), "__module__": "korvane",
        "width": property(lambda self: self._effect.width, doc="Width of the frames (the photo's or roi's)."),
        "height": property(lambda self: self._effect.height, doc="Height of the frames."),
        "warnings": property(lambda self: list(self._effect.warnings), doc="What the tool would warn about."),
        "summary": property(lambda self: self._effect.summary, doc="A few words on what the last render did."),
    }
    if command["light_points"]:
        members["light_points"] = light_points
    cls = type(cls_name, (), members)
    for member in (__init__, render):
        member.__qualname__ = f"{cls_name}.{member.__name__}"
    return cls


def make_function(command, cls, warning):
    name = command["name"]
    frames_default = loop_defaults(command)
    params = [P("photo", P.POSITIONAL_ONLY), P("order", P.KEYWORD_ONLY, default=None)]
    params += [_parameter(o, default_value(o)) for o in command["options"] if o["role"] in ("input", "render")]
    if command["animated"]:
        params += [P("frames", P.KEYWORD_ONLY, default=frames_default), P("frame", P.KEYWORD_ONLY, default=None)]
    signature = inspect.Signature(params)

    def function(photo, /, *, order=None, **options):
        _bind(signature, name, (photo,), dict(options, order=order))
        frames = options.pop("frames", None)
        frame = options.pop("frame", None)
        effect = cls.__new__(cls)
        effect._open(photo, order, options)
        # Left out, the count is the tool's: a still unless something moves
        # (or a frame of the default loop is asked for).
        if frames is None:
            frames = frames_default if frame is not None or not command["animated"] else effect._effect.frame_count
        else:
            frames = _whole(frames, "frames")
        # The first render checks the frame numbers; warnings come after it,
        # as the tool warns only about a command line it runs.
        if not command["animated"]:
            result = effect.render()
        elif frame is not None or frames == 1:
            result = effect.render(0 if frame is None else frame, frames)
        else:
            result = [effect.render(0, frames)]
        _warn(effect.warnings, warning)
        if isinstance(result, list):
            result += [effect.render(i, frames) for i in range(1, frames)]
        return result

    function.__name__ = function.__qualname__ = name
    function.__module__ = "korvane"
    function.__signature__ = signature
    function.__doc__ = function_doc(command, {o["name"] for o in command["options"]})
    return function


def build(namespace, warning):
    """Adds a function and a class per command to `namespace`; returns their names."""
    names = []
    for command in commands():
        cls = make_class(command, warning)
        namespace[cls.__name__] = cls
        namespace[command["name"]] = make_function(command, cls, warning)
        names += [command["name"], cls.__name__]
    return names
