#!/usr/bin/env python3
"""Writes bench/run's report: PREFIX.md for people, PREFIX.json for scripts.

    bench/report.py ROWS.tsv PREFIX COMMIT

ROWS.tsv has one line per case, tab-separated, "NA" for a missing value:
id, tag, reference, capture, options, wall s, alignment ms, peak MB, CPU %,
best score, mean error px, max error px, expected outcome ("aligned" or
"failure"), then the same five measures of the baseline run (wall,
alignment, peak, CPU, score) and whether both result folders were
byte-identical ("yes", "no", or "NA" without a baseline), then the refined
run's wall s, peak MB, slot 0 max error px, best slot max error px and
est_error_px, and the seconds framealign-batch took without and with --refine;
then, with bench/run --fast, the --fast run's wall s, peak MB, seconds,
status, est_error_px, path and best slot max error px.
"""
import json
import os
import statistics
import sys
import time

COLUMNS = ["id", "tag", "reference", "capture", "options", "wall_s", "alignment_ms", "peak_mb",
           "cpu_percent", "best_score", "mean_error_px", "max_error_px", "expect", "base_wall_s",
           "base_alignment_ms", "base_peak_mb", "base_cpu_percent", "base_best_score", "identical",
           "refined_wall_s", "refined_peak_mb", "refined_max_error_px", "refined_best_error_px",
           "est_error_px", "batch_s", "refined_batch_s", "fast_wall_s", "fast_peak_mb", "fast_batch_s",
           "fast_status", "fast_est_error_px", "fast_path", "fast_best_error_px"]
REFINED = COLUMNS[19:26]
FAST = COLUMNS[26:]
FAST_NUMBERS = ["fast_wall_s", "fast_peak_mb", "fast_batch_s", "fast_est_error_px", "fast_best_error_px"]


def number(text):
    return None if text in ("NA", "") else float(text)


def read_rows(path):
    rows = []
    with open(path) as f:
        for line in f:
            values = line.rstrip("\n").split("\t")
            row = dict(zip(COLUMNS, values + ["NA"] * (len(COLUMNS) - len(values))))
            for key in COLUMNS[5:12] + COLUMNS[13:18] + REFINED + FAST_NUMBERS:
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


def ranks(values):
    order = sorted(range(len(values)), key=lambda i: values[i])
    out = [0.0] * len(values)
    i = 0
    while i < len(order):
        j = i
        while j + 1 < len(order) and values[order[j + 1]] == values[order[i]]:
            j += 1
        for k in range(i, j + 1):
            out[order[k]] = (i + j) / 2
        i = j + 1
    return out


def spearman(a, b):
    if len(a) < 3:
        return None
    ra, rb = ranks(a), ranks(b)
    ma, mb = statistics.mean(ra), statistics.mean(rb)
    cov = sum((x - ma) * (y - mb) for x, y in zip(ra, rb))
    norm = (sum((x - ma) ** 2 for x in ra) * sum((y - mb) ** 2 for y in rb)) ** 0.5
    return cov / norm if norm else None


def within(rows, key, limit):
    hits = sum(1 for r in rows if r[key] is not None and r[key] <= limit)
    return f"{hits}/{len(rows)} ({100 * hits // max(len(rows), 1)}%)"


def refinement_section(rows):
    aligned = [r for r in rows if r["expect"] == "aligned" and r["max_error_px"] is not None]
    if not any(r["refined_max_error_px"] is not None for r in aligned):
        return []
    rated = [r for r in aligned if r["est_error_px"] is not None and r["refined_best_error_px"] is not None]
    corr = spearman([r["est_error_px"] for r in rated], [r["refined_best_error_px"] for r in rated])
    covered = sum(r["est_error_px"] >= r["refined_best_error_px"] for r in rated)
    worse = [(r["refined_max_error_px"] - r["max_error_px"], r["id"]) for r in aligned
             if r["refined_max_error_px"] is not None]
    extra = median((r["refined_batch_s"] - r["batch_s"]) / r["batch_s"] for r in rows
                   if r["batch_s"] and r["refined_batch_s"] is not None)
    failed = [r["id"] for r in rows if r["expect"] == "failure" and r["est_error_px"] is not None]
    out = ["", "## Refinement", "",
           "The same captures through `framealign-batch --refine`. Errors are the largest corner error in "
           "reference pixels: slot 0 plain (framealign) and refined, and the summary's best slot refined; "
           "est_error_px is the summary's estimate for that best slot. Extra time compares framealign-batch "
           "with and without --refine (the summary's seconds).", "",
           f"- Aligned cases: {len(aligned)}. Within 1 px: {within(aligned, 'max_error_px', 1)} plain, "
           f"{within(aligned, 'refined_max_error_px', 1)} refined. Within 0.5 px: "
           f"{within(aligned, 'max_error_px', 0.5)} plain, {within(aligned, 'refined_max_error_px', 0.5)} refined.",
           f"- Best slot refined: within 1 px {within(aligned, 'refined_best_error_px', 1)}, within 0.5 px "
           f"{within(aligned, 'refined_best_error_px', 0.5)}.",
           f"- Largest change against plain (refined minus plain, slot 0): {fmt(max(worse)[0] if worse else None)} px "
           f"(case {max(worse)[1] if worse else '-'}); cases worse by more than 0.2 px: "
           f"{sum(d > 0.2 for d, _ in worse)}.",
           f"- est_error_px against the best slot's true error, {len(rated)} cases: rank correlation "
           f"{fmt(None if corr is None else round(corr, 3))}; estimate at or above the true error in "
           f"{covered}/{len(rated)} ({100 * covered // max(len(rated), 1)}%).",
           f"- Extra time of --refine: median {fmt(None if extra is None else round(100 * extra, 1))} % of the "
           "batch's seconds per capture.",
           f"- Negative cases with an estimate (they should have none): {len(failed)}.", "",
           "| tag | cases | plain within 1 px | refined within 1 px | plain within 0.5 px | refined within 0.5 px |",
           "|---|---|---|---|---|---|"]
    for tag in dict.fromkeys(r["tag"] for r in aligned):
        group = [r for r in aligned if r["tag"] == tag]
        out.append(f"| {tag} | {len(group)} | {within(group, 'max_error_px', 1)} | "
                   f"{within(group, 'refined_max_error_px', 1)} | {within(group, 'max_error_px', 0.5)} | "
                   f"{within(group, 'refined_max_error_px', 0.5)} |")
    out += ["", "| # | tag | plain max px | refined max px | best slot refined px | est_error_px | batch s | refined batch s |",
            "|---|---|---|---|---|---|---|---|"]
    for r in rows:
        out.append(f"| {r['id']} | {r['tag']} | {fmt(r['max_error_px'])} | {fmt(r['refined_max_error_px'])} | "
                   f"{fmt(r['refined_best_error_px'])} | {fmt(r['est_error_px'])} | {fmt(r['batch_s'])} | "
                   f"{fmt(r['refined_batch_s'])} |")
    return out


def fast_section(rows):
    ran = [r for r in rows if r["fast_status"] not in ("NA", "")]
    if not ran:
        return []
    aligned = [r for r in ran if r["expect"] == "aligned"]
    negatives = [r for r in ran if r["expect"] == "failure"]
    fast_s, refine_s = median(r["fast_batch_s"] for r in ran), median(r["refined_batch_s"] for r in ran)
    ratios = [r["fast_batch_s"] / r["refined_batch_s"] for r in ran if r["fast_batch_s"] and r["refined_batch_s"]]
    peak = max((r["fast_peak_mb"] / r["refined_peak_mb"] for r in ran if r["fast_peak_mb"] and r["refined_peak_mb"]),
               default=None)
    quick = [r for r in ran if r["fast_path"] == "fast"]
    false_alignments = [r["id"] for r in negatives if r["fast_status"] != "not_found"]
    out = ["", "## Fast path", "",
           "The same captures through `framealign-batch --fast`, against `--refine` alone (errors: the summary's "
           "best slot against the true corners; time: the summary's seconds).", "",
           f"- Quick path taken: {len(quick)} of {len(ran)} captures; the others ran the full search.",
           f"- Median seconds per capture: {fmt(fast_s)} with --fast, {fmt(refine_s)} with --refine "
           f"(ratio of medians {fmt(None if not fast_s or not refine_s else round(fast_s / refine_s, 3))}; median "
           f"per-capture ratio {fmt(None if not ratios else round(statistics.median(ratios), 3))}).",
           f"- Negatives ({len(negatives)}): {len(negatives) - len(false_alignments)} ended not_found"
           + (f"; aligned: cases {', '.join(false_alignments)}" if false_alignments else "") + ".",
           f"- Peak memory: at most {fmt(None if peak is None else round(peak, 3))} of --refine's.", "",
           "| tag | cases | quick path | refine within 1 px | fast within 1 px | refine within 3 px | fast within 3 px |",
           "|---|---|---|---|---|---|---|"]
    for tag in dict.fromkeys(r["tag"] for r in aligned):
        group = [r for r in aligned if r["tag"] == tag]
        out.append(f"| {tag} | {len(group)} | {sum(r['fast_path'] == 'fast' for r in group)} | "
                   f"{within(group, 'refined_best_error_px', 1)} | {within(group, 'fast_best_error_px', 1)} | "
                   f"{within(group, 'refined_best_error_px', 3)} | {within(group, 'fast_best_error_px', 3)} |")
    out += ["", "| # | tag | path | status | best slot px | est_error_px | refine s | fast s |", "|---|---|---|---|---|---|---|---|"]
    for r in ran:
        out.append(f"| {r['id']} | {r['tag']} | {r['fast_path']} | {r['fast_status']} | {fmt(r['fast_best_error_px'])} | "
                   f"{fmt(r['fast_est_error_px'])} | {fmt(r['refined_batch_s'])} | {fmt(r['fast_batch_s'])} |")
    return out


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
        shares = ["-"] * 3 if all(r["expect"] == "failure" for r in group) else [share(group, limit) for limit in (1, 3, 5)]
        out.append(f"| {tag} | {len(group)} | {good}/{len(group)} | " + " | ".join(shares) +
                   f" | {fmt(median(r['wall_s'] for r in group))} | {fmt(median(r['peak_mb'] for r in group))} |")
    if any(r["identical"] != "NA" for r in rows):
        out += baseline_section(rows, host["cores"])
    out += refinement_section(rows)
    out += fast_section(rows)
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
        case["refined"] = {k: r[k] for k in REFINED}
        if r["fast_status"] not in ("NA", ""):
            case["fast"] = {k: r[k] for k in FAST}
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
