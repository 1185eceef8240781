#!/usr/bin/env python3
"""Compares what a shared library exports with the checked-in list of public names.

    tools/check_exports.py [--write] [--list FILE] [--objdump PROGRAM] LIBRARY

LIBRARY is a .so or a .dll; one list serves both, in the form in which C++ writes the names. --write replaces the list.

What the two systems spell differently becomes one name here, and nothing else does:
  - constructors and destructors have several entries for one name;
  - the integer of 64 bits that is size_t, streamsize and int64_t is long on one system and long long on the other, and
    the structure of FILE has two names;
  - the names inside type information are exported from a .so only; each must belong to type information of the list;
  - templates of the standard library and of others, as far as the library uses them, can be seen in a .so;
  - so can private templates of exported classes: PRIVATE_TEMPLATES names them.
"""

import argparse
import pathlib
import re
import subprocess
import sys

NAMESPACE = "Quovane::"
HIDDEN_NAMESPACES = ("Quovane::Internal::", "Quovane::Soa::")
PRIVATE_TEMPLATES = ("Quovane::Io::QvPipe::PipeStream<", "Quovane::Io::QvPipe::orphan<")
# What may stand before the name that a symbol is about.
KINDS = ("vtable for ", "typeinfo for ", "VTT for ", "guard variable for ", "non-virtual thunk to ", "virtual thunk to ")
TYPEINFO_NAME = "typeinfo name for "
# Functions of namespace std, whose written form can begin with a result type of ours.
STANDARD_TEMPLATE = re.compile(r"_ZN?K?St")


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def mangled_of_dll(library, objdump):
    """The table of names in `objdump -p`, which ends with an empty line."""
    names = []
    in_table = False
    for line in run(objdump, "-p", str(library)).splitlines():
        if "[Ordinal/Name Pointer] Table" in line:
            in_table = True
        elif in_table and not line.strip():
            break
        elif in_table:
            names.append(line.split()[-1])
    return names


def mangled_of_so(library):
    return [line.split()[-1] for line in run("nm", "-D", "--defined-only", str(library)).splitlines()]


def check_imports(library, objdump):
    """With emulated thread storage an object can be destroyed in memory that is freed already: there must be none."""
    if "__cxa_thread_atexit" in run(objdump, "-p", str(library)):
        sys.exit("check_exports: a thread_local object with a destructor, see src/common/System_win32.cpp")


def demangle(names):
    filtered = subprocess.run(["c++filt"], input="\n".join(names) + "\n", check=True, capture_output=True, text=True)
    return filtered.stdout.splitlines()


def subject(name):
    """The name after "vtable for" and the like; for a function that shows its result type, what follows that."""
    for kind in KINDS + (TYPEINFO_NAME,):
        if name.startswith(kind):
            return name[len(kind):]
    if name.startswith("void "):
        return name[len("void "):]
    return name


def one_spelling(name, is_dll):
    other, same = (r"\blong\b", "long long") if is_dll else (r"\blong long\b", "long")
    name = re.sub(rf"\b{same}\b", "int64", name)
    if re.search(other, name):
        sys.exit(f"check_exports: a type whose size differs between the systems: {name}")
    return re.sub(r"\b(_IO_FILE|_iobuf)\b", "FILE", name)


def public_names(library, objdump):
    is_dll = library.suffix == ".dll"
    mangled = mangled_of_dll(library, objdump) if is_dll else mangled_of_so(library)
    names = set()
    if is_dll:
        check_imports(library, objdump)
    else:
        mangled = [name for name in mangled if not STANDARD_TEMPLATE.match(name)]
    for name in demangle(mangled):
        if is_dll and not subject(name).startswith(NAMESPACE):
            sys.exit(f"check_exports: not of this library, and yet exported: {name}")
        if subject(name).startswith(NAMESPACE) and not subject(name).startswith(PRIVATE_TEMPLATES):
            names.add(one_spelling(name, is_dll))
    for name in [name for name in names if name.startswith(TYPEINFO_NAME)]:
        if "typeinfo for " + subject(name) not in names:
            sys.exit(f"check_exports: without type information: {name}")
        names.remove(name)
    for name in sorted(names):
        if subject(name).startswith(HIDDEN_NAMESPACES):
            sys.exit(f"check_exports: internal, and yet exported: {name}")
    return names


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--write", action="store_true", help="replace the list")
    parser.add_argument("--list", type=pathlib.Path, default=pathlib.Path(__file__).with_name("exported_symbols.txt"))
    parser.add_argument("--objdump", default="objdump")
    parser.add_argument("library", type=pathlib.Path)
    arguments = parser.parse_args()

    found = public_names(arguments.library, arguments.objdump)
    if arguments.write:
        arguments.list.write_text("".join(name + "\n" for name in sorted(found)), encoding="utf-8")
        return 0
    expected = set(arguments.list.read_text(encoding="utf-8").splitlines())
    for name in sorted(expected - found):
        print(f"not exported any more: {name}")
    for name in sorted(found - expected):
        print(f"not in the list: {name}")
    if found != expected:
        print(f"\n{arguments.library} and {arguments.list} differ. If the change of the interface is meant:")
        print(f"  tools/check_exports.py --write {arguments.library}")
        return 1
    print(f"{len(found)} names")
    return 0


if __name__ == "__main__":
    sys.exit(main())
