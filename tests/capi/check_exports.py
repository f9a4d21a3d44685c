#!/usr/bin/env python3
"""Checks the dynamic symbol table of a Zonaris shared library against its public headers.

Every defined dynamic symbol must be one the headers declare public: a C function declared
with ZONARIS_API in the given C headers, or a member, type information or virtual table of a
class or function that the given C++ headers mark ZONARIS_API. Every C function the C headers
declare must be exported, and the SONAME must carry the major version.

usage: check_exports.py LIBRARY SONAME --c HEADER... [--cxx HEADER...]
"""
import re
import subprocess
import sys
from pathlib import Path

WRAPPERS = ("typeinfo name for ", "typeinfo for ", "vtable for ",
            "non-virtual thunk to ", "virtual thunk to ")


def arguments(argv):
    library, soname, groups, key = argv[0], argv[1], {"--c": [], "--cxx": []}, None
    for word in argv[2:]:
        if word in groups:
            key = word
        else:
            groups[key].append(Path(word))
    return library, soname, groups["--c"], groups["--cxx"]


def c_functions(headers):
    names = set()
    for header in headers:
        names |= set(re.findall(r"ZONARIS_API[^;{]*?\b(zonaris_\w+)\s*\(", header.read_text()))
    return names


def cxx_names(headers):
    """Qualified names (zonaris::X, zonaris::platform::X) of what the headers mark public."""
    names = set()
    for header in headers:
        text = header.read_text()
        namespace = re.search(r"^namespace ([\w:]+) \{", text, re.M)
        if not namespace:
            continue
        found = re.findall(r"\b(?:class|struct) ZONARIS_API (\w+)", text)
        found += re.findall(r"^ZONARIS_API [^;]*?(\w+)\(", text, re.M)
        names |= {f"{namespace.group(1)}::{name}" for name in found}
    return names


def public_cxx(symbol, names):
    for wrapper in WRAPPERS:
        if symbol.startswith(wrapper):
            symbol = symbol[len(wrapper):]
    if "(anonymous namespace)" in symbol.split("(")[0]:
        return False
    return any(symbol == n or symbol.startswith((n + "::", n + "(", n + "[")) for n in names)


def main(argv):
    library, soname, c_headers, cxx_headers = arguments(argv)
    dynamic = subprocess.run(["readelf", "-d", library], capture_output=True, text=True,
                             check=True).stdout
    problems = [] if f"[{soname}]" in dynamic else [f"SONAME is not {soname}"]

    listing = subprocess.run(["nm", "-D", "--defined-only", library], capture_output=True,
                             text=True, check=True).stdout.splitlines()
    demangled = subprocess.run(["nm", "-D", "--defined-only", "-C", library],
                               capture_output=True, text=True, check=True).stdout.splitlines()
    functions, names = c_functions(c_headers), cxx_names(cxx_headers)
    exported_c = set()
    for raw, readable in zip(listing, demangled):
        kind, mangled = raw.split()[-2:]
        symbol = readable.split(" ", 2)[2]
        if kind == "A" and re.fullmatch(r"ZONARIS\w*_\d+", mangled):
            continue  # the version node of the symbol versions
        base = mangled.split("@")[0]
        if base in functions:
            exported_c.add(base)
        elif not public_cxx(symbol.split("@")[0], names):
            problems.append(f"internal symbol exported: {symbol}")
    problems += [f"declared but not exported: {name}" for name in sorted(functions - exported_c)]

    print(f"{library}: {len(listing)} exported symbols, {len(exported_c)} C functions, "
          f"{len(problems)} problem(s)")
    for problem in problems:
        print("  " + problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
