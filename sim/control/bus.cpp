#include "control/bus.hpp"

#include <cstdio>
#include <cstdlib>

#include "firmware/product.hpp"

namespace sim {

namespace {

struct Refused {
    std::string reason;
};

unsigned long long number(const std::string& text, unsigned long long max, const char* what) {
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || *end != '\0' || v > max) throw Refused{std::string("bad ") + what + " '" + text + "'"};
    return v;
}

bool onOff(const std::string& text) {
    if (text == "on") return true;
    if (text == "off") return false;
    throw Refused{"expected on or off, not '" + text + "'"};
}

Bytes hexBytes(const std::string& text) {
    if (text == "-") return {};
    auto b = fromHex(text);
    if (!b) throw Refused{"bad hex '" + text + "'"};
    return *b;
}

// "key=value" options from w[from] on.
std::optional<std::string> option(const std::vector<std::string>& w, std::size_t from, const std::string& key) {
    for (std::size_t i = from; i < w.size(); ++i) {
        if (w[i].rfind(key + "=", 0) == 0) return w[i].substr(key.size() + 1);
        if (w[i].find('=') == std::string::npos) throw Refused{"bad option '" + w[i] + "'"};
    }
    return std::nullopt;
}

std::string real(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.9g", v);
    return buf;
}

std::string hex2(unsigned v) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%02x", v);
    return buf;
}

ProductFirmware& model(Unit& unit) {
    auto* fw = dynamic_cast<ProductFirmware*>(&unit.firmware());
    if (!fw) throw Refused{"unit runs the echo firmware"};
    return *fw;
}

template <class Bus>
auto& portOf(Bus& bus, const std::vector<std::string>& w, const char* what) {
    if (w.size() < 3) throw Refused{std::string("usage: ") + what + " SEL PORT ..."};
    if (!bus.present()) throw Refused{std::string("unit has no ") + what};
    auto* p = bus.port(static_cast<int>(number(w[2], 255, "port")));
    if (!p) throw Refused{std::string("no ") + what + " port " + w[2]};
    return *p;
}

std::string uart(Unit& unit, const std::vector<std::string>& w) {
    Uart& u = model(unit).uart();
    Uart::Port& p = portOf(u, w, "uart");
    const auto now = Clock::now();
    if (w.size() == 3) {
        static constexpr const char* kLoop[] = {"off", "paced", "fast"};
        const auto& c = p.counters;
        std::string stream = "off";
        if (p.stream_left > 0) stream = p.stream_rate > 0 ? real(p.stream_rate) : "max";
        return "ok open=" + std::to_string(p.open) + " reading=" + std::to_string(p.reading) +
               " baud=" + std::to_string(p.baud) + " data=" + std::to_string(p.data_size) +
               " parity=" + std::to_string(p.parity) + " stop=" + std::to_string(p.stop) +
               " loopback=" + kLoop[static_cast<int>(p.loopback)] + " silent=" + std::to_string(p.silent) +
               " stream=" + stream + " line=" + std::to_string(p.line.size()) +
               " buffered=" + std::to_string(p.buffer.size()) + " burst=" + std::to_string(p.burst_left) +
               " written=" + std::to_string(c.written) + " received=" + std::to_string(c.received) +
               " sent=" + std::to_string(c.sent) + " payloads=" + std::to_string(c.payloads) +
               " lost=" + std::to_string(c.lost) + " ignored=" + std::to_string(c.ignored) +
               " shortened=" + std::to_string(unit.uartSender().shortened());
    }
    const std::string& what = w[3];
    if (what == "loopback") {
        if (w.size() != 5) throw Refused{"usage: uart SEL PORT loopback off|paced|fast"};
        if (w[4] == "off") p.loopback = Uart::Loopback::Off;
        else if (w[4] == "paced") p.loopback = Uart::Loopback::Paced;
        else if (w[4] == "fast") p.loopback = Uart::Loopback::Fast;
        else throw Refused{"bad loopback '" + w[4] + "'"};
    } else if (what == "send") {
        if (w.size() != 5) throw Refused{"usage: uart SEL PORT send HEX"};
        u.talk(p, hexBytes(w[4]), now);
    } else if (what == "stream") {
        if (w.size() < 5) throw Refused{"usage: uart SEL PORT stream RATE|max|off [bytes=N]"};
        if (w[4] == "off") {
            u.stream(p, 0, 0, now);
        } else {
            double rate = 0;
            if (w[4] != "max") {
                char* end = nullptr;
                rate = std::strtod(w[4].c_str(), &end);
                if (*end != '\0' || !(rate > 0) || rate > 1e9) throw Refused{"bad rate '" + w[4] + "'"};
            }
            const auto bytes = option(w, 5, "bytes");
            u.stream(p, rate, bytes ? number(*bytes, Uart::kEndless - 1, "bytes") : Uart::kEndless, now);
        }
    } else if (what == "burst") {
        if (w.size() != 5) throw Refused{"usage: uart SEL PORT burst N"};
        u.burst(p, number(w[4], 1ull << 40, "count"));
    } else if (what == "silent") {
        if (w.size() != 5) throw Refused{"usage: uart SEL PORT silent on|off"};
        u.setSilent(p, onOff(w[4]), now);
    } else {
        throw Refused{"unknown uart request '" + what + "'"};
    }
    unit.uartSender().poke();
    return "ok";
}

std::string i2c(Unit& unit, const std::vector<std::string>& w) {
    I2c::Port& p = portOf(model(unit).i2c(), w, "i2c");
    I2c::Eeprom& e = p.eeprom;
    if (w.size() == 3)
        return "ok open=" + std::to_string(p.open) + " frequency=" + std::to_string(p.frequency) +
               " addrsize=" + std::to_string(p.address_size) + " eeprom=" + hex2(e.address) +
               " size=" + std::to_string(e.memory.size()) + " page=" + std::to_string(e.page) +
               " pointer=" + std::to_string(e.pointer) + " silent=" + std::to_string(e.silent) +
               " nacks=" + std::to_string(p.nacks);
    const std::string& what = w[3];
    if (what == "eeprom") {
        if (w.size() < 5) throw Refused{"usage: i2c SEL PORT eeprom ADDR [size=N] [page=N]"};
        I2c::Eeprom fresh;
        fresh.address = static_cast<std::uint8_t>(number(w[4], 0x7F, "address"));
        if (auto size = option(w, 5, "size")) fresh.memory.assign(number(*size, 65536, "size"), 0xFF);
        if (auto page = option(w, 5, "page")) fresh.page = number(*page, 65536, "page");
        if (fresh.memory.empty() || fresh.page == 0 || fresh.memory.size() % fresh.page)
            throw Refused{"the size must be a whole number of pages"};
        fresh.silent = e.silent;
        e = std::move(fresh);
        return "ok";
    }
    if (what == "silent") {
        if (w.size() != 5) throw Refused{"usage: i2c SEL PORT silent on|off"};
        e.silent = onOff(w[4]);
        return "ok";
    }
    if (what == "memory") {
        if (w.size() != 6) throw Refused{"usage: i2c SEL PORT memory FROM N"};
        const auto from = number(w[4], e.memory.size(), "address");
        const auto n = number(w[5], e.memory.size() - from, "count");
        return "ok " + (n ? toHex(std::span(e.memory).subspan(from, n)) : std::string("-"));
    }
    throw Refused{"unknown i2c request '" + what + "'"};
}

std::string spi(Unit& unit, const std::vector<std::string>& w) {
    Spi::Port& p = portOf(model(unit).spi(), w, "spi");
    if (w.size() == 3)
        return "ok open=" + std::to_string(p.open) +
               " device=" + (p.pattern.empty() ? std::string("loopback") : "pattern:" + toHex(p.pattern)) +
               " silent=" + std::to_string(p.silent) + " transfers=" + std::to_string(p.transfers) +
               " mosi=" + (p.mosi.empty() ? std::string("-") : toHex(p.mosi)) +
               " datasize=" + std::to_string(p.data_size) + " firstbit=" + std::to_string(p.first_bit) +
               " prescaler=" + std::to_string(p.prescaler) + " cpol=" + std::to_string(p.cpol) +
               " cpha=" + std::to_string(p.cpha);
    const std::string& what = w[3];
    if (what == "loopback" && w.size() == 4) {
        p.pattern.clear();
    } else if (what == "pattern" && w.size() == 5) {
        p.pattern = hexBytes(w[4]);
        if (p.pattern.empty()) throw Refused{"a pattern needs at least one byte"};
    } else if (what == "silent" && w.size() == 5) {
        p.silent = onOff(w[4]);
    } else {
        throw Refused{"usage: spi SEL PORT [loopback | pattern HEX | silent on|off]"};
    }
    return "ok";
}

}  // namespace

std::optional<std::string> busControl(Unit& unit, const std::vector<std::string>& w) {
    if (w.empty() || (w[0] != "uart" && w[0] != "i2c" && w[0] != "spi")) return std::nullopt;
    try {
        if (w[0] == "uart") return uart(unit, w);
        if (w[0] == "i2c") return i2c(unit, w);
        return spi(unit, w);
    } catch (const Refused& e) {
        return "err " + e.reason;
    }
}

void clearBusFaults(Unit& unit) {
    if (auto* fw = dynamic_cast<ProductFirmware*>(&unit.firmware())) {
        fw->uart().clearFaults(Clock::now());
        unit.uartSender().poke();
        fw->i2c().clearFaults();
        fw->spi().clearFaults();
    }
}

}  // namespace sim
