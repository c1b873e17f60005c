"""Symbols of object files and libraries, as nm shows them."""

import os
import re
import subprocess
from collections import namedtuple

Symbol = namedtuple("Symbol", "name type")

# Global text, data, zeroed data, read-only data: what one object file alone defines. Inline functions and
# template instances are weak, and which of them exist depends on the compiler.
STRONG = set("TDBR")


def nm(path, *options):
    """The symbols of `path`, in nm's order; undefined ones have the type U."""
    output = subprocess.run(["nm", "-P", *options, path], check=True, capture_output=True, text=True).stdout
    symbols = []
    for line in output.splitlines():
        found = re.match(r"(.+?) ([A-Za-z])(?: [0-9a-f]+)*\s*$", line)
        if found:
            symbols.append(Symbol(found.group(1), found.group(2)))
    return symbols


def demangle(names):
    """Mangled name -> readable name."""
    names = sorted(names)
    output = subprocess.run(["c++filt"], input="\n".join(names), check=True, capture_output=True, text=True).stdout
    return dict(zip(names, output.splitlines()))


def readable(name):
    """A demangled name without the defaults of the standard library's templates."""
    name = name.replace("std::__cxx11::", "std::").replace("[abi:cxx11]", "")
    name = name.replace("std::basic_string<char, std::char_traits<char>, std::allocator<char> >", "std::string")
    for default in (", std::allocator<", ", std::less<"):
        while default in name:
            start = name.index(default)
            end = start + len(default)
            depth = 1
            while depth:
                depth += {"<": 1, ">": -1}.get(name[end], 0)
                end += 1
            name = name[:start] + name[end:]
    return re.sub(r"\s+>", ">", name)


def source_of(path):
    """Source file, below its target's folder, of an object file that CMake made: fwDB/document.cpp."""
    below = re.split(r"\.dir/", os.path.normpath(path))[-1]
    return re.sub(r"\.o$", "", below)
