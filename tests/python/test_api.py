"""The package's surface: loops, effect objects that keep their preparation,
errors in the tool's words, help and stub that list what the tool lists."""

import ast
import inspect
import pathlib
import re
import subprocess

import numpy as np
import pytest
from PIL import Image

import korvane
from conftest import run_tool

FLOWS = [{"type": "path", "points": [[4, 6], [30, 8], [60, 10]]}, {"type": "anchor", "points": [[36, 40]]}]
COMMANDS = ["focus_blur", "glitch", "glow", "light_rays", "bokeh", "sparkle", "animate", "disperse"]
# What the tool alone has: where and how it writes files.
FILE_OPTIONS = {"help", "output", "fps", "quality", "chroma", "strip", "format", "quiet", "points-json",
                "points-overlay", "type-sheet", "blend-sheet", "tile-width", "columns"}


def loop_cases(mask):
    return [
        ("light_rays", "LightRays", {"threshold": 100, "sway": True, "cycle_hue": True}),
        ("bokeh", "Bokeh", {"guide": mask, "amount": 1, "twinkle": True}),
        ("sparkle", "Sparkle", {"manual": [(30, 20, 2)], "spin": True, "twinkle": True}),
        ("animate", "Animate", {"flows": FLOWS, "still": mask}),
        ("disperse", "Disperse", {"mask": mask, "loop": True}),
    ]


def test_loops_are_lists_of_the_frames_objects_render(photo, mask):
    for function, cls, options in loop_cases(mask):
        frames = getattr(korvane, function)(photo, frames=4, **options)
        assert isinstance(frames, list) and len(frames) == 4, function
        assert not np.array_equal(frames[0], frames[1]), f"{function}: the loop does not move"
        fx = getattr(korvane, cls)(photo, **options)
        assert all(np.array_equal(fx.render(i, 4), f) for i, f in enumerate(frames)), function
        assert np.array_equal(getattr(korvane, function)(photo, frames=4, frame=2, **options), frames[2]), function
    with pytest.warns(korvane.KorvaneWarning, match="no --still mask: motion spreads"):
        assert len(korvane.animate(photo, flows=FLOWS)) == 48  # the tool's default frame count


def test_objects_render_changed_settings_as_fresh_calls_do(photo, mask):
    cases = [
        ("bokeh", "Bokeh", {"guide": mask}, [{"amount": 0.3}, {"amount": 1, "shape": "star"}, {"color": 2}]),
        ("sparkle", "Sparkle", {"manual": [(30, 20)]}, [{"shape": "cross", "manual_shape": "star8"}, {"size": 4}]),
        ("glow", "Glow", {"mask": mask}, [{"blend": 23, "radius": 2}, {"threshold": -10}]),
        ("disperse", "Disperse", {"mask": mask}, [{"density": 0.9, "seed": 7}, {"size": 3}]),
        ("animate", "Animate", {"flows": FLOWS, "still": mask}, [{"loop_mode": 0}, {"loop_mode": 1}]),
        ("focus_blur", "FocusBlur", {"guide": mask}, [{"level": 100, "focus": 128}]),
    ]
    for function, cls, made, changes in cases:
        fx = getattr(korvane, cls)(photo, **made)
        frames = 3 if function in ("disperse", "animate") else None
        at = {"frame": 1, "frames": frames} if frames else {}
        plain = fx.render(**at)
        for change in changes:
            fresh = getattr(korvane, function)(photo, **made, **change, **at)
            assert np.array_equal(fx.render(**at, **change), fresh), f"{function} {change}"
        # A change holds for its render only.
        assert np.array_equal(fx.render(**at), plain), function
    # The listed points are those that render: the same for the same settings.
    first = korvane.Bokeh(photo, guide=mask)
    assert first.light_points() == korvane.Bokeh(photo, guide=mask).light_points() and first.light_points()["points"]


def tool_message(cli, tmp_path, command, args):
    done = subprocess.run([cli, command, tmp_path / "photo.png", *map(str, args), "-o", tmp_path / "out.png"],
                          capture_output=True, text=True)
    assert done.returncode != 0
    # Python names an input by its keyword where the tool adds its file.
    return re.sub(rf" {re.escape(str(tmp_path))}/\S+?(?=:? )", "", done.stderr.strip().removeprefix("korvane: "))


def test_bad_values_raise_what_the_tool_prints(tmp_path, korvane_cli, photo, mask):
    Image.fromarray(photo).save(tmp_path / "photo.png")
    Image.fromarray(mask[:10]).save(tmp_path / "small.png")
    (tmp_path / "manual.json").write_text('{"sparkles": [{"x": 100, "y": 3}]}')
    cases = [  # the call, and the same on the command line
        ("glow", {"radius": -3}, ["--radius", "-3"]),
        ("glow", {"radius": 20}, ["--radius", "20"]),
        ("glow", {"blend": "nope"}, ["--blend", "nope"]),
        ("glow", {"roi": (0, 0, 100, 10)}, ["--roi", "0,0,100,10"]),
        ("glow", {"mask": mask[:10]}, ["--mask", tmp_path / "small.png"]),
        ("glitch", {"shift_x": 2.5}, ["--shift-x", "2.5"]),
        ("light-rays", {"sway": True, "frames": 1}, ["--sway", "--frames", "1"]),
        ("light-rays", {"center": "1,2,3"}, ["--center", "1,2,3"]),
        ("bokeh", {"frames": 3, "frame": 3}, ["--frames", "3", "--frame", "3"]),
        ("animate", {"flows": FLOWS, "frames": 1}, ["--flows", "x.json", "--frames", "1"]),
        ("sparkle", {"manual": [{"x": 100, "y": 3}]}, ["--manual", tmp_path / "manual.json"]),
    ]
    for command, options, args in cases:
        with pytest.raises(ValueError) as raised:
            getattr(korvane, command.replace("-", "_"))(photo, **options)
        assert str(raised.value) == tool_message(korvane_cli, tmp_path, command, args), options


def test_library_failures_raise_korvane_error_with_the_result_code(tmp_path, korvane_cli, photo):
    Image.fromarray(photo[:1, :2]).save(tmp_path / "photo.png")
    with pytest.raises(korvane.Error) as raised:
        korvane.glow(photo[:1, :2])
    assert raised.value.code == -0x7FF8FFA9  # E_INVALIDARG, 0x80070057
    assert str(raised.value) == tool_message(korvane_cli, tmp_path, "glow", [])


def test_wrong_arguments_are_type_or_value_errors(photo, mask):
    calls = [
        (TypeError, lambda: korvane.glow(photo, blur=3)),  # no such option
        (TypeError, lambda: korvane.glow(photo, intensity=[1])),
        (TypeError, lambda: korvane.glow(photo, intensity=True)),
        (TypeError, lambda: korvane.Glow(photo).render(mask=mask)),  # inputs are given when made
        (TypeError, lambda: korvane.glow(photo.astype(np.float32))),
        (TypeError, lambda: korvane.glow(photo.tolist())),
        (TypeError, lambda: korvane.animate(photo, flows="flows.json")),
        (ValueError, lambda: korvane.glow(photo[..., 0])),
        (ValueError, lambda: korvane.glow(photo, order="bgra")),
        (ValueError, lambda: korvane.focus_blur(photo, guide=np.dstack([mask, mask]))),
        (ValueError, lambda: korvane.bokeh(photo, shape="nothing")),
        (ValueError, lambda: korvane.sparkle(photo, manual=[(3, 3)], manual_shape=photo)),  # not 200x200
        (ValueError, lambda: korvane.animate(photo, flows=[{"type": "path", "points": [[1, 2], [3, float("nan")]]}])),
        (ValueError, lambda: korvane.light_rays(photo, frames=0)),
    ]
    for error, call in calls:
        with pytest.raises(error):
            call()


def tool_help(cli, command):
    """(option, help text) for every long option `korvane COMMAND --help` lists."""
    text = run_tool(cli, command, "--help")
    return re.findall(r"^\s+(?:-\w,)?--([a-z0-9-]+)(?: [A-Z,]+)?\s+(.*)$", text, re.M)


def test_help_lists_every_option_of_the_tool_with_its_range_and_default(korvane_cli):
    for name in COMMANDS:
        function = getattr(korvane, name)
        parameters = inspect.signature(function).parameters
        doc = " ".join(function.__doc__.split())
        listed = [(o, h) for o, h in tool_help(korvane_cli, name.replace("_", "-")) if o not in FILE_OPTIONS]
        assert {o.replace("-", "_") for o, _ in listed} == set(parameters) - {"photo", "order"}, name
        for option, help_text in listed:
            brackets = re.search(r"\[([^\]]*)\]$", help_text)
            if brackets:
                assert brackets.group(1).replace("image file", "image array") in doc, f"{name} {option}"
            default = re.search(r"default (-?[\d.]+)\]$", help_text)
            if default:
                assert parameters[option.replace("-", "_")].default == float(default.group(1)), f"{name} {option}"


def test_stub_declares_every_function_and_class_as_they_are():
    stub = ast.parse((pathlib.Path(korvane.__file__).parent / "__init__.pyi").read_text())
    declared = {node.name: node for node in stub.body if isinstance(node, (ast.FunctionDef, ast.ClassDef))}
    for name in COMMANDS:
        cls = getattr(korvane, name.title().replace("_", ""))
        methods = {m.name: m for m in declared[cls.__name__].body if isinstance(m, ast.FunctionDef)}
        for stubbed, actual in ((declared[name], getattr(korvane, name)), (methods["__init__"], cls.__init__),
                                (methods["render"], cls.render)):
            args = stubbed.args
            names = [a.arg for a in args.posonlyargs + args.args + args.kwonlyargs]
            assert names == list(inspect.signature(actual).parameters), f"{name}: {stubbed.name}"


def test_version_is_the_librarys(korvane_cli):
    assert run_tool(korvane_cli, "info").split()[:2] == ["Korvane", korvane.__version__]
    assert korvane.engine_info()["version"] == korvane.__version__
