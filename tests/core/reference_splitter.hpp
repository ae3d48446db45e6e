// A literal transcription of the framing algorithm, copies and all: the model that the engine's
// splitter must agree with on every stream (the GoogleTest suite and the fuzz target use it).
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "wire/splitter.hpp"

namespace torvik::testing {

using torvik::wire::Packet;

struct ReferenceSplitter {
    std::string stream;
    long long last_index = 0;

    static long long find(const std::string& s, const std::string& sub, long long start) {
        const long long n = static_cast<long long>(s.size());
        if (start < 0) start = std::max(start + n, 0LL);
        if (start > n) return -1;
        auto pos = s.find(sub, static_cast<std::size_t>(start));
        return pos == std::string::npos ? -1 : static_cast<long long>(pos);
    }

    std::vector<Packet> split() {
        std::vector<Packet> packets;
        if (stream.size() < 1) return packets;
        const std::string stx(1, '\x02'), crlf("\r\n");
        for (;;) {
            long long crlf_index = find(stream, crlf, last_index);
            if (crlf_index < 0) return packets;
            std::string reversed(stream.rend() - crlf_index - 1, stream.rend());
            long long r = 0, stx_index = -1;
            for (;;) {
                r = find(reversed, stx, r);
                if (r < 0) break;
                stx_index = static_cast<long long>(reversed.size()) - 1 - r;
                long long from_index = crlf_index - stx_index - 3;
                auto hi = static_cast<std::uint8_t>(stream[stx_index + 1]);
                auto lo = static_cast<std::uint8_t>(stream[stx_index + 2]);
                long long nominal = static_cast<std::int16_t>((hi << 8) | lo);
                if (from_index == nominal) break;
                r += 1;
            }
            if (r < 0) {
                last_index = crlf_index + 1;
                continue;
            }
            long long cmd_index = stx_index + 3;
            Packet p;
            auto byte = [&](long long i) { return static_cast<std::uint8_t>(stream[i]); };
            long long data_from;
            if (byte(cmd_index) > 48) {
                p.cmd = byte(cmd_index);
                data_from = cmd_index + 1;
            } else {
                p.cmd = (byte(cmd_index) << 8) | byte(cmd_index + 1);
                data_from = cmd_index + 2;
            }
            for (long long i = data_from; i < crlf_index; ++i) p.data.push_back(byte(i));
            packets.push_back(p);
            stream = stream.substr(crlf_index + 2);
            last_index = 0;
        }
    }
};

}  // namespace torvik::testing
