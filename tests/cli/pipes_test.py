"""The commands that serve pipes and look at them: serve, ls, ping, bench."""
import json
import os
import re
import signal
import subprocess
import time

from cli_case import COMMAND, EARLY_SIGNALS, IS_WINDOWS, LIMIT, PROGRAM, SHELL, SIGNALS, CliTest, eventually, linux_only


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
    @EARLY_SIGNALS
    def test_takes_a_signal_from_its_first_line_on(self):
        for arguments in ([], ["--exec", "cat"]):
            for pause in range(25):
                server = self.serve("demo", "--drain", "10", *arguments)
                end = time.monotonic() + pause * 0.0001  # to meet every moment of its start
                while time.monotonic() < end:
                    pass
                self.assertEqual(self.stop(server)[0], 0, (arguments, pause))

    @SIGNALS
    def test_ends_what_its_command_has_started_when_the_drain_is_over(self):
        for trap in ("", "trap '' TERM; "):  # the second one has to be killed
            pids = self.root + "/pids"
            server = self.serve("demo", "--drain", "0.2", "--exec", "%ssleep 1000 & echo $$ $! > %s.new; mv %s.new %s; wait"
                                % (trap, pids, pids, pids))
            client = subprocess.Popen([*COMMAND, "post", "demo", "/"], stderr=subprocess.PIPE, env=self.environment)
            self.assertTrue(eventually(lambda: os.path.exists(pids)))
            started = [int(pid) for pid in self.content(pids).split()]
            self.addCleanup(lambda left=started: [os.kill(pid, signal.SIGKILL) for pid in filter(self.runs, left)])
            code, _, err = self.stop(server)
            client.communicate(timeout=LIMIT)
            self.assertEqual((code, client.returncode), (6, 6))
            self.assertIn("Requests were cut off.", err)
            os.remove(pids)
            self.assertTrue(eventually(lambda: not any(map(self.runs, started))), trap)

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
        self.serve("other")  # so it has waited before the signal comes
        self.assertEqual([watch.stdout.readline() for _ in range(2)], [b"demo\n", b"other\n"])
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
