// Texts of the vocabulary: errors, warnings, byte conversions and argument checks.
#include "docs/docs.hpp"

namespace torvik::py_binding {

void documentWire(py::module_& m) {
    applyDocs(m, {
        {"Error",
         "Base of every error of the library: a fixed negative code and a message.\n\n"
         "Argument checks and connection failures are raised as subclasses of Error. A firmware\n"
         "refusal is not raised by operations: it comes back as their result, -7001 to -7023.\n"
         "str(err) gives \"Error {code}: {msg}\".",
         "code (int): the error's number, e.g. -8012 for InputTypeNotCorrectError.\n"
         "msg (str): its message."},
        {"TorvikWarning",
         "Base of the library's warnings: a positive code and a message.\n\n"
         "Building one prints the current stack and issues \"Warning {code}: {msg}\" as a plain\n"
         "UserWarning (so filter by message, not by this class); silent=True builds it quietly.\n"
         "The stream workers build them when their queue is full; they are never raised.",
         "code (int): the warning's number, e.g. 520003 for AIQueueOverflowWarning.\n"
         "msg (str): its message."},
        {"printGenericError", "Prints the error's class name, a colon and its text on one line.",
         "err (BaseException): the error to print."},
        {"checkFirmwareError",
         "Turns a firmware status byte into success or the firmware error it names.",
         "error_code (int): the status byte of a reply.",
         "int: error_code itself for 0 (success) and for unknown values (24 and up, negative ones).",
         "FirmwareEnableError: for 1 (-7001), and the other Firmware*Error classes for 2 to 23\n"
         "(-7002 to -7023)."},

        {"convert2U8ToU16", "Reads two bytes, high byte first, as an unsigned 16-bit number.",
         "int_list (list[int]): exactly 2 bytes.", "int: 0 to 65535.", "ValueError: a list of another length."},
        {"convert4U8ToU32", "Reads four bytes, high byte first, as an unsigned 32-bit number.",
         "int_list (list[int]): exactly 4 bytes.", "int: 0 to 2**32 - 1.", "ValueError: a list of another length."},
        {"convert8U8ToU64", "Reads eight bytes, high byte first, as an unsigned 64-bit number.",
         "int_list (list[int]): exactly 8 bytes.", "int: 0 to 2**64 - 1.", "ValueError: a list of another length."},
        {"convert2U8ToI16", "Reads two bytes, high byte first, as a signed 16-bit number (two's complement).",
         "int_list (list[int]): exactly 2 bytes.", "int: -32768 to 32767.", "ValueError: a list of another length."},
        {"convert4U8ToI32", "Reads four bytes, high byte first, as a signed 32-bit number (two's complement).",
         "int_list (list[int]): exactly 4 bytes.", "int: a signed 32-bit value.", "ValueError: a list of another length."},
        {"convert8U8ToI64", "Reads eight bytes, high byte first, as a signed 64-bit number (two's complement).",
         "int_list (list[int]): exactly 8 bytes.", "int: a signed 64-bit value.", "ValueError: a list of another length."},
        {"convert4U8ToF32", "Reads four bytes, high byte first, as an IEEE 754 single.",
         "int_list (list[int]): exactly 4 bytes.", "float: the value, widened to a double.",
         "ValueError: a list of another length."},
        {"convert8U8ToF64", "Reads eight bytes, high byte first, as an IEEE 754 double.",
         "int_list (list[int]): exactly 8 bytes.", "float: the value.", "ValueError: a list of another length."},
        {"convertU16To2U8", "Casts to unsigned 16 bits (wrapping, no range check) and packs high byte first.",
         "value (int): the number.", "list[int]: 2 bytes, e.g. [2, 1] for 513."},
        {"convertU32To4U8", "Casts to unsigned 32 bits (wrapping, no range check) and packs high byte first.",
         "value (int): the number.", "list[int]: 4 bytes."},
        {"convertU64To8U8", "Casts to unsigned 64 bits (wrapping, no range check) and packs high byte first.",
         "value (int): the number.", "list[int]: 8 bytes."},
        {"convertI16To2U8", "Casts to signed 16 bits (wrapping, no range check) and packs high byte first.",
         "value (int): the number.", "list[int]: 2 bytes, e.g. [255, 255] for -1."},
        {"convertI32To4U8", "Casts to signed 32 bits (wrapping, no range check) and packs high byte first.",
         "value (int): the number.", "list[int]: 4 bytes."},
        {"convertI64To8U8", "Casts to signed 64 bits (wrapping, no range check) and packs high byte first.",
         "value (int): the number.", "list[int]: 8 bytes."},
        {"convertF32To4U8", "Packs a number as an IEEE 754 single, high byte first.",
         "value (float): the number (int or float).", "list[int]: 4 bytes."},
        {"convertF64To8U8", "Packs a number as an IEEE 754 double, high byte first.",
         "value (float): the number (int or float).", "list[int]: 8 bytes."},
        {"convertU8ListToStr",
         "Decodes bytes as UTF-8 (strict) and cuts the text at its first NUL character.",
         "int_list (list[int]): the bytes.", "str: the text; an empty list gives \"\".",
         "UnicodeDecodeError: bytes that are no valid UTF-8."},
        {"convertStrToU8List",
         "The code point of each character, one entry per character (no encoding: a character above\n"
         "255 gives an entry above 255).",
         "str_ (str): the text.", "list[int]: one code point per character."},
        {"convertIPAddrTo4U8", "Parses a dotted IPv4 address (as inet_aton reads it) into its four bytes.",
         "value (str): e.g. \"192.168.1.110\".", "list[int]: 4 bytes, first octet first.",
         "OSError: a text that is no IPv4 address."},
        {"convertMACAddrTo6U8",
         "Splits a MAC address at \":\" and reads each part as a hexadecimal number (the count of parts is\n"
         "not checked).",
         "str_ (str): e.g. \"00:1a:2b:3c:4d:5e\".", "list[int]: one value per part.",
         "ValueError: a part that is no hexadecimal number."},
        {"convertIntToBinaryList",
         "The bits of a number, least significant first, at least `width` of them (more when the value\n"
         "needs more).",
         "value_int (int): the number, e.g. a pin mask.\nwidth (int): the least number of bits returned.",
         "list[int]: 0s and 1s, e.g. [1, 0, 1, 0, 0, 0, 0, 0] for (5, 8)."},
        {"convertIndexAndBinaryListsToInt",
         "A mask with bit i set from the value given for it: values are clamped to 0..1 first, the\n"
         "shorter list ends the walk.",
         "index_list (list[int]): bit positions.\nbinary_list (list[int]): one value per position.",
         "int: the mask, e.g. 9 for ([0, 3], [1, 7])."},
        {"convertIndexListToInt", "A mask with bit i set for each index i (duplicates fall together).",
         "index_list (list[int]): bit positions.", "int: the mask."},
        {"convertIntToIndexList", "The positions of the set bits of a mask, ascending.",
         "value_int (int): the mask.", "list[int]: bit positions; 0 gives []."},
        {"coerce", "Clamps each element into the closed range lower..upper.",
         "list_ (list[float]): the values.\nlower (float): lowest value kept.\nupper (float): highest value kept.",
         "list[Any]: the clamped values."},
        {"adjustDataList",
         "Fits a list to a length: longer lists are cut, shorter ones padded with zeros behind.\n"
         "padding_num counts zeros added in front (it is not the fill value), so a non-zero\n"
         "padding_num gives a longer list.",
         "data_list (list[float]): the values.\nlist_length (int): the length wanted.\n"
         "padding_num (int): leading zeros to add when padding.",
         "list[Any]: the fitted list."},
        {"checkInputType",
         "Checks that an argument is an instance of the given types (bool counts as int).",
         "data (Any): the argument.\ncorrect_type (Any): a type or a tuple of types; by default (int, list).",
         "bool: True.", "InputTypeNotCorrectError: data is of another type (-8012)."},
        {"checkInputTypeConsistent",
         "Checks that two arguments have exactly the same type (subclasses count as different).",
         "data (Any): the first argument.\ndata2 (Any): the second.", "bool: True.",
         "InputTypeNotConsistentError: the types differ (-8011)."},
        {"checkEachItemInRange",
         "Checks that every item lies in low..high, both bounds included (an empty list passes).",
         "int_list (list[float]): the values.\nlow (float): lowest allowed.\nhigh (float): highest allowed.\n"
         "msg (str): the error's message; None keeps the class's own text.",
         "bool: True.", "InputDataNotInRangeError: the first item out of range (-8014)."},
        {"checkFuncPinMap",
         "Whether the pin of one cell is in one of the allowed modes.",
         "cell (tuple[int, int]): (hardware port, pin); only the pin is looked at.\n"
         "pinmap_list (list[str]): the mode names of that hardware port (Sys_getPinModeInPort_async).\n"
         "allow_state_list (list[str]): the allowed mode names, e.g. [\"Idle\"].",
         "bool: whether pinmap_list[pin] is allowed."},
        {"checkPinMap", "Whether the pins of all cells are in allowed modes (an empty list gives True).",
         "cell_list (list[tuple[int, int]]): (hardware port, pin) cells.\n"
         "pinmap_list (list[str]): the mode names of the hardware port.\n"
         "allow_state_list (list[str]): the allowed mode names.",
         "bool: False at the first cell not allowed, else True."},
    });
}

}  // namespace torvik::py_binding
