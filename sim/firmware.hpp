// Firmware models: what a unit answers. One object per unit; handle() runs for every request the
// unit receives and returns the frames it answers with, on the link the request came from.
// Product models (pin modes, DIO registers, analog streams, UART/CAN loopback, ...) derive from
// Firmware as they are written; until a product has one it answers as EchoFirmware.
#pragma once

#include <memory>
#include <vector>

#include "frame.hpp"
#include "link.hpp"
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
};

// One reply per request under the request's code: [port, status 0], the port being the request's
// first payload byte ([0] for an empty request). Codes that start a stream are not answered (the
// host sends them without waiting), nor are discovery codes, which belong to UDP.
class EchoFirmware : public Firmware {
public:
    std::vector<Frame> handle(const Request& request) override;
};

std::unique_ptr<Firmware> makeFirmware(const torvik::products::Product& product);

}  // namespace sim
