// The catalogue: which handles exist, in which family each stands, which example programs apply
// to it and on which port. Plain data for scripts and tools; the library reads none of it at run
// time. The emulator takes a USB unit's sample serial number from here when none is given, so
// the examples' defaults find the emulated units.
#pragma once

#include <string_view>

#include "products/products.hpp"

namespace torvik::products {

inline constexpr std::string_view kPackageName = "pytorvik";
inline constexpr std::string_view kPackageFullName = "Torvik Python driver";

struct Family {
    std::string_view key;
    std::string_view handles;  // blank-separated, in order
};

inline constexpr Family kFamilies[] = {
    {"utilities", "DeviceFinder DataLogger"},
    {"wireless", "TorvikAirAnalog"},
    {"ethernet", "TorvikLanAnalog TorvikLanLogic TorvikLanRelay TorvikLanOutput"},
    {"USB", "TorvikUsbLogic TorvikUsbSink TorvikUsbAnalog TorvikUsbMixed TorvikUsbThermo TorvikUsbRtd TorvikUsbCan"},
};
inline constexpr std::string_view kToolFamily = "utilities";  // not products

// Each handle's sample `connect` argument and, per example category, the port its examples use
// ("-" where the category has no port).
struct Sample {
    std::string_view handle;
    std::string_view connect;
    std::string_view cat_port;  // "Category: port; ..."
};

inline constexpr Sample kSamples[] = {
    {"DeviceFinder", "21JA1200", "Find_devices: -"},
    {"TorvikLanAnalog", "192.168.1.110", "AI: 0; System_ETH: -; Tutorial: -"},
    {"TorvikLanLogic", "192.168.1.110", "DIO: 0; System_ETH: -; Tutorial: -"},
    {"TorvikLanRelay", "192.168.1.110", "DIO: 0; System_ETH: -; Tutorial: -"},
    {"TorvikLanOutput", "192.168.1.110", "AO: 0; System_ETH: -; Tutorial: -"},
    {"TorvikUsbAnalog", "21JA1245", "AI: 0; DIO: 0; I2C: 1; SPI: 2; UART: 2; System_USB: -; Tutorial: -"},
    {"TorvikUsbMixed", "21JA1439", "AI: 0; AO: 0; AIO: 0; DIO: 0; I2C: 1; UART: 2; System_USB: -; Tutorial: -"},
    {"TorvikUsbCan", "21JA1312", "DIO: 0; I2C: 1; SPI: 2; UART: 2; CAN: 1; System_USB: -; Tutorial: -"},
    {"TorvikUsbLogic", "21JA1200", "DIO: 0; I2C: 1; SPI: 2; UART: 2; System_USB: -; Tutorial: -"},
    {"TorvikUsbSink", "21JA1298", "DIO: 0; System_USB: -; Tutorial: -"},
    {"TorvikUsbRtd", "21JA1385", "DIO: 0; I2C: 1; SPI: 2; UART: 2; Temperature_RTD: 1; System_USB: -; Tutorial: -"},
    // SPI port 1 is sample data as the catalogue has always had it, though the unit's SPI is port 2.
    {"TorvikUsbThermo", "21JA1239", "DIO: 0; I2C: 1; SPI: 1; UART: 2; Temperature_TC: 1; System_USB: -; Tutorial: -"},
    {"TorvikAirAnalog", "192.168.5.79", "AI: 1; System_Wifi: -; Tutorial: -"},
};

struct ExampleGroup {
    std::string_view category;
    std::string_view examples;  // blank-separated, in order
};

inline constexpr ExampleGroup kExampleGroups[] = {
    {"System_USB", "get_USB_info get_pin_mode"},
    {"System_ETH", "get_network_info"},
    {"System_Wifi", "get_network_info get_Air_status"},
    {"Find_devices", "find_all_devices"},
    {"AI", "AI_continuous AI_continuous_with_logger AI_on_demand_in_loop AI_N_samples_once AI_N_samples_in_loop AI_on_demand_once"},
    {"AO", "AO_write_one_channel AO_write_all_channels AO_waveform_gen"},
    {"AIO", "AIO_one_channel_loopback AIO_all_channels_loopback"},
    {"DIO", "DIO_loopback_pins DIO_loopback_port DO_write_pins DO_write_port DO_blinky_pins DO_blinky_port"},
    {"CAN", "CAN_read CAN_write"},
    {"Temperature_TC", "TC_read_channel_data TC_read_channel_data_with_logger TC_read_channel_status"},
    {"Temperature_RTD", "RTD_read_channel_data RTD_read_channel_data_with_logger RTD_read_channel_status"},
    {"I2C", "I2C_write_read"},
    {"SPI", "SPI_read_and_write SPI_write"},
    {"UART", "UART_read UART_write"},
    {"Tutorial", "single_loop_thread single_loop_async multiple_loops_thread multiple_loops_async"},
};

constexpr const Sample* findSample(std::string_view handle) {
    for (const auto& s : kSamples)
        if (s.handle == handle) return &s;
    return nullptr;
}

namespace detail {
// By name, not by the pointers of the finders: under UBSan's null checks GCC does not take the
// address of a table entry compared with null for a constant expression.
constexpr bool hasProduct(std::string_view name) {
    for (const auto& p : kProducts)
        if (p.class_name == name) return true;
    return false;
}
constexpr bool hasSample(std::string_view name) {
    for (const auto& s : kSamples)
        if (s.handle == name) return true;
    return false;
}
constexpr bool everyProductHasASample() {
    for (const auto& f : kFamilies) {
        if (f.key == kToolFamily) continue;
        std::string_view rest = f.handles;
        while (!rest.empty()) {
            auto cut = rest.find(' ');
            std::string_view name = rest.substr(0, cut);
            if (!hasProduct(name) || !hasSample(name)) return false;
            rest = cut == std::string_view::npos ? std::string_view() : rest.substr(cut + 1);
        }
    }
    return true;
}
}  // namespace detail
static_assert(detail::everyProductHasASample(), "a catalogue product without its product row or sample");

}  // namespace torvik::products
