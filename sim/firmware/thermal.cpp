#include "firmware/thermal.hpp"

#include <cmath>
#include <limits>
#include <numbers>

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;
namespace products = torvik::products;

namespace {

// Where a new unit's sensors start: a room, a little warmer on the second channel.
constexpr double kRoom = 22.5, kSecondChannel = 3.0, kJunction = 24.0, kDrift = 0.25;
constexpr std::uint8_t kTypeK = 3;

// Fault register bits as each kind of chip reports them.
constexpr std::uint8_t kTcOpen = 0x01, kRtdOpen = 0x80;
constexpr std::uint8_t kModeRtd = 1, kModeTc = 2;

}  // namespace

Thermal::Thermal(const products::Product& product, UnitClock::Now now) : now_(std::move(now)) {
    thermocouple_ = !product.tc.empty();
    for (const auto& [port, cells] : products::parsePortTable(thermocouple_ ? product.tc : product.rd)) {
        ports_.push_back(port);
        std::vector<PinRef> refs;
        for (const auto& c : cells) refs.push_back(PinRef{c.hw_port, c.pin});
        pins_.push_back(std::move(refs));
    }
    open_.assign(ports_.size(), false);
    sensors_.resize(ports_.size());
    for (auto& port : sensors_) {
        for (std::size_t c = 0; c < port.size(); ++c) {
            setTemperature(port[c], kRoom + kSecondChannel * static_cast<double>(c), kDrift);
            port[c].junction = kJunction;
        }
    }
    factoryReset();
}

bool Thermal::isThermalCode(std::uint16_t code) { return code >= wire::OPEN_THERMAL && code <= wire::SAVE_THERMAL_OFFSET; }

std::size_t Thermal::statusIndex(std::uint16_t code) {
    return code == wire::OPEN_THERMAL || code == wire::CLOSE_THERMAL ? 1 : 2;
}

bool Thermal::isPort(int port) const {
    for (int p : ports_)
        if (p == port) return true;
    return false;
}

std::vector<PinRef> Thermal::pins(int port) const {
    for (std::size_t i = 0; i < ports_.size(); ++i)
        if (ports_[i] == port) return pins_[i];
    return {};
}

bool Thermal::isOpen(int port) const {
    for (std::size_t i = 0; i < ports_.size(); ++i)
        if (ports_[i] == port) return open_[i];
    return false;
}

Thermal::Sensor* Thermal::sensor(int port, int channel) {
    if (channel < 0 || channel >= kChannels) return nullptr;
    for (std::size_t i = 0; i < ports_.size(); ++i)
        if (ports_[i] == port) return &sensors_[i][static_cast<std::size_t>(channel)];
    return nullptr;
}

double Thermal::temperatureNow(const Sensor& s) const {
    if (s.drift == 0) return s.temperature;
    const double t = std::chrono::duration<double>(now_() - s.set_at).count();
    const double period = std::chrono::duration<double>(kDriftPeriod).count();
    return s.temperature + s.drift * std::sin(2 * std::numbers::pi * t / period);
}

void Thermal::setTemperature(Sensor& s, double temperature, double drift) {
    s.temperature = temperature;
    s.drift = drift;
    s.set_at = now_();
}

float Thermal::reading(const Sensor& s) const {
    if (s.open_circuit) return std::numeric_limits<float>::quiet_NaN();
    double t = temperatureNow(s);
    // The chip adds the junction temperature it uses to what the couple measures against the real one.
    if (thermocouple_ && !s.junction_on) t += s.written_junction - s.junction;
    return static_cast<float>(t + s.offset);
}

void Thermal::reset() {
    open_.assign(ports_.size(), false);
    for (auto& port : sensors_)
        for (auto& s : port) s.offset = s.saved_offset;
}

void Thermal::factoryReset() {
    // What the unit stores is reset; the sensors' surroundings stay as they are.
    for (auto& port : sensors_) {
        for (auto& s : port) {
            s.junction_on = true;
            s.written_junction = 0;
            s.offset = s.saved_offset = 0;
            s.filter = s.oversampling = 0;
            s.type = thermocouple_ ? kTypeK : 0;
        }
    }
    reset();
}

Bytes Thermal::handle(std::uint16_t code, const Bytes& in) {
    const std::uint8_t port = portOf(in);
    if (code == wire::OPEN_THERMAL || code == wire::CLOSE_THERMAL) {
        if (in.size() != 1) return portStatus(port, kCommandsError);
        if (!isPort(port)) return portStatus(port, kThermalError);
        for (std::size_t i = 0; i < ports_.size(); ++i)
            if (ports_[i] == port) open_[i] = code == wire::OPEN_THERMAL;
        return portStatus(port, kOk);
    }
    return channelCommand(code, in);
}

Bytes Thermal::channelCommand(std::uint16_t code, const Bytes& in) {
    const std::uint8_t port = portOf(in);
    const std::uint8_t channel = in.size() > 1 ? in[1] : 0;
    auto status = [&](std::uint8_t s) { return Bytes{port, channel, s}; };
    auto value = [&](float v) {
        Bytes out{port, channel};
        putF32(out, v);
        return out;
    };

    std::size_t size = 2;
    switch (code) {
    case wire::SET_THERMAL_NOISE_FILTER:
    case wire::SET_THERMAL_OVER_SAMPLING:
    case wire::SET_THERMAL_TYPE:
    case wire::GET_THERMAL_STATUS:
    case wire::SET_THERMAL_JUNCTION_ON: size = 3; break;
    case wire::WRITE_THERMAL_OFFSET:
    case wire::WRITE_THERMAL_JUNCTION:
    case wire::SAVE_THERMAL_OFFSET: size = 6; break;
    default: break;
    }
    const bool tc_only = code == wire::SET_THERMAL_OVER_SAMPLING || code == wire::READ_THERMAL_JUNCTION ||
                         code == wire::WRITE_THERMAL_JUNCTION || code == wire::SET_THERMAL_JUNCTION_ON;
    if (in.size() != size || (tc_only && !thermocouple_)) return status(kCommandsError);
    if (!isPort(port)) return status(kThermalError);
    Sensor* s = sensor(port, channel);
    if (!s) return status(kCommandsError);
    if (!isOpen(port)) return status(kNotEnabled);

    const std::uint8_t arg = size == 3 ? in[2] : 0;
    switch (code) {
    case wire::SET_THERMAL_NOISE_FILTER:
        if (arg > 1) return status(kThermalError);
        s->filter = arg;
        return status(kOk);
    case wire::SET_THERMAL_OVER_SAMPLING:
        if (arg > 4) return status(kThermalError);
        s->oversampling = arg;
        return status(kOk);
    case wire::SET_THERMAL_TYPE:
        if (arg > (thermocouple_ ? 7 : 1)) return status(kThermalError);
        s->type = arg;
        return status(kOk);
    case wire::GET_THERMAL_STATUS:
        if (arg != (thermocouple_ ? kModeTc : kModeRtd)) return status(kCommandsError);
        return status(static_cast<std::uint8_t>(s->faults | (s->open_circuit ? (thermocouple_ ? kTcOpen : kRtdOpen) : 0)));
    case wire::SET_THERMAL_JUNCTION_ON:
        if (arg > 1) return status(kThermalError);
        s->junction_on = arg == 1;
        return status(kOk);
    case wire::READ_THERMAL_COUPLE: return value(reading(*s));
    case wire::READ_THERMAL_JUNCTION: return value(s->junction_on ? static_cast<float>(s->junction) : s->written_junction);
    case wire::WRITE_THERMAL_JUNCTION: s->written_junction = f32At(in, 2); return status(kOk);
    case wire::READ_THERMAL_OFFSET: return value(s->offset);
    case wire::WRITE_THERMAL_OFFSET: s->offset = f32At(in, 2); return status(kOk);
    case wire::LOAD_THERMAL_OFFSET: s->offset = s->saved_offset; return value(s->offset);
    case wire::SAVE_THERMAL_OFFSET: s->saved_offset = f32At(in, 2); return status(kOk);
    default: return status(kCommandsError);
    }
}

}  // namespace sim
