#include "firmware/firmware.hpp"

#include "firmware/product.hpp"
#include "wire/commands.hpp"

namespace sim {

std::vector<Frame> EchoFirmware::handle(const Request& request) {
    namespace wire = torvik::wire;
    if (wire::isStreamingCommand(request.code) || wire::isBroadcastCommand(request.code)) return {};
    Frame reply{request.code, {}};
    if (request.payload.empty())
        reply.payload = {0};
    else
        reply.payload = {request.payload[0], 0};
    return {reply};
}

std::unique_ptr<Firmware> makeFirmware(const UnitIdentity& identity) {
    return std::make_unique<ProductFirmware>(identity);
}

}  // namespace sim
