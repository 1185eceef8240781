"""The tab key, in each shell itself."""
import os
import pty
import re
import select
import shutil
import subprocess
import time

from cli_case import LIMIT, PROGRAM, SHELL, CliTest


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
        "qvtp post demo / -o": "-o",
        "qvtp post demo / -H": "-H",
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
