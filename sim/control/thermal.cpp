#include "control/thermal.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "firmware/product.hpp"

namespace sim {

namespace {

struct Refused {
    std::string reason;
};

double real(const std::string& text, const char* what) {
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(v) || std::fabs(v) > 1e6)
        throw Refused{std::string("bad ") + what + " '" + text + "'"};
    return v;
}

unsigned long whole(const std::string& text, unsigned long max, const char* what) {
    char* end = nullptr;
    const unsigned long v = std::strtoul(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || *end != '\0' || v > max) throw Refused{std::string("bad ") + what + " '" + text + "'"};
    return v;
}

std::string text(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.9g", v);
    return buf;
}

ProductFirmware& model(Unit& unit) {
    auto* fw = dynamic_cast<ProductFirmware*>(&unit.firmware());
    if (!fw) throw Refused{"unit runs the echo firmware"};
    return *fw;
}

std::string describe(const Thermal& thermal, int port, const Thermal::Sensor& s) {
    char faults[8];
    std::snprintf(faults, sizeof faults, "0x%02x", s.faults);
    return "ok temp=" + text(s.temperature) + " drift=" + text(s.drift) + " now=" + text(thermal.temperatureNow(s)) +
           " junction=" + text(s.junction) + " junction_on=" + std::to_string(s.junction_on) +
           " written_junction=" + text(s.written_junction) + " offset=" + text(s.offset) + " saved_offset=" + text(s.saved_offset) +
           " filter=" + std::to_string(s.filter) + " oversampling=" + std::to_string(s.oversampling) +
           " type=" + std::to_string(s.type) + " open=" + std::to_string(s.open_circuit) + " faults=" + faults +
           " port_open=" + std::to_string(thermal.isOpen(port));
}

std::string execute(Unit& unit, const std::vector<std::string>& w) {
    ProductFirmware& fw = model(unit);
    if (w[0] == "thermal") {
        Thermal& thermal = fw.thermal();
        if (!thermal.present()) throw Refused{"unit has no temperature channels"};
        if (w.size() < 4) throw Refused{"usage: thermal SEL PORT CH [temp=C] [drift=C] [junction=C] [open=0|1] [faults=N]"};
        const int port = static_cast<int>(whole(w[2], 255, "port"));
        Thermal::Sensor* s = thermal.sensor(port, static_cast<int>(whole(w[3], 255, "channel")));
        if (!s) throw Refused{"no channel " + w[3] + " on port " + w[2]};
        Thermal::Sensor next = *s;
        double temperature = s->temperature, drift = s->drift;
        bool new_temperature = false;
        for (std::size_t i = 4; i < w.size(); ++i) {
            const auto eq = w[i].find('=');
            const std::string key = w[i].substr(0, eq), value = eq == std::string::npos ? "" : w[i].substr(eq + 1);
            if (key == "temp") {
                temperature = real(value, "temperature");
                new_temperature = true;
            } else if (key == "drift") {
                drift = real(value, "drift");
                new_temperature = true;
            } else if (key == "junction") {
                next.junction = real(value, "junction temperature");
            } else if (key == "open") {
                next.open_circuit = whole(value, 1, "open") == 1;
            } else if (key == "faults") {
                next.faults = static_cast<std::uint8_t>(whole(value, 255, "faults"));
            } else {
                throw Refused{"unknown setting '" + key + "'"};
            }
        }
        *s = next;
        if (new_temperature) thermal.setTemperature(*s, temperature, drift);
        return describe(thermal, port, *s);
    }
    // relays
    RelayCounters& relays = fw.relays();
    if (!relays.present()) throw Refused{"unit has no relays"};
    if (w.size() > 2) {
        std::vector<std::uint32_t> values;
        for (std::size_t i = 2; i < w.size(); ++i) values.push_back(static_cast<std::uint32_t>(whole(w[i], 0xFFFFFFFFul, "count")));
        if (!relays.setCounters(values)) throw Refused{"give " + std::to_string(relays.counters().size()) + " counts"};
    }
    std::string out = "ok";
    for (std::uint32_t c : relays.counters()) out += " " + std::to_string(c);
    return out;
}

}  // namespace

std::optional<std::string> thermalControl(Unit& unit, const std::vector<std::string>& w) {
    if (w.empty() || (w[0] != "thermal" && w[0] != "relays")) return std::nullopt;
    try {
        return execute(unit, w);
    } catch (const Refused& e) {
        return "err " + e.reason;
    }
}

}  // namespace sim
