"""Reads C++ as far as faults need it: what is code, where statements begin, and in which function."""

import re
from bisect import bisect_right
from collections import namedtuple

Span = namedtuple("Span", "start end")
# start: of what stands before the body, end: behind its opening brace.
Function = namedtuple("Function", "name returns start end")

TOKEN = re.compile(
    r'//[^\n]*'
    r'|/\*.*?\*/'
    r'|(?:u8|[uUL])?R"(?P<mark>[^()\\\s]*)\(.*?\)(?P=mark)"'
    r'|"(?:\\.|[^"\\\n])*"'
    r"|(?<![0-9a-zA-Z_])'(?:\\.|[^'\\\n])+'",
    re.DOTALL)
DIRECTIVE = re.compile(r"^[ \t]*#(?:[^\n\\]|\\.|\\\n)*", re.MULTILINE | re.DOTALL)
# What is settled while compiling, or declares nothing that runs.
SETTLED = re.compile(r"\bstatic_assert\s*\(|\btemplate\s*<|\bQ_\w+\s*\(|\[\[")
CLOSING = {"(": ")", "[": "]", "{": "}", "<": ">"}
CONTROL = re.compile(r"(if|for|while|switch|else|do|return|case|default|catch|try)\b")
CLASS_LIKE = re.compile(r"^(inline\s+)?(namespace|class|struct|enum|union|extern)\b|^template\b.*\b(class|struct)\b")
SIGNATURE = re.compile(r"(?P<name>~?[\w:]*\w|[\w:]*operator\s*\S+)\s*\($")


def blank(text):
    return "".join(character if character == "\n" else " " for character in text)


def closed_at(code, opening):
    """Behind the bracket that closes the one at opening, or None."""
    open_one, close_one = code[opening], CLOSING[code[opening]]
    depth = 0
    for position in range(opening, len(code)):
        depth += (code[position] == open_one) - (code[position] == close_one)
        if depth == 0:
            return position + 1
    return None


class Source:
    """A text, and beside it the code: of the same length, without comments, directives and the insides of texts."""

    def __init__(self, text):
        self.text = text
        self.texts = []  # what stands between the quotes of ordinary texts
        directives = DIRECTIVE.sub(lambda found: blank(found[0]), self._without_words(text))
        self.code = self._without_settled(directives)
        directive_at = {start.start() for start in DIRECTIVE.finditer(text)}
        self.texts = [span for span in self.texts
                      if not any(at in directive_at for at in self._line_starts_back(span.start))
                      and self.code[span.start - 1] == '"']
        self._lines = [0] + [found.end() for found in re.finditer("\n", text)]
        self.functions = []
        self._bodies = []  # (start, end, name), the inner ones behind the outer ones
        self._read_blocks()

    def _without_words(self, text):
        def replaced(found):
            word = found[0]
            if word.startswith("/"):
                return blank(word)
            opening = word.index(word[-1])
            if word[-1] == '"' and not found["mark"] and "R" not in word[:opening]:
                self.texts.append(Span(found.start() + opening + 1, found.end() - 1))
            return word[:opening + 1] + blank(word[opening + 1:-1]) + word[-1]

        return TOKEN.sub(replaced, text)

    @staticmethod
    def _without_settled(code):
        for found in SETTLED.finditer(code):
            opening = found.end() - 1
            end = closed_at(code, opening)
            if end:
                code = code[:found.start()] + blank(code[found.start():end]) + code[end:]
        return code

    def _line_starts_back(self, position):
        """The beginning of the line, and of those before it that end with a backslash."""
        start = self.text.rfind("\n", 0, position) + 1
        yield start
        while self.text[:start].endswith("\\\n"):
            start = self.text.rfind("\n", 0, start - 1) + 1
            yield start

    def line_of(self, position):
        return bisect_right(self._lines, position)

    def begin_of_line(self, position):
        return self.text.rfind("\n", 0, position) + 1

    def end_of_line(self, position):
        end = self.text.find("\n", position)
        return len(self.text) if end < 0 else end

    def function_at(self, position):
        """The name of the function that the position is in, or an empty one."""
        names = [name for start, end, name in self._bodies if name and start <= position < end]
        return names[0] if names else ""

    def is_in_body(self, position):
        return any(start <= position < end for start, end, _ in self._bodies)

    def _read_blocks(self):
        stack = []  # of (position, kind, name)
        for found in re.finditer(r"[{}]", self.code):
            if found[0] == "{":
                stack.append((found.start(), *self._block(found.start(), stack)))
            elif stack:
                start, kind, name = stack.pop()
                if kind == "body":
                    self._bodies.append((start, found.end(), name))
        self._bodies.sort()

    def _block(self, brace, stack):
        """(kind, name) of what begins here: a body of a function, a class or the like, or something inside a function."""
        if any(kind == "body" for _, kind, _ in stack):
            return "inner", ""
        begin = max(self.code.rfind(mark, 0, brace) for mark in ";{}") + 1
        # A label of access is no part of what stands behind it.
        label = None
        for label in re.finditer(r"\b(public|protected|private|signals)(\s+slots)?\s*:(?!:)", self.code[begin:brace]):
            pass
        begin += label.end() if label else 0
        head = self.code[begin:brace]
        if CLASS_LIKE.match(head.strip()) or re.search(r"=\s*$", head) or "(" not in head:
            return "outer", ""
        begin += len(head) - len(head.lstrip())
        head = self.code[begin:brace]
        signature = SIGNATURE.search(head[:head.index("(") + 1])
        if not signature:
            return "inner", ""
        returns = head[:signature.start("name")].strip()
        self.functions.append(Function(signature["name"], returns, begin, brace + 1))
        return "body", signature["name"]

    def statements(self):
        """Spans of the statements in functions that are one expression or declaration, with their semicolon."""
        found = []
        for line in re.finditer(r"^([ \t]+)(?=[^\s])", self.code, re.MULTILINE):
            start = line.end()
            if self.is_in_body(start) and self._begins_statement(line.start()) and not CONTROL.match(self.code, start):
                end = self._end_of_statement(start)
                if end:
                    found.append(Span(start, end))
        return found

    def _begins_statement(self, line_start):
        before = self.code[:line_start].rstrip()
        if before.endswith((";", "{", "}", ":")):
            # The semicolons of a for stand in brackets.
            start = before.rfind("\n") + 1
            return before[start:].count("(") <= before[start:].count(")")
        if re.search(r"\b(else|do)$", before):
            return True
        if before.endswith(")"):
            depth = 0
            for position in range(len(before) - 1, -1, -1):
                depth += (before[position] == ")") - (before[position] == "(")
                if depth == 0:
                    return re.search(r"\b(if|for|while|switch)(\s+constexpr)?\s*$", before[:position]) is not None
        return False

    def _end_of_statement(self, start):
        """Behind the semicolon; None where a block or the end of one comes first."""
        position = start
        while position < len(self.code):
            character = self.code[position]
            if character in "([{":
                position = closed_at(self.code, position)
                if position is None:
                    return None
                continue
            if character == ";":
                return position + 1
            if character in ")]}":
                return None
            position += 1
        return None
