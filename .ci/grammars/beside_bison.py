#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Drives grammars of other projects beside bison: beside_bison.py [SOURCES LIBRARIES]

SOURCES holds the sources of Debian packages as they come, LIBRARIES libzov.so.
Without them it names the packages.

Of each grammar only the structure is used: it is written anew from its automaton
with names of its own and one action. Its tables have to be those of the original.
Then thousands of random strings of tokens, most of them derived from the grammar
and spoilt in a few places, go through zov_yyparse() and through bison's parser.
"""
import os
import pathlib
import random
import re
import subprocess
import sys
import tarfile
import tempfile
import time
import xml.etree.ElementTree as ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[2]
STRINGS = 4000
SEED = int(os.environ.get("ZOV_SEED", time.time_ns()))
GRAMMARS = (
    ("bc", "bc/bc.y"), ("bison", "src/parse-gram.y"), ("flex", "src/parse.y"),
    ("iproute2", "misc/ssfilter.y"), ("iproute2", "tc/emp_ematch.y"), ("jq", "src/parser.y"),
    ("libnl3", "route/cls/ematch_syntax.y"), ("libnl3", "route/pktloc_syntax.y"),
    ("libxkbcommon", "src/xkbcomp/parser.y"), ("mawk", "parse.y"),
    ("original-awk", "awkgram.y"), ("units", "parse.y"),
)
PROLOGUE = """%code {
int fetchToken(uint64_t *value, void *run);
int reduceRule(void *run, int rule, int length, const uint64_t *lastValue, uint64_t *result);
#define yylex fetchToken
#define REDUCE if (reduceRule(run, yyn - 1, yylen, yyvsp, &yyval) != 0) YYABORT; yyerrok
static void yyerror(void *run, const char *text) { (void)run; (void)text; }
}
%code requires {
#include <stdint.h>
}
%define api.pure full
%define api.value.type {uint64_t}
%param {void *run}
%initial-action { yylval = 0; }
"""
# bison drops a wrong token and then looks again for a state that takes the error
# token; the driver goes on in the state it is in.
RETRY = (re.compile(r"(yychar = YYEMPTY;)(\s+\}\s+\}\s+/\* Else will try to reuse)"),
         r"\1 goto yybackup;\2")


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


class Grammar:
    """Rules as lists of symbols, a token being its number and a non-terminal a
    name, and the declarations that make bison build the same automaton."""

    def __init__(self, root):
        terminals = sorted(root.iter("terminal"), key=lambda item: int(item.get("symbol-number")))
        self.names = {item.get("name"): int(item.get("token-number")) for item in terminals}
        self.error = self.names["error"]
        for number, item in enumerate(root.iter("nonterminal")):
            inside = "@" in item.get("name")  # an action in the middle of a rule
            self.names[item.get("name")] = f"{'action' if inside else 'N'}{number}"
        self.tokens = [name for name in self.names.values()
                       if isinstance(name, int) and name not in (0, self.error)]
        self.rules = [(self.names[rule.find("lhs").text],
                       [self.names[item.text] for item in rule.iter("symbol")],
                       self.names.get(rule.get("percent_prec")))
                      for rule in root.iter("rule") if rule.get("usefulness") != "useless-in-grammar"]
        self.levels = {}
        for item in terminals:
            if item.get("prec"):
                level = (int(item.get("prec")), item.get("assoc"))
                self.levels.setdefault(level, []).append(self.names[item.get("name")])
        self.depths = {}
        for _ in self.rules:
            for left, right, _ in self.rules:
                self.depths[left] = min(self.depths.get(left, 10**6), 1 + self.depth(right))

    def depth(self, right):
        return max((self.depths.get(symbol, 10**6) for symbol in right if isinstance(symbol, str)),
                   default=0)

    def spelt(self, symbol):
        if symbol == self.error:
            return "error"
        if isinstance(symbol, int):
            return f"T{symbol}"
        return "{ REDUCE; }" if symbol.startswith("action") else symbol

    def text(self):
        declared = "".join(f"%token {self.spelt(token)} {token}\n" for token in (0, *self.tokens))
        declared += "".join(f"%{how} {' '.join(map(self.spelt, tokens))}\n"
                            for (_, how), tokens in sorted(self.levels.items()))
        rules = "".join(
            f"{left}: {' '.join(map(self.spelt, right)) or '%empty'}"
            f"{f' %prec {self.spelt(level)}' if level is not None else ''} {{ REDUCE; }} ;\n"
            for left, right, level in self.rules[1:] if left[0] == "N")
        return f"{PROLOGUE}{declared}%start {self.rules[0][1][0]}\n%%\n{rules}"

    def derived(self, choose):
        """A string of the grammar, with any token for an error."""
        pending, tokens = [self.rules[0][1][0]], []
        while pending:
            symbol = pending.pop()
            if symbol == self.error:
                tokens.append(choose.choice(self.tokens))
            elif isinstance(symbol, int):
                tokens += [symbol] if symbol != 0 else []
            else:
                rules = [right for left, right, _ in self.rules if left == symbol]
                if len(pending) + len(tokens) > choose.randrange(4, 60):
                    rules = [min(rules, key=self.depth)]
                pending += reversed(choose.choice(rules))
        return tokens

    def string(self, choose):
        """Derived and spoilt in up to three places, or anything."""
        some = [*self.tokens, max(self.error, *self.tokens) + 1]
        if choose.randrange(8) == 0:
            return choose.choices(some, k=choose.randrange(12))
        tokens = self.derived(choose)
        for _ in range(choose.randrange(4)):
            at = choose.randrange(len(tokens) + 1)
            tokens[at:at + choose.randrange(3)] = choose.choices(some, k=choose.randrange(3))
        return tokens


def automaton(grammar, xml):
    run("bison", "-Wnone", f"--xml={xml}", f"--output={xml.with_suffix('.c')}", grammar)
    return ElementTree.parse(xml).getroot()


def tables(grammar, output):
    """The tables of a grammar, without what its tokens and rules are called."""
    subprocess.run([ROOT / "tools/zov-tables", "-p", "stripped", "-o", output, grammar],
                   check=True, stderr=subprocess.DEVNULL)
    return output.with_suffix(".c").read_text().split("\n", 3)[3]


def drive(source, libraries, folder):
    grammar = Grammar(automaton(source, folder / "original.xml"))
    stripped = folder / "stripped.y"
    stripped.write_text(grammar.text())
    parser = folder / "stripped.c"
    run("bison", "-Wnone", f"--output={parser}", stripped)
    text, count = RETRY[0].subn(RETRY[1], parser.read_text())
    same = tables(source, folder / "original_tables") == tables(stripped, folder / "stripped_tables")
    if count != 1 or not same:
        raise SystemExit(f"{source.name}: written anew it has {'the same' if same else 'other'} tables,"
                         f" and bison's parser {count} places to mend")
    parser.write_text(text)
    run("gcc", "-w", "-O1", "-I", ROOT / "include", "-c", "stripped.c", "stripped_tables.c", cwd=folder)
    run("g++", "-std=c++20", "-O1", "-I", folder, "-I", ROOT / "include", "-o", folder / "beside",
        pathlib.Path(__file__).with_suffix(".cpp"), folder / "stripped.o", folder / "stripped_tables.o",
        "-L", libraries, f"-Wl,-rpath,{libraries}", "-lzov")
    choose = random.Random(SEED)
    strings = "".join(" ".join(map(str, grammar.string(choose))) + "\n" for _ in range(STRINGS))
    done = subprocess.run([folder / "beside"], input=strings, capture_output=True, text=True,
                          check=False, timeout=600)
    if done.returncode != 0:
        raise SystemExit(f"{source.name}: seed {SEED}: {done.stdout}{done.stderr}")
    accepted, endless, events = map(int, done.stdout.split()[1:])
    print(f"{source.name}: {accepted} of {STRINGS} accepted, {endless} without end, "
          f"{events} events", flush=True)
    return STRINGS / 20 < accepted < STRINGS * 19 / 20


def main(sources, libraries):
    weak = []
    for package, path in GRAMMARS:
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            with tarfile.open(next(sources.glob(f"{package}_*.orig.tar.?z"))) as archive:
                member = next(item for item in archive if item.name.endswith("/" + path))
                source = folder / f"{package}-{pathlib.Path(path).name}"
                source.write_bytes(archive.extractfile(member).read())
            if not drive(source, libraries, folder):
                weak.append(source.name)
    if weak:
        raise SystemExit(f"too few strings of one kind for {' '.join(weak)}")
    print(f"{len(GRAMMARS)} grammars, seed {SEED}")


if __name__ == "__main__":
    if len(sys.argv) == 1:
        print(*sorted({package for package, _ in GRAMMARS}))
    else:
        main(*(pathlib.Path(argument).resolve() for argument in sys.argv[1:]))
