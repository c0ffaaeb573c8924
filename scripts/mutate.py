#!/usr/bin/env python3
"""Plants small mistakes in the engine, one at a time, and lists those that no test notices.

    scripts/mutate.py                      plants, builds, runs missing results, reports
    scripts/mutate.py --list               the mistakes of this draw, without a build
    scripts/mutate.py --run ID...          runs these again and prints the test that caught each
    scripts/mutate.py --survivors          runs the survivors again, after a change of tests
    scripts/mutate.py --without FILTER     lists the mistakes that would survive without some tests.
                                           FILTER is a program, a colon and a --gtest_filter
                                           pattern: events:BucketEventStore.*
    scripts/mutate.py --report             prints the table without running anything
    --seed N, --count N, --only FILE       the draw: seed, number of mistakes, one file only

All mistakes are built at once. The sources are copied to build/mutate/source. There, each chosen
place becomes a choice between the original text and the mistake; the environment variable
KELM_MISTAKE gives the number of the mistake to make. Mistakes that do not compile are dropped. A
first round records which test reaches which place. Each mistake then runs the tests that reach it,
until one fails: first the fast ones and those of its own folder. A crash, a time limit and a memory
limit count as failures.

The results are in build/mutate/state.json, so an interrupted run can continue. A change under kelm/
discards them. A change of tests keeps the mistakes that were caught; --survivors runs the others.

EXCLUDED lists places whose mistakes cannot show in a run; they get none. For survivors that cannot
show either, scripts/mutants-that-cannot-matter.txt gives the reason.
"""

import argparse
import fnmatch
import hashlib
import json
import os
import random
import re
import resource
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
EXPLANATIONS = Path("scripts/mutants-that-cannot-matter.txt")

# Folders that get mistakes, and the names of their parts in the table.
FOLDERS = {
    "kelm/core": "kernel",
    "kelm/kernel": "kernel",
    "kelm/events": "store",
    "kelm/network": "graph",
    "kelm/engine": "engine",
    "kelm/runtime": "runtime",
    "kelm/lanes": "lanes",
    "kelm/threads": "threads",
    "kelm/cuda": "device",
}
# The test programs that run first, by folder.
OWN_PROGRAMS = {
    "kelm/core": ["core"],
    "kelm/kernel": ["kernel"],
    "kelm/events": ["events"],
    "kelm/network": ["network"],
    "kelm/engine": ["engine"],
    "kelm/runtime": ["runtime"],
    "kelm/lanes": ["lanes"],
    "kelm/threads": ["threads"],
    "kelm/cuda": ["cuda"],
}

# Places that get no mistake: file (or *), pattern in the statement, reason.
EXCLUDED = [
    ("kelm/core/Failures.h", "", "texts of errors"),
    ("kelm/core/LargePages", "", "advice to the system about memory; speed alone"),
    ("kelm/core/Prefetch.h", "", "hints; speed alone"),
    ("kelm/cuda/DeviceLayerCuda.h", "", "only nvcc compiles it; no test here runs it"),
    ("kelm/cuda/NoDevice.cpp", "", "only the program without a device links it"),
    ("*", r"prefetch", "a hint; speed alone"),
    ("*", r"\b(?!pending_|ids)\w+(\(\))?\.reserve\(|\breserve\w*_?\.reserve\(",
     "storage sized ahead; speed alone"),
    ("*", r"steady_clock|wall_ns|_seconds\b|secondsBetween", "measured time is not promised"),
    ("*", r"\bspinUntil\b|\bspins\b", "how long a thread spins before it sleeps; speed alone"),
    ("*", r"__builtin_expect|LIKELY", "hint to the compiler"),
]

BINARY = {
    "<": ["<=", ">"], "<=": ["<", ">="], ">": [">=", "<"], ">=": [">", "<="],
    "==": ["!="], "!=": ["=="], "&&": ["||"], "||": ["&&"],
    "+": ["-"], "-": ["+"], "*": ["+"], "/": ["*"], "%": ["/"],
    "<<": [">>"], ">>": ["<<"], "&": ["|"], "|": ["&"], "^": ["|"],
    "+=": ["-="], "-=": ["+="], "*=": ["+="], "|=": ["&="], "&=": ["|="],
    "<<=": [">>="], ">>=": ["<<="],
}
# Calls whose arguments may be exchanged.
COMMUTATIVE = {"addTime", "equalBytes", "max", "min", "section", "sum"}
COMPARISONS = {"<", "<=", ">", ">=", "==", "!="}
LOGICAL = {"&&", "||"}
ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "%=", "|=", "&=", "^=", "<<=", ">>="}
SIBLINGS = {}
for _pair in ("min max", "begin end", "start end", "first last", "from to", "source target",
              "membrane adaptation", "tau_membrane tau_adaptation", "excitatory_on_ inhibitory_on_",
              "window_start window_end", "window_end horizon", "a b", "x y", "state rng",
              "before after", "excitatory inhibitory", "low high",
              "weight value", "time bound", "neuron firing", "row column", "out_ in_", "out in",
              "count size", "first_event event_count", "pending_time pending_bound", "i j",
              "pre post", "lower upper", "left right", "events deliveries", "gain base_rate",
              "refractory_until last_update", "time rate", "hi lo", "next_id_ cursor_"):
    _a, _b = _pair.split()
    SIBLINGS.setdefault(_a, []).append(_b)
    SIBLINGS.setdefault(_b, []).append(_a)

TOKEN = re.compile(
    r"""(?P<space>\s+|//[^\n]*|/\*.*?\*/|\#[^\n]*(?:\\\n[^\n]*)*)
      |(?P<string>"(?:\\.|[^"\\\n])*")
      |(?P<char>'(?:\\.|[^'\\\n])+')
      |(?P<number>0[xX][0-9a-fA-F']+(?:\.[0-9a-fA-F]*)?(?:[pP][+-]?\d+)?[uUlLfF]*
         |\d[\d']*(?:\.\d*)?(?:[eE][+-]?\d+)?[uUlLfF]*|\.\d+(?:[eE][+-]?\d+)?[fF]?)
      |(?P<name>[A-Za-z_]\w*)
      |(?P<punct><<=|>>=|<=>|->\*|\.\.\.|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|.)""",
    re.VERBOSE | re.DOTALL)


class Token:
    __slots__ = ("kind", "text", "start", "end", "line")

    def __init__(self, kind, text, start, end, line):
        self.kind, self.text, self.start, self.end, self.line = kind, text, start, end, line


class Host:
    """A statement, or a part of one, that can hold a mistake."""

    def __init__(self, kind, first, last, outer_first, outer_last):
        self.kind = kind  # condition, return, statement, jump, value
        self.first, self.last = first, last  # tokens that mistakes change, end exclusive
        self.outer_first, self.outer_last = outer_first, outer_last  # tokens that are replaced
        self.inner = []  # hosts inside lambdas of this one
        self.mistakes = []


class Source:
    """A source file: its tokens, and the places in it that can hold a mistake."""

    def __init__(self, path, text):
        self.path, self.text = path, text
        self.tokens = []
        line = 1
        for match in TOKEN.finditer(text):
            if match.lastgroup != "space":
                self.tokens.append(
                    Token(match.lastgroup, match.group(), match.start(), match.end(), line))
            line += match.group().count("\n")
        self.partner = {}
        stack = []
        for i, token in enumerate(self.tokens):
            if token.text in ("(", "[", "{"):
                stack.append(i)
            elif token.text in (")", "]", "}") and stack:
                self.partner[stack[-1]] = i
                self.partner[i] = stack.pop()
        self.hosts = []
        self.ordinals = {}
        self.stack = []
        self.scope(0, len(self.tokens))

    def t(self, i):
        return self.tokens[i].text if 0 <= i < len(self.tokens) else ""

    def spaced(self, i):
        """Whether white space is on both sides, as clang-format sets it for a binary operator."""
        token = self.tokens[i]
        return self.text[token.start - 1].isspace() and self.text[token.end].isspace()

    # --- Finding the statements -----------------------------------------------------------------

    def skip_angles(self, i):
        """The token after the angle brackets that open at i."""
        depth = 0
        while i < len(self.tokens):
            text = self.t(i)
            depth += {"<": 1, ">": -1, ">>": -2}.get(text, 0)
            if text in ("(", "[", "{"):
                i = self.partner[i]
            i += 1
            if depth <= 0:
                return i
        return i

    def scope(self, i, end):
        """Scans the declarations of a namespace or a class."""
        while i < end:
            start = i
            words = []
            parenthesised = arrow = False
            while i < end and self.t(i) not in (";", "{", "}"):
                text = self.t(i)
                if text == "template":
                    i = self.skip_angles(i + 1)
                    continue
                if text in ("(", "["):
                    parenthesised |= text == "("
                    i = self.partner[i] + 1
                    words.append(")")
                    continue
                if text == ":" and self.t(i - 1) in ("public", "private", "protected"):
                    words = []
                    i += 1
                    continue
                arrow |= text == "->" and parenthesised
                words.append(text)
                i += 1
            if i >= end or self.t(i) != "{":
                i += 1
                continue
            close = self.partner[i]
            if any(w in ("namespace", "class", "struct", "union") for w in words[:6]) \
                    and not parenthesised and "enum" not in words:
                self.scope(i + 1, close)
            elif "enum" in words:
                pass
            elif parenthesised and ("=" not in words or "operator" in words) and (arrow or words[-1] in (
                    ")", "const", "noexcept", "override", "final")):
                self.block(i + 1, close)
            elif parenthesised and ":" in words and "=" not in words:
                i = close + 1  # a member initialised in braces; the body follows
                while i < end and self.t(i) not in ("{", ";"):
                    i = self.partner[i] + 1 if self.t(i) == "(" else i + 1
                if i < end and self.t(i) == "{":
                    close = self.partner[i]
                    self.block(i + 1, close)
            i = max(close + 1, start + 1)
            if self.t(i) == ";":
                i += 1

    def block(self, i, end):
        while i < end:
            i = self.statement(i)

    def host(self, kind, first, last, outer_first, outer_last):
        host = Host(kind, first, last, outer_first, outer_last)
        (self.stack[-1].inner if self.stack else self.hosts).append(host)
        self.stack.append(host)
        self.lambdas(first, last)
        self.stack.pop()
        return host

    def lambdas(self, first, last):
        """Scans the bodies of lambdas between two tokens."""
        i = first
        while i < last:
            if self.t(i) == "[" and not self.is_subscript(i):
                j = self.partner[i] + 1
                if self.t(j) == "(":
                    j = self.partner[j] + 1
                while j < last and self.t(j) not in ("{", ";", ",", ")"):
                    j += 1
                if self.t(j) == "{":
                    self.block(j + 1, self.partner[j])
                    i = self.partner[j] + 1
                    continue
            i += 1

    def is_subscript(self, i):
        before = self.tokens[i - 1]
        return self.t(i + 1) == "[" or before.text == "[" or before.text in (")", "]") or (
            before.kind == "name" and before.text not in ("return", "case"))

    def statement_end(self, i):
        """The semicolon that ends the statement at i."""
        while self.t(i) != ";":
            i = self.partner[i] + 1 if self.t(i) in ("(", "[", "{") else i + 1
            if i >= len(self.tokens):
                raise ValueError(f"{self.path}: statement without an end")
        return i

    def statement(self, i):
        """Records the places of the statement at i; returns the start of the next one."""
        text = self.t(i)
        if text == "{":
            self.block(i + 1, self.partner[i])
            return self.partner[i] + 1
        if text == ";":
            return i + 1
        if text == "[" and self.t(i + 1) == "[":
            return self.statement(self.partner[i] + 1)
        if text in ("if", "while", "switch", "for"):
            constant = self.t(i + 1) == "constexpr"
            opening = i + 2 if constant else i + 1
            closing = self.partner[opening]
            if text == "for":
                self.for_head(opening, closing)
            elif text != "switch" and not constant:
                self.condition(opening + 1, closing)
            i = self.statement(closing + 1)
            if text == "if" and self.t(i) == "else":
                i = self.statement(i + 1)
            return i
        if text == "do":
            i = self.statement(i + 1)
            opening = i + 1
            self.condition(opening + 1, self.partner[opening])
            return self.partner[opening] + 2
        if text in ("try", "else"):
            return self.statement(i + 1)
        if text == "catch":
            return self.statement(self.partner[i + 1] + 1)
        if text in ("case", "default"):
            while self.t(i) != ":":
                i += 1
            return i + 1
        if text in ("struct", "class", "union", "enum") :
            j = i
            while self.t(j) not in ("{", ";"):
                j += 1
            if self.t(j) == ";":
                return j + 1
            if text != "enum":
                self.scope(j + 1, self.partner[j])
            return self.statement_end(self.partner[j]) + 1
        end = self.statement_end(i)
        if text in ("continue", "break") or (text == "return" and end == i + 1):
            self.host("jump", i, end, i, end + 1)
        elif text == "return":
            if self.t(i + 1) == "[":
                self.lambdas(i + 1, end)
            else:
                self.host("return", i + 1, end, i, end + 1)
        elif text in ("throw", "static_assert", "assert", "using", "typedef", "goto", "static",
                      "constexpr", "extern", "thread_local", "asm", "friend"):
            pass
        else:
            self.plain(i, end)
        return end + 1

    def for_head(self, opening, closing):
        parts = [opening]
        i = opening + 1
        while i < closing:
            if self.t(i) == ";":
                parts.append(i)
            i = self.partner[i] + 1 if self.t(i) in ("(", "[", "{") else i + 1
        if len(parts) != 3:
            return
        self.plain(opening + 1, parts[1], head=True)
        self.condition(parts[1] + 1, parts[2])

    def condition(self, first, last):
        if first >= last or self.span(first, last) == "true":
            return
        depth0 = []
        i = first
        while i < last:
            depth0.append(self.t(i))
            i = self.partner[i] + 1 if self.t(i) in ("(", "[", "{") else i + 1
        if "=" in depth0 or ";" in depth0:
            return  # it declares something
        self.host("condition", first, last, first, last)

    def plain(self, i, end, head=False):
        """Scans a declaration or an expression."""
        equals = None
        declares = self.t(i) in ("const", "auto", "std", "volatile") and self.t(i + 1) != "("
        if self.t(i) == "std":
            declares = False
        commas = 0
        j = i
        angle = 0
        while j < end:
            token = self.tokens[j]
            if token.text == "=" and equals is None:
                equals = j
            if token.text == "<" and not self.spaced(j):
                angle += 1
            elif token.text in (">", ">>") and not self.spaced(j) or (
                    token.text in (">", ">>") and angle > 0):
                angle -= len(token.text)
            if token.text == "," and angle <= 0:
                commas += 1
            if equals is None and j > i and token.kind == "name" and angle <= 0:
                before = self.tokens[j - 1]
                touching = before.end == token.start
                if (before.kind == "name" and before.text not in ("delete", "new", "co_return")) or (
                        before.text in (">", ">>", "&", "*", "&&") and not touching
                        and self.text[before.start - 1] not in " \n"):
                    declares = True
            if token.text in ("(", "[", "{"):
                j = self.partner[j]
            j += 1
        if declares:
            first = equals + 1 if equals is not None else None
            if first is None or commas or self.t(first) in ("{", "["):
                self.lambdas(i, end)
            else:
                self.host("value", first, end, first, end)
            return
        if head:
            return
        self.host("statement", i, end, i, end + 1)

    # --- The mistakes of a place ----------------------------------------------------------------

    def own_tokens(self, host):
        """The tokens of a host outside the bodies of its lambdas."""
        inside = [(h.outer_first, h.outer_last) for h in host.inner]
        hidden = set()
        for i in range(host.first, host.last):
            if self.t(i) == "[" and not self.is_subscript(i):
                hidden.update(range(i, self.partner[i] + 1))
                j = self.partner[i] + 1
                if self.t(j) == "(":
                    hidden.update(range(j, self.partner[j] + 1))
                    j = self.partner[j] + 1
                while j < host.last and self.t(j) not in ("{", ";", ",", ")"):
                    hidden.add(j)
                    j += 1
                if self.t(j) == "{":
                    hidden.update(range(j, self.partner[j] + 1))
        for first, last in inside:
            hidden.update(range(first, last))
        return [i for i in range(host.first, host.last) if i not in hidden]

    def start_before(self, i, host, ends):
        """The start of the expression that ends before i. A token of `ends` also ends the
        search."""
        j = i
        while j > host.first:
            text = self.t(j - 1)
            if text in (")", "]", "}"):
                j = self.partner[j - 1]
                continue
            if text in ("(", "[", "{", ",", ";", "?", ":", "=", "return") or text in ends:
                break
            j -= 1
        return j

    def operand_after(self, i, host):
        j = i + 1
        while j < host.last:
            text = self.t(j)
            if text in ("(", "[", "{"):
                j = self.partner[j] + 1
                continue
            if text in (")", "]", "}", ",", ";", "?", ":") or text in LOGICAL:
                break
            j += 1
        return j

    def primary_before(self, i, host):
        j = i - 1
        while True:
            if self.t(j) in (")", "]"):
                j = self.partner[j]
            if j > host.first and (self.t(j) in ("(", "[") and (
                    self.tokens[j - 1].kind == "name" or self.t(j - 1) in (")", "]"))):
                j -= 1
                continue
            if j - 1 > host.first and self.t(j - 1) in (".", "->", "::"):
                j -= 2
                continue
            return j

    def primary_after(self, i, host):
        j = i + 1
        if self.tokens[j].kind not in ("name", "number") and self.t(j) != "(":
            return None
        if self.t(j) == "(":
            j = self.partner[j]
        j += 1
        while j < host.last:
            if self.t(j) in (".", "->", "::"):
                j += 2
            elif self.t(j) in ("(", "["):
                j = self.partner[j] + 1
            else:
                break
        return j

    def span(self, first, last):
        return self.text[self.tokens[first].start:self.tokens[last - 1].end]

    def edit(self, first, last, text):
        return (self.tokens[first].start, self.tokens[last - 1].end, text)

    def candidates(self, host, constants):
        """The possible mistakes of a place: kind of mistake -> list of edits."""
        found = {}

        def add(kind, *edits):
            found.setdefault(kind, []).append(list(edits))

        if host.kind == "value" and self.is_read_next(host):
            return found  # a reader overwrites it, or the function ends
        if host.kind == "jump":
            add("dropped")
            return found
        if host.kind == "statement":
            add("dropped")
        if host.kind == "condition":
            whole = self.span(host.first, host.last)
            add("negated", self.edit(host.first, host.last, f"!({whole})"))
            add("guard dropped", self.edit(host.first, host.last, "false"))
        own = self.own_tokens(host)
        owned = set(own)
        for i in own:
            token = self.tokens[i]
            text = token.text
            if text in BINARY and (self.spaced(i)):
                kind = ("comparison" if text in COMPARISONS else
                        "logic" if text in LOGICAL else "operator")
                for other in BINARY[text]:
                    add(kind, (token.start, token.end, other))
                if text in LOGICAL:
                    before = self.start_before(i, host, LOGICAL)
                    after = self.operand_after(i, host)
                    add("flag ignored", (self.tokens[before].start, self.tokens[i + 1].start, ""))
                    add("flag ignored", (token.start, self.tokens[after - 1].end, ""))
                if text in ("-", "/", "%", "<<"):
                    before, after = self.primary_before(i, host), self.primary_after(i, host)
                    if after is not None and before >= host.first:
                        left, right = self.span(before, i), self.span(i + 1, after)
                        if left != right:
                            add("operand", self.edit(before, i, right),
                                self.edit(i + 1, after, left))
            elif text in ("++", "--"):
                add("operator", (token.start, token.end, "--" if text == "++" else "++"))
            elif text == "!" and not self.text[token.end].isspace():
                add("negated", (token.start, token.end, "!!"))
            elif text in ("true", "false"):
                add("negated", (token.start, token.end, "false" if text == "true" else "true"))
            elif token.kind == "number":
                if "." in text or "p" in text.lower() and text.lower().startswith("0x"):
                    add("constant", (token.start, token.end, f"({text} + 1)"))
                else:
                    add("constant", (token.start, token.end, f"({text} + 1)"))
                    if text not in ("0", "0U"):
                        add("constant", (token.start, token.end, f"({text} - 1)"))
            elif token.kind == "name":
                called = self.t(i + 1) == "("
                if text in SIBLINGS:
                    for other in SIBLINGS[text]:
                        # Another variable of the same type is probably in scope.
                        near = self.text[max(0, token.start - 3000):token.end + 1500]
                        if re.search(rf"\b{other}\b", near):
                            add("operand", (token.start, token.end, other))
                if text in constants and not called and self.t(i - 1) not in (".", "->") \
                        and self.t(i + 1) not in (".", "[", "::"):
                    add("constant", (token.start, token.end, f"({text} + 1)"))
                    add("constant", (token.start, token.end, f"({text} - 1)"))
                if called and i + 1 in owned and text not in COMMUTATIVE:
                    arguments = self.arguments(i + 1)
                    for (a, b), (c, d) in zip(arguments, arguments[1:]):
                        if all(k in owned for k in range(a, d)) and self.span(a, b) != self.span(c, d):
                            add("order", self.edit(a, b, self.span(c, d)),
                                self.edit(c, d, self.span(a, b)))
            elif text == "?" and self.spaced(i):
                before = self.start_before(i, host, ASSIGNMENTS)
                add("negated", self.edit(before, i, f"!({self.span(before, i)})"))
        return found

    def is_read_next(self, host):
        """Whether the host declares a variable that a blob reader fills in one of the next
        statements."""
        name = self.t(host.outer_first - 2)
        end = self.tokens[host.outer_last].end
        following = ";".join(self.text[end:end + 1000].split(";")[:8])
        return re.search(rf"\bread\w+\([^;{{]*\b{name}\b", following) is not None

    def arguments(self, opening):
        """Token ranges of the arguments of the call whose parenthesis opens there."""
        closing = self.partner[opening]
        if closing == opening + 1:
            return []
        ranges, start, j, angle = [], opening + 1, opening + 1, 0
        while j < closing:
            text = self.t(j)
            if text == "<" and not self.spaced(j):
                angle += 1
            elif text in (">", ">>") and not (self.text[self.tokens[j].start - 1].isspace()) \
                    and angle > 0:
                angle -= len(text)
            if text in ("(", "[", "{"):
                j = self.partner[j] + 1
                continue
            if text == "," and angle <= 0:
                ranges.append((start, j))
                start = j + 1
            j += 1
        ranges.append((start, closing))
        return ranges


class Mistake:
    def __init__(self, source, host, kind, edits):
        self.source, self.host, self.kind, self.edits = source, host, kind, edits
        self.id = 0
        self.line = source.tokens[self._token_at(edits[0][0]) if edits else host.outer_first].line
        self.before = one_line(source.text[self._outer()[0]:self._outer()[1]])
        self.after = one_line(self.text_after())
        # Without its line, which rarely decides whether it compiles.
        self.text_key = f"{source.path}|{self.before}|{self.after}"
        self.key = f"{source.path}{self.ordinal()}|{self.before}|{self.after}"

    def ordinal(self):
        """Numbers places of a file with the same text: "" for the first, then " #2" and so on."""
        if not self.source.ordinals:
            counts = {}
            for host in sorted(all_hosts(self.source.hosts), key=lambda h: h.outer_first):
                text = self.source.span(host.outer_first, host.outer_last)
                counts[text] = counts.get(text, 0) + 1
                self.source.ordinals[host] = counts[text]
        number = self.source.ordinals[self.host]
        return "" if number == 1 else f" #{number}"

    def _token_at(self, offset):
        for i in range(self.host.outer_first, self.host.outer_last):
            if self.source.tokens[i].start >= offset:
                return i
        return self.host.outer_first

    def _outer(self):
        tokens = self.source.tokens
        host = self.host
        return tokens[host.outer_first].start, tokens[host.outer_last - 1].end

    def text_after(self):
        start, end = self._outer()
        if self.kind == "dropped":
            return "(dropped)"
        return edited(self.source.text, start, end, self.edits)

    @property
    def folder(self):
        return str(Path(self.source.path).parent)


def one_line(text):
    return re.sub(r"\s+", " ", re.sub(r"//[^\n]*", " ", text)).strip()


def edited(text, start, end, edits):
    parts, at = [], start
    for first, last, replacement in sorted(edits):
        parts += [text[at:first], replacement]
        at = last
    return "".join(parts + [text[at:end]])


def all_hosts(hosts):
    for host in hosts:
        yield host
        yield from all_hosts(host.inner)


def is_excluded(source, host):
    text = source.span(host.outer_first, host.outer_last)
    if "#" in text:
        return True
    return any((path == "*" or source.path.startswith(path)) and re.search(pattern, text)
               for path, pattern, _ in EXCLUDED)


def read_sources(root):
    sources = []
    for folder in FOLDERS:
        for path in sorted((root / folder).glob("*")):
            if path.suffix in (".h", ".cpp"):
                sources.append(Source(str(path.relative_to(root)), path.read_text()))
    return sources


def draw(sources, seed, count, dropped, only=None):
    """Draws mistakes, spread over the files by their number of places, at most one per place.
    Leaves out mistakes that do not compile."""
    constants = set()
    for source in sources:
        constants.update(re.findall(r"\bconstexpr\s+[\w:<>]+\s+([a-z]\w*)\s*=", source.text))
    places = {s.path: [h for h in all_hosts(s.hosts) if not is_excluded(s, h)] for s in sources}
    total = sum(len(p) for p in places.values())
    mistakes = []
    carried = 0.0
    for source in sources:
        hosts = places[source.path]
        carried += count * len(hosts) / total
        quota = int(carried + 0.5)
        carried -= quota
        rng = random.Random(f"{seed} {source.path}")
        rng.shuffle(hosts)
        options = []
        for host in hosts:
            found = source.candidates(host, constants)
            # Draw the kind first, so that rare kinds occur too.
            kinds = rng.sample(sorted(found), len(found))
            for kind in kinds:
                rng.shuffle(found[kind])
            deepest = max(map(len, found.values()), default=0)
            for kind, edits in [(kind, found[kind][n]) for n in range(deepest) for kind in kinds
                                if n < len(found[kind])]:
                mistake = Mistake(source, host, kind, edits)
                if mistake.text_key not in dropped:
                    options.append(mistake)
                    break
        mistakes += sorted(options[:quota], key=lambda m: (m.line, m.after))
    if only:
        mistakes = [m for m in mistakes if m.source.path == only]
    for number, mistake in enumerate(mistakes, 1):
        mistake.id = number
        mistake.host.mistakes.append(mistake)
    return mistakes


# --- Writing the sources with all mistakes ------------------------------------------------------

HEADER = """#pragma once
// Written by scripts/mutate.py: makes the chosen mistake and records which places a test reaches.
#include <cstdio>
#include <cstdlib>
#include <type_traits>
struct KelmMistakes {{
    int chosen;
    unsigned char reached[{size}];
    KelmMistakes() : chosen(0), reached() {{
        const char* number = std::getenv("KELM_MISTAKE");
        chosen = number == nullptr ? 0 : std::atoi(number);
    }}
    ~KelmMistakes() {{
        const char* path = std::getenv("KELM_REACHED");
        std::FILE* file = path == nullptr ? nullptr : std::fopen(path, "wb");
        if (file == nullptr) return;
        std::fwrite(reached, 1, sizeof reached, file);
        std::fclose(file);
    }}
}};
inline KelmMistakes kelm_mistakes;
[[gnu::always_inline]] static inline bool kelmLook(int mistake) {{
    if (__builtin_expect(kelm_mistakes.chosen >= 0, 1)) return kelm_mistakes.chosen == mistake;
    kelm_mistakes.reached[mistake] = 1;
    return false;
}}
[[gnu::always_inline]] static constexpr inline bool kelmMistake(int mistake) {{
    if (std::is_constant_evaluated()) {{
        return false;
    }} else {{
        return kelmLook(mistake);
    }}
}}
"""


class Renderer:
    """Writes a source with its mistakes and records the lines of each."""

    def __init__(self, source):
        self.source = source
        self.lines = []  # (first line, last line, mistake ids)

    def render(self):
        text = self.source.text
        body = self.region(0, len(text), self.source.hosts)
        return '#include "kelm/core/KelmMistake.h"\n' + body

    def region(self, start, end, hosts):
        tokens = self.source.tokens
        parts, at = [], start
        for host in sorted(hosts, key=lambda h: tokens[h.outer_first].start):
            if not any(h.mistakes for h in all_hosts([host])):
                continue
            first, last = tokens[host.outer_first].start, tokens[host.outer_last - 1].end
            parts += [self.source.text[at:first], self.one(host)]
            at = last
        return "".join(parts + [self.source.text[at:end]])

    def one(self, host):
        source, tokens = self.source, self.source.tokens
        first, last = tokens[host.first].start, tokens[host.last - 1].end
        plain = self.region(first, last, host.inner)
        marks = "".join(f"/*kelm-mistake {m.id}*/" for m in host.mistakes)
        end = "".join(f"/*kelm-mistake-end {m.id}*/" for m in host.mistakes)
        if host.kind == "jump":
            (mistake,) = host.mistakes
            return f"{marks}if (!kelmMistake({mistake.id})) {plain};{end}"
        if not host.mistakes:
            outer = tokens[host.outer_first].start, tokens[host.outer_last - 1].end
            return source.text[outer[0]:first] + plain + source.text[last:outer[1]]
        for mistake in host.mistakes:
            wrong = "" if mistake.kind == "dropped" else edited(source.text, first, last,
                                                                mistake.edits)
            look = f"kelmMistake({mistake.id})"
            if host.kind == "condition":
                plain = f"({look} ? static_cast<bool>({wrong}) : static_cast<bool>({plain}))"
            elif host.kind == "value":
                plain = f"{look} ? ({wrong}) : ({plain})"
            elif host.kind == "return":
                plain = f"{{ if ({look}) return {wrong}; return {plain}; }}"
            else:
                plain = f"{{ if ({look}) {{ {wrong}; }} else {{ {plain}; }} }}"
        return marks + plain + end


def write_if_changed(path, text):
    if path.exists() and path.read_text() == text:
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)


def plant(root, copy, sources, mistakes):
    """Writes the tree with the mistakes into `copy`. Unchanged files keep their times."""
    tracked = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=root, check=True,
                             capture_output=True, text=True).stdout.split("\n")
    planted = {s.path for s in sources if any(h.mistakes for h in all_hosts(s.hosts))}
    wanted = {"kelm/core/KelmMistake.h"}
    for name in filter(None, tracked):
        if name.split("/")[0] not in ("CMakeLists.txt", "cmake", "compare", "fuzz", "gate",
                                      "kelm", "tests"):
            continue
        if not (root / name).is_file():
            continue
        wanted.add(name)
        if name not in planted:
            write_if_changed(copy / name, (root / name).read_text())
    for path in copy.rglob("*"):
        if path.is_file() and str(path.relative_to(copy)) not in wanted:
            path.unlink()
    write_if_changed(copy / "kelm/core/KelmMistake.h",
                     HEADER.format(size=(len(mistakes) // 256 + 2) * 256))
    for source in sources:
        if source.path in planted:
            write_if_changed(copy / source.path, Renderer(source).render())


def lines_of_mistakes(text):
    """Mistake -> its first and last line in a written source."""
    found = {}
    for number, line in enumerate(text.split("\n"), 1):
        for match in re.finditer(r"kelm-mistake (\d+)", line):
            found[int(match.group(1))] = [number, number]
        for match in re.finditer(r"kelm-mistake-end (\d+)", line):
            found[int(match.group(1))][1] = number
    return found


def culprits(output, copy):
    """The mistakes at the lines that a compiler's errors name, instantiations of templates
    included."""
    found = set()
    cache = {}
    for name, line in re.findall(
            r"^(\S+?):(\d+):\d+:\s+(?:(?:fatal )?error:|required from here)", output, re.MULTILINE):
        path = copy / name
        if not path.is_file() or copy not in path.parents:
            continue
        if path not in cache:
            cache[path] = lines_of_mistakes(path.read_text())
        found.update(m for m, (a, b) in cache[path].items() if a <= int(line) <= b)
    return found


# --- Building and running -----------------------------------------------------------------------

PROGRAMS = ["core", "kernel", "events", "network", "engine", "runtime", "cuda", "lanes",
            "threads", "gate", "gate-fault", "gate-driver", "faults"]
# Programs that are one test each, with their arguments: a verdict is status 0.
WHOLE_PROGRAMS = {"gate-run": ["kelmgate-emulated"], "soak-run": ["kelm-soak", "--models", "400"]}


def nice(limit_bytes=None, limit_s=None):
    def prepare():
        os.nice(10)
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        if limit_bytes:
            resource.setrlimit(resource.RLIMIT_AS, (limit_bytes, limit_bytes))
        if limit_s:
            resource.setrlimit(resource.RLIMIT_CPU, (limit_s, limit_s))
    return prepare


class Workshop:
    def __init__(self, options):
        self.options = options
        self.folder = Path(options.build).resolve()
        self.copy = self.folder / "source"
        self.build_folder = self.folder / "build"
        self.state_path = self.folder / "state.json"
        self.sources = read_sources(ROOT)
        digest = hashlib.sha256()
        for source in self.sources:
            digest.update(source.path.encode() + source.text.encode())
        self.digest = digest.hexdigest()[:16]
        self.state = {"dropped": [], "results": {}, "reach": {}}
        if self.state_path.exists():
            self.state = json.loads(self.state_path.read_text())
        if self.state.get("digest") != self.digest:
            # The sources have changed, so earlier results no longer apply.
            self.state = {"digest": self.digest, "dropped": self.state.get("dropped", []),
                          "results": {}, "reach": {}}
        self.draw()

    def draw(self):
        for source in self.sources:
            for host in all_hosts(source.hosts):
                host.mistakes = []
        self.mistakes = draw(self.sources, self.options.seed, self.options.count,
                             set(self.state["dropped"]), self.options.only)
        self.by_id = {m.id: m for m in self.mistakes}

    def save(self):
        self.folder.mkdir(parents=True, exist_ok=True)
        temporary = self.state_path.with_suffix(".new")
        temporary.write_text(json.dumps(self.state, indent=0))
        temporary.replace(self.state_path)

    def drop(self, ids):
        """Drops mistakes that do not compile and draws others in their place."""
        self.state["dropped"] += [self.by_id[number].text_key for number in ids]
        self.save()
        print(f"{len(ids)} mistakes that do not compile are dropped", flush=True)
        self.draw()
        plant(ROOT, self.copy, self.sources, self.mistakes)

    def configure(self):
        command = ["cmake", "-S", str(self.copy), "-B", str(self.build_folder), "-G", "Ninja",
                   "-DCMAKE_BUILD_TYPE=None", "-DKELM_CUDA=OFF", "-DKELM_BUILD_BENCH=OFF",
                   "-DKELM_BUILD_EXAMPLES=OFF", "-DKELM_BUILD_FUZZERS=OFF", "-DKELM_WERROR=OFF",
                   # The assertions catch a subscript out of range.
                   "-DCMAKE_CXX_FLAGS=-O1 -w -D_GLIBCXX_ASSERTIONS"]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, preexec_fn=nice())

    def build(self):
        """Builds all test programs and drops mistakes that do not compile."""
        plant(ROOT, self.copy, self.sources, self.mistakes)
        self.configure()
        # First a quick check of the syntax of each source of the engine.
        commands = json.loads((self.build_folder / "compile_commands.json").read_text())
        seen = set()
        checks = []
        for entry in commands:
            name = Path(entry["file"]).relative_to(self.copy)
            if name.parts[0] == "kelm" and name not in seen:
                seen.add(name)
                checks.append(re.sub(r" -o \S+ -c ", " -fsyntax-only ", entry["command"]))
        for _ in range(8 if self.options.check else 0):
            output = ""
            for command in checks:
                output += subprocess.run(command, shell=True, cwd=self.build_folder,
                                         capture_output=True, text=True, preexec_fn=nice()).stderr
            if not self.drop_culprits(output):
                break
        while True:
            result = subprocess.run(
                ["ninja", "-C", str(self.build_folder), "-k0", f"-j{self.options.jobs}"],
                capture_output=True, text=True, preexec_fn=nice())
            if result.returncode == 0:
                return
            if not self.drop_culprits(result.stdout):
                print(result.stdout[-6000:])
                sys.exit("the build fails, but not at a mistake")

    def drop_culprits(self, output):
        if "error:" not in output:
            return False
        found = {m for m in culprits(output, self.copy) if m in self.by_id}
        if not found:
            return False
        self.drop(found)
        return True

    def program(self, name):
        file = WHOLE_PROGRAMS[name][0] if name in WHOLE_PROGRAMS else "kelm-" + name + "-tests"
        return next((p for p in self.build_folder.rglob(file) if p.is_file()), None)

    def run(self, program, tests, mistake, seconds, reached=None):
        """Runs tests of a program. `seconds`: their time without a mistake. Returns the name of a
        failed test, or None."""
        environment = dict(os.environ, KELM_MISTAKE=str(mistake))
        if reached:
            environment["KELM_REACHED"] = str(reached)
        command = [str(self.program(program))]
        if program in WHOLE_PROGRAMS:
            command += WHOLE_PROGRAMS[program][1:]
        else:
            command += ["--gtest_fail_fast", "--gtest_brief=1", "--gtest_color=no",
                        "--gtest_catch_exceptions=1", "--gtest_filter=" + ":".join(tests)]
        process = subprocess.Popen(command, cwd=self.folder, env=environment, text=True,
                                   errors="replace", stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, start_new_session=True,
                                   preexec_fn=nice(int(self.options.memory * 2**30),
                                                   int(6 * seconds + 6)))
        try:
            # A program that waits without end uses no processor time.
            output, _ = process.communicate(timeout=60 + 20 * seconds)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
            return "(time limit) " + " ".join(tests[:3])
        if process.returncode == 0:
            return None
        failed = re.search(r"\[  FAILED  \] (\S+)", output)
        if failed:
            return failed.group(1).rstrip(",")
        return f"(status {process.returncode}) " + " ".join(tests[:3])

    def tests_of(self, name):
        if name in WHOLE_PROGRAMS:
            return ["verdict"]
        listing = subprocess.run([str(self.program(name)), "--gtest_list_tests"],
                                 capture_output=True, text=True, check=True).stdout
        tests, suite = [], ""
        for line in listing.split("\n"):
            line = line.split("#")[0].rstrip()
            if line.startswith("  "):
                tests.append(suite + line.strip())
            elif line.endswith("."):
                suite = line.strip()
        return [t for t in tests if "DISABLED_" not in t]

    def look_around(self):
        """Records which tests reach which mistakes, and the time of each test."""
        wanted = self.test_digest()
        if self.state["reach"].get("digest") == wanted:
            return
        self.state["reach"] = {"digest": wanted, "tests": {}}
        file = self.folder / "reached"
        for name in PROGRAMS + list(WHOLE_PROGRAMS):
            if self.program(name) is None:
                continue
            for test in self.tests_of(name):
                file.unlink(missing_ok=True)
                failed = self.run(name, [test], -1, 100, reached=file)
                if failed:
                    sys.exit(f"{name}:{test} fails without a mistake: {failed}")
                start = resource.getrusage(resource.RUSAGE_CHILDREN)
                self.run(name, [test], 0, 100)
                end = resource.getrusage(resource.RUSAGE_CHILDREN)
                taken = end.ru_utime + end.ru_stime - start.ru_utime - start.ru_stime
                # A program that none of the mistakes is linked into writes no file.
                hits = file.read_bytes() if file.exists() else b""
                reached = [i for i, hit in enumerate(hits) if hit]
                self.state["reach"]["tests"][f"{name}:{test}"] = [
                    round(taken, 3), [self.by_id[i].key for i in reached if i in self.by_id]]
        self.save()

    def test_digest(self):
        digest = hashlib.sha256(str([m.key for m in self.mistakes]).encode())
        for name in PROGRAMS + list(WHOLE_PROGRAMS):
            path = self.program(name)
            if path is not None:
                digest.update(path.read_bytes())
        return digest.hexdigest()[:16]

    def batches(self, mistake, without=()):
        """The tests that reach a mistake as (program, tests, seconds): fast ones and those of its
        own folder first."""
        own = OWN_PROGRAMS[mistake.folder]
        tests = []
        for name, (taken, keys) in self.state["reach"]["tests"].items():
            if mistake.key in keys and not any(matches(name, w) for w in without):
                program, test = name.split(":", 1)
                tests.append((program not in own, taken > 0.25, taken, program, test))
        tests.sort()
        fast_tests, slow_tests = {}, []
        for foreign, slow, taken, program, test in tests:
            if slow:
                slow_tests.append((taken + (2 if foreign else 0), program, [test], taken))
            else:
                entry = fast_tests.setdefault(program, [foreign, [], 0.0])
                entry[1].append(test)
                entry[2] += taken
        result = [(p, t, s) for p, (foreign, t, s) in
                  sorted(fast_tests.items(), key=lambda c: (c[1][0], c[1][2]))]
        return result + [(p, t, s) for _, p, t, s in sorted(slow_tests)]

    def judge(self, mistake, without=()):
        """The test that catches a mistake, or None."""
        for program, tests, seconds in self.batches(mistake, without):
            failed = self.run(program, tests, mistake.id, seconds)
            if failed:
                return f"{program}:{failed}"
        return None

    def run_all(self, again=()):
        results = self.state["results"]
        todo = [m for m in self.mistakes if m.key not in results or m.key in again]
        start = time.monotonic()
        for done, mistake in enumerate(todo, 1):
            results[mistake.key] = self.judge(mistake) or ""
            self.save()
            if not results[mistake.key]:
                print(describe(mistake), flush=True)
            if done % 25 == 0:
                print(f"{done} of {len(todo)} in {time.monotonic() - start:.0f} s", flush=True)

    def report(self):
        results = self.state["results"]
        reasons = read_explanations()
        rows = {}
        survivors = []
        for mistake in self.mistakes:
            if mistake.key not in results:
                continue
            row = rows.setdefault(FOLDERS[mistake.folder], [0, 0, 0, 0])
            if not results[mistake.key] and mistake.key in reasons:
                row[1] += 1
                continue
            row[0] += 1
            row[2 if results[mistake.key] else 3] += 1
            if not results[mistake.key]:
                survivors.append(mistake)
        reach = self.state["reach"].get("tests", {})
        for mistake in survivors:
            tests = sum(mistake.key in keys for _, keys in reach.values())
            print(f"{describe(mistake)}\n  reached by {tests} tests")
        print(f"{'part':10}{'planted':>9}{'cannot matter':>15}{'caught':>9}{'survivors':>11}")
        for part, row in rows.items():
            print(f"{part:10}{row[0]:9}{row[1]:15}{row[2]:9}{row[3]:11}")
        total = [sum(r[i] for r in rows.values()) for i in range(4)]
        print(f"{'all':10}{total[0]:9}{total[1]:15}{total[2]:9}{total[3]:11}")
        return 1 if survivors else 0


def matches(name, pattern):
    return fnmatch.fnmatchcase(name, pattern)


def describe(mistake):
    return (f"{mistake.id} {mistake.source.path}:{mistake.line}{mistake.ordinal()} "
            f"({mistake.kind})\n"
            f"  - {mistake.before}\n  + {mistake.after}")


def read_explanations():
    """Reads blocks of four lines: the file, with " #2" for the second place with the same text and
    so on; "- " the original text; "+ " the mistake; "= " why no run can show it."""
    reasons = {}
    path = ROOT / EXPLANATIONS
    if not path.exists():
        return reasons
    for block in path.read_text().split("\n\n"):
        lines = [line for line in block.split("\n") if line and not line.startswith("#")]
        if not lines:
            continue
        if len(lines) < 4 or lines[1][:2] != "- " or lines[2][:2] != "+ " or lines[3][:2] != "= ":
            sys.exit(f"{path}: not a block of file, -, + and = lines: {lines[0]}")
        reasons[f"{lines[0]}|{lines[1][2:]}|{lines[2][2:]}"] = lines[3][2:]
    return reasons


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=480)
    parser.add_argument("--only", metavar="FILE")
    parser.add_argument("--build", default=str(ROOT / "build/mutate"), metavar="FOLDER")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--memory", type=float, default=8.0, help="GiB of memory per program")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--run", type=int, nargs="+", metavar="ID")
    parser.add_argument("--survivors", action="store_true")
    parser.add_argument("--without", nargs="+", metavar="FILTER")
    parser.add_argument("--report", action="store_true")
    parser.add_argument("--no-check", dest="check", action="store_false",
                        help="skip the syntax check before the build")
    options = parser.parse_args()
    shop = Workshop(options)
    if options.list:
        for mistake in shop.mistakes:
            print(describe(mistake))
        return 0
    if options.report:
        return shop.report()
    shop.build()
    shop.look_around()
    results = shop.state["results"]
    if options.run:
        for number in options.run:
            mistake = shop.by_id[number]
            results[mistake.key] = shop.judge(mistake) or ""
            print(describe(mistake) + f"\n  {results[mistake.key] or 'survives'}", flush=True)
        shop.save()
        return 0
    if options.without:
        for mistake in shop.mistakes:
            if any(matches(results.get(mistake.key, ""), w) for w in options.without):
                if shop.judge(mistake, options.without) is None:
                    print(describe(mistake) + f"\n  only {results[mistake.key]}", flush=True)
        return 0
    again = {k for k, v in results.items() if not v} if options.survivors else ()
    shop.run_all(again)
    return shop.report()


if __name__ == "__main__":
    sys.exit(main())
