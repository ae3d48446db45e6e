// What a unit sees of its host: links, byte pipes on a channel. Today a link is one accepted TCP
// connection; a USB unit will have one link on the command channel made of its two endpoints.
// Transports call LinkEvents; the unit answers through Link. All on the event loop's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace sim {

// The command channel carries requests and replies; the data channel (Wi-Fi units) is the second
// TCP connection, on which the host only listens. Discovery broadcasts come over UDP, outside any
// link (the traffic log names them so).
enum class Channel { Cmd, Data, Udp };

constexpr std::string_view channelName(Channel c) { return c == Channel::Cmd ? "cmd" : c == Channel::Data ? "data" : "udp"; }

class Link {
public:
    virtual ~Link() = default;
    // 1 for the first link ever made on this unit's channel, 2 for the next, ...
    virtual std::uint64_t id() const = 0;
    virtual Channel channel() const = 0;
    // False once finish() was asked for: bytes sent afterwards are thrown away.
    virtual bool writable() const = 0;
    // Queues bytes, in order, without blocking.
    virtual void send(std::span<const std::uint8_t> bytes) = 0;
    // Bytes queued that the host has not taken yet; a stream waits for 0 before it sends more.
    virtual std::size_t backlog() const { return 0; }
    // Ends what the unit sends once the queue is out (a FIN); the host's bytes are still read.
    virtual void finish() = 0;
    // Drops the link at once, queued bytes included (a RST); linkClosed follows.
    virtual void abort() = 0;
};

class LinkEvents {
public:
    virtual ~LinkEvents() = default;
    virtual void linkOpened(Link& link) = 0;
    virtual void linkReceived(Link& link, std::span<const std::uint8_t> bytes) = 0;
    // The link is gone (host closed, reset, or abort()); it is destroyed after this round.
    virtual void linkClosed(Link& link) = 0;
    // The link's backlog went down to 0 (it had grown above it).
    virtual void linkDrained(Link& /*link*/) {}
};

}  // namespace sim
