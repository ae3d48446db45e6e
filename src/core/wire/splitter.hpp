// Turns the received byte stream of one connection into (cmd, data) packets.
//
// A frame is 0x02, a signed big-endian 16-bit length, a command code of one or two bytes, the
// payload and 0x0D 0x0A. There is no checksum: a frame is recognised when the length field of a
// start byte points exactly at a terminator. Each terminator is taken in turn and the start bytes
// in front of it are tried nearest first; a terminator that no start byte fits is payload (or the
// end of a torn frame) and the search moves past it. Whatever stands in front of a recognised
// frame is dropped with it.
//
// Thread contract: one reader thread owns an instance (append and split); nothing here locks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace torvik::wire {

struct Packet {
    std::uint32_t cmd = 0;
    std::vector<std::uint8_t> data;
    bool operator==(const Packet&) const = default;
};

class FrameSplitter {
public:
    // Appends received bytes to the stream.
    void append(std::span<const std::uint8_t> bytes);
    // Consumes every frame recognisable now and returns them in stream order. Never fails.
    std::vector<Packet> split();
    // Same, appending to `out` (lets a reader reuse one vector).
    void splitInto(std::vector<Packet>& out);

    // The unconsumed bytes and the offset where the next terminator search starts. Both may be
    // replaced from outside (the Python layer exposes them); results stay those of a plain
    // rescan from that state.
    std::span<const std::uint8_t> stream() const { return {buf_.data() + head_, buf_.size() - head_}; }
    void setStream(std::span<const std::uint8_t> bytes);
    long long lastIndex() const { return last_index_; }
    void setLastIndex(long long index);

private:
    // Offset of the first 0x0D 0x0A at or after `from` in the stream, or -1.
    long long findTerminator(std::size_t from) const;
    // Offset of the start byte that fits the terminator at `crlf`, nearest first, or -1.
    long long findStart(std::size_t crlf) const;
    void consume(std::size_t count);

    std::vector<std::uint8_t> buf_;  // stream = buf_[head_, end): consumed bytes are dropped lazily
    std::size_t head_ = 0;
    long long last_index_ = 0;
    // No terminator starts in [last_index_, scanned_) of the stream: a search with an unchanged
    // last_index_ resumes at scanned_ instead of rescanning what earlier reads left behind.
    std::size_t scanned_ = 0;
};

}  // namespace torvik::wire
