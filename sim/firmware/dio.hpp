// Digital I/O of a unit: per port the registers enabled, direction and state (bit n is pin n),
// the levels the output pins drive, the levels on the input pins, and the start-up values kept
// in the unit's EEPROM. A digital port is the hardware port of the same number; which pins may be
// inputs or outputs is what the product's di/do tables say.
//
// The state register holds the levels of the outputs as set, and of the inputs as last read.
// Setting it (SET_DIO_STATE) does not drive the pins; WRITE_DO does, and so do the commands
// that set the values in force (SET_DIO_CURRENT, TOGGLE_DIO_DIR, SET_SLOT_DO) or set and write at
// once. READ_DI samples the inputs into the register.
//
// Loopback wiring joins two pins. An input pin joined to a pin that drives as an output reads that
// output's level; any other input pin reads the level given for it (low unless set). Wires have
// no direction, so the pins of the 3.3 V family, which go either way, loop in both directions.
// Default wiring, so that a loopback shows real values out of the box:
//   - inputs and outputs on different ports (LAN units, USB sink): the k-th output port is wired
//     to the k-th input port, pin n to pin n where both have pin n (TorvikLanLogic: DO 0.0-0.5 to
//     DI 1.0-1.5; TorvikUsbSink: DO 2.0-2.7 to DI 0.0-0.7 and DO 3.0-3.3 to DI 1.0-1.3);
//   - pins that go either way (3.3 V family): ports 0 and 1, and 2 and 3, pin n to pin n.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <vector>

#include "firmware/pins.hpp"
#include "firmware/reply.hpp"

namespace sim {

struct DioRegisters {
    std::uint16_t enabled = 0, direction = 0, state = 0;
    std::uint16_t driven = 0;  // levels the enabled outputs put on their pins
    std::uint16_t levels = 0;  // levels on the pins when nothing wired drives them
    std::uint16_t start_enabled = 0, start_direction = 0, start_state = 0;
};

class DigitalIo {
public:
    static constexpr int kPorts = 16;

    DigitalIo(const torvik::products::Product& product, PinBoard& board);

    // False for a product without digital tables: its firmware knows no digital command.
    bool present() const { return present_; }
    static bool isDioCode(std::uint16_t code);
    // The reply to a digital command.
    Bytes handle(std::uint16_t code, const Bytes& payload);

    // Mode of a pin that no function holds: DI or DO when enabled, else Idle.
    PinMode freeMode(PinRef p) const;
    bool isPort(int port) const { return port >= 0 && port < kPorts && (inputs_[port] | outputs_[port]) != 0; }
    bool canInput(PinRef p) const { return isPort(p.port) && (inputs_[p.port] >> p.pin & 1); }
    bool canOutput(PinRef p) const { return isPort(p.port) && (outputs_[p.port] >> p.pin & 1); }
    const DioRegisters& registers(int port) const { return regs_[static_cast<std::size_t>(port)]; }

    // A function took the pin, or a test set its mode: its digital registers let go of it.
    void release(PinRef p);
    // Opens a pin as input (output = false) or output, driving low.
    void open(PinRef p, bool output);
    // The levels of the pins in `mask` when nothing wired drives them.
    void setLevels(int port, std::uint16_t mask, std::uint16_t levels);
    // The level an input pin reads now.
    bool levelAt(PinRef p) const;

    using Wire = std::pair<PinRef, PinRef>;
    std::vector<Wire> wiring() const;  // each wire once, lower pin first, in order
    // Fails (false) unless both pins are digital pins of the unit and distinct. A pin carries one
    // wire: joining it again replaces its old wire.
    bool join(PinRef a, PinRef b);
    void clearWiring() { wires_.clear(); }
    void defaultWiring();

    // The unit restarts: the start-up values come into force.
    void reboot();
    // Back to the factory: start-up values zero, everything released.
    void factoryReset();

private:
    Bytes refuse(std::uint8_t port, std::uint8_t status = kDioError) const { return portStatus(port, status); }
    std::uint16_t pins(int port) const { return inputs_[port] | outputs_[port]; }
    std::uint16_t outputsOpen(int port) const { return regs_[port].enabled & regs_[port].direction; }
    std::uint16_t inputsOpen(int port) const { return regs_[port].enabled & ~regs_[port].direction; }
    void sample(int port, std::uint16_t mask);
    void drive(int port) { regs_[port].driven = regs_[port].state & outputsOpen(port); }

    bool present_ = false;
    PinBoard& board_;
    std::array<std::uint16_t, kPorts> inputs_{}, outputs_{};
    std::array<DioRegisters, kPorts> regs_{};
    std::map<PinRef, PinRef> wires_;  // both ends of each wire
};

}  // namespace sim
