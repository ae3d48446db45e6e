#include "firmware/spi.hpp"

#include "wire/commands.hpp"

namespace sim {

namespace wire = torvik::wire;
namespace products = torvik::products;

Spi::Spi(const products::Product& product) {
    for (const auto& [number, cells] : products::parsePortTable(product.spi)) {
        Port p;
        p.number = number;
        for (const auto& c : cells) p.pins.push_back({c.hw_port, c.pin});
        ports_.push_back(std::move(p));
    }
}

bool Spi::isSpiCode(std::uint16_t code) { return code >= wire::OPEN_SPI && code <= wire::SET_SPI_CPHA; }

Spi::Port* Spi::port(int number) {
    for (auto& p : ports_)
        if (p.number == number) return &p;
    return nullptr;
}

Bytes Spi::transfer(Port& p, const Bytes& mosi) {
    ++p.transfers;
    p.mosi = mosi;
    Bytes miso(mosi.size(), 0xFF);
    if (p.silent) return miso;
    for (std::size_t i = 0; i < mosi.size(); ++i) miso[i] = p.pattern.empty() ? mosi[i] : p.pattern[i % p.pattern.size()];
    return miso;
}

Bytes Spi::handle(std::uint16_t code, const Bytes& in) {
    const std::uint8_t n = portOf(in);
    Port* p = in.empty() ? nullptr : port(n);
    const bool counted = code == wire::WRITE_SPI || code == wire::READ_AND_WRITE_SPI;
    const bool sized = counted && in.size() >= 2 && in.size() == 2u + in[1];
    auto refused = [&] {
        if (code == wire::WRITE_SPI) return Bytes{n, in.size() > 1 ? in[1] : std::uint8_t{0}, kSpiError};
        return portStatus(n, kSpiError);
    };
    if (!p || (!p->open && code != wire::OPEN_SPI && code != wire::CLOSE_SPI) || (counted && !sized)) return refused();
    auto setting = [&](std::uint8_t& field, std::uint8_t max) {
        if (in.size() != 2 || in[1] > max) return refused();
        field = in[1];
        return portStatus(n, kOk);
    };
    switch (code) {
    case wire::OPEN_SPI: p->open = true; return portStatus(n, kOk);
    case wire::CLOSE_SPI: p->open = false; return portStatus(n, kOk);
    case wire::RESET_SPI: return portStatus(n, kOk);
    case wire::WRITE_SPI:
        transfer(*p, Bytes(in.begin() + 2, in.end()));
        return Bytes{n, in[1], kOk};
    case wire::READ_SPI: {
        if (in.size() != 2) return refused();
        Bytes out{n, kOk};
        const Bytes miso = transfer(*p, Bytes(in[1], 0));
        out.insert(out.end(), miso.begin(), miso.end());
        return out;
    }
    case wire::READ_AND_WRITE_SPI: {
        Bytes out{n, kOk};
        const Bytes miso = transfer(*p, Bytes(in.begin() + 2, in.end()));
        out.insert(out.end(), miso.begin(), miso.end());
        return out;
    }
    case wire::SET_SPI_DATA_SIZE: return setting(p->data_size, 1);
    case wire::SET_SPI_FIRST_BIT: return setting(p->first_bit, 1);
    case wire::SET_SPI_CPOL: return setting(p->cpol, 1);
    case wire::SET_SPI_CPHA: return setting(p->cpha, 1);
    case wire::SET_SPI_PRESCALER: {
        if (in.size() != 3) return refused();
        const std::uint16_t v = u16At(in, 1);
        if (v < 2 || v > 256 || (v & (v - 1))) return refused();
        p->prescaler = v;
        return portStatus(n, kOk);
    }
    default: return portStatus(n, 23);
    }
}

void Spi::reset() {
    for (auto& p : ports_) {
        p.open = false;
        p.data_size = p.first_bit = p.cpol = p.cpha = 0;
        p.prescaler = 2;
    }
}

void Spi::clearFaults() {
    for (auto& p : ports_) p.silent = false;
}

}  // namespace sim
