"""The Dask example renders a folder on a local cluster of two worker
processes, reading and writing inside the workers, with progress, and its
files hold exactly what one process renders."""

import os
import subprocess
import sys

import numpy as np
from PIL import Image

import korvane
from conftest import ROOT, make_photo

EXAMPLE = ROOT / "python" / "examples" / "dask_photos.py"


def test_a_folder_on_a_local_cluster_equals_one_process_renders(tmp_path):
    photos = tmp_path / "photos"
    photos.mkdir()
    for i in range(5):
        photo = np.roll(make_photo(64 + 8 * i, 40 + 4 * i), 7 * i, axis=1)
        if i == 4:
            photo = np.dstack([photo, np.full(photo.shape[:2], 200, np.uint8)])
        Image.fromarray(photo).save(photos / f"photo{i}.png")
    (photos / "notes.txt").write_text("not a photo")

    env = dict(os.environ, PYTHONPATH=os.pathsep.join([os.path.dirname(os.path.dirname(korvane.__file__)),
                                                       os.environ.get("PYTHONPATH", "")]))
    done = subprocess.run([sys.executable, EXAMPLE, photos, tmp_path / "out", "glow", "--workers", "2",
                           "--set", "intensity=0.7", "--set", "threshold=120", "--set", "blend=linear-dodge"],
                          capture_output=True, text=True, env=env, timeout=240)
    assert done.returncode == 0, done.stderr
    assert "100% Completed" in done.stdout and "5 photos, 5 files written" in done.stdout

    for i in range(5):
        photo = np.asarray(Image.open(photos / f"photo{i}.png"))
        expected = korvane.glow(photo, intensity=0.7, threshold=120, blend="linear-dodge")
        assert np.array_equal(np.asarray(Image.open(tmp_path / "out" / f"photo{i}.png")), expected), i
