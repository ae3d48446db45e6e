#include "firmware/uart.hpp"

#include <algorithm>
#include <cmath>

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;
namespace products = torvik::products;

namespace {

std::chrono::steady_clock::duration seconds(double s) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(s));
}

}  // namespace

Uart::Uart(const products::Product& product) {
    for (const auto& [number, cells] : products::parsePortTable(product.uart)) {
        Port p;
        p.number = number;
        for (const auto& c : cells) p.pins.push_back({c.hw_port, c.pin});
        ports_.push_back(std::move(p));
    }
}

bool Uart::isUartCode(std::uint16_t code) { return code >= wire::OPEN_UART && code <= wire::SET_UART_NUM_STOP_BITS; }

Uart::Port* Uart::port(int number) {
    for (auto& p : ports_)
        if (p.number == number) return &p;
    return nullptr;
}

double Uart::bytesPerSecond(const Port& p) {
    static constexpr double kStopBits[] = {1, 0.5, 2, 1.5};
    const double bits = 1 + (p.data_size ? 9 : 8) + (p.parity ? 1 : 0) + kStopBits[p.stop & 3];
    return p.baud / bits;
}

std::optional<Bytes> Uart::handle(std::uint16_t code, const Bytes& in, TimePoint now) {
    const std::uint8_t n = portOf(in);
    Port* p = in.empty() ? nullptr : port(n);
    if (code == wire::START_UART_READING) {
        if (p && p->open && !p->reading) {
            p->reading = true;
            p->stream_anchor = now;  // a paced stream starts counting from here
            p->stream_paced = 0;
        }
        return std::nullopt;
    }
    const Bytes refused =
        code == wire::WRITE_UART ? Bytes{n, in.size() > 1 ? in[1] : std::uint8_t{0}, kUartError} : portStatus(n, kUartError);
    if (!p) return refused;
    switch (code) {
    case wire::OPEN_UART:
        if (in.size() != 1 && in.size() != 8) return refused;
        if (in.size() == 8) {
            const std::uint32_t baud = u32At(in, 1);
            if (baud == 0 || baud > 400000 || in[5] > 1 || in[6] > 3 || in[7] > 3) return refused;
            p->baud = baud;
            p->data_size = in[5];
            p->parity = in[6];
            p->stop = in[7];
        }
        p->open = true;
        return portStatus(n, kOk);
    case wire::CLOSE_UART:
        p->open = false;
        p->line.clear();
        [[fallthrough]];
    case wire::STOP_UART_READING:
        p->reading = false;
        p->counters.ignored += p->buffer.size();
        p->buffer.clear();
        return portStatus(n, kOk);
    case wire::RESET_UART:
        p->line.clear();
        p->buffer.clear();
        return portStatus(n, kOk);
    case wire::WRITE_UART: {
        if (in.size() < 2 || in.size() != 2u + in[1] || !p->open) return refused;
        const Bytes data(in.begin() + 2, in.end());
        p->counters.written += data.size();
        if (p->loopback == Loopback::Paced) talk(*p, data, now);
        if (p->loopback == Loopback::Fast && !p->silent)
            for (std::uint8_t b : data) arrive(*p, b);
        return Bytes{n, in[1], kOk};
    }
    case wire::SET_UART_BAUD_RATE: {
        if (in.size() != 5) return refused;
        const std::uint32_t baud = u32At(in, 1);
        if (baud == 0 || baud > 400000) return refused;
        p->baud = baud;
        return portStatus(n, kOk);
    }
    case wire::SET_UART_DATA_SIZE:
    case wire::SET_UART_PARITY:
    case wire::SET_UART_NUM_STOP_BITS: {
        const std::uint8_t max = code == wire::SET_UART_DATA_SIZE ? 1 : 3;
        if (in.size() != 2 || in[1] > max) return refused;
        (code == wire::SET_UART_DATA_SIZE ? p->data_size : code == wire::SET_UART_PARITY ? p->parity : p->stop) = in[1];
        return portStatus(n, kOk);
    }
    default: return portStatus(n, 23);  // an unassigned code inside the block
    }
}

void Uart::talk(Port& p, const Bytes& bytes, TimePoint now) {
    if (p.silent) return;
    if (p.line.empty()) p.line_next = std::max(p.line_next, now) + seconds(1 / bytesPerSecond(p));
    p.line.insert(p.line.end(), bytes.begin(), bytes.end());
}

void Uart::stream(Port& p, double rate, std::uint64_t bytes, TimePoint now) {
    p.stream_rate = rate;
    p.stream_left = bytes;
    p.stream_anchor = now;
    p.stream_paced = 0;
}

void Uart::setSilent(Port& p, bool on, TimePoint now) {
    if (on) p.line.clear();
    if (p.silent && !on) {
        p.stream_anchor = now;
        p.stream_paced = 0;
    }
    p.silent = on;
}

void Uart::clearFaults(TimePoint now) {
    for (auto& p : ports_) {
        setSilent(p, false, now);
        p.burst_left = 0;
    }
}

void Uart::arrive(Port& p, std::uint8_t byte) {
    if (!p.reading) {
        ++p.counters.ignored;
        return;
    }
    if (p.buffer.size() >= kBufferBytes) {
        ++p.counters.lost;
        return;
    }
    p.buffer.push_back(byte);
    ++p.counters.received;
}

void Uart::advance(TimePoint now) {
    for (auto& p : ports_) {
        if (!p.line.empty()) {
            const auto each = seconds(1 / bytesPerSecond(p));
            while (!p.line.empty() && p.line_next <= now) {
                arrive(p, p.line.front());
                p.line.pop_front();
                p.line_next += each;
            }
            if (p.line.empty()) p.line_next -= each;  // when the wire fell quiet
        }
        // A paced stream runs while the port reads: START_UART_READING restarts its schedule.
        if (p.reading && p.stream_left > 0 && p.stream_rate > 0 && !p.silent) {
            const double since = std::chrono::duration<double>(now - p.stream_anchor).count();
            const auto due = static_cast<std::uint64_t>(std::max(0.0, std::floor(since * p.stream_rate)));
            std::uint64_t n = std::min(due - std::min(due, p.stream_paced), p.stream_left);
            p.stream_paced += n;
            if (p.stream_left != kEndless) p.stream_left -= n;
            // Far behind (a host that took nothing for long): what finds the buffer full is lost,
            // newest first, without a turn of the loop each.
            const std::uint64_t room = kBufferBytes - std::min(kBufferBytes, p.buffer.size());
            const std::uint64_t over = n > room ? n - room : 0;
            for (n -= over; n > 0; --n) arrive(p, p.count++);
            p.counters.lost += over;
            p.count = static_cast<std::uint8_t>(p.count + over);
        }
    }
}

bool Uart::fastSource(const Port& p) const {
    return p.reading && (p.burst_left > 0 || (!p.silent && p.stream_left > 0 && p.stream_rate == 0));
}

const std::deque<std::uint8_t>& Uart::ready(Port& p, std::size_t max) {
    while (p.buffer.size() < max && fastSource(p)) {
        const std::size_t want = max - p.buffer.size();
        std::uint64_t n = 0;
        if (p.burst_left > 0) {
            n = std::min<std::uint64_t>(p.burst_left, want);
            p.burst_left -= n;
        } else {
            n = std::min<std::uint64_t>(p.stream_left, want);
            if (p.stream_left != kEndless) p.stream_left -= n;
        }
        p.counters.received += n;
        for (; n > 0; --n) p.buffer.push_back(p.count++);
    }
    return p.buffer;
}

void Uart::consume(Port& p, std::size_t n) {
    n = std::min(n, p.buffer.size());
    p.buffer.erase(p.buffer.begin(), p.buffer.begin() + static_cast<std::ptrdiff_t>(n));
    p.counters.sent += n;
    ++p.counters.payloads;
}

bool Uart::hasReady() const {
    for (const auto& p : ports_)
        if ((p.reading && !p.buffer.empty()) || fastSource(p)) return true;
    return false;
}

std::optional<Uart::TimePoint> Uart::nextDue() const {
    std::optional<TimePoint> next;
    auto earliest = [&](TimePoint t) { next = next ? std::min(*next, t) : t; };
    for (const auto& p : ports_) {
        if (!p.line.empty()) earliest(p.line_next);
        if (p.reading && p.stream_left > 0 && p.stream_rate > 0 && !p.silent)
            earliest(p.stream_anchor + seconds(static_cast<double>(p.stream_paced + 1) / p.stream_rate));
    }
    return next;
}

void Uart::abort() {
    for (auto& p : ports_) {
        p.reading = false;
        p.buffer.clear();
        p.burst_left = 0;
    }
}

void Uart::reset() {
    for (auto& p : ports_) {
        Port fresh;
        fresh.number = p.number;
        fresh.pins = p.pins;
        fresh.counters = p.counters;
        // The far end is no part of the unit: what it does goes on.
        fresh.silent = p.silent;
        fresh.loopback = p.loopback;
        fresh.stream_rate = p.stream_rate;
        fresh.stream_left = p.stream_left;
        fresh.count = p.count;
        p = std::move(fresh);
    }
}

}  // namespace sim
