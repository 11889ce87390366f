"""What the Python package's tests share: a small photo with bright spots,
a subject mask, and the korvane tool of the same build (KORVANE_CLI, set by
ctest; else the optimised build's)."""

import os
import pathlib
import subprocess

import numpy as np
import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]


def make_photo(width=72, height=48):
    """Texture with bright dots (light points for bokeh and sparkle), RGB."""
    y, x = np.mgrid[0:height, 0:width]
    rgb = np.stack([50 + (x + y) % 40, 30 + (x * 2 + y * 7) % 50, 40 + (x * 5 + y * 3) % 60], axis=-1)
    dots = (x % 11 == 5) & (y % 9 == 4)
    rgb[dots] = (255, 245, 250)
    return rgb.astype(np.uint8)


def make_mask(width=72, height=48):
    """A gray subject in the middle, brighter to the right."""
    m = np.zeros((height, width), np.uint8)
    m[10:38, 20:50] = 120 + np.arange(20, 50)
    return m


@pytest.fixture(scope="session")
def photo():
    return make_photo()


@pytest.fixture(scope="session")
def mask():
    return make_mask()


@pytest.fixture(scope="session")
def korvane_cli():
    path = os.environ.get("KORVANE_CLI") or str(ROOT / "build" / "release" / "tools" / "korvane")
    if not os.path.exists(path):
        pytest.skip("the korvane tool is not built")
    return path


def run_tool(cli, *args):
    """Runs the tool; its output (stdout and stderr) or a failure naming it."""
    done = subprocess.run([cli, *map(str, args)], capture_output=True, text=True)
    assert done.returncode == 0, f"korvane {' '.join(map(str, args))}: {done.stderr}"
    return done.stdout + done.stderr
