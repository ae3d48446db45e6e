#include "options.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "products/catalogue.hpp"
#include "wire/labels.hpp"

namespace sim {

const char* const kUsage =
    "usage: torvik-sim [--unit CLASS@ADDR[:CMDPORT[:DATAPORT]][,serial=SERIAL][,tcp]]...\n"
    "                  [--usb CLASS[:SERIAL][,product=TEXT][,transfer=bulk|interrupt][,canbus=NAME]]... [--usb-host]\n"
    "                  [--control PATH] [--echo] [-- COMMAND ARGS...]\n";

namespace {

std::string knownClasses() {
    std::string known;
    for (const auto& p : torvik::products::kProducts) {
        if (!known.empty()) known += ", ";
        known += p.class_name;
    }
    return known;
}

std::uint16_t parsePort(const std::string& text, const std::string& unit_arg) {
    unsigned v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size() || v > 65535)
        throw UsageError{"bad port '" + text + "' in --unit " + unit_arg};
    return static_cast<std::uint16_t>(v);
}

// Eight characters as on a unit's label (two digits, "JA", four digits), numbered by position.
std::string defaultSerial(std::string_view, std::size_t index) {
    char serial[16];
    std::snprintf(serial, sizeof serial, "99JA%04zu", (index + 1) % 10000);
    return serial;
}

UnitConfig parseUnit(const std::string& unit_arg, std::size_t index) {
    namespace products = torvik::products;
    UnitConfig cfg;
    std::string head = unit_arg, serial;
    bool tcp = false;
    if (auto comma = unit_arg.find(','); comma != std::string::npos) {
        head = unit_arg.substr(0, comma);
        for (std::size_t from = comma + 1; from <= unit_arg.size();) {
            const auto next = std::min(unit_arg.find(',', from), unit_arg.size());
            const std::string opt = unit_arg.substr(from, next - from);
            from = next + 1;
            if (opt == "tcp")
                tcp = true;
            else if (opt.rfind("serial=", 0) == 0 && opt.size() > 7 && serial.empty())
                serial = opt.substr(7);
            else
                throw UsageError{"bad option '" + opt + "' in --unit " + unit_arg + " (serial=SERIAL, tcp)"};
        }
    }
    auto at = head.find('@');
    if (at == std::string::npos) throw UsageError{"--unit " + unit_arg + ": expected CLASS@ADDR"};
    const std::string cls = head.substr(0, at);
    cfg.product = products::findProduct(cls);
    if (!cfg.product) {
        throw UsageError{"unknown product class '" + cls + "'; known: " + knownClasses()};
    }
    if (cfg.product->link == products::Link::Usb && !tcp)
        throw UsageError{"'" + cls + "' is a USB unit: give it with --usb " + cls + ":SERIAL (or add ,tcp)"};

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

UnitConfig parseUsbUnit(const std::string& arg, unsigned id) {
    namespace products = torvik::products;
    std::vector<std::string> parts;
    for (std::size_t from = 0;;) {
        auto comma = arg.find(',', from);
        parts.push_back(arg.substr(from, comma == std::string::npos ? std::string::npos : comma - from));
        if (comma == std::string::npos) break;
        from = comma + 1;
    }
    auto colon = parts[0].find(':');
    if (colon != std::string::npos && colon + 1 == parts[0].size())
        throw UsageError{"--usb " + arg + ": expected CLASS[:SERIAL]"};
    UnitConfig cfg;
    const std::string cls = parts[0].substr(0, colon);
    cfg.product = products::findProduct(cls);
    if (!cfg.product) throw UsageError{"unknown product class '" + cls + "'; known: " + knownClasses()};
    if (cfg.product->link != products::Link::Usb)
        throw UsageError{"'" + cls + "' is not a USB unit: give it with --unit " + cls + "@ADDR"};
    cfg.usb = true;
    // Without a serial number the unit takes the catalogue's sample one, which the examples use.
    if (colon != std::string::npos)
        cfg.serial = parts[0].substr(colon + 1);
    else if (const auto* sample = products::findSample(cls))
        cfg.serial = sample->connect;
    else
        throw UsageError{"--usb " + arg + ": expected CLASS:SERIAL"};
    cfg.usb_device.serial = cfg.serial;
    cfg.usb_device.product = std::string(torvik::wire::findLabel(cls).value_or(cls));
    cfg.addr_text = "usb:" + std::to_string(id);
    for (std::size_t i = 1; i < parts.size(); ++i) {
        const std::string& opt = parts[i];
        if (opt.rfind("product=", 0) == 0 && opt.size() > 8)
            cfg.usb_device.product = opt.substr(8);
        else if (opt == "transfer=bulk" || opt == "transfer=interrupt")
            cfg.usb_device.interrupt = opt == "transfer=interrupt";
        else if (opt.rfind("canbus=", 0) == 0 && opt.size() > 7)
            cfg.can_bus = opt.substr(7);
        else
            throw UsageError{"bad option '" + opt + "' in --usb " + arg + " (product=TEXT, transfer=bulk|interrupt, canbus=NAME)"};
    }
    for (const std::string* text : {&cfg.serial, &cfg.usb_device.product})
        for (char c : *text)
            if (c == ';' || c < 0x20 || c > 0x7E)
                throw UsageError{"--usb " + arg + ": serial and product must be printable ASCII without ';'"};
    if (cfg.serial.size() > 126 || cfg.usb_device.product.size() > 126)
        throw UsageError{"--usb " + arg + ": a string descriptor holds at most 126 characters"};
    return cfg;
}

Options parseOptions(int argc, char** argv) {
    Options o;
    unsigned usb_units = 0;
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
        else if (arg == "--usb")
            o.units.push_back(parseUsbUnit(value("--usb"), ++usb_units));
        else if (arg.rfind("--usb=", 0) == 0)
            o.units.push_back(parseUsbUnit(arg.substr(6), ++usb_units));
        else if (arg == "--usb-host")
            o.usb_host = true;
        else if (arg == "--echo")
            o.echo = true;
        else if (arg == "--control")
            o.control = value("--control");
        else if (arg.rfind("--control=", 0) == 0)
            o.control = arg.substr(10);
        else
            throw UsageError{"unknown argument '" + arg + "'"};
    }
    // Network units are told apart by serial number; USB units may share one, as on a real bus.
    for (std::size_t i = 0; i < o.units.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (!o.units[i].usb && !o.units[j].usb && o.units[i].serial == o.units[j].serial)
                throw UsageError{"two units with serial number " + o.units[i].serial};
    return o;
}

}  // namespace sim
