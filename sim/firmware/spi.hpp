// The SPI ports of a unit (products with an spi table), each a master with one device selected
// on its wires. Requests start with the port; replies are [port, status], status 6 when refused
// (no such port, port closed, bad setting).
//
//   OPEN_SPI, CLOSE_SPI  the pins go into SPI mode and back (ProductFirmware sees to them);
//                        every other request wants the port open
//   WRITE_SPI            [port, n, n bytes] -> [port, n, status]
//   READ_SPI             [port, n] -> [port, status, n bytes]: the master clocks out zeros
//   READ_AND_WRITE_SPI   [port, n, n bytes] -> [port, status, n bytes]: what came back on MISO
//   RESET_SPI            [port, 0]; SET_SPI_DATA_SIZE, SET_SPI_FIRST_BIT 0..1;
//                        SET_SPI_PRESCALER i16 2, 4, ... 256; SET_SPI_CPOL, SET_SPI_CPHA 0..1
//
// The device: a loopback (MISO echoes MOSI, byte for byte, in the same transfer), or one that
// answers a fixed pattern (repeated, from its start at each transfer). A silent device leaves
// MISO to its pull-up: 0xFF bytes. SPI has no acknowledge, so writes succeed all the same.
#pragma once

#include <cstdint>
#include <vector>

#include "firmware/pins.hpp"
#include "firmware/reply.hpp"

namespace sim {

class Spi {
public:
    static constexpr std::uint8_t kSpiError = 6;

    struct Port {
        int number = 0;
        std::vector<PinRef> pins;
        bool open = false;
        std::uint8_t data_size = 0, first_bit = 0, cpol = 0, cpha = 0;
        std::uint16_t prescaler = 2;
        Bytes pattern;  // empty: the loopback
        bool silent = false;
        Bytes mosi;     // what the last transfer clocked out
        std::uint64_t transfers = 0;
    };

    explicit Spi(const torvik::products::Product& product);

    bool present() const { return !ports_.empty(); }
    static bool isSpiCode(std::uint16_t code);
    Port* port(int number);

    Bytes handle(std::uint16_t code, const Bytes& payload);
    void reset();
    void clearFaults();

private:
    // One transfer: MOSI out, MISO back.
    Bytes transfer(Port& p, const Bytes& mosi);

    std::vector<Port> ports_;
};

}  // namespace sim
