#!/usr/bin/env python3
"""Turns Google Benchmark JSON (with repetitions) into bench/REPORT.md: each operation beside its
floor measured in the same run, medians and ratios, and the targets they are held to; then the
late-binding and cold-start figures under Wine when scripts/test-windows.sh has written them."""
import json
import os
import platform
import sys
from datetime import date

# Operation -> (what its floor is, target as text, check(median_ns, ratio, counters) -> bool).
TARGETS = {
    "tracked empty procedure": ("the same procedure untracked", "no heap allocation",
                                lambda t, r, c: c.get("allocs/call", 1) == 0),
    "GetRibbonXML": ("copying the finished document", "within 10x the copy",
                     lambda t, r, c: r <= 10),
    "GetRibbonXML from pieces": ("joining the finished document cut into pieces", "none", None),
    "GetLabel": ("a plain map look-up", "under 100 ns", lambda t, r, c: t < 100),
    "GetEnabled": ("a plain map look-up", "under 100 ns", lambda t, r, c: t < 100),
    "GetPressed": ("a plain map look-up", "under 100 ns", lambda t, r, c: t < 100),
    "GetScreentip": ("a plain map look-up", "under 100 ns", lambda t, r, c: t < 100),
    "RibbonCallback": ("a plain map look-up", "under 100 ns", lambda t, r, c: t < 100),
    "LoadImage 32x32": ("the decoder alone on the same bytes", "none", None),
    "activateMorvelinTab 10000 elements": ("the same walk untracked", "none", None),
}


def medians(path):
    with open(path) as f:
        data = json.load(f)
    out = {}
    for b in data["benchmarks"]:
        if b.get("error_occurred"):
            out.setdefault(b["run_name"], b.get("error_message", "failed"))
            continue
        if b.get("aggregate_name") != "median":
            continue
        name = b["run_name"]
        scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")]
        counters = {k: v for k, v in b.items() if k in ("allocs/call", "pieces")}
        out[name] = (b["real_time"] * scale, counters)
    return data.get("context", {}), out


def fmt(ns):
    if ns >= 1e6:
        return f"{ns / 1e6:.2f} ms"
    if ns >= 1e3:
        return f"{ns / 1e3:.2f} µs"
    return f"{ns:.1f} ns"


def main():
    json_path, out_path = sys.argv[1], sys.argv[2]
    wine_path = sys.argv[3] if len(sys.argv) > 3 else ""
    cold_path = sys.argv[4] if len(sys.argv) > 4 else ""
    context, runs = medians(json_path)
    lines = [
        "# Benchmark report",
        "",
        f"Made by `scripts/bench-report.sh` on {date.today().isoformat()}: "
        f"{context.get('num_cpus', '?')} CPUs at {context.get('mhz_per_cpu', '?')} MHz, "
        f"{platform.system()} {platform.release()}, build type "
        f"{context.get('library_build_type', '?')} benchmark library. Each figure is the median "
        "of the repetitions; these machines are shared and noisy, so read the ratios, which set "
        "each operation beside its floor measured in the same run.",
        "",
        "| operation | median | floor | floor median | ratio | target | met |",
        "|---|---|---|---|---|---|---|",
    ]
    for name, (floor_text, target, check) in TARGETS.items():
        op = runs.get("Op/" + name)
        floor = runs.get("Floor/" + name)
        if op is None:
            continue
        if isinstance(op, str):  # the benchmark stopped with an error: say so, with no figure
            lines.append(f"| {name} | **failed: {op}** | {floor_text} | "
                         f"{fmt(floor[0]) if isinstance(floor, tuple) else '-'} | - | {target} | "
                         f"{'**no**' if check else ''} |")
            continue
        ratio = op[0] / floor[0] if floor and floor[0] > 0 else float("nan")
        met = "" if check is None else ("yes" if check(op[0], ratio, op[1]) else "**no**")
        allocs = ""
        if "allocs/call" in op[1]:
            n = round(op[1]["allocs/call"])
            allocs = f" ({n} allocation{'' if n == 1 else 's'} a call)"
        if floor and "pieces" in floor[1]:
            floor_text += f" ({round(floor[1]['pieces'])} pieces, cut before each quote and tag)"
        lines.append(f"| {name}{allocs} | {fmt(op[0])} | {floor_text} | "
                     f"{fmt(floor[0]) if floor else '-'} | {ratio:.2f} | {target} | {met} |")
    lines.append("")
    wine = [("late-binding", wine_path, "The late-bound call beside the platform dictionary's "
             "(target: within 1.3 times)."),
            ("cold-start", cold_path, "The cold start, each in a fresh process: creating "
             "`Tabforge.Main2`, `Initialize`, `GetRibbonXML` and the first paint, beside creating "
             "the platform's `Scripting.Dictionary` and decoding the same icons with bare GDI+ "
             "(target: within 1.3 times).")]
    lines += ["## Under Wine", "", "From `scripts/test-windows.sh`, 64-bit. The numbers are "
              "reported, not judged: only a failed call fails the run.", ""]
    for name, path, what in wine:
        if path and os.path.exists(path):
            lines += [what, "", "```"]
            with open(path) as f:
                lines += [l.rstrip() for l in f]
            lines += ["```", ""]
        else:
            lines += [f"The {name} benchmark was not measured in this run (`scripts/test-windows.sh` "
                      f"writes `{path or 'build/win64/...'}`).", ""]
    if not os.path.exists("build/win32/bench-wine.txt"):
        lines += ["The 32-bit figures could not be measured on this machine: its kernel runs no "
                  "32-bit programs, so 32-bit Wine does not start (`scripts/test-windows.sh` says "
                  "SKIPPED).", ""]
    with open(out_path, "w") as f:
        f.write("\n".join(lines))


if __name__ == "__main__":
    main()
