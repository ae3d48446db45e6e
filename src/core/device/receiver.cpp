#include "device/receiver.hpp"

#include <algorithm>
#include <thread>

namespace torvik::device {

std::chrono::nanoseconds backoff(unsigned failures) {
    if (failures < 2) return std::chrono::nanoseconds::zero();
    return std::chrono::milliseconds(failures >= 8 ? 50 : std::min(50, 1 << (failures - 2)));
}

void runReceiveLoop(DeviceCore& core, Gate& gate, const ClientSlot& slot, const ReadFn& read,
                    const ReadErrorFn& onReadError) {
    std::vector<wire::Packet> packets;
    unsigned failures = 0;
    while (!core.killed.load()) {
        gate.pass();
        std::unique_lock<std::mutex> hold;
        try {
            auto client = slot.get();
            if (!client) throw AbsentClient();
            packets = read(*client, hold);
            failures = 0;
        } catch (...) {
            if (hold.owns_lock()) hold.unlock();
            auto pause = onReadError(std::current_exception(), ++failures);
            if (pause > std::chrono::nanoseconds::zero() && !core.killed.load()) std::this_thread::sleep_for(pause);
            continue;
        }
        for (auto& p : packets) putToDataPool(core.pools, p.cmd, std::move(p.data));
    }
}

}  // namespace torvik::device
