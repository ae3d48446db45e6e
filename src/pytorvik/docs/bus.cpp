// Texts of the bus modules: I2C, SPI, UART, CAN and the CAN frame.
#include "docs/docs.hpp"

#define CAN_FRAME_ARGS                                                                       \
    "id_ (int): the identifier (11 bits standard, 29 bits extended).\n"                      \
    "data (list[int]): up to 8 bytes 0..255.\n"                                               \
    "remote (bool): True for a remote frame, False for a data frame.\n"                      \
    "id_format (bool): True for an extended identifier, False for a standard one."

namespace torvik::py_binding {

void documentBus(py::module_& m) {
    applyDocs(m, {
        {"I2CModule.I2C_open_async", "Opens an I2C port (its pins must be Idle).",
         "port (int): a key of I2C_dict (I2C_getPinMap()).", STATUS,
         "I2CPortNotAvaliableError: no such port, or its pins are not idle (-8401).\n" TORVIK_DOC_SENDS},
        {"I2CModule.I2C_close_async", "Closes an I2C port.", "port (int): an I2C port.", STATUS,
         "I2CPortNotAvaliableError: no such port (-8401).\n" TORVIK_DOC_SENDS},
        {"I2CModule.I2C_read_async", "Reads bytes from an I2C device.",
         "port (int): an I2C port.\nread_address (int): the device's 7-bit address.\nbytes_to_read (int): how many.",
         "list[int]: the bytes read (no status is examined).",
         "I2CPortNotAvaliableError: no such port (-8401).\n" TORVIK_DOC_SENDS},
        {"I2CModule.I2C_write_async", "Writes bytes to an I2C device.",
         "port (int): an I2C port.\nwrite_address (int): the device's 7-bit address.\nwrite_data (list[int]): bytes 0..255.",
         STATUS, "I2CPortNotAvaliableError: no such port (-8401).\n" TORVIK_DOC_SENDS},
        {"I2CModule.I2C_reset_async", "Resets an I2C port.", "port (int): an I2C port.", STATUS,
         "I2CPortNotAvaliableError: no such port (-8401).\n" TORVIK_DOC_SENDS},
        {"I2CModule.I2C_setClockRate_async", "Sets the bus clock.",
         "port (int): an I2C port.\nmode (int): 0 standard 100 kHz, 1 fast 400 kHz, 2 fast plus 1 MHz, 3 high speed 3.4 MHz.",
         STATUS, "I2CPortNotAvaliableError: no such port (-8401).\nI2CClockNotSupportError: mode not 0-3 (-8403).\n"
                 TORVIK_DOC_SENDS},
        {"I2CModule.I2C_setAddressSize_async", "Sets the address size.",
         "port (int): an I2C port.\nmode (int): 0 for 7-bit, 1 for 10-bit addresses.", STATUS,
         "I2CPortNotAvaliableError: no such port (-8401).\nI2CAddressSizeNotVaildError: mode not 0/1 (-8404).\n"
         TORVIK_DOC_SENDS},
        {"I2CModule.I2C_getPinMap", "The I2C ports and their pins (the handle's own table).", "",
         "dict[int, list[tuple[int, int]]]: port -> (hardware port, pin) cells."},

        {"SPIModule.SPI_open_async", "Opens an SPI port (its pins must be Idle).",
         "port (int): a key of SPI_dict (SPI_getPinMap()).", STATUS,
         "SPIPortNotAvaliableError: no such port, or its pins are not idle (-8501).\n" TORVIK_DOC_SENDS},
        {"SPIModule.SPI_close_async", "Closes an SPI port.", "port (int): an SPI port.", STATUS,
         "SPIPortNotAvaliableError: no such port (-8501).\n" TORVIK_DOC_SENDS},
        {"SPIModule.SPI_read_async", "Reads bytes from the SPI device.",
         "port (int): an SPI port.\nbytes_to_read (int): how many.", "list[int]: the bytes read (no status is examined).",
         "SPIPortNotAvaliableError: no such port (-8501).\n" TORVIK_DOC_SENDS},
        {"SPIModule.SPI_write_async", "Writes bytes to the SPI device.",
         "port (int): an SPI port.\nwrite_data (list[int]): bytes 0..255.", STATUS,
         "SPIPortNotAvaliableError: no such port (-8501).\n" TORVIK_DOC_SENDS},
        {"SPIModule.SPI_readAndWrite_async", "Writes bytes and reads as many back in the same transfer.",
         "port (int): an SPI port.\nwrite_data (list[int]): bytes 0..255.", "list[int]: the bytes read.",
         "SPIPortNotAvaliableError: no such port (-8501).\n" TORVIK_DOC_SENDS},
        {"SPIModule.SPI_reset_async", "Resets an SPI port.", "port (int): an SPI port.", STATUS,
         "SPIPortNotAvaliableError: no such port (-8501).\n" TORVIK_DOC_SENDS},
        {"SPIModule.SPI_setDataSize_async", "Sets the word size.", "port (int): an SPI port.\nmode (int): 0 8-bit, 1 16-bit.",
         STATUS, "SPIPortNotAvaliableError: no such port (-8501).\nSPIDataSizeNotVaildError: mode not 0/1 (-8503).\n"
                 TORVIK_DOC_SENDS},
        {"SPIModule.SPI_setFirstBit_async", "Sets the bit order.",
         "port (int): an SPI port.\nmode (int): 0 MSB first, 1 LSB first.", STATUS,
         "SPIPortNotAvaliableError: no such port (-8501).\nSPIFirstBitNotVaildError: mode not 0/1 (-8504).\n"
         TORVIK_DOC_SENDS},
        {"SPIModule.SPI_setPrescaler_async", "Sets the clock divider, and so the bus speed.",
         "port (int): an SPI port.\nprescaler (int): 2, 4, 8, 16, 32, 64, 128 or 256.", STATUS,
         "SPIPortNotAvaliableError: no such port (-8501).\nSPIPrescalerNotVaildError: another value (-8505).\n"
         TORVIK_DOC_SENDS},
        {"SPIModule.SPI_setMode_async", "Sets clock polarity and phase (two commands).",
         "port (int): an SPI port.\nmode (int): SPI mode 0 to 3.",
         "int: the two statuses ORed (0 on success; not turned into a firmware code).",
         "SPIPortNotAvaliableError: no such port (-8501).\nSPIModeNotVaildError: mode not 0-3 (-8506).\n"
         TORVIK_DOC_SENDS},
        {"SPIModule.SPI_getPinMap", "The SPI ports and their pins (the handle's own table).", "",
         "dict[int, list[tuple[int, int]]]: port -> (hardware port, pin) cells."},

        {"UARTModule.UART_open_async", "Opens a serial port (its pins must be Idle, DI or DO) and starts receiving.",
         "port (int): 1 or 2, a key of uart_dict (UART_getPinMap()).", STATUS,
         "UARTPortNotAvaliableError: no such port, or its pins are in use (-8601).\n" TORVIK_DOC_SENDS},
        {"UARTModule.UART_close_async", "Closes a serial port and stops its receive worker.", "port (int): a UART port.",
         STATUS, "UARTPortNotAvaliableError: no such port (-8601).\n" TORVIK_DOC_SENDS},
        {"UARTModule.UART_read_async",
         "Waits `delay` seconds, then takes up to bytes_to_read received characters (never more than\n"
         "have arrived; a full queue drops bytes with a UARTQueueOverflowWarning).",
         "port (int): a UART port.\nbytes_to_read (int): the most to take; negative takes all.\n"
         "delay (float): seconds to wait first.",
         "list[str]: one-character strings, one per received byte, oldest first.",
         "UARTPortNotAvaliableError: no such port (-8601).\nInputTypeNotCorrectError: port or count no int (-8012)."},
        {"UARTModule.UART_write_async", "Sends characters, one byte each.",
         "port (int): a UART port.\n"
         "write_data (str | list[str]): a text, or a list of one-character strings; at most 50.",
         STATUS,
         "UARTPortNotAvaliableError: no such port (-8601).\nUARTExceedMaxLengthError: more than 50 (-8602).\n"
         TORVIK_DOC_SENDS},
        {"UARTModule.UART_reset_async", "Resets a serial port.", "port (int): a UART port.", STATUS,
         "UARTPortNotAvaliableError: no such port (-8601).\n" TORVIK_DOC_SENDS},
        {"UARTModule.UART_setBaudRate_async", "Sets the baud rate.",
         "port (int): a UART port.\nbaud_rate (int): bits per second, at most 400000.", STATUS,
         "UARTPortNotAvaliableError: no such port (-8601).\nUARTBaudRateNotSupportError: above 400000 (-8603).\n"
         TORVIK_DOC_SENDS},
        {"UARTModule.UART_setDataBit_async", "Sets the data size.", "port (int): a UART port.\nmode (int): 0 8-bit, 1 9-bit.",
         STATUS, "UARTPortNotAvaliableError: no such port (-8601).\nUARTDataBitNotSupportError: mode not 0/1 (-8606).\n"
                 TORVIK_DOC_SENDS},
        {"UARTModule.UART_setParity_async", "Sets the parity.",
         "port (int): a UART port.\nmode (int): 0 none, 1 reserved, 2 even, 3 odd.", STATUS,
         "UARTPortNotAvaliableError: no such port (-8601).\nUARTParityNotSupportError: mode not 0-3 (-8605).\n"
         TORVIK_DOC_SENDS},
        {"UARTModule.UART_setNumStopBit_async", "Sets the stop bits.",
         "port (int): a UART port.\nmode (int): 0 one, 1 half, 2 two, 3 one and a half stop bits.", STATUS,
         "UARTPortNotAvaliableError: no such port (-8601).\nUARTStopBitNotSupportError: mode not 0-3 (-8604).\n"
         TORVIK_DOC_SENDS},
        {"UARTModule.UART_stopReading_async", "Tells the unit to stop sending received bytes.",
         "port (int): a UART port.", STATUS, "UARTPortNotAvaliableError: no such port (-8601).\n" TORVIK_DOC_SENDS},
        {"UARTModule.UART_getPinMap", "The serial ports and their pins (the handle's own table).", "",
         "dict[int, list[tuple[int, int]]]: port -> (hardware port, pin) cells."},

        {"CANModule.CAN_open_async", "Opens a CAN port (its pins must be Idle, DI or DO) and starts receiving.",
         "port (int): a key of can_dict (CAN_getPinMap()).", STATUS,
         "CANPortNotAvaliableError: no such port, or its pins are in use (-8701).\n" TORVIK_DOC_SENDS},
        {"CANModule.CAN_close_async", "Closes a CAN port and stops its receive worker.", "port (int): a CAN port.",
         STATUS, "CANPortNotAvaliableError: no such port (-8701).\n" TORVIK_DOC_SENDS},
        {"CANModule.CAN_write_async", "Sends one frame (through transmit buffer 0).", "port (int): a CAN port.\n" CAN_FRAME_ARGS,
         STATUS,
         "CANPortNotAvaliableError: no such port (-8701).\nCANDataLengthNotVaildError: more than 8 bytes (-8703).\n"
         "InputDataNotInRangeError: a byte outside 0..255 (-8014).\n" TORVIK_DOC_SENDS},
        {"CANModule.CAN_read_async",
         "Waits `delay` seconds, then takes up to num_frames received frames (never more than have\n"
         "arrived; a full queue drops frames with a CANQueueOverflowWarning).",
         "port (int): a CAN port.\nnum_frames (int): the most to take; negative takes all.\n"
         "delay (float): seconds to wait first.",
         "list[CANFrame]: frames, oldest first.",
         "CANPortNotAvaliableError: no such port (-8701).\nInputTypeNotCorrectError: port or count no int (-8012)."},
        {"CANModule.CAN_start_async", "Starts the bus (no reply is awaited).", "port (int): a CAN port.", "int: 0.",
         "CANPortNotAvaliableError: no such port (-8701)."},
        {"CANModule.CAN_stop_async", "Stops the bus.", "port (int): a CAN port.", STATUS,
         "CANPortNotAvaliableError: no such port (-8701).\n" TORVIK_DOC_SENDS},
        {"CANModule.CAN_setSpeed_async", "Sets the bit rate.",
         "port (int): a CAN port.\nmode (int): 0 125 kbit/s, 1 250 kbit/s, 2 500 kbit/s, 3 1 Mbit/s.", STATUS,
         "CANPortNotAvaliableError: no such port (-8701).\nCANSpeedNotVaildError: mode not 0-3 (-8702).\n"
         TORVIK_DOC_SENDS},
        {"CANModule.CAN_setRXFilteringOn_async", "Switches receive filtering on or off.",
         "port (int): a CAN port.\nstatus (bool): True on.", STATUS,
         "CANPortNotAvaliableError: no such port (-8701).\n" TORVIK_DOC_SENDS},
        {"CANModule.CAN_setRXFilterOrMask_async",
         "Sets a receive filter or mask from a frame's identifier and flags (data is cut to 8 bytes, index\n"
         "goes to the unit unchecked).",
         "port (int): a CAN port.\nindex (int): 0 to 5 are filters, 6 and 7 masks.\n" CAN_FRAME_ARGS, STATUS,
         "CANPortNotAvaliableError: no such port (-8701).\n" TORVIK_DOC_SENDS},
        {"CANModule.CAN_getPinMap", "The CAN ports and their pins (the handle's own table).", "",
         "dict[int, list[tuple[int, int]]]: port -> (hardware port, pin) cells."},

        {"CANFrame.__repr__", "The frame's fields.", "", "str: e.g. CANFrame(id=0x123, id_format=0, remote=0, data=[...])."},
        {"CANFrame",
         "A CAN frame: identifier, format and remote flags, eight data bytes, and its 12-byte wire form.\n"
         "CANFrame(id_, id_format=0, remote=0, data=[0] * 8).",
         "id (int): the identifier.\nid_format (int): 1 extended, 0 standard.\nremote (int): 1 remote, 0 data frame.\n"
         "data (list[int]): eight bytes.\nid_in_list (list[int]): the identifier's 4 wire bytes.\n"
         "frame_in_list (list[int]): the 12 wire bytes."},
        {"CANFrame.regularizeData", "A new list of exactly eight bytes: padded with zeros behind, or cut.",
         "data (list[int]): the bytes.", "list[int]: eight bytes."},
        {"CANFrame.setID", "Recomputes id_in_list and frame_in_list from id, id_format, remote and data."},
        {"CANFrame.fromU8List", "Builds a frame from its wire bytes.",
         "u8_list (list[int]): at least 4 bytes: identifier and flags, then up to 8 data bytes.",
         "CANFrame: the frame."},
    });
}

}  // namespace torvik::py_binding
