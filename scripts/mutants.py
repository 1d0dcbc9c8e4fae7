"""The mutation operators of scripts/mutate, on C++ source text (stdlib only).

A mutant is one replacement of a span of the file. Comments, string and
character literals and preprocessor lines are never touched, and a
replacement keeps the number of lines, so that __LINE__ in the log calls of
the lines below does not change (an unchanged object file then means an
equivalent mutant).
"""
import re
from dataclasses import dataclass

KEYWORDS = {
    "alignas", "alignof", "auto", "bool", "break", "case", "catch", "char", "class", "const", "constexpr",
    "const_cast", "continue", "decltype", "default", "delete", "do", "double", "dynamic_cast", "else", "enum",
    "explicit", "extern", "false", "float", "for", "friend", "goto", "if", "inline", "int", "long", "mutable",
    "namespace", "new", "noexcept", "nullptr", "operator", "private", "protected", "public", "register",
    "reinterpret_cast", "return", "short", "signed", "sizeof", "static", "static_assert", "static_cast",
    "struct", "switch", "template", "this", "throw", "true", "try", "typedef", "typeid", "typename", "union",
    "unsigned", "using", "virtual", "void", "volatile", "while",
}

RELATIONAL = {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"], "==": ["!="], "!=": ["=="]}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*="}
UPDATE = {"++": "--", "--": "++"}
LOGICAL = {"&&": "||", "||": "&&"}

_TOKEN = re.compile(r"""
    (?P<ws>[ \t\r\f\v]+|\n)
  | (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<string>(?:u8|[uUL])?"(?:[^"\\\n]|\\.)*")
  | (?P<char>(?:u8|[uUL])?'(?:[^'\\\n]|\\.)*')
  | (?P<number>(?:0[xX][0-9a-fA-F']+|[0-9][0-9']*(?:\.[0-9']*)?(?:[eE][+-]?[0-9]+)?|\.[0-9]+)[a-zA-Z_]*)
  | (?P<ident>[A-Za-z_][A-Za-z_0-9]*)
  | (?P<op>>>=|<<=|->\*|\.\.\.|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%^&|]=|[-+*/%<>=!~^&|?:;,.(){}\[\]])
  | (?P<other>.)
""", re.VERBOSE | re.DOTALL)


@dataclass
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclass
class Mutant:
    operator: str
    start: int          # offsets into the text: [start, end) is replaced
    end: int
    original: str
    replacement: str
    line: int = 0       # 1-based, of start and of end (inclusive)
    column: int = 0
    end_line: int = 0
    end_column: int = 0

    def apply(self, text):
        return text[:self.start] + self.replacement + text[self.end:]

    def describe(self):
        """The change on one line, for a person: `a < b` -> `a <= b`."""
        def one(s):
            s = " ".join(s.split())
            return s if len(s) <= 60 else s[:57] + "..."
        return "%s -> %s" % (one(self.original) or "(nothing)", one(self.replacement) or "(nothing)")


def tokenize(text):
    """The code tokens of text, without blanks, comments and preprocessor lines."""
    tokens = []
    at_line_start = True
    pos = 0
    n = len(text)
    while pos < n:
        if at_line_start:
            m = re.compile(r"[ \t]*#").match(text, pos)
            if m:
                # A directive, with its backslash continuations.
                end = pos
                while True:
                    nl = text.find("\n", end)
                    if nl == -1:
                        end = n
                        break
                    if text[nl - 1:nl] == "\\":
                        end = nl + 1
                        continue
                    end = nl
                    break
                pos = end
                continue
        m = _TOKEN.match(text, pos)
        kind = m.lastgroup
        if kind == "ws":
            at_line_start = m.group() == "\n"
        elif kind == "comment":
            # A block comment that ends a line keeps the next line's start.
            pass
        else:
            at_line_start = False
            tokens.append(Token(kind, m.group(), m.start(), m.end()))
        pos = m.end()
    return tokens


def _template_brackets(tokens):
    """Indices of the < and > (or >>) tokens that bracket template arguments."""
    marked = set()
    allowed = {"::", ",", "*", "&", "<", ">", ">>", "(", ")"}
    for i, t in enumerate(tokens):
        if t.text != "<" or i == 0 or tokens[i - 1].kind != "ident" or i in marked:
            continue
        if tokens[i - 1].text == "operator":
            continue
        depth = 0
        inner = []
        paren = 0
        for j in range(i, min(len(tokens), i + 40)):
            u = tokens[j]
            if u.text == "<" and (j == i or tokens[j - 1].kind == "ident"):
                depth += 1
                inner.append(j)
            elif u.text in (">", ">>"):
                if paren:
                    break
                closes = 1 if u.text == ">" else 2
                depth -= closes
                inner.append(j)
                if depth <= 0:
                    if depth == 0:
                        marked.update(inner)
                    break
            elif u.text == "(":
                paren += 1
            elif u.text == ")":
                paren -= 1
                if paren < 0:
                    break
            elif u.kind in ("ident", "number") or u.text in allowed:
                continue
            else:
                break
    return marked


def _operand_end(t):
    return t.kind in ("ident", "number", "string", "char") and t.text not in KEYWORDS - {"this", "true", "false", "nullptr"} \
        or t.text in (")", "]")


def _matching(tokens, i):
    """Index of the bracket that closes tokens[i], or None."""
    opening = tokens[i].text
    closing = {"(": ")", "[": "]", "{": "}"}[opening]
    depth = 0
    for j in range(i, len(tokens)):
        if tokens[j].text == opening:
            depth += 1
        elif tokens[j].text == closing:
            depth -= 1
            if depth == 0:
                return j
    return None


def _static_assert_tokens(tokens):
    skip = set()
    for i, t in enumerate(tokens):
        if t.text == "static_assert" and i + 1 < len(tokens) and tokens[i + 1].text == "(":
            j = _matching(tokens, i + 1)
            if j is not None:
                skip.update(range(i, j + 1))
    return skip


def _number_replacements(text):
    m = re.fullmatch(r"(0|[1-9][0-9]*)([uUlL]*)", text)
    if not m:
        return []
    value, suffix = int(m.group(1)), m.group(2)
    if value == 0:
        return ["1" + suffix]
    if value == 1:
        return ["0" + suffix]
    return [str(value + 1) + suffix, str(value - 1) + suffix]


def _call_statement_end(tokens, i):
    """If a statement that is one call, `a.b->c::f(...);`, starts at
    tokens[i], the index of its `)`; else None."""
    t = tokens[i]
    if t.kind != "ident" or t.text in KEYWORDS - {"this"}:
        return None
    j = i + 1
    while j + 1 < len(tokens) and tokens[j].text in ("::", ".", "->") and tokens[j + 1].kind == "ident":
        j += 2
    if j >= len(tokens) or tokens[j].text != "(":
        return None
    close = _matching(tokens, j)
    if close is None or close + 1 >= len(tokens) or tokens[close + 1].text != ";":
        return None
    return close


def generate(text):
    """Every mutant of text, in the order of the file."""
    tokens = tokenize(text)
    templates = _template_brackets(tokens)
    skip = _static_assert_tokens(tokens)
    found = []

    def add(op, first, last, replacement):
        found.append(Mutant(op, tokens[first].start, tokens[last].end,
                            text[tokens[first].start:tokens[last].end], replacement))

    for i, t in enumerate(tokens):
        if i in skip:
            continue
        prev = tokens[i - 1] if i else None
        nxt = tokens[i + 1] if i + 1 < len(tokens) else None
        binary = prev is not None and _operand_end(prev) and (prev.text != "operator")
        if prev is not None and prev.text == "operator":
            continue

        if t.text in RELATIONAL and i not in templates and binary:
            for r in RELATIONAL[t.text]:
                add("RelationalOperatorReplacement", i, i, r)
        elif t.text in LOGICAL and binary:
            add("LogicalConnectorReplacement", i, i, LOGICAL[t.text])
        elif t.text in ARITHMETIC and binary and nxt is not None:
            if t.text == "*" and not (prev.kind == "number" or nxt.kind == "number" or prev.text in (")", "]")):
                continue  # a pointer declaration looks the same: `char *p`
            add("ArithmeticOperatorReplacement", i, i, ARITHMETIC[t.text])
        elif t.text in UPDATE:
            add("UpdateOperatorReplacement", i, i, UPDATE[t.text])
        elif t.kind == "number":
            for r in _number_replacements(t.text):
                add("ConstantReplacement", i, i, r)
        elif t.text in ("true", "false"):
            add("ConstantReplacement", i, i, "false" if t.text == "true" else "true")
        elif t.text in ("if", "while") and nxt is not None and nxt.text == "(":
            if prev is not None and prev.text == "}" and t.text == "while":
                continue  # the end of a do-while: kept simple, not mutated
            close = _matching(tokens, i + 1)
            if close is not None and close > i + 2 and _negatable(tokens[i + 2:close]):
                inner = text[tokens[i + 2].start:tokens[close - 1].end]
                found.append(Mutant("NegateCondition", tokens[i + 2].start, tokens[close - 1].end, inner,
                                    "!(" + inner + ")"))

        if prev is None or prev.text in (";", "{", "}", "else") or \
                (prev.text == ":" and i >= 2 and tokens[i - 2].kind in ("ident", "number")) or \
                (prev.text == ")" and _closes_condition(tokens, i - 1)):
            close = _call_statement_end(tokens, i)
            if close is not None and not any(k in skip for k in range(i, close + 1)):
                span = text[t.start:tokens[close].end]
                found.append(Mutant("RemoveCallStatement", t.start, tokens[close].end, span,
                                    "\n" * span.count("\n")))
    _locate(text, found)
    return found


def _negatable(cond):
    """Whether negating the condition cond (its tokens) makes a mutant of its
    own: not a declaration (`if (T *p = f())`, `if (x; y)`), and not one
    comparison by == or !=, which the relational operator already turns."""
    texts = [t.text for t in cond]
    if ";" in texts:
        return False
    if cond[0].text in KEYWORDS - {"this", "true", "false", "nullptr", "sizeof"}:
        return False
    j = 0
    while j + 1 < len(cond) and cond[j].kind == "ident" and cond[j + 1].text in ("::", "<", ">", ","):
        j += 2
    k = j + 1
    while k < len(cond) and cond[k].text in ("*", "&"):
        k += 1
    if cond[j].kind == "ident" and k + 1 < len(cond) and cond[k].kind == "ident" and cond[k + 1].text == "=":
        return False
    equalities = sum(1 for t in texts if t in ("==", "!="))
    connectors = sum(1 for t in texts if t in ("&&", "||", "?"))
    return not (equalities == 1 and connectors == 0)


def _closes_condition(tokens, close):
    depth = 0
    for j in range(close, -1, -1):
        if tokens[j].text == ")":
            depth += 1
        elif tokens[j].text == "(":
            depth -= 1
            if depth == 0:
                return j > 0 and tokens[j - 1].text in ("if", "while", "for")
    return False


def _locate(text, mutants):
    starts = [0]
    for m in re.finditer("\n", text):
        starts.append(m.end())
    import bisect

    def where(offset):
        line = bisect.bisect_right(starts, offset) - 1
        return line + 1, offset - starts[line] + 1
    for m in mutants:
        m.line, m.column = where(m.start)
        m.end_line, m.end_column = where(m.end)


def changed_lines(diff_text):
    """{path: set of lines} that a `git diff -U0` output adds or changes."""
    result = {}
    path = None
    for line in diff_text.splitlines():
        if line.startswith("+++ "):
            name = line[4:]
            path = name[2:] if name.startswith("b/") else None
        elif line.startswith("@@") and path:
            m = re.match(r"@@ -\S+ \+(\d+)(?:,(\d+))? @@", line)
            first, count = int(m.group(1)), int(m.group(2) or "1")
            result.setdefault(path, set()).update(range(first, first + count))
    return result
