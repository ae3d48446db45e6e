// The failure vocabulary: every concrete error and warning class with its code and default text,
// in declaration order. The misspellings are public names and stay as they are.
#pragma once

#include <string_view>

namespace torvik::wire {

enum class ErrorBase { Error, Warning };

struct ErrorClass {
    std::string_view name;
    ErrorBase base;
    long long code;
    std::string_view msg;
};

#define TORVIK_E(name, code, msg) ErrorClass{#name, ErrorBase::Error, code, msg},
#define TORVIK_W(name, code, msg) ErrorClass{#name, ErrorBase::Warning, code, msg},
inline constexpr ErrorClass kErrorClasses[] = {
    // connection
    TORVIK_E(USBConnectionError, -8001, "Failed to connect to Torvik DAQ. Please check USB plugin status and serial number.")
    TORVIK_E(NetworkConnectionError, -8002, "Failed to connect to Torvik DAQ. Please check network status and IP address.")
    TORVIK_E(NetworkConnectionLostError, -8007, "Network DAQ connection lost.")
    // digital I/O
    TORVIK_E(DIPortNotAvaliableError, -8101, "DI port not avaliable or already occupied by other process.")
    TORVIK_E(DOPortNotAvaliableError, -8102, "DO port not available or already occupied by other process.")
    // analog input and output
    TORVIK_E(AIPortNotAvaliableError, -8201, "AI port not available or already occupied by other process.")
    TORVIK_E(AIModeNotAvaliableError, -8208, "The specified AI acquisition mode is invalid.")
    TORVIK_E(AIRateNotVaildError, -8210, "The specified AI sampling rate is invalid.")
    TORVIK_E(AOPortNotAvaliableError, -8204, "AO port not available or already occupied by other process.")
    TORVIK_E(AOModeNotVaildError, -8206, "The specified AO generation mode is invalid.")
    TORVIK_E(AOSpanNotVaildError, -8207, "The specified AO span mode is invalid.")
    TORVIK_E(AOChannelNotAvaliableError, -8209, "AO channel not avaliable or already occupied by other process.")
    TORVIK_E(AOFormNotAvaliableError, -8211, "The specified AO form is invalid.")
    TORVIK_W(AIQueueOverflowWarning, 520003, "Occurrence AI queue overflow.")
    // temperature
    TORVIK_E(ThermalPortNotAvaliableError, -8301, "Thermal port not avaliable or already occupied by other process.")
    TORVIK_E(ThermalChipSelectNotAvaliableError, -8304, "Thermal channel not avaliable or already occupied by other process.")
    TORVIK_E(ThermalModeNotVaildError, -8305, "The specified thermal filter mode is invalid.")
    TORVIK_E(ThermalTypeNotVaildError, -8306, "The specified thermal type mode is invalid.")
    // I2C
    TORVIK_E(I2CPortNotAvaliableError, -8401, "I2C port not avaliable or already occupied by other process.")
    TORVIK_E(I2CClockNotSupportError, -8403, "The specified I2C clock mode is invalid.")
    TORVIK_E(I2CAddressSizeNotVaildError, -8404, "The specified I2C address mode is invalid.")
    // SPI
    TORVIK_E(SPIPortNotAvaliableError, -8501, "SPI port not avaliable or already occupied by other process.")
    TORVIK_E(SPIDataLengthExceedMAXError, -8502, "The length of data exceeds maximum transfer length of SPI.")
    TORVIK_E(SPIDataSizeNotVaildError, -8503, "The specified SPI data size mode is invalid.")
    TORVIK_E(SPIFirstBitNotVaildError, -8504, "The specified SPI first bit mode is invalid.")
    TORVIK_E(SPIPrescalerNotVaildError, -8505, "The specified SPI prescaler mode is invalid.")
    TORVIK_E(SPIModeNotVaildError, -8506, "The specified SPI mode is invalid.")
    // UART
    TORVIK_E(UARTPortNotAvaliableError, -8601, "UART port not avaliable or already occupied by other process.")
    TORVIK_E(UARTExceedMaxLengthError, -8602, "The length of data exceeds maximum transfer length of UART.")
    TORVIK_E(UARTBaudRateNotSupportError, -8603, "The specified UART baud rate is invalid.")
    TORVIK_E(UARTStopBitNotSupportError, -8604, "The specified UART stop bit mode is invalid.")
    TORVIK_E(UARTParityNotSupportError, -8605, "The specified UART parity mode is invalid.")
    TORVIK_E(UARTDataBitNotSupportError, -8606, "The specified UART data bit mode is invalid.")
    TORVIK_W(UARTQueueOverflowWarning, 560001, "Occurrence UART queue overflow.")
    // CAN
    TORVIK_E(CANPortNotAvaliableError, -8701, "CAN port not avaliable or already occupied by other process.")
    TORVIK_E(CANSpeedNotVaildError, -8702, "The specified CAN speed mode from Torvik DAQ is invalid.")
    TORVIK_E(CANDataLengthNotVaildError, -8703, "The length of the specified CAN data is invalid.")
    TORVIK_E(CANTXNotVaildError, -8793, "The specified CAN TX is invalid.")
    TORVIK_E(CANTXPriorityNotVaildError, -8794, "The specified CAN TX priority is invalid.")
    TORVIK_W(CANQueueOverflowWarning, 570002, "Occurrence CAN queue overflow.")
    // arguments and pins
    TORVIK_E(PinsNotExistError, -8009, "Invalid pin index.")
    TORVIK_E(PinsValueNotDefineError, -8010, "Inconsistency between the number of pins & the number of values.")
    TORVIK_E(InputTypeNotConsistentError, -8011, "Inconsistency between the type of pins & the type of values.")
    TORVIK_E(InputTypeNotCorrectError, -8012, "Unsupported data type.")
    TORVIK_E(InputDataNotInRangeError, -8014, "Input value not in range.")
    // firmware statuses 1 to 23, code = -7000 - status
    TORVIK_E(FirmwareEnableError, -7001, "Functionality not enabled in firmware.")
    TORVIK_E(FirmwarePinError, -7002, "Firmware pin mode index error.")
    TORVIK_E(FirmwareHALIndexError, -7003, "Firmware HAL handle index error.")
    TORVIK_E(FirmwareHALOthersError, -7004, "Firmware HAL error.")
    TORVIK_E(FirmwareI2CError, -7005, "Firmware I2C error.")
    TORVIK_E(FirmwareSPIError, -7006, "Firmware SPI error.")
    TORVIK_E(FirmwareUARTError, -7007, "Firmware UART error.")
    TORVIK_E(FirmwareHolder1Error, -7008, "Firmware error placeholder.")
    TORVIK_E(FirmwareEEPROMError, -7009, "Firmware EEPROM error.")
    TORVIK_E(FirmwareOLEDError, -7010, "Firmware OLED error.")
    TORVIK_E(FirmwareSysError, -7011, "Firmware system error.")
    TORVIK_E(FirmwareHolder2Error, -7012, "Firmware error placeholder.")
    TORVIK_E(FirmwareDIOError, -7013, "Firmware DIO error.")
    TORVIK_E(FirmwareMotionError, -7014, "Firmware motion error.")
    TORVIK_E(FirmwareAIError, -7015, "Firmware AI error.")
    TORVIK_E(FirmwareAOError, -7016, "Firmware AO error.")
    TORVIK_E(FirmwareThermalError, -7017, "Firmware thermal error.")
    TORVIK_E(FirmwareCANError, -7018, "Firmware CAN error.")
    TORVIK_E(FirmwareUSBError, -7019, "Firmware USB read/write error.")
    TORVIK_E(FirmwareTCPError, -7020, "Firmware TCP read/write error.")
    TORVIK_E(FirmwareUDPError, -7021, "Firmware UDP read/write error.")
    TORVIK_E(FirmwareBootloaderError, -7022, "Firmware bootloader error.")
    TORVIK_E(FirmwareCommandsError, -7023, "Firmware commands error.")
};
#undef TORVIK_E
#undef TORVIK_W

inline constexpr int kFirmwareStatusMin = 1;
inline constexpr int kFirmwareStatusMax = 23;

// The class a firmware status byte stands for, or nullptr for 0 (success) and unknown statuses.
constexpr const ErrorClass* firmwareErrorClass(long long status) {
    if (status < kFirmwareStatusMin || status > kFirmwareStatusMax) return nullptr;
    for (const auto& c : kErrorClasses)
        if (c.code == -7000 - status) return &c;
    return nullptr;
}

constexpr const ErrorClass* findErrorClass(std::string_view name) {
    for (const auto& c : kErrorClasses)
        if (c.name == name) return &c;
    return nullptr;
}

}  // namespace torvik::wire
