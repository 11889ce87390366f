"""Writes the package's type stub (__init__.pyi) from the option tables.

The build runs ``python -m korvane._stubgen OUT`` after the module is made,
so the stub always lists the options the module takes.
"""

import sys

from ._api import class_name, commands, default_value

_IMAGE = "NDArray[np.uint8]"

_TYPES = {
    "number": "float",
    "whole": "int",
    "flag": "bool",
    "point": "Tuple[float, float]",
    "rect": "Tuple[int, int, int, int]",
    "numbers": "Sequence[float]",
    "image": f"Optional[{_IMAGE}]",
    "flows": "Union[Mapping[str, Any], Sequence[Mapping[str, Any]]]",
    "sparkles": "Union[Mapping[str, Any], Sequence[Union[Mapping[str, Any], Sequence[float]]]]",
}


def type_of(option, optional=False):
    if option["kind"] == "choice":
        t = f"Union[str, int, {_IMAGE}]" if option["or_image"] else "Union[str, int]"
    else:
        t = _TYPES.get(option["kind"], "Any")
    if (optional or default_value(option) is None) and not t.startswith("Optional"):
        t = f"Optional[{t}]"
    return t


def keywords(options, optional=False):
    return "".join(f", {o['name']}: {type_of(o, optional)} = ..." for o in options)


def stub():
    lines = [
        "# Generated from the option tables by korvane._stubgen.",
        "from typing import Any, Dict, List, Mapping, Optional, Sequence, Tuple, Union",
        "",
        "import numpy as np",
        "from numpy.typing import NDArray",
        "",
        "__version__: str",
        "",
        "class Error(RuntimeError):",
        "    code: int",
        "    def __init__(self, message: str, code: int = ...) -> None: ...",
        "",
        "class KorvaneWarning(UserWarning): ...",
        "",
        "def engine_info() -> Dict[str, Any]: ...",
        "",
    ]
    order = "order: Optional[str] = ..."
    for c in commands():
        made = [o for o in c["options"] if o["role"] in ("input", "render")]
        settings = [o for o in c["options"] if o["role"] == "render"]
        if c["animated"]:
            result = f"Union[{_IMAGE}, List[{_IMAGE}]]"
            loop = ", frames: int = ..., frame: Optional[int] = ..."
            frame_args = "frame: int = ..., frames: int = ..., *"
        else:
            result, loop, frame_args = _IMAGE, "", "*"
        lines.append(f"def {c['name']}(photo: {_IMAGE}, /, *, {order}{keywords(made)}{loop}) -> {result}: ...")
        lines += [
            "",
            f"class {class_name(c)}:",
            f"    def __init__(self, photo: {_IMAGE}, /, *, {order}{keywords(made)}) -> None: ...",
            f"    def render(self, {frame_args}{keywords(settings, True)}) -> {_IMAGE}: ...",
            "    @property",
            "    def width(self) -> int: ...",
            "    @property",
            "    def height(self) -> int: ...",
            "    @property",
            "    def warnings(self) -> List[str]: ...",
            "    @property",
            "    def summary(self) -> str: ...",
        ]
        if c["light_points"]:
            lines.append("    def light_points(self) -> Optional[Dict[str, Any]]: ...")
        lines.append("")
    return "\n".join(lines)


if __name__ == "__main__":
    with open(sys.argv[1], "w", encoding="utf-8") as f:
        f.write(stub())
