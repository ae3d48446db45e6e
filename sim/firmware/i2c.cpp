#include "firmware/i2c.hpp"

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;
namespace products = torvik::products;

I2c::I2c(const products::Product& product) {
    for (const auto& [number, cells] : products::parsePortTable(product.i2c)) {
        Port p;
        p.number = number;
        for (const auto& c : cells) p.pins.push_back({c.hw_port, c.pin});
        ports_.push_back(std::move(p));
    }
}

bool I2c::isI2cCode(std::uint16_t code) { return code >= wire::OPEN_I2C && code <= wire::SET_I2C_ADDR_SIZE; }

I2c::Port* I2c::port(int number) {
    for (auto& p : ports_)
        if (p.number == number) return &p;
    return nullptr;
}

Bytes I2c::handle(std::uint16_t code, const Bytes& in) {
    const std::uint8_t n = portOf(in);
    Port* p = in.empty() ? nullptr : port(n);
    if (!p || (!p->open && code != wire::OPEN_I2C && code != wire::CLOSE_I2C)) {
        if (code == wire::WRITE_I2C) return Bytes{n, in.size() > 1 ? in[1] : std::uint8_t{0}, 0, kI2cError};
        if (code == wire::READ_I2C) return Bytes{n, kI2cError, 0};
        return portStatus(n, kI2cError);
    }
    Eeprom& e = p->eeprom;
    switch (code) {
    case wire::OPEN_I2C: p->open = true; return portStatus(n, kOk);
    case wire::CLOSE_I2C: p->open = false; return portStatus(n, kOk);
    case wire::RESET_I2C: return portStatus(n, kOk);
    case wire::SET_I2C_FREQUENCY: {
        if (in.size() != 5) return portStatus(n, kI2cError);
        const std::uint32_t f = u32At(in, 1);
        if (f == 0 || f > 3400000) return portStatus(n, kI2cError);
        p->frequency = f;
        return portStatus(n, kOk);
    }
    case wire::SET_I2C_ADDR_SIZE:
        if (in.size() != 2 || in[1] > 1) return portStatus(n, kI2cError);
        p->address_size = in[1];
        return portStatus(n, kOk);
    case wire::WRITE_I2C: {
        if (in.size() < 3 || in.size() != 3u + in[2]) return Bytes{n, in.size() > 1 ? in[1] : std::uint8_t{0}, 0, kI2cError};
        Bytes out{n, in[1], in[2], kOk};
        if (e.silent || in[1] != e.address) {
            ++p->nacks;
            out[3] = kI2cError;
            return out;
        }
        std::size_t at = 3;
        const std::size_t k = e.addressBytes();
        if (in.size() - at >= k) {  // fewer bytes than an address: nothing happens
            std::size_t addr = 0;
            for (std::size_t i = 0; i < k; ++i) addr = addr << 8 | in[at++];
            e.pointer = addr % e.memory.size();
            const std::size_t page_start = e.pointer - e.pointer % e.page;
            for (; at < in.size(); ++at) {
                e.memory[e.pointer] = in[at];
                e.pointer = page_start + (e.pointer + 1 - page_start) % e.page;
            }
        }
        return out;
    }
    case wire::READ_I2C: {
        if (in.size() != 3) return Bytes{n, kI2cError, 0};
        if (e.silent || in[1] != e.address) {
            ++p->nacks;
            return Bytes{n, kI2cError, 0};
        }
        Bytes out{n, kOk, in[2]};
        for (int i = 0; i < in[2]; ++i) {
            out.push_back(e.memory[e.pointer]);
            e.pointer = (e.pointer + 1) % e.memory.size();
        }
        return out;
    }
    default: return portStatus(n, 23);
    }
}

void I2c::reset() {
    for (auto& p : ports_) {
        p.open = false;
        p.frequency = 100000;
        p.address_size = 0;
    }
}

void I2c::clearFaults() {
    for (auto& p : ports_) p.eeprom.silent = false;
}

}  // namespace sim
