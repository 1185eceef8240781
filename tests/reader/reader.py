"""Reads one message of QVTP/1.0 from bytes: a second reader, which shares no line with the library.

It follows docs/wire-format.md and what the headers of the library say. Where those leave room it does what the library
does on purpose: see its comments.
"""

import re

WIRE_SPACE = b" \t\r\n"
SPACE = b" \t\r\n\v\f"
INT_MAX = 2**31 - 1
SIZE_LINE = 19  # most bytes of a chunk-size line before its line feed
LARGEST_BLOCK = 1 << 20

NO_LINE = "InterruptedException: Reached the stream end-of-file before the expected new line."
NO_LENGTH = (
    "QvPipeException: The QVTP Message does not have a Content-Length or Transfer-Encoding header [1011]")
NO_HEAD = (
    "QvPipeException: Failed to read the message start line and headers, and do not have body of the message. [1013]")
CUT_OFF = "QvPipeException: Reached the stream end-of-file before the expected length."
NOTHING = "nothing"


class Failure(Exception):
    """What a reader of the library would get thrown."""


class Input:
    """Bytes that are taken from the front."""

    def __init__(self, data):
        self.data = data
        self.position = 0

    def left(self):
        return self.data[self.position:]

    def take(self, count):
        taken = self.data[self.position:self.position + count]
        self.position += len(taken)
        return taken

    def next_byte(self):
        return self.data[self.position:self.position + 1]

    def line(self):
        """Up to a line feed, without it and one carriage return before it. A line that is cut off is gone."""
        end = self.data.find(b"\n", self.position)
        if end < 0:
            self.position = len(self.data)
            raise Failure(NO_LINE)
        line = self.data[self.position:end]
        self.position = end + 1
        return line[:-1] if line.endswith(b"\r") else line


def integer(text):
    """As atoi reads it, saturating. The rest of the text is the second result; None if there is no number."""
    match = re.match(rb"[ \t\r\n\v\f]*([+-]?)([0-9]+)", text)
    if not match:
        return None, text
    value = int(match.group(2))
    value = max(-value, -INT_MAX - 1) if match.group(1) == b"-" else min(value, INT_MAX)
    return value, text[match.end():]


def chunk_size(line):
    """None if it does not fit into 32 bits. Without digits it is 0."""
    line = line.split(b"\0")[0]  # a text ends at its zero byte
    match = re.match(rb"[ \t\r\n\v\f]*([+-]?)(?:0[xX](?=[0-9a-fA-F]))?([0-9a-fA-F]*)", line)
    value = int(match.group(2) or b"0", 16)
    if value >= 2**32:
        return None
    return -value % 2**32 if match.group(1) == b"-" else value


def utf8(data):
    """Well-formed sequences stay; each other byte is taken as Latin-1."""
    out = b""
    while data:
        try:
            data.decode("utf-8")
            return out + data
        except UnicodeDecodeError as error:
            out += data[:error.start] + data[error.start:error.start + 1].decode("latin-1").encode("utf-8")
            data = data[error.start + 1:]
    return out


class Header:
    def __init__(self, name, text):
        trimmed = name.strip(WIRE_SPACE)
        # Vertical tabs and form feeds go only together with white space of the wire. They count in the comparison.
        self.name = name if name == trimmed else name.strip(SPACE)
        self.key = (trimmed if len(self.name) != len(trimmed) else self.name).upper()
        self.values = [value for value in (piece.strip(WIRE_SPACE) for piece in text.split(b",")) if value]


def read_headers(source):
    """The headers in the order of their keys, those of one name joined. Also what is there before a failure."""
    headers = []
    failure = None
    try:
        line = source.line()
        while line:
            name, _, text = line.partition(b":")
            if source.next_byte() in (b" ", b"\t"):
                text = text.strip(b" \t")
                while source.next_byte() in (b" ", b"\t"):
                    more = source.line().strip(SPACE)
                    text = text + b" " + more if text else more
            text = utf8(text)
            line = source.line()  # a header counts when the line after it is there
            headers.append(Header(name, text))
    except Failure as error:
        failure = error
    joined = {}
    for header in headers:
        if header.key in joined:
            joined[header.key].values += header.values
        else:
            joined[header.key] = header
    return [joined[key] for key in sorted(joined)], failure


def read_chunks(source):
    """What comes until the last chunk, or until the framing fails: then the body just ends."""
    body = b""
    while True:
        line_end = source.left()[:SIZE_LINE + 1].find(b"\n")
        if line_end < 0:
            source.take(SIZE_LINE)
            return body
        size = chunk_size(source.take(line_end + 1)[:-1])
        if size is None:
            return body
        data = source.take(size)
        if len(data) < size:
            return body + data
        if source.take(2) != b"\r\n":
            return body  # a chunk without its end is not delivered
        if size == 0:
            return body
        body += data


def read_length(source, length):
    data = source.take(max(length, 0))
    if len(data) < length and length <= LARGEST_BLOCK:
        raise Failure(CUT_OFF)
    return data


def version(label):
    """As major and minor; 1.0 stands for what cannot be read."""
    major, minor = 1, 0
    label = label.strip(SPACE)
    if len(label) > 5 and label.startswith(b"QVTP/"):
        value, rest = integer(label[5:])
        if value is not None:
            major = value
            if rest.startswith(b"."):
                value, _ = integer(rest[1:])
                minor = minor if value is None else value
    return b"QVTP/%d.%d" % (major, minor)


def describe_start(line, is_request):
    """Method, resource and version of a request; status, reason and version of a response."""
    words = line.split(b" ")
    second = words[1] if len(words) > 1 else b""
    if is_request:
        return [words[0], utf8(second), version(words[-1])]
    status, _ = integer(second if len(words) > 1 else line)
    return [b"%d" % (status or 0), b" ".join(words[2:]).strip(SPACE), version(words[0])]


def read(data, is_request):
    """All that there is to learn, as a text of lines."""
    source = Input(data)
    thrown = NOTHING
    headers = []
    start = b"NONE Empty/Resource QVTP/1.0" if is_request else b"QVTP/1.0 500 Internal Server Error"
    body_of = None
    try:
        line = b""
        while not line:
            line = source.line()
        headers, failure = read_headers(source)
        if failure:
            raise failure
        first = {header.key: header.values[0] for header in headers if header.values}
        if b"CONTENT-LENGTH" in first:
            length = integer(first[b"CONTENT-LENGTH"])[0] or 0
            body_of = lambda: read_length(source, length)
        elif first.get(b"TRANSFER-ENCODING") == b"chunked":
            body_of = lambda: read_chunks(source)
        else:
            raise Failure(NO_LENGTH)
        start = line
    except Failure as failure:
        thrown = str(failure)
    body, body_thrown = b"", NOTHING
    try:
        if body_of is None:
            raise Failure(NO_HEAD)
        body = body_of()
    except Failure as failure:
        body_thrown = str(failure)
    lines = ["head " + thrown, "start " + start.hex()]
    lines += ["word " + word.hex() for word in describe_start(start, is_request)]
    for header in headers:
        # Asked for by the name that it reports: one that differs from its key is not found, or is another's.
        key = header.name.strip(WIRE_SPACE).upper()
        values = next((other.values for other in headers if other.key == key), [])
        lines.append("header " + " ".join([header.name.hex() or "-"] + [value.hex() for value in values]))
    lines += ["body " + body_thrown, "data " + body.hex(), "left " + source.left().hex()]
    return "\n".join(lines)
