#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Proves that scripts/check_layers can fail: check_layers_test.py BUILD

Feeds it the sources and objects of a build folder, with one fault planted at a
time, and looks for the complaint about just that.
"""
import importlib.machinery
import importlib.util
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = pathlib.Path(sys.argv.pop() if len(sys.argv) > 1 else "build/release").resolve()
OBJECTS = BUILD / "src/CMakeFiles/zov_objects.dir"


class CheckLayers(unittest.TestCase):
    def setUp(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        loader = importlib.machinery.SourceFileLoader("layers", str(ROOT / "scripts/check_layers"))
        self.layers = importlib.util.module_from_spec(importlib.util.spec_from_loader("layers", loader))
        sys.dont_write_bytecode = True
        loader.exec_module(self.layers)
        self.src = pathlib.Path(shutil.copytree(ROOT / "src", folder / "src"))
        self.objects = pathlib.Path(shutil.copytree(OBJECTS, folder / "objects"))
        self.page = pathlib.Path(shutil.copy(ROOT / "ARCHITECTURE.md", folder))

    def plant(self, name, code):
        """Adds a source, FOLDER/NAME, with its object."""
        source = self.src / f"{name}.cpp"
        source.write_text(code)
        command = ["c++", "-c", source, "-I", ROOT / "include", "-I", self.src]
        subprocess.run([*command, "-o", self.objects / f"{name}.cpp.o"], check=True)

    def complaints(self):
        return list(self.layers.findings(self.objects, self.src, self.page))

    def test_what_is_there_passes(self):
        self.assertEqual(self.complaints(), [])

    def test_use_of_a_higher_layer(self):
        self.plant("os/zovunix_time_x", '#include "zov.h"\nint go() { return zov_mfInit(); }')
        self.assertEqual(
            self.complaints(),
            ["os/zovunix_time_x: uses zov_mfInit of memstore/zovmfile, which is above it"],
        )

    def test_use_of_a_later_module_in_a_layer(self):
        self.plant("core/zov_flags_x", '#include "zov.h"\nvoid go() { zov_memTerm(); }')
        self.assertEqual(
            self.complaints(), ["core/zov_flags_x: uses zov_memTerm of core/zovmem, which is above it"]
        )

    def test_include_from_a_higher_layer(self):
        header = self.src / "os/zovunix_limit.h"
        header.write_text(header.read_text() + '#include "files/zovfile_private.h"\n')
        self.assertEqual(
            self.complaints(),
            ["os/zovunix_limit: uses the header of files/zovfile_private, which is above it"],
        )

    def test_circle(self):
        self.plant("core/zovswap_x", "int two(); int one() { return two(); }")
        self.plant("core/zovswap_y", "int one(); int two() { return one(); }")
        (complaint,) = self.complaints()
        self.assertRegex(complaint, "^sources need each other: core/zovswap_[xy] core/zovswap_[xy] ")

    def test_message_path_is_open_to_all(self):
        self.plant("core/zovswap_x", '#include "zov.h"\nvoid go() { zov_log("!"); }')
        self.assertEqual(self.complaints(), [])

    def test_unneeded_exceptions(self):
        self.layers.UPWARD[("core/zovver", "core/zov")] = "none"
        self.layers.MESSAGES.add("zov_log_err")
        self.assertEqual(
            self.complaints(),
            [
                "('core/zovver', 'core/zov'): nothing needs this exception",
                "zov_log_err: nothing needs this exception",
            ],
        )

    def test_module_away_without_need(self):
        self.layers.LAYER["config/zovparse"] = "start"
        self.layers.AWAY["config/zovparse"] = "none"
        self.assertEqual(self.complaints(), ["config/zovparse: nothing needs this exception"])

    def test_module_away_without_a_reason(self):
        del self.layers.AWAY["files/zovutf8"]
        self.assertIn("files/zovutf8: AWAY is to name", self.complaints()[0])

    def test_source_of_no_module(self):
        self.plant("core/other", "")
        self.assertEqual(self.complaints(), ["core/other: is of no module"])

    def test_old_picture(self):
        self.page.write_text(self.page.read_text().replace("zovini zovparse", "zovparse zovini"))
        self.assertEqual(self.complaints(), ["ARCHITECTURE.md: does not show what --picture prints"])


if __name__ == "__main__":
    unittest.main()
