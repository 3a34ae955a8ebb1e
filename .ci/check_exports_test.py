#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Proves that scripts/check_exports can fail: check_exports_test.py BUILD

Feeds it the real inputs of a build folder, of which one at a time is broken,
and looks for the complaint about just that.
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = pathlib.Path(sys.argv.pop() if len(sys.argv) > 1 else "build/release").resolve()


class CheckExports(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.map = self.copy(ROOT / "src/libzov.map")
        self.header = self.copy(ROOT / "include/zov.h")
        self.xml = self.folder / "xml"
        shutil.copytree(BUILD / "docs/xml", self.xml)
        self.shared_object = BUILD / "src/libzov.so"
        self.archive = BUILD / "src/libzov.a"

    def copy(self, file):
        return pathlib.Path(shutil.copy(file, self.folder))

    def edit(self, file, pattern, replacement):
        text, count = re.subn(pattern, replacement, file.read_text(), count=1, flags=re.DOTALL)
        self.assertEqual(count, 1, pattern)
        file.write_text(text)

    def fake_library(self, names, version="ZOV_11"):
        """A library that exports the given names and no other."""
        self.shared_object = self.folder / "libfake.so"
        source = self.folder / "fake.c"
        script = self.folder / "fake.map"
        source.write_text("".join(f"int {name};\n" for name in names))
        script.write_text(f"{version} {{ global: {' '.join(n + ';' for n in names)} local: *; }};")
        subprocess.run(
            ["cc", "-w", "-shared", "-fPIC", f"-Wl,--version-script={script}", source, "-o"]
            + [self.shared_object],
            check=True,
        )

    def promised(self):
        text = re.sub(r"#.*", "", self.map.read_text())
        return re.findall(r"^\s+(\w+);", text, re.MULTILINE)

    def complaints(self):
        command = [ROOT / "scripts/check_exports", BUILD, "--library", self.shared_object]
        command += ["--archive", self.archive, "--map", self.map]
        command += ["--header", self.header, "--xml", self.xml]
        run = subprocess.run(command, capture_output=True, text=True, check=False)
        lines = run.stderr.splitlines()
        self.assertEqual(run.returncode, 1 if lines else 0, run.stderr)
        return [line.removeprefix("check_exports: ") for line in lines]

    def test_intact_inputs_pass(self):
        self.assertEqual(self.complaints(), [])

    def test_name_missing_in_the_version_script(self):
        self.edit(self.map, r"    zov_getMem;\n", "")
        self.assertEqual(
            self.complaints(),
            [
                "zov_getMem: exported by the library, declared in the header, documented;"
                " not listed in the version script",
                "zov_getMem: defined by the archive, but not listed in the version script",
            ],
        )

    def test_name_listed_twice(self):
        self.edit(self.map, r"    zov_term;\n", r"    zov_term;\n    zov_term;\n")
        self.assertEqual(
            self.complaints(), ["zov_term: listed more than once in the version script"]
        )

    def test_archive_leaks_a_name_and_lacks_one(self):
        self.archive = self.folder / "libfake.a"
        shutil.copy(BUILD / "src/libzov.a", self.archive)
        subprocess.run(["objcopy", "--localize-symbol=zov_init", "--add-symbol=leaked=.text:0",
                        self.archive], check=True)
        self.assertEqual(
            self.complaints(),
            [
                "leaked: defined by the archive, but not listed in the version script",
                "zov_init: listed in the version script, but not defined by the archive",
            ],
        )

    def test_wildcard_in_the_version_script(self):
        self.edit(self.map, r"zov_getMem;", "zov_get*;")
        self.assertIn("'zov_get*' is not a plain name", self.complaints()[0])

    def test_declaration_missing(self):
        self.edit(self.header, r"ZOV_API void zov_rdonly\(void\);", "")
        self.assertEqual(
            self.complaints(),
            [
                "zov_rdonly: exported by the library, listed in the version script, documented;"
                " not declared in the header"
            ],
        )

    def test_declaration_without_definition(self):
        self.edit(
            self.header,
            r"(ZOV_API void zov_term\(void\);)",
            r"\1 static inline int one(int a) { if (a) { return 1; } return a; }"
            r" ZOV_API void (*zov_absent(int, void (*)(int)))(int);"
            r" ZOV_API extern const char *zov_table[2];",
        )
        self.assertEqual(
            [line.split(";")[0] for line in self.complaints()],
            ["zov_absent: declared in the header", "zov_table: declared in the header"],
        )

    def test_declaration_without_the_mark(self):
        self.edit(self.header, r"ZOV_API void zov_term", "void zov_term")
        self.assertEqual(
            self.complaints(), ["zov_term: declared without the mark of an exported name"]
        )

    def test_comment_missing(self):
        page = self.xml / "zov_8h.xml"
        self.edit(
            page,
            r"(<name>zov_init</name>.*?)<briefdescription>.*?</detaileddescription>",
            r"\1",
        )
        self.assertEqual(
            [line.split(";")[1] for line in self.complaints()], [" not documented"]
        )

    def test_library_lacks_a_name(self):
        self.fake_library([name for name in self.promised() if name != "zov_freeMem"])
        self.assertEqual(
            [line.split(";")[1] for line in self.complaints()], [" not exported by the library"]
        )

    def test_library_leaks_a_mangled_name(self):
        self.fake_library(self.promised() + ["_ZN3zov13abandonMemoryEv"])
        complaints = self.complaints()
        self.assertEqual(len(complaints), 2)
        self.assertIn("_ZN3zov13abandonMemoryEv: a mangled name is exported", complaints)

    def test_wrong_version(self):
        self.fake_library(self.promised(), "ZOV_12")
        self.assertEqual(len(self.complaints()), len(self.promised()))

    def test_a_later_version_in_the_version_script(self):
        self.edit(self.map, r"    zov_term;\n(.*)", r"\1ZOV_11_1 { global: zov_term; } ZOV_11;\n")
        self.assertEqual(
            self.complaints(), ["zov_term: has version 'ZOV_11' instead of ZOV_11_1"]
        )

    def test_no_documentation_at_all(self):
        shutil.rmtree(self.xml)
        self.assertIn("build the docs target first", self.complaints()[0])


if __name__ == "__main__":
    unittest.main()
