#!/usr/bin/env python3
"""Per-folder coverage from a gcovr JSON report, with a source-level function count.

gcovr 5.2 counts every template instance as its own function: a template run for uint8_t but
not for float counts once covered and once not. The source-level count takes one function per
definition (file and line); it is covered when any of its instances ran. Both are printed; the
instance count is gcovr's own figure and stays the one to compare against older runs.

Usage: coverage_functions.py REPORT.json [--uncovered FILE]
  --uncovered FILE  lists, per folder, the definitions never run and the instances not run of
                    definitions that did run.
"""
import argparse
import json
import re
import sys
from collections import defaultdict


def folder_of(path):
    parts = path.split("/")
    if parts[0] == "tests" and len(parts) > 2:
        return "/".join(parts[:2])
    return parts[0] if len(parts) > 1 else "."


class Tally:
    def __init__(self):
        self.lines = [0, 0]
        self.branches = [0, 0]
        self.functions = [0, 0]
        self.sources = [0, 0]

    def add(self, other):
        for name in ("lines", "branches", "functions", "sources"):
            mine, theirs = getattr(self, name), getattr(other, name)
            mine[0] += theirs[0]
            mine[1] += theirs[1]


def pct(pair):
    covered, total = pair
    return "  n/a " if total == 0 else f"{100.0 * covered / total:5.1f}%"


def cell(pair):
    return f"{pair[0]:>5}/{pair[1]:<5} {pct(pair)}"


def strip_args(name):
    """The function's name without its template arguments and parameter list, for display."""
    out, depth = [], 0
    for ch in name:
        if ch == "<":
            depth += 1
        elif ch == ">" and depth:
            depth -= 1
        elif depth == 0:
            out.append(ch)
    text = "".join(out)
    return re.sub(r"\s+", " ", text)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("report")
    parser.add_argument("--uncovered")
    args = parser.parse_args()

    with open(args.report, encoding="utf-8") as f:
        report = json.load(f)

    tallies = defaultdict(Tally)
    # folder -> list of (file, line, instances[(name, count)])
    definitions = defaultdict(list)
    for entry in report["files"]:
        path = entry["file"]
        t = tallies[folder_of(path)]
        for line in entry["lines"]:
            if line.get("gcovr/noncode") or line.get("gcovr/excluded"):
                continue
            t.lines[1] += 1
            t.lines[0] += line["count"] > 0
            for branch in line["branches"]:
                t.branches[1] += 1
                t.branches[0] += branch["count"] > 0
        by_line = defaultdict(list)
        for fn in entry["functions"]:
            t.functions[1] += 1
            t.functions[0] += fn["execution_count"] > 0
            by_line[fn["lineno"]].append((fn["name"], fn["execution_count"]))
        for lineno, instances in sorted(by_line.items()):
            t.sources[1] += 1
            t.sources[0] += any(count > 0 for _, count in instances)
            definitions[folder_of(path)].append((path, lineno, instances))

    total = Tally()
    header = (f"{'folder':<14} {'lines':>19} {'functions (gcovr)':>19} "
              f"{'functions (source)':>19} {'branches':>19}")
    print(header)
    for folder in sorted(tallies):
        t = tallies[folder]
        total.add(t)
        print(f"{folder:<14} {cell(t.lines)} {cell(t.functions)} {cell(t.sources)} "
              f"{cell(t.branches)}")
    print(f"{'TOTAL':<14} {cell(total.lines)} {cell(total.functions)} {cell(total.sources)} "
          f"{cell(total.branches)}")
    print("functions (gcovr): every template instance counted apart, as gcovr 5.2 does;")
    print("functions (source): one per definition (file:line), covered when any instance ran.")

    if args.uncovered:
        write_uncovered(args.uncovered, definitions, tallies)
    return 0


def write_uncovered(path, definitions, tallies):
    with open(path, "w", encoding="utf-8") as out:
        for folder in sorted(definitions):
            never, partly = [], []
            for file, lineno, instances in definitions[folder]:
                missed = [name for name, count in instances if count == 0]
                if not missed:
                    continue
                if len(missed) == len(instances):
                    never.append((file, lineno, instances))
                else:
                    partly.append((file, lineno, instances, missed))
            if not never and not partly:
                continue
            t = tallies[folder]
            out.write(f"== {folder}: functions (gcovr) {cell(t.functions)}, "
                      f"functions (source) {cell(t.sources)}\n")
            if never:
                out.write("  never run (no instance of the definition ran):\n")
                for file, lineno, instances in never:
                    out.write(f"    {file}:{lineno}  {instances[0][0]}")
                    if len(instances) > 1:
                        out.write(f"  [+{len(instances) - 1} more instances]")
                    out.write("\n")
            if partly:
                out.write("  instances not run (the definition ran for other instances):\n")
                for file, lineno, instances, missed in partly:
                    out.write(f"    {file}:{lineno}  {strip_args(missed[0])}  "
                              f"({len(missed)} of {len(instances)} not run)\n")
                    for name in missed:
                        out.write(f"        {name}\n")
            out.write("\n")


if __name__ == "__main__":
    sys.exit(main())
