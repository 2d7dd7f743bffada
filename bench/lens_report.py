#!/usr/bin/env python3
"""Writes the "## Lens distortion" section of bench/RESULTS.md from bench/lens's rows.

    bench/lens_report.py ROWS.tsv [yes]

Each row: id, tag, reference, capture, simulator options, then per run
(--refine new, [--refine baseline], --fast new, [--fast baseline]) the best
slot's largest whole-frame error px, est_error_px, seconds, path and model.
"yes" says the rows hold baseline runs.
"""
import datetime
import os
import statistics
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from report import spearman  # noqa: E402  (bench/report.py, the bench's own report)

FIELDS = ["error", "est", "seconds", "path", "model"]


def number(text):
    return None if text in ("NA", "", "inf") else float(text)


def read(path, baseline):
    runs = ["refine", "base_refine", "fast", "base_fast"] if baseline else ["refine", "fast"]
    rows = []
    for line in open(path):
        v = line.rstrip("\n").split("\t")
        row = {"id": v[0], "tag": v[1], "ref": v[2], "cap": v[3], "opts": v[4],
               "distorted": "--barrel" in v[4]}
        for i, run in enumerate(runs):
            part = dict(zip(FIELDS, v[5 + 5 * i: 10 + 5 * i]))
            row[run] = {"error": number(part["error"]), "est": number(part["est"]) if part["est"] != "inf" else float("inf"),
                        "seconds": number(part["seconds"]), "path": part["path"], "model": part["model"]}
        rows.append(row)
    return rows


def fmt(v, digits=3):
    return "-" if v is None else (f"{v:.{digits}f}" if v != float("inf") else "inf")


def summary(rows, baseline):
    lines = []
    for name, group in (("through a barrel lens", [r for r in rows if r["distorted"]]),
                        ("through an ideal lens", [r for r in rows if not r["distorted"]])):
        found = [r for r in group if r["refine"]["error"] is not None]
        within = sum(r["refine"]["error"] <= 1.0 for r in found)
        lens = sum(r["refine"]["model"] == "lens" for r in found)
        worst = max((r["refine"]["error"] for r in found), default=None)
        lines.append(f"- Captures {name}: {len(group)}, found {len(found)}; largest whole-frame error at most "
                     f"1 px on {within}/{len(found)} (worst {fmt(worst)} px); lens model chosen on {lens}.")
        if baseline:
            both = [r for r in found if r["base_refine"]["error"] is not None]
            base_worst = max((r["base_refine"]["error"] for r in both), default=None)
            worse = [r for r in both if r["refine"]["error"] > r["base_refine"]["error"] + 0.1]
            lines.append(f"  Before this change: worst {fmt(base_worst)} px, at most 1 px on "
                         f"{sum(r['base_refine']['error'] <= 1.0 for r in both)}/{len(both)}; "
                         f"cases now worse by more than 0.1 px: {len(worse)}.")
    est = [r for r in rows if r["refine"]["error"] is not None and r["refine"]["est"] is not None]
    covered = sum(r["refine"]["est"] >= r["refine"]["error"] for r in est)

    def rho(group):
        return fmt(spearman([r["refine"]["est"] for r in group], [r["refine"]["error"] for r in group]))
    lines.append(f"- est_error_px at or above the true whole-frame error on {covered}/{len(est)} "
                 f"({100.0 * covered / max(len(est), 1):.0f}%); rank correlation {rho(est)} over all, "
                 f"{rho([r for r in est if not r['distorted']])} through an ideal lens, "
                 f"{rho([r for r in est if r['distorted']])} through a barrel lens.")
    for run in ("refine", "fast"):
        secs = [r[run]["seconds"] for r in rows if r[run]["seconds"] is not None]
        text = f"- Median seconds per capture with --{run}: {fmt(statistics.median(secs), 2)}"
        if baseline:
            base = [r["base_" + run]["seconds"] for r in rows if r["base_" + run]["seconds"] is not None]
            text += f" (before: {fmt(statistics.median(base), 2)})"
        lines.append(text + ".")
    return lines


def table(rows, baseline):
    head = "| # | tag | reference | capture | options | refined px | est px | model | fast px | fast path |"
    sep = "|---|---|---|---|---|---|---|---|---|---|"
    if baseline:
        head += " before: refined px | before: fast px |"
        sep += "---|---|"
    out = [head, sep]
    for r in rows:
        cells = [r["id"], r["tag"], r["ref"], r["cap"], r["opts"] or "-", fmt(r["refine"]["error"]),
                 fmt(r["refine"]["est"]), r["refine"]["model"], fmt(r["fast"]["error"]), r["fast"]["path"]]
        if baseline:
            cells += [fmt(r["base_refine"]["error"]), fmt(r["base_fast"]["error"])]
        out.append("| " + " | ".join(cells) + " |")
    return out


def main():
    baseline = len(sys.argv) > 2 and sys.argv[2] == "yes"
    rows = read(sys.argv[1], baseline)
    commit = subprocess.run(["git", "rev-parse", "--short", "HEAD"], capture_output=True, text=True).stdout.strip()
    when = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%MZ")
    section = ["## Lens distortion", "",
               f"`bench/lens`, run {when} on commit {commit}. Errors are the best slot's largest error over a "
               "17 x 17 grid of the whole frame, in reference pixels, against framealign-sim's grid.txt; seconds are "
               "the batch's own per capture.", ""]
    section += summary(rows, baseline) + [""] + table(rows, baseline)
    path = "bench/RESULTS.md"
    text = open(path).read()
    start = text.find("\n## Lens distortion\n")
    if start >= 0:
        end = text.find("\n## ", start + 5)
        text = text[:start] + (text[end:] if end >= 0 else "\n")
    open(path, "w").write(text.rstrip("\n") + "\n\n" + "\n".join(section) + "\n")
    print("\n".join(section))


main()
