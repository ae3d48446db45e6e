// Where a unit's links come from on one channel: a listening TCP port now, the emulated USB
// device later (one link on the command channel while the host has it open).
#pragma once

#include <cstdint>
#include <vector>

#include "link.hpp"

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
};

}  // namespace sim
