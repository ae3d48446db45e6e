#include "streams/uart.hpp"

#include <algorithm>

#include "firmware/product.hpp"
#include "link/frame_guard.hpp"
#include "unit.hpp"
#include "wire/commands.hpp"

namespace sim {

namespace {
// Payloads one round may send before the loop serves others.
constexpr int kPayloadsPerRound = 16;
// Code byte, port and header byte in front of the data: where data starts in an encoded frame.
constexpr std::size_t kDataOffset = 3 + 1 + 2;
// The header byte, which the host skips, has its top bit set: port 2 in front of it would
// otherwise start a frame whose length (header byte, first data byte) may point at the end.
constexpr std::uint8_t kHeader = 0x80;
}  // namespace

UartSender::UartSender(EventLoop& loop, Unit& unit) : unit_(unit), timer_(loop, [this] { round(); }) {}

Uart* UartSender::uart() const {
    auto* fw = dynamic_cast<ProductFirmware*>(&unit_.firmware());
    if (!fw || !fw->uart().present()) return nullptr;
    return &fw->uart();
}

void UartSender::linkClosed() {
    Uart* u = uart();
    const Transport* cmd = unit_.transport(Channel::Cmd);
    if (u && cmd && cmd->open() == 0) u->abort();
}

void UartSender::poke() { schedule(Clock::now()); }

void UartSender::linkDrained() {
    constexpr std::size_t kPlenty = 64;
    Uart* u = uart();
    if (!u) return;
    bool plenty = false;
    for (auto& port : u->ports())
        plenty = plenty || (port.reading && u->ready(port, kPlenty).size() >= kPlenty);
    schedule(plenty ? Clock::now() : std::max(Clock::now(), last_sent_ + kTick));
}

void UartSender::round() {
    Uart* u = uart();
    if (!u) return;
    const auto now = Clock::now();
    u->advance(now);

    Transport* t = unit_.transport(Channel::Cmd);
    Link* l = unit_.faults().silent() || !t ? nullptr : t->newest();
    Bytes payload;
    for (int budget = kPayloadsPerRound; l && l->backlog() == 0 && budget > 0;) {
        bool sent = false;
        for (auto& port : u->ports()) {
            if (!port.reading || budget == 0 || l->backlog() > 0) continue;
            const auto& ready = u->ready(port, kPayloadBytes);
            if (ready.empty()) continue;
            std::size_t n = std::min(ready.size(), kPayloadBytes);
            payload.assign({static_cast<std::uint8_t>(port.number), kHeader});
            payload.insert(payload.end(), ready.begin(), ready.begin() + static_cast<std::ptrdiff_t>(n));
            Bytes frame = encodeUnitFrame(torvik::wire::START_UART_READING, payload);
            // Cut the payload before a false start byte until the host reads it whole; one byte
            // alone can make no false frame.
            while (n > 1) {
                const auto f = findFalseFrame(frame);
                if (!f) break;
                n = f->start > kDataOffset ? std::min(n - 1, f->start - kDataOffset) : n / 2;
                payload.resize(2 + n);
                frame = encodeUnitFrame(torvik::wire::START_UART_READING, payload);
                ++shortened_;
            }
            l->send(frame);
            last_sent_ = now;
            u->consume(port, n);
            sent = true;
            --budget;
        }
        if (!sent) break;
    }

    if (l && l->backlog() > 0) {
        // The drain wakes us for what is ready; paced bytes keep arriving meanwhile.
        if (auto due = u->nextDue()) schedule(std::max(now + kTick, *due));
        return;
    }
    if (l && u->hasReady()) {
        schedule(now);
        return;
    }
    if (auto due = u->nextDue()) schedule(std::max(now + kTick, *due));
    // Otherwise nothing is coming: a request, a control line or a new link pokes us.
}

}  // namespace sim
