#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the manual pages of the header from Doxygen's XML.

usage: man_pages.py XML-FOLDER MAN-FOLDER VERSION

Doxygen's own are one page with everything in it. Here each function, variable, type
and macro has a page of its own, each family one that lists what it has, and libzov(3)
the conventions. What the comments say comes in their order and words.
"""
import pathlib
import re
import sys
import textwrap
import xml.etree.ElementTree as ElementTree

XML, MAN, VERSION = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3]
ALSO = ["libzov"]
MEMBERS = {}  # by id


def plain(text):
    """Text as troff prints it unchanged."""
    for mark, escape in (("\\", "\\e"), ("'", "\\(aq"), ("`", "\\(ga"), ("^", "\\(ha"), ("~", "\\(ti"), ("-", "\\-")):
        text = text.replace(mark, escape)
    return text


def line(text):
    """Text at the start of a line, where a dot would begin a request."""
    text = " ".join(text.split())
    return ("\\&" if text.startswith((".", "'")) else "") + text


class Page:
    """A manual page that is being written."""

    def __init__(self):
        self.out = []
        self.pending = False  # a result was told: what follows it has a heading

    def add(self, *lines):
        self.out += lines

    def inline(self, node):
        """The text of a node and what is in it, with fonts."""
        text = plain(node.text or "")
        for child in node:
            if child.tag in ("ndash", "mdash"):
                text += "\\-\\-"
            elif child.tag == "sp":
                text += " "
            else:
                inner = self.inline(child)
                bold = child.tag in ("ref", "bold", "computeroutput", "emphasis")
                text += f"\\fB{inner}\\fP" if bold and "\\fB" not in inner else inner
            text += plain(child.tail or "")
        return text

    def block(self, node):
        """A paragraph, in pieces between the lists and tables in it."""
        piece = plain(node.text or "")
        for child in node:
            writer = getattr(self, "on_" + child.tag, None)
            if writer is None:
                wrapper = ElementTree.Element("x")
                wrapper.append(child)
                piece += self.inline(wrapper)
                continue
            self.text(piece)
            piece = plain(child.tail or "")
            writer(child)
        self.text(piece)

    def text(self, piece):
        if piece.strip():
            if self.pending:
                self.add(".SH NOTES")
            self.pending = False
            self.add(".PP", line(piece))

    def blocks(self, node):
        for child in node:
            getattr(self, "on_" + child.tag, self.block)(child)

    def items(self, node, mark):
        for number, item in enumerate(node.iterfind("listitem"), 1):
            self.add(".IP " + (f"{number}. 4" if mark is None else f"{mark} 3"))
            start = len(self.out)
            self.blocks(item)
            if self.out[start:start + 1] == [".PP"]:
                del self.out[start]
            self.out[start:] = [".sp" if one == ".PP" else one for one in self.out[start:]]

    def on_para(self, node):
        self.block(node)

    def on_itemizedlist(self, node):
        self.items(node, "\\(bu")

    def on_orderedlist(self, node):
        self.items(node, None)

    def on_sect1(self, node):
        self.add('.SH "' + line(plain(node.findtext("title"))).upper() + '"')
        self.blocks([child for child in node if child.tag != "title"])

    def on_sect2(self, node):
        self.add('.SS "' + line(plain(node.findtext("title"))) + '"')
        self.blocks([child for child in node if child.tag != "title"])

    def on_heading(self, node):
        self.add(f'.SS "{line(self.inline(node))}"')

    def on_parameterlist(self, node):
        self.add(".SH ARGUMENTS")
        for item in node.iterfind("parameteritem"):
            names = ", ".join(name.text for name in item.iter("parametername"))
            self.add(".TP", f"\\fI{plain(names)}\\fP")
            for para in item.iterfind("parameterdescription/para"):
                self.add(line(self.inline(para)))

    def on_simplesect(self, node):
        self.add(".SH " + ('"RETURN VALUE"' if node.get("kind") == "return" else node.get("kind").upper()))
        self.blocks([child for child in node if child.tag != "title"])
        self.pending = True

    def on_table(self, node):
        rows = [[line(self.inline(para)) for para in row.iterfind("entry/para")] for row in node.iterfind("row")]
        # A column is at least as wide as its longest word.
        seen = [[re.sub(r"\\f.", "", cell).replace("\\-", "-") for cell in row] for row in rows]
        widths = [max(max(map(len, word.split()), default=1) for word in column) for column in zip(*seen)]
        wanted = [max(map(len, column)) for column in zip(*seen)]
        while sum(widths) + 3 * len(widths) < 70 and widths != wanted:
            # The next character goes to the column that lacks most.
            lack = [want / width for want, width in zip(wanted, widths)]
            widths[lack.index(max(lack))] += 1
        self.add(".PP", ".TS", "tab(\x01);", " ".join(f"lbw({width}n)" for width in widths),
                 " ".join(f"lw({width}n)" for width in widths) + ".")
        for row in rows:
            # A single word would not break.
            self.add("\x01".join(f"T{{\n{cell}\nT}}" if " " in cell else cell for cell in row))
        self.add(".TE")

    def on_verbatim(self, node):
        self.add(".PP", ".nf", *("\\&" + plain(one) for one in (node.text or "").strip("\n").split("\n")), ".fi")

    def described(self, node):
        """Brief and detailed description."""
        self.pending = False
        self.blocks(node.findall("briefdescription/para"))
        self.blocks(node.findall("detaileddescription/*"))

    def write(self, name, section=3):
        text = "\n".join(self.out) + "\n"
        MAN.joinpath(f"{name}.{section}").write_text(re.sub(r"\n\.PP\n(?=\.(SH|SS|IP|TP|PP))", "\n", text))


def words(node):
    return " ".join("".join(node.itertext()).split()) if node is not None else ""


def brief(node):
    text = words(node.find("briefdescription")) or words(node.find("detaileddescription/para"))
    return plain(text.split(". ")[0].rstrip("."))


def declaration(member):
    """What the header declares, on lines of the synopsis."""
    kind, name = member.get("kind"), member.findtext("name")
    if kind == "define":
        arguments = ", ".join(word.text for word in member.iterfind("param/defname"))
        value = words(member.find("initializer"))
        behind = f"({arguments})" if member.find("param") is not None else f" {value}"
        return [f"#define {name}{behind}"]
    if kind == "enum":
        values = [f"  {v.findtext('name')} {words(v.find('initializer'))}," for v in member.iterfind("enumvalue")]
        return [f"enum {name} {{", *values, "};"]
    if kind == "function":
        start = re.sub(r"\* (?=\w+$)", "*", f"{words(member.find('type'))} {name}")
        indent = " " * (len(start) + 1 if len(start) < 36 else 4)
        # Lines end behind a comma.
        arguments = ", ".join(one.replace(" ", "\0") for one in member.findtext("argsstring").split(", "))
        lines = textwrap.wrap(start.replace(" ", "\0") + arguments + ";", 76, subsequent_indent=indent)
        return [one.replace("\0", " ") for one in lines]
    return [member.findtext("definition") + member.findtext("argsstring", "") + ";"]


def synopsis(page, lines):
    page.add(".SH SYNOPSIS", ".nf", "#include <zov.h>", "")
    page.add(*(f"\\fB{plain(one)}\\fP" for one in lines), ".fi")


def also(page, names, own):
    names = dict.fromkeys(name for name in names if name != own)
    page.add('.SH "SEE ALSO"', ",\n".join(f"\\fB{name}\\fP(3)" for name in names))


def heading(page, name, family, about):
    page.add("'\\\" t", f'.TH "{name}" 3 "" "libzov {VERSION}" "{plain(family)}"', ".hy 0", ".na",
             ".SH NAME", f"{name} \\- {about}")


def member_page(member, family, title):
    name, page = member.findtext("name"), Page()
    heading(page, name, title, brief(member))
    synopsis(page, declaration(member))
    page.add(".SH DESCRIPTION")
    page.described(member)
    values = member.findall("enumvalue")
    if values:
        page.add(".SH VALUES")
        for value in values:
            page.add(".TP", f"\\fB{value.findtext('name')}\\fP")
            for para in value.iterfind("*/para"):
                page.add(line(page.inline(para)))
            alias(value.findtext("name"), name)
    base_of_form(page, member)
    page.add('.SH "WHAT GOES WITHOUT SAYING"', f"What \\fB{family}\\fP(3) says of the whole family, and the "
             "conventions of \\fBlibzov\\fP(3): threads, ownership, jumps, messages.")
    also(page, [*(plain_name(ref) for ref in member.iter("ref")), family, *ALSO], name)
    page.write(name)


def base_of_form(page, member):
    """Of a form that says no more than its difference: what the plain form says."""
    seen = {member.get("id")}
    first = member.find("briefdescription/para/ref")
    while first is not None and re.match(r"(As |The same as )?\w+\(\)", words(member.find("briefdescription"))):
        member = MEMBERS.get(first.get("refid"))
        if member is None or member.get("id") in seen:
            return
        seen.add(member.get("id"))
        start = len(page.out)
        page.described(member)
        page.out[start:] = [re.sub(r"^\.SH", ".SS", one) for one in page.out[start:]]
        page.out.insert(start, f'.SH "WHAT {member.findtext("name")}() SAYS"')
        first = member.find("briefdescription/para/ref")


def plain_name(ref):
    """The page that a reference leads to."""
    return re.sub(r"\(\)$", "", "".join(ref.itertext())) if ref.get("kindref") == "member" else "libzov"


def struct_page(compound, family, title):
    name, page = compound.findtext("compoundname"), Page()
    heading(page, name, title, brief(compound))
    fields = compound.findall("sectiondef/memberdef")
    synopsis(page, [f"struct {name} {{", *("  " + f.findtext("definition").replace(f"{name}::", "")
                                           + f.findtext("argsstring", "") + ";" for f in fields), "};"])
    page.add(".SH DESCRIPTION")
    page.described(compound)
    page.add(".SH FIELDS")
    for field in fields:
        page.add(".TP", f"\\fB{field.findtext('name')}\\fP")
        for para in [*field.iterfind("briefdescription/para"), *field.iterfind("detaileddescription/para")]:
            page.add(line(page.inline(para)))
    also(page, [family, *ALSO], name)
    page.write(name)


def alias(name, target):
    MAN.joinpath(f"{name}.3").write_text(f".so man3/{target}.3\n")


def family_page(compound):
    name, title, page = compound.findtext("compoundname"), compound.findtext("title"), Page()
    heading(page, name, "libzov", plain(title))
    page.add(".SH DESCRIPTION")
    page.described(compound)
    page.add(".SH CONTENTS")
    for struct in compound.iterfind("innerclass"):
        inner = ElementTree.parse(XML / (struct.get("refid") + ".xml")).find("compounddef")
        page.add(".TP", f"\\fB{struct.text}\\fP(3)", line(brief(inner)) + ".")
        struct_page(inner, name, title)
    for group in compound.iterfind("innergroup"):
        page.add(".TP", f"\\fB{group_name(group)}\\fP(3)", line(plain(group.text)) + ".")
    for member in compound.iterfind("sectiondef/memberdef"):
        page.add(".TP", f"\\fB{member.findtext('name')}\\fP(3)", line(brief(member)) + ".")
        member_page(member, name, title)
    also(page, ALSO, name)
    page.write(name)


def group_name(group):
    return ElementTree.parse(XML / (group.get("refid") + ".xml")).findtext("compounddef/compoundname")


def opening_page(compound):
    page = Page()
    heading(page, "libzov", "libzov", brief(compound))
    page.add(".SH DESCRIPTION")
    page.described(compound)
    page.write("libzov")
    alias("zov.h", "libzov")


def main():
    MAN.mkdir(parents=True, exist_ok=True)
    for path in XML.glob("group__*.xml"):
        MEMBERS.update((member.get("id"), member) for member in ElementTree.parse(path).iter("memberdef"))
    for entry in ElementTree.parse(XML / "index.xml").iterfind("compound"):
        path = XML / (entry.get("refid") + ".xml")
        if entry.get("kind") == "group":
            family_page(ElementTree.parse(path).find("compounddef"))
        elif entry.findtext("name") == "zov.h":
            opening_page(ElementTree.parse(path).find("compounddef"))


main()
