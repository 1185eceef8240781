#!/usr/bin/env python3
"""Compiles and runs every block of code of README.md and its neighbours and of docs/, and every command that they show.

    check.py --build-dir DIR --work-dir DIR --root DIR --compiler PROGRAM [--flags FLAGS]
    check.py --self-test
    check.py --output-of COMMAND --root DIR     whether standard input is what the pages show for this command

The first line of a block says what becomes of it:

    ```cpp program=NAME.cpp     a whole program, NAME. A command of the page may compile it; otherwise it is done before.
    ```cpp fragment=FRAME       a part of one. It is compiled and run within frames/FRAME.frame, in one program with all others
                                (Frames_linux.h).
    ```LANGUAGE file=NAME       a file that the commands of the page use
    ```console                  commands, after "$ ", and what they print. The blocks of a page are run one after the other
                                by one shell, in an empty folder with the page's programs and files. Three dots stand for
                                anything in their line, or alone for any lines. A line that begins with four blanks may be
                                the rest of the line before it. A command that ends with "&" is waited for until it serves
                                a pipe. A command that fails has to be followed by "$ echo $?", or the block says "fails".
                                With "any-numbers" a number stands for any number.
    ```text                     nothing to compile or to run: a picture, an excerpt of a log, bytes of a message
    ```text output-of=COMMAND   what a script prints that is too long for this test; .ci/run hands it over
    ```sh unchecked="WHY"       commands that cannot be run here. Those of this tree have to be there at least.
    ```... by=readme            is checked by tests/readme/check.py

A block that says nothing, or something else, fails the test, and so does one of README.md that tests/readme/check.py does
not name.
"""

import argparse
import concurrent.futures
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile

import blocks
import shell

HERE = pathlib.Path(__file__).parent
WARNINGS = "-std=c++17 -Wall -Wextra -Wpedantic -Werror"
KINDS = ("program", "fragment", "file", "console", "text", "unchecked", "by")
DEADLINE_S = 240


def kind_of(block):
    """What is to become of the block, or None."""
    named = [kind for kind in KINDS if kind in block.attributes]
    if block.language in ("console", "text") and not named:
        return block.language
    return named[0] if len(named) == 1 and block.language else None


def run(command, **options):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                            timeout=DEADLINE_S, check=False, **options)
    return result.returncode, result.stdout


class Tools:
    """The library as it is installed, and a compiler with the flags of the build."""

    def __init__(self, work, build, compiler, flags):
        prefix = work / "prefix"
        code, output = run(["cmake", "--install", str(build), "--prefix", str(prefix)])
        if code != 0:
            sys.exit(output)
        package = next(prefix.rglob("qvtp.pc")).parent
        (work / "bin").mkdir()
        self.compiler = work / "bin" / "c++"
        flags = " ".join(shlex.quote(flag) for flag in [*WARNINGS.split(), *shlex.split(flags)])
        self.compiler.write_text(f'#!/bin/sh\nexec {shlex.quote(shutil.which(compiler))} {flags} "$@"\n', encoding="utf-8")
        self.compiler.chmod(0o755)
        self.environment = {name: value for name, value in os.environ.items() if not name.upper().startswith("QVTP")}
        self.environment.update(
            PATH=f"{work / 'bin'}:{prefix / 'bin'}:{os.environ['PATH']}", PKG_CONFIG_PATH=str(package),
            LD_LIBRARY_PATH=f"{package.parent}:{os.environ.get('LD_LIBRARY_PATH', '')}", LC_ALL="C.UTF-8")
        code, found = run(["pkg-config", "--cflags", "--libs", "qvtp"], env=self.environment)
        if code != 0:
            sys.exit(found)
        self.libraries = shlex.split(found) + ["-pthread"]

    def compile(self, source, program, *flags):
        return run([str(self.compiler), str(source), "-o", str(program), *flags, *self.libraries], env=self.environment)


class Checker:
    def __init__(self, root, work, tools):
        self.root, self.work, self.tools = root, work, tools
        self.errors, self.unchecked = [], []
        self.pages = {page: blocks.blocks_of(root, page) for page in blocks.pages_of(root)}

    def complain(self, place, text):
        self.errors.append(f"{place}: {text}")

    def every(self, kind):
        return [block for page in self.pages.values() for block in page if kind_of(block) == kind]

    def check_kinds(self):
        for block in (block for page in self.pages.values() for block in page):
            if kind_of(block) is None:
                self.complain(block.place, "the block does not say what becomes of it")
        for block in self.every("by"):
            if str(block.page) != "README.md" or block.attributes["by"] != "readme":
                self.complain(block.place, "nothing else checks this block")
        for block in self.every("unchecked"):
            self.unchecked.append(f"{block.place}: {block.attributes['unchecked']}")
            for word in re.findall(r"^(?:\$ )?((?:scripts|tools)/\S+)", block.text, re.MULTILINE):
                if not os.access(self.root / word, os.X_OK):
                    self.complain(block.place, f"there is no {word}")

    def folder_of(self, page):
        return self.work / page.name.removesuffix(".md")

    def compile(self, place, source, program, *flags):
        code, output = self.tools.compile(source, program, *flags)
        if code != 0:
            self.complain(place, f"does not compile:\n{output}")

    def compilations(self):
        """Calls to be made at once: all programs that their page does not compile itself, and the fragments."""
        for page, found in self.pages.items():
            self.folder_of(page).mkdir()
            commands = "".join(block.text for block in found if kind_of(block) == "console")
            for block in found:
                uses = commands + "".join(other.text for other in found if "file" in other.attributes and other != block)
                name = block.attributes.get("program", block.attributes.get("file", ""))
                if kind_of(block) not in ("program", "file"):
                    continue
                source = self.folder_of(page) / name
                source.write_text(block.text, encoding="utf-8")
                if not re.search(rf"\b{re.escape(source.stem)}\b", uses):
                    self.complain(block.place, f"no command of the page uses {name}")
                if name.endswith(".cpp") and not re.search(rf"c\+\+ .*\b{re.escape(name)}", commands):
                    yield self.compile, block.place, source, source.with_suffix("")
        if self.every("fragment"):
            yield self.compile, "fragments", self.write_fragments(), self.work / "fragments", "-Wno-unused", f"-I{HERE}"

    def write_fragments(self):
        parts, calls = ['#include "Frames_linux.h"\n'], []
        for index, block in enumerate(self.every("fragment")):
            frame = HERE / "frames" / (block.attributes["fragment"] + ".frame")
            if not frame.is_file():
                self.complain(block.place, f"there is no frame {frame.name}")
                continue
            before, after = frame.read_text(encoding="utf-8").split("FRAGMENT", 1)
            parts.append(f"namespace fragment_{index} {{\n{before}\n#line {block.line + 1} \"{block.page}\"\n{block.text}"
                         f"#line 1 \"{frame.name}, after the fragment\"\n{after}}}\n")
            calls.append(f"if (name == \"{index}\") return fragment_{index}::run();\n")
        parts.append("int main(int, char** arguments) try {\nconst std::string name = arguments[1];\n" + "".join(calls) +
                     "return 99;\n} catch (const std::exception& e) {\nstd::cerr << e.what() << std::endl;\nreturn 98;\n}\n")
        source = self.work / "fragments.cpp"
        source.write_text("".join(parts), encoding="utf-8")
        return source

    def with_pipes(self, work):
        """Runs it with a new directory of pipes, short enough for any name, in the environment."""
        with tempfile.TemporaryDirectory(prefix="qvtp-pages-") as pipes:
            return work(dict(self.tools.environment, QVTP_PIPE_DIR=f"{pipes}/p"))

    def run_fragments(self):
        for index, block in enumerate(self.every("fragment")):
            code, output = self.with_pipes(lambda environment, name=str(index): run(
                [str(self.work / "fragments"), name], cwd=self.work, env=environment))
            if code != 0:
                self.complain(block.place, f"the fragment ended with {code}\n{output}")

    def run_page(self, page, environment):
        running = shell.Shell(self.folder_of(page), environment)
        place = page
        try:
            for block in (block for block in self.pages[page] if kind_of(block) == "console"):
                place = block.place
                commands = shell.commands_of(block.text)
                for command, following in zip(commands, [*commands[1:], ["", ""]]):
                    running.run(command[0], command[1], "any-numbers" in block.attributes)
                    if running.code != 0 and following[0] != "echo $?" and "fails" not in block.attributes:
                        raise shell.Mismatch(f"$ {command[0]}\nended with {running.code}")
            place = page
            running.close()
        except shell.Mismatch as mismatch:
            self.complain(place, mismatch)
            running.kill()

    def check(self):
        self.check_kinds()
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            for job in [pool.submit(*call) for call in self.compilations()]:
                job.result()
            if not self.errors:
                jobs = [pool.submit(self.run_fragments)]
                for page in self.pages:
                    if any(kind_of(block) == "console" for block in self.pages[page]):
                        jobs.append(pool.submit(self.with_pipes, lambda e, page=page: self.run_page(page, e)))
                for job in jobs:
                    job.result()


def self_test(arguments):
    """Whether it finds what it has to find."""
    wrong = {
        "says nothing": "```\nint x;\n```\n",
        "names a kind that there is not": "```cpp whatever\nint x;\n```\n",
        "does not name its language": "``` program=a.cpp\nint main() {}\n```\n",
        "is said to be checked by another test": "```cpp by=readme\nint x;\n```\n",
        "is a program that does not compile": "```cpp program=a.cpp\nint main() { return x; }\n```\n```console\n$ ./a\n```\n",
        "is a program that nobody runs": "```cpp program=a.cpp\nint main() {}\n```\n",
        "is a fragment that does not compile": "```cpp fragment=exact_handler\nnothing();\n```\n",
        "is a fragment that fails": "```cpp fragment=client\nqvtp::Client(\"nobody\").post(\"/\");\n```\n",
        "has a frame that there is not": "```cpp fragment=nothing\nint x;\n```\n",
        "prints something else": "```console\n$ echo one\ntwo\n```\n",
        "prints more": "```console\n$ echo one; echo two\none\n```\n",
        "prints less": "```console\n$ echo one\none\ntwo\n```\n",
        "prints something later": "```console\n$ true\n$ (until [ -e x ]; do :; done; echo late) & touch x; wait\n```\n",
        "fails": "```console\n$ false\n```\n",
        "names a script that there is not": "```sh unchecked=\"no root\"\nscripts/nothing\n```\n",
    }
    right = ("```cpp program=a.cpp\nint main() { return 3; }\n```\n```console\n$ ./a\n$ echo $?\n3\n```\n"
             "```console any-numbers\n$ echo a 12 b; echo any; echo thing; echo end of a line\na 7 b\n...\nend ...\n```\n"
             "```text file=x\nsome\n```\n```console\n$ cat x\nsome\n```\n"
             "```cpp fragment=call\nclient.notify(\"/log\", \"x\");\n```\n```text\nanything\n```\n")
    shell.DEADLINE_S = 2
    with tempfile.TemporaryDirectory() as folder:
        tools = Tools(pathlib.Path(folder), arguments.build_dir, arguments.compiler, arguments.flags)
        found = [what for what, text in wrong.items() if not errors_of(text, tools)]
        problems = errors_of(right, tools)
    for what in found:
        print(f"not found: a block that {what}")
    if problems:
        print("complained about without a reason:", *problems, sep="\n")
    return 1 if found or problems else 0


def errors_of(text, tools):
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder)
        (root / "docs").mkdir()
        (root / "docs" / "page.md").write_text(text, encoding="utf-8")
        (root / "work").mkdir()
        checker = Checker(root, root / "work", tools)
        checker.check()
        return checker.errors


def compare_output(root, command):
    """Standard input against the blocks that show what the command prints."""
    pages = {page: blocks.blocks_of(root, page) for page in blocks.pages_of(root)}
    shown = [block for page in pages.values() for block in page if block.attributes.get("output-of") == command]
    if not shown:
        sys.exit(f"no page shows what {command} prints")
    text = sys.stdin.read().replace("\r", "")
    sys.stdout.write(text)
    for block in shown:
        if not shell.pattern_of("...\n" + block.text, True).match(text):
            sys.exit(f"{block.place}: {command} does not print that")
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--self-test", action="store_true")
    parser.add_argument("--output-of")
    parser.add_argument("--root", type=pathlib.Path, default=HERE.parent.parent)
    parser.add_argument("--build-dir", type=pathlib.Path)
    parser.add_argument("--work-dir", type=pathlib.Path)
    parser.add_argument("--compiler", default="c++")
    parser.add_argument("--flags", default="")
    arguments = parser.parse_args()
    if arguments.output_of:
        return compare_output(arguments.root, arguments.output_of)
    if arguments.self_test:
        return self_test(arguments)
    shutil.rmtree(arguments.work_dir, ignore_errors=True)
    arguments.work_dir.mkdir(parents=True)
    tools = Tools(arguments.work_dir, arguments.build_dir, arguments.compiler, arguments.flags)
    checker = Checker(arguments.root, arguments.work_dir, tools)
    checker.check()
    for error in checker.errors:
        print(error)
    for text in checker.unchecked:
        print(f"not run: {text}")
    count = sum(len(page) for page in checker.pages.values())
    print(f"{count} blocks of {len(checker.pages)} pages, {len(checker.every('console'))} of them commands, "
          f"{len(checker.every('program'))} programs, {len(checker.every('fragment'))} fragments")
    return 1 if checker.errors or not count else 0


if __name__ == "__main__":
    sys.exit(main())
