"""The drawing of a communication log, also in a browser."""
import collections
import html
import json
import re
import shutil
import struct
import subprocess
import xml.etree.ElementTree
import zlib

from cli_case import LIMIT, CliTest, eventually


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

    def test_takes_no_impossible_length_for_a_size(self):
        for length in ("-5", "99999999999999999999", "five"):
            log = self.file("log", self.record("INPUT", "POST / QVTP/1.0", "Content-Length: " + length))
            result = self.run_it("trace", log)
            self.assertEqual(result.returncode, 0)
            self.assertNotRegex(result.stdout.decode(), "-5 bytes|[0-9]{10} bytes", length)

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
        out = self.run_it("trace", path, lines).stdout.decode().replace("\r\n", "\n")
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
        self.assertEqual(page.count("The log does not say whether these lines are headers, or the beginning of the body:"), 2)
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
