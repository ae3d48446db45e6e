// Display labels of families, products, example categories and examples, in table order.
// One label ends in a blank on purpose ("AIO all channels loopback ").
#pragma once

#include <optional>
#include <string_view>
#include <utility>

namespace torvik::wire {

inline constexpr std::pair<std::string_view, std::string_view> kLabels[] = {
    {"utilities", "Utilities"},
    {"wireless", "Wifi devices"},
    {"ethernet", "Ethernet devices"},
    {"USB", "USB devices"},
    {"product_list", "Products Usage"},
    {"DeviceFinder", "Device finder"},
    {"DataLogger", "Data logger"},
    {"TorvikAirAnalog", "Torvik-Air-Analog"},
    {"TorvikCore", "TorvikCore"},
    {"TorvikCoreMini", "Torvik-Core-Mini"},
    {"TorvikDrive", "TorvikDrive"},
    {"TorvikBox", "TorvikBox"},
    {"TorvikLanLogic", "Torvik-LAN-Logic"},
    {"TorvikLanRelay", "Torvik-LAN-Relay"},
    {"TorvikLanAnalog", "Torvik-LAN-Analog"},
    {"TorvikLanOutput", "Torvik-LAN-Output"},
    {"TorvikLanThermo", "Torvik-LAN-Thermo"},
    {"TorvikUsbLogic", "Torvik-USB-Logic"},
    {"TorvikUsbAnalog", "Torvik-USB-Analog"},
    {"TorvikUsbThermo", "Torvik-USB-Thermo"},
    {"TorvikUsbCan", "Torvik-USB-Can"},
    {"TorvikUsbRtd", "Torvik-USB-Rtd"},
    {"TorvikUsbSink", "Torvik-USB-Sink"},
    {"TorvikUsbMixed", "Torvik-USB-Mixed"},
    {"examples_console", "Example Codes - Console"},
    {"Find_devices", "Find Devices"},
    {"Tutorial", "Tutorial"},
    {"System_USB", "System USB"},
    {"System_ETH", "System ETH"},
    {"System_Wifi", "System Wifi"},
    {"I2C", "I2C"},
    {"SPI", "SPI"},
    {"UART", "UART"},
    {"CAN", "CAN"},
    {"DIO", "DIO"},
    {"Motion", "Motion"},
    {"AIO", "AIO"},
    {"AI", "AI"},
    {"AO", "AO"},
    {"Temperature_RTD", "Temperature-RTD"},
    {"Temperature_TC", "Temperature-TC"},
    {"Temperature", "Temperature"},
    {"find_all_devices", "Find all devices"},
    {"get_network_info", "Get network info"},
    {"get_USB_info", "Get USB info"},
    {"get_pin_mode", "Get pin mode"},
    {"get_Air_status", "Get Air status"},
    {"I2C_write_read", "I2C write and read"},
    {"SPI_read_and_write", "SPI read and write"},
    {"SPI_write", "SPI write"},
    {"UART_read", "UART read"},
    {"UART_write", "UART write"},
    {"CAN_read", "CAN read"},
    {"CAN_write", "CAN write"},
    {"DIO_loopback_pins", "DIO loopback pins"},
    {"DIO_loopback_port", "DIO loopback port"},
    {"DO_write_pins", "DO write pins"},
    {"DO_write_port", "DO write port"},
    {"DO_blinky_pins", "DO blinky pins"},
    {"DO_blinky_port", "DO blinky port"},
    {"AI_continuous", "AI continuous"},
    {"AI_continuous_with_logger", "AI continuous with logger"},
    {"AI_on_demand_in_loop", "AI on demand in loop"},
    {"AI_on_demand_once", "AI on demand once"},
    {"AI_N_samples_once", "AI N samples once"},
    {"AI_N_samples_in_loop", "AI N samples in loop"},
    {"AO_write_one_channel", "AO write one channel"},
    {"AO_write_all_channels", "AO write all channels"},
    {"AO_waveform_gen", "AO waveform generation"},
    {"AIO_one_channel_loopback", "AIO one channel loopback"},
    {"AIO_all_channels_loopback", "AIO all channels loopback "},
    {"TC_read_channel_data", "TC read channel data"},
    {"TC_read_channel_data_with_logger", "TC read channel data with logger"},
    {"TC_read_channel_status", "TC read channel status"},
    {"RTD_read_channel_data", "RTD read channel data"},
    {"RTD_read_channel_data_with_logger", "RTD read channel data with logger"},
    {"RTD_read_channel_status", "RTD read channel status"},
    {"single_loop_thread", "Single loop thread"},
    {"single_loop_async", "Single loop async"},
    {"multiple_loops_thread", "Multiple loops thread"},
    {"multiple_loops_async", "Multiple loops async"},
};

constexpr std::optional<std::string_view> findLabel(std::string_view key) {
    for (const auto& [k, v] : kLabels)
        if (k == key) return v;
    return std::nullopt;
}

}  // namespace torvik::wire
