# SPDX-License-Identifier: Apache-2.0
"""Holds what zov.h says of jumping against the table of swept operations.

usage: may_jump_test.py HEADER TABLE...

The sweep itself sees to it that an operation jumps exactly where its row says so.
Here a row that jumps must name a function that may, and every function that may
must have a row that does.
"""
import re
import sys

header = open(sys.argv[1], encoding="utf-8").read()
rows = []
for name in sys.argv[2:]:
    rows += re.findall(r'\{"((?:zov_\w+ ?)+)",\s*([\w| ]+),', open(name, encoding="utf-8").read())

# The comment of each function: the one before it, or before its group.
comments = {}
comment = ""
for found in re.finditer(r"/\*\*(.*?)\*/|^ZOV_API ([^;]*?\b(\w+)\([^;]*);", header, re.S | re.M):
    if found[3]:
        comments[found[3]] = comment
    elif not re.fullmatch(r"\s*@[{}]\s*", found[1]):
        comment = " ".join(found[1].replace(" *", " ").split())


def may_jump(function):
    text = comments[function]
    if re.search(r"May jump: no|[Nn]ever jumps|\bnot jump", text):
        return False
    if re.search(r"[Mm]ay jump", text):
        return True
    like = re.match(r"(?:.*otherwise as )?(zov_\w+)\(\)(?: (?:with|for|on|in)\b|\.)", text)
    return bool(like) and like[1] in comments and like[1] != function and may_jump(like[1])


complaints = []
jumping = set()
for calls, traits in rows:
    names = calls.split()
    unknown = [name for name in names if name not in comments]
    able = [name for name in names if name in comments and may_jump(name)]
    complaints += [f"{name}: not in the header" for name in unknown]
    if "kJumps" in traits:
        jumping.update(names)
    if ("kJumps" in traits) > bool(able):
        complaints.append(f"{calls}: jumps, and the header says that none of them does")
complaints += [f"{name}: may jump by the header, and has no row that does"
               for name in comments if may_jump(name) and name not in jumping]
print("\n".join(complaints))
sys.exit(1 if complaints or not rows else 0)
