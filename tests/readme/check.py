#!/usr/bin/env python3
"""Builds and runs what README.md shows, against the installed package.

    check.py --build-dir DIR --work-dir DIR --readme FILE --compiler PROGRAM [--flags FLAGS]

The first block of C++ is the server, the second the client; the block of CMake and the lines of the compiler build them.
The blocks that follow the client are what it prints with the server and without it.
"""

import argparse
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import time

DEADLINE_S = 60
FAILED = re.compile(r"^failed: ")


def fail(text):
    sys.exit(f"readme: {text}")


def blocks_of(text):
    """The fenced blocks in order, each with its language, which may be empty."""
    return re.findall(r"^```(\w*)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


class Readme:
    def __init__(self, file):
        blocks = blocks_of(file.read_text(encoding="utf-8"))
        programs = [index for index, (language, _) in enumerate(blocks) if language == "cpp"]
        if len(programs) != 2:
            fail(f"{len(programs)} blocks of C++ instead of a server and a client")
        self.server, self.client = (blocks[index][1] for index in programs)
        after = [body for language, body in blocks[programs[1] + 1:] if language == ""]
        self.answer, self.failure = after[0], after[1]
        if FAILED.match(self.answer) or not FAILED.match(self.failure):
            fail("the client is not followed by what it prints with the server and without it")
        self.cmake = self.only(blocks, "cmake")
        self.shell = self.only(blocks, "sh")

    @staticmethod
    def only(blocks, wanted):
        found = [body for language, body in blocks if language == wanted]
        if len(found) != 1:
            fail(f"{len(found)} blocks of {wanted} instead of one")
        return found[0]


def run(command, **options):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=DEADLINE_S * 5,
                            check=False, **options)
    if result.returncode != 0:
        fail(f"{command}\nended with {result.returncode}\n{result.stdout}")


def install(build, prefix):
    """The prefix, with the folder of the library in it."""
    run(["cmake", "--install", str(build), "--prefix", str(prefix)])
    found = list(prefix.rglob("qvtp.pc"))
    if len(found) != 1:
        fail(f"qvtp.pc is installed {len(found)} times")
    return found[0].parent


def compiler_named(name, folder, arguments):
    """A program of this name in the folder, which is the compiler of the build with its flags."""
    folder.mkdir()
    program = folder / name
    flags = " ".join(shlex.quote(flag) for flag in shlex.split(arguments.flags))
    program.write_text(f'#!/bin/sh\nexec {shlex.quote(arguments.compiler)} {flags} "$@"\n', encoding="utf-8")
    program.chmod(0o755)


def outcome_of(client):
    """Exit code, output, and text of errors."""
    result = subprocess.run([str(client)], capture_output=True, text=True, timeout=DEADLINE_S, check=False)
    return result.returncode, result.stdout, result.stderr


def expect(what, expected, actual):
    if expected != actual:
        fail(f"{what}: expected {expected!r}, was {actual!r}")


def try_programs(folder, readme):
    expect("the client without the server", (1, "", readme.failure), outcome_of(folder / "client"))
    server = subprocess.Popen([str(folder / "server")], stdin=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        answered = (0, readme.answer, "")
        actual = outcome_of(folder / "client")
        end = time.monotonic() + DEADLINE_S
        while actual[0] == 1 and time.monotonic() < end and server.poll() is None:  # it has not taken its name yet
            time.sleep(0.01)
            actual = outcome_of(folder / "client")
        expect("the client", answered, actual)
        expect("the client once more", answered, outcome_of(folder / "client"))
        second = subprocess.run([str(folder / "server")], input="\n", capture_output=True, text=True,
                                timeout=DEADLINE_S, check=False)
        expect("a second server", (1, "failed: the name cannot be served\n"), (second.returncode, second.stderr))
        _, errors = server.communicate("\n", timeout=DEADLINE_S)
        expect("the end of the server", (0, ""), (server.returncode, errors))
    finally:
        if server.poll() is None:
            server.kill()
            server.wait()
    expect("the client after the server", (1, "", readme.failure), outcome_of(folder / "client"))
    for _ in range(20):  # the input ends before run() accepts
        subprocess.run([str(folder / "server")], stdin=subprocess.DEVNULL, timeout=DEADLINE_S, check=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", type=pathlib.Path, required=True)
    parser.add_argument("--work-dir", type=pathlib.Path, required=True)
    parser.add_argument("--readme", type=pathlib.Path, required=True)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--flags", default="")
    arguments = parser.parse_args()

    readme = Readme(arguments.readme)
    work = arguments.work_dir
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    for name, content in (("server.cpp", readme.server), ("client.cpp", readme.client),
                          ("CMakeLists.txt", readme.cmake)):
        (work / name).write_text(content, encoding="utf-8")
    package = install(arguments.build_dir, work / "prefix")
    os.environ["QVTP_PIPE_DIR"] = str(work / "pipes")

    warnings = f"{arguments.flags} -Wall -Wextra -Wpedantic -Werror"
    run(["cmake", "-B", "build", "-G", "Ninja", "-D", f"CMAKE_PREFIX_PATH={work / 'prefix'}",
         "-D", f"CMAKE_CXX_COMPILER={arguments.compiler}", "-D", f"CMAKE_CXX_FLAGS={warnings}"], cwd=work)
    run(["cmake", "--build", "build"], cwd=work)
    try_programs(work / "build", readme)

    if shutil.which("pkg-config") is None:
        fail("there is no pkg-config")
    compiler_named("c++", work / "bin", arguments)
    environment = dict(os.environ, PATH=f"{work / 'bin'}:{os.environ['PATH']}", PKG_CONFIG_PATH=str(package))
    run(["sh", "-e", "-c", readme.shell], cwd=work, env=environment)
    os.environ["LD_LIBRARY_PATH"] = str(package.parent)
    try_programs(work, readme)
    print("readme: server and client are built and run as README.md says")


if __name__ == "__main__":
    main()
