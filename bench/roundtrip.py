"""Request/reply round trips against torvik-sim on loopback, in one run:

(a) _echoPacketWithRetry_async through a connected ETHDevice composition,
(b) the same framed exchange by a plain asyncio stream client (what a pure-Python driver reaches),
(c) the same exchange awaited by polling the reply pool every 10 ms,
(d) the same framed exchange by a raw blocking C client (compiled here with cc: the floor),
(d') that client with a reader thread handing each reply over, as a receive thread does,
(e) (a) driven by pytorvik.run on the calling thread, without an event loop,
(d) and (e) again with the unit, the C client and this process all on one CPU (Linux),
and operations per second of 8 concurrent operations with different codes under gather, and of
two threads calling pytorvik.run with different codes at once.

Run from the repository with the package installed: python bench/roundtrip.py [rounds]
"""
import asyncio
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time

import pytorvik as t
from pytorvik import simctl


class Bench(t.ETHDevice, t.Packet):
    pass


FRAME = bytes([2, 0, 2, t.GET_DRIVER_INFO, 1, 13, 10])


# Sends the frame given in hex and reads up to the reply's CR LF, `rounds` times over one TCP
# connection; prints each round trip in nanoseconds. With "handoff" a reader thread receives (poll,
# then recv) and hands the reply over through a condition variable, as a receive thread does: what
# an engine of that shape can reach at best.
C_CLIENT = r"""
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static int fd, replies;
static pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t cv = PTHREAD_COND_INITIALIZER;

static long long now_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

static int read_reply(int flags) {
    unsigned char buf[4096];
    size_t got = 0;
    while (got < 2 || buf[got - 2] != 13 || buf[got - 1] != 10) {
        ssize_t r = recv(fd, buf + got, sizeof buf - got, flags);
        if (r <= 0) return -1;
        got += (size_t)r;
    }
    return 0;
}

static void* reader(void* arg) {
    (void)arg;
    for (;;) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, -1) < 0 || read_reply(0) != 0) return NULL;
        pthread_mutex_lock(&m);
        ++replies;
        pthread_mutex_unlock(&m);
        pthread_cond_signal(&cv);
    }
}

int main(int argc, char** argv) {
    unsigned char frame[64];
    size_t n = 0;
    for (const char* h = argv[3]; h[0] && h[1] && n < sizeof frame; h += 2) {
        unsigned v;
        sscanf(h, "%2x", &v);
        frame[n++] = (unsigned char)v;
    }
    int rounds = atoi(argv[4]);
    int handoff = argc > 5 && strcmp(argv[5], "handoff") == 0;
    fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a = {0};
    a.sin_family = AF_INET;
    a.sin_port = htons((unsigned short)atoi(argv[2]));
    inet_pton(AF_INET, argv[1], &a.sin_addr);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (connect(fd, (struct sockaddr*)&a, sizeof a) != 0) return perror("connect"), 1;
    pthread_t th;
    if (handoff) pthread_create(&th, NULL, reader, NULL);
    for (int i = 0; i < rounds; ++i) {
        long long t0 = now_ns();
        if (send(fd, frame, n, 0) != (ssize_t)n) return perror("send"), 1;
        if (handoff) {
            pthread_mutex_lock(&m);
            while (replies == 0) pthread_cond_wait(&cv, &m);
            --replies;
            pthread_mutex_unlock(&m);
        } else if (read_reply(0) != 0) {
            return perror("recv"), 1;
        }
        printf("%lld\n", now_ns() - t0);
    }
    shutdown(fd, SHUT_RDWR);
    if (handoff) pthread_join(th, NULL);
    close(fd);
    return 0;
}
"""


def build_c_client(directory):
    cc = shutil.which("cc") or shutil.which("gcc")
    if cc is None:
        sys.exit("a C compiler (cc) is needed for the raw client")
    src = os.path.join(directory, "raw_client.c")
    exe = os.path.join(directory, "raw_client")
    with open(src, "w") as f:
        f.write(C_CLIENT)
    subprocess.run([cc, "-O2", "-pthread", "-o", exe, src], check=True)
    return exe


def raw_c(exe, addr, port, n, mode="direct", cpus=None):
    pin = (lambda: os.sched_setaffinity(0, cpus)) if cpus else None
    out = subprocess.run([exe, addr, str(port), FRAME.hex(), str(n), mode], check=True, capture_output=True,
                         text=True, preexec_fn=pin).stdout
    return [int(line) * 1e-9 for line in out.split()]


def blocking(dev, n):
    out = []
    for _ in range(n):
        t0 = time.perf_counter()
        t.run(dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [1]))
        out.append(time.perf_counter() - t0)
    return out


def blocking_threads(dev, seconds):
    done = [0, 0]
    end = time.perf_counter() + seconds

    def worker(i, code):
        while time.perf_counter() < end:
            t.run(dev._echoPacketWithRetry_async(code, [1]))
            done[i] += 1

    t0 = time.perf_counter()
    threads = [threading.Thread(target=worker, args=(i, code)) for i, code in enumerate((0xF1, 0xF2))]
    for th in threads:
        th.start()
    for th in threads:
        th.join()
    return sum(done) / (time.perf_counter() - t0)


def pin_threads(pid, cpus):
    """Sets the CPUs of every thread of a process (Linux); gives their former sets."""
    before = {}
    for tid in os.listdir("/proc/%d/task" % pid):
        before[int(tid)] = os.sched_getaffinity(int(tid))
        os.sched_setaffinity(int(tid), cpus)
    return before


def summary(samples):
    s = sorted(samples)
    return statistics.median(s) * 1e6, s[min(len(s) - 1, int(len(s) * 0.99))] * 1e6


async def engine(dev, n):
    out = []
    for _ in range(n):
        t0 = time.perf_counter()
        await dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [1])
        out.append(time.perf_counter() - t0)
    return out


async def plain_asyncio(addr, port, n):
    reader, writer = await asyncio.open_connection(addr, port)
    out = []
    for _ in range(n):
        t0 = time.perf_counter()
        writer.write(FRAME)
        await reader.readuntil(b"\r\n")
        out.append(time.perf_counter() - t0)
    writer.close()
    await writer.wait_closed()
    return out


async def polling(dev, n):
    out = []
    pool = dev.data_pool_echo
    for _ in range(n):
        t0 = time.perf_counter()
        await dev._sendPacketWithoutReply(t.GET_DRIVER_INFO, [1])
        while t.GET_DRIVER_INFO not in pool:
            await asyncio.sleep(t.ECHO_DELAY)
        pool.pop(t.GET_DRIVER_INFO)
        out.append(time.perf_counter() - t0)
    return out


async def concurrent(dev, seconds):
    codes = list(range(0xF0, 0xF8))
    done = 0
    end = time.perf_counter() + seconds
    t0 = time.perf_counter()
    while time.perf_counter() < end:
        await asyncio.gather(*[dev._echoPacketWithRetry_async(c, [1]) for c in codes])
        done += len(codes)
    return done / (time.perf_counter() - t0)


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 2000
    tmp = tempfile.mkdtemp(prefix="roundtrip-")
    exe = build_c_client(tmp)
    with simctl.Sim(simctl.unit_spec("TorvikLanAnalog", cmd_port=0)) as sim:
        u = sim.unit
        dev = Bench(verbose=False)
        dev.connect(u.addr, port=u.cmd_port, verbose=False)
        try:
            # Interleave the variants in short chunks so that machine noise falls on all of them
            # alike (on two cores, whether a client shares its CPU with the unit changes a round
            # trip by a third, and the system decides that anew now and then).
            a, b, d, d2, e = [], [], [], [], []
            chunks = 12
            for _ in range(chunks):
                a += asyncio.run(engine(dev, rounds // chunks))
                b += asyncio.run(plain_asyncio(u.addr, u.cmd_port, rounds // chunks))
                d += raw_c(exe, u.addr, u.cmd_port, rounds // chunks)
                d2 += raw_c(exe, u.addr, u.cmd_port, rounds // chunks, "handoff")
                e += blocking(dev, rounds // chunks)
            # (d) and (e) again with the unit, the client and this process on one CPU: with the
            # system's placement taken out, what differs is the work each client does.
            d1, e1 = [], []
            if hasattr(os, "sched_setaffinity") and os.path.isdir("/proc/self/task"):
                one = {min(os.sched_getaffinity(0))}
                saved = [(pid, pin_threads(pid, one)) for pid in (os.getpid(), sim.proc.pid)]
                try:
                    for _ in range(chunks):
                        d1 += raw_c(exe, u.addr, u.cmd_port, rounds // chunks, cpus=one)
                        e1 += blocking(dev, rounds // chunks)
                finally:
                    for _, threads in saved:
                        for tid, cpus in threads.items():
                            try:
                                os.sched_setaffinity(tid, cpus)
                            except OSError:
                                pass  # the thread has ended
            c = asyncio.run(polling(dev, 60))
            ops = asyncio.run(concurrent(dev, 2.0))
            ops_threads = blocking_threads(dev, 2.0)
        finally:
            dev.disconnect(verbose=False)
            dev.close(verbose=False)
            shutil.rmtree(tmp, ignore_errors=True)
    (am, ap), (bm, bp), (cm, cp) = summary(a), summary(b), summary(c)
    (dm, dp), (d2m, d2p), (em, ep) = summary(d), summary(d2), summary(e)
    print("round trip, median / p99 (us):")
    print("  (a) pytorvik _echoPacketWithRetry_async  %8.1f / %8.1f" % (am, ap))
    print("  (b) plain asyncio stream client           %8.1f / %8.1f" % (bm, bp))
    print("  (c) 10 ms polling of the reply pool        %8.1f / %8.1f" % (cm, cp))
    print("  (d) raw blocking C client (the floor)      %8.1f / %8.1f" % (dm, dp))
    print("  (d') C client, reader thread hands over    %8.1f / %8.1f" % (d2m, d2p))
    print("  (e) pytorvik.run, no event loop            %8.1f / %8.1f" % (em, ep))
    print("ratios: a/b = %.2f (target <= 1.5), c/a = %.1f (target >= 20)" % (am / bm, cm / am))
    print("        e/d = %.2f (target <= 1.25), a/d = %.2f, d'/d = %.2f" % (em / dm, am / dm, d2m / dm))
    if d1:
        (d1m, d1p), (e1m, e1p) = summary(d1), summary(e1)
        print("on one CPU: (d) %.1f / %.1f, (e) %.1f / %.1f: e/d = %.2f" % (d1m, d1p, e1m, e1p, e1m / d1m))
    print("8 concurrent operations under gather: %.0f operations/s" % ops)
    print("2 threads calling pytorvik.run, different codes: %.0f operations/s" % ops_threads)


if __name__ == "__main__":
    main()
