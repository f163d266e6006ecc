"""Mutants of a C++ source file: what can be broken in it, one place at a time.

The source is cut into tokens, no more. Comments, preprocessor lines, literals, template headers and
static assertions are left alone; what is no C++ any more is found out by the compiler. A few habits
of the tree are relied on: clang-format puts spaces around binary operators, and only around those.
"""

import re
from dataclasses import dataclass

TOKENS = re.compile(
    r"""(?P<space>\s+|//[^\n]*|/\*.*?\*/|^\#(?:[^\n\\]|\\.)*)
      | (?P<text>R"\(.*?\)"|"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])*')
      | (?P<number>\d(?:[\w.']|(?<=[eE])[-+])*)
      | (?P<name>[A-Za-z_]\w*)
      | (?P<sign>->|\+\+|--|<<=|>>=|<=|>=|==|!=|&&|\|\||<<|>>|::|[-+*/%&|^]=|.)""",
    re.VERBOSE | re.DOTALL | re.MULTILINE)

BOUNDARIES = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
LOGIC = {"&&": "||", "||": "&&"}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "+=": "-=", "-=": "+=",
              "*=": "/=", "/=": "*=", "++": "--", "--": "++"}
BITS = {"&": "|", "|": "&", "^": "|", "<<": ">>", ">>": "<<", "&=": "|=", "|=": "&=", "^=": "|=",
        "<<=": ">>=", ">>=": "<<="}
WORDS = {"true": "false", "false": "true"}
# Every other BV_ERR_ becomes BV_ERR_FAILED, and every other code of the bus its first failure.
CODES = {"BV_OK": "BV_ERR_FAILED", "BV_ERR_FAILED": "BV_ERR_NULL",
         "UBUS_STATUS_OK": "UBUS_STATUS_INVALID_COMMAND"}

ASSIGNMENTS = ("=", "+=", "-=", "*=", "/=", "&=", "|=", "^=", "<<=", ">>=")
CLOSING = {"(": ")", "[": "]", "{": "}"}
CONTROL = ("if", "for", "while", "switch")
NO_STATEMENTS = CONTROL + ("return", "else", "do", "case", "default", "break", "continue", "using")
# What stands in brackets behind these is for the compiler and changes nothing at run time.
NOT_RUN = ("static_assert", "BV_PRINTF", "offsetof", "decltype", "alignas")


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclass(frozen=True)
class Mutant:
    """One edit. `function`, `above`, `before` and `after` name it without line numbers."""

    file: str
    line: int
    operator: str
    start: int
    end: int
    replacement: str
    function: str
    above: str
    before: str
    after: str

    def keys(self):
        """Its name, and the one for a line that its function has more than once."""
        return [(self.file, self.function, above, self.before, self.after)
                for above in ("", self.above)]

    def apply(self, text):
        return text[:self.start] + self.replacement + text[self.end:]


def squeeze(text):
    return " ".join(text.split())


class Source:
    """A file's tokens, its brackets, and the function around each token."""

    def __init__(self, file, text):
        self.file = file
        self.text = text
        self.tokens = [
            Token(match.lastgroup, match.group(), match.start(), match.end())
            for match in TOKENS.finditer(text) if match.lastgroup != "space"]
        self.partner = self._pair_brackets()
        self.functions = self._name_functions()
        self.skipped = self._find_skipped()

    def word(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def _pair_brackets(self):
        partner, open_ones = {}, []
        for index, token in enumerate(self.tokens):
            if token.kind == "text":
                continue
            if token.text in CLOSING:
                open_ones.append(index)
            elif token.text in CLOSING.values() and open_ones:
                partner[index] = open_ones.pop()
                partner[partner[index]] = index
        return partner

    def opener(self, index):
        """The name in front of the brackets that close right before a `{`, or ""."""
        before = index - 1
        while self.word(before) in ("const", "noexcept", "override"):
            before -= 1
        if self.word(before) != ")" or before not in self.partner:
            return ""
        name = self.partner[before] - 1
        return self.word(name) if self.tokens[name].kind == "name" else ""

    def is_control_block(self, index):
        """Whether a `{` opens the body of an if, a loop or the like."""
        return self.word(index - 1) in ("else", "do") or self.opener(index) in CONTROL

    def _name_functions(self):
        names, stack = [], [""]
        for index, token in enumerate(self.tokens):
            if token.text == "{" and token.kind == "sign":
                name = self.opener(index)
                stack.append(stack[-1] if name in CONTROL or not name else name)
            names.append(stack[-1])
            if token.text == "}" and token.kind == "sign" and len(stack) > 1:
                stack.pop()
        return names

    def _find_skipped(self):
        skipped = set()
        for index, token in enumerate(self.tokens):
            if token.text in NOT_RUN and index + 1 in self.partner:
                skipped.update(range(index, self.partner[index + 1] + 1))
            elif token.text == "template" and self.word(index + 1) == "<":
                end = index + 1
                while self.word(end) != ">":
                    end += 1
                skipped.update(range(index, end + 1))
        return skipped

    def is_binary(self, index):
        """Spaces on both sides: an operator between two values."""
        token = self.tokens[index]
        return self.text[token.start - 1].isspace() and self.text[token.end].isspace()

    def starts_statement(self, index):
        before = self.word(index - 1)
        if before == ")":
            opened = self.partner.get(index - 1, 0)
            return self.word(opened - 1) in CONTROL
        if before == ":":
            return self.is_label(index - 1)
        if before == "}":  # of a block, not of a value: clang-format starts a new line behind it
            return "\n" in self.text[self.tokens[index - 1].end:self.tokens[index].start]
        return before in (";", "{", "else", "do")

    def is_label(self, index):
        """Whether a `:` ends a case, rather than being half of a ?:."""
        while self.word(index) not in ("case", "default", "?", ";", "{", "}", ""):
            index -= 1
        return self.word(index) in ("case", "default")

    def end_of_statement(self, index):
        """The `;` that ends the statement at index, or None where something else comes first."""
        while index < len(self.tokens):
            word = self.word(index)
            if self.tokens[index].kind == "sign":
                if word == ";":
                    return index
                if word in CLOSING.values():
                    return None
                if word in CLOSING:
                    index = self.partner.get(index, len(self.tokens))
            index += 1
        return None

    def mutant(self, operator, first, last, replacement):
        """The mutant with the tokens first to last replaced."""
        start, end = self.tokens[first].start, self.tokens[last].end
        left = self.text.rfind("\n", 0, start) + 1
        right = self.text.find("\n", end)
        right = len(self.text) if right < 0 else right
        return Mutant(self.file, self.text.count("\n", 0, start) + 1, operator, start, end,
                      replacement, self.functions[first],
                      squeeze(self.text[self.text.rfind("\n", 0, max(left - 1, 0)) + 1:left]),
                      squeeze(self.text[left:right]),
                      squeeze(self.text[left:start] + replacement + self.text[end:right]))


def operators_swapped(source):
    """Relations, logic, arithmetic and bits."""
    for index, token in enumerate(source.tokens):
        word = token.text
        if token.kind != "sign":
            continue
        if word in ("++", "--"):
            yield source.mutant("arithmetic", index, index, ARITHMETIC[word])
        elif not source.is_binary(index):
            continue
        elif word in BOUNDARIES:
            yield source.mutant("relation", index, index, BOUNDARIES[word])
        elif word in LOGIC:
            yield source.mutant("logic", index, index, LOGIC[word])
        elif word in ARITHMETIC:
            yield source.mutant("arithmetic", index, index, ARITHMETIC[word])
        elif word in BITS:
            yield source.mutant("bits", index, index, BITS[word])


def conditions_negated(source):
    """if, while and ?: the other way round; `!` left out."""
    for index, token in enumerate(source.tokens):
        if token.text in ("if", "while") and source.word(index + 1) == "(":
            close = source.partner[index + 1]
            words = [source.word(i) for i in range(index + 2, close)]
            # A lone comparison or `!` is turned by the other operators.
            alone = not any(word in LOGIC for word in words)
            if alone and (words[0] == "!" or "==" in words or "!=" in words):
                continue
            condition = source.text[source.tokens[index + 2].start:source.tokens[close - 1].end]
            yield source.mutant("negation", index + 2, close - 1, f"!({condition})")
        elif token.text == "!" and token.kind == "sign":
            yield source.mutant("negation", index, index, "")
        elif token.text == "?" and token.kind == "sign":
            yield source.mutant("negation", index, index, "== false ?")


def neighbours(word):
    """An integer literal plus and minus one, in the same notation."""
    value, suffix = re.fullmatch(r"(0[xX][\da-fA-F]+|\d+)(\w*)", word).groups()
    if value[:2] in ("0x", "0X"):
        number, form = int(value, 16), "0x{:X}{}"
    elif len(value) > 1 and value[0] == "0":
        number, form = int(value, 8), "0{:o}{}"
    else:
        number, form = int(value), "{}{}"
    return [form.format(other, suffix) for other in (number + 1, number - 1) if other >= 0]


def constants_changed(source):
    """Integers one up and one down, codes for other codes, true for false."""
    for index, token in enumerate(source.tokens):
        word = token.text
        if token.kind == "number":
            for other in neighbours(word):
                yield source.mutant("constant", index, index, other)
        elif token.kind == "name" and word in WORDS:
            yield source.mutant("constant", index, index, WORDS[word])
        elif word in CODES:
            yield source.mutant("code", index, index, CODES[word])
        elif word.startswith("BV_ERR_"):
            yield source.mutant("code", index, index, "BV_ERR_FAILED")
        elif word.startswith("UBUS_STATUS_"):
            yield source.mutant("code", index, index, "UBUS_STATUS_INVALID_COMMAND")


def is_declaration(source, first, last):
    """Whether tokens first to last, left of a `=` or a bracket, declare something."""
    for index in range(first, last):
        left, right = source.tokens[index], source.tokens[index + 1]
        if left.kind != "name" or source.word(index + 1) in ("::", ".", "->"):
            continue
        if right.kind == "name" or right.text in ("*", "&", "<", "&&"):
            return True
    return False


def removable(source, index, end):
    """Whether the statement from index to the `;` at end is a call, an assignment or a guard."""
    first = source.tokens[index]
    if first.text in NO_STATEMENTS or (first.kind != "name" and first.text not in ("*", "(")):
        return False
    for place in range(index, end):
        if source.word(place) in ASSIGNMENTS:
            return not is_declaration(source, index, place - 1)
        if source.word(place) in CLOSING and source.partner[place] == end - 1:
            declares = is_declaration(source, index, place - 1)
            guards = any("Guard" in source.word(i) for i in range(index, place))
            return source.word(place) == "(" and (guards or not declares)
    return False


def statements_removed(source):
    """Calls and assignments left out, early returns and continues fallen through."""
    for index, token in enumerate(source.tokens):
        if token.kind == "text" or not source.starts_statement(index) or token.text == ";":
            continue
        end = source.end_of_statement(index)
        if end is None or end == index:
            continue
        if token.text == "return":
            if is_early(source, index, end):
                yield source.mutant("return", index, end - 1, "")
        elif token.text == "continue":
            yield source.mutant("return", index, end - 1, "")
        elif source.functions[index] and removable(source, index, end):
            yield source.mutant("statement", index, end - 1, "")


def is_early(source, index, end):
    """Whether more of the function comes behind a return."""
    if source.word(index - 1) in (")", "else", ":") or source.word(end + 1) != "}":
        return True
    return source.is_control_block(source.partner[end + 1])


OPERATORS = (operators_swapped, conditions_negated, constants_changed, statements_removed)


def mutants(file, text):
    """All mutants of a file, in the order of its lines."""
    source = Source(file, text)
    starts = {token.start: index for index, token in enumerate(source.tokens)}
    found = [mutant for operator in OPERATORS for mutant in operator(source)
             if starts[mutant.start] not in source.skipped]
    return sorted(found, key=lambda mutant: (mutant.start, mutant.end, mutant.replacement))
