#include "firmware/dio.hpp"

#include <algorithm>

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;

namespace {

std::uint16_t bit(int pin) { return static_cast<std::uint16_t>(1u << pin); }

// The request layout of each command: its length, and the bytes after the port that carry no
// value but must be there (the six 1 bytes of the two reads of whole register sets, the 0 byte
// of the port-wide commands).
struct Layout {
    std::size_t length;
    std::size_t filler_from;
    std::uint8_t filler;
};

std::optional<Layout> layoutOf(std::uint16_t code) {
    switch (code) {
    case wire::LOAD_DIO_STARTUP: return Layout{7, 1, 1};
    case wire::GET_DIO_CURRENT: return Layout{9, 3, 1};
    case wire::SAVE_DIO_STARTUP: return Layout{7, 7, 0};
    case wire::SET_DIO_CURRENT: return Layout{9, 9, 0};
    case wire::TOGGLE_DIO_DIR:
    case wire::SET_DIO_STATE:
    case wire::SET_AND_WRITE_DO: return Layout{5, 5, 0};
    case wire::GET_DIO_STATE:
    case wire::READ_AND_GET_DI:
    case wire::TOGGLE_AND_WRITE_DO: return Layout{3, 3, 0};
    case wire::READ_DI:
    case wire::WRITE_DO:
    case wire::SET_SLOT_DI:
    case wire::SET_SLOT_DO:
    case wire::SET_SLOT_IDLE: return Layout{2, 1, 0};
    default: return std::nullopt;
    }
}

std::uint16_t tableMask(const torvik::products::PortTable& table, int port) {
    std::uint16_t mask = 0;
    for (const auto& [p, cells] : table)
        if (p == port)
            for (const auto& c : cells)
                if (c.pin >= 0 && c.pin < 16) mask |= bit(c.pin);
    return mask;
}

}  // namespace

bool DigitalIo::isDioCode(std::uint16_t code) { return layoutOf(code).has_value(); }

DigitalIo::DigitalIo(const torvik::products::Product& product, PinBoard& board) : board_(board) {
    namespace products = torvik::products;
    const auto di = products::parsePortTable(product.di), do_ = products::parsePortTable(product.do_);
    for (int port = 0; port < kPorts; ++port) {
        inputs_[port] = tableMask(di, port);
        outputs_[port] = tableMask(do_, port);
        present_ = present_ || pins(port) != 0;
    }
    defaultWiring();
}

void DigitalIo::defaultWiring() {
    wires_.clear();
    std::vector<int> in_ports, out_ports;
    for (int port = 0; port < kPorts; ++port) {
        if (inputs_[port]) in_ports.push_back(port);
        if (outputs_[port]) out_ports.push_back(port);
    }
    auto pairUp = [&](int a, int b) {
        for (int pin = 0; pin < 16; ++pin)
            if ((pins(a) & pins(b)) >> pin & 1) join({a, pin}, {b, pin});
    };
    if (in_ports == out_ports) {
        for (std::size_t i = 0; i + 1 < in_ports.size(); i += 2) pairUp(in_ports[i], in_ports[i + 1]);
    } else {
        for (std::size_t i = 0; i < std::min(in_ports.size(), out_ports.size()); ++i) {
            const int a = out_ports[i], b = in_ports[i];
            for (int pin = 0; pin < 16; ++pin)
                if ((outputs_[a] & inputs_[b]) >> pin & 1) join({a, pin}, {b, pin});
        }
    }
}

bool DigitalIo::join(PinRef a, PinRef b) {
    auto digital = [&](PinRef p) { return p.pin >= 0 && p.pin < 16 && isPort(p.port) && (pins(p.port) >> p.pin & 1); };
    if (!digital(a) || !digital(b) || a == b) return false;
    for (PinRef p : {a, b}) {
        if (auto it = wires_.find(p); it != wires_.end()) {
            wires_.erase(it->second);
            wires_.erase(it);
        }
    }
    wires_[a] = b;
    wires_[b] = a;
    return true;
}

std::vector<DigitalIo::Wire> DigitalIo::wiring() const {
    std::vector<Wire> out;
    for (const auto& [a, b] : wires_)
        if (a < b) out.emplace_back(a, b);
    return out;
}

PinMode DigitalIo::freeMode(PinRef p) const {
    if (!isPort(p.port) || p.pin < 0 || p.pin >= 16) return PinMode::Idle;
    const auto& r = regs_[p.port];
    if (!(r.enabled >> p.pin & 1)) return PinMode::Idle;
    return (r.direction >> p.pin & 1) ? PinMode::DO : PinMode::DI;
}

bool DigitalIo::levelAt(PinRef p) const {
    if (auto it = wires_.find(p); it != wires_.end()) {
        const PinRef q = it->second;
        if (outputsOpen(q.port) >> q.pin & 1) return regs_[q.port].driven >> q.pin & 1;
    }
    return isPort(p.port) && (regs_[p.port].levels >> p.pin & 1);
}

void DigitalIo::setLevels(int port, std::uint16_t mask, std::uint16_t levels) {
    if (port < 0 || port >= kPorts) return;
    auto& r = regs_[port];
    r.levels = static_cast<std::uint16_t>((r.levels & ~mask) | (levels & mask));
}

void DigitalIo::sample(int port, std::uint16_t mask) {
    auto& r = regs_[port];
    const std::uint16_t m = mask & inputsOpen(port);
    for (int pin = 0; pin < 16; ++pin)
        if (m >> pin & 1) r.state = static_cast<std::uint16_t>(levelAt({port, pin}) ? r.state | bit(pin) : r.state & ~bit(pin));
}

void DigitalIo::release(PinRef p) {
    if (!isPort(p.port) || p.pin < 0 || p.pin >= 16) return;
    auto& r = regs_[p.port];
    const auto keep = static_cast<std::uint16_t>(~bit(p.pin));
    r.enabled &= keep;
    r.direction &= keep;
    r.state &= keep;
    r.driven &= keep;
}

void DigitalIo::open(PinRef p, bool output) {
    if (!isPort(p.port) || p.pin < 0 || p.pin >= 16) return;
    release(p);
    auto& r = regs_[p.port];
    r.enabled |= bit(p.pin);
    if (output) r.direction |= bit(p.pin);
}

void DigitalIo::reboot() {
    for (int port = 0; port < kPorts; ++port) {
        auto& r = regs_[port];
        r.enabled = r.start_enabled & pins(port) & ~board_.heldMask(port);
        r.direction = r.start_direction & r.enabled;
        r.state = r.start_state & outputsOpen(port);
        drive(port);
    }
}

void DigitalIo::factoryReset() {
    for (auto& r : regs_) r.start_enabled = r.start_direction = r.start_state = 0;
    reboot();
}

Bytes DigitalIo::handle(std::uint16_t code, const Bytes& in) {
    const std::uint8_t port = portOf(in);
    const auto layout = layoutOf(code);
    if (!layout || in.size() != layout->length ||
        std::any_of(in.begin() + static_cast<std::ptrdiff_t>(std::min(layout->filler_from, in.size())), in.end(),
                    [&](std::uint8_t b) { return b != layout->filler; }))
        return refuse(port, kCommandsError);

    if (code == wire::SET_SLOT_IDLE && !isPort(port)) {
        // A port without digital pins: nothing of it is ours to release, if the unit has it at all.
        return portStatus(port, board_.pinCount(port) > 0 ? kOk : kDioError);
    }
    if (!isPort(port)) return refuse(port);

    auto& r = regs_[port];
    const std::uint16_t all = pins(port), held = board_.heldMask(port);
    auto words = [&](std::uint16_t a, std::uint16_t b, std::uint16_t c) {
        Bytes out{port};
        putU16(out, a);
        putU16(out, b);
        putU16(out, c);
        return out;
    };
    auto word = [&](std::uint16_t v) {
        Bytes out{port};
        putU16(out, v);
        return out;
    };
    // Enabled pins must be of the direction their tables allow, and not held by another function.
    auto allowed = [&](std::uint16_t m, std::uint16_t e, std::uint16_t d) {
        const std::uint16_t outs = m & e & d, ins = m & e & ~d;
        return !(outs & ~outputs_[port]) && !(ins & ~inputs_[port]) && !((outs | ins) & held);
    };

    switch (code) {
    case wire::GET_DIO_CURRENT: {
        const std::uint16_t m = u16At(in, 1);
        return words(r.enabled & m, r.direction & m, r.state & m);
    }
    case wire::LOAD_DIO_STARTUP: return words(r.start_enabled, r.start_direction, r.start_state);
    case wire::SET_DIO_CURRENT: {
        const std::uint16_t m = u16At(in, 1) & all, e = u16At(in, 3), d = u16At(in, 5), s = u16At(in, 7);
        if (!allowed(m, e, d)) return refuse(port);
        const std::uint16_t outs = m & e & d;
        r.enabled = (r.enabled & ~m) | (e & m);
        r.direction = (r.direction & ~m) | (d & e & m);
        r.state = (r.state & ~m) | (s & outs);
        r.driven = (r.driven & ~m) | (s & outs);
        return portStatus(port, kOk);
    }
    case wire::SAVE_DIO_STARTUP: {
        const std::uint16_t e = u16At(in, 1), d = u16At(in, 3), s = u16At(in, 5);
        const std::uint16_t outs = e & d & all, ins = e & ~d & all;
        if ((outs & ~outputs_[port]) || (ins & ~inputs_[port])) return refuse(port);
        r.start_enabled = e & all;
        r.start_direction = outs;
        r.start_state = s & outs;
        return portStatus(port, kOk);
    }
    case wire::TOGGLE_DIO_DIR: {
        const std::uint16_t m = u16At(in, 1) & all, s = u16At(in, 3);
        if (m & ~r.enabled) return refuse(port);
        const std::uint16_t d = r.direction ^ m;
        if (!allowed(m, r.enabled, d)) return refuse(port);
        const std::uint16_t outs = m & d;
        r.direction = (r.direction & ~m) | outs;
        r.state = (r.state & ~m) | (s & outs);
        r.driven = (r.driven & ~m) | (s & outs);
        return portStatus(port, kOk);
    }
    case wire::GET_DIO_STATE: return word(r.state & u16At(in, 1));
    case wire::SET_DIO_STATE: {
        const std::uint16_t m = u16At(in, 1) & all, s = u16At(in, 3);
        if (m & ~outputsOpen(port)) return refuse(port);
        r.state = (r.state & ~m) | (s & m);
        return portStatus(port, kOk);
    }
    case wire::READ_DI: sample(port, 0xFFFF); return portStatus(port, kOk);
    case wire::WRITE_DO: drive(port); return portStatus(port, kOk);
    case wire::READ_AND_GET_DI: {
        const std::uint16_t m = u16At(in, 1);
        sample(port, m);
        return word(r.state & m);
    }
    case wire::SET_AND_WRITE_DO:
    case wire::TOGGLE_AND_WRITE_DO: {
        const std::uint16_t m = u16At(in, 1) & all;
        if (m & ~outputsOpen(port)) return refuse(port);
        if (code == wire::SET_AND_WRITE_DO)
            r.state = (r.state & ~m) | (u16At(in, 3) & m);
        else
            r.state ^= m;
        drive(port);
        return word(r.state);
    }
    case wire::SET_SLOT_DI:
    case wire::SET_SLOT_DO: {
        const bool out = code == wire::SET_SLOT_DO;
        const std::uint16_t m = out ? outputs_[port] : inputs_[port];
        if (!m || (m & held)) return refuse(port);
        r.enabled |= m;
        r.direction = out ? (r.direction | m) : (r.direction & ~m);
        r.state &= ~m;
        r.driven &= ~m;
        return portStatus(port, kOk);
    }
    case wire::SET_SLOT_IDLE: {
        const std::uint16_t m = all & ~held;
        r.enabled &= ~m;
        r.direction &= ~m;
        r.state &= ~m;
        r.driven &= ~m;
        return portStatus(port, kOk);
    }
    default: return refuse(port, kCommandsError);
    }
}

}  // namespace sim
