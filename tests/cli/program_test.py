"""What holds for all commands: arguments, messages, descriptors, lost output, the manual page."""
import json
import os
import re
import shutil
import socket
import subprocess

from cli_case import COMMAND, LIMIT, PROGRAM, CliTest, linux_only
from trace_test import Trace


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
