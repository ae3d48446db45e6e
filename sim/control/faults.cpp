#include "control/faults.hpp"

namespace sim {

const std::optional<Bytes>* Faults::scripted(std::uint16_t code) const {
    auto it = scripted_.find(code);
    return it == scripted_.end() ? nullptr : &it->second;
}

void Faults::clearStatus() {
    status_next_ = {0, 0};
    status_by_code_.clear();
}

static void setStatus(Frame& reply, std::uint8_t status, std::size_t index) {
    if (reply.payload.size() <= index) reply.payload.resize(index + 1, 0);
    reply.payload[index] = status;
}

Shaping Faults::shape(Frame& reply, std::size_t status_index) {
    Shaping s;
    if (drop_next_ > 0) {
        --drop_next_;
        s.drop = true;
        return s;
    }
    if (status_next_.second > 0) {
        --status_next_.second;
        setStatus(reply, status_next_.first, status_index);
    } else if (auto it = status_by_code_.find(reply.code); it != status_by_code_.end()) {
        setStatus(reply, it->second, status_index);
    }
    if (dup_next_ > 0) {
        --dup_next_;
        s.copies = 2;
    }
    if (delay_next_.second > 0) {
        --delay_next_.second;
        s.delay = delay_next_.first;
    } else {
        s.delay = delay_all_;
    }
    return s;
}

}  // namespace sim
