#include "options.hpp"

#include <arpa/inet.h>

#include <charconv>
#include <cstdio>
#include <cstring>

namespace sim {

const char* const kUsage =
    "usage: torvik-sim [--unit CLASS@ADDR[:CMDPORT[:DATAPORT]][,serial=SERIAL]]... [--control PATH]\n"
    "                  [-- COMMAND ARGS...]\n";

namespace {

std::uint16_t parsePort(const std::string& text, const std::string& unit_arg) {
    unsigned v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size() || v > 65535)
        throw UsageError{"bad port '" + text + "' in --unit " + unit_arg};
    return static_cast<std::uint16_t>(v);
}

// Capitals of the class name after the family prefix: TorvikLanLogic -> LL.
std::string defaultSerial(std::string_view cls, std::size_t index) {
    std::string initials;
    for (char c : cls.substr(cls.rfind("Torvik", 0) == 0 ? 6 : 0))
        if (c >= 'A' && c <= 'Z') initials += c;
    char number[16];
    std::snprintf(number, sizeof number, "%04zu", index + 1);
    return "SIM" + initials + number;
}

UnitConfig parseUnit(const std::string& unit_arg, std::size_t index) {
    namespace products = torvik::products;
    UnitConfig cfg;
    std::string head = unit_arg, serial;
    if (auto comma = unit_arg.find(','); comma != std::string::npos) {
        head = unit_arg.substr(0, comma);
        std::string opt = unit_arg.substr(comma + 1);
        if (opt.rfind("serial=", 0) != 0 || opt.size() == 7 || opt.find(',') != std::string::npos)
            throw UsageError{"bad option '" + opt + "' in --unit " + unit_arg + " (only serial=SERIAL)"};
        serial = opt.substr(7);
    }
    auto at = head.find('@');
    if (at == std::string::npos) throw UsageError{"--unit " + unit_arg + ": expected CLASS@ADDR"};
    const std::string cls = head.substr(0, at);
    cfg.product = products::findProduct(cls);
    if (!cfg.product) {
        std::string known;
        for (const auto& p : products::kProducts) {
            if (!known.empty()) known += ", ";
            known += p.class_name;
        }
        throw UsageError{"unknown product class '" + cls + "'; known: " + known};
    }
    if (cfg.product->link == products::Link::Usb)
        throw UsageError{"'" + cls + "' is a USB unit; only network units are emulated so far"};

    std::string rest = head.substr(at + 1);
    std::vector<std::string> parts;
    for (std::size_t from = 0;;) {
        auto colon = rest.find(':', from);
        parts.push_back(rest.substr(from, colon == std::string::npos ? std::string::npos : colon - from));
        if (colon == std::string::npos) break;
        from = colon + 1;
    }
    if (parts.size() > 3) throw UsageError{"--unit " + unit_arg + ": too many ports"};
    cfg.addr_text = parts[0];
    if (inet_pton(AF_INET, cfg.addr_text.c_str(), &cfg.addr) != 1)
        throw UsageError{"bad IPv4 address '" + cfg.addr_text + "' in --unit " + unit_arg};
    // Traffic must never leave this host.
    if ((ntohl(cfg.addr.s_addr) >> 24) != 127)
        throw UsageError{"address " + cfg.addr_text + " is not a loopback address (127.0.0.0/8)"};
    if (parts.size() > 1) cfg.cmd_port = parsePort(parts[1], unit_arg);
    if (parts.size() > 2) {
        if (cfg.product->link != products::Link::Wifi)
            throw UsageError{"'" + cls + "' has no data connection; drop the second port in --unit " + unit_arg};
        cfg.data_port = parsePort(parts[2], unit_arg);
    }
    cfg.serial = serial.empty() ? defaultSerial(cls, index) : serial;
    return cfg;
}

}  // namespace

Options parseOptions(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](const char* name) -> std::string {
            if (i + 1 >= argc) throw UsageError{std::string(name) + " needs a value"};
            return argv[++i];
        };
        if (arg == "--") {
            for (++i; i < argc; ++i) o.command.push_back(argv[i]);
            if (o.command.empty()) throw UsageError{"no command after --"};
            break;
        }
        if (arg == "--unit")
            o.units.push_back(parseUnit(value("--unit"), o.units.size()));
        else if (arg.rfind("--unit=", 0) == 0)
            o.units.push_back(parseUnit(arg.substr(7), o.units.size()));
        else if (arg == "--control")
            o.control = value("--control");
        else if (arg.rfind("--control=", 0) == 0)
            o.control = arg.substr(10);
        else
            throw UsageError{"unknown argument '" + arg + "'"};
    }
    for (std::size_t i = 0; i < o.units.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (o.units[i].serial == o.units[j].serial)
                throw UsageError{"two units with serial number " + o.units[i].serial};
    return o;
}

}  // namespace sim
