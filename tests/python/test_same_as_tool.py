"""Every command through Python gives exactly the pixels the tool writes to
PNG with the same options: stills, single frames of loops and whole loops,
inputs given as arrays, lists and dicts against the same inputs as files."""

import json

import numpy as np
import pytest
from PIL import Image

import korvane
from conftest import make_mask, make_photo, run_tool

MASK = make_mask()
FLOWS = {"flows": [{"type": "path", "points": [[4, 6], [30, 8], [60, 10]]},
                   {"type": "stroke", "points": np.array([[10, 40], [30, 42], [50, 38]])},
                   {"type": "anchor", "points": [(36, 40)]}]}
SPARKLES = [{"x": 20, "y": 12, "scale": 2}, {"x": 50.5, "y": 30}]


def as_json(value):
    return json.dumps(value, default=lambda a: a.tolist())


def tool_arguments(folder, options):
    """The command line that means the same as the keyword arguments."""
    args = []
    for name, value in options.items():
        flag = "--" + name.replace("_", "-")
        if isinstance(value, np.ndarray):
            path = folder / f"{name}.png"
            Image.fromarray(value).save(path)
            args += [flag, path]
        elif name == "flows":
            (folder / "flows.json").write_text(as_json(value))
            args += [flag, folder / "flows.json"]
        elif name == "manual":
            (folder / "manual.json").write_text(as_json({"sparkles": value}))
            args += [flag, folder / "manual.json"]
        elif value is True:
            args.append(flag)
        elif isinstance(value, tuple):
            args += [flag, ",".join(map(str, value))]
        else:
            args += [flag, value]
    return args


def tool_frames(cli, folder, command, photo, options):
    """What the tool writes for `options`: one frame, or a loop's frames."""
    Image.fromarray(photo).save(folder / "photo.png")
    loop = options.get("frames", 1) >= 2 and "frame" not in options
    out = folder / ("frames" if loop else "out.png")
    run_tool(cli, command.replace("_", "-"), folder / "photo.png", *tool_arguments(folder, options), "-o", out)
    if not loop:
        return np.asarray(Image.open(out))
    return [np.asarray(Image.open(out / f"frame_{i:04d}.png")) for i in range(options["frames"])]


CASES = [
    ("focus_blur", {}),
    ("focus_blur", {"guide": MASK, "level": 80, "focus": 200, "range": 10}),
    ("glitch", {"type": 6, "radius": 50, "rotation": 36}),
    ("glow", {"intensity": 0.6, "blend": "overlay", "radius": 3, "threshold": 150, "mask": MASK,
              "roi": (8, 4, 60, 40)}),
    ("light_rays", {"threshold": 100, "center": (30, 20), "length": 40, "lampshade": (90, 30, 5),
                    "sway": True, "frames": 3}),
    ("light_rays", {"threshold": 100, "mode": "directional", "direction": 300, "saturation": -1}),
    ("bokeh", {"guide": MASK, "shape": "hexagon", "amount": 1, "twinkle": True, "frames": 4, "frame": 2}),
    ("bokeh", {"color": "random", "quality_mode": 2, "roi": (5, 5, 40, 30)}),
    ("sparkle", {"manual": SPARKLES, "size": 3, "spin": True, "frames": 3}),
    ("sparkle", {"shape": "star8", "color": "photo", "amount": 0.5}),
    ("animate", {"flows": FLOWS, "still": MASK, "frames": 3}),
    ("disperse", {"mask": MASK, "loop": True, "frames": 4, "direction": 30}),
]


@pytest.mark.parametrize("command, options", CASES, ids=[f"{c}-{i}" for i, (c, _) in enumerate(CASES)])
def test_function_gives_the_tools_pixels(tmp_path, korvane_cli, photo, command, options):
    expected = tool_frames(korvane_cli, tmp_path, command, photo, options)
    got = getattr(korvane, command)(photo, **options)
    if isinstance(expected, list):
        assert isinstance(got, list) and len(got) == len(expected)
    else:
        expected, got = [expected], [got]
    assert any(not np.array_equal(g[..., :3], photo) for g in got), "the effect left the photo as it was"
    for i, (e, g) in enumerate(zip(expected, got)):
        assert g.shape == e.shape and g.dtype == np.uint8, f"frame {i}"
        assert np.array_equal(g, e), f"frame {i}: {np.count_nonzero(g != e)} bytes differ"


def test_rgba_photo_keeps_its_alpha_as_the_tool_does(tmp_path, korvane_cli):
    rgba = np.dstack([make_photo(), (np.arange(72 * 48).reshape(48, 72) % 256).astype(np.uint8)])
    options = {"intensity": 0.8, "threshold": 100}
    expected = tool_frames(korvane_cli, tmp_path, "glow", rgba, options)
    got = korvane.glow(rgba, **options)
    assert expected.shape == (48, 72, 4)
    assert np.array_equal(got, expected)
