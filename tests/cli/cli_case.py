"""What the tests of the program qvtp share: the program itself, servers of their own, a directory of their own."""
import os
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PROGRAM = os.path.abspath(sys.argv.pop(1))
COMMAND = shlex.split(os.environ.get("QVTP_RUNNER", "")) + [PROGRAM]
IS_WINDOWS = PROGRAM.endswith(".exe")
LIMIT = 20  # seconds for anything


def linux_only(why):
    return unittest.skipIf(IS_WINDOWS, why)


SIGNALS = linux_only("there are no signals")
SHELL = linux_only("the shell is another one")
SOCKETS = linux_only("pipes are no sockets there")

# ThreadSanitizer, GCC 12's at least, loses a signal that comes while a thread enters its first call that blocks.
with open(PROGRAM, "rb") as program:
    EARLY_SIGNALS = unittest.skipIf(b"__tsan_init" in program.read(), "the sanitizer of threads loses early signals")


def eventually(condition):
    end = time.monotonic() + LIMIT
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(0.01)
    return False


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
