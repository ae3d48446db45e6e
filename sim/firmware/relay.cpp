#include "firmware/relay.hpp"

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;
namespace products = torvik::products;

RelayCounters::RelayCounters(const products::Product& product, const DigitalIo& dio) : dio_(dio) {
    // The relay unit's outputs are relays; other units' outputs are plain drivers.
    if (product.class_name != "TorvikLanRelay") return;
    for (const auto& [port, cells] : products::parsePortTable(product.do_))
        for (const auto& c : cells) relays_.push_back(PinRef{port, c.pin});
    counters_.assign(relays_.size(), 0);
    for (PinRef p : relays_) last_.push_back(level(p));
}

bool RelayCounters::isRelayCode(std::uint16_t code) { return code == wire::RELAY_READ || code == wire::RELAY_SAVE; }

bool RelayCounters::level(PinRef p) const { return dio_.registers(p.port).driven >> p.pin & 1; }

void RelayCounters::observe() {
    for (std::size_t i = 0; i < relays_.size(); ++i) {
        const bool now = level(relays_[i]);
        if (now != last_[i]) ++counters_[i];
        last_[i] = now;
    }
}

bool RelayCounters::setCounters(const std::vector<std::uint32_t>& values) {
    if (values.size() != counters_.size()) return false;
    counters_ = values;
    return true;
}

Bytes RelayCounters::handle(std::uint16_t code, const Bytes& in) {
    if (code == wire::RELAY_SAVE) return portStatus(0, kOk);
    if (in.size() != 1) return Bytes{portOf(in)};
    const std::uint8_t index = in[0];
    Bytes out{index};
    if (index == kAll) {
        for (std::uint32_t c : counters_) putU32(out, c);
    } else if (index < counters_.size()) {
        putU32(out, counters_[index]);
    }
    return out;
}

}  // namespace sim
