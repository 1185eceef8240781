#!/usr/bin/env python3
"""The program qvtp as a user runs it: arguments, output, exit codes, signals, a terminal.

    cli_test.py PROGRAM [unittest's arguments]

A program for Windows needs a command that runs it: QVTP_RUNNER in the environment.
"""
import base64
import collections
import html
import json
import os
import pty
import re
import select
import shlex
import shutil
import signal
import socket
import stat
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import xml.etree.ElementTree
import zlib

PROGRAM = os.path.abspath(sys.argv.pop(1))
COMMAND = shlex.split(os.environ.get("QVTP_RUNNER", "")) + [PROGRAM]
IS_WINDOWS = PROGRAM.endswith(".exe")
LIMIT = 20  # seconds for anything


def linux_only(why):
    return unittest.skipIf(IS_WINDOWS, why)


SIGNALS = linux_only("there are no signals")
SHELL = linux_only("the shell is another one")
SOCKETS = linux_only("pipes are no sockets there")


def eventually(condition):
    end = time.monotonic() + LIMIT
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(0.01)
    return False


def pixels(path):
    """The colours of a PNG of 8 bits a channel (RFC 2083)."""
    with open(path, "rb") as file:
        content = file.read()
    chunks, position = {}, 8
    while position < len(content):
        size, kind = struct.unpack(">I4s", content[position:position + 8])
        chunks[kind] = chunks.get(kind, b"") + content[position + 8:position + 8 + size]
        position += size + 12
    width, height, depth, colour = struct.unpack(">IIBB", chunks[b"IHDR"][:10])
    assert depth == 8 and colour in (2, 6), (depth, colour)
    step = 3 if colour == 2 else 4
    data = zlib.decompress(chunks[b"IDAT"])
    above = bytearray(width * step)
    for row in range(height):
        begin = row * (width * step + 1)
        kind, line = data[begin], bytearray(data[begin + 1:begin + 1 + width * step])
        for i in range(len(line)):
            left = line[i - step] if i >= step else 0
            corner = above[i - step] if i >= step else 0
            if kind == 1:
                line[i] = line[i] + left & 255
            elif kind == 2:
                line[i] = line[i] + above[i] & 255
            elif kind == 3:
                line[i] = line[i] + (left + above[i]) // 2 & 255
            elif kind == 4:
                guess = left + above[i] - corner
                line[i] = line[i] + min((left, above[i], corner), key=lambda value: abs(guess - value)) & 255
        for i in range(0, len(line), step):
            yield line[i] << 16 | line[i + 1] << 8 | line[i + 2]
        above = line


class ForeignServer:
    """A socket in the place of a server that does what `serve(connection)` says with its first client."""

    def __init__(self, path, serve):
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen(5)
        self.thread = threading.Thread(target=self.run, args=(serve,), daemon=True)
        self.thread.start()

    def run(self, serve):
        connection, _ = self.listener.accept()
        with connection:
            serve(connection)

    def close(self):
        self.thread.join(LIMIT)
        self.listener.close()


class CliTest(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.root)
        self.directory = self.root + "/pipes"
        self.environment = dict(os.environ, QVTP_PIPE_DIR=self.directory)

    def run_it(self, *arguments, data=b"", **options):
        return subprocess.run([*COMMAND, *arguments], input=data, capture_output=True, timeout=LIMIT,
                              env=self.environment, **options)

    def serve(self, name, *arguments):
        """A server that is stopped at the end of the test."""
        server = subprocess.Popen([*COMMAND, "serve", name, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                  env=self.environment)
        self.addCleanup(self.end, server)
        first = server.stderr.readline().decode()
        self.assertIn("Serving " + name, first)
        return server

    @staticmethod
    def end(server):
        if server.poll() is None:
            server.kill()
        server.communicate()

    def stop(self, server):
        server.send_signal(signal.SIGTERM)
        out, err = server.communicate(timeout=LIMIT)
        return server.returncode, out.decode(), err.decode()

    def foreign(self, name, serve):
        os.makedirs(self.directory, 0o700, exist_ok=True)
        server = ForeignServer(self.directory + "/" + name + ".sock", serve)
        self.addCleanup(server.close)

    def file(self, name, content):
        path = self.root + "/" + name
        with open(path, "wb") as file:
            file.write(content)
        return path

    @staticmethod
    def content(path):
        with open(path, "rb") as file:
            return file.read()


class Post(CliTest):
    def test_prints_the_body_of_the_reply_and_nothing_else(self):
        self.serve("demo", "--echo")
        result = self.run_it("post", "demo", "/", "-d", "hi")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"hi", b""))

    def test_sends_a_file_and_standard_input_whole_and_streamed_byte_for_byte(self):
        self.serve("demo")
        for content in (b"", b"\r\n\x00\xff\x1a", os.urandom(3 << 20)):
            path = self.file("body", content)
            for arguments in ([], ["--stream"]):
                self.assertEqual(self.run_it("post", "demo", "/", "-f", path, *arguments).stdout, content)
                self.assertEqual(self.run_it("post", "demo", "/", "-f", "-", *arguments, data=content).stdout, content)

    def test_knows_files_headers_and_bodies_of_any_characters(self):
        self.serve("demo")
        path, copy = self.file("\u00fc\u4e2d", b"content"), self.root + "/\u4e2d"
        self.assertEqual(self.run_it("post", "demo", "/\u00fc\u4e2d", "-f", path, "-o", copy).returncode, 0)
        with open(copy, "rb") as file:
            self.assertEqual(file.read(), b"content")
        result = self.run_it("post", "demo", "/", "-d", "\u00fc\u4e2d", "-H", "X-\u0041: \u4e2d", "-v")
        self.assertEqual(result.stdout.decode(), "\u00fc\u4e2d")
        self.assertIn("> X-A: \u4e2d", result.stderr.decode())

    def test_writes_the_body_to_a_file(self):
        self.serve("demo")
        result = self.run_it("post", "demo", "/", "-d", "hi", "-o", self.root + "/out")
        self.assertEqual((result.returncode, result.stdout), (0, b""))
        with open(self.root + "/out", "rb") as file:
            self.assertEqual(file.read(), b"hi")
        self.assertEqual(self.run_it("post", "demo", "/", "-o", self.root + "/missing/out").returncode, 2)

    def test_leaves_the_output_file_as_it_is_until_there_is_a_reply(self):
        path = self.file("kept", b"keep")
        self.assertEqual(self.run_it("post", "missing", "/", "-o", path).returncode, 3)
        self.assertEqual(self.content(path), b"keep")
        self.assertEqual(self.run_it("post", "missing", "/", "-o", self.root + "/new").returncode, 3)
        self.assertFalse(os.path.exists(self.root + "/new"))
        self.serve("demo")
        self.assertEqual(self.run_it("post", "demo", "/", "-d", "hi", "-o", path).returncode, 0)
        self.assertEqual(self.content(path), b"hi")

    def test_takes_no_file_for_both_the_body_and_the_reply(self):
        self.serve("demo")
        path = self.file("same", b"content")
        for other in (path, self.root + "/./same"):
            for how in (["--stream"], []):
                result = self.run_it("post", "demo", "/", "-f", path, "-o", other, *how)
                self.assertEqual((result.returncode, self.content(path)), (2, b"content"))
                self.assertIn("the body is in this file", result.stderr.decode())
        if not IS_WINDOWS:
            self.assertEqual(self.run_it("post", "demo", "/", "-f", "/dev/null", "-o", "/dev/null").returncode, 0)

    def test_sees_before_it_sends_whether_the_output_can_be_written(self):
        server = self.serve("demo")
        paths = [self.root, self.root + "/missing/out", self.file("file", b"") + "/out", self.root + "/new/"]
        if not IS_WINDOWS and os.geteuid() != 0:  # whom nothing is denied
            os.chmod(self.file("denied", b""), 0o400)
            paths.append(self.root + "/denied")
        for path in paths:
            result = self.run_it("post", "demo", "/", "-o", path)
            self.assertEqual((result.returncode, result.stderr.decode().rstrip()),
                             (2, "qvtp: Cannot write to %s." % path))
        if not IS_WINDOWS:
            self.assertEqual(self.stop(server)[2], "Served 0 POST, 0 NOTIFY; 0 failed.\n")

    @SHELL
    def test_returns_6_if_the_output_cannot_be_opened_in_the_end(self):
        directory = self.root + "/gone"
        os.mkdir(directory)
        self.serve("demo", "--exec", "rmdir " + directory)
        result = self.run_it("post", "demo", "/", "-o", directory + "/out")
        self.assertEqual((result.returncode, result.stderr.decode()),
                         (6, "qvtp: The reply is here, but %s/out cannot be written.\n" % directory))

    def test_shows_request_and_reply_when_asked(self):
        self.serve("demo")
        result = self.run_it("post", "demo", "/a", "-d", "hi", "-H", "X-One: 1", "-H", "X-Two:2", "-v")
        lines = result.stderr.decode().splitlines()
        self.assertEqual(lines[:6], ["> POST /a QVTP/1.0", "> Content-Length: 2", "> User-Agent: QvtpClient",
                                     "> X-One: 1", "> X-Two: 2", ">"])
        self.assertIn("< QVTP/1.0 200 OK", lines)
        self.assertIn("< Content-Length: 2", lines)
        self.assertRegex(lines[-1], r"^\* milliseconds: connect [0-9.]+ sent [0-9.]+ firstByte [0-9.]+ total [0-9.]+$")

    def test_shows_the_head_that_is_sent(self):
        self.serve("demo")
        log = self.root + "/bytes"
        self.environment["QVTP_COMMUNICATION_LOG"] = "OUTPUT:" + log
        for arguments in (["post"], ["notify"], ["post", "-d", "hi", "--stream"], ["notify", "-d", "hi", "-H", "b: 1"],
                          ["post", "-H", "b: 1", "-H", "User-Agent: me", "-H", "A: 2", "-H", "B: 2", "-H", "a:"],
                          ["post", "-H", "c:", "-H", "C: 1", "-H", "d:"],
                          ["post", "-H", "user-agent: me"], ["post", "-H", "User-Agent: a", "-H", "USER-agent: b"]):
            result = self.run_it(arguments[0], "demo", "/a", "-v", *arguments[1:])
            self.assertEqual(result.returncode, 0)
            shown = [line[2:] for line in result.stderr.decode().splitlines() if line.startswith(">")]
            sent = self.content(log).decode().splitlines()[1:]
            os.remove(log)
            self.assertEqual(shown, sent[:sent.index("") + 1], arguments)

    def test_shows_times_in_their_order(self):
        self.serve("demo")
        large = self.file("large", b"x" * 100000)  # more than a command line holds on Windows
        for how in (["-d", "hi"], ["-d", "hi", "--stream"], ["-f", large], []):
            times = json.loads(self.run_it("post", "demo", "/", *how, "--json").stdout)["milliseconds"]
            self.assertEqual(list(times), ["connect", "sent", "firstByte", "total"])
            self.assertEqual(sorted(times.values()), list(times.values()))
            self.assertGreater(times["connect"], 0)
        seen = self.run_it("notify", "demo", "/", "-d", "hi", "-v").stderr.decode().splitlines()
        self.assertRegex(seen[-1], r"^\* milliseconds: connect [0-9.]+ sent [0-9.]+ total [0-9.]+$")

    def test_prints_the_whole_reply_as_json(self):
        self.serve("demo")
        reply = json.loads(self.run_it("post", "demo", "/", "-d", "hi", "--json").stdout)
        self.assertEqual((reply["status"], reply["reason"], reply["body"]), (200, "OK", "hi"))
        self.assertEqual(reply["headers"]["Content-Length"], "2")
        self.assertGreater(reply["milliseconds"]["total"], 0)
        reply = json.loads(self.run_it("post", "demo", "/", "-f", "-", "--json", data=b"\xff\x00").stdout)
        self.assertEqual(base64.b64decode(reply["bodyBase64"]), b"\xff\x00")

    def test_returns_1_for_another_status_and_prints_the_body_all_the_same(self):
        self.serve("demo", "--status", "404")
        result = self.run_it("post", "demo", "/", "-d", "hi")
        self.assertEqual((result.returncode, result.stdout), (1, b"hi"))
        self.assertEqual(result.stderr.rstrip(), b"qvtp: the reply is 404 Not Found")
        result = self.run_it("post", "demo", "/", "-d", "hi", "--json")
        self.assertEqual((result.returncode, result.stderr), (1, b""))

    @SOCKETS
    def test_shows_no_control_characters_of_a_status_or_a_header(self):
        def answer(connection):
            connection.recv(100)
            connection.sendall(b"QVTP/1.0 500 a\x1b[2J\x7f\xc2\x9bb\xc3\x9b\r\nX-A: \x1b]0;t\x07\r\n"
                               b"Content-Length: 2\r\n\r\n\x1b1")

        self.foreign("plain", answer)
        result = self.run_it("post", "plain", "/", "-d", "hi")
        self.assertEqual((result.stdout, result.stderr),
                         (b"\x1b1", b"qvtp: the reply is 500 a?[2J??b\xc3\x9b\n"))
        self.foreign("verbose", answer)
        result = self.run_it("post", "verbose", "/", "-d", "hi", "-v")
        self.assertIn(b"< QVTP/1.0 500 a?[2J??b\xc3\x9b\n", result.stderr)
        self.assertIn(b"< X-A: ?]0;t?\n", result.stderr)

    @SOCKETS
    def test_names_a_status_without_a_reason(self):
        def answer(connection):
            connection.recv(100)
            connection.sendall(b"QVTP/1.0 500 \r\nContent-Length: 0\r\n\r\n")

        self.foreign("plain", answer)
        self.assertEqual(self.run_it("post", "plain", "/", "-d", "hi").stderr, b"qvtp: the reply is 500\n")
        self.foreign("verbose", answer)
        self.assertIn(b"< QVTP/1.0 500\n", self.run_it("post", "verbose", "/", "-d", "hi", "-v").stderr)

    def test_returns_2_for_wrong_usage(self):
        for arguments in ([], ["nonsense"], ["post"], ["post", "demo"], ["post", "demo", "/", "--timeout", "x"],
                          ["post", "demo", "/", "-d", "a", "-f", "b"], ["post", "demo", "/", "--retry", "-1"],
                          ["post", "demo", "/", "-f", self.root + "/missing"], ["post", "demo", "/", "-f", self.root],
                          ["post", "demo", "/", "-H", "no colon"], ["post", "demo", "a b"], ["post", "", "/"]):
            result = self.run_it(*arguments)
            self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)
            self.assertNotEqual(result.stderr, b"", arguments)

    def test_returns_3_without_a_server_and_says_what_to_do(self):
        result = self.run_it("post", "demo", "/")
        self.assertEqual(result.returncode, 3)
        self.assertIn(r"\\.\pipe\demo" if IS_WINDOWS else self.directory + "/demo.sock", result.stderr.decode())
        self.assertIn("There is no server: start it", result.stderr.decode())

    @linux_only("the pipe directory is Linux's")
    def test_returns_4_if_it_is_denied(self):
        self.serve("demo")
        os.chmod(self.directory, 0o755)
        result = self.run_it("post", "demo", "/")
        self.assertEqual(result.returncode, 4)
        self.assertIn("chmod 700", result.stderr.decode())
        os.chmod(self.directory, 0o700)
        self.assertEqual(self.run_it("serve", "demo").returncode, 4)  # the name is taken

    @SHELL
    def test_returns_5_after_the_time_out(self):
        self.serve("demo", "--exec", "exec sleep 5 2> /dev/null")
        result = self.run_it("post", "demo", "/", "--timeout", "0.2", "--connect-timeout", "20")
        self.assertEqual(result.returncode, 5)
        self.assertIn("There was no answer in time", result.stderr.decode())

    @SOCKETS
    def test_returns_6_for_a_connection_that_breaks_and_a_body_that_is_cut_off(self):
        self.foreign("broken", lambda connection: connection.recv(10))
        self.assertEqual(self.run_it("post", "broken", "/", "-d", "hi").returncode, 6)

        def cut(connection):
            connection.recv(100)
            connection.sendall(b"QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\n")

        self.foreign("cut", cut)
        result = self.run_it("post", "cut", "/", "-d", "hi")
        self.assertEqual((result.returncode, result.stdout), (6, b"first"))

    @SOCKETS
    def test_returns_7_for_a_malformed_reply(self):
        def nonsense(connection):
            connection.recv(100)
            connection.sendall(b"SSH-2.0-OpenSSH\r\n\r\n")

        self.foreign("odd", nonsense)
        self.assertEqual(self.run_it("post", "odd", "/", "-d", "hi").returncode, 7)

    @SIGNALS
    def test_returns_130_when_it_is_interrupted(self):
        started = self.root + "/started"
        self.serve("demo", "--exec", "touch %s; exec sleep 20 2> /dev/null" % started)
        client = subprocess.Popen([*COMMAND, "post", "demo", "/"], env=self.environment, stderr=subprocess.PIPE)
        self.assertTrue(eventually(lambda: os.path.exists(started)))
        client.send_signal(signal.SIGINT)
        client.communicate(timeout=LIMIT)
        self.assertEqual(client.returncode, 130)

    def test_says_its_exit_codes_in_its_help(self):
        for arguments in (["--help"], ["post", "--help"], ["serve", "--help"]):
            result = self.run_it(*arguments)
            self.assertEqual(result.returncode, 0)
            for line in ("0    a status of 2xx", "130  ended by a signal"):
                self.assertIn(line, result.stdout.decode())

    @SHELL
    def test_ends_quietly_if_nobody_reads_what_it_prints(self):
        self.serve("demo")
        path = self.file("body", b"x" * (1 << 20))
        shell = "set -o pipefail; %s post demo / -f %s | head -c 1" % (PROGRAM, path)
        result = subprocess.run(["bash", "-c", shell], capture_output=True, timeout=LIMIT, env=self.environment)
        self.assertEqual(result.stdout, b"x")
        self.assertNotEqual(result.returncode, 0)


class Arguments(CliTest):
    def refused(self, *arguments):
        result = self.run_it(*arguments)
        self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)
        first, *others = result.stderr.decode().splitlines()
        self.assertEqual(others, ["Run with --help for more information."], arguments)
        return first

    def test_with_a_number_say_which_numbers_they_take(self):
        for value in ("abc", "-1", "nan", "inf", "1e3", "0x10", " 1", "1s", ".", "1.2.3", "2147484", "9" * 400):
            text = 'qvtp: --timeout: "%s" is no number of seconds from 0 to 2147483.' % value
            for command in (["post", "demo", "/"], ["ping", "demo"], ["bench", "demo"]):
                self.assertEqual(self.refused(*command, "--timeout=" + value), text)
        for value in ("abc", "-1", "1.5", "0x10", "1e3", "9" * 400, "1125899906842625"):
            self.assertEqual(self.refused("serve", "demo", "--max-body=" + value),
                             'qvtp: --max-body: "%s" is no number of bytes from 0 to 1125899906842624.' % value)
        for value in ("x", "0", "1000001", "+1", "1'000"):
            self.assertEqual(self.refused("ping", "demo", "-n", value),
                             'qvtp: --count: "%s" is no whole number from 1 to 1000000.' % value)

    def test_with_a_number_take_what_is_in_their_range(self):
        self.serve("demo", "--max-body", "1125899906842624", "--max-headers", "010", "--drain", "0.5")
        for value in ("0", "2147483", "20.5", "30.", "00020"):
            self.assertEqual(self.run_it("post", "demo", "/", "--timeout", value).returncode, 0)
        result = self.run_it("ping", "demo", "-n", "010", "--json")  # decimal, whatever stands in front
        self.assertEqual(json.loads(result.stdout)["us"]["count"], 10)

    def test_that_name_no_command_get_the_names_of_all(self):
        commands = "Commands: post, notify, serve, ls, ping, bench, trace, config, completion"
        self.assertEqual(self.refused("bogus"), "qvtp: There is no command bogus. " + commands)
        self.assertEqual(self.refused("bogus", "demo", "--x"), "qvtp: There is no command bogus. " + commands)
        self.assertEqual(self.refused(), "qvtp: A command is missing. " + commands)
        self.assertEqual(self.refused("config", "chek"), "qvtp: There is no command config chek. Commands: check")
        self.assertEqual(self.refused("config"), "qvtp: A command is missing. Commands: check")

    def test_that_are_wrong_are_named_with_the_program(self):
        for arguments, name in ((["post"], "PIPE"), (["post", "demo", "/", "--odd"], "--odd"), (["--odd"], "--odd"),
                                (["post", "demo", "/", "--timeout"], "--timeout"),
                                (["completion", "csh"], "csh"), (["post", "demo", "/", "-d", "a", "-f", "b"], "--file")):
            self.assertRegex(self.refused(*arguments), "^qvtp: .*" + name)

    def test_have_names_of_what_they_take_in_the_help(self):
        for command, types in (("post", ["SECONDS=30", "SECONDS", "NUMBER=0"]), ("ping", ["NUMBER=1", "SECONDS=5"]),
                               ("bench", ["NUMBER=10000", "NUMBER=1", "BYTES=64", "SECONDS=30"]),
                               ("serve", ["NUMBER=200", "NUMBER", "BYTES", "NUMBER", "BYTES", "SECONDS", "SECONDS",
                                          "SECONDS=10"])):
            text = self.run_it(command, "--help").stdout.decode()
            self.assertEqual(re.findall(r"--[a-z-]+ ((?:SECONDS|NUMBER|BYTES)\S*)", text), types)
            self.assertNotRegex(text, "FLOAT|INT|UINT|NONNEGATIVE")


@linux_only("there is no such device")
class LostOutput(CliTest):
    def test_is_reported_by_every_command(self):
        self.serve("demo")
        log = self.file("log", Trace.LOG.encode())
        for arguments in (["--help"], ["--version"], ["post", "--help"], ["post", "demo", "/", "-d", "hi"],
                          ["post", "demo", "/", "--json"], ["ls"], ["ls", "--json"], ["ping", "demo"],
                          ["bench", "demo", "-n", "10"], ["trace", log], ["config", "check", self.file("c", b"<c/>"), "--json"],
                          ["completion", "bash"]):
            with open("/dev/full", "wb") as full:
                result = subprocess.run([*COMMAND, *arguments], stdout=full, stderr=subprocess.PIPE, timeout=LIMIT,
                                        env=self.environment)
            self.assertEqual(result.returncode, 6, arguments)
            self.assertRegex(result.stderr, b"^qvtp: [^\n]* could not be written to its end.\n$", arguments)


@linux_only("sockets are no descriptors there")
class Messages(CliTest):
    def writes(self, *arguments):
        """Each write to standard error: what is written to such a socket at once is read at once."""
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_DGRAM)
        with ours, theirs:
            subprocess.run([*COMMAND, *arguments], stdout=subprocess.DEVNULL, stderr=theirs, timeout=LIMIT,
                           env=self.environment)
            theirs.close()
            ours.setblocking(False)
            seen = []
            while True:
                try:
                    seen.append(ours.recv(65536).decode())
                except BlockingIOError:
                    return seen

    def test_are_whole_where_several_programs_write_at_once(self):
        (text,) = self.writes("post", "demo", "/")
        self.assertRegex(text, r"^qvtp: POST / failed\. .*\n$")
        (text,) = self.writes("post", "demo", "/", "--nonsense")
        self.assertRegex(text, r"--nonsense")
        self.serve("demo", "--status", "404")
        self.assertEqual(self.writes("post", "demo", "/"), ["qvtp: the reply is 404 Not Found\n"])
        blocks = self.writes("post", "demo", "/", "-H", "X-A: 1", "-v")
        self.assertEqual([block[0] + block[-1] for block in blocks], [">\n", "<\n", "*\n"])
        (text,) = self.writes("serve", "")
        self.assertRegex(text, r"^qvtp: .*\n$")


@linux_only("descriptors have no numbers there")
class ClosedDescriptors(CliTest):
    def with_shell(self, line, **options):
        return subprocess.run(["bash", "-c", line.replace("qvtp", PROGRAM)], capture_output=True, timeout=LIMIT,
                              env=self.environment, **options)

    def test_report_that_a_body_cannot_be_printed(self):
        self.serve("demo")
        result = self.with_shell("qvtp post demo / -d hi >&-")
        self.assertEqual(result.returncode, 6)
        self.assertIn(b"could not be written", result.stderr)

    def test_give_an_empty_body(self):
        self.serve("demo")
        for how in ("-f - --stream", "-f -"):
            result = self.with_shell("qvtp post demo / %s <&-" % how)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))

    def test_take_messages_without_harm(self):
        self.serve("demo", "--status", "404")
        result = self.with_shell("qvtp post demo / -d hi -v 2>&-")
        self.assertEqual((result.returncode, result.stdout), (1, b"hi"))


@linux_only("terminals are another matter")
class Progress(CliTest):
    def on_terminal(self, *arguments, shows_output=False, code=0):
        """What a person sees on standard error, or on both."""
        master, slave = pty.openpty()
        process = subprocess.Popen([*COMMAND, *arguments], stdout=slave if shows_output else subprocess.DEVNULL,
                                   stderr=slave, env=self.environment)
        os.close(slave)
        seen = b""
        while select.select([master], [], [], LIMIT)[0]:
            try:
                piece = os.read(master, 65536)
            except OSError:  # the program has ended
                break
            seen += piece
        os.close(master)
        self.assertEqual(process.wait(LIMIT), code)
        return seen.decode()

    def test_leaves_the_status_a_line_of_its_own(self):
        self.serve("demo", "--status", "404")
        for body, seen in (("hi", "hi\r\n"), ("hi\n", "hi\r\n"), ("", "")):
            self.assertEqual(self.on_terminal("post", "demo", "/", "-d", body, shows_output=True, code=1),
                             seen + "qvtp: the reply is 404 Not Found\r\n")
        self.assertEqual(self.on_terminal("post", "demo", "/", "-d", "hi", "-o", self.root + "/out", code=1),
                         "qvtp: the reply is 404 Not Found\r\n")
        path = self.file("large", b"x" * (8 << 20) + b"\n")
        seen = self.on_terminal("post", "demo", "/", "-f", path, "--stream", code=1)
        self.assertRegex(seen, r"sent .*\r\x1b\[Kqvtp: the reply is 404 Not Found\r\n$")

    def test_is_shown_on_a_terminal_for_a_large_body(self):
        self.serve("demo")
        path = self.file("large", b"x" * (8 << 20))
        seen = self.on_terminal("post", "demo", "/", "-f", path, "--stream")
        self.assertRegex(seen, r"\[=* *\] sent [0-9.]+ of 8\.0 MiB")
        self.assertTrue(seen.endswith("\r\x1b[K"))
        seen = self.on_terminal("post", "demo", "/", "-f", path, "-o", self.root + "/out")
        self.assertRegex(seen, r"\[=* *\] received [0-9.]+ of 8\.0 MiB")

    def test_is_not_shown_for_a_small_body_or_when_it_is_not_wanted(self):
        self.serve("demo")
        path = self.file("large", b"x" * (8 << 20))
        self.assertEqual(self.on_terminal("post", "demo", "/", "-d", "hi", "--stream"), "")
        self.assertEqual(self.on_terminal("post", "demo", "/", "-f", path, "--stream", "--no-progress"), "")

    def test_is_not_shown_where_nobody_looks(self):
        self.serve("demo")
        path = self.file("large", b"x" * (8 << 20))
        self.assertEqual(self.run_it("post", "demo", "/", "-f", path, "--stream").stderr, b"")


class Notify(CliTest):
    def test_is_taken_by_the_server_without_a_reply(self):
        server = self.serve("demo", "-v")
        result = self.run_it("notify", "demo", "/log", "-d", "hello")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))
        self.assertRegex(server.stderr.readline().decode().replace("\r", ""), r"^NOTIFY /log from process \d+: 5 bytes$")


class Serve(CliTest):
    @SIGNALS
    def test_ends_cleanly_and_counts(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            server = self.serve("demo")
            self.run_it("post", "demo", "/")
            self.run_it("notify", "demo", "/")
            server.send_signal(number)
            _, err = server.communicate(timeout=LIMIT)
            self.assertEqual(server.returncode, 0)
            self.assertEqual(err.decode(), "Served 1 POST, 1 NOTIFY; 0 failed.\n")

    @SIGNALS
    def test_prints_its_counters_as_json(self):
        server = self.serve("demo", "--json")
        self.run_it("post", "demo", "/")
        code, out, _ = self.stop(server)
        self.assertEqual((code, json.loads(out)), (0, {"posts": 1, "notifies": 0, "failed": 0}))

    def test_answers_with_a_fixed_body_and_status(self):
        self.serve("demo", "--reply", "fixed", "--status", "201")
        reply = json.loads(self.run_it("post", "demo", "/", "-d", "other", "--json").stdout)
        self.assertEqual((reply["status"], reply["body"]), (201, "fixed"))

    @SHELL
    def test_runs_a_command_for_each_request(self):
        self.serve("demo", "--exec", 'echo "$QVTP_METHOD $QVTP_RESOURCE $QVTP_HEADER_X_KEY"; cat')
        result = self.run_it("post", "demo", "/a", "-d", "body", "-H", "X-Key: it's \"odd\" $HOME")
        self.assertEqual(result.stdout, b"POST /a it's \"odd\" $HOME\nbody")
        large = os.urandom(1 << 20)
        result = self.run_it("post", "demo", "/a", "-f", self.file("large", large))
        self.assertTrue(result.stdout.endswith(large))

    @SHELL
    def test_answers_500_if_the_command_fails(self):
        server = self.serve("demo", "--exec", "echo why; exit 3")
        reply = json.loads(self.run_it("post", "demo", "/", "--json").stdout)
        self.assertEqual((reply["status"], reply["body"]), (500, "why\n"))
        self.assertEqual(self.stop(server)[2], "Served 1 POST, 0 NOTIFY; 1 failed.\n")

    @SHELL
    def test_takes_a_command_that_does_not_read_its_input(self):
        self.serve("demo", "--exec", "echo done")
        large = self.file("large", b"x" * (4 << 20))
        self.assertEqual(self.run_it("post", "demo", "/", "-f", large).stdout, b"done\n")

    def test_answers_with_an_empty_body_if_told_so(self):
        self.serve("demo", "--reply", "")
        self.assertEqual(self.run_it("post", "demo", "/", "-d", "hello").stdout, b"")

    @SIGNALS
    def test_cuts_off_at_once_if_told_so(self):
        started = self.root + "/started"
        server = self.serve("demo", "--drain", "0", "--exec", "touch %s; exec sleep 2 2> /dev/null" % started)
        client = subprocess.Popen([*COMMAND, "post", "demo", "/"], stderr=subprocess.PIPE, env=self.environment)
        self.assertTrue(eventually(lambda: os.path.exists(started)))
        code, _, err = self.stop(server)
        client.communicate(timeout=LIMIT)
        self.assertEqual((code, client.returncode), (6, 6))
        self.assertIn("Requests were cut off.", err)

    @SIGNALS
    def test_ends_what_its_command_has_started_when_the_drain_is_over(self):
        for trap in ("", "trap '' TERM; "):  # the second one has to be killed
            pids = self.root + "/pids"
            server = self.serve("demo", "--drain", "0.2", "--exec", "%ssleep 1000 & echo $$ $! > %s.new; mv %s.new %s; wait"
                                % (trap, pids, pids, pids))
            client = subprocess.Popen([*COMMAND, "post", "demo", "/"], stderr=subprocess.PIPE, env=self.environment)
            self.assertTrue(eventually(lambda: os.path.exists(pids)))
            code, _, err = self.stop(server)
            client.communicate(timeout=LIMIT)
            self.assertEqual((code, client.returncode), (6, 6))
            self.assertIn("Requests were cut off.", err)
            started = [int(pid) for pid in self.content(pids).split()]
            os.remove(pids)
            eventually(lambda: not any(map(self.runs, started)))
            left = list(filter(self.runs, started))
            for pid in left:
                os.kill(pid, signal.SIGKILL)
            self.assertEqual(left, [], trap)

    @staticmethod
    def runs(pid):
        try:
            with open("/proc/%d/stat" % pid) as file:
                return file.read().rsplit(")", 1)[1].split()[0] != "Z"
        except (FileNotFoundError, ProcessLookupError):
            return False

    @SHELL
    def test_gives_its_command_the_signals_of_a_shell(self):
        errors = self.root + "/errors"
        self.serve("demo", "--exec", "yes 2> %s | head -n 1; cat %s" % (errors, errors))
        self.assertEqual(self.run_it("post", "demo", "/").stdout, b"y\n")

    @SIGNALS
    def test_leaves_an_ignored_signal_ignored(self):
        shell = subprocess.Popen(["sh", "-c", "trap '' INT; exec %s serve demo" % PROGRAM], stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, env=self.environment)
        self.addCleanup(self.end, shell)
        shell.stderr.readline()
        shell.send_signal(signal.SIGINT)
        self.assertEqual(self.run_it("post", "demo", "/", "-d", "still there").stdout, b"still there")
        self.assertEqual(self.stop(shell)[0], 0)

    def test_keeps_its_limits(self):
        self.serve("demo", "--max-body", "10")
        self.assertEqual(self.run_it("post", "demo", "/", "-d", "x" * 10).returncode, 0)
        reply = json.loads(self.run_it("post", "demo", "/", "-d", "x" * 11, "--json").stdout)
        self.assertEqual(reply["status"], 413)

    @SIGNALS
    def test_serves_what_has_begun_when_the_signal_comes(self):
        started = self.root + "/started"
        server = self.serve("demo", "--exec", "touch %s; sleep 0.5; echo late" % started)
        client = subprocess.Popen([*COMMAND, "post", "demo", "/"], stdout=subprocess.PIPE, env=self.environment)
        self.assertTrue(eventually(lambda: os.path.exists(started)))
        code, _, _ = self.stop(server)
        self.assertEqual((code, client.communicate(timeout=LIMIT)[0]), (0, b"late\n"))


@linux_only("the system shows names alone")
class List(CliTest):
    def pipes(self):
        return json.loads(self.run_it("ls", "--json").stdout)

    def test_is_empty_at_first(self):
        result = self.run_it("ls")
        self.assertEqual((result.returncode, result.stdout.decode().split()),
                         (0, ["NAME", "STATE", "DIRECTION", "PID", "PROGRAM"]))
        self.assertEqual(self.pipes(), [])

    def test_shows_who_serves_what(self):
        server = self.serve("demo")
        self.assertEqual(self.pipes(), [{"name": "demo", "path": self.directory + "/demo.sock", "state": "live",
                                         "direction": "both", "pid": server.pid, "program": "qvtp"}])
        table = self.run_it("ls").stdout.decode().splitlines()
        self.assertEqual(re.split("  +", table[1]), ["demo", "live", "both", str(server.pid), "qvtp"])
        self.assertEqual(self.run_it("ls", "--names").stdout, b"demo\n")

    def test_tells_a_stale_pipe_from_a_live_one(self):
        server = self.serve("demo")
        server.kill()
        server.wait()
        self.assertEqual([pipe["state"] for pipe in self.pipes()], ["stale"])
        self.assertEqual(self.run_it("ls", "--names").stdout, b"")

    def test_knows_names_of_any_characters_by_those_names(self):
        for name in ("my pipe", "a/b:c", "x" * 100):
            server = self.serve(name)
            (pipe,) = self.pipes()
            self.assertEqual((pipe["state"], pipe["pid"]), ("live", server.pid), name)
            if len(name) < 60:
                self.assertEqual(self.run_it("ping", pipe["name"]).returncode, 0)
                self.assertEqual(self.run_it("ls", "--names").stdout.decode().strip(), pipe["name"])
            self.stop(server)

    def test_shows_a_server_of_another_kind_as_live(self):
        self.foreign("other", lambda connection: None)
        self.assertEqual([(pipe["name"], pipe["state"]) for pipe in self.pipes()], [("other", "live")])
        self.assertEqual(self.run_it("ping", "other").returncode, 0)

    def test_finds_the_server_whatever_the_directory_is_called(self):
        self.environment["QVTP_PIPE_DIR"] = self.directory + "//"
        server = self.serve("demo")
        self.environment["QVTP_PIPE_DIR"] = self.directory
        self.assertEqual([pipe["pid"] for pipe in self.pipes()], [server.pid])

    def test_ends_when_nobody_reads_what_it_watches(self):
        watch = subprocess.Popen([*COMMAND, "ls", "--names", "--watch"], stdout=subprocess.PIPE, env=self.environment)
        self.addCleanup(watch.kill)
        self.serve("first")
        self.assertEqual(watch.stdout.readline(), b"first\n")
        watch.stdout.close()
        self.serve("second")
        self.assertNotEqual(watch.wait(LIMIT), 0)

    def test_watches(self):
        watch = subprocess.Popen([*COMMAND, "ls", "--names", "--watch"], stdout=subprocess.PIPE, env=self.environment)
        self.addCleanup(self.end, watch)
        self.serve("demo")
        self.assertEqual(watch.stdout.readline(), b"demo\n")
        watch.send_signal(signal.SIGINT)
        self.assertEqual(watch.wait(LIMIT), 130)


class Ping(CliTest):
    def test_reports_a_server_that_takes_connections_and_its_handler_sees_nothing(self):
        server = self.serve("demo", "-v")
        result = self.run_it("ping", "demo", "-n", "3")
        self.assertEqual(result.returncode, 0)
        self.assertRegex(result.stdout.decode(), r"^demo at .*demo(\.sock)? took 3 connections: min [0-9.]+, median ")
        self.assertEqual(json.loads(self.run_it("ping", "demo", "--json").stdout)["us"]["count"], 1)
        if not IS_WINDOWS:  # where nothing but Ctrl-C stops it in order
            self.assertEqual(self.stop(server)[2], "Served 0 POST, 0 NOTIFY; 0 failed.\n")

    def test_returns_3_without_a_server(self):
        self.assertEqual(self.run_it("ping", "demo").returncode, 3)

    def test_returns_2_for_no_name(self):
        self.assertEqual(self.run_it("ping", "").returncode, 2)

    @SHELL
    def test_takes_a_place_in_the_queue_for_a_connection(self):
        server = self.serve("demo", "--workers", "1", "--drain", "0", "--exec",
                            "touch %s/started$QVTP_PEER_PID; exec sleep 20 2> /dev/null" % self.root)
        for count in range(1, 4):  # 1 works as 3
            client = subprocess.Popen([*COMMAND, "post", "demo", "/"], stderr=subprocess.PIPE, env=self.environment)
            self.addCleanup(self.end, client)
            self.assertTrue(eventually(lambda: sum("started" in name for name in os.listdir(self.root)) == count))
        self.assertEqual(self.run_it("ping", "demo").returncode, 0)
        self.stop(server)


class Bench(CliTest):
    # How sanitizers refuse to start under a limit. What they find later is none of it.
    NO_MEMORY = (rb"Sanitizer failed to allocate|ReserveShadowMemoryRange failed|unexpected memory mapping|"
                 rb"Sanitizer: CHECK failed: sanitizer_allocator_primary")

    @linux_only("memory is limited in another way")
    def test_ends_in_order_if_threads_or_memory_run_out(self):
        self.serve("demo")
        for arguments, text in (("-c 1000", rb"threads|memory"), ("-s 2147483647", rb"memory")):
            shell = "ulimit -v 600000; exec %s bench demo / -n 10 %s" % (PROGRAM, arguments)
            result = subprocess.run(["bash", "-c", shell], capture_output=True, timeout=LIMIT, env=self.environment)
            if re.search(self.NO_MEMORY, result.stderr):
                self.skipTest("a sanitizer needs more memory than the limit")
            self.assertEqual(result.returncode, 6, result.stderr)
            self.assertRegex(result.stderr, rb"^qvtp: The system has no more (%s) for this\.\n$" % text)

    def test_takes_sizes_that_a_body_can_have(self):
        result = self.run_it("bench", "demo", "-s", "2147483648")
        self.assertEqual(result.returncode, 2)
        self.assertIn('--size: "2147483648" is no number of bytes from 0 to 2147483647.', result.stderr.decode())

    def test_reports_times_and_a_histogram(self):
        server = self.serve("demo")
        result = self.run_it("bench", "demo", "/", "-n", "500", "-c", "3", "-s", "100")
        lines = result.stdout.decode().splitlines()
        self.assertEqual(result.returncode, 0)
        self.assertRegex(lines[0], r"^500 requests of 3 clients, \d+ per second$")
        self.assertRegex(lines[1], r"^min [0-9.]+, median [0-9.]+, p90 [0-9.]+, p99 [0-9.]+, max [0-9.]+ microseconds$")
        self.assertEqual(sum(int(line.split()[4]) for line in lines[2:]), 500)
        if not IS_WINDOWS:
            self.assertIn("Served 500 POST", self.stop(server)[2])

    def test_prints_json_and_returns_1_for_other_statuses(self):
        self.serve("demo", "--status", "500")
        result = self.run_it("bench", "demo", "/", "-n", "10", "--json")
        report = json.loads(result.stdout)
        self.assertEqual((result.returncode, report["requests"], report["otherStatuses"]), (1, 10, 10))

    def test_returns_3_without_a_server(self):
        self.assertEqual(self.run_it("bench", "demo", "/").returncode, 3)


class Trace(CliTest):
    LOG = ("2026-11-22 09:58:33.  1 [INPUT ] a" + " " * 49 + "\nPOST /1 QVTP/1.0\nContent-Length: 3\none\n"
           "2026-11-22 09:58:33. 20 [INPUT ] b" + " " * 49 + "\nPOST /2 QVTP/1.0\nTransfer-Encoding: chunked\ntwo<&>\n"
           "2026-11-22 09:58:34.  0 [OUTPUT] b" + " " * 49 + "\nQVTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n\n"
           "2026-11-22 09:58:35.001 [OUTPUT] a" + " " * 49 + "\nQVTP/1.0 404 <no>\r\nContent-Length: 0\r\n\r\n\n"
           "2026-11-22 09:58:36.  0 [INPUT ] a" + " " * 49 + "\nPOST /3 QVTP/1.0\nContent-Length: 0\n\n")

    def trace(self, *arguments):
        return self.run_it("trace", self.file("log", self.LOG.encode()), *arguments)

    def test_shows_a_real_exchange(self):
        self.serve("demo")
        self.environment["QVTP_COMMUNICATION_LOG"] = "BOTH:" + self.root + "/bytes"
        self.environment["QVTP_LOG"] = "DEBUG:" + self.root + "/lines"
        self.run_it("post", "demo", "/a", "-d", "hello")
        self.run_it("notify", "demo", "/b", "-d", "x")
        self.run_it("post", "missing", "/", "-d", "x")
        del self.environment["QVTP_COMMUNICATION_LOG"], self.environment["QVTP_LOG"]
        result = self.run_it("trace", self.root + "/bytes", self.root + "/lines")
        lines = [re.sub(r"^\+\d+ ms ", "", line) for line in result.stdout.decode().splitlines()]
        self.assertEqual(lines[:3], ["-> POST /a QVTP/1.0, 5 bytes", "<- QVTP/1.0 200 OK, 5 bytes",
                                     "-> NOTIFY /b QVTP/1.0, 1 byte"])
        self.assertEqual(lines[3], "ERROR Could not open pipe. GLE=2")

    def test_pairs_by_correlation_id(self):
        data = json.loads(self.trace("--json").stdout)
        self.assertEqual(data["exchanges"], [{"request": 0, "response": 3, "ms": 2000},
                                             {"request": 1, "response": 2, "ms": 980}, {"request": 4}])
        self.assertEqual([message["ms"] for message in data["messages"]], [0, 19, 999, 2000, 2999])
        self.assertEqual([message["bodyBytes"] for message in data["messages"]], [3, 6, 0, 0, 0])
        self.assertEqual(data["messages"][1]["headers"], {"Transfer-Encoding": "chunked"})

    def test_draws_a_picture_and_a_page(self):
        for ending in ("svg", "html"):
            path = self.root + "/out." + ending
            self.assertEqual(self.trace("-o", path).returncode, 0)
            with open(path, encoding="utf-8") as file:
                content = file.read()
            picture = content[content.index("<svg"):content.index("</svg>") + 6]
            root = xml.etree.ElementTree.fromstring(picture)
            texts = [element.text for element in root.iter("{http://www.w3.org/2000/svg}text")]
            for expected in ("POST /1 QVTP/1.0, 3 bytes", "QVTP/1.0 404 <no>, 0 bytes", "no response", "980 ms", "+999 ms"):
                self.assertIn(expected, texts)
            if ending == "html":
                self.assertIn("Transfer-Encoding: chunked", content)
                self.assertNotIn("<no>", content)

    def test_takes_the_time_of_the_log_lines_for_utc(self):
        self.environment["TZ"] = "EST5"
        lines = self.file("lines", b"WARN  - 2026/11/22-14:58:33. 11 UTC - Thread-1: a - odd - thing- Quovane.SOA.Qvtp\n")
        data = json.loads(self.trace(lines, "--json").stdout)
        self.assertEqual(data["lines"], [{"ms": 10, "level": "WARN", "text": "odd - thing"}])

    @staticmethod
    def record(direction, *lines, body=b"", end="\n", time="09:58:33.  1"):
        """A message; the lines of one that was written end as on the pipe."""
        ends = "\r\n" if direction == "OUTPUT" else "\n"
        head = "2026-11-22 %s [%-6s] %s\n" % (time, direction, " " * 50) + "".join(line + ends for line in lines)
        return head.encode() + (ends.encode() if direction == "OUTPUT" else b"") + body + end.encode()

    def messages(self, log):
        result = self.run_it("trace", self.file("log", log), "--json")
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        return json.loads(result.stdout)["messages"]

    def outputs(self, *files):
        """Every form that there is of this trace."""
        self.assertEqual(self.run_it("trace", *files).returncode, 0)
        contents = []
        for ending in ("svg", "html", "json"):
            path = self.root + "/out." + ending
            self.assertEqual(self.run_it("trace", *files, "-o", path).returncode, 0, ending)
            with open(path, encoding="utf-8") as file:
                contents.append(file.read())
        xml.etree.ElementTree.fromstring(contents[0])
        return contents[0], contents[1], json.loads(contents[2])

    def test_takes_lines_of_a_megabyte_everywhere(self):
        long = "a" * 1000000
        fine = self.record("INPUT", "POST /last QVTP/1.0", "Content-Length: 0")
        for head, body in ((["POST /%s QVTP/1.0" % long, "Content-Length: 1"], b"x"),
                           (["POST / QVTP/1.0", "X: " + long, "Content-Length: 1"], b"x"),
                           (["POST / QVTP/1.0", long + ": x", "Content-Length: 1"], b"x"),
                           (["POST / QVTP/1.0", "X: x", " " + long, "Content-Length: 1"], b"x"),
                           (["POST / QVTP/1.0", "Content-Length: 1000000"], long.encode()),
                           (["POST / QVTP/1.0", "Content-Length: 9"], long.encode()),
                           (["POST / QVTP/1.0", "Transfer-Encoding: chunked"], long.encode()),
                           (["POST / QVTP/1.0", "Transfer-Encoding: chunked"], b"b: " + long.encode()),
                           (["POST / QVTP/1.0"], long.encode())):
            for direction in ("INPUT", "OUTPUT"):
                messages = self.messages(self.record(direction, *head, body=body) + fine)
                self.assertEqual([message["startLine"] for message in messages], [head[0], "POST /last QVTP/1.0"])
        log = fine.replace(b"] " + b" " * 50, b"] " + b"i" * 1000000)
        self.assertEqual(self.messages(log)[0]["id"], "i" * 1000000)
        lines = self.file("lines", b"x" * 1000000 + b"\n" +
                          b"".join(b"%s - 2026/11/22-09:58:34.500 UTC - Thread-1: %s - %s- Quovane.SOA.Qvtp\n" % line
                                   for line in ((b"WARN ", b"", long.encode()), (b"ERROR", long.encode(), b"x"))))
        data = self.outputs(self.file("log", log), lines)[2]
        self.assertEqual([(line["level"], line["text"]) for line in data["lines"]], [("WARN", long), ("ERROR", "x")])

    def test_takes_bodies_of_very_many_short_lines_in_time(self):
        size = 160000
        log = self.file("log", self.record("INPUT", "POST / QVTP/1.0", "Content-Length: 9", body=b"a: b\n" * size) +
                        self.record("INPUT", "POST / QVTP/1.0", body=b"\n" * size) +
                        self.record("INPUT", "POST / QVTP/1.0", "Content-Length: 3", body=b"one") * (size // 20))
        self.assertEqual(self.run_it("trace", log, "-o", self.root + "/out.svg").returncode, 0)

    def test_cuts_between_characters_and_replaces_what_is_none(self):
        log = self.record("INPUT", "POST /" + "\u20ac" * 20 + " QVTP/1.0", "X: A\x7fB\x1bC\u0085D\uffffEZ",
                          "Content-Length: 1", body=b"x").replace(b"Z", b"\xff\xc3") * 2
        log += self.record("OUTPUT", "QVTP/1.0 200 \x7f\x01\u009b\ufffeZ", "Content-Length: 0").replace(b"Z", b"\xe2\x82")
        log = log.replace(b"[INPUT ] " + b" " * 50, b"[INPUT ] " + b"\xc3\xa4" * 25)
        lines = self.file("lines", b"WARN  - 2026/11/22-09:58:34.500 UTC - Thread-1:  - " + b"\xe2\x82\xac" * 99 +
                          b"\xff- Quovane.SOA.Qvtp\n")
        path = self.file("log", log)
        picture, page, data = self.outputs(path, lines)
        self.assertIn("POST /" + "\u20ac" * 8 + "...<", picture)
        self.assertNotIn("POST /" + "\u20ac" * 8 + "\ufffd", picture)
        self.assertIn("X: A\ufffdB\ufffdC\ufffdD\ufffdE\ufffd\ufffd\n", page)
        self.assertEqual(data["messages"][0]["headers"]["X"], "A\x7fB\x1bC\u0085D\uffffE\ufffd\ufffd")
        out = self.run_it("trace", path, lines).stdout.decode()
        self.assertIn("QVTP/1.0 200 \ufffd\ufffd\ufffd\ufffd\ufffd, 0 bytes", out)
        for text in (picture, page, out):
            self.assertEqual(re.findall("[\x00-\x08\x0b-\x1f\x7f-\x9f\ufffe\uffff]", text), [])

    def test_says_of_a_streamed_body_that_is_not_in_the_log_that_it_was_streamed(self):
        self.serve("demo", "--echo")
        for level, label in (("WARN", "streamed"), ("INFO", "5 bytes")):
            log = self.root + "/" + level
            self.environment["QVTP_COMMUNICATION_LOG"] = "BOTH:" + log
            self.environment["QVTP_LOG"] = level + ":" + self.root + "/lines"
            self.assertEqual(self.run_it("post", "demo", "/a", "-d", "hello", "--stream").stdout, b"hello")
            self.assertEqual(self.run_it("post", "demo", "/b", "-d", "hello").stdout, b"hello")
            del self.environment["QVTP_COMMUNICATION_LOG"], self.environment["QVTP_LOG"]
            lines = [re.sub(r"^\+\d+ ms ", "", line) for line in self.run_it("trace", log).stdout.decode().splitlines()]
            self.assertEqual(lines, ["-> POST /a QVTP/1.0, " + label, "<- QVTP/1.0 200 OK, 5 bytes",
                                     "-> POST /b QVTP/1.0, 5 bytes", "<- QVTP/1.0 200 OK, 5 bytes"])
            picture, page, data = self.outputs(log)
            self.assertIn("POST /a QVTP/1.0, %s<" % label, picture)
            self.assertEqual("their sizes are not known" in page, level == "WARN")
            self.assertEqual([message["bodyBytes"] for message in data["messages"]],
                             [5 if level == "INFO" else None, 5, 5, 5])
            self.assertEqual([message.get("streamed") for message in data["messages"]], [True, None, None, None])

    # Each line is what a head or the log itself could have.
    BODIES = (b"body-line: x", b"body-line: x\n\nContent-Length: 7\n",
              b"2026-01-01 01:01:01.001 [INPUT ] " + b" " * 50 + b"\nPOST /fake QVTP/1.0\nContent-Length: 0\n\n",
              b"x\n2026-01-01 01:01:01.001 [OUTPUT] " + b" " * 50 + b"\nPOST /fake QVTP/1.0\r\n\r\n", b"\n\n", b"\r\n")

    def test_takes_no_body_for_headers_or_messages(self):
        def content(log):
            with open(self.root + "/" + log, "rb") as file:
                return file.read()

        for level, heads in (("INFO", 2), ("WARN", 1)):
            self.environment.update(QVTP_COMMUNICATION_LOG="BOTH:" + self.root + "/server" + level,
                                    QVTP_LOG=level + ":" + self.root + "/lines")
            self.serve(level, "--echo")
            self.environment["QVTP_COMMUNICATION_LOG"] = "BOTH:" + self.root + "/client" + level
            for body in self.BODIES:
                self.assertEqual(self.run_it("post", level, "/", "-f", "-", data=body).stdout, body)
            del self.environment["QVTP_COMMUNICATION_LOG"], self.environment["QVTP_LOG"]
            # A server may write its record after the reply.
            self.assertTrue(eventually(lambda: content("server" + level).count(b" 200 OK") == heads * len(self.BODIES)))
            for log in ("client", "server"):
                messages = self.messages(content(log + level))
                self.assertEqual([message["bodyBytes"] for message in messages],
                                 [len(body) for body in self.BODIES for _ in range(2)], log + level)
                for message in messages:
                    self.assertEqual(len(message["headers"]), 2, message)
                    self.assertNotIn("headersOrBody", message)
                self.assertEqual({message["startLine"] for message in messages}, {"POST / QVTP/1.0", "QVTP/1.0 200 OK"})

    def test_does_not_take_messages_for_a_body_that_was_not_recorded(self):
        reply = self.record("INPUT", "QVTP/1.0 200 OK", "Content-Length: 3", body=b"two")
        request = self.record("OUTPUT", "POST / QVTP/1.0", "Content-Length: %d" % (len(reply) - 1), end="")
        self.assertEqual([message["startLine"] for message in self.messages((request + reply) * 3)],
                         ["POST / QVTP/1.0", "QVTP/1.0 200 OK"] * 3)

    def test_knows_a_body_that_a_server_skips_after_its_reply(self):
        for body in self.BODIES:
            request = self.record("INPUT", "POST /a QVTP/1.0", "Content-Length: %d" % len(body), "User-Agent: me", end="")
            head = self.record("OUTPUT", "QVTP/1.0 404 Not Found", "Content-Length: 3", end="")
            for reply in (head, head + head[head.index(b"\n") + 1:] + b"one\n"):
                messages = self.messages((request + reply + body + b"\n") * 2)
                self.assertEqual([(message["startLine"], message["headers"], message.get("headersOrBody"))
                                  for message in messages],
                                 [("POST /a QVTP/1.0", {"Content-Length": str(len(body)), "User-Agent": "me"}, None),
                                  ("QVTP/1.0 404 Not Found", {"Content-Length": "3"}, None)] * 2, (reply, body))
            head = self.record("OUTPUT", "QVTP/1.0 404 Not Found", "Transfer-Encoding: chunked", end="")
            self.assertIsNone(self.messages(request + head + b"one\n" + body + b"\n")[1]["bodyBytes"])

    def test_says_where_headers_cannot_be_told_from_a_body(self):
        log = self.record("INPUT", "POST /a QVTP/1.0", "A: a", "Transfer-Encoding: chunked", "User-Agent: me",
                          body=b"body-line: <x>\nrest\n")
        log += self.record("INPUT", "QVTP/1.0 200 OK", "Content-Length: 9999", "B: b", body=b"cut-off: x")
        log += self.record("INPUT", "POST /last QVTP/1.0", "Content-Length: 0", "C: c", end="")
        picture, page, data = self.outputs(self.file("log", log))
        self.assertEqual([(message["headers"], message.get("headersOrBody"), message["bodyBytes"])
                          for message in data["messages"]],
                         [({"A": "a", "Transfer-Encoding": "chunked"}, ["User-Agent: me", "body-line: <x>"], 5),
                          ({"Content-Length": "9999"}, ["B: b", "cut-off: x"], 9999),
                          ({"Content-Length": "0", "C": "c"}, None, 0)])
        self.assertIn("POST /a QVTP/1.0, streamed, at least 5 bytes", picture)
        self.assertEqual(page.count("The log does not say whether these lines are headers, or the begin of the body:"), 2)
        self.assertIn("body-line: &lt;x&gt;\n", page)
        self.assertIn("The log does not have their lengths", page)

    def test_returns_2_for_what_it_cannot_read_or_write(self):
        for arguments in ([self.root + "/missing"], [self.file("empty", b"")], [self.file("other", b"no log\n")],
                          [self.file("log", self.LOG.encode()), "-o", self.root + "/out.png"],
                          [self.file("log", self.LOG.encode()), "-o", self.root + "/missing/out.svg"],
                          [self.file("log", self.LOG.encode()), self.root + "/missing"]):
            result = self.run_it("trace", *arguments)
            self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)


class Browser(CliTest):
    """The page of a trace, as a browser lays it out and paints it."""

    # What lies outside of the picture, and what lies on something else.
    SCRIPT = """<script>
        const picture = document.querySelector("svg").getBoundingClientRect();
        const texts = [...document.querySelectorAll("svg text")].map(text => [text.textContent, text.getBoundingClientRect()]);
        const outside = texts.filter(([, box]) => box.left < picture.left || box.right > picture.right ||
                                                  box.top < picture.top || box.bottom > picture.bottom);
        const meets = (a, b) => a.left < b.right && b.left < a.right && a.top < b.bottom - 2 && b.top < a.bottom - 2;
        const covered = texts.filter(([, a], i) => texts.some(([, b], j) => i < j && meets(a, b)));
        const report = {texts: texts.length, outside: outside.map(([text]) => text), covered: covered.map(([text]) => text),
                        wide: document.documentElement.scrollWidth, open: document.querySelectorAll("details").length};
        document.title = JSON.stringify(report);
    </script>"""

    def browse(self, page, *arguments):
        browser = shutil.which("chromium") or shutil.which("chromium-headless-shell")
        if browser is None:
            self.skipTest("there is no browser")
        return subprocess.run([browser, "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                               "--user-data-dir=" + self.root + "/profile", "--window-size=1300,900", *arguments,
                               "file://" + page], capture_output=True, timeout=3 * LIMIT)

    def page(self):
        log = self.file("log", Trace.LOG.encode())
        lines = self.file("lines", b"WARN  - 2026/11/22-09:58:34.500 UTC - Thread-1:  - What is <odd> and " + b"long " * 40 +
                          b"- Quovane.SOA.Qvtp\n")
        path = self.root + "/out.html"
        self.assertEqual(self.run_it("trace", log, lines, "-o", path).returncode, 0)
        return path

    def test_lays_the_page_out_without_a_text_on_another(self):
        path = self.page()
        with open(path, "a", encoding="utf-8") as file:
            file.write(self.SCRIPT)
        result = self.browse(path, "--dump-dom")
        report = json.loads(html.unescape(re.search("<title>(.*?)</title>", result.stdout.decode())[1]))
        self.assertGreater(report["texts"], 20)
        self.assertEqual((report["outside"], report["covered"], report["open"]), ([], [], 5))
        self.assertLessEqual(report["wide"], 1300)

    def test_paints_bars_arrows_and_lines_of_the_log(self):
        picture = self.root + "/page.png"
        self.browse(self.page(), "--screenshot=" + picture)
        colours = collections.Counter(pixels(picture))
        self.assertGreater(colours[0x1B5E9E], 1000, "the bars of answered requests")
        self.assertGreater(colours[0xB71C1C], 100, "the line of the log, and the bar of the open request")
        self.assertGreater(colours[0xFFFFFF], 1300 * 900 / 2, "what is left of the page")


class Config(CliTest):
    THROWS = ("2:1: error: Applying this entry throws NumberFormatException, which ends a program that does not catch "
              "it.")
    FILE = b"""<?xml version="1.0"?>
<!-- <QvtpClient function="no"/> -->
<configuration>
  <QvtpClient function="billing" component="front&amp;end" connect_timeout="5000"
              stale_timeout = '10000'/>
  <QvtpServer function="billing" component="\xc3\xbc" max_request_processors="0"></QvtpServer>
  <other><![CDATA[ <QvtpClient function="no"/> ]]></other>
</configuration>
"""

    def check(self, content, *arguments):
        result = self.run_it("config", "check", self.file("c.xml", content), *arguments)
        self.assertEqual(result.stderr, b"")
        return result.returncode, result.stdout.decode().replace(self.root + "/", "")

    def findings(self, *lines):
        """Of a file with these lines; those of every finding, without the name of the file."""
        code, out = self.check("\n".join(lines).encode())
        found = [line[6:] for line in out.splitlines() if re.match(r"c\.xml:.*(error|warning): ", line)]
        self.assertEqual(code, 1 if found else 0)
        return found

    def test_prints_what_each_entry_comes_to(self):
        code, out = self.check(self.FILE)
        self.assertEqual(code, 0)
        self.assertEqual(out.splitlines(), [
            'c.xml:4:3: QvtpClient function="billing" component="front&end"',
            "    connect_timeout=5000", "    stale_timeout=10000", "    buffer_size=40960 (default)",
            'c.xml:6:3: QvtpServer function="billing" component="\u00fc"', "    max_request_processors=0",
            "    accept_timeout=0 (default)", "    idle_timeout=13000 (default)", "    receive_timeout=3000 (default)",
            "    buffer_size=4096 (default)"])

    def test_says_which_entry_matches(self):
        code, out = self.check(self.FILE, "--function", "billing", "--component", "\u00fc")
        self.assertEqual(code, 0)
        self.assertEqual([line for line in out.splitlines() if line.startswith("c.xml")],
                         ['c.xml: no QvtpClient function="billing" component="\u00fc"',
                          'c.xml:6:3: QvtpServer function="billing" component="\u00fc"'])
        code, out = self.check(self.FILE, "--function", "Billing", "--json")
        self.assertEqual(code, 1)
        self.assertEqual([entry["found"] for entry in json.loads(out)["entries"]], [False, False])
        self.assertEqual(json.loads(out)["entries"][0]["options"]["connect_timeout"], 60000)

    def test_prints_json(self):
        code, out = self.check(b'<c>\n<QvtpServer function="f" idle_timeut="1" buffer_size="7"/></c>', "--json")
        report = json.loads(out)
        self.assertEqual((code, report["read"], report["findings"]),
                         (1, True, [{"severity": "error", "line": 2, "column": 26,
                                     "text": 'QvtpServer has no attribute "idle_timeut": it is skipped. '
                                             "Is idle_timeout meant?"}]))
        entry = report["entries"][0]
        self.assertEqual((entry["line"], entry["column"], entry["function"], entry["component"]), (2, 1, "f", ""))
        self.assertEqual(entry["options"]["buffer_size"], 7)
        self.assertEqual(entry["defaults"], ["max_request_processors", "accept_timeout", "idle_timeout",
                                             "receive_timeout"])

    def test_names_unknown_attributes_with_their_place(self):
        self.assertEqual(self.findings("<c>", '<QvtpClient function="\u00fc\u00fc" idle_timeout="1"', '   colour="red"',
                                       "\tConnect_Timeout='1' read_timeout='2'/>", "</c>"),
                         ['2:27: error: QvtpClient has no attribute "idle_timeout": it is skipped. QvtpServer has it.',
                          '3:4: error: QvtpClient has no attribute "colour": it is skipped.',
                          '4:2: error: QvtpClient has no attribute "Connect_Timeout": it is skipped. '
                          "Is connect_timeout meant?", "4:22: warning: read_timeout is not supported, and skipped."])

    def test_names_values_out_of_range(self):
        self.assertEqual(self.findings('<c><QvtpServer buffer_size="0" max_request_processors="2" idle_timeout="-1"/>',
                                       '<QvtpClient stale_timeout="-1" connect_timeout="0" buffer_size="1"/></c>'),
                         ["1:16: warning: buffer_size: 0 works as 1.",
                          "1:32: warning: max_request_processors: 2 works as 3; without limit is 0.",
                          "1:59: warning: idle_timeout: -1 works as 24 to 50 days; without limit is 0.",
                          "2:13: warning: stale_timeout: -1 works as 0: no connection is used twice."])

    def test_names_values_that_are_no_numbers(self):
        for value in ("eight", "", "1.5", "0x10", "1 2", "--1"):
            found = self.findings("<c>", '<QvtpClient connect_timeout="%s"/>' % value, "</c>")
            self.assertEqual(found, [self.THROWS, '2:13: error: connect_timeout: "%s" is no number.' % value])
        self.assertEqual(self.findings('<c><QvtpClient connect_timeout=" +15 "/></c>'), [])

    def test_names_numbers_that_do_not_fit(self):
        for value in ("99999999999999999999", "-9223372036854775809"):
            found = self.findings("<c>", '<QvtpClient connect_timeout="%s"/>' % value, "</c>")
            self.assertEqual(found, [self.THROWS, "2:13: error: connect_timeout: %s does not fit into 32 bits." % value])
        if IS_WINDOWS:
            return  # where the parser refuses the following ones too
        for value, result in (("2147483648", -2147483648), ("-2147483649", 2147483647), ("4294967297", 1)):
            content = '<c><QvtpClient connect_timeout="%s"/></c>' % value
            self.assertEqual(self.findings(content), ["1:16: error: connect_timeout: %s does not fit into 32 bits: "
                                                      "the option gets %d." % (value, result)])
            self.assertIn("    connect_timeout=%d\n" % result, self.check(content.encode())[1])

    def test_says_of_the_entry_that_throws_that_it_does(self):
        found = self.findings("<c>", '<QvtpClient stale_timeout="-1" colour="" buffer_size="x"/>',
                              '<QvtpClient buffer_size="x"/>', "</c>")
        self.assertEqual([line for line in found if "throws" in line], [self.THROWS])
        self.assertIn('3:13: error: buffer_size: "x" is no number.', found)

    def test_shows_no_options_of_an_entry_that_throws(self):
        content = b'<c><QvtpClient function="f" connect_timeout="1" buffer_size="x"/><QvtpServer/></c>'
        for arguments in ([], ["--function", "f"]):
            out = self.check(content, *arguments)[1].splitlines()
            self.assertEqual(out[0], 'c.xml:1:4: QvtpClient function="f" component=""')
            self.assertTrue(out[1].startswith("c.xml:"), out)
            entry = json.loads(self.check(content, "--json", *arguments)[1])["entries"][0]
            self.assertEqual((entry["line"], entry["options"], entry["defaults"]), (1, {}, []))

    def test_names_entries_that_are_never_used(self):
        self.assertEqual(self.findings("<c>", '<QvtpClient function="f"/>', '<QvtpServer function="f"/>',
                                       '<QvtpClient component="" function="f"/>', "<QvtpSever/><Other/>",
                                       "<Other><QvtpServer/></Other>", "</c>"),
                         ["4:1: error: This entry is never used: line 2 has one for the same function and component.",
                          "5:1: error: QvtpSever is no entry, and ignored. Is QvtpServer meant?",
                          "6:8: warning: QvtpServer is no child of the root element: it is ignored."])

    def test_says_where_a_file_is_malformed(self):
        for content, place in ((b"<a>\n<b></a>", "2:4"), (b"<a>\n<b x='1", "2:1"), (b"<a>\n", "2:1"),
                               (b"<a>\n<!-- ", "2:1"), (b"<a x=1/>", "1:1"), (b"", ""), (b"text", "")):
            code, out = self.check(content)
            self.assertEqual(code, 1, content)
            self.assertRegex(out, r"^c\.xml:%s error: .+\n$" % (place + ":" if place else ""))
            self.assertFalse(json.loads(self.check(content, "--json")[1])["read"])

    def test_says_of_a_file_that_ends_within_a_tag_where_it_ends(self):
        for content, place in ((b"<a", "1:3"), (b"<a>\n  <b\n", "3:1"), (b"<a><b x='1'", "1:12"), (b"<a><b x", "1:8"),
                               (b"<a><b x=", "1:9"), (b"<a><b x='1'\n\n  /", "3:4"), (b"<a>\n<b/></a", "2:5"),
                               (b"<a></a>\n<b", "2:1")):
            self.assertRegex(self.check(content)[1], r"^c\.xml:%s: error: .+\n$" % place)

    def test_knows_a_file_with_a_grammar(self):
        grammar = """<!DOCTYPE c [ <!-- ' <x> -->
            <!ELEMENT c (QvtpClient)*> <!ELEMENT QvtpClient EMPTY>
            <!ATTLIST QvtpClient function CDATA "g>"> ]>\n"""
        code, out = self.check(grammar.encode() + b"<c><QvtpClient/></c>", "--function", "g>")
        self.assertIn("buffer_size=40960 (default)", out)
        self.assertEqual(self.findings(grammar + "<c><QvtpClient function='f'/></c>"), [])
        found = self.findings(grammar + "<c><QvtpClient buffer='1'/></c>")
        self.assertEqual(len(found), 2, found)
        self.assertRegex(found[0], "^ error: .*buffer")  # the parser's own line
        self.assertEqual(found[1], '4:16: error: QvtpClient has no attribute "buffer": it is skipped.')

    def test_takes_numbers_of_any_length(self):
        for value in ("1" * 100000, "-" + "0" * 100000 + "1", "+" + "1" * 100000 + "x"):
            found = self.findings("<c>", '<QvtpClient connect_timeout="%s"/>' % value, "</c>")
            self.assertTrue(any(line.startswith("2:13: ") for line in found))

    def test_takes_files_of_any_length(self):
        entry = '<QvtpClient function="%d" buffer_size="0"/>'
        found = self.findings("<c>", *(entry % (i % 1000) for i in range(20000)), "</c>")
        self.assertEqual(len(found), 20000 + 19000)
        self.assertEqual(found[999], "1001:28: warning: buffer_size: 0 works as 1.")
        self.assertEqual(found[-1], "20001:28: warning: buffer_size: 0 works as 1.")
        self.findings("<c>", '<other text="%s"/>' % ("&amp;" * 200000), "</c>")
        self.assertEqual(self.check(b'<c x="' + b"&" * 400000 + b'"/>')[0], 1)

    def test_knows_line_ends_in_values(self):
        self.assertEqual(self.findings('<c><QvtpClient function="a\r\nb"/><QvtpClient function="a b"/>',
                                       '<QvtpServer function="a\n\rb"/><QvtpServer function="a  b"/></c>'),
                         ["2:5: error: This entry is never used: line 1 has one for the same function and component.",
                          "4:6: error: This entry is never used: line 3 has one for the same function and component."])
        code, out = self.check(b'<c><QvtpClient function="a\r\nb" buffer_size="9"/></c>', "--function", "a b")
        self.assertIn("    buffer_size=9", out.splitlines())

    def test_skips_instructions_in_a_grammar(self):
        out = self.check(b"<!DOCTYPE c [ <?x don't > ?> ]>\n<c><QvtpClient/></c>")[1]
        self.assertIn('c.xml:2:4: QvtpClient function="" component=""', out.splitlines())

    def test_names_entities(self):
        grammar = """<!DOCTYPE c [ <!ELEMENT c (QvtpClient)*> <!ELEMENT QvtpClient EMPTY>
            <!ATTLIST QvtpClient buffer_size CDATA #IMPLIED>
            <!ENTITY size "7"><!ENTITY more "<QvtpClient/>"> ]>"""
        self.assertEqual(self.findings(grammar, "<c><QvtpClient buffer_size='&size;'/>&more;</c>"),
                         ["3:13: warning: The document declares entities: what they stand for is not shown here."])

    REFERS = ('warning: The document type refers to "%s", which programs read too: what that declares is not shown here, '
              "and without it the whole file is refused.")

    def test_warns_of_a_grammar_in_another_file(self):
        self.file("c.dtd", b'<!ELEMENT c (QvtpClient)*> <!ELEMENT QvtpClient EMPTY> <!ENTITY size "7">'
                  b"<!ATTLIST QvtpClient function CDATA #IMPLIED buffer_size CDATA #IMPLIED>")
        for kind in ("SYSTEM", "PUBLIC '-//x//y'"):
            lines = ["<?xml version='1.0'?>", "<!DOCTYPE c", "  " + kind + ' "c.dtd">',
                     "<c><QvtpClient buffer_size='&size;'/></c>"]
            self.assertEqual(self.findings(*lines), ["3:3: " + self.REFERS % "c.dtd"])
        self.assertEqual(self.findings("<!DOCTYPE SYSTEM [ <!ELEMENT SYSTEM EMPTY> <!-- <!ENTITY a SYSTEM 'b'> -->",
                                       "<!NOTATION n SYSTEM 'x'> ]><SYSTEM/>"), [])

    def test_says_which_file_is_missing_and_makes_the_parser_refuse_all(self):
        for kind in ("SYSTEM", "PUBLIC '-//x//y'"):
            content = "<!DOCTYPE c " + kind + " './no.dtd'>\n<c><QvtpClient function='f'/></c>"
            found = self.findings(content)
            self.assertEqual(len(found), 2, found)
            self.assertRegex(found[0], r"^1:13: error: .*no\.dtd")  # the parser's own line
            self.assertEqual(found[1], "1:13: " + self.REFERS % "./no.dtd")
            self.assertFalse(json.loads(self.check(content.encode(), "--json")[1])["read"])
        found = self.findings("<!DOCTYPE c [ <!ELEMENT c ANY>", "<!ENTITY e SYSTEM 'no.xml'> ]>", "<c>&e;</c>")
        self.assertEqual(len(found), 2, found)
        self.assertRegex(found[0], r"^2:12: error: .*no\.xml")
        self.assertEqual(found[1], '2:12: warning: This entity refers to "no.xml", which programs read too where it is used: '
                         "what that declares is not shown here, and without it the whole file is refused.")

    def test_says_where_it_does_not_understand_what_is_right(self):
        out = self.check('<?xml version="1.1"?>\n<c><QvtpServer/>\n<a\u0085b="1"/><QvtpClient/></c>'.encode())[1]
        self.assertEqual([line for line in out.splitlines() if line.startswith("c.xml")],
                         ['c.xml:2:4: QvtpServer function="" component=""',
                          "c.xml:3:1: warning: No entries from here on are shown: this markup is not understood."])

    def test_shows_no_entries_of_a_file_that_is_not_used(self):
        code, out = self.check(b"<c><QvtpClient/><QvtpClient buffer='1'/>", "--json")
        report = json.loads(out)
        self.assertEqual((report["read"], report["entries"], len(report["findings"])), (False, [], 1))

    def test_uses_a_file_in_an_encoding_without_places(self):
        code, out = self.check('<?xml version="1.0" encoding="UTF-16"?><c><QvtpClient function="f" buffer_size="9"/></c>'
                               .encode("utf-16"), "--function", "f")
        self.assertEqual(code, 1)
        self.assertIn("    buffer_size=9", out)
        self.assertIn("c.xml: warning: No entry is shown: the file is in an encoding whose markup is not ASCII.", out)
        out = self.check('<?xml version="1.0" encoding="IBM037"?><c><QvtpClient/></c>'.encode("cp037"))[1]
        self.assertIn("c.xml: warning: No entry is shown: the file is in an encoding whose markup is not ASCII.", out)

    def test_looks_where_programs_look(self):
        self.environment["QvtpConfigurationFile"] = self.file("own.xml", b"<c/>")
        self.assertEqual(self.run_it("config", "check").returncode, 0)
        self.environment["QvtpConfigurationFile"] = self.root + "/missing"
        self.assertEqual(self.run_it("config", "check").returncode, 2)
        del self.environment["QvtpConfigurationFile"]
        self.assertEqual(self.run_it("config", "check", cwd=self.root).returncode, 2)
        self.file("QvtpConfig.xml", b"<c><QvtpClient/></c>")
        self.assertIn(b'QvtpConfig.xml:1:4: QvtpClient function="" component=""',
                      self.run_it("config", "check", cwd=self.root).stdout.splitlines())

    def test_checks_no_directory_and_no_pipe(self):
        result = self.run_it("config", "check", self.root)
        self.assertEqual((result.returncode, result.stdout), (2, b""))
        self.assertIn("Cannot read %s." % self.root, result.stderr.decode())
        if not IS_WINDOWS:
            result = self.run_it("config", "check", "/dev/stdin", data=self.FILE)
            self.assertEqual((result.returncode, result.stdout), (2, b""))
            self.assertIn("Cannot check /dev/stdin: it is no regular file", result.stderr.decode())

    def test_leaves_no_pipe_directory(self):
        self.check(self.FILE)
        self.assertFalse(os.path.exists(self.directory))

    def test_returns_2_for_wrong_usage(self):
        for arguments in ([], ["nonsense"], ["check", "a", "b"], ["check", self.root + "/missing"], ["check", "--x"]):
            result = self.run_it("config", *arguments)
            self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)


@SHELL
class Completion(CliTest):
    """What the shells themselves make of a line when the tab key is hit at its end."""

    RULES = {
        "bash": """source <(qvtp completion bash)
            show() { printf '<%s>' "$READLINE_LINE"; READLINE_LINE=; }
            bind -x '"\\C-t": show'
            PS1='ready '""",
        "zsh": """fpath=(%s $fpath); autoload -U compinit; compinit -D -u
            show() { print -rn -- "<$BUFFER>"; zle .kill-buffer }
            zle -N show; bindkey '^T' show
            PS1='ready '""",
    }
    COMMAND = {"bash": ["bash", "--noprofile", "--rcfile", "%s/.zshrc", "-i"], "zsh": ["zsh", "-d", "-i"]}

    def needed(self, shell):
        if shutil.which(shell) is None:
            self.skipTest("there is no " + shell)
        path = os.path.dirname(PROGRAM) + ":" + os.environ["PATH"]
        return dict(self.environment, PATH=path, HOME=self.root, ZDOTDIR=self.root, TERM="dumb", INPUTRC="/dev/null")

    def until(self, terminal, pattern):
        seen = b""
        end = time.monotonic() + LIMIT
        while time.monotonic() < end:
            if select.select([terminal], [], [], 1)[0]:
                seen += os.read(terminal, 4096)
                match = re.search(pattern, seen)
                if match:
                    return match[1].decode()
        self.fail("%r was not seen in %r" % (pattern, seen))

    def completed(self, shell, lines):
        environment = self.needed(shell)
        os.mkdir(self.root + "/functions")
        self.file("functions/_qvtp", self.run_it("completion", "zsh").stdout)
        rules = self.RULES[shell]
        self.file(".zshrc", (rules.replace("%s", self.root + "/functions", 1) if shell == "zsh" else rules).encode() + b"\n")
        command = [word.replace("%s", self.root) for word in self.COMMAND[shell]]
        master, slave = pty.openpty()
        process = subprocess.Popen(command, stdin=slave, stdout=slave, stderr=slave, env=environment, cwd=self.root,
                                   start_new_session=True)
        try:
            os.close(slave)
            self.until(master, rb"(ready )")
            results = []
            for line in lines:
                os.write(master, line.encode() + b"\t\x14")
                results.append(self.until(master, rb"<([^>]*)>"))
            return results
        finally:
            process.kill()
            process.wait()
            os.close(master)

    OFFERS = {
        "qvtp po": "post",
        "qvtp post d": "demo",
        "qvtp ping ": "demo",
        "qvtp post demo --st": "--stream",
        "qvtp completion z": "zsh",
        "qvtp config ": "check",
        "qvtp config check --fu": "--function",
        "qvtp config check fi": "fil.xml",
        "qvtp trace a": "a log",
    }

    def prepare(self):
        self.serve("demo")
        self.file("fil.xml", b"")
        self.file("a log", b"")

    def offers_commands_live_names_options_and_files(self, shell):
        self.prepare()
        whole = [line[:line.rfind(" ") + 1] + offer.replace(" ", "\\ ") + " " for line, offer in self.OFFERS.items()]
        self.assertEqual(self.completed(shell, self.OFFERS), whole)

    def test_offers_commands_live_names_options_and_files_in_bash(self):
        self.offers_commands_live_names_options_and_files("bash")

    def test_offers_commands_live_names_options_and_files_in_zsh(self):
        self.offers_commands_live_names_options_and_files("zsh")

    def test_offers_commands_live_names_options_and_files_in_fish(self):
        environment = self.needed("fish")
        self.prepare()
        run = self.run_it("completion", "fish").stdout.decode() + "\ncomplete -C (cat line)"
        for line, offer in self.OFFERS.items():
            self.file("line", line.encode())
            result = subprocess.run(["fish", "-c", run], capture_output=True, timeout=LIMIT, env=environment, cwd=self.root)
            self.assertEqual(result.stderr, b"")
            self.assertIn(offer, [each.split("\t")[0] for each in result.stdout.decode().splitlines()], line)

    def test_offers_nothing_where_there_is_nothing_in_bash(self):
        self.assertEqual(self.completed("bash", ["qvtp post ", "qvtp trace nothing"]), ["qvtp post ", "qvtp trace nothing"])

    def test_takes_no_name_for_code_and_does_not_split_it_in_bash(self):
        self.serve("$(touch pwn)")
        self.serve("my pipe")
        self.assertEqual(self.completed("bash", ["qvtp post $", "qvtp post m", "qvtp ping my\\ p"]),
                         ["qvtp post \\$\\(touch\\ pwn\\) ", "qvtp post my\\ pipe ", "qvtp ping my\\ pipe "])
        self.assertFalse(os.path.exists(self.root + "/pwn"))

    def test_takes_no_name_for_code_and_does_not_split_it_in_zsh(self):
        self.serve("$(touch pwn)")
        self.serve("my pipe")
        self.assertEqual(self.completed("zsh", ["qvtp post \\$", "qvtp post m"]),
                         ["qvtp post \\$\\(touch\\ pwn\\) ", "qvtp post my\\ pipe "])
        self.assertFalse(os.path.exists(self.root + "/pwn"))

    def test_has_no_wrong_syntax(self):
        for shell in ("bash", "zsh", "fish"):
            result = self.run_it("completion", shell)
            self.assertEqual(result.returncode, 0)
            self.assertIn("post notify serve ls ping bench", result.stdout.decode())
            if shutil.which(shell):
                check = subprocess.run([shell, "-n", self.file("script", result.stdout)], capture_output=True)
                self.assertEqual((check.returncode, check.stderr), (0, b""), shell)
        self.assertEqual(self.run_it("completion", "csh").returncode, 2)


@linux_only("manual pages are Linux's")
class Manual(CliTest):
    PAGE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../cli/man/qvtp.1")

    def test_has_every_command_with_every_option_and_nothing_else(self):
        with open(self.PAGE, encoding="utf-8") as file:
            page = file.read().replace("\\-", "-")
        sections = {title.lower(): text for title, text in re.findall(r"^\.SH ([A-Z ]+)\n(.*?)(?=^\.SH|\Z)", page, re.S | re.M)}
        for command in ("post", "notify", "serve", "ls", "ping", "bench", "trace", "config check", "completion"):
            section = "post and notify" if command in ("post", "notify") else command
            help_text = self.run_it(*command.split(), "--help").stdout.decode()
            offered = set(re.findall(r"--[a-z][a-z-]*", help_text)) - {"--help"}
            described = set(re.findall(r"--[a-z][a-z-]*", sections[section]))
            self.assertLessEqual(offered, described, command)
            if command != "notify":  # which has no reply to print
                self.assertEqual(described - offered, set(), command)

    def test_says_what_nobody_would_guess_and_so_does_the_help(self):
        with open(self.PAGE, encoding="utf-8") as file:
            page = " ".join(file.read().split())
        for command, text in (("serve", "1 and 2 work as 3"), ("ping", "lace in the queue of a busy server")):
            self.assertIn(text, page)
            self.assertIn(text, " ".join(self.run_it(command, "--help").stdout.decode().split()))

    def test_is_a_page_without_mistakes(self):
        if not shutil.which("man"):
            self.skipTest("there is no man")
        result = subprocess.run(["man", "--warnings", "-l", self.PAGE], capture_output=True, timeout=LIMIT,
                                env=dict(os.environ, MANWIDTH="80"))
        self.assertEqual((result.returncode, result.stderr), (0, b""))


if __name__ == "__main__":
    unittest.main()
