#!/usr/bin/env python3
"""The library and the platform leave the state of the process that calls them alone.

Usage: no_leaks_of_host_state.py OBJECT...
Nothing in the object files may call a function that changes what belongs to the whole process.
"""

import sys

from symbols import nm, source_of

STATE = {
    "umask": "the mask of new files",
    "chdir": "the working directory",
    "fchdir": "the working directory",
    "chroot": "the root directory",
    "signal": "the handling of signals",
    "sigaction": "the handling of signals",
    "setlocale": "the locale",
    "setenv": "the environment",
    "putenv": "the environment",
    "unsetenv": "the environment",
    "clearenv": "the environment",
    "srand": "the sequence of rand()",
    "srandom": "the sequence of rand()",
    "openlog": "the settings of the system log",
    "closelog": "the settings of the system log",
    "setlogmask": "the settings of the system log",
    "setrlimit": "the limits of the process",
    "alarm": "the process's timer",
}


def main(objects):
    complaints = []
    for path in objects:
        for symbol in nm(path, "--undefined-only"):
            name = symbol.name.split("@")[0]
            if name in STATE:
                complaints.append(f"{source_of(path)} calls {name}, which changes {STATE[name]}")
    print("\n".join(complaints))
    return 1 if complaints or not objects else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
