#include "control/analog.hpp"

#include <cstdio>
#include <cstdlib>
#include <set>

#include "firmware/product.hpp"

namespace sim {

namespace {

struct Refused {
    std::string reason;
};

unsigned long long count(const std::string& text, unsigned long long max, const char* what) {
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || v > max)
        throw Refused{std::string("bad ") + what + " '" + text + "'"};
    return v;
}

bool onOff(const std::string& text) {
    if (text == "on") return true;
    if (text == "off") return false;
    throw Refused{"expected on or off, not '" + text + "'"};
}

std::string real(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.9g", v);
    return buf;
}

void need(const std::vector<std::string>& w, std::size_t n, const char* usage) {
    if (w.size() < n) throw Refused{std::string("usage: ") + usage};
}

ProductFirmware& model(Unit& unit) {
    auto* fw = dynamic_cast<ProductFirmware*>(&unit.firmware());
    if (!fw) throw Refused{"unit runs the echo firmware"};
    return *fw;
}

AnalogInput& input(Unit& unit) {
    AnalogInput& ai = model(unit).ai();
    if (!ai.present()) throw Refused{"unit has no analog input"};
    return ai;
}

std::string execute(Unit& unit, const std::vector<std::string>& w) {
    const std::string& verb = w[0];
    StreamSender& sender = unit.sender();

    if (verb == "wave") {
        AnalogInput& ai = input(unit);
        if (w.size() == 2) {
            std::string out = "ok ";
            for (int ch = 0; ch < ai.channels(); ++ch)
                out += (ch ? ";" : "") + std::to_string(ch) + ":" + ai.waveform(ch).text();
            return out;
        }
        if (w[2] == "default") {
            ai.defaultWaveforms();
            return "ok";
        }
        need(w, 4, "wave SEL [default | CH KIND ARGS...]");
        const int ch = static_cast<int>(count(w[2], 255, "channel"));
        std::string why;
        const auto wave = parseWaveform(std::vector<std::string>(w.begin() + 3, w.end()), &why);
        if (!wave) throw Refused{why};
        if (!ai.setWaveform(ch, *wave)) throw Refused{"channel " + w[2] + " cannot take '" + wave->text() + "'"};
        return "ok";
    }
    if (verb == "pace") {
        AnalogInput& ai = input(unit);
        need(w, 3, "pace SEL realtime|fast [frames=N]");
        StreamSender::Pace pace;
        if (w[2] == "realtime")
            pace = StreamSender::Pace::Realtime;
        else if (w[2] == "fast")
            pace = StreamSender::Pace::Fast;
        else
            throw Refused{"unknown pace '" + w[2] + "'"};
        std::size_t frames = 0;
        if (w.size() > 3) {
            if (w[3].rfind("frames=", 0) != 0) throw Refused{"bad option '" + w[3] + "'"};
            frames = count(w[3].substr(7), StreamSender::maxFrames(ai.channels()), "frame count");
            if (frames == 0) throw Refused{"bad frame count '0'"};
        }
        sender.setPace(pace, frames);
        return "ok";
    }
    if (verb == "burst") {
        input(unit);
        need(w, 3, "burst SEL N");
        sender.burst(count(w[2], 1000000000, "frame count"));
        return "ok";
    }
    if (verb == "badlength") {
        const AnalogInput& ai = input(unit);
        const auto extra = w.size() > 2 ? count(w[2], 1000, "byte count") : 1;
        if (extra % (2 * static_cast<unsigned long long>(ai.channels())) == 0)
            throw Refused{"a whole number of frames is no bad length"};
        sender.torn(extra);
        return "ok";
    }
    if (verb == "stall" || verb == "guard") {
        input(unit);
        need(w, 3, "stall|guard SEL on|off");
        if (verb == "stall")
            sender.setStall(onOff(w[2]));
        else
            sender.setGuard(onOff(w[2]));
        return "ok";
    }
    if (verb == "ai") {
        const AnalogInput& ai = input(unit);
        const auto c = ai.counters();
        return "ok open=" + std::to_string(ai.isOpen()) + " mode=" + std::to_string(ai.mode()) +
               " rate=" + real(ai.rate()) + " samples=" + std::to_string(ai.samples()) +
               " running=" + std::to_string(ai.running()) + " port=" + std::to_string(ai.streamPort()) +
               " code=" + std::to_string(ai.streamCode()) + " conn=" + std::string(channelName(ai.streamChannel())) +
               " index=" + std::to_string(ai.index()) + " buffered=" + std::to_string(ai.buffered()) +
               " lost=" + std::to_string(ai.lost()) + " empty=" + std::to_string(c.empty) +
               " full=" + std::to_string(c.full) + " max=" + std::to_string(c.max) +
               " pace=" + (sender.pace() == StreamSender::Pace::Fast ? "fast" : "realtime") +
               " frames=" + std::to_string(sender.framesPerPayload()) + " stall=" + std::to_string(sender.stalled()) +
               " guard=" + std::to_string(sender.guarded()) + " burst=" + std::to_string(sender.burstLeft());
    }
    if (verb == "ao") {
        const AnalogOutput& ao = model(unit).ao();
        if (!ao.present()) throw Refused{"unit has no analog output"};
        std::string values, forms, amplitudes, offsets, periods;
        for (int ch = 0; ch < AnalogOutput::kChannels; ++ch) {
            const char* sep = ch ? "," : "";
            const auto& s = ao.shape(ch);
            values += sep + real(ao.value(ch));
            forms += sep + std::to_string(static_cast<int>(s.form));
            amplitudes += sep + real(s.amplitude);
            offsets += sep + real(s.offset);
            periods += sep + real(s.period);
        }
        char mask[8];
        std::snprintf(mask, sizeof mask, "0x%02x", ao.enabled());
        return "ok open=" + std::to_string(ao.isOpen()) + " running=" + std::to_string(ao.generating()) +
               " mode=" + std::to_string(ao.mode()) + " rate=" + real(ao.rate()) +
               " samples=" + std::to_string(ao.samples()) + " enabled=" + mask + " values=" + values +
               " forms=" + forms + " amplitudes=" + amplitudes + " offsets=" + offsets + " periods=" + periods;
    }
    return {};
}

}  // namespace

std::optional<std::string> analogControl(Unit& unit, const std::vector<std::string>& w) {
    static const std::set<std::string> kVerbs = {"wave", "pace", "burst", "badlength", "stall", "guard", "ai", "ao"};
    if (w.empty() || !kVerbs.count(w[0])) return std::nullopt;
    try {
        return execute(unit, w);
    } catch (const Refused& e) {
        return "err " + e.reason;
    }
}

std::string streamStats(Unit& unit) {
    const auto& s = unit.sender().stats();
    return " stream.frames=" + std::to_string(s.frames) + " stream.payloads=" + std::to_string(s.payloads) +
           " stream.nudges=" + std::to_string(s.nudges) + " stream.unclean=" + std::to_string(s.unclean);
}

}  // namespace sim
