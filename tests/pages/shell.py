"""A shell that runs the commands of one page, one after the other, and what it prints."""

import os
import re
import selectors
import signal
import subprocess
import time

MARK = "\001"
DEADLINE_S = 30
QUIET_S = 0.02
NUMBER = re.compile(r"\b(?=[a-f]*\d)[\da-f]{8,}\b|\d+")
ANY_NUMBER = r" *\d+(?:\.\d+)?(?:e-\d+)?"
DIGEST = r"[\da-f]{8,}"
# What the pages show for the directory of the pipes.
SHOWN_DIRECTORY = "/tmp/qvtp-pipe-1000"


class Mismatch(Exception):
    pass


def pattern_of(expected, any_numbers=False):
    """Three dots stand for anything in their line; alone in a line, for any number of lines. A line that begins with four
    blanks may be the rest of the one before it. With `any_numbers`, a number stands for any number, and eight or more
    hexadecimal digits for any others."""
    parts = []
    if not expected:
        return re.compile(r"\Z")
    for line in re.sub(r"\n {4}(?=\S)", "\v", expected).removesuffix("\n").split("\n"):
        if line.strip() == "...":
            parts.append(r"(?:[^\n]*\n)*?")
            continue
        pieces = [re.escape(piece) for piece in line.split("...")]
        if any_numbers:
            pieces = [NUMBER.sub(lambda match: DIGEST if len(match.group()) >= 8 else ANY_NUMBER, piece) for piece in pieces]
        pieces = [piece.replace("\\\v", r"(?: |\n {4})") for piece in pieces]
        parts.append(r"[^\n]*".join(pieces) + r" *\n")
    return re.compile("".join(parts) + r"\Z")


def commands_of(text):
    """Pairs of a command and the output that is shown after it. A command goes on while its line ends with a backslash."""
    found, goes_on = [], False
    for line in text.splitlines():
        if line.startswith("$ "):
            found.append([line[2:], ""])
        elif not found:
            raise Mismatch(f"the first line is no command: {line}")
        elif goes_on:
            found[-1][0] += "\n" + line
        else:
            found[-1][1] += line + "\n"
        goes_on = (goes_on or line.startswith("$ ")) and line.endswith("\\")
    return found


class Shell:
    def __init__(self, folder, environment):
        self.directory = environment["QVTP_PIPE_DIR"]
        self.process = subprocess.Popen(
            ["bash"], cwd=folder, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            start_new_session=True)
        os.set_blocking(self.process.stdout.fileno(), False)
        self.selector = selectors.DefaultSelector()
        self.selector.register(self.process.stdout, selectors.EVENT_READ)
        self.output, self.code = "", 0

    def run(self, command, expected, any_numbers=False):
        """Programs in the background print when they like: what is expected may come after the command has ended. A
        program that is started there is waited for until it serves a pipe."""
        before = self.sockets()
        self.write(f"(exit {self.code})\n{command}\nprintf '{MARK}%d{MARK}' $?\n")
        done, pattern, end = False, pattern_of(expected, any_numbers), time.monotonic() + DEADLINE_S
        while time.monotonic() < end:
            self.read()
            if marked := re.search(f"{MARK}(\\d+){MARK}", self.output):
                self.code, done = int(marked.group(1)), True
                self.output = self.output[:marked.start()] + self.output[marked.end():]
            if done and pattern.match(self.shown()) and self.is_quiet():
                if not command.endswith("&") or self.sockets() != before:
                    self.output = ""
                    return
        raise Mismatch(f"$ {command}\nexpected:\n{expected}\nwas{'' if done else ' (it did not end)'}:\n{self.shown()}")

    def is_quiet(self):
        """A line that has not ended may be about to."""
        return self.output[-1:] in ("", "\n") or not self.selector.select(10 * QUIET_S)

    def shown(self):
        text = self.output.replace(self.directory, SHOWN_DIRECTORY).replace("\r", "")
        return text if not text or text.endswith("\n") else text + "\n"

    def sockets(self):
        try:
            return sorted(name for name in os.listdir(self.directory) if name.endswith(".sock"))
        except FileNotFoundError:
            return []

    def write(self, text):
        self.process.stdin.write(text.encode())
        self.process.stdin.flush()

    def read(self):
        if self.selector.select(QUIET_S):
            self.output += (self.process.stdout.read() or b"").decode(errors="replace")

    def close(self):
        """Ends what the page has left running. Fails if anything was printed that the page does not show."""
        self.read()
        left = self.shown()
        self.kill()
        if left:
            raise Mismatch(f"printed, and not shown:\n{left}")

    def kill(self):
        self.process.stdin.close()
        for number in (signal.SIGTERM, signal.SIGKILL):
            try:
                os.killpg(self.process.pid, number)
            except ProcessLookupError:
                break
        self.process.wait()
