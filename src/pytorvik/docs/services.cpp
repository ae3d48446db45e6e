// Texts of what every unit offers beside its I/O: identity, clock, pin modes, network and Wi-Fi
// settings, on-board sensors, discovery.
#include "docs/docs.hpp"

namespace torvik::py_binding {

void documentServices(py::module_& m) {
    applyDocs(m, {
        {"SystemModule.Sys_getDriverInfo_async", "Reads the firmware's information text, split at every \"_\".", "",
         "list[str]: the parts of the text.", TORVIK_DOC_SENDS},
        {"SystemModule.Sys_getRTC_async", "Reads the unit's clock; the text is also kept in rtc_time.", "",
         "str: \"YYYY-MM-DD, hh:mm:ss\".", TORVIK_DOC_SENDS},
        {"SystemModule.Sys_setRTC_async",
         "Sets the unit's clock. A year below 100 has 1900 added (24 means 1924); no value is range-checked\n"
         "here, the firmware judges the date.",
         "year (int): e.g. 2024.\nmonth (int): 1 to 12.\nday (int): 1 to 31.\nhour (int): 0 to 23.\n"
         "minute (int): 0 to 59.\nsecond (int): 0 to 59.",
         STATUS, TORVIK_DOC_SENDS},
        {"SystemModule.Sys_getSerialNumber_async", "Reads the unit's serial number; also kept in serial_number.", "",
         "str: at most 8 characters.", TORVIK_DOC_SENDS},
        {"SystemModule.Sys_getPinModeInPort_async",
         "Reads the mode of every pin of one hardware port.",
         "port (int): hardware port number (the first number of a pin-map cell).",
         "list[str]: one name per pin, pin 0 first: \"Disabled\", \"Idle\", \"DI\", \"DO\", \"I2C\", \"SPI\",\n"
         "\"CAN\", \"PWM\", ... (an odd pin count leaves one extra entry at the end).",
         TORVIK_DOC_SENDS},
        {"SystemModule.Sys_reboot_async", "Restarts the unit's firmware (the reply is still awaited).", "", STATUS,
         TORVIK_DOC_SENDS},
        {"SystemModule.Sys_rebootOnBootloader_async", "Restarts the unit into its bootloader.", "", STATUS,
         TORVIK_DOC_SENDS},

        {"NetworkModule.Net_getIPAddrAndSubmask_async", "Reads the unit's IPv4 address and subnet mask.", "",
         "list[str]: [ip_addr, subnet_mask], dotted texts.", TORVIK_DOC_SENDS},
        {"NetworkModule.Net_setIPAddrAndSubmask_async",
         "Sets the unit's IPv4 address and subnet mask (in effect after the unit restarts).",
         "ip_addr (str): dotted address, e.g. \"192.168.1.110\".\nsubnet_mask (str): dotted mask.",
         STATUS, "InputTypeNotCorrectError: an address that is no text (-8012).\n"
                 "OSError: a text that is no IPv4 address.\n"
                 "asyncio.TimeoutError: no reply within PACKET_TIMEOUT."},
        {"NetworkModule.Net_getMACAddr_async", "Reads the unit's MAC address.", "",
         "str: \"x:x:x:x:x:x\" in hexadecimal without leading zeros.", TORVIK_DOC_SENDS},
        {"NetworkModule.Net_getGateway_async", "Reads the unit's gateway address.", "", "str: dotted address.",
         TORVIK_DOC_SENDS},
        {"NetworkModule.Sys_getIPAddrAndSubmask_async", "The same as Net_getIPAddrAndSubmask_async.", "",
         "list[str]: [ip_addr, subnet_mask].", TORVIK_DOC_SENDS},
        {"NetworkModule.Sys_setIPAddrAndSubmask_async", "The same as Net_setIPAddrAndSubmask_async.",
         "ip_addr (str): dotted address.\nsubnet_mask (str): dotted mask.", STATUS, TORVIK_DOC_SENDS},
        {"NetworkModule.Sys_getMACAddr_async", "The same as Net_getMACAddr_async.", "", "str: the MAC address.",
         TORVIK_DOC_SENDS},
        {"NetworkModule.Sys_getGateway_async", "The same as Net_getGateway_async.", "", "str: dotted address.",
         TORVIK_DOC_SENDS},

        {"SystemAnalogModule.Wifi_readBattery_async", "Reads the battery level (the raw reading is kept in battery).",
         "", "int: the raw reading times 3.", TORVIK_DOC_SENDS},
        {"SystemAnalogModule.Wifi_readThermo_async", "Reads the on-board thermometer; also kept in thermo.", "",
         "float: degrees Celsius in steps of 1/128.", TORVIK_DOC_SENDS},
        {"SystemAnalogModule.Wifi_readAccleration_async", "Reads the on-board accelerometer.", "",
         "list[int]: three raw unsigned 16-bit readings, one per axis, in reply order.", TORVIK_DOC_SENDS},
        {"WifiModule.Wifi_setAP_async", "Switches the unit's Wi-Fi to access-point mode.", "", STATUS,
         TORVIK_DOC_SENDS},
        {"WifiModule.Wifi_readRSSI_async", "Reads the Wi-Fi signal strength; also kept in rssi.", "",
         "int: the level in dBm (negative).", TORVIK_DOC_SENDS},
        {"WifiModule.Wifi_getWifiConfiguration_async", "Reads the unit's Wi-Fi configuration.", "",
         "list[int]: two 16-bit values.", TORVIK_DOC_SENDS},
        {"WifiModule.Wifi_getWifiBandwidth_async", "Reads the Wi-Fi bandwidth setting; also kept in bandwidth.", "",
         "int: the setting byte.", TORVIK_DOC_SENDS},

        {"BroadcastModule.Bcst_enumerateUSBDevices",
         "Lists the units on the USB bus (no connection is opened; works without connect).", "",
         "list[list[str]]: [serial_number, product] per unit.",
         "USBError: libusb is missing or fails (-12 names where it was looked for)."},
        {"BroadcastModule.Bcst_enumerateNetworkDevices_async",
         "Asks every unit on the local networks by UDP broadcast and waits a fixed time for answers.\n"
         "The finder must be connected.",
         "", "list[list[str]]: [ip_addr, subnet_mask, mac_addr, firmware_model] per unit, in no set order;\n"
             "[] when none answers."},
        {"BroadcastModule.Bcst_checkMACAndSetIP_async",
         "Broadcasts a new address for the unit with this MAC address.",
         "ip_addr (str): the new dotted address.\nmac_addr (str): e.g. \"00:1a:2b:3c:4d:5e\".\n"
         "subnet_mask (str): the new dotted mask.",
         "int: the raw status byte of the second distinct reply (not turned into an error).",
         "InputTypeNotCorrectError: an argument that is no text (-8012).\n"
         "IndexError: fewer than two distinct replies."},
        {"BroadcastModule.Bcst_checkMACAndReboot_async",
         "Meant to broadcast a restart to the unit with this MAC address; it always fails after the\n"
         "argument check, before anything is sent.",
         "mac_addr (str): e.g. \"00:1a:2b:3c:4d:5e\".", "int: never returns.",
         "InputTypeNotCorrectError: mac_addr is no text (-8012).\nTypeError: always, after the check."},
        {"DeviceFinder",
         "Finds units: USB units on the bus and network units by UDP broadcast.\n\n"
         "Call connect() first; close() is the only way its receive thread ends. On Linux disconnect()\n"
         "(and so close()) raises NetworkConnectionLostError and a second close() blocks; close it so:\n\n"
         "    finder = DeviceFinder()\n"
         "    try:\n"
         "        finder.connect()\n"
         "        ...\n"
         "    finally:\n"
         "        try:\n"
         "            finder.disconnect()\n"
         "        except NetworkConnectionLostError:\n"
         "            finder.connect_status_udp = False\n"
         "        finder.close()\n\n"
         "or simply `with DeviceFinder() as finder: finder.connect(); ...`, whose exit does that sequence."},
        {"BroadcastDevice.__exit__",
         "Leaves a `with` block: disconnects (a failing shutdown is expected on Linux and passed over),\n"
         "then closes, so the receive thread ends. The block's exception, if any, propagates.",
         "", "bool: False."},
        {"BroadcastDevice.__aexit__", "Leaves an `async with` block as __exit__ does.", "",
         "Coroutine[Any, Any, bool]: gives False."},
    });
}

}  // namespace torvik::py_binding
