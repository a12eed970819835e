"""Where a source can be changed, and how all of its changes are written into it side by side."""

import bisect
import dataclasses
import re

TOKEN = re.compile(r"""
    (?P<space>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n\\]|\\.)*)
  | (?P<text>(?:u8|[LuU])?R"(?P<fence>[^(\s]*)\(.*?\)(?P=fence)"|(?:u8|[LuU])?"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])+')
  | (?P<number>\.?\d(?:[eEpP][+-]|'\w|[\w.])*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<sign><=>|->\*|<<=|>>=|\.\.\.|::|->|\+\+|--|<<|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|.)
""", re.X | re.S | re.M)
TIES = {"*": 12, "/": 12, "%": 12, "+": 11, "-": 11, "<<": 10, ">>": 10, "<=>": 9, "<": 8, "<=": 8, ">": 8, ">=": 8, "==": 7, "!=": 7,
        "&": 6, "^": 5, "|": 4, "&&": 3, "||": 2, "?": 1, ":": 1, "=": 1, "+=": 1, "-=": 1, "|=": 1, "&=": 1, "*=": 1, "/=": 1, "%=": 1,
        "^=": 1, "<<=": 1, ">>=": 1}
FUNCTIONS = {"<": ("less", "<="), "<=": ("lessEqual", "<"), ">": ("greater", ">="), ">=": ("greaterEqual", ">"), "+": ("plus", "-"),
             "-": ("minus", "+"), "*": ("times", "+"), "/": ("divided", "*"), "%": ("modulo", "*"), ">>": ("shiftedRight", "<<"),
             "&": ("bitAnd", "|"), "|": ("bitOr", "&"), "+=": ("addTo", "-="), "-=": ("takeFrom", "+="), "|=": ("orTo", "&="),
             "&=": ("andTo", "|=")}
OTHER = {"==": "!=", "!=": "==", "&&": "||", "||": "&&"}
# What stands before an expression and is none of it.
WORDS = {"return", "throw", "else", "case", "do", "co_return", "co_yield", "co_await", "goto", "default", "new", "delete", "typename"}
NO_STATEMENT = WORDS | {"if", "for", "while", "switch", "break", "continue", "using", "const", "auto", "static", "template", "namespace",
                        "public", "private", "protected", "struct", "class", "enum", "friend", "try", "catch", "static_assert", "extern",
                        "constexpr", "inline", "explicit", "virtual", "operator", "requires", "typedef", "union", "volatile", "asm"}
PAIRS = {")": "(", "]": "[", "}": "{", ">": "<"}


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    line: int
    column: int
    kind: str
    text: str
    nth: int  # of those that are alike but for their line

    def key(self):
        return self.file, str(self.column), self.kind, self.text, str(self.nth)


@dataclasses.dataclass
class Token:
    kind: str
    text: str
    start: int
    end: int
    partner: int = -1
    around: int = -1  # the bracket that it stands in

    def opens(self):
        return self.partner >= 0 and self.text in "([{<"

    def closes(self):
        return self.partner >= 0 and self.text in ")]}>"


def tokens_of(text):
    tokens, open_ones, position = [], [], 0
    while position < len(text):
        match = TOKEN.match(text, position)
        kind, found = match.lastgroup if match.lastgroup != "fence" else "text", match[0]
        begin, position = position, match.end()
        if kind == "space":
            continue
        angle = open_ones and tokens[open_ones[-1]].text == "<"
        if found == ">" and not angle and text[position] == ">":  # else the ends of two lists of template arguments
            found, position = ">>", position + 1
        token = Token(kind, found, begin, position, around=open_ones[-1] if open_ones else -1)
        tokens.append(token)
        if kind != "sign":
            continue
        if found in "([{" or (found == "<" and not text[begin - 1].isspace() and tokens[-2].kind == "name"):
            open_ones.append(len(tokens) - 1)
        elif found in ")]}" or (found == ">" and angle):
            while open_ones and tokens[open_ones[-1]].text == "<" and found != ">":
                open_ones.pop()  # was a comparison
            if open_ones and tokens[open_ones[-1]].text == PAIRS[found]:
                token.partner = open_ones.pop()
                token.around = tokens[token.partner].around
                tokens[token.partner].partner = len(tokens) - 1
    return tokens


class Source:
    """All mutants of one file."""

    def __init__(self, name, text):
        self.name, self.text = name, text
        self.tokens = tokens_of(text)
        self.lines = [0] + [match.end() for match in re.finditer("\n", text)]
        self.edits = []  # of each mutant: [(start, end, before, after)] and {(start, end): instead}, with @ for its number
        self.mutants = []
        self.alike = {}
        self.skipped = self.no_code()
        for index, token in enumerate(self.tokens):
            if index not in self.skipped:
                self.look_at(index, token)
        order = sorted(range(len(self.mutants)), key=lambda at: (self.mutants[at].line, self.mutants[at].column, self.mutants[at].kind))
        self.mutants, self.edits = [self.mutants[at] for at in order], [self.edits[at] for at in order]

    def no_code(self):
        """What is decided when it is compiled: static_assert, labels, attributes, template arguments."""
        skipped, tokens = set(), self.tokens
        for index, token in enumerate(tokens):
            if token.text in ("static_assert", "alignas", "noexcept") and tokens[index + 1].text == "(":
                skipped.update(range(index, tokens[index + 1].partner + 1))
            elif token.text == "case":
                end = index
                while tokens[end].text != ":":
                    end += 1
                skipped.update(range(index, end))
            elif token.opens() and (token.text == "<" or (token.text == "[" and tokens[index + 1].text == "[")):
                skipped.update(range(index, token.partner + 1))
        return skipped

    def add(self, at, kind, wraps, instead=None):
        line = bisect.bisect_right(self.lines, at)
        start = self.lines[line - 1]
        text = self.text[start:self.text.index("\n", start)].strip()
        alike = self.name, at - start, kind, text
        self.alike[alike] = self.alike.get(alike, 0) + 1
        self.mutants.append(Mutant(self.name, line, at - start, kind, text, self.alike[alike]))
        self.edits.append((wraps, instead or {}))

    def is_binary(self, index):
        token = self.tokens[index]
        if token.kind != "sign" or token.text not in TIES or token.opens() or token.closes() or index == 0:
            return False
        spaced = self.text[token.start - 1].isspace() and self.text[token.end].isspace()
        before = self.tokens[index - 1]
        return spaced and (before.closes() or before.kind in ("number", "text") or (before.kind == "name" and before.text not in WORDS))

    def left(self, index):
        """Where the left operand of an operator begins: the first of its tokens."""
        tokens, ties, at = self.tokens, TIES[self.tokens[index].text], index - 1
        while at >= 0:
            token, after = tokens[at], tokens[at + 1]
            joined = after.kind in ("name", "number", "text") and at + 1 != index
            if token.opens() or token.text in (";", ",") or (token.kind == "name" and (token.text in WORDS or joined)):
                break
            if token.closes() and joined:
                break
            if token.text in ("?", ":") or (self.is_binary(at) and TIES[token.text] < ties):
                break
            at = token.partner - 1 if token.closes() else at - 1
        return at + 1

    def right(self, index):
        tokens, ties, at = self.tokens, TIES[self.tokens[index].text], index + 1
        while at < len(tokens):
            token = tokens[at]
            if token.closes() or token.text in (";", ",") or (ties > 1 and token.text in ("?", ":")):
                break
            if self.is_binary(at) and TIES[token.text] <= ties and ties > 1:
                break
            at = token.partner + 1 if token.opens() else at + 1
        return at - 1

    def constant(self, index):
        """What makes the constant that a number belongs to one that is decided at run time."""
        at = index
        while at >= 0 and self.tokens[at].text not in (";", "{", "}", "("):
            if self.tokens[at].text == "constexpr":
                return {(self.tokens[at].start, self.tokens[at].end): "const"}
            at -= 1
        return {}

    def span(self, first, last):
        return self.tokens[first].start, self.tokens[last].end

    def look_at(self, index, token):
        if token.kind == "number":
            match = re.fullmatch(r"(0[xX][0-9a-fA-F']+|[\d']+)([uUlLzZ]*)", token.text)
            if match:
                plain = match[1].replace("'", "")
                changed = int(plain, 8 if re.fullmatch(r"0[0-7]+", plain) else 0) + 1
                self.add(token.start, f"{match[1]} to {changed}", [],
                         {(token.start, token.end): f"(norvmutants::on(@) ? {changed}{match[2]} : {token.text})", **self.constant(index)})
        elif token.text in ("true", "false"):
            self.add(token.start, f"{token.text} to {'false' if token.text == 'true' else 'true'}", [],
                     {(token.start, token.end): f"({token.text} != norvmutants::on(@))"})
        elif token.text == "!" and not self.text[token.end].isspace():
            self.add(token.start, "! to nothing", [], {(token.start, token.end): "norvmutants::Not{@}->*"})
        elif token.text == "++" and self.tokens[index - 1].text in (";", "{", "}", "(", "&", ",") and not self.text[token.end].isspace():
            self.add(token.start, "++ to --", [], {(token.start, token.end): "norvmutants::Increment{@}->*"})
        elif self.is_binary(index):
            self.look_at_operator(index, token)
        elif token.text in ("if", "while") and self.tokens[index + 1].text == "(":
            self.look_at_condition(index)
        if index and self.tokens[index - 1].text in (";", "{", "}") and token.around >= 0 and self.tokens[token.around].text == "{":
            self.look_at_statement(index)

    def look_at_operator(self, index, token):
        if token.text not in FUNCTIONS and token.text not in OTHER:
            return
        left, right = self.span(self.left(index), index - 1), self.span(index + 1, self.right(index))
        both = left[0], right[1]
        if token.text in FUNCTIONS:
            function, other = FUNCTIONS[token.text]
            self.add(token.start, f"{token.text} to {other}", [(*both, f"norvmutants::{function}(@, ", ")")],
                     {(token.start, token.end): ","})
        elif token.text in ("&&", "||"):
            # What is not (not a or not b) is a and b; and b is looked at only when a does not tell.
            half = "(static_cast<bool>(", ") != norvmutants::on(@))"
            self.add(token.start, f"{token.text} to {OTHER[token.text]}",
                     [(*both, "((", ") != norvmutants::on(@))"), (*left, *half), (*right, *half)])
        else:
            self.add(token.start, f"{token.text} to {OTHER[token.text]}", [(*both, "(static_cast<bool>(", ") != norvmutants::on(@))")])

    def look_at_condition(self, index):
        tokens = self.tokens
        first, last = index + 2, tokens[index + 1].partner - 1
        inside, at = [], first
        while at <= last:
            inside.append(at)
            at = tokens[at].partner + 1 if tokens[at].opens() else at + 1
        for at in inside:
            if tokens[at].text == ";":
                first = at + 1
        inside = [at for at in inside if at >= first]
        operators = [tokens[at].text for at in inside if self.is_binary(at)]
        # The same as the mutant of its operator, or what declares.
        if "=" in operators or operators in (["=="], ["!="]) or (not operators and tokens[first].text == "!"):
            return
        self.add(tokens[first].start, "condition negated", [(*self.span(first, last), "(static_cast<bool>(", ") != norvmutants::on(@))")])

    def look_at_statement(self, index):
        tokens = self.tokens
        if tokens[index].text in NO_STATEMENT or (tokens[index].kind != "name" and tokens[index].text not in ("++", "--", "*")):
            return
        at, signs = index, []
        while at < len(tokens) and tokens[at].text != ";":
            token, after = tokens[at], tokens[at + 1]
            if token.closes() or token.text == "}":
                return
            if not signs and ((token.kind == "name" and (after.kind == "name" or after.text in ("*", "&", "&&") and not self.is_binary(at + 1)))
                              or (token.text in ("*", "&", "&&") and at > index and not self.is_binary(at))):
                return  # a declaration
            if token.opens():
                if not signs and (token.text == "{" or tokens[token.partner + 1].kind == "name"):
                    return
                at = token.partner
            elif token.text in ("=", "+=", "-=", "|=", "&="):
                signs.append(token.text)
            at += 1
        if signs or tokens[at - 1].text == ")" or tokens[index].text in ("++", "--"):
            start, end = self.span(index, at)
            self.add(start, "statement removed", [(start, end, "if (!norvmutants::on(@)) { ", " }")])

    def written(self, numbers):
        """The file with the mutants that have a number ({index: number}), and what each takes of it: {index: (start, end)}."""
        before, after, instead = [], [], {}
        for index, number in numbers.items():
            wraps, others = self.edits[index]
            for start, end, one, other in wraps:
                # A function takes the two operands: what wraps both at once is outside.
                inner = int(one.startswith("norvmutants::"))
                before.append((start, 1, start - end, inner, index, one.replace("@", str(number))))
                after.append((end, 0, end - start, -inner, -index, other.replace("@", str(number))))
            for place, words in others.items():
                instead[place[0]] = (place[1], words.replace("@", str(number)), index)
        # At one place all that ends there, the shortest first, comes before what begins there, the longest first.
        signs = after + before + [(place, 2, 0, 0, index, words) for place, (_, words, index) in instead.items()]
        out, position, length, places = [], 0, 0, {}

        def put(words):
            nonlocal length
            out.append(words)
            length += len(words)

        for place, what, _, _, index, words in sorted(signs):
            put(self.text[position:place])
            position = instead[place][0] if what == 2 else place
            begin = length
            put(words)
            seen = places.setdefault(abs(index), [begin, length])
            seen[1] = length
        put(self.text[position:])
        return "".join(out), places
