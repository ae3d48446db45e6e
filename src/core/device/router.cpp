#include "device/router.hpp"

#include "wire/commands.hpp"

namespace torvik::device {

using namespace torvik::wire;

CommandType checkCommandType(std::uint32_t cmd, std::span<const std::uint8_t> data) {
    if (isStreamingCommand(cmd)) return CommandType::Streaming;
    if (isBroadcastCommand(cmd)) {
        if (data.empty()) throw RoutingError();
        return data[0] == 1 ? CommandType::Broadcast : CommandType::Ignore;
    }
    return CommandType::Echo;
}

void putToDataPool(DataPools& pools, std::uint32_t cmd, Bytes&& data) {
    switch (checkCommandType(cmd, data)) {
        case CommandType::Streaming: {
            StreamKey key{cmd, std::nullopt};
            StreamItem item;
            switch (cmd) {
                case START_UART_READING:
                    if (data.empty()) throw RoutingError();
                    key.port = data[0];
                    [[fallthrough]];
                case START_AI_STREAMING:
                case START_AI_STREAMING_VARIABLE:
                case START_CAN:
                    // Bytes 0 and 1 are the port and a byte nobody reads.
                    item.bytes.assign(data.begin() + std::min<std::size_t>(2, data.size()), data.end());
                    break;
                default:
                    item.bytes = std::move(data);
            }
            pools.strm->at(key)->putData(std::move(item));
            return;
        }
        case CommandType::Echo:
            pools.echo->put(cmd, std::move(data));
            return;
        case CommandType::Broadcast:
            pools.bcst->at(cmd)->add(Bytes(data.begin() + 1, data.end()));
            return;
        case CommandType::Ignore:
            return;
    }
}

}  // namespace torvik::device
