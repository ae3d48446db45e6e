// Where a unit's links come from on one channel: a listening TCP port, or an emulated USB device
// (one link for each time the host opens the device).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "link/bytes.hpp"
#include "link/link.hpp"

namespace sim {

class Transport {
public:
    virtual ~Transport() = default;
    virtual Channel channel() const = 0;
    virtual Link* find(std::uint64_t id) const = 0;
    // The most recently made link that can still send, or none.
    virtual Link* newest() const = 0;
    virtual std::vector<Link*> links() const = 0;  // every link not yet closed, oldest first
    virtual std::uint64_t accepted() const = 0;    // links made in all
    virtual std::size_t open() const = 0;          // links not yet closed

    // USB only (false or empty elsewhere). Takes the device off the bus or puts it back at a new
    // address; false if it already was so.
    virtual bool setPlugged(bool) { return false; }
    virtual bool plugged() const { return false; }
    // Extra " key=value" fields for the stats line.
    virtual std::string statsFields() const { return {}; }
    // The host's OUT transfers as they arrived, oldest first (the latest few hundred).
    virtual std::vector<Bytes> transfers() const { return {}; }
    virtual void clearTransfers() {}
};

// The queries of a Transport over its owned links, oldest first.
template <typename Owned>
Link* findLink(const std::vector<Owned>& links, std::uint64_t id) {
    for (auto& l : links)
        if (l->id() == id) return l.get();
    return nullptr;
}

template <typename Owned>
Link* newestWritable(const std::vector<Owned>& links) {
    for (auto it = links.rbegin(); it != links.rend(); ++it)
        if ((*it)->writable()) return it->get();
    return nullptr;
}

template <typename Owned>
std::vector<Link*> linkList(const std::vector<Owned>& links) {
    std::vector<Link*> out;
    for (auto& l : links) out.push_back(l.get());
    return out;
}

// What a USB unit looks like on the bus.
struct UsbDeviceConfig {
    std::string serial;
    std::string product;     // product string descriptor
    bool interrupt = false;  // interrupt endpoints instead of bulk ones
};

// The emulated USB bus that USB units plug into.
class DeviceBus {
public:
    virtual ~DeviceBus() = default;
    // Plugs a device in for a unit; the transport unplugs it when destroyed.
    virtual std::unique_ptr<Transport> plug(LinkEvents& events, const UsbDeviceConfig& config) = 0;
};

}  // namespace sim
