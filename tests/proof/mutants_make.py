"""Where the daemon's code can be broken, and how. Works on the text of a source as clang-format leaves it: an operator
with a blank on either side is a binary one, a '<' without is a template's. Used by mutants.py."""

import math
import random
import re
from dataclasses import dataclass

KINDS = ("constant", "comparison", "arithmetic", "logic", "negation", "branch", "call")

# Texts for whoever debugs, not for users: nothing depends on them.
DEBUG_OUTPUT = r"\b(?:std::)?(?:printf0|printf1|perror|Ea_log|ea_error)\("
# Counts that are only asked whether they are 0.
COUNTS = r"\b(?:failures|lost|errors) $"

COMPARISONS = {"==": ("!=",), "!=": ("==",), "<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<")}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "|": "&", "&": "|", "<<": ">>", ">>": "<<", "^": "&",
              "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "%=": "*=", "|=": "&=", "&=": "|="}
LOGIC = {"&&": "||", "||": "&&"}
SHORT = 24  # characters of a line that does not tell enough
KEYWORDS = {"if", "while", "for", "switch", "return", "sizeof", "catch", "static_assert", "alignas", "decltype",
            "defined", "else", "do"}


@dataclass(frozen=True)
class Mutant:
    file: str   # below the root of the tree
    line: int
    kind: str
    begin: int  # of the text replaced, in the source
    end: int
    new: str
    change: str  # "old -> new" of the lines concerned, blanks made single

    def key(self):
        """Names it in what is kept; the same text may stand in a file twice."""
        return f"{self.file}:{self.line}: {self.change}"

    def apply(self, text):
        return text[:self.begin] + self.new + text[self.end:]


def blank(text):
    return re.sub(r"[^\n]", " ", text)


def closing(text, at):
    """The end of the bracket that opens at `at`, behind it; -1 when there is none."""
    pairs, depth = {"(": ")", "{": "}", "[": "]", "<": ">"}, 0
    opener, closer = text[at], pairs[text[at]]
    for i in range(at, len(text)):
        if text[i] == opener:
            depth += 1
        elif text[i] == closer:
            depth -= 1
            if depth == 0:
                return i + 1
    return -1


TOKEN = re.compile(r'''//[^\n]*|/\*.*?\*/|R"(?P<d>[^(]*)\(.*?\)(?P=d)"|"(?:\\.|[^"\\\n])*"|(?<![0-9A-Fa-f])'(?:\\.|[^'\\\n])+\'''',
                   re.S)


def code_only(text):
    """The same text with blanks for comments, for what is within quotes, for the preprocessor's lines, static_assert,
    debug output and the arguments of templates; and the character literals, as matches."""
    characters = []

    def token(match):
        piece = match.group()
        if piece[0] in "\"R":
            return '"' + blank(piece[1:-1]) + '"'
        if piece[0] == "'":
            characters.append(match)
            return "'" + blank(piece[1:-1]) + "'"
        return blank(piece)

    code = TOKEN.sub(token, text)
    code = re.sub(r"(?m)^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", lambda m: blank(m.group()), code)
    for pattern in (r"\bstatic_assert\(", DEBUG_OUTPUT, r"\balignas\(", r"\[\["):
        for match in reversed(list(re.finditer(pattern, code))):
            end = closing(code, match.end() - 1 if pattern != r"\[\[" else match.start())
            if end > 0:
                code = code[:match.start()] + blank(code[match.start():end]) + code[end:]
    for match in reversed(list(re.finditer(r"(?<=\w)<(?=[\w:(])", code))):
        end = closing(code, match.start())
        if 0 < end and ";" not in code[match.start():end]:
            code = code[:match.start()] + blank(code[match.start():end]) + code[end:]
    return code, [c for c in characters if code[c.start()] == "'"]


def definitions(code):
    """Of a header, what is no declaration: constants and inline functions."""
    spans = []
    for match in re.finditer(r"(?m)^(?:static |inline |constexpr )+", code):
        i, depth = match.end(), 0
        while i < len(code):
            if code[i] in "({[":
                depth += 1
            elif code[i] in ")}]":
                depth -= 1
                if code[i] == "}" and depth == 0 and not re.match(r"\s*[;,]", code[i + 1:]):
                    break
            elif code[i] == ";" and depth == 0:
                break
            i += 1
        spans.append((match.start(), i + 1))
    return spans


def code_lines(text, header):
    code, _ = code_only(text)
    if header:
        code = "\n".join(code[a:b] for a, b in definitions(code))
    return sum(1 for line in code.split("\n") if re.search(r"\w", line))


def other_number(match, rng):
    text, suffix = match.group(1), match.group(2)
    value = int(text.replace("'", ""), 16 if text[:2] in ("0x", "0X") else 10)
    new = value + (1 if value == 0 else rng.choice((-1, 1)))
    return (f"0x{new:X}" if text[:2] in ("0x", "0X") else str(new)) + suffix


def statement_calls(code):
    """Calls that are a whole statement: (begin, end with the semicolon)."""
    for match in re.finditer(r"(?m)^[ \t]+((?:\(void\)\s*)?(?:[A-Za-z_][\w]*(?:::|\.|->))*[A-Za-z_]\w*)\(", code):
        if match.group(1) in KEYWORDS:
            continue
        before = code[:match.start()].rstrip()
        if not (before.endswith((";", "{", "}", ":", ")")) or re.search(r"\belse$", before)):
            continue
        end = closing(code, match.end() - 1)
        if end > 0 and code[end:end + 1] == ";":
            yield match.start(1), end + 1


def conditions(code):
    """What stands in the brackets of an if: (begin, end, whether an else follows)."""
    for match in re.finditer(r"\bif \(", code):
        end = closing(code, match.end() - 1)
        if end < 0:
            continue
        begin, depth = match.end(), 0
        for i in range(match.end(), end - 1):
            depth += (code[i] in "({[") - (code[i] in ")}]")
            if code[i] == ";" and depth == 0:
                begin = i + 1
        rest = code[end:].lstrip()
        if rest.startswith("{"):
            body = closing(rest, 0)
        elif re.match(r"(if|for|while|switch)\b", rest):
            body = -1
        else:
            body = rest.find(";") + 1
        yield begin, end - 1, body > 0 and re.match(r"\s*else\b", rest[body:]) is not None


def choices(code):
    """A ? B : C as (begin of B, end of B, begin of C, end of C)."""
    for match in re.finditer(r"\s\? ", code):
        depth, nested, colon, end = 0, 0, -1, -1
        for i in range(match.end(), len(code)):
            depth += code[i] in "({["
            if code[i] in ")}]":
                depth -= 1
                if depth < 0:
                    end = i
                    break
            if depth == 0 and code[i] in ";,":
                end = i
                break
            if depth == 0 and re.match(r"\s\? ", code[i:i + 3]):
                nested += 1
            if depth == 0 and re.match(r"\s: ", code[i:i + 3]):
                if nested == 0 and colon < 0:
                    colon = i
                nested -= nested > 0
        if 0 < colon < end:
            yield match.end(), colon, colon + 3, end


def changes(text, rng):
    """Every change that makes sense: (kind, begin, end, new text)."""
    code, characters = code_only(text)
    for match in re.finditer(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlLzZ]*)(?![\w.'])", code):
        before = code[max(0, match.start() - 80):match.start()]
        if re.search(r"\w[\s*&]+\w+\[$", before) and not re.search(r"\b(return|case)\s+\w+\[$", before):
            continue  # the length of an array
        if re.search(r"\breturn -?$", before) and match.group() in ("0", "1") and code[match.end()] == ";":
            begin = match.start() - before.endswith("-")
            yield "constant", begin, match.end(), "-1" if match.group() == "0" else "0"
            continue
        if re.search(r"[^\w\s)\]] ?-$|\breturn -$", before) and match.group() == "1":
            yield "constant", match.start() - 1, match.end(), "0"
            continue
        yield "constant", match.start(), match.end(), other_number(match, rng)
    for match in re.finditer(r"\b(true|false)\b", code):
        yield "constant", match.start(), match.end(), "false" if match.group() == "true" else "true"
    for match in characters:
        if re.fullmatch(r"'[^\\']'", match.group()) and match.group() not in ("'['", "'&'"):
            yield "constant", match.start(), match.end(), "'" + chr(ord(match.group()[1]) + 1) + "'"
    for match in re.finditer(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)", code):
        yield "comparison", match.start(), match.end(), rng.choice(COMPARISONS[match.group()])
    for match in re.finditer(r"(?<=\s)(<<|>>|[-+*/%|&^]=?)(?=\s)", code):
        if match.group() in ARITHMETIC and not re.search(COUNTS, code[max(0, match.start() - 80):match.start()]):
            yield "arithmetic", match.start(), match.end(), ARITHMETIC[match.group()]
    for match in re.finditer(r"\+\+|--", code):
        yield "arithmetic", match.start(), match.end(), "--" if match.group() == "++" else "++"
    for match in re.finditer(r"(?<=\s)(&&|\|\|)(?=\s)", code):
        yield "logic", match.start(), match.end(), LOGIC[match.group()]
    for match in re.finditer(r"!(?=[\w(:])", code):
        yield "negation", match.start(), match.end(), ""
    for begin, end, has_else in conditions(code):
        yield "branch" if has_else else "negation", begin, end, "!(" + text[begin:end].strip() + ")"
    for b, b_end, c, c_end in choices(code):
        yield "branch", b, c_end, text[c:c_end] + text[b_end:c] + text[b:b_end]
    for match in re.finditer(r"\b(break|continue|return);", code):
        yield "branch", match.start(), match.end(), ";"
    for begin, end in statement_calls(code):
        yield "call", begin, end, ";"


def single(text):
    return " ".join(text.split())


def mutants_of(file, text, seed):
    """All mutants of one source in the order in which they are to be tried: the kinds by turns as the seed throws
    them, so that the rare ones are not drowned by the constants."""
    rng = random.Random(f"{seed}:{file}")
    spans = definitions(code_only(text)[0]) if file.endswith(".h") else [(0, len(text))]
    by_kind = {}
    for kind, begin, end, new in changes(text, rng):
        if not any(a <= begin and end <= b for a, b in spans):
            continue
        first = text.rfind("\n", 0, begin) + 1
        last = text.find("\n", end)
        if last - first < SHORT:
            first = text.rfind("\n", 0, first - 1) + 1  # say where
        old_lines, new_lines = text[first:last], text[first:begin] + new + text[end:last]
        change = f"{single(old_lines)} -> {single(new_lines)}"
        by_kind.setdefault(kind, []).append(
            Mutant(file, text.count("\n", 0, begin) + 1, kind, begin, end, new, change))
    for kind in KINDS:
        rng.shuffle(by_kind.get(kind, []))
    ordered = []
    while any(by_kind.values()):
        kind = rng.choice([k for k in KINDS if by_kind.get(k)])
        ordered.append(by_kind[kind].pop())
    return ordered


def quotas(lines, number, seed):
    """How many mutants each file gets: in proportion to its lines of code, and one at least as long as there are enough
    for that."""
    total = sum(lines.values())
    if number < len(lines):
        start, share, passed = random.Random(seed).random(), {}, 0
        for file in sorted(lines):
            before, passed = passed, passed + number * lines[file] / total
            share[file] = math.floor(passed + start) - math.floor(before + start)
        return {file: count for file, count in share.items() if count > 0}
    exact = {file: number * count / total for file, count in lines.items()}
    share = {file: max(1, int(value)) for file, value in exact.items()}
    order = sorted(lines, key=lambda file: (share[file] - exact[file], file))
    step = 1 if sum(share.values()) < number else -1
    while sum(share.values()) != number:
        for file in order if step > 0 else reversed(order):
            if sum(share.values()) != number and (step > 0 or share[file] > 1):
                share[file] += step
    return share
