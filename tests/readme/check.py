#!/usr/bin/env python3
"""Builds and runs what README.md shows, against the installed package.

    check.py --build-dir DIR --work-dir DIR --readme FILE --compiler PROGRAM [--flags FLAGS]

The blocks of C++ are a server and a client on the easy face, the same on the exact classes, and a main() for the exact
server that can be stopped. The block of CMake and the lines of the compiler build them. The blocks that begin with
"failed: " are what the client prints without the server, and what a second server prints; the one before them is what
the client prints with the server. Their lines are cut, and the directory of the pipes is another one. All these say
"by=readme" in their first line; tests/pages/check.py looks at the others.
"""

import argparse
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import time

DEADLINE_S = 60
FAILED = re.compile(r"^failed: ")
MAIN = "int main()"
PROGRAMS = ("server.cpp", "client.cpp", "exact_server.cpp", "exact_client.cpp")
EXACT_ANSWER = "200 Hello\n"
EXACT_FAILURE = "failed: Could not connect to pipe.\n"
CANNOT_SERVE = "failed: the name cannot be served\n"
DIRECTORY = "/tmp/qvtp-pipe-0"
LOGGED = "it works\n"


def fail(text):
    sys.exit(f"readme: {text}")


def blocks_of(text):
    """The fenced blocks that are to be checked here, in order, each with its language."""
    return re.findall(r"^```(\w+) by=readme\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


class Readme:
    def __init__(self, file):
        text = file.read_text(encoding="utf-8")
        blocks = blocks_of(text)
        programs = [body for language, body in blocks if language == "cpp"]
        if len(programs) != len(PROGRAMS) + 1:
            fail(f"{len(programs)} blocks of C++ instead of four programs and a main()")
        for name, program in zip(PROGRAMS, programs):
            if not re.search(rf"// {name}$", program.splitlines()[0]) or program.count(MAIN) != 1:
                fail(f"{name} is not where it should be, or has not one main()")
        self.server, self.client, self.exact_server, self.exact_client, stoppable = programs
        if stoppable.count(MAIN) != 1:
            fail(f"{MAIN} does not stand once in the server that can be stopped")
        self.stoppable = self.exact_server.split(MAIN)[0] + stoppable
        plain = [body for language, body in blocks if language == "text"]
        failures = [index for index, body in enumerate(plain) if FAILED.match(body)]
        if len(failures) != 2 or failures[0] == 0 or failures[1] != failures[0] + 1:
            fail("what the client prints with the server and without it, and a second server, does not stand there once")
        self.answer, self.failure, self.taken = plain[failures[0] - 1:failures[1] + 1]
        for promised in (EXACT_ANSWER, EXACT_FAILURE):
            if f"`{promised.strip()}`" not in text:
                fail(f"it does not say that the exact client prints {promised!r}")
        self.cmake = self.only(blocks, "cmake")
        shell = [body for language, body in blocks if language == "sh"]
        if len(shell) != 2 or not shell[1].startswith("cmake "):
            fail("there are not two blocks of sh, one of the compiler and one of CMake")
        self.shell = "\n".join(line for line in shell[0].splitlines() if line.startswith("c++ "))
        if self.shell.count("\n") != 1:
            fail("the block of sh has not one line of the compiler for each program")
        self.cmake_commands = shell[1]
        known = 5 + 2 + 3 + 1  # programs, commands, what they print, CMakeLists.txt
        if len(blocks) != known:
            fail(f"{len(blocks)} blocks say that they are checked here, instead of {known}")

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


def one_line(text):
    """Without the cuts of README.md, and with the directory of this test's pipes."""
    return " ".join(text.replace(DIRECTORY, os.environ["QVTP_PIPE_DIR"]).split())


def expect_failure(what, text, actual):
    code, output, errors = actual
    expect(what, (1, "", one_line(text)), (code, output, " ".join(errors.split())))
    if errors.count("\n") != 1:
        fail(f"{what} printed more than a line: {errors}")


def start(server):
    return subprocess.Popen([str(server)], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def try_client(folder, answer, server):
    """The client with a server that has just started."""
    answered = (0, answer, "")
    actual = outcome_of(folder / "client")
    end = time.monotonic() + DEADLINE_S
    while actual[0] == 1 and time.monotonic() < end and server.poll() is None:  # it has not taken its name yet
        time.sleep(0.01)
        actual = outcome_of(folder / "client")
    expect("the client", answered, actual)
    expect("the client once more", answered, outcome_of(folder / "client"))


def try_second_server(folder, text):
    second = subprocess.run([str(folder / "server")], input="\n", capture_output=True, text=True, timeout=DEADLINE_S,
                            check=False)
    expect("a second server", (1, text), (second.returncode, second.stderr))


def try_programs(folder, readme):
    """The server that runs until a signal, which serves what has begun."""
    expect_failure("the client without the server", readme.failure, outcome_of(folder / "client"))
    for end in (signal.SIGINT, signal.SIGTERM):
        server = start(folder / "server")
        try:
            try_client(folder, readme.answer, server)
            expect_failure("a second server", readme.taken, outcome_of(folder / "server"))
            expect("the server still runs", None, server.poll())
            server.send_signal(end)
            output, errors = server.communicate(timeout=DEADLINE_S)
        finally:
            server.kill()
            server.wait()
        expect("the server", (0, LOGGED * 2, ""), (server.returncode, output, errors))
    expect_failure("the client after the server", readme.failure, outcome_of(folder / "client"))


def try_exact(folder):
    """The server that runs until it is killed."""
    expect("the exact client without the server", (1, "", EXACT_FAILURE), outcome_of(folder / "client"))
    server = start(folder / "server")
    try:
        try_client(folder, EXACT_ANSWER, server)
        try_second_server(folder, "")
        expect("the exact server still runs", None, server.poll())
    finally:
        server.kill()
        _, errors = server.communicate(timeout=DEADLINE_S)
    expect("what the exact server printed", "", errors)


def try_stoppable(folder):
    server = start(folder / "server")
    try:
        try_client(folder, EXACT_ANSWER, server)
        try_second_server(folder, CANNOT_SERVE)
        _, errors = server.communicate("\n", timeout=DEADLINE_S)
        expect("the end of the server", (0, ""), (server.returncode, errors))
    finally:
        if server.poll() is None:
            server.kill()
            server.wait()
    expect("the client after the server", (1, "", EXACT_FAILURE), outcome_of(folder / "client"))
    for _ in range(20):  # the input ends before run() accepts
        subprocess.run([str(folder / "server")], stdin=subprocess.DEVNULL, timeout=DEADLINE_S, check=True)


def build_with_cmake(folder, readme, server, client, prefix, arguments):
    """The folder of the programs."""
    folder.mkdir(parents=True, exist_ok=True)
    for name, content in (("server.cpp", server), ("client.cpp", client), ("CMakeLists.txt", readme.cmake)):
        (folder / name).write_text(content, encoding="utf-8")
    environment = dict(os.environ, CMAKE_GENERATOR="Ninja", CMAKE_PREFIX_PATH=str(prefix), CXX=arguments.compiler,
                       CXXFLAGS=f"{arguments.flags} -Wall -Wextra -Wpedantic -Werror")
    run(["sh", "-e", "-c", readme.cmake_commands], cwd=folder, env=environment)
    return folder / "build"


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
    package = install(arguments.build_dir, work / "prefix")
    os.environ["QVTP_PIPE_DIR"] = str(work / "pipes")

    def build(folder, server, client):
        return build_with_cmake(folder, readme, server, client, work / "prefix", arguments)

    try_programs(build(work, readme.server, readme.client), readme)
    try_exact(build(work / "exact", readme.exact_server, readme.exact_client))
    try_stoppable(build(work / "stoppable", readme.stoppable, readme.exact_client))

    if shutil.which("pkg-config") is None:
        fail("there is no pkg-config")
    compiler_named("c++", work / "bin", arguments)
    environment = dict(os.environ, PATH=f"{work / 'bin'}:{os.environ['PATH']}", PKG_CONFIG_PATH=str(package))
    run(["sh", "-e", "-c", readme.shell], cwd=work, env=environment)
    os.environ["LD_LIBRARY_PATH"] = str(package.parent)
    try_programs(work, readme)
    print("readme: servers and client are built and run as README.md says")


if __name__ == "__main__":
    main()
