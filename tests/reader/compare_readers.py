#!/usr/bin/env python3
"""Gives mutants of messages to the library and to a second reader, and compares what they read.

    compare_readers.py PROGRAM [--count N] [--seed N] [--self-test]

PROGRAM is read_messages. A difference in a start line, an error, a header, a body or in the bytes that are left over is
printed, and ends the run with 1. With --self-test the second reader allows size lines of chunks a byte too much: that
has to be found.
"""

import argparse
import collections
import pathlib
import random
import struct
import subprocess
import sys

import reader

CORPUS = pathlib.Path(__file__).parents[2] / "fuzz" / "corpus" / "message"
LARGEST_PIECE = 5000

SEEDS = [
    (True, b"POST /r QVTP/1.0\r\nContent-Length: 5\r\nUser-Agent: agent\r\n\r\nhello"),
    (True, b"NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\nPOST /next QVTP/1.0\r\n"),
    (False, b"QVTP/1.0 200 OK\r\nContent-Length: 3\r\nServer: server\r\n\r\nabc"),
    (False, b"QVTP/1.0 414 Resource-ID Too Long \r\nContent-Length: 0\r\n\r\n"),
    (True, b"POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nA\r\n0123456789\r\n0\r\n\r\nPOST"),
    (False, b"QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n1\r\nb\r\n2;x=y\r\ncd\r\n0\r\n\r\n"),
    (True, b"POST /r QVTP/1.0\nContent-Length: 2\n\nab"),
    (True, b"\r\n\n\r\nPOST /r QVTP/1.0\r\nContent-Length: 2\r\n\r\nab"),
    (True, b"POST /r QVTP/1.0\r\nX: a,\r\n\tb\r\n  c\r\nx: d\r\nContent-Length: 1\r\n\r\nz"),
    (True, b"POST /r QVTP/1.0\r\nEmpty:\r\nNo colon\r\n: nameless\r\nContent-Length: 1\r\n\r\nz"),
    (False, b"QVTP/1.0 200 \xe4\r\nX: \xe4\xc3\xa4\xff\r\nContent-Length: 2\r\n\r\n\xff\xfe"),
    (True, b"POST /\xc3\xa4\xe4 QVTP/2.13\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\nabc"),
    (True, b"POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0000000000000000001\r\nb\r\n0\r\n\r\n"),
    (True, b"POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n1ffffffff\r\nb\r\n0\r\n\r\n"),
    (True, b"POST /r QVTP/1.0\r\n \x0b Odd \x0c\t: v\r\nodd: w\r\nContent-Length: -7\r\n\r\nuntil the end"),
]

TOKENS = [
    b"\r\n", b"\n", b"\r", b" ", b"\t", b"\v", b"\f", b":", b",", b"\0", b"-", b"+", b"0x", b"0", b"1", b"7", b"ff",
    b"ffffffff", b"2147483648", b"-1", b"\r\n\r\n", b"\r\n ", b"chunked", b"Chunked", b"Content-Length: 4\r\n",
    b"Transfer-Encoding: chunked\r\n", b"QVTP/1.0", b"QVTP/", b".", b";", b"\xc3\xa4", b"\xe4", b"\xed\xa0\x80",
    b"\xf4\x90\x80\x80", b"\xf0\x9f\x98\x80", b"0\r\n\r\n", b"3\r\nabc\r\n", b"x" * 20,
]


def seeds():
    for is_request, data in SEEDS:
        yield is_request, data
    for file in sorted(CORPUS.iterdir()):
        yield not file.name.startswith("response"), file.read_bytes()


def mutate(data, others, choice):
    """One small change."""
    kind = choice.randrange(8)
    at = choice.randrange(len(data) + 1)
    if kind == 0 and data:
        at = choice.randrange(len(data))
        return data[:at] + bytes([data[at] ^ 1 << choice.randrange(8)]) + data[at + 1:]
    if kind == 1:
        return data[:at] + data[at + choice.randrange(1, 9):]
    if kind == 2:
        end = at + choice.randrange(1, 40)
        return data[:end] + data[at:]
    if kind == 3:
        return data[:at]
    if kind == 4:
        other = choice.choice(others)[1]
        return data[:at] + other[choice.randrange(len(other) + 1):]
    if kind == 5:
        return data[:at] + bytes([choice.randrange(256)]) + data[at:]
    token = choice.choice(TOKENS)
    end = at + (choice.randrange(6) if kind == 6 else 0)
    return data[:at] + token + data[end:]


def mutants(count, seed):
    choice = random.Random(seed)
    corpus = list(seeds())
    yield from corpus
    for _ in range(count - len(corpus)):
        is_request, data = choice.choice(corpus)
        for _ in range(choice.choice((1, 1, 1, 2, 3, 5))):
            data = mutate(data, corpus, choice)
        yield is_request, data[:LARGEST_PIECE]


def read_by_library(program, messages):
    encoded = b"".join((b"R" if is_request else b"S") + struct.pack(">I", len(data)) + data
                       for is_request, data in messages)
    output = subprocess.run([program], input=encoded, stdout=subprocess.PIPE, check=True).stdout
    return output.decode("ascii").rstrip("\n").split("\n\n")


def kind_of(text):
    lines = text.splitlines()
    body = next(line for line in lines if line.startswith("body "))
    return lines[0][5:60] if lines[0] != "head nothing" else "head, " + body[5:60]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("--count", type=int, default=100000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--self-test", action="store_true")
    options = parser.parse_args()
    if options.self_test:
        reader.SIZE_LINE += 1

    messages = list(mutants(options.count, options.seed))
    results = read_by_library(options.program, messages)
    if len(results) != len(messages):
        sys.exit(f"{len(messages)} messages, but {len(results)} results")
    different = 0
    kinds = collections.Counter()
    for (is_request, data), by_library in zip(messages, results):
        expected = reader.read(data, is_request)
        kinds[kind_of(expected)] += 1
        if expected == by_library:
            continue
        different += 1
        if different <= 5 and not options.self_test:
            print(f"{'request' if is_request else 'response'} {data!r}\n--- the library\n{by_library}"
                  f"\n--- the second reader\n{expected}\n")
    for kind, number in kinds.most_common():
        print(f"{number:8}  {kind}")
    print(f"{len(messages)} messages (seed {options.seed}), {different} read differently")
    return 1 if bool(different) != options.self_test else 0


if __name__ == "__main__":
    sys.exit(main())
