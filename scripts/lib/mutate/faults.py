"""The faults that can be put into a source, each one small change of its text."""

import hashlib
import re
from collections import namedtuple

from mutate.source import Source, Span, closed_at

KINDS = ("condition", "comparison", "constant", "statement", "emit", "return", "sync", "locker", "text")

# What the log says is not what the code does.
LOGGING = re.compile(r"(debug|log[A-Z]\w*|writeLog|_CFunctionDebug|q(Debug|Info|Warning|Critical))\b")
SYNC = re.compile(r"(?<![\w.>:])(?:::)?(?:fsync|fdatasync|sync|syncfs)\s*\(")
SYNC_STATEMENT = re.compile(r"(\w*::)*\w*(fsync|fdatasync|syncfs|sync[A-Z]\w*|[sS]ync)\s*\(")
LOCKER = re.compile(r"(const\s+)?(std::(lock_guard|unique_lock|scoped_lock|shared_lock)(<[^;]*>)?|\w*Locker)\s+\w+\s*[({]")
EMIT = re.compile(r"(emit|Q_EMIT)\s+")
EXPRESSION = re.compile(r"(delete\s+|\*|\+\+|--)*[\w:][\w:.]*(->[\w:.]+)*\s*([(\[=;]|[-+*/|&^%]=|<<|\+\+|--)")
NO_TYPES = ("explicit", "inline", "virtual", "constexpr", "static")
COMPARISONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&"}
COMPARISON = re.compile(r"(?<=\s)(<=|>=|==|!=|<|>|&&|\|\|)(?=\s)")
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|\d[\d']*(?:\.\d+)?(?:[eE][-+]?\d+)?)([uUlLfF]*)(?![\w.'])")
TRUTH = re.compile(r"\b(true|false)\b")
# Above this a number is a size or a time, of which one more is rarely another behaviour.
COUNTED_TO = 16


class Fault(namedtuple("Fault", "file line function kind span new_text old new")):
    """span of the source is replaced by new_text; old and new are the lines so changed, for people and for comparing."""

    def applied(self, text):
        return text[:self.span.start] + self.new_text + text[self.span.end:]

    def identity(self):
        return hashlib.sha256("\0".join(map(str, (self.file, self.span, self.new_text))).encode()).hexdigest()[:16]


def one_line(text):
    return " ".join(text.split())


class Maker:
    """Collects the faults of one source."""

    def __init__(self, file, text):
        self.file = file
        self.source = Source(text)
        self.faults = []

    def add(self, kind, start, end, new_text):
        source = self.source
        first, last = source.begin_of_line(start), source.end_of_line(end - 1 if end > start else end)
        old = source.text[first:last]
        new = source.text[first:start] + new_text + source.text[end:last]
        self.faults.append(Fault(self.file, source.line_of(start), source.function_at(end), kind, Span(start, end), new_text,
                                 old, new))

    def all(self):
        statements = self.source.statements()
        silent = [span for span in statements if LOGGING.match(self.source.code, span.start)]
        self.conditions()
        self.comparisons()
        self.constants()
        self.sync_calls()
        self.statements([span for span in statements if span not in silent])
        self.returns()
        self.texts()
        kept = [fault for fault in self.faults
                if not any(span.start <= fault.span.start < span.end for span in silent)]
        return sorted(kept, key=lambda fault: (fault.span, fault.new_text))

    def conditions(self):
        code = self.source.code
        for found in re.finditer(r"\bif\s*\(", code):
            end = closed_at(code, found.end() - 1)
            start = max(found.end(), code.rfind(";", found.end(), end or 0) + 1)
            # One that declares what it asks for cannot be put into brackets.
            declares = end and re.search(r"[^=!<>]=[^=]", code[start:end - 1])
            # The comparison alone is turned into its opposite elsewhere.
            if end and not declares and not re.fullmatch(r"[^&|<>]*\s[!=]=\s[^&|<>]*", code[start:end - 1]):
                begin = start + len(code[start:end]) - len(code[start:end].lstrip())
                self.add("condition", begin, end - 1, f"!({self.source.text[begin:end - 1]})")

    def comparisons(self):
        for found in COMPARISON.finditer(self.source.code):
            self.add("comparison", found.start(), found.end(), COMPARISONS[found[0]])

    def constants(self):
        code = self.source.code
        for found in TRUTH.finditer(code):
            self.add("constant", *found.span(), "false" if found[0] == "true" else "true")
        for found in NUMBER.finditer(code):
            # "= 0;" behind a declaration of a function makes it a pure one.
            if re.search(r"(\)|const|override|noexcept)\s*=\s*$", code[:found.start()]) and found[0] == "0":
                continue
            for changed in changed_numbers(found[1]):
                self.add("constant", *found.span(), changed + found[2])

    def sync_calls(self):
        """A call whose answer is used says that all went well."""
        code = self.source.code
        starts = {span.start for span in self.source.statements()}
        for found in SYNC.finditer(code):
            end = closed_at(code, found.end() - 1)
            if end and self.source.is_in_body(found.start()) and found.start() not in starts:
                self.add("sync", found.start(), end, "0")

    def statements(self, spans):
        code = self.source.code
        for start, end in spans:
            kind = None
            if LOCKER.match(code, start):
                kind = "locker"
            elif SYNC_STATEMENT.match(code, start):
                kind = "sync"
            elif EMIT.match(code, start):
                kind = "emit"
            elif EXPRESSION.match(code, start):
                kind = "statement"
            if kind:
                self.add(kind, start, end, ";")

    def returns(self):
        for function in self.source.functions:
            words = function.returns.split()
            # Constructors and destructors say no type; "Unit::" is what stands before the name ~Unit.
            if not [word for word in words if not word.endswith("::") and word not in NO_TYPES]:
                continue
            # Nothing is left out of an empty body.
            if self.source.code[function.end:].lstrip().startswith("}"):
                continue
            values = {"void": ("",), "bool": (" true", " false")}.get(words[-1], (" {}",))
            for value in values:
                head = self.source.text[function.start:function.end]
                self.add("return", function.start, function.end, f"{head} return{value};")

    def texts(self):
        for span in self.source.texts:
            self.add("text", span.end, span.end, "#")


def changed_numbers(number):
    digits = number.replace("'", "")
    if "." in digits or "e" in digits.lower() and not digits.lower().startswith("0x"):
        return [repr(float(digits) * 2 + (float(digits) == 0))]
    if re.fullmatch(r"0[0-7]+", digits):
        return [f"0{int(digits, 8) + 1:o}"]
    value = int(digits, 0)
    return [str(value + 1)] if value <= COUNTED_TO else [str(value + 1), str(value * 2)]


def faults_of(file, text):
    """All faults of a source, in the order of the text."""
    return Maker(file, text).all()


def in_turns(faults, random):
    """All of them, drawn so that every kind has its turn: of some there are many, of others few."""
    by_kind = {kind: [fault for fault in faults if fault.kind == kind] for kind in KINDS}
    for drawn in by_kind.values():
        random.shuffle(drawn)
    order = []
    while any(by_kind.values()):
        turn = [drawn.pop() for drawn in by_kind.values() if drawn]
        random.shuffle(turn)
        order += turn
    return order
