"""Splitting a received stream into packets: the engine's splitter against a pure-Python one.

Prints packets per second of both and their ratio, measured in this one run.
"""
import random
import time

import pytorvik


class PySplitter:
    """A direct Python rendering of the framing algorithm, as a pure-Python driver would do it."""

    def __init__(self):
        self.stream = b""
        self.last_index = 0

    def split(self):
        packets = []
        if len(self.stream) < 1:
            return packets
        while True:
            crlf_index = self.stream.find(b"\r\n", self.last_index)
            if crlf_index < 0:
                return packets
            rev = self.stream[crlf_index::-1]
            r = 0
            while True:
                r = rev.find(b"\x02", r)
                if r < 0:
                    break
                stx = len(rev) - 1 - r
                if crlf_index - stx - 3 == int.from_bytes(self.stream[stx + 1:stx + 3], "big", signed=True):
                    break
                r += 1
            if r < 0:
                self.last_index = crlf_index + 1
                continue
            ci = stx + 3
            if self.stream[ci] > 48:
                packets.append((self.stream[ci], self.stream[ci + 1:crlf_index]))
            else:
                packets.append((int.from_bytes(self.stream[ci:ci + 2], "big"), self.stream[ci + 2:crlf_index]))
            self.stream = self.stream[crlf_index + 2:]
            self.last_index = 0


def make_stream(frames, payload_len, seed=1):
    rnd = random.Random(seed)
    out = bytearray()
    for _ in range(frames):
        payload = bytes(rnd.getrandbits(8) for _ in range(payload_len))
        out += b"\x02" + (payload_len + 1).to_bytes(2, "big") + bytes([0xB7]) + payload + b"\r\n"
    return bytes(out)


def run(feed, split, data, chunk):
    n = 0
    t0 = time.perf_counter()
    for i in range(0, len(data), chunk):
        feed(data[i:i + chunk])
        n += len(split())
    return n, time.perf_counter() - t0


def main():
    for payload_len, chunk in ((16, 64), (1000, 64), (1000, 9606)):
        data = make_stream(20000 if payload_len < 100 else 3000, payload_len)
        c = pytorvik.Client()

        def feed_c(b):
            c.stream += b

        p = PySplitter()

        def feed_p(b):
            p.stream += b

        n1, t1 = run(feed_c, c._splitPacket, data, chunk)
        n2, t2 = run(feed_p, p.split, data, chunk)
        assert n1 == n2
        print(f"payload {payload_len:5d} B, reads of {chunk:5d} B: engine {n1 / t1:10.0f} packets/s, "
              f"pure Python {n2 / t2:10.0f} packets/s, ratio {t2 / t1:6.1f}x")


if __name__ == "__main__":
    main()
