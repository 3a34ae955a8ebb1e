#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes what search.js searches of Doxygen's XML: search_index.py XML-FOLDER HTML-FOLDER

A row for each name, family, page and section: name, address, what it is, its summary.
"""
import json
import pathlib
import sys
import xml.etree.ElementTree as ElementTree

XML, HTML = map(pathlib.Path, sys.argv[1:])


def words(node):
    return " ".join("".join(node.itertext()).split()) if node is not None else ""


def address(identity):
    page, _, anchor = identity.rpartition("_1")
    return f"{page}.html#{anchor}" if page else f"{identity}.html"


def summary(node):
    text = words(node.find("briefdescription")) or words(node.find("detaileddescription/para"))
    return text[:160]


def rows(compound):
    kind, title = compound.get("kind"), compound.findtext("title")
    if kind == "group":
        yield title, f"{compound.get('id')}.html", "family", summary(compound)
        for member in compound.iterfind("sectiondef/memberdef"):
            yield member.findtext("name"), address(member.get("id")), title, summary(member)
            for value in member.iterfind("enumvalue"):
                yield value.findtext("name"), address(value.get("id")), title, summary(value)
    elif kind == "struct":
        yield compound.findtext("compoundname"), f"{compound.get('id')}.html", "record", summary(compound)
    elif kind == "page":
        page = "index" if compound.get("id") == "indexpage" else compound.get("id")
        yield title, f"{page}.html", "page", summary(compound)
        for section in compound.iter():
            if section.tag in ("sect1", "sect2"):
                anchor = section.get("id").rpartition("_1")[2]
                yield section.findtext("title"), f"{page}.html#{anchor}", title, ""


found = []
for entry in ElementTree.parse(XML / "index.xml").iterfind("compound"):
    if entry.get("kind") in ("group", "struct", "page"):
        found += rows(ElementTree.parse(XML / (entry.get("refid") + ".xml")).find("compounddef"))
HTML.joinpath("search_index.js").write_text(f"var searchIndex = {json.dumps(found, indent=0)};\n", encoding="utf-8")
