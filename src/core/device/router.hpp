// Filing of received packets: by command code, and for stream and broadcast codes by the first
// payload bytes. One routine for every connection of a device.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>

#include "device/pools.hpp"

namespace torvik::device {

enum class CommandType { Streaming, Broadcast, Ignore, Echo };

// A payload too short for the byte the routing must read. It ends the receive thread that hit it.
struct RoutingError : std::out_of_range {
    RoutingError() : std::out_of_range("index out of range") {}
};

struct DataPools {
    std::shared_ptr<EchoPool> echo = std::make_shared<EchoPool>();
    std::shared_ptr<StreamPool> strm = std::make_shared<StreamPool>();
    std::shared_ptr<BcstPool> bcst = std::make_shared<BcstPool>();
};

// Throws RoutingError for an empty payload of a broadcast code.
CommandType checkCommandType(std::uint32_t cmd, std::span<const std::uint8_t> data);
// Throws RoutingError for an empty payload of a broadcast code or a UART stream frame; `data`
// is left as it was then.
void putToDataPool(DataPools& pools, std::uint32_t cmd, Bytes&& data);

}  // namespace torvik::device
