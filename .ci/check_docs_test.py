#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Proves that scripts/check_docs can fail: check_docs_test.py DOCS

It gets a copy of the reference out of which a few words are taken, and is to miss
just those.
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[1]
# File, what is taken out of it, and the line of the header that is lost with it.
DAMAGES = [
    ("html/group__zov__format.html", r"%(?=c ignores its width)",
     "not in the HTML page group__zov__format.html: %c ignores its width, %ls"),
    ("html/group__zov__queues.html", r"A queue is of one process:[^<]*",
     "not in the HTML page group__zov__queues.html: A queue is of one process"),
    ("html/zov_8h.html", r"Only one that says \"May jump\"",
     "not in the HTML page zov_8h.html: Jumps. A call returns."),
    ("man/man3/libzov.3", r"\n[^\n]*Only one that says \"May jump\"[^\n]*",
     "not in the manual page libzov: Jumps. A call returns."),
    ("man/man3/zov_fileOpen.3", r"(?m)^\\&?(?=Opens a file\.$)|^(?=Opens a file\.$)",
     "not in the manual page zov_fileOpen: Opens a file. The paths"),
    ("html/zov_names.html", r"zov_queueRead\b", "zov_queueRead: not in the index"),
    ("man/man3/zov_queues.3", None, "zov_queues: has no manual page"),
]

with tempfile.TemporaryDirectory() as folder:
    docs = pathlib.Path(shutil.copytree(sys.argv[1], pathlib.Path(folder, "docs")))
    for name, pattern, _ in DAMAGES:
        file = docs / name
        if pattern is None:
            file.unlink()
            continue
        # A line that begins with an apostrophe is a request, which hides it.
        text, count = re.subn(pattern, "'" if name.endswith("zov_fileOpen.3") else "",
                              file.read_text(encoding="utf-8"))
        assert count > 0, f"{name}: does not hold {pattern}"
        file.write_text(text, encoding="utf-8")
    run = subprocess.run([ROOT / "scripts/check_docs", docs], capture_output=True, text=True, check=False)
    assert run.returncode == 1, "the damage was not noticed"
    for _, _, expected in DAMAGES:
        assert expected in run.stderr, f"not noticed: {expected}\n{run.stderr}"
    lines = [line for line in run.stderr.splitlines() if not any(e in line for *_, e in DAMAGES)]
    # A paragraph that is lost takes the lines behind its first along.
    strangers = [line for line in lines if not re.search(r"zov_fileOpen|libzov|zov_8h|group__zov__queues", line)]
    assert not strangers, "\n".join(strangers)
    print(f"check_docs_test: {len(DAMAGES)} damages noticed")
