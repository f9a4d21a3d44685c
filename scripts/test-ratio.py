#!/usr/bin/env python3
"""Prints the test-to-code ratio the project holds itself to: non-blank, non-comment C and C++
lines under tests/ against those under include/, src/, sim/, service/, simulation/ and tools/.
Usage: scripts/test-ratio.py [-v]   (-v: the test files too, largest first)"""
import os
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
SUFFIXES = (".c", ".h", ".cc", ".cpp", ".hpp")


def code_lines(path):
    """Lines holding anything but white space and comments (// and /* */, outside literals)."""
    count, in_comment = 0, False
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            i, code = 0, False
            while i < len(line):
                if in_comment:
                    end = line.find("*/", i)
                    if end < 0:
                        break
                    in_comment, i = False, end + 2
                elif line.startswith("//", i):
                    break
                elif line.startswith("/*", i):
                    in_comment, i = True, i + 2
                elif line[i] in "\"'":
                    quote, code, i = line[i], True, i + 1
                    while i < len(line) and line[i] != quote:
                        i += 2 if line[i] == "\\" else 1
                    i += 1
                else:
                    code = code or not line[i].isspace()
                    i += 1
            count += code
    return count


def tree(folders):
    files = {}
    for folder in folders:
        for parent, _, names in os.walk(os.path.join(ROOT, folder)):
            for name in names:
                if name.endswith(SUFFIXES):
                    path = os.path.join(parent, name)
                    files[os.path.relpath(path, ROOT)] = code_lines(path)
    return files


tests, code = tree(["tests"]), tree(["include", "src", "sim", "service", "simulation", "tools"])
if "-v" in sys.argv[1:]:
    for path, lines in sorted(tests.items(), key=lambda item: -item[1]):
        print(f"{lines:6} {path}")
t, c = sum(tests.values()), sum(code.values())
print(f"tests {t} lines, code {c} lines, ratio {t / c:.3f}")
