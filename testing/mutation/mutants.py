"""Mutants of a C++ source from its syntax tree: which small mistakes could be made in it, and where.

A mutant is one or two edits of the file's text. Its `form` says how it is written into a file that holds all of the
file's mutants at once (schemata.py); "own" stands for those that cannot be, as the value of a constant expression.
"""

import ctypes
import dataclasses
import glob
import re

CONSTANT_NEIGHBOUR = {"false": "true", "true": "false"}
PRIORITY = {"LM_TRACE": "LM_DEBUG", "LM_DEBUG": "LM_INFO", "LM_INFO": "LM_DEBUG", "LM_NOTICE": "LM_INFO",
            "LM_WARNING": "LM_INFO", "LM_ERROR": "LM_WARNING", "LM_CRITICAL": "LM_ERROR", "LM_ALERT": "LM_ERROR",
            "LM_EMERGENCY": "LM_ERROR"}
OPERATOR = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"), "==": ("!=",), "!=": ("==",),
            "+": ("-",), "-": ("+",), "*": ("/",), "/": ("*",), "%": ("*",), "&": ("|",), "|": ("&",), "^": ("&",),
            "<<": (">>",), ">>": ("<<",), "&&": ("||",), "||": ("&&",), "+=": ("-=",), "-=": ("+=",), "*=": ("/=",),
            "/=": ("*=",), "|=": ("&=",), "&=": ("|=",)}


class No_Libclang(Exception):
    """The syntax tree cannot be read on this machine."""


@dataclasses.dataclass
class Mutant:
    file: str
    line: int
    function: str          # the operation that it lies in, without its class; empty outside of one
    kind: str
    form: str              # expression, condition, statement, leave, swap, rethrow, own
    edits: list            # [(start, end, new text)], what it is on its own
    start: int             # what the form is written around
    end: int
    old: str = ""          # the text that it changes, on one line
    change: str = ""       # what becomes of it
    number: int = 0

    def key(self):
        return self.file, self.function, self.old, self.change

    def apply(self, text):
        for start, end, new in sorted(self.edits, reverse=True):
            text = text[:start] + new + text[end:]
        return text


def load_cindex():
    try:
        from clang import cindex
    except ImportError:
        raise No_Libclang("python3-clang is missing (call this with Debian's own /usr/bin/python3)")
    candidates = [None, *sorted(glob.glob("/usr/lib/llvm-*/lib/libclang.so.1"), reverse=True),
                  *sorted(glob.glob("/usr/lib/*/libclang-*.so.1*"), reverse=True)]
    for candidate in candidates:
        if candidate is not None:
            cindex.Config.loaded = False
            cindex.Config.set_library_file(candidate)
        try:
            cindex.Index.create()
        except (cindex.LibclangError, AttributeError):
            continue
        position = ctypes.POINTER(ctypes.c_uint)
        cindex.conf.lib.clang_getSpellingLocation.argtypes = [cindex.SourceLocation, ctypes.POINTER(ctypes.c_void_p),
                                                              position, position, position]
        return cindex
    raise No_Libclang("no libclang that python3-clang can use")


def skip_token(text, at):
    """The offset after the token at `at`: a literal or a comment counts as one, anything else is one character."""
    if text.startswith("//", at):
        end = text.find("\n", at)
        return len(text) if end < 0 else end
    if text.startswith("/*", at):
        return text.find("*/", at) + 2
    if text[at] == '"' or (text[at] == "'" and not (at and text[at - 1].isdigit() and text[at + 1:at + 2].isdigit())):
        end = at + 1
        while text[end] != text[at]:
            end += 2 if text[end] == "\\" else 1
        return end + 1
    return at + 1


def on_one_line(text):
    """Code without its comments and line breaks."""
    out, at = [], 0
    while at < len(text):
        end = skip_token(text, at)
        piece = text[at:end]
        out.append(" " if piece.startswith(("//", "/*")) or piece.isspace() else piece)
        at = end
    return re.sub(r"  +", " ", "".join(out)).strip() if '"' not in text else "".join(out).strip()


def matching(text, at):
    """The offset of the bracket that closes the one at `at`."""
    depth = 0
    while at < len(text):
        if text[at] in "([{":
            depth += 1
        elif text[at] in ")]}":
            depth -= 1
            if depth == 0:
                return at
        at = skip_token(text, at)
    return -1


def changed_text(literal):
    """A string literal with one letter changed that is no part of a directive or an escape."""
    at = literal.index('"') + 1
    while at < len(literal) - 1:
        directive = re.compile(r"%[-+ #0-9.*]*(?:hh|h|ll|l|z)?[A-Za-z%:?]|\\.").match(literal, at)
        if directive:
            at = directive.end()
        elif literal[at].isalpha():
            other = {"z": "y", "Z": "Y"}.get(literal[at], chr(ord(literal[at]) + 1))
            return literal[:at] + other + literal[at + 1:]
        else:
            at += 1
    end = literal.rindex('"')
    return literal[:end] + "~" + literal[end:]


class Finder:
    """Walks one file's syntax tree and collects its mutants."""

    def __init__(self, cindex, path, name, text):
        self.cindex, self.path, self.name, self.text = cindex, path, name, text
        self.kinds = cindex.CursorKind
        self.found, self.seen = [], set()
        self.function = ""

    # Ranges

    def offset(self, location):
        file = ctypes.c_void_p()
        line, column, offset = ctypes.c_uint(), ctypes.c_uint(), ctypes.c_uint()
        self.cindex.conf.lib.clang_getSpellingLocation(location, ctypes.byref(file), ctypes.byref(line),
                                                       ctypes.byref(column), ctypes.byref(offset))
        return offset.value

    def span(self, cursor):
        """(start, end) as the text has it, also of what is a macro's argument."""
        start, end = self.offset(cursor.extent.start), self.offset(cursor.extent.end)
        return (start, end) if start < end <= len(self.text) else None

    def of(self, cursor):
        span = self.span(cursor)
        return self.text[slice(*span)] if span else ""

    def is_macro_body(self, cursor):
        return re.match(r"[A-Z][A-Z0-9_]{2,}\s*\(", self.of(cursor)) is not None

    def statement(self, cursor):
        """(start, end) of a statement with its semicolon."""
        span = self.span(cursor)
        if span is None:
            return None
        start, end = span
        rest = re.compile(r"\s*;").match(self.text, end)
        if rest:
            return start, rest.end()
        return (start, end) if self.text[end - 1] in ";}" else None

    # Types

    def type_kind(self, cursor):
        kind = cursor.type.get_canonical().kind
        kinds = self.cindex.TypeKind
        if kind == kinds.BOOL:
            return "bool"
        if kind in (kinds.POINTER, kinds.NULLPTR):
            return "pointer"
        if kind == kinds.ENUM:
            return "enum"
        if kinds.CHAR_U.value <= kind.value <= kinds.LONGDOUBLE.value:
            return "number"
        return "record" if kind == kinds.RECORD else "other"

    def plain_type(self, cursor):
        spelling = cursor.type.get_canonical().spelling
        return re.sub(r"\bconst\b|&", "", spelling).replace(" ", "")

    # Collecting

    def add(self, kind, form, start, end, new, own=False, edits=None, old=None, change=None):
        edits = edits or [(start, end, new)]
        identity = tuple((s, e, on_one_line(n).strip("()")) for s, e, n in edits)
        if identity in self.seen:
            return
        self.seen.add(identity)
        old = on_one_line(self.text[start:end]) if old is None else old
        self.found.append(Mutant(self.name, self.text.count("\n", 0, start) + 1, self.function, kind,
                                 "own" if own else form, edits, start, end, old,
                                 on_one_line(new) if change is None else change))

    def walk(self, cursor, parent=None, constant=False):
        kinds = self.kinds
        if cursor.kind in (kinds.STATIC_ASSERT, kinds.USING_DECLARATION, kinds.TYPEDEF_DECL):
            return
        before = self.function
        if cursor.kind in (kinds.FUNCTION_DECL, kinds.CXX_METHOD, kinds.CONSTRUCTOR, kinds.DESTRUCTOR,
                           kinds.FUNCTION_TEMPLATE, kinds.CONVERSION_FUNCTION):
            self.function = cursor.spelling
        if cursor.kind == kinds.VAR_DECL and re.search(r"\bconstexpr\b", self.of(cursor).split("=")[0]):
            constant = True
        if cursor.kind == kinds.ENUM_CONSTANT_DECL or (cursor.kind == kinds.VAR_DECL and "[" in self.of(cursor).split("=")[0]):
            constant = True
        if self.span(cursor) and not self.is_macro_body(cursor):
            self.expression(cursor, parent, constant)
            self.control(cursor)
        if cursor.kind == kinds.CALL_EXPR:
            self.arguments(cursor, constant)
        if cursor.kind == kinds.COMPOUND_STMT:
            self.compound(cursor)
        self.single_statements(cursor)
        children = list(cursor.get_children())
        for place, child in enumerate(children):
            label = cursor.kind == kinds.CASE_STMT and place == 0
            self.walk(child, cursor, constant or label)
        self.function = before

    def expression(self, cursor, parent, constant):
        kinds, (start, end) = self.kinds, self.span(cursor)
        text = self.text[start:end]
        if cursor.kind == kinds.INTEGER_LITERAL:
            if re.fullmatch(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*)[uUlLzZ]*|[A-Z_][A-Z0-9_]*", text):
                self.add("constant", "expression", start, end, f"{text} + 1", constant)
                self.add("constant", "expression", start, end, f"{text} - 1", constant)
        elif cursor.kind == kinds.CHARACTER_LITERAL and text.startswith("'"):
            self.add("constant", "expression", start, end, f"static_cast<char>({text} + 1)", constant)
        elif cursor.kind == kinds.CXX_BOOL_LITERAL_EXPR and text in CONSTANT_NEIGHBOUR:
            self.add("constant", "expression", start, end, CONSTANT_NEIGHBOUR[text], constant)
        elif cursor.kind == kinds.STRING_LITERAL and text.startswith('"'):
            self.add("text", "expression", start, end, changed_text(text), constant)
        elif cursor.kind == kinds.DECL_REF_EXPR and text in PRIORITY:
            self.add("priority", "expression", start, end, PRIORITY[text], constant)
        elif cursor.kind in (kinds.BINARY_OPERATOR, kinds.COMPOUND_ASSIGNMENT_OPERATOR):
            self.binary(cursor, start, end, constant)
        elif cursor.kind == kinds.UNARY_OPERATOR and text.startswith(("++", "--")):
            self.add("operator", "expression", start, end, {"++": "--", "--": "++"}[text[:2]] + text[2:], constant)
        elif cursor.kind == kinds.CONDITIONAL_OPERATOR:
            self.condition(next(cursor.get_children()), constant)

    def binary(self, cursor, start, end, constant):
        children = list(cursor.get_children())
        spans = [self.span(child) for child in children]
        if len(children) != 2 or None in spans:
            return
        gap = self.text[spans[0][1]:spans[1][0]]
        operator = re.sub(r"//[^\n]*|/\*.*?\*/", "", gap).strip(" \n()")
        if any(self.type_kind(child) == "record" for child in children):
            return
        for other in OPERATOR.get(operator, ()):
            new = gap.replace(operator, other, 1)
            self.add("operator", "expression", start, end,
                     self.text[start:spans[0][1]] + new + self.text[spans[1][0]:end], constant,
                     change=f"{operator} becomes {other}")
        if operator in ("&&", "||"):
            for child in children:
                self.condition(child, constant, values=())

    def condition(self, cursor, constant=False, values=("true", "false")):
        span = self.span(cursor)
        if span is None or self.is_macro_body(cursor) or self.of(cursor) in CONSTANT_NEIGHBOUR:
            return
        if not self.is_comparison(cursor): # whose operator becomes its opposite
            self.add("condition", "condition", *span, f"!({self.of(cursor)})", constant)
        for value in values:
            self.add("condition", "condition", *span, value, constant)

    def is_comparison(self, cursor):
        spans = [self.span(child) for child in cursor.get_children()]
        return cursor.kind == self.kinds.BINARY_OPERATOR and len(spans) == 2 and None not in spans and \
            self.text[spans[0][1]:spans[1][0]].strip(" \n()") in ("<", "<=", ">", ">=", "==", "!=")

    def control(self, cursor):
        """Conditions of statements."""
        kinds, (start, end) = self.kinds, self.span(cursor)
        if cursor.kind not in (kinds.IF_STMT, kinds.WHILE_STMT, kinds.FOR_STMT, kinds.DO_STMT):
            return
        head = re.compile(r"(if|while|for)\s*\(").match(self.text, start)
        if cursor.kind != kinds.DO_STMT and head:
            first = head.end() - 1
            last = matching(self.text, first)
            if cursor.kind == kinds.FOR_STMT:
                parts = self.semicolons(first + 1, last)
                if len(parts) != 2:
                    return
                first, last = parts
            inside = [child for child in cursor.get_children()
                      if self.span(child) and first < self.span(child)[0] and self.span(child)[1] <= last]
        elif cursor.kind == kinds.DO_STMT and re.match(r"do\b", self.text[start:]):
            inside = list(cursor.get_children())[-1:]
        else:
            return
        if inside and inside[-1].kind not in (kinds.DECL_STMT, kinds.VAR_DECL):
            # A loop that does not end says nothing about tests.
            self.condition(inside[-1], False, ("true", "false") if cursor.kind == kinds.IF_STMT else ("false",))

    def semicolons(self, at, end):
        found, depth = [], 0
        while at < end:
            depth += (self.text[at] in "([{") - (self.text[at] in ")]}")
            if self.text[at] == ";" and depth == 0:
                found.append(at)
            at = skip_token(self.text, at)
        return found

    def arguments(self, cursor, constant):
        arguments = [argument for argument in cursor.get_arguments() if argument is not None and self.span(argument)]
        if cursor.spelling.startswith("operator") and cursor.spelling != "operator()":
            return
        parameters = []
        if cursor.referenced is not None and cursor.referenced.type.kind == self.cindex.TypeKind.FUNCTIONPROTO:
            parameters = [kind.get_canonical() for kind in cursor.referenced.type.argument_types()]
        for place, argument in enumerate(arguments):
            text = self.of(argument)
            if self.is_macro_body(argument) or self.span(argument) == self.span(cursor):
                continue
            kind = self.type_kind(argument)
            reference = place < len(parameters) and parameters[place].kind == self.cindex.TypeKind.LVALUEREFERENCE and \
                not parameters[place].get_pointee().is_const_qualified()
            if not reference and text not in ("0", "false", "nullptr", "true"):
                new = {"number": "0", "bool": "false", "pointer": "nullptr",
                       "enum": f"static_cast<std::remove_cvref_t<decltype({text})>>(0)"}.get(kind)
                if new and not (kind == "pointer" and text.startswith('"')) and text not in PRIORITY:
                    self.add("argument", "expression", *self.span(argument), new, constant, change="null" if kind == "pointer" else "0")
            neighbours = [*arguments[place + 1:place + 2], *arguments[max(place - 1, 0):place]]
            for other in neighbours:
                if self.plain_type(other) == self.plain_type(argument) and self.of(other) != text and \
                        not self.is_macro_body(other) and "dependent" not in self.plain_type(other):
                    self.add("argument", "expression", *self.span(argument), self.of(other), constant)
                    break

    # Statements

    def single_statements(self, cursor):
        """Statements that stand alone after if, else, a loop's head or a label."""
        kinds = self.kinds
        if cursor.kind not in (kinds.IF_STMT, kinds.WHILE_STMT, kinds.FOR_STMT, kinds.CXX_FOR_RANGE_STMT, kinds.CASE_STMT,
                               kinds.DEFAULT_STMT) or self.is_macro_body(cursor):
            return
        children = list(cursor.get_children())
        if cursor.kind == kinds.IF_STMT:
            head = re.compile(r"if\s*(constexpr\s*)?\(").match(self.text, self.span(cursor)[0]) if self.span(cursor) else None
            close = matching(self.text, head.end() - 1) if head else len(self.text)
            bodies = [child for child in children if self.span(child) and self.span(child)[0] > close]
        else:
            bodies = children[-1:]
        for body in bodies:
            self.one_statement(body, last=False)

    def compound(self, cursor):
        kinds = self.kinds
        children = list(cursor.get_children())
        if not self.span(cursor) or not self.of(cursor).startswith("{"):
            return
        for place, child in enumerate(children):
            self.one_statement(child, last=place + 1 == len(children))
        for first, second in zip(children, children[1:]):
            if self.is_call(first) and self.is_call(second) and self.of(first) != self.of(second):
                one, two = self.statement(first), self.statement(second)
                if one and two and one[1] <= two[0]:
                    texts = self.text[slice(*one)], self.text[slice(*two)]
                    self.add("exchange", "swap", one[0], two[1], "", edits=[(*one, texts[1]), (*two, texts[0])],
                             old=on_one_line(texts[0]), change=f"after {on_one_line(texts[1])}")

    def is_call(self, cursor):
        while cursor.kind == self.kinds.UNEXPOSED_EXPR:
            children = list(cursor.get_children())
            if len(children) != 1:
                return False
            cursor = children[0]
        return cursor.kind == self.kinds.CALL_EXPR and not cursor.spelling.startswith("operator") and \
            not self.is_macro_body(cursor)

    def one_statement(self, cursor, last):
        kinds = self.kinds
        span = self.statement(cursor)
        if span is None or cursor.kind in (kinds.DECL_STMT, kinds.NULL_STMT, kinds.COMPOUND_STMT, kinds.LABEL_STMT,
                                           kinds.CASE_STMT, kinds.DEFAULT_STMT, kinds.CXX_TRY_STMT):
            return
        text = self.text[slice(*span)]
        if cursor.kind == kinds.RETURN_STMT:
            self.returned(cursor, span)
            if last and text != "return;":
                return # what comes after it is undefined
        if cursor.kind in (kinds.IF_STMT, kinds.WHILE_STMT, kinds.FOR_STMT) and not re.search(r"\belse\b", text):
            return # as a condition that is false
        if cursor.kind in (kinds.BREAK_STMT, kinds.RETURN_STMT) and last:
            return # the end is there anyway
        if re.match(r"\(void\)|static_cast<void>", text):
            return
        self.add("statement", "leave", *span, ";", change="left out")

    def returned(self, cursor, span):
        children = list(cursor.get_children())
        if not children or not self.span(children[0]):
            return
        value, (start, end) = children[0], self.span(children[0])
        text = self.of(value)
        kind = self.type_kind(value)
        if self.is_macro_body(value) or text in CONSTANT_NEIGHBOUR or re.fullmatch(r"-?[0-9]+|nullptr|\{\}|\*this", text):
            return
        if kind == "bool":
            self.add("return", "expression", start, end, f"!({text})")
        elif kind in ("number", "pointer"):
            self.add("return", "expression", start, end, "0" if kind == "number" else "nullptr")
        elif kind in ("record", "enum"):
            self.add("return", "statement", *span, "return {};")

    def handlers(self, cursor):
        """Catches removed. The last one's work is as removed when it throws on."""
        kinds = self.kinds
        if cursor.kind == kinds.CXX_TRY_STMT:
            catches = [child for child in cursor.get_children() if child.kind == kinds.CXX_CATCH_STMT]
            for catch in catches:
                start, end = self.span(catch)
                body = self.text.index("{", matching(self.text, self.text.index("(", start)))
                old = on_one_line(self.text[start:body])
                if catch is catches[-1]:
                    self.add("catch", "rethrow", body + 1, body + 1, " throw;", old=old, change="removed")
                else:
                    self.add("catch", "own", start, end, "", True, old=old, change="removed")

    def run(self, unit):
        for child in unit.cursor.get_children():
            if child.location.file and child.location.file.name == str(self.path):
                self.walk(child)
                self.walk_handlers(child)
        self.found.sort(key=lambda mutant: (mutant.start, mutant.end, mutant.kind, mutant.change))
        return self.found

    def walk_handlers(self, cursor):
        before = self.function
        if cursor.kind.is_declaration() and cursor.spelling and cursor.kind.name in (
                "FUNCTION_DECL", "CXX_METHOD", "CONSTRUCTOR", "DESTRUCTOR", "FUNCTION_TEMPLATE"):
            self.function = cursor.spelling
        self.handlers(cursor)
        for child in cursor.get_children():
            self.walk_handlers(child)
        self.function = before


def find(path, name, options):
    """The mutants of the file at `path`, which is called `name`; `options` are those of the compiler."""
    cindex = load_cindex()
    text = path.read_bytes().decode("latin-1")
    unit = cindex.Index.create().parse(str(path), args=["-x", "c++", *options])
    errors = [str(diagnostic) for diagnostic in unit.diagnostics if diagnostic.severity >= cindex.Diagnostic.Error]
    if errors:
        raise No_Libclang(f"{name} cannot be read: {errors[0]}")
    return Finder(cindex, path, name, text).run(unit)
