#!/usr/bin/env python3
"""Aligns a folder of captures on a Dask cluster and prints a table of results.

    PYTHONPATH=build/python python3 examples/dask_align.py --reference ref.yuv --width 1920 \\
        --height 1080 captures/*.jpg                       # a local cluster of 2 workers
    ... --scheduler tcp://10.0.0.5:8786 captures/*.jpg     # a cluster already running

The reference's features are computed once, here, and the Reference is
scattered once to every worker; framealign.read_capture and framealign.align
are mapped over the captures as they are, and the results come back to be
tabled here, with Dask's own progress bar on a terminal. Every worker needs the framealign module on its path
and the captures at the same paths (a shared folder).
"""
import argparse
import contextlib
import csv
import sys

import framealign
from dask.distributed import Client, LocalCluster, progress, wait


def align_all(client, reference, paths, refine=False, show_progress=False):
    """framealign.Result for each of `paths`, in their order (the exception
    where a capture could not be read or aligned), aligned on the client's
    workers by framealign.align itself: results pickle, so they come back
    whole, frames and all."""
    shared = client.scatter(reference, broadcast=True)
    captures = client.map(framealign.read_capture, paths)
    results = client.map(framealign.align, captures, reference=shared, refine=refine)
    if show_progress:
        with contextlib.redirect_stdout(sys.stderr):  # standard output holds the table
            progress(results)
    wait(results)
    return [future.exception() if future.status == "error" else future.result() for future in results]


def row(path, result):
    """One row of the table: the capture's path, status, score, corners, message."""
    if isinstance(result, BaseException):
        return {"input": path, "status": "error", "score": "", "corners": "", "message": str(result)}
    corners = "" if result.corners is None else " ".join(f"{v:.3f}" for v in result.corners.ravel())
    return {"input": path, "status": result.status, "score": result.score, "corners": corners, "message": ""}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("captures", nargs="+")
    parser.add_argument("--reference", required=True, help="raw YUV reference file")
    parser.add_argument("--width", type=int, default=1920)
    parser.add_argument("--height", type=int, default=1080)
    parser.add_argument("--frame", type=int, default=0)
    parser.add_argument("--scheduler", help="address of a running scheduler; default: a local cluster")
    parser.add_argument("--refine", action="store_true", help="refine each found frame (est_error_px)")
    args = parser.parse_args()
    reference = framealign.Reference.from_yuv(args.reference, args.width, args.height, args.frame)
    if args.scheduler:
        client = Client(args.scheduler)
    else:
        client = Client(LocalCluster(n_workers=2, threads_per_worker=1, processes=True))
    with client:
        results = align_all(client, reference, args.captures, args.refine, show_progress=sys.stderr.isatty())
    table = csv.DictWriter(sys.stdout, fieldnames=["input", "status", "score", "corners", "message"])
    table.writeheader()
    table.writerows(row(path, result) for path, result in zip(args.captures, results))


if __name__ == "__main__":
    main()
