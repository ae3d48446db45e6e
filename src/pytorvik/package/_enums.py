"""Named values of the operations' integer arguments. Each is an IntEnum, so a member is the int it
stands for: it passes every argument check that the int passes and goes on the wire as that int.

They stand at module level (``pytorvik.AIMode``); this module is loaded on first use of one of
them, so that importing pytorvik does not pay for the enum machinery.
"""
from enum import IntEnum

__all__ = ["AIMode", "AOMode", "AOForm", "CANSpeed", "CANFilterIndex", "I2CClockRate", "I2CAddressSize", "SPIMode",
           "SPIDataSize", "SPIFirstBit", "UARTDataBits", "UARTParity", "UARTStopBits", "ThermalNoiseFilter",
           "ThermalOverSampling", "ThermocoupleType", "RTDType", "PinMode"]


class AIMode(IntEnum):
    """Acquisition mode of ``AI_setMode_async``."""

    ON_DEMAND = 0
    N_SAMPLES = 1
    CONTINUOUS = 2


class AOMode(IntEnum):
    """Generation mode of ``AO_setMode_async``."""

    ON_DEMAND = 0
    N_SAMPLES = 1
    CONTINUOUS = 2


class AOForm(IntEnum):
    """Waveform of ``AO_setForm_async``."""

    RECTANGULAR = 1
    TRIANGULAR = 2
    SINE = 3


class CANSpeed(IntEnum):
    """Bit rate of ``CAN_setSpeed_async``: 125 kbit/s, 250 kbit/s, 500 kbit/s, 1 Mbit/s."""

    K125 = 0
    K250 = 1
    K500 = 2
    M1 = 3


class CANFilterIndex(IntEnum):
    """``index`` of ``CAN_setRXFilterOrMask_async``, as the units' firmware numbers its registers:
    0-5 the acceptance filters, 6 and 7 the masks (the library sends the index as it is)."""

    FILTER0 = 0
    FILTER1 = 1
    FILTER2 = 2
    FILTER3 = 3
    FILTER4 = 4
    FILTER5 = 5
    MASK0 = 6
    MASK1 = 7


class I2CClockRate(IntEnum):
    """``mode`` of ``I2C_setClockRate_async``: 100 kHz, 400 kHz, 1 MHz, 3.4 MHz."""

    STANDARD = 0
    FAST = 1
    FAST_PLUS = 2
    HIGH_SPEED = 3


class I2CAddressSize(IntEnum):
    """``mode`` of ``I2C_setAddressSize_async``."""

    BITS_7 = 0
    BITS_10 = 1


class SPIMode(IntEnum):
    """``mode`` of ``SPI_setMode_async``: clock polarity and phase (CPOL, CPHA)."""

    MODE0 = 0  # CPOL 0, CPHA 0
    MODE1 = 1  # CPOL 0, CPHA 1
    MODE2 = 2  # CPOL 1, CPHA 0
    MODE3 = 3  # CPOL 1, CPHA 1


class SPIDataSize(IntEnum):
    """``mode`` of ``SPI_setDataSize_async``."""

    BITS_8 = 0
    BITS_16 = 1


class SPIFirstBit(IntEnum):
    """``mode`` of ``SPI_setFirstBit_async``."""

    MSB = 0
    LSB = 1


class UARTDataBits(IntEnum):
    """``mode`` of ``UART_setDataBit_async``."""

    BITS_8 = 0
    BITS_9 = 1


class UARTParity(IntEnum):
    """``mode`` of ``UART_setParity_async`` (1 is reserved, yet accepted and sent)."""

    NONE = 0
    RESERVED = 1
    EVEN = 2
    ODD = 3


class UARTStopBits(IntEnum):
    """``mode`` of ``UART_setNumStopBit_async``: note the order, 1, 0.5, 2, 1.5 bits."""

    ONE = 0
    HALF = 1
    TWO = 2
    ONE_AND_HALF = 3


class ThermalNoiseFilter(IntEnum):
    """``mode`` of ``Thermal_setNoiseFilter_async``: the mains frequency rejected."""

    HZ_60 = 0
    HZ_50 = 1


class ThermalOverSampling(IntEnum):
    """``mode`` of ``Thermal_setOverSampling_async``: samples averaged per reading."""

    X1 = 0
    X2 = 1
    X4 = 2
    X8 = 3
    X16 = 4


class ThermocoupleType(IntEnum):
    """``type_`` of ``Thermal_setType_async`` on a thermocouple unit."""

    B = 0
    E = 1
    J = 2
    K = 3
    N = 4
    R = 5
    S = 6
    T = 7


class RTDType(IntEnum):
    """``type_`` of ``Thermal_setType_async`` on an RTD unit."""

    TWO_OR_FOUR_WIRE = 0
    THREE_WIRE = 1


class PinMode(IntEnum):
    """A pin's mode as a number (``pin_mode_list`` after ``Sys_getPinModeInPort_async``, which
    returns the names: "Disabled", "Idle", "DI", ...)."""

    DISABLED = 0
    IDLE = 1
    DI = 2
    DO = 3
    UART = 4
    I2C = 5
    SPI = 6
    CAN = 7
    PWM = 8
    ADC = 9
