"""What is sent, what is received, and how it is shown: post and notify."""
import base64
import json
import os
import pty
import select
import signal
import subprocess

from cli_case import COMMAND, IS_WINDOWS, LIMIT, PROGRAM, SHELL, SIGNALS, SOCKETS, CliTest, eventually, linux_only


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
