# SPDX-License-Identifier: Apache-2.0
"""Mutants: sources with one small fault each.

The text is not parsed. Comments, texts and preprocessor lines are blanked out, and what is
left is in the form that clang-format gives it: a comparison has blanks around it, a template's
bracket has none. What does not compile is nobody's loss: it is not counted.
"""
import dataclasses
import re

NOT_CODE = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)"|"(?:\\.|[^"\\\n])*"|(?<![\w])\'(?:\\.|[^\'\\\n])+\''
    r"|^[ \t]*#(?:\\\n|[^\n])*", re.DOTALL | re.MULTILINE)
CONDITION = re.compile(r"\b(if|while) \(")
DECLARATION = re.compile(r"^\s*(const\s+)?[\w:<>, ]+[\s*&]+\w+\s*(=[^=]|\{)")
LEAVES = re.compile(r"\b(return|throw|_exit|exit|break|continue|goto)\b")
CALL = re.compile(r"(?<=[;{})])\s*(?P<call>(?:[\w:]+(?:\.|->))*[\w:]+(?:<[\w:, ]+>)?)(?=\()")
KEYWORDS = {"if", "for", "while", "switch", "return", "throw", "catch", "sizeof", "static_assert", "else", "do",
            "defined", "decltype", "alignas", "noexcept", "operator", "constexpr"}
# Only what is added or given as a value: sizes of buffers and patience are rarely exact.
NUMBER = re.compile(r"(?<= [-+=] )(?:0x[0-9a-fA-F']+|\d[\d']*)(?=[uUlL]*(?![\w.']))")
RETURN = re.compile(r"\breturn (?=[^;{])")
SWAPS = {  # what an operator becomes, and what that fault is called
    " == ": (" != ", "condition turned"), " != ": (" == ", "condition turned"),
    " && ": (" || ", "condition turned"), " || ": (" && ", "condition turned"),
    " < ": (" <= ", "bound moved"), " <= ": (" < ", "bound moved"),
    " > ": (" >= ", "bound moved"), " >= ": (" > ", "bound moved"),
}
OPERATOR = re.compile("|".join(re.escape(operator) for operator in SWAPS))
OLD = "@"  # where the text that is replaced goes
NOTHING = "{}"  # no statement; or the value that a type has without one
SAME = {"nullptr", "std::nullopt", '""'}  # as nothing, where they are returned
RETURNED = {"true": "false", "false": "true", "0": "1", "1": "0", "-1": "0"}
COMPARES = re.compile(r"^!|==|!=|&&|\|\|| [<>]=? ")
BRACE = re.compile(r"[{};]")
TYPE = re.compile(r"\b(?:class|struct|union)\s+(?:alignas\([^)]*\)\s+|\[\[[^\]]*\]\]\s+)*(\w+)(?:\s+final)?(?:\s*:[^:].*)?\s*$", re.DOTALL)
FUNCTION = re.compile(r"[^=]*?(?P<name>[\w:~]*\boperator(?:\(\)|[^\s\w(]+)|[\w:~]+)\s*\(", re.DOTALL)
GOES_ON = re.compile(r"\s*[,{]")  # behind a member's value in a constructor's head


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    start: int  # what is replaced, as places in the text
    end: int
    new: str
    kind: str
    line: int
    scope: str  # the function or type that it lies in, as "Type::function"; empty outside
    before: str  # the lines that change, joined into one
    after: str

    def apply(self, text):
        return text[:self.start] + self.new + text[self.end:]

    def place(self):
        return f"{self.file}:{self.line}, {self.scope}" if self.scope else f"{self.file}:{self.line}"

    def __str__(self):
        return f"{self.place()}: {self.kind}\n  - {self.before}\n  + {self.after}"


def blanked(text):
    """The text with everything that is no code as blanks, of the same length."""
    return NOT_CODE.sub(lambda match: re.sub(r"[^\n]", " ", match[0]), text)


def closing(code, start):
    """The place behind the bracket that closes the one at start; None without one."""
    depth = 0
    for place in range(start, len(code)):
        depth += {"(": 1, "[": 1, "{": 1, ")": -1, "]": -1, "}": -1}.get(code[place], 0)
        if depth == 0:
            return place + 1
    return None


def end_of_statement(code, start):
    """The place of the semicolon that ends what begins at start; None without one."""
    place = start
    while place < len(code) and code[place] != ";":
        if code[place] in "([{":
            place = closing(code, place) or len(code)
        elif code[place] in ")]}":
            return None
        else:
            place += 1
    return place if place < len(code) else None


def body_leaves(code, start):
    """Whether what a condition guards ends by leaving: a return, an exception ..."""
    start += len(code[start:]) - len(code[start:].lstrip())
    end = closing(code, start) if code[start] == "{" else end_of_statement(code, start)
    return bool(LEAVES.search(code[start:end or start]))


def condition_faults(code):
    for match in CONDITION.finditer(code):
        opening = match.end() - 1
        end = closing(code, opening)
        if end is None:
            continue
        first = end_of_statement(code, match.end())  # "if (int x = f(); x < 0)"
        start = first + 2 if first is not None and first < end else match.end()
        condition = code[start:end - 1]
        if DECLARATION.match(condition) or not condition.strip():
            continue
        yield start, end - 1, f"!({OLD})", "condition turned"
        if match[1] == "if" and body_leaves(code, end):
            yield start, end - 1, f"false && ({OLD})", "error branch skipped"


def one_more(number):
    if re.fullmatch("0[0-7]+", number):  # rights of files
        return f"0{int(number, 8) + 1:o}"
    return str(int(number, 0) + 1)


def operator_faults(code):
    for match in OPERATOR.finditer(code):
        yield match.start(), match.end(), SWAPS[match[0]][0], SWAPS[match[0]][1]
    for match in NUMBER.finditer(code):
        yield match.start(), match.end(), one_more(match[0].replace("'", "")), "bound moved"



def call_faults(code):
    for match in CALL.finditer(code):
        if match["call"] in KEYWORDS:
            continue
        end = closing(code, match.end())
        while end is not None and (chained := re.match(r"(?:\.|->)\w+(?=\()", code[end:])):
            end = closing(code, end + chained.end())
        if end is not None and code[end:end + 1] == ";":
            yield match.start("call"), end + 1, NOTHING, "call left out"


def return_faults(code):
    for match in RETURN.finditer(code):
        end = end_of_statement(code, match.end())
        if end is None:
            continue
        value = code[match.end():end].strip()
        if value in RETURNED:
            new = RETURNED[value]
        elif re.fullmatch(r"\d+", value):
            new = str(int(value) + 1)
        elif COMPARES.search(re.sub(r"\[.*", "", value)):
            new = f"!({OLD})"
        else:
            new = NOTHING
        yield match.end(), end, new, "return changed"


def name_of_scope(head, inside_function):
    """(name, whether it is a function) of what a brace opens; no name for statements, tables and namespaces."""
    if inside_function:
        return "", False
    if match := TYPE.search(head):
        return match[1], False
    match = FUNCTION.match(head)
    return (match["name"], True) if match and match["name"] not in KEYWORDS else ("", False)


def scopes(code):
    """(start, end, name) of types and functions, what is inside before what is around it."""
    opened, begin = [], 0  # (start, where its head begins, name, whether it is a function)
    for match in BRACE.finditer(code):
        place = match.start()
        if match[0] == "{":
            name, function = name_of_scope(code[begin:place], any(each[3] for each in opened))
            opened.append((place, begin, name, function))
            begin = place + 1
        elif match[0] == "}" and opened:
            start, head, name, _ = opened.pop()
            head_goes_on = name and GOES_ON.match(code, place + 1)
            if name and not head_goes_on:
                yield start, place, "::".join([*(each[2] for each in opened if each[2]), name])
            begin = head if head_goes_on else place + 1
        elif match[0] == ";":
            begin = place + 1


def line_range(text, start, end):
    first = text.rfind("\n", 0, start) + 1
    last = text.find("\n", max(start, end - 1))
    return first, len(text) if last < 0 else last


def make(file, text):
    """All mutants of a text, in the order of their places."""
    code = blanked(text)
    found, named = {}, list(scopes(code))
    for faults in (condition_faults, operator_faults, call_faults, return_faults):
        for start, end, new, kind in faults(code):
            written = new.replace(OLD, text[start:end])
            first, last = line_range(text, start, end)
            before = " ".join(text[first:last].split())
            after = " ".join((text[first:start] + written + text[end:last]).split())
            if "static_assert" not in before and not (new == NOTHING and text[start:end].strip() in SAME):
                scope = next((name for first, last, name in named if first <= start < last), "")
                found.setdefault((start, end, written), Mutant(
                    file, start, end, written, kind, text.count("\n", 0, start) + 1, scope, before, after))
    return sorted(found.values(), key=lambda mutant: (mutant.start, mutant.end, mutant.new))
