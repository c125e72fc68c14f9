#!/usr/bin/env python3
"""Runs json_bag_bench and prints, per document, the cost of the PropertyBag
round trip relative to plain JSON parse + write (ours / baseline).

usage: bench/ratio.py [path/to/json_bag_bench] [extra benchmark flags...]
"""

import json
import os
import subprocess
import sys

CANDIDATES = ("build/bench/json_bag_bench", "build-json/bench/json_bag_bench")


def find_binary(argv):
    if len(argv) > 1 and not argv[1].startswith("-"):
        return argv[1], argv[2:]
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    for rel in CANDIDATES:
        path = os.path.join(root, rel)
        if os.access(path, os.X_OK):
            return path, argv[1:]
    sys.exit("json_bag_bench not found; pass its path as the first argument")


def main(argv):
    binary, extra = find_binary(argv)
    cmd = [binary, "--benchmark_format=json", "--benchmark_repetitions=5",
           "--benchmark_report_aggregates_only=true"] + extra
    result = subprocess.run(cmd, check=True, stdout=subprocess.PIPE, text=True)
    report = json.loads(result.stdout)

    # Median per "kind/document"; without repetitions the single run counts.
    times = {}
    for b in report["benchmarks"]:
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        name = b.get("run_name", b["name"])
        kind, _, doc = name.partition("/")
        times.setdefault(doc, {})[kind] = (b["real_time"], b["time_unit"])

    context = report.get("context", {})
    print(f"{'document':<10} {'bytes':>6} {'baseline':>12} {'ours':>12} {'ratio':>7}"
          f" {'json->bag':>12} {'bag->json':>12}")
    for doc, kinds in times.items():
        if "baseline" not in kinds or "ours" not in kinds:
            continue
        ratio = kinds["ours"][0] / kinds["baseline"][0]

        def cell(kind):
            value = kinds.get(kind)
            return f"{value[0]:>9.0f} {value[1]:<2}" if value else f"{'-':>12}"

        print(f"{doc:<10} {context.get(doc + '_bytes', '?'):>6} {cell('baseline')} {cell('ours')}"
              f" {ratio:>7.2f} {cell('json_to_bag')} {cell('bag_to_json')}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
