#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Draws the pictures in docs/pictures from what ARCHITECTURE.md says.

usage: pictures.py ARCHITECTURE.md FOLDER

The layers are those of its picture, the start-up is its table of stages, and each name
on the way of a write has to occur in it.
"""
import html
import pathlib
import re
import sys

ARCHITECTURE = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8")
STYLE = """<style>
text { font: 14px "DejaVu Sans", Verdana, sans-serif; fill: #1c2733 }
.small { font-size: 12px } .faint { fill: #56677a } .code { font-family: "DejaVu Sans Mono", monospace; font-size: 12px }
.bold { font-weight: bold } .middle { text-anchor: middle } .white { fill: #fff }
rect { fill: #eef3f9; stroke: #9db2c9 } .strong { fill: #2f5d8c; stroke: #2f5d8c } .edge { fill: #f8fafc; stroke-dasharray: 4 3 }
path { fill: none; stroke: #56677a; stroke-width: 1.5 } .head { fill: #56677a; stroke: none }
@media (prefers-color-scheme: dark) {
  text { fill: #dbe4ee } .faint { fill: #93a5b8 } .white { fill: #fff }
  rect { fill: #22303f; stroke: #4b6079 } .strong { fill: #35689b; stroke: #35689b } .edge { fill: #18222c }
  path { stroke: #93a5b8 } .head { fill: #93a5b8; stroke: none }
}
</style>"""


class Picture:
    def __init__(self, title):
        self.title, self.parts, self.right, self.bottom = title, [], 0, 0

    def box(self, x, y, width, height, kind=""):
        self.parts.append(f'<rect x="{x}" y="{y}" width="{width}" height="{height}" rx="6" class="{kind}"/>')
        self.right, self.bottom = max(self.right, x + width), max(self.bottom, y + height)

    def text(self, x, y, words, kind=""):
        self.parts.append(f'<text x="{x}" y="{y}" class="{kind}">{html.escape(words)}</text>')

    def arrow(self, *points):
        """A line through points whose last piece goes down, up or to the right."""
        (x0, y0), (x, y) = points[-2:]
        self.parts.append('<path d="M' + " L".join(f"{a} {b}" for a, b in points) + '"/>')
        sign = 1 if y > y0 else -1
        head = f"M{x} {y} l-5 {-9 * sign} h10 z" if x == x0 else f"M{x} {y} l-9 -5 v10 z"
        self.parts.append(f'<path class="head" d="{head}"/>')

    def save(self, name):
        size = f'viewBox="0 0 {self.right + 10} {self.bottom + 10}" width="{self.right + 10}"'
        text = (f'<svg xmlns="http://www.w3.org/2000/svg" {size} role="img">\n<title>{html.escape(self.title)}</title>\n'
                + STYLE + "\n" + "\n".join(self.parts) + "\n</svg>\n")
        pathlib.Path(sys.argv[2], name).write_text(text, encoding="utf-8")


def wrapped(words, width):
    lines = [""]
    for word in words:
        if len(lines[-1]) + len(word) > width:
            lines.append("")
        lines[-1] += word + "  "
    return lines


def layers():
    """Each layer of the picture in ARCHITECTURE.md as a band."""
    block = re.search(r"\n```\n( +start .*?)```", ARCHITECTURE, re.S)[1]
    bands = []
    for line in block.splitlines():
        name, modules = re.fullmatch(r"  (\w*) +(.*)", line).groups()
        if name:
            bands.append((name, []))
        bands[-1][1].extend(modules.split())
    picture = Picture("The layers of libzov, from the program down to Linux")
    picture.box(10, 10, 700, 34, "edge")
    picture.text(360, 32, "engine, server, utilities: through zov.h alone", "middle")
    y = 56
    for name, modules in bands:
        lines = wrapped(modules, 74)
        height = 18 * len(lines) + 14
        picture.box(10, y, 700, height)
        picture.box(10, y, 96, height, "strong")
        picture.text(58, y + height / 2 + 5, name, "middle white bold")
        for number, line in enumerate(lines):
            picture.text(118, y + 20 + 18 * number, line.strip(), "code")
        y += height + 6
    picture.box(10, y + 6, 700, 34, "edge")
    picture.text(360, y + 28, "libc, POSIX threads, Linux", "middle")
    picture.arrow((726, 50), (726, y))
    picture.right = 740
    picture.save("layers.svg")


def start():
    """The stages, with their numbers when the library starts and when it stops."""
    rows = re.findall(r"(?m)^\| (\d+) \| (last but one|last|\d+) \| ([^|]+) \| ([^|]+) \|$", ARCHITECTURE)
    count = len(rows)
    picture = Picture("Start-up and shut-down, stage by stage")
    picture.text(34, 26, "zov_init()", "code")
    picture.text(600, 26, "zov_term()", "code")
    for number, (begin, end, module, what) in enumerate(rows):
        y = 44 + 46 * number
        order = {"last": count, "last but one": count - 1}.get(end) or int(end)
        picture.box(90, y, 510, 40)
        picture.text(104, y + 25, module, "bold")
        lines = wrapped(what.split(), 50)
        for step, line in enumerate(lines):
            picture.text(250, y + 25 - 7 * (len(lines) - 1) + 15 * step, line.replace("  ", " ").strip(), "small faint")
        for x, text in ((52, begin), (612, str(order))):
            picture.box(x, y + 6, 28, 28, "strong")
            picture.text(x + 14, y + 25, text, "middle white bold")
    bottom = 44 + 46 * count
    picture.arrow((36, 40), (36, bottom - 8))
    picture.text(104, bottom + 16, "A stage that fails undoes itself; those above it end in reverse.", "small")
    picture.right, picture.bottom = 680, bottom + 20
    picture.save("start-up.svg")


# Of one write: what is called, what that does; beneath each other on either side.
TOP = ("zov_fileSeekWrite", "one handle, whatever is behind it")
DISK = [("pwrite", "one call of the system: the kernel has it"),
        ("zov_fileSync", "what has to survive: fsync()")]
MEMORY = [("memSeekWrite", "leads on to the segments"), ("segWrite", "takes the file's lock"),
          ("forEachPiece", "each segment of the range"), ("getSegment", "finds it, or makes it:"),
          ("zov_shmCreate", "a block of the file's tag"), ("", "bytes copied; the lock is left")]


def write():
    picture = Picture("The way of one positioned write, to a disk file and to a file in memory")

    def column(x, steps, title, first):
        picture.text(x + 150, first - 14, title, "middle bold")
        for number, (name, what) in enumerate(steps):
            y = first + 62 * number
            picture.box(x, y, 300, 44)
            if name:
                picture.text(x + 12, y + 18, name + "()", "code bold")
            picture.text(x + 12, y + (35 if name else 26), what, "small faint")
            if number:
                picture.arrow((x + 150, y - 18), (x + 150, y))

    picture.box(190, 10, 300, 44, "strong")
    picture.text(340, 28, TOP[0] + "()", "code bold white middle")
    picture.text(340, 45, TOP[1], "small white middle")
    column(10, DISK, "on disk", 124)
    column(370, MEMORY, "in memory", 124)
    picture.arrow((260, 54), (260, 80), (60, 80), (60, 124))
    picture.arrow((420, 54), (420, 80), (630, 80), (630, 124))
    for name in [TOP[0], *(name for name, _ in DISK + MEMORY if name)]:
        if not re.search(rf"\b{name}\b", ARCHITECTURE):
            sys.exit(f"pictures.py: {name} is not in ARCHITECTURE.md any more")
    picture.save("write.svg")


layers()
start()
write()
