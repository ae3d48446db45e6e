// A thread that blocks for a reply and reads the connection it comes on itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "device/gate.hpp"
#include "device/router.hpp"
#include "transport/network_client.hpp"

namespace torvik::device {

// Takes the reply of `code` from `pools.echo` as EchoPool::takeWaiting does, but while it waits
// it reads the connection of `taker` itself and files what comes into `pools` as the receive
// thread would, so that the reply's arrival wakes this thread directly. The taker is made before
// the request goes out: from then on the receive thread leaves the reply to it. It does not read
// while a script holds `gate` (the receive thread's), nor where its client cannot be read this
// way; it then waits for the receive thread's filing alone.
std::optional<Bytes> takeReading(DataPools& pools, std::uint32_t code, std::optional<std::chrono::nanoseconds> limit,
                                 AwaitedReply* announced, transport::NetworkClient::Taker& taker, const Gate& gate);

}  // namespace torvik::device
