#!/usr/bin/env python3
"""Aligns a folder of captures on a Dask cluster and prints a table of results.

    PYTHONPATH=build/python python3 examples/dask_align.py --reference ref.yuv --width 1920 \\
        --height 1080 captures/*.jpg                       # a local cluster of 2 workers
    ... --scheduler tcp://10.0.0.5:8786 captures/*.jpg     # a cluster already running

The reference's features are computed once, here, and the Reference is
scattered once to every worker; each task reads one capture on its worker
and aligns it there. Every worker needs the framealign module on its path
and the captures at the same paths (a shared folder).
"""
import argparse
import csv
import sys

import framealign
from dask.distributed import Client, LocalCluster


def align_file(path, reference):
    """One row of the table: the capture's path, status, score and corners."""
    try:
        result = framealign.align(framealign.read_capture(path), reference)
    except RuntimeError as error:
        return {"input": path, "status": "error", "score": "", "corners": "", "message": str(error)}
    corners = "" if result.corners is None else " ".join(f"{v:.3f}" for v in result.corners.ravel())
    return {"input": path, "status": result.status, "score": result.score, "corners": corners, "message": ""}


def align_all(client, reference, paths):
    """Rows for `paths`, in their order, aligned on the client's workers."""
    shared = client.scatter(reference, broadcast=True)
    return client.gather(client.map(align_file, paths, reference=shared))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("captures", nargs="+")
    parser.add_argument("--reference", required=True, help="raw YUV reference file")
    parser.add_argument("--width", type=int, default=1920)
    parser.add_argument("--height", type=int, default=1080)
    parser.add_argument("--frame", type=int, default=0)
    parser.add_argument("--scheduler", help="address of a running scheduler; default: a local cluster")
    args = parser.parse_args()
    reference = framealign.Reference.from_yuv(args.reference, args.width, args.height, args.frame)
    if args.scheduler:
        client = Client(args.scheduler)
    else:
        client = Client(LocalCluster(n_workers=2, threads_per_worker=1, processes=True))
    with client:
        rows = align_all(client, reference, args.captures)
    table = csv.DictWriter(sys.stdout, fieldnames=["input", "status", "score", "corners", "message"])
    table.writeheader()
    table.writerows(rows)


if __name__ == "__main__":
    main()
