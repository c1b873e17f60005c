#!/usr/bin/env python3
"""The log vocabulary: every message of the library is in the list, and every listed one in the library.

Usage: messages.py LIST SOURCE-DIRECTORY
A row of the list is MODULE, PRIORITY (err or debug) and the text as the source spells it, separated by tabs.
The module is the source file's name, or its folder's.
"""

import os
import re
import sys

LITERAL = r'"(?:\\.|[^"\\])*"'
CALL = re.compile(r"\.\s*(fail|error|debug)\(\s*(" + LITERAL + r"|\w+)\s*(" + LITERAL + ")?")
CONSTANT = re.compile(r"\b(\w+)\[\]\s*=\s*(" + LITERAL + ")")
# A text that is handed to the log by way of a table or a variable.
INDIRECT = re.compile(r'"((?:Fail|fail|Falied|Unknown|Bad )(?:\\.|[^"\\])*)"')


def without_comments(text):
    pattern = re.compile(LITERAL + r"|//[^\n]*|/\*.*?\*/", re.DOTALL)
    return pattern.sub(lambda found: found.group() if found.group().startswith('"') else " ", text)


def module_of(path, directory):
    first = os.path.relpath(path, directory).split(os.sep)[0]
    return re.sub(r"\.(cpp|h)$", "", first)


def messages_of(path, module, complaints):
    """The (module, priority, text) that a source file logs; priority None: by way of a variable."""
    with open(path, encoding="utf-8") as file:
        text = without_comments(file.read())
    constants = {name: literal[1:-1] for name, literal in CONSTANT.findall(text)}
    found = set()
    for kind, argument, continued in CALL.findall(text):
        priority = "debug" if kind == "debug" else "err"
        if continued:
            complaints.append(f"{path}: {argument} is continued by another literal")
        if argument.startswith('"'):
            if argument != '"%s"':
                found.add((module, priority, argument[1:-1]))
        elif argument in constants:
            found.add((module, priority, constants[argument]))
        else:
            complaints.append(f"{path}: the text of {kind}({argument}...) is not known")
    direct = {message[2] for message in found}
    found |= {(module, None, literal) for literal in INDIRECT.findall(text) if literal not in direct}
    return found


def listed(path):
    rows = []
    with open(path, encoding="utf-8") as file:
        for line in file.read().splitlines():
            if line and not line.startswith("#"):
                rows.append(tuple(line.split("\t")))
    return rows


def main(path, directory):
    complaints = []
    rows = listed(path)
    complaints += [f"{row} is not a row of three columns" for row in rows if len(row) != 3]
    complaints += [f"{row} is listed twice" for row in sorted(set(rows)) if rows.count(row) > 1]
    found = set()
    for folder, _, files in os.walk(directory):
        for name in sorted(files):
            if name.endswith((".cpp", ".h")) and not name.startswith("log."):
                source = os.path.join(folder, name)
                found |= messages_of(source, module_of(source, directory), complaints)
    known = set(rows) | {(row[0], None, row[2]) for row in rows if len(row) == 3}
    spelled = found | {(module, "err", text) for module, priority, text in found if priority is None}
    complaints += [f"not listed: {message}" for message in sorted(found - known, key=str)]
    complaints += [f"not in the sources: {row}" for row in rows if row not in spelled]
    print("\n".join(complaints))
    return 1 if complaints or not found else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
