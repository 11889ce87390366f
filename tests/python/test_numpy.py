"""numpy manners: any layout of the photo and its inputs gives the same
pixels, BGRA rows are read where they lie, rendering lets other Python
threads run, and threads render at once with their own objects."""

import threading
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np

import korvane
from conftest import make_photo


def bgra_of(rgb, alpha=255):
    return np.dstack([rgb[..., ::-1], np.full(rgb.shape[:2], alpha, np.uint8)])


def padded(image, pad=13):
    """The same pixels as a view into wider rows."""
    wide = np.zeros((image.shape[0], image.shape[1] + pad) + image.shape[2:], np.uint8)
    wide[:, :image.shape[1]] = image
    return wide[:, :image.shape[1]]


def test_every_layout_renders_as_its_packed_copy(photo, mask):
    expected = korvane.bokeh(photo, guide=mask, amount=1, frames=3, frame=1)
    bgra = bgra_of(photo)
    twice = np.repeat(np.repeat(photo, 2, axis=0), 2, axis=1)
    read_only = photo.copy()
    read_only.setflags(write=False)
    layouts = {
        "bgra, padded rows": (padded(bgra), "bgra"),
        "bgr": (np.ascontiguousarray(photo[..., ::-1]), "bgr"),
        "column-major": (np.asfortranarray(photo), None),
        "every other pixel": (twice[::2, ::2], None),
        "channels reversed in place": (bgra[..., 2::-1], None),
        "read-only": (read_only, None),
    }
    for name, (image, order) in layouts.items():
        for guide in (mask, padded(mask), np.asfortranarray(mask)):
            got = korvane.bokeh(image, order=order, guide=guide, amount=1, frames=3, frame=1)
            want = bgra_of(expected) if order == "bgra" else expected[..., ::-1] if order == "bgr" else expected
            assert np.array_equal(got, want), name


def test_bgra_rows_are_read_in_place_and_other_layouts_copied(photo):
    changed = photo.copy()
    changed[20:30] = 255 - changed[20:30]
    view = padded(bgra_of(photo))
    in_place = korvane.Glitch(view, order="bgra", type=3)
    copied = korvane.Glitch(photo.copy(), type=3)
    before = in_place.render()
    view[:] = bgra_of(changed)
    assert np.array_equal(in_place.render(), bgra_of(korvane.glitch(changed, type=3)))
    assert not np.array_equal(in_place.render(), before)
    assert np.array_equal(copied.render(), korvane.glitch(photo, type=3))


def test_large_photos_convert_in_every_order(photo):
    # Past a megapixel the conversions run in two halves of rows.
    big = np.tile(photo, (1 + 1000 // photo.shape[0], 1 + 1100 // photo.shape[1], 1))[:1000, :1100]
    alpha = (np.arange(big.size // 3).reshape(big.shape[:2]) % 253).astype(np.uint8)
    want = korvane.glitch(np.dstack([big[..., ::-1], alpha]), order="bgra", type=3)
    cases = {
        "rgb": (big, want[..., 2::-1]),
        "bgr": (np.ascontiguousarray(big[..., ::-1]), want[..., :3]),
        "rgba": (np.dstack([big, alpha]), want[..., [2, 1, 0, 3]]),
        "rgb, padded and upside down": (padded(big)[::-1], None),
    }
    for name, (image, expected) in cases.items():
        order = name.split(",")[0]
        got = korvane.glitch(image, order=order, type=3)
        if expected is None:
            expected = korvane.glitch(np.ascontiguousarray(image), type=3)
        assert np.array_equal(got, expected), name


def test_rgba_and_bgra_orders_give_the_same_pixels(photo):
    alpha = (np.arange(photo.size // 3).reshape(photo.shape[:2]) % 251).astype(np.uint8)
    rgba = korvane.light_rays(np.dstack([photo, alpha]), threshold=100)
    bgra = korvane.light_rays(np.dstack([photo[..., ::-1], alpha]), order="bgra", threshold=100)
    assert np.array_equal(rgba[..., [2, 1, 0, 3]], bgra)


def test_rendering_lets_other_threads_run():
    fx = korvane.FocusBlur(np.tile(make_photo(), (30, 25, 1)), level=100)
    inside = []

    def render():
        start = time.perf_counter()
        fx.render()
        inside.append((start, time.perf_counter()))

    worker = threading.Thread(target=render)
    ticks = []
    worker.start()
    while worker.is_alive():
        ticks.append(time.perf_counter())
    worker.join()
    start, end = inside[0]
    during = [t for t in ticks if start <= t <= end]
    gaps = np.diff([start] + during + [end])
    # Holding the GIL would stop this loop for the whole render.
    assert end - start > 0.05
    assert gaps.max() < 0.5 * (end - start), f"longest pause {gaps.max():.3f} s of a {end - start:.3f} s render"


def test_threads_render_at_once_with_their_own_objects(photo, mask):
    jobs = [
        lambda: korvane.Bokeh(photo, guide=mask, amount=1).render(frame=2, frames=5, twinkle=True),
        lambda: korvane.Sparkle(photo, manual=[(30, 20, 2)]).render(frame=1, frames=4, spin=True),
        lambda: korvane.light_rays(photo, frames=3, frame=2, cycle_hue=True),
        lambda: korvane.disperse(photo, mask=mask, frames=6, frame=3),
        lambda: korvane.glow(photo, intensity=0.9, blend="addition"),
        lambda: korvane.focus_blur(photo, guide=mask, level=100),
    ]
    alone = [job() for job in jobs]
    barrier = threading.Barrier(len(jobs))

    def run(job):
        barrier.wait()
        return [job() for _ in range(3)]

    with ThreadPoolExecutor(len(jobs)) as pool:
        together = list(pool.map(run, jobs))
    for want, got in zip(alone, together):
        assert all(np.array_equal(want, g) for g in got)


def test_one_object_shared_by_threads_renders_one_frame_at_a_time(photo, mask):
    fx = korvane.Bokeh(photo, guide=mask, amount=1, twinkle=True)
    want = [fx.render(frame=i, frames=8) for i in range(8)]
    with ThreadPoolExecutor(4) as pool:
        got = list(pool.map(lambda i: fx.render(frame=i, frames=8), list(range(8)) * 3))
    assert all(np.array_equal(g, want[i % 8]) for i, g in enumerate(got))
