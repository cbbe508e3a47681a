#!/usr/bin/env python3
"""Counts the lines of C++ that hold code (not blank, not only comment) under
tests/ against the rest of the tree, bench/ aside, and prints the ratio.

    scripts/line-ratio.py [--modules]

--modules also prints the count per top-level folder of tests/ and of the
product, which is how a change to the suite is judged module by module."""
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SUFFIXES = (".cpp", ".cc", ".cxx", ".h", ".hpp")
SKIP = {"bench", ".git"}


def code_lines(path):
    count = 0
    in_block = False
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            rest = line.strip()
            has_code = False
            while rest:
                if in_block:
                    end = rest.find("*/")
                    if end < 0:
                        rest = ""
                        break
                    rest = rest[end + 2:].strip()
                    in_block = False
                    continue
                if rest.startswith("//"):
                    break
                if rest.startswith("/*"):
                    in_block = True
                    rest = rest[2:]
                    continue
                # Code on this line; a block comment opened after it (outside a
                # string, which is all this needs to tell) carries on below.
                has_code = True
                opened = rest.rfind("/*")
                if opened >= 0 and "*/" not in rest[opened:] and '"' not in rest[opened:]:
                    in_block = True
                break
            if has_code:
                count += 1
    return count


def main():
    per_module = {}
    for folder, dirs, files in os.walk(ROOT):
        rel = os.path.relpath(folder, ROOT)
        top = rel.split(os.sep)[0]
        # Build folders are named build*; they hold generated code, not ours.
        dirs[:] = [d for d in dirs if not (rel == "." and (d in SKIP or d.startswith("build")))]
        for name in files:
            if name.endswith(SUFFIXES):
                parts = rel.split(os.sep)
                if top == "tests":
                    key = ("tests", parts[1] if len(parts) > 1 else ".")
                else:
                    key = ("code", top)
                per_module[key] = per_module.get(key, 0) + code_lines(os.path.join(folder, name))
    tests = sum(n for (kind, _), n in per_module.items() if kind == "tests")
    code = sum(n for (kind, _), n in per_module.items() if kind == "code")
    if "--modules" in sys.argv[1:]:
        for (kind, module), n in sorted(per_module.items()):
            print(f"{kind:5} {module:14} {n:6}")
    print(f"test code {tests} lines, product code {code} lines: ratio {tests / max(code, 1):.2f}")


main()
