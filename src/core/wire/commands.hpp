// Wire vocabulary: command codes, classification lists, framing bytes, transport identifiers,
// timing and queue constants. Each group is an X-macro list so that the engine's typed constants
// and the tables the Python module exports come from the same lines.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace torvik::wire {

// X(name, value) in table order. Codes below 256 travel as one byte, the rest as two (high first).
#define TORVIK_COMMAND_CODES(X)                                                                  \
    /* CAN */                                                                                    \
    X(OPEN_CAN, 0x30) X(START_CAN, 0x31) X(WRITE_CAN, 0x32) X(STOP_CAN, 0x33)                    \
    X(CLOSE_CAN, 0x34) X(SET_CAN_SPEED, 0x35) X(SET_CAN_ENABLED_ITR, 0x36)                       \
    X(SET_CAN_TX_PRIORITY, 0x37) X(SET_CAN_RX_ROLLOVER, 0x38) X(SET_CAN_RX_FILTERING_ON, 0x39)   \
    X(SET_CAN_RX_FILTER_OR_MASK, 0x3A) X(GET_CAN_INTERRUPTS, 0x3B) X(GET_CAN_ERRORS, 0x3C)       \
    X(GET_CAN_COUNTERS, 0x3D)                                                                    \
    /* thermal */                                                                                \
    X(OPEN_THERMAL, 0x40) X(READ_THERMAL_JUNCTION, 0x41) X(READ_THERMAL_COUPLE, 0x42)            \
    X(CLOSE_THERMAL, 0x43) X(SET_THERMAL_NOISE_FILTER, 0x44) X(SET_THERMAL_OVER_SAMPLING, 0x45)  \
    X(SET_THERMAL_TYPE, 0x46) X(GET_THERMAL_STATUS, 0x47) X(SET_THERMAL_JUNCTION_ON, 0x48)       \
    X(READ_THERMAL_OFFSET, 0x49) X(WRITE_THERMAL_OFFSET, 0x4A) X(WRITE_THERMAL_JUNCTION, 0x4B)   \
    X(LOAD_THERMAL_OFFSET, 0x4C) X(SAVE_THERMAL_OFFSET, 0x4D)                                    \
    /* acceleration, Wi-Fi and unit settings */                                                  \
    X(READ_ACCELERATION, 0x6F) X(SET_AP, 0x70) X(GET_RSSI, 0x71) X(GET_BATTERY, 0x72)            \
    X(GET_THERMOMETER, 0x73) X(SET_WIFI_CONFIGURATION, 0x74) X(GET_WIFI_CONFIGURATION, 0x75)     \
    X(SET_WIFI_BANDWIDTH, 0x76) X(GET_WIFI_BANDWIDTH, 0x77) X(RESET_FACTORY, 0x79)               \
    X(GET_SERIAL_NUMBER, 0x7A) X(SET_SERIAL_NUMBER, 0x7B) X(GET_GATEWAY, 0x7C)                   \
    X(SET_GATEWAY, 0x7D) X(GET_THREADS, 0x7E) X(GET_PIN_MODE_OF_SLOT, 0x7F)                      \
    /* UART */                                                                                   \
    X(OPEN_UART, 0x80) X(START_UART_READING, 0x81) X(WRITE_UART, 0x82)                           \
    X(STOP_UART_READING, 0x83) X(CLOSE_UART, 0x84) X(RESET_UART, 0x85)                           \
    X(SET_UART_BAUD_RATE, 0x86) X(SET_UART_DATA_SIZE, 0x87) X(SET_UART_PARITY, 0x88)             \
    X(SET_UART_NUM_STOP_BITS, 0x8B)                                                              \
    /* I2C */                                                                                    \
    X(OPEN_I2C, 0x90) X(READ_I2C, 0x91) X(WRITE_I2C, 0x92) X(CLOSE_I2C, 0x94)                    \
    X(RESET_I2C, 0x95) X(SET_I2C_FREQUENCY, 0x96) X(SET_I2C_ADDR_SIZE, 0x97)                     \
    /* AIO */                                                                                    \
    X(OPEN_AIO, 0x9E) X(CLOSE_AIO, 0x9F)                                                         \
    /* SPI */                                                                                    \
    X(OPEN_SPI, 0xA0) X(READ_SPI, 0xA1) X(WRITE_SPI, 0xA2) X(READ_AND_WRITE_SPI, 0xA3)           \
    X(CLOSE_SPI, 0xA4) X(RESET_SPI, 0xA5) X(SET_SPI_DATA_SIZE, 0xA6) X(SET_SPI_FIRST_BIT, 0xA7)  \
    X(SET_SPI_PRESCALER, 0xA8) X(SET_SPI_CPOL, 0xA9) X(SET_SPI_CPHA, 0xAA)                       \
    /* AI */                                                                                     \
    X(OPEN_AI, 0xB0) X(SET_AI_SAMPLING_RATE, 0xB1) X(SET_AI_MODE, 0xB2)                          \
    X(SET_AI_NUM_SAMPLES, 0xB3) X(READ_AI_ON_DEMAND, 0xB5) X(OPEN_AI_STREAMING, 0xB6)            \
    X(START_AI_STREAMING, 0xB7) X(CLOSE_AI_STREAMING, 0xB8) X(CHECK_CALCULATUON, 0xB9)           \
    X(CLEAR_DATA, 0xBA) X(CHECK_BUFFER_STATUS, 0xBB) X(READ_AI_ON_DEMAND_VARIABLE, 0xBD)         \
    X(START_AI_STREAMING_VARIABLE, 0xBE) X(CLOSE_AI, 0xBF)                                       \
    /* AO, one-byte codes */                                                                     \
    X(OPEN_AO, 0xC0) X(WRITE_AO_BY_CHANNEL, 0xC5) X(SET_AO_SPAN, 0xC9) X(INIT_AO_BUFFER, 0xCA)   \
    X(PUSH_TO_AO_BUFFER, 0xCB) X(GET_AO_COUNTERS, 0xCC) X(WRITE_AO_SYNCHRONIZED, 0xCD)           \
    X(GET_AO_VALUES, 0xCE) X(CLOSE_AO, 0xCF)                                                     \
    /* AO streaming, two-byte codes */                                                           \
    X(OPEN_AO_STREAMING, 0x2048) X(START_AO_STREAMING, 0x2049) X(STOP_AO_STREAMING, 0x204A)      \
    X(CLOSE_AO_STREAMING, 0x204B) X(SET_AO_MODE, 0x2051) X(SET_AO_SAMPLING_RATE, 0x2052)         \
    X(SET_AO_NUM_SAMPLES, 0x2053) X(SET_AO_ENABLED_CHANNELS, 0x2054) X(SET_AO_FORM, 0x2055)      \
    X(SET_AO_FORM_PARAM, 0x2056)                                                                 \
    /* motion */                                                                                 \
    X(START_MOTION_MONITORING, 0xD3)                                                             \
    /* DIO */                                                                                    \
    X(LOAD_DIO_STARTUP, 0xE0) X(SAVE_DIO_STARTUP, 0xE1) X(GET_DIO_CURRENT, 0xE2)                 \
    X(SET_DIO_CURRENT, 0xE3) X(TOGGLE_DIO_DIR, 0xE4) X(GET_DIO_STATE, 0xE5)                      \
    X(SET_DIO_STATE, 0xE6) X(READ_DI, 0xE7) X(WRITE_DO, 0xE8) X(READ_AND_GET_DI, 0xE9)           \
    X(SET_AND_WRITE_DO, 0xEA) X(SET_SLOT_DI, 0xEB) X(SET_SLOT_DO, 0xEC) X(SET_SLOT_IDLE, 0xED)   \
    X(TOGGLE_AND_WRITE_DO, 0xEE)                                                                 \
    /* system */                                                                                 \
    X(GET_DRIVER_INFO, 0xF0) X(GET_DATE_TIME, 0xF1) X(SET_DATE_TIME, 0xF2) X(GET_IP, 0xF3)       \
    X(SET_IP, 0xF4) X(GET_MAC, 0xF5) X(SET_MAC, 0xF6) X(GET_EEPROM_PAGE, 0xF7)                   \
    X(SET_EEPROM_PAGE, 0xF8) X(GET_EEPROM_DEVICE, 0xF9) X(REBOOT, 0xFA)                          \
    X(REBOOT_ON_BOOTLOADER, 0xFB) X(GET_DEVICE_INFO, 0xFC) X(CHECK_MAC_AND_SET_IP, 0xFD)         \
    X(CHECK_MAC_AND_REBOOT, 0xFE) X(SET_EEPROM_BYTE, 0xFF)                                       \
    /* relay */                                                                                  \
    X(RELAY_READ, 0x1B00) X(RELAY_SAVE, 0x1B10)

// Codes whose frames go to a stream queue instead of answering a request.
#define TORVIK_STREAMING_CMD_LIST(X)                                                              \
    X(START_CAN) X(START_UART_READING) X(START_AI_STREAMING) X(START_AI_STREAMING_VARIABLE)      \
    X(START_AO_STREAMING) X(START_MOTION_MONITORING)

// Codes answered by broadcast, any number of answers per request.
#define TORVIK_BROADCAST_CMD_LIST(X) X(GET_DEVICE_INFO) X(CHECK_MAC_AND_SET_IP) X(CHECK_MAC_AND_REBOOT)

// Integer constants that are not command codes, X(name, value).
#define TORVIK_INT_CONSTANTS(X)                                                                   \
    /* framing: the splitter's names, then the builder's */                                      \
    X(CMD_STX_2, 2) X(CMD_CR_2, 13) X(CMD_LF_2, 10) X(CMD_INDEX_2, 3)                            \
    X(CMD_STX, 2) X(CMD_CR, 13) X(CMD_LF, 10) X(CMD_INDEX, 3)                                    \
    /* USB */                                                                                    \
    X(USB_VID, 0x0483) X(USB_PID, 0x5750) X(USB_EP_IN, 0x81) X(USB_EP_OUT, 0x01)                 \
    X(USB_PKT_SIZE, 64)                                                                          \
    /* network */                                                                                \
    X(TCP_CMD_PORT, 7) X(TCP_DATA_PORT, 1336) X(TCP_PKT_LENGTH_MAX, 1536)                        \
    X(TCP_DATA_LENGTH_MAX, 9606) X(UDP_SEND_PORT, 61557) X(UDP_RECV_PORT, 6667)                  \
    X(UDP_PKT_LENGTH_MAX, 512) X(CONNECTION_TIMEOUT, 5)                                          \
    /* timing (seconds) and queues */                                                            \
    X(PACKET_TIMEOUT, 5) X(RETRY_TIMEOUT, 1) X(NUM_RETRIES, 3) X(NUM_BCST_RETRIES, 3)            \
    X(QUEUE_SIZE_MAX, 1000000) X(QUEUE_TIMEOUT, 999999)

// Non-integer constants, X(name, value).
#define TORVIK_FLOAT_CONSTANTS(X) X(ECHO_DELAY, 0.01)

#define TORVIK_X_ENUM(name, value) name = value,
enum Command : std::uint16_t { TORVIK_COMMAND_CODES(TORVIK_X_ENUM) };
#undef TORVIK_X_ENUM

#define TORVIK_X_CONST(name, value) inline constexpr long long name = value;
TORVIK_INT_CONSTANTS(TORVIK_X_CONST)
#undef TORVIK_X_CONST

#define TORVIK_X_CONST(name, value) inline constexpr double name = value;
TORVIK_FLOAT_CONSTANTS(TORVIK_X_CONST)
#undef TORVIK_X_CONST

template <typename T>
struct Named {
    std::string_view name;
    T value;
};

#define TORVIK_X_ROW(name, value) Named<long long>{#name, value},
inline constexpr Named<long long> kCommandTable[] = {TORVIK_COMMAND_CODES(TORVIK_X_ROW)};
inline constexpr Named<long long> kIntConstantTable[] = {TORVIK_INT_CONSTANTS(TORVIK_X_ROW)};
#undef TORVIK_X_ROW
#define TORVIK_X_ROW(name, value) Named<double>{#name, value},
inline constexpr Named<double> kFloatConstantTable[] = {TORVIK_FLOAT_CONSTANTS(TORVIK_X_ROW)};
#undef TORVIK_X_ROW

#define TORVIK_X_CODE(name) Command::name,
inline constexpr Command kStreamingCmdList[] = {TORVIK_STREAMING_CMD_LIST(TORVIK_X_CODE)};
inline constexpr Command kBroadcastCmdList[] = {TORVIK_BROADCAST_CMD_LIST(TORVIK_X_CODE)};
#undef TORVIK_X_CODE

constexpr bool contains(std::span<const Command> list, long long code) {
    for (Command c : list)
        if (c == code) return true;
    return false;
}
constexpr bool isStreamingCommand(long long code) { return contains(kStreamingCmdList, code); }
constexpr bool isBroadcastCommand(long long code) { return contains(kBroadcastCmdList, code); }

}  // namespace torvik::wire
