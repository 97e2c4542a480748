# SPDX-License-Identifier: MIT
"""Finds what can be broken in a C++ file laid out by clang-format, and breaks it.

A mutant only inserts text and no line, so that several fit into one file, each behind a switch
(mutant.h), and compilers name the lines of the original.
"""

import re
from dataclasses import dataclass

LITERAL = re.compile(r'//[^\n]*|/\*.*?\*/|R"\(.*?\)"|'
                     r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'', re.S)
DIRECTIVE = re.compile(r'^[ \t]*#(?:[^\n]*\\\n)*[^\n]*', re.M)
TYPE = re.compile(r'\b(class|struct|union|enum)\b[^()]*$')
LAMBDA = re.compile(r'(?:[=(,]|\breturn\b)\s*\[[^\]]*\][^;]*$')
LABEL = re.compile(r'\s*(?:else\b|do\b|default\s*:|case\s[^;{}]*?[^:]:(?!:)|'
                   r'(?:if|for|while|switch)\s*(?:constexpr\s*)?(?=\())')
DECLARATION = re.compile(r'\s*(?:const\s+)?(?:auto|[A-Z][\w:<>]*|[a-z][\w:]*::[\w:<>]+)\s*'
                         r'(?:[&*]\s*)?(?:const\s+)?\w+\s*=[^=]')
OTHER = {'return', 'break', 'continue', 'throw', 'goto', 'using', 'typedef', 'static_assert', 'asm'}
CHECK = re.compile(r'Q_\w+$|QT_\w+$|HWY_\w+$')
NAME = re.compile(r'(?:::)?[A-Za-z_]\w*(?:<[^<>;()]*>)?(?:::[A-Za-z_~]\w*(?:<[^<>;()]*>)?)*')
ACCESS = re.compile(r'(?:\.|->)~?\w+(?:<[^<>;()]*>)?|\+\+|--')
ASSIGNMENT = re.compile(r'\s*(?:[-+*/%|&^]|<<|>>)?=(?!=)')


@dataclass(frozen=True)
class Mutant:
    path: str
    line: int
    kind: str
    text: str  # the original, for people
    edits: tuple  # of (offset, text with {id}, depth: wider edits stand further outside)


def blanked(source):
    """The source with everything blank that is no code, at the same offsets."""
    def blank(match):
        text = match.group()
        inner = re.sub(r'[^\n]', ' ', text[1:-1])
        return '0' + inner + '0' if text[0] in '"\'' else ' ' + inner + ' '
    code = LITERAL.sub(blank, source)
    return DIRECTIVE.sub(lambda m: re.sub(r'[^\n]', ' ', m.group()), code)


def closing(code, opening):
    """The offset of the parenthesis that closes the one at `opening`."""
    depth = 0
    for i in range(opening, len(code)):
        depth += {'(': 1, '[': 1, '{': 1, ')': -1, ']': -1, '}': -1}.get(code[i], 0)
        if depth == 0:
            return i
    raise ValueError('unbalanced')


def statements(code):
    """Yields (begin, end) of what ends in a semicolon, or is the head of a block, in functions that
    run: without those that a compiler may call."""
    stack = [['outer', 0, 0]]  # what is inside, begin of the current statement, open parentheses
    for i, character in enumerate(code):
        top = stack[-1]
        if character in '([':
            top[2] += 1
        elif character in ')]':
            top[2] -= 1
        elif character == '{':
            head = code[top[1]:i].strip()
            kind = top[0]
            if 'constexpr' in head:
                kind = 'constant'
            elif TYPE.search(head) or head.startswith('namespace') or head.startswith('extern 0'):
                kind = 'outer' if kind == 'outer' else 'constant'
            elif '(' in head:
                kind = 'code' if kind != 'constant' else kind
            is_block = top[2] == 0 and not LAMBDA.search(head) and (
                head == '' or kind != top[0] or head[-1] in ':)' or
                re.search(r'\b(else|do|try|noexcept|const|override)$', head))
            if is_block and top[0] == 'code':
                yield top[1], i
            stack.append([kind, i + 1, 0, is_block])
        elif character == '}':
            is_block = stack.pop()[3]
            if is_block:
                stack[-1][1] = i + 1
        elif character == ';' and top[2] == 0:
            if top[0] == 'code':
                yield top[1], i + 1
            top[1] = i + 1


def without_heads(code, begin, end):
    """Where the statement behind its labels and conditions begins."""
    while match := LABEL.match(code, begin, end):
        begin = match.end()
        if begin < end and code[begin] == '(':
            begin = closing(code, begin) + 1
    return begin + len(code[begin:end]) - len(code[begin:end].lstrip())


def is_expression(code, begin, end):
    """Whether a statement calls or assigns, so that it can be left out."""
    match = re.compile(r'(?:emit\s+|delete\s+|\+\+|--|\*)?').match(code, begin)
    name = NAME.match(code, match.end(), end)
    if not name or name.group() in OTHER or CHECK.match(name.group()):
        return False
    place = name.end()
    while place < end:
        if code[place] in '([':
            place = closing(code, place) + 1
        elif accessed := ACCESS.match(code, place, end):
            place = accessed.end()
        else:
            break
    is_bare = place == name.end() and match.group() == ''
    return bool(ASSIGNMENT.match(code, place, end)) or (code[place] == ';' and not is_bare)


def conditions(code, begin, end):
    for match in re.compile(r'\b(?:if|while) (?=\()').finditer(code, begin, end):
        first = match.end() + 1
        last = closing(code, match.end())
        first = max(first, code.rfind(';', first, last) + 1)
        if last <= end and not DECLARATION.match(code, first, last):
            yield first, last


def bounds(code, begin, end):
    for match in re.compile(r'(?<=[\w)\]]) (?:<=?|>=?)(?=\s)').finditer(code, begin, end):
        # `i + lanes <= frames` asks for a whole vector; the rest's loop does alike what it leaves.
        if not re.search(r'; \w+ \+ [\w* ]+$', code[begin:match.start()]):
            yield match


def extremes(code, begin, end):
    for match in re.compile(r'\bstd::(min|max)\b(?:<[^()<>]*>)?(?=\()').finditer(code, begin, end):
        yield match, closing(code, match.end()) + 1


def find(path, source):
    """Every mutant of a file, in a fixed order."""
    code = blanked(source)
    found = []

    def add(kind, begin, end, *edits):
        text = ' '.join(source[begin:end].split())
        found.append(Mutant(path, source.count('\n', 0, begin) + 1, kind, text, edits))

    for begin, end in statements(code):
        for first, last in conditions(code, begin, end):
            width = last - first
            add('condition negated', first, last, (first, 'Mutant::isOn({id}) != bool(', -width),
                (last, ')', width))
        for match in bounds(code, begin, end):
            line_end = source.find('\n', match.end())
            line_begin = source.rfind('\n', 0, match.start()) + 1
            text = (f'{source[line_begin:match.start()].strip()} «{match.group().strip()}» '
                    f'{source[match.end():line_end].strip()}')
            line = source.count('\n', 0, match.start()) + 1
            found.append(Mutant(path, line, 'bound swapped', text,
                                ((match.end(), ' Mutant::bound({id}) >', 0),)))
        for match, last in extremes(code, begin, end):
            other = 'max' if match.group(1) == 'min' else 'min'
            swapped = ('std::' + other + source[match.end(1):last]).replace('\n', ' ')
            swapped = swapped.replace('{', '{{').replace('}', '}}')
            width = last - match.start()
            add('min and max swapped', match.start(), last,
                (match.start(), '(Mutant::isOn({id}) ? ' + swapped + ' : ', -width),
                (last, ')', width))
        first = without_heads(code, begin, end)
        if code[end - 1] == ';' and is_expression(code, first, end):
            width = end - first
            add('statement dropped', first, end, (first, '{{ if (!Mutant::isOn({id})) ', -width),
                (end, ' }}', width))
    return found


def broken(source, numbered):
    """The source with all those mutants, `numbered` as {id: mutant}, behind their switches."""
    edits = sorted(((offset, width, text.format(id=number)) for number, mutant in numbered.items()
                    for offset, text, width in mutant.edits), key=lambda edit: edit[:2])
    parts, place = ['#include <mutant.h>\n#line 1\n'], 0
    for offset, _, text in edits:
        parts += source[place:offset], text
        place = offset
    return ''.join(parts) + source[place:]
