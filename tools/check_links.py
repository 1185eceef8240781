#!/usr/bin/env python3
"""Checks that the XML parser, and what that needs, is linked with its module alone.

    tools/check_links.py [--objdump PROGRAM] LIBRARY MODULE

LIBRARY and MODULE are .so or .dll. A process that is linked with LIBRARY loads nothing of FOREIGN, neither directly nor
through another library; MODULE does need the parser. For a .dll only what it names itself can be seen.
"""

import argparse
import pathlib
import re
import subprocess
import sys

FOREIGN = re.compile(r"xerces|icu|curl|gnutls", re.I)
PARSER = re.compile(r"xerces", re.I)


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def needed(library, objdump):
    """The libraries that come with this one."""
    if library.suffix == ".dll":
        return re.findall(r"DLL Name: (\S+)", run(objdump, "-p", str(library)))
    return [line.split()[0] for line in run("ldd", str(library)).splitlines()]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--objdump", default="objdump")
    parser.add_argument("library", type=pathlib.Path)
    parser.add_argument("module", type=pathlib.Path)
    arguments = parser.parse_args()

    libraries = needed(arguments.library, arguments.objdump)
    foreign = [name for name in libraries if FOREIGN.search(name)]
    for name in foreign:
        print(f"{arguments.library} needs {name}")
    # That it can be seen where it is: a check that finds nothing there would find nothing anywhere.
    if not any(PARSER.search(name) for name in needed(arguments.module, arguments.objdump)):
        sys.exit(f"check_links: {arguments.module} does not name the parser")
    print(f"{len(libraries)} libraries, {len(foreign)} of them belong into the module")
    return 1 if foreign or not libraries else 0


if __name__ == "__main__":
    sys.exit(main())
