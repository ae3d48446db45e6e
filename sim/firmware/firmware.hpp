// Firmware models: what a unit answers. One object per unit; handle() runs for every request the
// unit receives and returns the frames it answers with, on the link the request came from.
// makeFirmware gives every product its model (ProductFirmware, firmware/product.hpp); the echo
// firmware stays for tests of framing and fault injection, which want every code answered alike.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "link/frame.hpp"
#include "link/link.hpp"
#include "products/products.hpp"

namespace sim {

struct Request {
    std::uint16_t code;
    Bytes payload;
    Channel channel;
};

class Firmware {
public:
    virtual ~Firmware() = default;
    virtual std::vector<Frame> handle(const Request& request) = 0;
    // Where the status byte stands in a reply to `code`, for faults that answer with a status.
    virtual std::size_t statusIndex(std::uint16_t /*code*/) const { return 1; }

    // A discovery broadcast the unit heard (network units, over UDP): the payload of its answer,
    // or nothing. A unit told to take another address calls `move` with it (host byte order),
    // which is false if the emulator cannot listen there.
    using Mover = std::function<bool(std::uint32_t ipv4)>;
    virtual std::optional<Bytes> broadcast(std::uint16_t /*code*/, const Bytes& /*payload*/, const Mover& /*move*/) {
        return std::nullopt;
    }
};

// One reply per request under the request's code: [port, status 0], the port being the request's
// first payload byte ([0] for an empty request). Codes that start a stream are not answered (the
// host sends them without waiting), nor are discovery codes, which belong to UDP.
class EchoFirmware : public Firmware {
public:
    std::vector<Frame> handle(const Request& request) override;
};

// Who a unit is, as far as its firmware knows.
struct UnitIdentity {
    const torvik::products::Product* product = nullptr;
    std::string serial;
    std::uint32_t ipv4 = 0;  // host byte order; 0 for a USB unit
};

std::unique_ptr<Firmware> makeFirmware(const UnitIdentity& identity);

}  // namespace sim
