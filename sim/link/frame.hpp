// The unit's side of the wire framing.
//
// Host -> unit: 02, length (16 bits, big-endian) = payload bytes + 1 whatever the width of the code,
//               code (one byte, or two bytes high first), payload, 0D 0A.
// Unit -> host: 02, length = code bytes + payload bytes, code, payload, 0D 0A.
//
// The two length rules differ on purpose: the host counts the payload plus one, and its splitter
// insists that a frame it receives counts every code byte. Each side reads the code's width from
// the first code byte on the wire, so the unit picks its width from what the host will read back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "link/bytes.hpp"

namespace sim {

struct Frame {
    std::uint16_t code = 0;
    Bytes payload;
};

// Codes the host reads as one byte: it takes a first code byte above 48 for a whole code, so 48
// itself (and anything below, or above 255) must travel as two bytes.
constexpr bool travelsAsOneByte(unsigned code) { return code > 48 && code < 256; }

// One frame as the unit sends it. Payloads beyond what the length field can count are cut.
Bytes encodeUnitFrame(std::uint16_t code, std::span<const std::uint8_t> payload);

// Whether the host's splitter, given this frame alone, takes it as one frame from its first byte
// to its last. It would not when the payload holds a start byte whose length field happens to
// point at the frame's terminator (or an earlier 0D 0A): the host then takes that tail for a
// frame of its own and the reply is lost.
bool hostTakesWhole(std::span<const std::uint8_t> frame);

// Cuts the host's byte stream into requests. Bytes arrive in any slicing (torn across reads,
// several frames in one read); zero bytes between frames are padding (USB transfers are padded to
// 64 bytes) and are skipped without a count; anything else that is no frame is junk and counted.
//
// Width of the code: a first byte below 0x30 starts a two-byte code (all of them start with 0x1B
// or 0x20), above 0x30 it is the whole code. 0x30 itself is OPEN_CAN, which the host sends as one
// byte; a two-byte reading is accepted there too if only that one puts the terminator in place.
//
// Resynchronisation: a start byte whose length does not put 0D 0A in place is junk; the search
// goes on at the next byte. A start byte whose frame is still incomplete holds the stream back,
// unless a later start byte already heads a whole frame, which proves the earlier one false.
class RequestParser {
public:
    // Longest payload taken for a request; a larger length field marks a false start byte.
    static constexpr std::size_t kMaxPayload = 8192;

    // Appends `bytes` and returns every request they complete, in stream order.
    std::vector<Frame> feed(std::span<const std::uint8_t> bytes);

    // Non-zero bytes discarded so far.
    std::size_t junk() const { return junk_; }

private:
    enum class Fit { Whole, Incomplete, None };
    Fit fitAt(std::size_t pos, Frame* frame, std::size_t* end) const;
    void discard(std::size_t from, std::size_t to);

    Bytes buf_;
    std::size_t junk_ = 0;
};

}  // namespace sim
