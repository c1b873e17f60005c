#!/usr/bin/env python3
"""What the library exports is what the list says, and nothing else.

Usage: exported_symbols.py LIBRARY LIST [--write]
--write replaces the list by what the library exports.
"""

import difflib
import sys

from symbols import STRONG, nm, readable


def exported(library):
    names = nm(library, "-D", "--defined-only", "-C", "--without-symbol-versions")
    return sorted({readable(symbol.name) for symbol in names if symbol.type in STRONG})


def main(library, expected, write=False):
    found = exported(library)
    if write:
        with open(expected, "w", encoding="utf-8") as file:
            file.write("\n".join(found) + "\n")
        return 0
    with open(expected, encoding="utf-8") as file:
        listed = file.read().splitlines()
    difference = list(difflib.unified_diff(listed, found, "listed", "exported", lineterm="", n=0))
    print("\n".join(difference))
    return 1 if difference or not found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2], sys.argv[3:] == ["--write"]))
