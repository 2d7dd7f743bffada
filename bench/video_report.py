#!/usr/bin/env python3
"""Writes the "## Videos" section of bench/RESULTS.md from bench/video's rows.

    bench/video_report.py ROWS

Each row: tag, display fps, camera fps, the video run's "seconds peak_kb", the
picture run's (or NA), and the case's folder (truth.csv, video/summary.csv).
Corner errors are in reference pixels: the found corners are taken back to
the reference through the true homography and compared with the frame's own.
"""
import csv
import datetime
import os
import subprocess
import sys

WIDTH, HEIGHT = 1280, 720
FRAME = [(0, 0), (WIDTH, 0), (0, HEIGHT), (WIDTH, HEIGHT)]


def homography(src, dst):
    """The 3 x 3 homography taking the four points src to dst (h22 = 1)."""
    a, b = [], []
    for (x, y), (u, v) in zip(src, dst):
        a.append([x, y, 1, 0, 0, 0, -u * x, -u * y])
        b.append(u)
        a.append([0, 0, 0, x, y, 1, -v * x, -v * y])
        b.append(v)
    n = 8
    for col in range(n):  # Gaussian elimination with partial pivoting
        pivot = max(range(col, n), key=lambda r: abs(a[r][col]))
        a[col], a[pivot], b[col], b[pivot] = a[pivot], a[col], b[pivot], b[col]
        for r in range(col + 1, n):
            f = a[r][col] / a[col][col]
            a[r] = [p - f * q for p, q in zip(a[r], a[col])]
            b[r] -= f * b[col]
    h = [0.0] * n
    for r in reversed(range(n)):
        h[r] = (b[r] - sum(a[r][c] * h[c] for c in range(r + 1, n))) / a[r][r]
    return [h[0:3], h[3:6], h[6:8] + [1.0]]


def apply(m, p):
    x, y = p
    w = m[2][0] * x + m[2][1] * y + m[2][2]
    return ((m[0][0] * x + m[0][1] * y + m[0][2]) / w, (m[1][0] * x + m[1][1] * y + m[1][2]) / w)


def corners(row, names=("x1", "y1", "x2", "y2", "x3", "y3", "x4", "y4")):
    v = [float(row[n]) for n in names]
    return list(zip(v[0::2], v[1::2]))


def score(folder):
    truth = {r["capture_frame"]: r for r in csv.DictReader(open(f"{folder}/truth.csv"))}
    got = {r["capture_frame"]: r for r in csv.DictReader(open(f"{folder}/video/summary.csv"))}
    s = dict(frames=len(truth), right=0, tp=0, fp=0, fn=0, mixed=0, complete=0, unmixed=0, within=0, fast=0,
             worst=0.0, mixed_worst=0.0, wrong=0, wrong_sure=0, mixed_within=0, tears=0, tears_within=0, flagged=0)
    for k, t in truth.items():
        g = got.get(k)
        if g is None:
            continue
        s["right"] += g["ref_frame"] == t["ref_frame"]
        s["fast"] += g.get("path") == "tracked"
        tm, gm = t["mixed"] == "1", g["mixed"] == "1"
        s["tp"] += tm and gm
        s["fp"] += gm and not tm
        s["fn"] += tm and not gm
        if tm:
            s["mixed"] += 1
            s["complete"] += set(t["ref_frames"].split(";")) <= set(g["ref_frames"].split(";"))
            # Each true tear counts when the frame's tears are all found, each within 2 rows.
            want = [float(r) for r in t.get("tear_rows", "").split(";") if r]
            found = sorted(float(r) for r in g.get("tear_rows", "").split(";") if r)
            s["tears"] += len(want)
            if len(found) == len(want):
                s["tears_within"] += sum(abs(a - b) <= 2.0 for a, b in zip(sorted(want), found))
        else:
            s["unmixed"] += 1
        if g["status"] != "aligned":
            continue
        back = homography(corners(t), FRAME)  # capture to reference, the truth's
        error = max(((x - fx) ** 2 + (y - fy) ** 2) ** 0.5
                    for (x, y), (fx, fy) in zip((apply(back, p) for p in corners(g)), FRAME))
        # Called aligned while wrong: over 3 px anywhere, or a frame the screen did not show; "sure"
        # when its own estimate still says a pixel or less.
        s["flagged"] += g.get("unsure", "") != ""
        if (error > 3.0 or g["ref_frame"] not in t["ref_frames"].split(";")) and g.get("unsure", "") == "":
            s["wrong"] += 1
            s["wrong_sure"] += g.get("est_error_px", "") != "" and float(g["est_error_px"]) <= 1.0
        if tm:
            s["mixed_worst"] = max(s["mixed_worst"], error)
            s["mixed_within"] += error <= 1.0
            continue
        s["within"] += error <= 1.0
        s["worst"] = max(s["worst"], error)
    return s


def worst(px, frames):
    return "-" if frames == 0 else f"{px:.2f}"


def pct(a, b):
    return "-" if b == 0 else f"{100.0 * a / b:.1f}%"


def main():
    lines = [l.rstrip("\n").split("\t") for l in open(sys.argv[1]) if l.strip()]
    commit = subprocess.run(["git", "rev-parse", "--short", "HEAD"], capture_output=True, text=True).stdout.strip()
    when = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%MZ")
    section = ["## Videos", "",
               f"`bench/video`, run {when} on commit {commit}, {os.cpu_count()} CPUs. 1920 x 1080 captures at the "
               "camera's rate of a 1280 x 720 reference video (a pan), `framealign-batch --video --fast`; the "
               "pictures run is `framealign-batch --fast` on the same decoded frames as PNG files with the right "
               "frame_number in the list. Corners: unmixed frames within 1 reference pixel, and the worst; the worst "
               "of mixed frames. Tear rows: the true changes between frames found within 2 aligned rows. Flagged: "
               "frames whose `unsure` column gives a reason. Wrong: frames called aligned, not flagged, over 3 px "
               "off anywhere or showing a frame not on the screen, and of those the ones whose estimate says 1 px "
               "or less (silent).", "",
               "| case | shown/filmed | frames | ref_frame right | mixed precision | mixed recall | ref_frames "
               "complete | tear rows within 2 | corners within 1 px | worst px | mixed within 1 px | worst px mixed | "
               "flagged unsure | wrong / silent | tracked | "
               "video fps | pictures fps | speed-up | peak MB video / pictures |",
               "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|"]
    for tag, display, camera, video_time, picture_time, folder in lines:
        s = score(folder)
        v_seconds, v_kb = map(float, video_time.split())
        video_fps = s["frames"] / v_seconds
        if picture_time != "NA":
            p_seconds, p_kb = map(float, picture_time.split())
            picture_fps = s["frames"] / p_seconds
            speed = f"{video_fps / picture_fps:.1f}x"
            peaks = f"{v_kb / 1024:.0f} / {p_kb / 1024:.0f}"
            picture = f"{picture_fps:.2f}"
        else:
            speed, peaks, picture = "-", f"{v_kb / 1024:.0f} / -", "-"
        section.append(
            f"| {tag} | {display}/{camera} | {s['frames']} | {pct(s['right'], s['frames'])} | "
            f"{pct(s['tp'], s['tp'] + s['fp'])} | {pct(s['tp'], s['tp'] + s['fn'])} | "
            f"{pct(s['complete'], s['mixed'])} | {pct(s['tears_within'], s['tears'])} | "
            f"{pct(s['within'], s['unmixed'])} | {worst(s['worst'], s['unmixed'])} | "
            f"{pct(s['mixed_within'], s['mixed'])} | {worst(s['mixed_worst'], s['mixed'])} | "
            f"{s['flagged']} | {s['wrong']} / {s['wrong_sure']} | {pct(s['fast'], s['frames'])} | {video_fps:.2f} | {picture} | {speed} | {peaks} |")
    path = "bench/RESULTS.md"
    text = open(path).read()
    start = text.find("\n## Videos\n")
    if start >= 0:
        end = text.find("\n## ", start + 5)
        text = text[:start] + (text[end:] if end >= 0 else "\n")
    open(path, "w").write(text.rstrip("\n") + "\n\n" + "\n".join(section) + "\n")
    print("\n".join(section))


if __name__ == "__main__":
    main()
