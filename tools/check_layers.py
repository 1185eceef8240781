#!/usr/bin/env python3
"""Checks every #include against the table of layers.

    check_layers.py [ROOT]

Includes point down, never up or sideways. System headers of one operating system appear only in files that are named for
it. Third-party headers appear only in the layer that owns them. Every source includes its own header first.
"""

import pathlib
import re
import sys

# Which layers a layer may include, besides itself.
ALLOWED = {
    "common": set(),
    "logging": {"common"},
    "platform": {"common", "logging"},
    "io": {"common", "logging", "platform"},
    "message": {"common", "logging"},  # and the exceptions of io
    "client": {"common", "logging", "io", "message"},
    "server": {"common", "logging", "io", "message"},
    "config": {"common", "logging", "client", "server"},
    "easy": {"io", "message", "client", "server"},  # of the public headers
}
EXCEPTION_HEADER = re.compile(r"^qvtp/io/\w+Exception\.h$")
# Handle types that the headers above show, and facts of the system that the easy face asks for.
VOCABULARY = {
    "qvtp/platform/NativeHandle.h": {"io", "platform"},
    "qvtp/platform/PipeFacts.h": {"easy", "platform"},
    "qvtp/platform/StopSignal.h": {"easy", "platform"},
}
THIRD_PARTY = {"Poco/": "server", "xercesc/": "config"}
# The parser module: all that may know the parser. It knows nothing of the library but the functions between them.
PARSER_MODULE = {"ConfigurationFile", "Parser", "XmlText"}
PARSER_INCLUDES = {f"config/{name}.h" for name in PARSER_MODULE | {"ParserFunctions"}} | {"qvtp/Export.h"}
SYSTEM_HEADER = re.compile(
    r"^(sys/|linux/|arpa/|netinet/|windows\.h$|win\w+\.h$|ws2|(io|process|direct|psapi|tlhelp32|fibersapi)\.h$|"
    r"(unistd|fcntl|poll|dirent|pthread|signal|malloc|sched|semaphore|dlfcn|link|spawn|termios)\.h$)", re.I)
PLATFORM_FILE = re.compile(r"_(linux|win32)(Test\.cpp|\.cpp|\.h)$")
PLATFORM_HEADER = re.compile(r"_(linux|win32)\.h$")
CONDITIONAL = re.compile(
    r"^\s*#\s*(if|ifdef|ifndef|elif)\b.*\b(_WIN32|_WIN64|WIN32|_MSC_VER|__MINGW\w*|__linux__|__unix__)\b")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def layer_of(include):
    """The layer of an included header of this library, or None."""
    parts = include.split("/")
    if parts[0] == "qvtp" and len(parts) > 2:
        return parts[1]
    return parts[0] if parts[0] in ALLOWED and len(parts) == 2 else None


class Checker:
    def __init__(self, root):
        self.root = root
        self.errors = []
        self.includes = 0

    def complain(self, path, number, text):
        self.errors.append(f"{path.relative_to(self.root)}:{number}: {text}")

    def check_tree(self):
        for top in ("include/qvtp", "src"):
            for path in sorted((self.root / top).rglob("*")):
                if path.suffix in (".h", ".cpp"):
                    self.check_file(path, path.relative_to(self.root / top).parts[0], top != "src")
        for top in ("tests", "examples", "bench", "fuzz"):
            for path in sorted((self.root / top).rglob("*")):
                if path.suffix in (".h", ".cpp"):
                    self.check_system(path)

    def lines(self, path):
        return enumerate(path.read_text(encoding="utf-8").splitlines(), 1)

    def check_system(self, path):
        for number, line in self.lines(path):
            match = INCLUDE.match(line)
            if match and SYSTEM_HEADER.match(match[2]) and not PLATFORM_FILE.search(path.name):
                self.complain(path, number, f"{match[2]} belongs into a file named for its system")
            if match and PLATFORM_HEADER.search(match[2]) and not PLATFORM_FILE.search(path.name):
                self.complain(path, number, f"{match[2]} is for files that are named for its system")
            if CONDITIONAL.match(line):
                self.complain(path, number, "code for one system belongs into a file named for it")

    def check_file(self, path, layer, public):
        if path.name in ("qvtp.h", "easy.h") and public:
            return
        if path.name != "Export.h":
            self.check_system(path)
        first = None
        for number, line in self.lines(path):
            match = INCLUDE.match(line)
            if not match:
                continue
            self.includes += 1
            first = first or match[2]
            self.check_include(path, number, layer, public, match[2])
        self.check_own_header_first(path, layer, first)

    def check_include(self, path, number, layer, public, include):
        for prefix, owner in THIRD_PARTY.items():
            if include.startswith(prefix) and layer != owner:
                self.complain(path, number, f"{prefix} belongs to {owner}, not to {layer}")
        in_parser = layer == "config" and path.stem in PARSER_MODULE
        if include.startswith("xercesc/") and not in_parser:
            self.complain(path, number, "only the parser module may know the parser")
        if in_parser and layer_of(include) and include not in PARSER_INCLUDES:
            self.complain(path, number, f"the parser module may not include {include}")
        if include in PARSER_INCLUDES - {"qvtp/Export.h", "config/ParserFunctions.h"} and not in_parser:
            self.complain(path, number, f"{include} belongs to the parser module")
        if public and include.startswith("xercesc/"):
            self.complain(path, number, "the parser stays inside the library")
        if public and layer_of(include) and not include.startswith("qvtp/"):
            self.complain(path, number, f"a public header includes {include}, which is not installed")
        if include == "logging/Log.h" and layer == "platform" and path.stem.split("_")[0] != "PipeLog":
            self.complain(path, number, "the log lines of this layer are composed in PipeLog.cpp and PipeLog_win32.cpp")
        target = layer_of(include)
        if target in (None, layer) or include == "qvtp/Export.h":
            return
        if layer in VOCABULARY.get(include, ()) or target in ALLOWED.get(layer, ()):
            return
        if layer == "message" and EXCEPTION_HEADER.match(include):
            return
        self.complain(path, number, f"{layer} may not include {include}")

    def check_own_header_first(self, path, layer, first):
        if path.suffix != ".cpp":
            return
        base = re.sub(r"_(linux|win32)$", "", path.stem)
        for own in (f"qvtp/{layer}/{path.stem}.h", f"{layer}/{path.stem}.h", f"{layer}/{base}.h"):
            candidate = self.root / "include" / own if own.startswith("qvtp/") else self.root / "src" / own
            if candidate.exists():
                if first != own:
                    self.complain(path, 1, f"includes {first} before its own header {own}")
                return


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent.parent).resolve()
    checker = Checker(root)
    checker.check_tree()
    for error in checker.errors:
        print(error)
    print(f"{checker.includes} includes checked, {len(checker.errors)} against the table")
    return 1 if checker.errors or checker.includes == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
