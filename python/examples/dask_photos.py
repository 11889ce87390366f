"""Apply a Korvane effect to every photo of a folder on a Dask cluster.

    python3 dask_photos.py PHOTOS OUT glow --set intensity=0.6 --set blend=overlay
    python3 dask_photos.py PHOTOS OUT bokeh --set amount=1 --scheduler tcp://10.0.0.5:8786

Each photo is read, rendered and written by a worker, so only file names
travel between the machines. Without --scheduler a LocalCluster of
--workers processes on this machine does the work; with the address of a
running scheduler the same code runs on that cluster, whose workers must
have the korvane package and see PHOTOS and OUT at the same paths (shared
storage). Settings are the effect's keyword options, written as the tool
takes them on its command line (--set center=200,150 --set twinkle=on).
Photos are read with Pillow, turned upright by their EXIF orientation, and
written as PNG (--format jpg for JPEG); a loop (--set frames=24) is written
as NAME-0000.png, NAME-0001.png, ...
"""

import argparse
import contextlib
import pathlib
import sys

PHOTO_SUFFIXES = {".jpg", ".jpeg", ".png", ".webp", ".tif", ".tiff", ".bmp"}


def render_file(source, target, effect, settings):
    """Runs on a worker: reads `source`, applies `effect`, writes `target`.
    Returns the files written."""
    import numpy as np
    from PIL import Image, ImageOps

    import korvane

    with Image.open(source) as image:
        image = ImageOps.exif_transpose(image)
        has_alpha = image.mode in ("RGBA", "LA", "PA") or "transparency" in image.info
        photo = np.asarray(image.convert("RGBA" if has_alpha else "RGB"))
    result = getattr(korvane, effect)(photo, **settings)
    target = pathlib.Path(target)
    if not isinstance(result, list):
        Image.fromarray(result).save(target)
        return [str(target)]
    written = []
    for i, frame in enumerate(result):
        path = target.with_name(f"{target.stem}-{i:04d}{target.suffix}")
        Image.fromarray(frame).save(path)
        written.append(str(path))
    return written


def parse_settings(pairs):
    """NAME=VALUE pairs as keyword options: numbers as numbers, anything else
    as text, which the package reads as the tool reads its command line."""
    settings = {}
    for pair in pairs:
        name, sep, value = pair.partition("=")
        if not sep:
            raise SystemExit(f"--set {pair}: write NAME=VALUE")
        try:
            value = int(value)
        except ValueError:
            try:
                value = float(value)
            except ValueError:
                pass
        settings[name.replace("-", "_")] = value
    return settings


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("photos", type=pathlib.Path, help="folder of photos")
    parser.add_argument("out", type=pathlib.Path, help="folder to write the results to (made if missing)")
    parser.add_argument("effect", help="focus_blur, glitch, glow, light_rays, bokeh, sparkle, animate or disperse")
    parser.add_argument("--set", action="append", default=[], metavar="NAME=VALUE", help="an option of the effect")
    parser.add_argument("--format", default="png", help="file type of the results (png, jpg, webp, tif)")
    parser.add_argument("--scheduler", help="address of a running Dask scheduler, e.g. tcp://10.0.0.5:8786")
    parser.add_argument("--workers", type=int, default=2, help="worker processes of the local cluster")
    args = parser.parse_args(argv)

    from distributed import Client, LocalCluster, progress

    photos = sorted(p for p in args.photos.iterdir() if p.suffix.lower() in PHOTO_SUFFIXES)
    args.out.mkdir(parents=True, exist_ok=True)
    targets = [str(args.out / f"{p.stem}.{args.format}") for p in photos]
    settings = parse_settings(args.set)

    with contextlib.ExitStack() as stack:
        if args.scheduler:
            client = stack.enter_context(Client(args.scheduler))
        else:
            # A render already uses up to eight of a machine's cores, so each
            # worker process takes one photo at a time.
            cluster = stack.enter_context(
                LocalCluster(n_workers=args.workers, threads_per_worker=1, dashboard_address=None))
            client = stack.enter_context(Client(cluster))
        futures = client.map(render_file, [str(p) for p in photos], targets, effect=args.effect, settings=settings)
        progress(futures)
        print()
        written = client.gather(futures)  # raises the first photo's error, if any
    print(f"{len(photos)} photos, {sum(map(len, written))} files written to {args.out}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
