#!/usr/bin/env python3
"""Writes bench/run's report: PREFIX.md for people, PREFIX.json for scripts.

    bench/report.py ROWS.tsv PREFIX COMMIT

ROWS.tsv has one line per case, tab-separated, "NA" for a missing value:
id, tag, reference, capture, options, wall s, alignment ms, peak MB, CPU %,
best score, mean error px, max error px, expected outcome ("aligned" or
"failure"), then the same five measures of the baseline run (wall,
alignment, peak, CPU, score) and whether both result folders were
byte-identical ("yes", "no", or "NA" without a baseline).
"""
import json
import os
import statistics
import sys
import time

COLUMNS = ["id", "tag", "reference", "capture", "options", "wall_s", "alignment_ms", "peak_mb",
           "cpu_percent", "best_score", "mean_error_px", "max_error_px", "expect", "base_wall_s",
           "base_alignment_ms", "base_peak_mb", "base_cpu_percent", "base_best_score", "identical"]


def number(text):
    return None if text in ("NA", "") else float(text)


def read_rows(path):
    rows = []
    with open(path) as f:
        for line in f:
            values = line.rstrip("\n").split("\t")
            row = dict(zip(COLUMNS, values))
            for key in COLUMNS[5:12] + COLUMNS[13:18]:
                row[key] = number(row[key])
            row["options"] = row["options"].strip()
            rows.append(row)
    return rows


def as_expected(row):
    if row["expect"] == "failure":
        return row["best_score"] == 999999
    return row["max_error_px"] is not None and row["max_error_px"] <= 5


def median(values):
    values = [v for v in values if v is not None]
    return statistics.median(values) if values else None


def share(rows, limit):
    within = sum(1 for r in rows if r["max_error_px"] is not None and r["max_error_px"] <= limit)
    return f"{100 * within // len(rows)}%"


def fmt(value):
    return "NA" if value is None else f"{value:g}"


def machine():
    cpu = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    pages = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
    return {"cores": len(os.sched_getaffinity(0)), "memory": f"{pages // 2**30} GiB", "cpu": cpu}


def markdown(rows, commit, date, host):
    out = ["# framealign benchmark", "",
           f"Run {date} on commit {commit}. Machine: {host['cores']} cores, {host['memory']} memory, "
           f"{host['cpu']}.", "",
           "Corner errors are in reference pixels (slot 0 against the true corners). Wall time, peak "
           "memory and CPU come from `/usr/bin/time -v`; alignment time is the tool's own line. Each "
           "case starts without feature caches.", "", "## Per tag", "",
           "| tag | cases | as expected | within 1 px | within 3 px | within 5 px | median wall s | median peak MB |",
           "|---|---|---|---|---|---|---|---|"]
    for tag in dict.fromkeys(r["tag"] for r in rows):
        group = [r for r in rows if r["tag"] == tag]
        good = sum(as_expected(r) for r in group)
        shares = ["-"] * 3 if tag == "unrelated" else [share(group, limit) for limit in (1, 3, 5)]
        out.append(f"| {tag} | {len(group)} | {good}/{len(group)} | " + " | ".join(shares) +
                   f" | {fmt(median(r['wall_s'] for r in group))} | {fmt(median(r['peak_mb'] for r in group))} |")
    if any(r["identical"] != "NA" for r in rows):
        out += baseline_section(rows, host["cores"])
    out += ["", "## Per case", "",
            "| # | tag | reference | capture | options | wall s | alignment ms | peak MB | CPU | best score | mean error px | max error px |",
            "|---|---|---|---|---|---|---|---|---|---|---|---|"]
    for r in rows:
        out.append(f"| {r['id']} | {r['tag']} | {r['reference']} | {r['capture']} | {r['options'] or '-'} | "
                   + " | ".join(fmt(r[k]) for k in COLUMNS[5:12]) + " |")
    return "\n".join(out) + "\n"


def baseline_section(rows, cores):
    # Targets: 1920 x 1080 references with captures of 2400 x 1600 and more.
    big = [r for r in rows if r["reference"] == "1920x1080" and int(r["capture"].split("x")[0]) >= 2400]
    largest = [r for r in rows if r["reference"] == "1920x1080" and r["capture"] == "4032x3024"]
    before, after = median(r["base_wall_s"] for r in big), median(r["wall_s"] for r in big)
    worst_peak = max((r["peak_mb"] / r["base_peak_mb"] for r in largest
                      if r["peak_mb"] and r["base_peak_mb"]), default=None)
    identical = sum(r["identical"] == "yes" for r in rows)
    cpu = median(r["cpu_percent"] / cores for r in rows if r["cpu_percent"] is not None)
    out = ["", "## Before and after", "",
           "Baseline: the build given with --baseline; measured: this build. Both run on every case, one "
           "right after the other, without feature caches.", ""]
    if before and after:
        out.append(f"- Median wall time, 1920 x 1080 references with captures of 2400 x 1600 and larger "
                   f"({len(big)} cases): {before:.2f} s before, {after:.2f} s after, ratio {after / before:.2f}.")
    if worst_peak is not None:
        out.append(f"- Peak memory on the 4032 x 3024 captures of 1920 x 1080 references ({len(largest)} "
                   f"cases): at most {worst_peak:.2f} of the baseline's peak.")
    if cpu is not None:
        out.append(f"- CPU utilisation ((user + system) / (wall x {cores} cores)): median {cpu:.0f} % after.")
    out += [f"- Result folders byte-identical between the two: {identical} of {len(rows)} cases.", "",
            "| # | tag | reference | capture | wall s before | wall s after | peak MB before | peak MB after | CPU % before | CPU % after | identical |",
            "|---|---|---|---|---|---|---|---|---|---|---|"]
    for r in rows:
        out.append(f"| {r['id']} | {r['tag']} | {r['reference']} | {r['capture']} | {fmt(r['base_wall_s'])} | "
                   f"{fmt(r['wall_s'])} | {fmt(r['base_peak_mb'])} | {fmt(r['peak_mb'])} | "
                   f"{fmt(r['base_cpu_percent'])} | {fmt(r['cpu_percent'])} | {r['identical']} |")
    return out


def main():
    rows_path, prefix, commit = sys.argv[1:4]
    rows = read_rows(rows_path)
    date = time.strftime("%Y-%m-%dT%H:%MZ", time.gmtime())
    host = machine()
    # bench/batch's section stays until bench/batch writes it again.
    batches = ""
    if os.path.exists(prefix + ".md"):
        parts = open(prefix + ".md").read().split("\n## Batches\n", 1)
        batches = "\n## Batches\n" + parts[1] if len(parts) == 2 else ""
    with open(prefix + ".md", "w") as f:
        f.write(markdown(rows, commit, date, host) + batches)
    cases = []
    for r in rows:
        case = {k: r[k] for k in COLUMNS[:12]}
        case["id"] = int(r["id"])
        case["as_expected"] = as_expected(r)
        if r["identical"] != "NA":
            case["baseline"] = {k[5:]: r[k] for k in COLUMNS[13:18]}
            case["baseline"]["identical_results"] = r["identical"] == "yes"
        cases.append(case)
    with open(prefix + ".json", "w") as f:
        json.dump({"date": date, "commit": commit, "machine": host, "cases": cases}, f, indent=2)
        f.write("\n")
    print(f"wrote {prefix}.md and {prefix}.json")


if __name__ == "__main__":
    main()
