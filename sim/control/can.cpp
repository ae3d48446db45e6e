#include "control/can.hpp"

#include <cstdio>
#include <cstdlib>
#include <sstream>

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

bool has(const std::vector<std::string>& w, std::size_t from, const std::string& word) {
    for (std::size_t i = from; i < w.size(); ++i)
        if (w[i] == word) return true;
    return false;
}

std::optional<std::string> option(const std::vector<std::string>& w, std::size_t from, const std::string& key) {
    for (std::size_t i = from; i < w.size(); ++i)
        if (w[i].rfind(key + "=", 0) == 0) return w[i].substr(key.size() + 1);
    return std::nullopt;
}

std::string word(std::uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%08x", v);
    return buf;
}

CanController& controller(Unit& unit) {
    auto* fw = dynamic_cast<ProductFirmware*>(&unit.firmware());
    if (!fw) throw Refused{"unit runs the echo firmware"};
    if (!fw->can().present()) throw Refused{"unit has no CAN port"};
    return fw->can();
}

std::string state(Unit& unit, CanController& can) {
    const CanSender& sender = unit.canSender();
    ScriptNode& tester = can.bus().tester();
    const auto& c = can.counters();
    std::ostringstream out;
    out << "ok bus=" << (can.bus().name().empty() ? "-" : can.bus().name()) << " nodes=" << can.bus().controllers()
        << " open=" << can.isOpen() << " started=" << can.started() << " port=" << int(can.streamPort())
        << " speed=" << kCanKbits[static_cast<std::size_t>(can.speed())] << " filtering=" << can.filtering()
        << " rollover=" << can.rollover() << " interrupts=" << can.interrupts() << " buffered=" << can.buffered()
        << " held=" << can.held() << " counters=" << c.tx_itr << ',' << c.rx_itr << ',' << c.spi << ',' << c.sent << ','
        << c.bus_errors << ',' << c.overflow << " tec=" << int(can.txErrors()) << " rec=" << int(can.rxErrors()) << " filters=";
    for (int i = 0; i < CanController::kFilters; ++i) out << (i ? "," : "") << word(can.filter(i));
    out << " masks=" << word(can.mask(0)) << ',' << word(can.mask(1));
    const auto& s = sender.stats();
    out << " sent=" << s.frames << " payloads=" << s.payloads << " shortened=" << s.shortened << " unclean=" << s.unclean
        << " frames=" << sender.framesPerPayload() << " burst=" << sender.burstLeft() << " stream=";
    const auto& st = tester.stream();
    if (st.pace == ScriptNode::Pace::Off)
        out << "off";
    else if (st.pace == ScriptNode::Pace::Fast)
        out << "fast";
    else
        out << "rate:" << st.rate;
    out << " seq=" << tester.sequence() << " heard=" << tester.heardTotal();
    return out.str();
}

std::string execute(Unit& unit, const std::vector<std::string>& w) {
    CanController& can = controller(unit);
    CanSender& sender = unit.canSender();
    if (w.size() == 2) return state(unit, can);
    const std::string& what = w[2];
    ScriptNode& tester = can.bus().tester();
    auto usage = [&](std::size_t n, const char* text) {
        if (w.size() < n) throw Refused{std::string("usage: can SEL ") + text};
    };

    if (what == "bus") {
        usage(4, "bus NAME|own");
        sender.setBus(w[3] == "own" ? "" : w[3]);
        return "ok";
    }
    if (what == "send") {
        usage(5, "send ID HEX|- [ext] [remote]");
        const bool ext = has(w, 5, "ext");
        const auto id = static_cast<std::uint32_t>(number(w[3], ext ? 0x1FFFFFFF : 0x7FF, "identifier"));
        const auto data = fromHex(w[4]);
        if (!data || data->size() > 8) throw Refused{"bad data '" + w[4] + "' (up to 8 bytes of hex)"};
        tester.send(CanFrame::make(id, ext, has(w, 5, "remote"), *data));
        return "ok";
    }
    if (what == "stream") {
        usage(4, "stream rate=R|fast [id=ID] [ext] [remote] [count=N] | stream off");
        ScriptNode::Stream s;
        if (w[3] == "off") {
            tester.setStream(s, Clock::now());
            return "ok";
        }
        if (w[3] == "fast") {
            s.pace = ScriptNode::Pace::Fast;
        } else if (auto r = option(w, 3, "rate")) {
            char* end = nullptr;
            s.rate = std::strtod(r->c_str(), &end);
            if (end == r->c_str() || *end != '\0' || !(s.rate > 0 && s.rate <= 1e7)) throw Refused{"bad rate '" + *r + "'"};
            s.pace = ScriptNode::Pace::Rate;
        } else {
            throw Refused{"stream needs rate=R, fast or off"};
        }
        s.extended = has(w, 4, "ext");
        s.remote = has(w, 4, "remote");
        if (auto id = option(w, 4, "id")) s.id = static_cast<std::uint32_t>(number(*id, s.extended ? 0x1FFFFFFF : 0x7FF, "identifier"));
        if (auto n = option(w, 4, "count")) {
            s.left = number(*n, 1ull << 40, "count");
            if (s.left == 0) throw Refused{"count must be at least 1"};
        }
        tester.setStream(s, Clock::now());
        sender.poke();
        return "ok";
    }
    if (what == "heard") {
        if (w.size() > 3 && w[3] == "clear") {
            tester.clearHeard();
            return "ok";
        }
        std::string out = "ok";
        for (const CanFrame& f : tester.heard()) out += " " + f.text();
        return out;
    }
    if (what == "frames") {
        usage(4, "frames N");
        sender.setFrames(static_cast<std::size_t>(number(w[3], CanSender::kMaxFrames, "frame count")));
        return "ok";
    }
    if (what == "burst") {
        usage(4, "burst N");
        sender.burst(number(w[3], 1ull << 40, "count"));
        return "ok";
    }
    if (what == "badlength") {
        sender.torn(w.size() > 3 ? static_cast<std::size_t>(number(w[3], 11, "byte count")) : 1);
        return "ok";
    }
    throw Refused{"unknown can request '" + what + "'"};
}

}  // namespace

std::optional<std::string> canControl(Unit& unit, const std::vector<std::string>& w) {
    if (w[0] != "can") return std::nullopt;
    try {
        return execute(unit, w);
    } catch (const Refused& r) {
        return "err " + r.reason;
    }
}

}  // namespace sim
