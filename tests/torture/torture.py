#!/usr/bin/env python3
"""Does to a server and to a client what processes do that crash, stall or mean harm.

    torture.py TORTURE_PEER [--quick]               hostile peers, while well-behaved clients run all the time
    torture.py TORTURE_PEER --soak MINUTES --chart FILE   the well-behaved clients alone, with a chart of what both hold

Fails if a request of a well-behaved client fails, is lost, doubled or mixed up, if a process crashes or hangs, or if
memory, threads or descriptors do not come back to where they were.
"""
import argparse
import os
import random
import resource
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

PIPE = "torture"
HANG_S = 20
MOST_THREADS = 16 + 3  # workers; the first thread, that of run() and one that has just begun
MOST_GROWTH_KIB = 16384  # what the C library keeps for 16 threads
HEAD = b"POST /whole QVTP/1.0\r\nContent-Length: 7\r\n\r\n"
CLIENTS = 24  # more than the 16 workers of the server
SOAK_PAUSE_MS = 10  # a long run need not be a busy one
REQUEST = HEAD + b"request"
ANSWER = b"QVTP/1.0 200 OK\r\nContent-Length: 7\r\n\r\nrequest"
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAILED: " + what, flush=True)


class Held:
    """What a process holds."""

    def __init__(self, pid):
        with open(f"/proc/{pid}/status") as status:
            values = dict(line.split(":", 1) for line in status)
        self.memory = int(values["VmRSS"].split()[0])  # KiB
        self.threads = int(values["Threads"])
        self.descriptors = len(os.listdir(f"/proc/{pid}/fd"))


class Peer:
    """A process of the library."""

    def __init__(self, program, *arguments, directory=None, prepare=None):
        environment = dict(os.environ, QVTP_PIPE_DIR=directory) if directory else None
        self.process = subprocess.Popen([program, *map(str, arguments)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True, errors="replace", env=environment,
                                        preexec_fn=prepare)

    def end(self, timeout, what):
        try:
            out, err = self.process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            check(False, f"{what} hangs")
            return "", ""
        check(self.process.returncode >= 0, f"{what} was ended by signal {-self.process.returncode}")
        return out.strip(), err.strip()


def path_of(name):
    return os.path.join(os.environ["QVTP_PIPE_DIR"], name + ".sock")


def connect(name=PIPE):
    client = socket.socket(socket.AF_UNIX)
    client.connect(path_of(name))  # waits for room in the queue
    client.settimeout(HANG_S)
    return client


def wait_until(condition, what, seconds=HANG_S):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            check(False, what)
            return
        time.sleep(0.01)


def in_killed_process(work):
    """Does the work in a process that then ends as kill -9 ends one."""
    child = os.fork()
    if child == 0:
        try:
            work()
        finally:
            os.kill(os.getpid(), signal.SIGKILL)
    os.waitpid(child, 0)


# ---- What is done to the server. Each returns how often. ----

def kill_clients_while_they_write(_):
    for count in range(len(REQUEST) + 1):
        def work():
            connect().sendall(REQUEST[:count])
        in_killed_process(work)
    return len(REQUEST) + 1


def kill_clients_while_they_read(_):
    with connect() as client:
        client.sendall(REQUEST)
        answer = b""
        while not answer.endswith(b"request"):
            answer += client.recv(1000)
    for count in range(len(answer) + 1):
        def work():
            client = connect()
            client.sendall(REQUEST)
            left = count
            while left > 0:
                left -= len(client.recv(left))
        in_killed_process(work)
    return len(answer) + 1


def storm_of_connects(rounds):
    for _ in range(rounds * 500):
        connect().close()
    return rounds * 500


def heads_that_drip(rounds):
    """More of them than the server has workers."""
    for _ in range(rounds):
        clients = [connect() for _ in range(24)]
        alive = list(clients)
        for byte in HEAD[:12]:
            for client in list(alive):
                try:
                    client.sendall(bytes([byte]))
                except OSError:
                    alive.remove(client)
            time.sleep(0.1)
        for client in clients:
            client.close()
    return rounds * 24


def readers_that_never_read(rounds):
    body = b"x" * 100000
    request = b"POST /whole QVTP/1.0\r\nContent-Length: 100000\r\n\r\n" + body
    clients = []
    for _ in range(rounds * 4):
        client = connect()
        client.settimeout(0.5)
        try:
            for _ in range(20):
                client.sendall(request)
        except OSError:
            pass
        clients.append(client)
    for client in clients:
        client.close()
    return len(clients)


def idle_connections(rounds):
    """They have had an answer each, and say nothing more."""
    clients = []
    for _ in range(rounds * 100):
        client = connect()
        client.sendall(REQUEST)
        check(client.recv(1000).startswith(b"QVTP/1.0 200"), "a client that is idle later has no answer")
        clients.append(client)
    for client in clients:
        client.close()
    return len(clients)


def nonsense(rounds):
    source = random.Random(1)
    for _ in range(rounds * 50):
        data = bytearray(REQUEST)
        for _ in range(source.randrange(1, 6)):
            data[source.randrange(len(data))] = source.randrange(256)
        with connect() as client:
            try:
                client.sendall(data)
                client.shutdown(socket.SHUT_WR)
                while client.recv(1000):
                    pass
            except OSError:
                pass
    return rounds * 50


# ---- What is done to a client ----

def kill_the_server_while_it_answers(peer):
    """At every byte of what it has read and of what it writes. The client reports that, or has the whole answer."""
    name = "killed"
    for count in range(len(ANSWER) + 1):
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(path_of(name))
        listener.listen()
        child = os.fork()
        if child == 0:
            connection, _ = listener.accept()
            request = b""
            while not request.endswith(b"request"):
                request += connection.recv(1000)
            connection.sendall(ANSWER[:count])
            os.kill(os.getpid(), signal.SIGKILL)
        listener.close()
        client = Peer(peer, "once", name)
        out, err = client.end(HANG_S, f"a client whose server dies after {count} bytes")
        os.waitpid(child, 0)
        os.unlink(path_of(name))
        whole = count == len(ANSWER)
        good = out == "200request" and not err if whole else client.process.returncode == 1 and "failure" in err
        # The stand-in for a head that was cut off is a status of its own, with a failure of its body.
        check(good, f"a client whose server dies after {count} bytes says {out!r} {err!r}")
    return len(ANSWER) + 1


def stop_under_load(peer):
    """Clients see failures then. The server stops within its bound."""
    server = Peer(peer, "serve", "stopped")
    wait_until(lambda: os.path.exists(path_of("stopped")), "a server does not start")
    load = subprocess.Popen([peer, "load", "stopped", "1", "8"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(0.5)
    out, _ = server.end(HANG_S, "a server that is stopped under load")
    check(out.startswith("stopped after "), f"a server that is stopped under load says {out!r}")
    load.kill()
    load.wait()
    return 1


# ---- What is done to the files of both ----

class TinyDisk:
    """Where files can be written until it is full: a file system of its own, or the size that a process may give a file."""

    SIZE = 256 << 10

    def __init__(self, directory):
        self.directory = os.path.join(directory, "disk")
        os.mkdir(self.directory)
        mount = ["mount", "-t", "tmpfs", "-o", f"size={self.SIZE}", "tmpfs", self.directory]
        self.is_mounted = os.geteuid() == 0 and subprocess.run(mount, stderr=subprocess.DEVNULL).returncode == 0
        self.filler = os.path.join(self.directory, "filler")
        if self.is_mounted:
            with open(self.filler, "wb", buffering=0) as filler:
                filler.write(bytes(self.SIZE * 3 // 4))
        print("the tiny disk is " + ("a tmpfs" if self.is_mounted else "a limit of the size of files"))

    def prepare(self):
        """In the process that is to write."""
        if not self.is_mounted:
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (self.SIZE // 4, resource.RLIM_INFINITY))

    def written(self, file):
        try:
            return os.stat(os.path.join(self.directory, file)).st_size
        except FileNotFoundError:
            return 0

    def is_full(self, files):
        if self.is_mounted:
            return os.statvfs(self.directory).f_bavail == 0
        return all(self.written(file) >= self.SIZE // 4 for file in files)

    def make_room(self, peers):
        if self.is_mounted:
            subprocess.run(["mount", "-o", "remount,size=1g", self.directory], check=True)
            os.unlink(self.filler)
        else:
            for peer in peers:
                resource.prlimit(peer.process.pid, resource.RLIMIT_FSIZE,
                                 (resource.RLIM_INFINITY, resource.RLIM_INFINITY))

    def close(self):
        if self.is_mounted:
            subprocess.run(["umount", self.directory], check=True)


def full_disk_under_the_logs(peer, seconds):
    """Both sides log everything onto it. They go on as if nothing were; when there is room again, there are lines again."""
    with tempfile.TemporaryDirectory() as directory:
        disk = TinyDisk(directory)
        files = {side: [f"{side}.log", f"{side}.bytes"] for side in ("server", "load")}
        options = {side: [f"{name}={disk.directory}/{file}" for name, file in zip(("log", "bytes"), files[side])]
                   for side in files}
        every_file = files["server"] + files["load"]
        try:
            server = Peer(peer, "serve", "full", *options["server"], prepare=disk.prepare)
            wait_until(lambda: os.path.exists(path_of("full")), "a server with a full disk does not start")
            load = Peer(peer, "load", "full", seconds, 8, 1, *options["load"], prepare=disk.prepare)
            wait_until(lambda: disk.is_full(every_file), "the disk does not get full")
            time.sleep(seconds / 3)
            check(load.process.poll() is None and server.process.poll() is None, "a full disk ends a process")
            before = {file: disk.written(file) for file in every_file}
            disk.make_room([server, load])
            for file in every_file:
                wait_until(lambda: disk.written(file) > before[file], f"nothing is written to {file} when there is room")
            report(load, HANG_S * 3)
            finish(server)
        finally:
            disk.close()
    return 1


def removed_files(peer, rounds):
    """Nobody's request is lost. There is one line for each removal, of which a slow one may be two."""
    with tempfile.TemporaryDirectory() as root:
        directory, log = os.path.join(root, "pipes"), os.path.join(root, "errors")
        socket_file, lock_file = (os.path.join(directory, "removed" + ending) for ending in (".sock", ".lock"))
        server = Peer(peer, "serve", "removed", "errors=" + log, directory=directory)
        wait_until(lambda: os.path.exists(socket_file), "a server whose files are to be removed does not start")
        load = Peer(peer, "load", "removed", rounds * 0.5, 8, 1, "absent=wait", directory=directory)
        acts = [("socket", lambda: os.unlink(socket_file), 1), ("lock file", lambda: os.unlink(lock_file), 1),
                ("directory", lambda: subprocess.run(["rm", "-rf", directory], stderr=subprocess.DEVNULL), 3),
                ("directory that is moved", lambda: os.rename(directory, os.path.join(root, f"moved-{time.time()}")), 1)]
        done = 0

        def lines():
            with open(log) as file:
                return [line for line in file.read().splitlines() if "The name" in line]

        while done < len(acts) or load.process.poll() is None:
            what, act, most = acts[done % len(acts)]
            before = len(lines())
            act()
            done += 1
            wait_until(lambda: len(lines()) > before, f"a server does not notice a removed {what}")
            wait_until(lambda: os.path.exists(socket_file) and os.path.exists(lock_file),
                       f"a server does not take its name anew after a removed {what}")
            time.sleep(0.05)
            fresh = lines()[before:]
            check(len(fresh) <= most, f"{len(fresh)} lines for a removed {what}: {fresh[:3]!r}")
            for line in fresh:
                check("Removed under the server: " + directory in line and "The name was taken anew." in line,
                      f"the line for a removed {what} is {line!r}")
            if failures:
                break
        report(load, HANG_S * 3)
        finish(server)
    return done


# ---- The whole ----

def start_server(peer):
    server = Peer(peer, "serve", PIPE)
    wait_until(lambda: os.path.exists(path_of(PIPE)), "the server does not start")
    with connect() as client:  # it serves
        client.sendall(REQUEST)
        check(client.recv(1000).startswith(b"QVTP/1.0 200"), "the server does not answer")
    return server


def finish(server):
    out, err = server.end(HANG_S, "the server")
    check(out.startswith("stopped after "), f"the server says {out!r} {err!r}")
    print("server " + out)


def report(load, seconds):
    out, err = load.end(seconds, "the load")
    print(out)
    check(load.process.returncode == 0, f"the load says {out!r} {err[:2000]!r}")


def torture(peer, quick, sanitized):
    rounds = 2 if quick else 10
    server = start_server(peer)
    warm = Peer(peer, "load", PIPE, 1, CLIENTS)
    report(warm, HANG_S * 2)
    before = Held(server.process.pid)
    seconds = 6 if quick else 60
    load = Peer(peer, "load", PIPE, seconds, CLIENTS)
    end = time.monotonic() + seconds
    done = 0
    acts = [kill_clients_while_they_write, kill_clients_while_they_read, storm_of_connects, heads_that_drip,
            readers_that_never_read, idle_connections, nonsense]
    while done == 0 or time.monotonic() < end:
        for act in acts:
            begin = time.monotonic()
            count = act(rounds)
            done += count
            print(f"{act.__name__.replace('_', ' ')}: {count} in {time.monotonic() - begin:.1f} s", flush=True)
    report(load, HANG_S * 3)
    wait_until(lambda: Held(server.process.pid).descriptors <= before.descriptors + 8, "descriptors do not come back")
    after = Held(server.process.pid)
    # The pool keeps its threads for a minute.
    check(after.threads <= MOST_THREADS + sanitized, f"{after.threads} threads")
    grown = after.memory - before.memory
    check(sanitized or grown <= MOST_GROWTH_KIB, f"memory grows by {grown} KiB")
    print(f"server before and after: {before.memory} and {after.memory} KiB, {before.threads} and {after.threads} "
          f"threads, {before.descriptors} and {after.descriptors} descriptors")
    finish(server)
    done += kill_the_server_while_it_answers(peer)
    done += stop_under_load(peer)
    for act, effort in ((full_disk_under_the_logs, 2 if quick else 10), (removed_files, 4 if quick else 40)):
        begin = time.monotonic()
        count = act(peer, effort)
        done += count
        print(f"{act.__name__.replace('_', ' ')}: {count} in {time.monotonic() - begin:.1f} s", flush=True)
    print(f"{done} acts of torture")


def soak(peer, minutes, chart):
    server = start_server(peer)
    load = Peer(peer, "load", PIPE, minutes * 60, 8, SOAK_PAUSE_MS)
    samples = []
    begin = time.monotonic()
    while load.process.poll() is None and time.monotonic() < begin + minutes * 60:
        samples.append((time.monotonic() - begin, Held(server.process.pid), Held(load.process.pid)))
        time.sleep(max(0.1, minutes * 60 / 600))
    report(load, HANG_S * 3)
    finish(server)
    draw(samples, chart)
    quarter = len(samples) // 4
    check(quarter >= 5, f"only {len(samples)} samples")
    for index, side in ((1, "server"), (2, "client")):
        for what, slack in (("memory", 2048), ("threads", 2), ("descriptors", 4)):
            early = statistics.median(getattr(s[index], what) for s in samples[quarter:2 * quarter])
            late = statistics.median(getattr(s[index], what) for s in samples[-quarter:])
            print(f"{side}: {what} {early:.0f} in the second quarter, {late:.0f} in the last")
            check(late <= early * 1.05 + slack, f"{what} of the {side} grows")


def draw(samples, file):
    """Six lines, each on a scale of its own that begins at 0."""
    width, height, left, top = 760, 110, 150, 40
    rows = [(1, "memory", "server, MiB", 1024), (2, "memory", "client, MiB", 1024), (1, "threads", "server, threads", 1),
            (2, "threads", "client, threads", 1), (1, "descriptors", "server, descriptors", 1),
            (2, "descriptors", "client, descriptors", 1)]
    end = samples[-1][0]
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width + left + 60}" height="{top + len(rows) * (height + 24)}"'
             ' font-family="sans-serif" font-size="13"><rect width="100%" height="100%" fill="white"/>'
             f'<text x="{left}" y="22" font-size="16">What both processes hold, over {end / 60:.0f} minutes</text>']
    for row, (index, what, label, unit) in enumerate(rows):
        y = top + row * (height + 24)
        values = [getattr(s[index], what) / unit for s in samples]
        most = max(values) * 1.1
        points = " ".join(f"{left + s[0] / end * width:.1f},{y + height - v / most * height:.1f}"
                          for s, v in zip(samples, values))
        color = "#1f6fb2" if index == 1 else "#c0561b"
        parts.append(f'<text x="{left - 10}" y="{y + height / 2}" text-anchor="end">{label}</text>'
                     f'<line x1="{left}" y1="{y + height}" x2="{left + width}" y2="{y + height}" stroke="#999"/>'
                     f'<polyline points="{points}" fill="none" stroke="{color}" stroke-width="1.5"/>'
                     f'<text x="{left + width + 6}" y="{y + height - values[-1] / most * height + 4:.1f}">{values[-1]:.1f}</text>')
    parts.append("</svg>")
    with open(file, "w") as out:
        out.write("\n".join(parts) + "\n")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("peer")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--sanitized", action="store_true",
                        help="the peer's sanitizer keeps freed memory, and may have a thread of its own")
    parser.add_argument("--soak", type=float, metavar="MINUTES")
    parser.add_argument("--chart", default="soak.svg")
    options = parser.parse_args()
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, 8192), most))
    with tempfile.TemporaryDirectory() as directory:
        os.environ["QVTP_PIPE_DIR"] = os.path.join(directory, "pipes")
        os.mkdir(os.environ["QVTP_PIPE_DIR"], 0o700)
        if options.soak:
            soak(options.peer, options.soak, options.chart)
        else:
            torture(options.peer, options.quick, options.sanitized)
    print("FAILED" if failures else "nothing failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
