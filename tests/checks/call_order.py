#!/usr/bin/env python3
"""Which source file calls which, from the symbols that the object files really use.

Usage: call_order.py LIST PLATFORM-HEADERS-DIRECTORY OBJECT... [--write]
The list has a line for each source file: "FILE: CALLEE CALLEE ...", a callee being another source file or
a header of the platform. A call that is not listed fails, and so does one that is listed and gone.
--write replaces the list by what is used.
"""

import glob
import os
import re
import sys

from symbols import STRONG, demangle, nm, readable, source_of

HEADING = """\
# Which source file of the library calls functions of which other, or of which platform header. A line that
# is missing here is a new dependency: see whether it goes down before it is added.
"""


def platform_functions(directory):
    """Function name -> "platform/HEADER.h"."""
    functions = {}
    for path in glob.glob(os.path.join(directory, "*.h")):
        with open(path, encoding="utf-8") as file:
            text = re.sub(r"//.*|/\*.*?\*/", "", file.read())
        for name in re.findall(r"^[\w* ]+?\b(\w+)\([^)]*\)\s*;", text, re.MULTILINE):
            functions[name] = "platform/" + os.path.basename(path)
    return functions


def calls(objects, headers):
    """Source file -> callee -> the symbols it uses of it."""
    owner = platform_functions(headers)
    used = {}
    for path in objects:
        for symbol in nm(path):
            if symbol.type in STRONG:
                owner[symbol.name] = source_of(path)
            elif symbol.type == "U":
                used.setdefault(source_of(path), set()).add(symbol.name)
    result = {source_of(path): {} for path in objects}
    for source, names in used.items():
        for name in names:
            if name in owner and owner[name] != source:
                result[source].setdefault(owner[name], []).append(name)
    return result


def listed(path):
    result = {}
    with open(path, encoding="utf-8") as file:
        for line in file:
            if line.strip() and not line.startswith("#"):
                source, callees = line.split(":")
                result[source] = set(callees.split())
    return result


def write(path, found):
    with open(path, "w", encoding="utf-8") as file:
        file.write(HEADING)
        for source in sorted(found):
            file.write(" ".join([source + ":", *sorted(found[source])]) + "\n")


def main(path, headers, objects):
    if objects[-1] == "--write":
        write(path, calls(objects[:-1], headers))
        return 0
    found = calls(objects, headers)
    expected = listed(path)
    complaints = []
    for source in sorted(set(found) | set(expected)):
        if source not in found:
            complaints.append(f"{source} is listed and is not a source file")
            continue
        if source not in expected:
            complaints.append(f"{source} is not listed")
        for callee in sorted(set(found[source]) - expected.get(source, set())):
            names = demangle(found[source][callee])
            complaints.append(f"{source} calls {callee}: " + "; ".join(readable(n) for n in names.values()))
        for callee in sorted(expected.get(source, set()) - set(found[source])):
            complaints.append(f"{source} is listed with {callee}, which it does not call")
    print("\n".join(complaints))
    return 1 if complaints or not found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2], sys.argv[3:]))
