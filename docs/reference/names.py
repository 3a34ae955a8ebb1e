#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes a page with every name of the header, sorted without its prefix.

usage: names.py HEADER PAGE

Doxygen's own index would have all of them under Z.
"""
import itertools
import pathlib
import re
import sys

header = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8")
plain = re.sub(r"(?<!define )ZOV_CAPABILITY\(.*?\) ?|/\*.*?\*/", "", header, flags=re.S)
found = set()
for pattern in (r"^ZOV_API [^;(]*?\b(\w+)[(;]", r"^#define (ZOV_(?!H\b|STATUS_ENUM)\w+)", r"^  (?:X\()?(ZOV_\w+)(?: = |, -?\d)",
                r"^enum (\w+)", r"^typedef [^({]*?(\w+)\s*;", r"^typedef \w+ \(\*(\w+)\)", r"^\} (\w+);"):
    found.update(re.findall(pattern, plain, re.M))


def bare(name):
    return re.sub(r"^zov_", "", name, flags=re.I).lower()


lines = ["# All names {#zov_names}", "", "Sorted without their prefix."]
for letter, names in itertools.groupby(sorted(found, key=bare), lambda name: bare(name)[0].upper()):
    lines += ["", f"## {letter}", "", ",\n".join(f"@ref {name}" for name in names)]
pathlib.Path(sys.argv[2]).write_text("\n".join(lines) + "\n", encoding="utf-8")
