// The relay counters of the relay unit: each relay (a pin of its digital output port, in pin
// order) counts the times it switched, on and off alike, for the unit's whole life (a restart or
// a factory reset keeps them). Switching is whatever the digital outputs do: the counters follow
// the levels the output pins drive, looked at after every request.
//
//   RELAY_READ [index]      [index, counter of relay index (u32)]; index 255: [255, every
//                           counter]; an index without a relay: [index] alone
//   RELAY_SAVE              [0, 0] (the counters are kept anyway)
#pragma once

#include <cstdint>
#include <vector>

#include "firmware/dio.hpp"
#include "firmware/reply.hpp"

namespace sim {

class RelayCounters {
public:
    static constexpr std::uint8_t kAll = 255;

    RelayCounters(const torvik::products::Product& product, const DigitalIo& dio);

    bool present() const { return !relays_.empty(); }
    static bool isRelayCode(std::uint16_t code);
    Bytes handle(std::uint16_t code, const Bytes& payload);

    // Counts the relays whose level changed since the last look.
    void observe();
    const std::vector<std::uint32_t>& counters() const { return counters_; }
    // False unless there is one value a relay.
    bool setCounters(const std::vector<std::uint32_t>& values);

private:
    bool level(PinRef p) const;

    const DigitalIo& dio_;
    std::vector<PinRef> relays_;
    std::vector<std::uint32_t> counters_;
    std::vector<bool> last_;
};

}  // namespace sim
