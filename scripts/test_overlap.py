#!/usr/bin/env python3
"""Test bodies whose code under test other tests run too, from per-test basic-block traces.

Reads the traces that scripts/covtrace.c wrote (one folder per test, one file per process),
names each block by function (template instances apart), file, line and discriminator, keeps
the blocks of code under test (not tests, not benchmarks, not outside the project), and then,
largest body first, drops every test body whose blocks all stay run by the bodies left. The
bodies dropped can all go together without a block going unrun; any subset of them too.

Usage: test_overlap.py TRACES --root SRC --build BUILD [--json OUT]
       test_overlap.py --lost BEFORE.json AFTER.json   (blocks run before and not after)
"""
import argparse
import collections
import json
import os
import re
import subprocess
import sys

NOT_UNDER_TEST = re.compile(r"(^|/)tests?/|^bench/")
BODY = re.compile(r"^(TEST|TEST_P|TEST_F|TYPED_TEST|TYPED_TEST_P)\(\s*(\w+)\s*,\s*(\w+)\s*\)")
BLANK = re.compile(r"^\s*(//.*)?$")


def read_traces(folder, build):
    tests = {}
    for name in os.listdir(folder):
        blocks = set()
        for f in os.listdir(os.path.join(folder, name)):
            with open(os.path.join(folder, name, f)) as fh:
                for line in fh:
                    parts = line.split()
                    if len(parts) != 2:  # a process killed while writing
                        continue
                    module = parts[0]
                    if not module.startswith("/"):  # started by a relative path
                        found = [os.path.join(d, module) for d, _, fs in os.walk(build)
                                 if module in fs]
                        module = found[0] if found else module
                    blocks.add((module, int(parts[1], 16)))
        tests[name.replace("@", "/")] = blocks
    return tests


def name_blocks(tests, root):
    """(module, offset) -> 'file:line (discriminator) function' for code under test."""
    by_module = collections.defaultdict(set)
    for blocks in tests.values():
        for module, offset in blocks:
            by_module[module].add(offset)
    names = {}
    for module, offsets in by_module.items():
        if not module.startswith(root) and "/build" not in module:
            continue  # system libraries
        if not os.path.exists(module):
            continue
        offsets = sorted(offsets)
        # The recorded address is the return address of the hook: the call is just before it.
        out = subprocess.run(["addr2line", "-f", "-e", module],
                             input="\n".join("%x" % (o - 1) for o in offsets),
                             capture_output=True, text=True, check=True).stdout.splitlines()
        for offset, function, where in zip(offsets, out[0::2], out[1::2]):
            path = os.path.normpath(where.split(":")[0])
            if not path.startswith(root + "/"):
                continue
            rel = path[len(root) + 1:]
            if NOT_UNDER_TEST.search(rel):
                continue
            names[(module, offset)] = rel + ":" + where.split(":", 1)[1] + " " + function
    return {t: {names[b] for b in blocks if b in names} for t, blocks in tests.items()}


def body_of(test):
    """'Prefix/Suite.Name/param' and typed 'Suite/0.Name' -> 'Suite.Name'."""
    m = re.match(r"^(?:bench\.)?(?:[^.]*/)?(\w+)(?:/\w+)?\.(\w+)", test)
    return m.group(1) + "." + m.group(2) if m else test


def body_spans(root):
    files = subprocess.run(["git", "-C", root, "ls-files", "*.cpp"], capture_output=True,
                           text=True, check=True).stdout.split()
    spans = {}
    for f in files:
        if not re.search(r"(^|/)tests?/", f):
            continue
        lines = open(os.path.join(root, f)).read().split("\n")
        i = 0
        while i < len(lines):
            m = BODY.match(lines[i])
            if m:
                depth, j, opened = 0, i, False
                while j < len(lines):
                    depth += lines[j].count("{") - lines[j].count("}")
                    opened = opened or "{" in lines[j]
                    if opened and depth <= 0:
                        break
                    j += 1
                counted = sum(1 for line in lines[i:j + 1] if not BLANK.match(line))
                spans[m.group(2) + "." + m.group(3)] = (f, i + 1, counted)
                i = j
            i += 1
    return spans


def droppable(cover, spans):
    bodies = collections.defaultdict(set)
    for test, blocks in cover.items():
        bodies[body_of(test)] |= blocks
    runs = collections.Counter(b for blocks in bodies.values() for b in blocks)
    dropped = []
    for body in sorted(bodies, key=lambda b: -spans.get(b, ("", 0, 0))[2]):
        if body in spans and all(runs[b] > 1 for b in bodies[body]):
            for b in bodies[body]:
                runs[b] -= 1
            dropped.append(body)
    return dropped


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("traces", nargs="?")
    ap.add_argument("--root")
    ap.add_argument("--build")
    ap.add_argument("--json")
    ap.add_argument("--lost", nargs=2, metavar=("BEFORE", "AFTER"))
    args = ap.parse_args()
    if args.lost:
        before, after = (set().union(*json.load(open(p)).values()) for p in args.lost)
        lost = sorted(before - after)
        print("\n".join(lost))
        print("%d blocks run before, %d after, %d no longer run" %
              (len(before), len(after), len(lost)))
        return 1 if lost else 0
    root = os.path.realpath(args.root)
    cover = name_blocks(read_traces(args.traces, args.build), root)
    if args.json:
        json.dump({t: sorted(b) for t, b in cover.items()}, open(args.json, "w"))
    spans = body_spans(root)
    dropped = droppable(cover, spans)
    by_file = collections.defaultdict(list)
    for body in dropped:
        f, line, counted = spans[body]
        by_file[f].append((line, counted, body))
    for f in sorted(by_file):
        print(f, sum(c for _, c, _ in by_file[f]))
        for line, counted, body in sorted(by_file[f]):
            print("   %5d %4d %s" % (line, counted, body))
    print("%d tests traced, %d blocks of code under test; bodies that can all go: %d lines of %d"
          % (len(cover), len(set().union(*cover.values())),
             sum(spans[b][2] for b in dropped), sum(s[2] for s in spans.values())))
    return 0


if __name__ == "__main__":
    sys.exit(main())
