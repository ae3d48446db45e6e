// The product family: every handle class a unit can be, how it attaches, what its documentation
// says and its pin tables. One source for the library's handles and the emulator's firmware.
//
// Tables are written as in the units' documents: logical ports separated by ";", each
// "port: entries" with entries separated by blanks. Digital tables list pin numbers of the
// same-numbered hardware port; all others list cells "(hardware port,pin)". parsePortTable reads
// both shapes.
#pragma once

#include <string_view>
#include <utility>
#include <vector>

namespace torvik::products {

enum class Link { Usb, Ethernet, Wifi };

struct Product {
    std::string_view class_name;  // the handle class, also its LABEL_DICT key
    Link link;
    std::string_view description;  // what the handle's documentation says of the unit
    std::string_view doc_ports;    // the ports its documentation names, "DI: 0, 1; DO: 2, 3"
    std::string_view di = {}, do_ = {};
    int dio_num_pins_per_port = 0;
    std::string_view uart = {}, i2c = {}, spi = {}, can = {}, tc = {}, rd = {};
    std::string_view ai = {};
    int ai_max_rate = 0;
    double ai_ratio = 0;
    int ai_num_channels = 0;
    bool ai_variable = false;
    std::string_view ao = {};
    int ao_volt_min = 0, ao_volt_max = 0;
    int ao_channel = 0;
};

namespace detail {
inline constexpr std::string_view kUsbDio26 = "0: 0 1 2 3 4 5 6 7; 1: 0 1 2 3 4 5; 2: 0 1 2 3 6 7; 3: 0 1 2 3 4 5";
inline constexpr std::string_view kUsbDio = "0: 0 1 2 3 4 5 6 7; 1: 0 1 2 3; 2: 6 7; 3: 0 1 2 3 4 5";
inline constexpr std::string_view kUsbDioTemp = "0: 0 1 2 3 4 5 6 7; 1: 0 1 2 3 4; 2: 6 7; 3: 0 1 2 3 4 5";
inline constexpr std::string_view kUart = "1: (0,3) (0,4); 2: (1,2) (1,3)";
inline constexpr std::string_view kI2c = "1: (2,6) (2,7); 2: (3,0) (3,1)";
inline constexpr std::string_view kSpi2 = "2: (3,3) (3,4) (3,5)";
inline constexpr std::string_view kTemp = "1: (1,5) (2,0) (2,1) (2,2) (2,3); 2: (1,5) (2,0) (3,3) (3,4) (3,5)";
}  // namespace detail

// Products without a catalogue description of their own keep an empty one.
inline constexpr Product kProducts[] = {
    {.class_name = "TorvikAirAnalog", .link = Link::Wifi,
     .description = "8ch 16-bit +/-10V analog input, max sampling rate 10KHz", .doc_ports = "AI: 1",
     .ai = "1: (1,5)", .ai_max_rate = 10000, .ai_ratio = 0.000152587890625, .ai_num_channels = 8, .ai_variable = true},
    {.class_name = "TorvikCore", .link = Link::Ethernet, .description = "", .doc_ports = ""},
    {.class_name = "TorvikCoreMini", .link = Link::Ethernet, .description = "", .doc_ports = ""},
    {.class_name = "TorvikDrive", .link = Link::Ethernet, .description = "", .doc_ports = ""},
    {.class_name = "TorvikBox", .link = Link::Ethernet, .description = "", .doc_ports = ""},
    {.class_name = "TorvikLanLogic", .link = Link::Ethernet,
     .description = "8ch 24V digital input, 6ch 24V digital output", .doc_ports = "DI: 1; DO: 0",
     .di = "1: 0 1 2 3 4 5 6 7", .do_ = "0: 0 1 2 3 4 5", .dio_num_pins_per_port = 8},
    {.class_name = "TorvikLanRelay", .link = Link::Ethernet,
     .description = "6ch 24V digital input, 6ch 24V digital output", .doc_ports = "DI: 1; DO: 0",
     .di = "1: 0 1 2 3 4 5", .do_ = "0: 0 1 2 3 4 5", .dio_num_pins_per_port = 8},
    {.class_name = "TorvikLanAnalog", .link = Link::Ethernet,
     .description = "8ch simultaneous voltage input, max sampling rate 20KHz", .doc_ports = "AI: 0",
     .ai = "0: (1,5)", .ai_max_rate = 20000, .ai_ratio = 0.00030517578125, .ai_num_channels = 8, .ai_variable = false},
    {.class_name = "TorvikLanOutput", .link = Link::Ethernet, .description = "8ch analog output", .doc_ports = "AO: 0",
     .ao = "0: (3,11)", .ao_volt_min = -10, .ao_volt_max = 10, .ao_channel = 8},
    {.class_name = "TorvikUsbLogic", .link = Link::Usb, .description = "26ch 3.3V DIO/I2C/SPI",
     .doc_ports = "UART: 1, 2; I2C: 1, 2; SPI: 1, 2; DIO: 0, 1, 2, 3",
     .di = detail::kUsbDio26, .do_ = detail::kUsbDio26, .dio_num_pins_per_port = 8,
     .uart = detail::kUart, .i2c = detail::kI2c, .spi = "1: (2,1) (2,2) (2,3); 2: (3,3) (3,4) (3,5)"},
    {.class_name = "TorvikUsbAnalog", .link = Link::Usb, .description = "26ch 3.3V DIO/I2C/SPI, max sampling rate 16KHz",
     .doc_ports = "AI: 0; UART: 1, 2; I2C: 1, 2; SPI: 2; DIO: 0, 1, 2, 3",
     .di = detail::kUsbDio, .do_ = detail::kUsbDio, .dio_num_pins_per_port = 8,
     .uart = detail::kUart, .i2c = detail::kI2c, .spi = detail::kSpi2,
     .ai = "0: (1,5)", .ai_max_rate = 16000, .ai_ratio = 0.00030517578125, .ai_num_channels = 8, .ai_variable = true},
    {.class_name = "TorvikUsbThermo", .link = Link::Usb, .description = "2ch thermocouple input and 21ch 3.3V DIO/I2C/SPI",
     .doc_ports = "UART: 1, 2; I2C: 1, 2; SPI: 2; Thermocouple: 1; DIO: 0, 1, 2, 3",
     .di = detail::kUsbDioTemp, .do_ = detail::kUsbDioTemp, .dio_num_pins_per_port = 8,
     .uart = detail::kUart, .i2c = detail::kI2c, .spi = detail::kSpi2, .tc = detail::kTemp},
    {.class_name = "TorvikUsbCan", .link = Link::Usb, .description = "20ch 3.3V DIO/I2C/SPI",
     .doc_ports = "UART: 1, 2; I2C: 1, 2; SPI: 2; CAN: 1; DIO: 0, 1, 2, 3",
     .di = detail::kUsbDio, .do_ = detail::kUsbDio, .dio_num_pins_per_port = 8,
     .uart = detail::kUart, .i2c = detail::kI2c, .spi = detail::kSpi2, .can = "1: (1,4) (1,5) (2,0) (2,1) (2,2) (2,3)"},
    {.class_name = "TorvikUsbRtd", .link = Link::Usb,
     .description = "2ch thermocouple input which support PT-100 or PT-1000, and 21ch 3.3V DIO/I2C/SPI",
     .doc_ports = "UART: 1, 2; I2C: 1, 2; SPI: 2; RTD: 1; DIO: 0, 1, 2, 3",
     .di = detail::kUsbDioTemp, .do_ = detail::kUsbDioTemp, .dio_num_pins_per_port = 8,
     .uart = detail::kUart, .i2c = detail::kI2c, .spi = detail::kSpi2, .rd = detail::kTemp},
    {.class_name = "TorvikUsbSink", .link = Link::Usb, .description = "24V 12ch DO and 14ch DI", .doc_ports = "DI: 0, 1; DO: 2, 3",
     .di = "0: 0 1 2 3 4 5 6 7; 1: 0 1 2 3 4 5", .do_ = "2: 0 1 2 3 4 5 6 7; 3: 0 1 2 3", .dio_num_pins_per_port = 8},
    {.class_name = "TorvikUsbMixed", .link = Link::Usb,
     .description = "16ch 3.3V DIO/I2C/SPI, 8ch AI, 8ch AO, max sampling rate 16KHz",
     .doc_ports = "AI: 0; AO: 0; UART: 1, 2; I2C: 1, 2; DIO: 0, 1, 2, 3",
     .di = "0: 0 1 2 3 4 5 6 7; 1: 0 1 2 3; 2: 6 7; 3: 0 1", .do_ = "0: 0 1 2 3 4 5 6 7; 1: 0 1 2 3; 2: 6 7; 3: 0 1",
     .dio_num_pins_per_port = 8, .uart = detail::kUart, .i2c = detail::kI2c,
     .ai = "0: (1,5)", .ai_max_rate = 16000, .ai_ratio = 0.00030517578125, .ai_num_channels = 8, .ai_variable = true,
     .ao = "0: (1,4)", .ao_volt_min = 0, .ao_volt_max = 5, .ao_channel = 8},
};

constexpr const Product* findProduct(std::string_view class_name) {
    for (const auto& p : kProducts)
        if (p.class_name == class_name) return &p;
    return nullptr;
}

// One entry of a table: a pin of the same-numbered hardware port (hw_port -1), or a cell.
struct Cell {
    int hw_port = -1;
    int pin = 0;
    bool operator==(const Cell&) const = default;
};
using PortTable = std::vector<std::pair<int, std::vector<Cell>>>;  // logical port -> entries, in order

// Reads a table in the notation above; an empty text is an empty table. Throws
// std::invalid_argument for text that is not in that notation.
PortTable parsePortTable(std::string_view text);

}  // namespace torvik::products
