#include "control/firmware.hpp"

#include <charconv>
#include <cstdio>
#include <set>

#include "firmware/product.hpp"

namespace sim {

namespace {

struct Refused {
    std::string reason;
};

long integer(const std::string& text, long min, long max, const char* what) {
    long v = 0;
    int base = 10;
    std::string_view digits = text;
    bool negative = false;
    if (!digits.empty() && digits[0] == '-') {
        negative = true;
        digits.remove_prefix(1);
    }
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v, base);
    if (negative) v = -v;
    if (digits.empty() || ec != std::errc{} || end != digits.data() + digits.size() || v < min || v > max)
        throw Refused{std::string("bad ") + what + " '" + text + "'"};
    return v;
}

// "PORT.PIN"
PinRef pinRef(const std::string& text) {
    const auto dot = text.find('.');
    if (dot == std::string::npos) throw Refused{"bad pin '" + text + "', expected PORT.PIN"};
    return PinRef{static_cast<int>(integer(text.substr(0, dot), 0, 255, "port")),
                  static_cast<int>(integer(text.substr(dot + 1), 0, 255, "pin"))};
}

std::string pinText(PinRef p) { return std::to_string(p.port) + "." + std::to_string(p.pin); }

std::string hex4(std::uint16_t v) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%04x", v);
    return buf;
}

void need(const std::vector<std::string>& w, std::size_t n, const char* usage) {
    if (w.size() < n) throw Refused{std::string("usage: ") + usage};
}

std::string execute(Unit& unit, const std::vector<std::string>& w) {
    const std::string& verb = w[0];
    if (verb == "firmware") {
        need(w, 3, "firmware SEL echo|model [CLASS]");
        if (w[2] == "echo") {
            unit.setFirmware(std::make_unique<EchoFirmware>());
        } else if (w[2] == "model") {
            UnitIdentity id = unit.identity();
            if (w.size() > 3 && !(id.product = torvik::products::findProduct(w[3]))) throw Refused{"unknown class '" + w[3] + "'"};
            unit.setFirmware(makeFirmware(id));
        } else
            throw Refused{"unknown firmware '" + w[2] + "'"};
        return "ok";
    }

    auto* fw = dynamic_cast<ProductFirmware*>(&unit.firmware());
    if (!fw) throw Refused{"unit runs the echo firmware"};

    if (verb == "pinmode") {
        need(w, 3, "pinmode SEL PORT | pinmode SEL PORT.PIN MODE");
        if (w.size() == 3) {
            const int port = static_cast<int>(integer(w[2], 0, 255, "port"));
            std::string out = "ok";
            for (int pin = 0; pin < fw->pins().pinCount(port); ++pin)
                out += " " + std::string(pinModeName(fw->modeOf({port, pin})));
            return out;
        }
        const PinRef p = pinRef(w[2]);
        const auto mode = pinModeFromText(w[3]);
        if (!mode) throw Refused{"bad mode '" + w[3] + "'"};
        if (!fw->setPinMode(p, *mode))
            throw Refused{"pin " + w[2] + " cannot be " + std::string(pinModeName(*mode))};
        return "ok";
    }
    if (verb == "wiring") {
        DigitalIo& dio = fw->dio();
        if (w.size() == 2) {
            std::string out = "ok";
            for (const auto& [a, b] : dio.wiring()) out += " " + pinText(a) + "-" + pinText(b);
            return out;
        }
        if (w[2] == "clear") {
            dio.clearWiring();
            return "ok";
        }
        if (w[2] == "default") {
            dio.defaultWiring();
            return "ok";
        }
        if (w[2] != "add") throw Refused{"usage: wiring SEL [clear|default|add A-B...]"};
        std::vector<DigitalIo::Wire> wires;
        std::set<PinRef> seen;
        for (std::size_t i = 3; i < w.size(); ++i) {
            const auto dash = w[i].find('-');
            if (dash == std::string::npos) throw Refused{"bad wire '" + w[i] + "', expected P.N-P.N"};
            const PinRef a = pinRef(w[i].substr(0, dash)), b = pinRef(w[i].substr(dash + 1));
            const bool digital = [&] {
                for (PinRef p : {a, b})
                    if (p.pin >= 16 || !(dio.canInput(p) || dio.canOutput(p))) return false;
                return true;
            }();
            if (!digital || a == b) throw Refused{"cannot wire " + w[i] + ": two different digital pins needed"};
            if (!seen.insert(a).second || !seen.insert(b).second) throw Refused{"a pin twice in " + w[i]};
            wires.emplace_back(a, b);
        }
        for (const auto& [a, b] : wires) dio.join(a, b);
        return "ok";
    }
    if (verb == "levels") {
        need(w, 4, "levels SEL PORT VALUE [mask=M]");
        const int port = static_cast<int>(integer(w[2], 0, 255, "port"));
        if (!fw->dio().isPort(port)) throw Refused{"no digital port " + w[2]};
        const auto value = static_cast<std::uint16_t>(integer(w[3], 0, 0xFFFF, "value"));
        std::uint16_t mask = 0xFFFF;
        if (w.size() > 4) {
            if (w[4].rfind("mask=", 0) != 0) throw Refused{"bad option '" + w[4] + "'"};
            mask = static_cast<std::uint16_t>(integer(w[4].substr(5), 0, 0xFFFF, "mask"));
        }
        fw->dio().setLevels(port, mask, value);
        return "ok";
    }
    if (verb == "dio") {
        need(w, 3, "dio SEL PORT");
        const int port = static_cast<int>(integer(w[2], 0, 255, "port"));
        if (!fw->dio().isPort(port)) throw Refused{"no digital port " + w[2]};
        const auto& r = fw->dio().registers(port);
        return "ok enabled=" + hex4(r.enabled) + " direction=" + hex4(r.direction) + " state=" + hex4(r.state) +
               " driven=" + hex4(r.driven) + " levels=" + hex4(r.levels) + " start.enabled=" + hex4(r.start_enabled) +
               " start.direction=" + hex4(r.start_direction) + " start.state=" + hex4(r.start_state);
    }
    if (verb == "clock") {
        UnitClock& clock = fw->system().clock();
        if (w.size() == 2) return "ok " + toText(clock.read()) + (clock.running() ? " run" : " hold");
        DateTime t;
        if (!fromText(w[2], &t)) throw Refused{"bad date '" + w[2] + "', expected YYYY-MM-DDTHH:MM:SS"};
        bool running = true;
        if (w.size() > 3) {
            if (w[3] != "run" && w[3] != "hold") throw Refused{"bad clock mode '" + w[3] + "'"};
            running = w[3] == "run";
        }
        clock.set(t, running);
        return "ok";
    }
    if (verb == "sensors") {
        if (!fw->hasWifi()) throw Refused{"unit has no on-board sensors"};
        Sensors& s = fw->wifi().sensors();
        Sensors next = s;
        for (std::size_t i = 2; i < w.size(); ++i) {
            const auto eq = w[i].find('=');
            const std::string key = w[i].substr(0, eq), value = eq == std::string::npos ? "" : w[i].substr(eq + 1);
            if (key == "rssi") {
                next.rssi = static_cast<int>(integer(value, -255, -1, "rssi"));
            } else if (key == "battery") {
                next.battery = static_cast<std::uint16_t>(integer(value, 0, 0xFFFF, "battery"));
            } else if (key == "thermo") {
                next.thermo = static_cast<std::int16_t>(integer(value, -32768, 32767, "thermo"));
            } else if (key == "accel") {
                std::size_t from = 0;
                for (int axis = 0; axis < 3; ++axis) {
                    const auto comma = value.find(',', from);
                    if ((axis < 2) == (comma == std::string::npos)) throw Refused{"bad accel '" + value + "'"};
                    next.accel[static_cast<std::size_t>(axis)] =
                        static_cast<std::uint16_t>(integer(value.substr(from, comma - from), 0, 0xFFFF, "accel"));
                    from = comma + 1;
                }
            } else {
                throw Refused{"unknown sensor '" + key + "'"};
            }
        }
        s = next;
        return "ok rssi=" + std::to_string(s.rssi) + " battery=" + std::to_string(s.battery) +
               " thermo=" + std::to_string(s.thermo) + " accel=" + std::to_string(s.accel[0]) + "," +
               std::to_string(s.accel[1]) + "," + std::to_string(s.accel[2]);
    }
    return {};
}

}  // namespace

std::optional<std::string> firmwareControl(Unit& unit, const std::vector<std::string>& w) {
    static const std::set<std::string> kVerbs = {"firmware", "pinmode", "wiring", "levels", "dio", "clock", "sensors"};
    if (w.empty() || !kVerbs.count(w[0])) return std::nullopt;
    try {
        return execute(unit, w);
    } catch (const Refused& e) {
        return "err " + e.reason;
    }
}

}  // namespace sim
