"""The firmware models of torvik-sim, seen from a host made of plain sockets: what each command
family answers, per product where the tables differ, and how the control requests steer it."""
import socket

import pytest

from pytorvik import simctl
from test_sim import recv_exactly, request

# Codes, as the wire numbers them.
GET_DRIVER_INFO, GET_DATE_TIME, SET_DATE_TIME = 0xF0, 0xF1, 0xF2
GET_IP, SET_IP, GET_MAC, SET_MAC = 0xF3, 0xF4, 0xF5, 0xF6
GET_EEPROM_PAGE, SET_EEPROM_PAGE, GET_EEPROM_DEVICE, SET_EEPROM_BYTE = 0xF7, 0xF8, 0xF9, 0xFF
REBOOT, REBOOT_ON_BOOTLOADER, RESET_FACTORY = 0xFA, 0xFB, 0x79
GET_SERIAL_NUMBER, SET_SERIAL_NUMBER, GET_GATEWAY, SET_GATEWAY = 0x7A, 0x7B, 0x7C, 0x7D
GET_THREADS, GET_PIN_MODE_OF_SLOT = 0x7E, 0x7F
READ_ACCELERATION, SET_AP, GET_RSSI, GET_BATTERY, GET_THERMOMETER = 0x6F, 0x70, 0x71, 0x72, 0x73
SET_WIFI_CONFIGURATION, GET_WIFI_CONFIGURATION, SET_WIFI_BANDWIDTH, GET_WIFI_BANDWIDTH = 0x74, 0x75, 0x76, 0x77
LOAD_DIO_STARTUP, SAVE_DIO_STARTUP, GET_DIO_CURRENT, SET_DIO_CURRENT, TOGGLE_DIO_DIR = 0xE0, 0xE1, 0xE2, 0xE3, 0xE4
GET_DIO_STATE, SET_DIO_STATE, READ_DI, WRITE_DO, READ_AND_GET_DI = 0xE5, 0xE6, 0xE7, 0xE8, 0xE9
SET_AND_WRITE_DO, SET_SLOT_DI, SET_SLOT_DO, SET_SLOT_IDLE, TOGGLE_AND_WRITE_DO = 0xEA, 0xEB, 0xEC, 0xED, 0xEE
START_AI_STREAMING, RELAY_READ, GET_DEVICE_INFO = 0xB7, 0x1B00, 0xFC

ONES = bytes([1] * 6)  # what the two whole-register reads carry after port (and mask)
IDLE, DI, DO = "Idle", "DI", "DO"


def w(*words):
    """16-bit words, high byte first."""
    return b"".join(v.to_bytes(2, "big") for v in words)


class Host:
    """A plain-socket host: ask() sends one request and returns the reply's payload."""

    def __init__(self, unit):
        self.unit = unit
        self.sock = socket.create_connection((unit.addr, unit.cmd_port), timeout=3)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def ask(self, code, payload=b""):
        self.sock.sendall(request(code, bytes(payload)))
        head = recv_exactly(self.sock, 4)
        length, width = int.from_bytes(head[1:3], "big"), 1 if 48 < head[3] < 256 else 2
        body = head[3:] + recv_exactly(self.sock, length + 2 - 1)
        assert int.from_bytes(body[:width], "big") == code and body[-2:] == b"\r\n"
        return body[width:-2]


@pytest.fixture
def start(sim):
    """start("TorvikLanLogic") -> a Host connected to a fresh unit of that class."""
    def run(cls):
        host = Host(sim(cls).unit)
        hosts.append(host)
        return host
    hosts = []
    yield run
    for h in hosts:
        h.sock.close()


@pytest.fixture
def lan(start):
    return start("TorvikLanLogic")


@pytest.fixture
def air(start):
    return start("TorvikAirAnalog")


# ---- replies as the tables have them ---------------------------------------------------------------

# reply: the payload's bytes, or a text (where "{serial}" stands for the unit's serial number)
@pytest.mark.parametrize("cls,code,payload,reply", [
    ("TorvikCore", GET_DRIVER_INFO, [7], "TorvikCore_2.4.1_2024-05-17"),        # unknown modes answer as mode 0
    ("TorvikLanRelay", GET_DRIVER_INFO, [1], "Torvik-LAN-Relay_rev-C_{serial}"),
    ("TorvikLanOutput", GET_DRIVER_INFO, [2], "bootloader_1.1.0_2023-11-02"),
    ("TorvikLanLogic", GET_THREADS, [], "main R 1 212\ncmd B 3 480\neth B 4 690\ndio B 2 300\nidle R 0 96\n"),
    # Wi-Fi and sensors (the sensors' encodings once steered are in test_wifi_settings_stored_and_sensors_steered)
    ("TorvikAirAnalog", GET_BATTERY, [1], [1, 0x05, 0x64]),                   # 1380
    ("TorvikAirAnalog", SET_AP, [1], [1, 0]),
    ("TorvikAirAnalog", GET_RSSI, [2], [2, 1]),                               # the radio is port 1
    ("TorvikAirAnalog", GET_BATTERY, [1, 0], [1, 23]),
    ("TorvikAirAnalog", SET_WIFI_BANDWIDTH, [1, 7], [1, 11]),
    # what a unit does not know
    ("TorvikAirAnalog", READ_DI, [1, 0], [1, 23]),          # no digital I/O
    ("TorvikLanLogic", 0x60, [4], [4, 23]),                 # unassigned
    ("TorvikLanLogic", RELAY_READ, [2], [2, 23]),           # no relays
    ("TorvikLanLogic", REBOOT_ON_BOOTLOADER, [], [0]),
])
def test_replies(start, cls, code, payload, reply):
    h = start(cls)
    if isinstance(reply, str):
        reply = reply.format(serial=h.unit.serial).encode()
    assert h.ask(code, payload) == bytes(reply)


# ---- system -------------------------------------------------------------------------------------


# The calendar itself (its start, leap years, months from zero on Wi-Fi units, a held clock) is
# tested in tests/core/test_sim_firmware.cpp.
def test_control_holds_the_clock(lan):
    lan.unit.set_clock("2023-07-04T09:05:00", run=False)
    assert lan.unit.clock() == ("2023-07-04T09:05:00", False)
    assert lan.ask(GET_DATE_TIME, bytes(6)) == bytes([123, 7, 4, 9, 5, 0])
    for date, status in [([123, 1, 1, 24, 0, 0], 11), ([123, 1, 1], 23)]:
        assert lan.ask(SET_DATE_TIME, date) == bytes([status]), date
    assert lan.unit.clock()[1] is False  # refused sets change nothing
    lan.ask(SET_DATE_TIME, [100, 1, 1, 0, 0, 0])  # a set from the host makes it run
    assert lan.unit.clock()[1] is True


def test_eeprom_pages(lan):
    assert lan.ask(GET_EEPROM_DEVICE, [0]) == bytes([0, 32, 0, 128])
    assert lan.ask(GET_EEPROM_PAGE, [5]) == b"\xff" * 32
    assert lan.ask(SET_EEPROM_PAGE, bytes([5]) + bytes(range(10))) == b"\x00"
    assert lan.ask(SET_EEPROM_BYTE, [5, 31, 0xAB]) == b"\x00"
    assert lan.ask(GET_EEPROM_PAGE, [5]) == bytes(range(10)) + b"\xff" * 21 + b"\xab"
    for code, payload in [(GET_EEPROM_PAGE, [128]), (SET_EEPROM_PAGE, bytes([0]) + bytes(33)),
                          (SET_EEPROM_BYTE, [0, 32, 1]), (SET_EEPROM_BYTE, [200, 0, 1]), (GET_EEPROM_DEVICE, [1])]:
        assert lan.ask(code, payload) == b"\x09", (hex(code), payload)
    assert lan.ask(GET_EEPROM_PAGE, [127]) == b"\xff" * 32


# ---- network --------------------------------------------------------------------------------------

def test_network_defaults_follow_the_unit(lan):
    ip = bytes(map(int, lan.unit.addr.split(".")))
    assert lan.ask(GET_IP) == ip + bytes([255, 255, 255, 0])
    assert lan.ask(GET_GATEWAY) == ip[:3] + b"\x01"
    mac = lan.ask(GET_MAC)
    assert len(mac) == 6 and mac[:2] == b"\x02\x54"


@pytest.mark.parametrize("code,payload,status,read_code,read", [
    (SET_IP, [10, 0, 0, 5, 255, 0, 0, 0], 0, GET_IP, [10, 0, 0, 5, 255, 0, 0, 0]),
    (SET_IP, [192, 168, 1, 110, 255, 0, 255, 0], 11, None, None),   # no mask
    (SET_IP, [192, 168, 1, 110], 23, None, None),
    (SET_GATEWAY, [192, 168, 1, 1], 0, GET_GATEWAY, [192, 168, 1, 1]),
    (SET_GATEWAY, [0, 0, 0, 0], 11, None, None),
    (SET_MAC, [0, 26, 43, 60, 77, 94], 0, GET_MAC, [0, 26, 43, 60, 77, 94]),
    (SET_MAC, [1, 26, 43, 60, 77, 94], 11, None, None),   # multicast
    (SET_MAC, [0, 26, 43, 60, 77], 23, None, None),
    (SET_SERIAL_NUMBER, b"AB", 0, GET_SERIAL_NUMBER, b"AB"),
    (SET_SERIAL_NUMBER, b"", 11, None, None),
    (SET_SERIAL_NUMBER, b"X" * 17, 11, None, None),
])
def test_settings_are_stored(lan, code, payload, status, read_code, read):
    before = {c: lan.ask(c) for c in (GET_IP, GET_GATEWAY, GET_MAC, GET_SERIAL_NUMBER)}
    assert lan.ask(code, payload) == bytes([status])
    if read_code:
        assert lan.ask(read_code) == bytes(read)
    else:
        assert {c: lan.ask(c) for c in before} == before


def test_factory_reset_restores_defaults_but_keeps_serial_and_clock(lan):
    factory = {c: lan.ask(c) for c in (GET_IP, GET_GATEWAY, GET_MAC)}
    lan.ask(SET_IP, [10, 0, 0, 5, 255, 0, 0, 0])
    lan.ask(SET_GATEWAY, [10, 0, 0, 1])
    lan.ask(SET_MAC, [0, 1, 2, 3, 4, 5])
    lan.ask(SET_SERIAL_NUMBER, b"NEW00001")
    lan.ask(SET_EEPROM_BYTE, [0, 0, 0])
    lan.ask(SET_DATE_TIME, [123, 7, 4, 9, 5, 0])
    assert lan.ask(RESET_FACTORY) == b"\x00"
    assert {c: lan.ask(c) for c in factory} == factory
    assert lan.ask(GET_EEPROM_PAGE, [0]) == b"\xff" * 32
    assert lan.ask(GET_SERIAL_NUMBER) == b"NEW00001"
    assert lan.ask(GET_DATE_TIME, bytes(6))[:3] == bytes([123, 7, 4])


# ---- Wi-Fi and sensors ------------------------------------------------------------------------------

def test_wifi_settings_stored_and_sensors_steered(air):
    assert air.ask(SET_WIFI_CONFIGURATION, [1, 0, 3, 1, 44]) == b"\x01\x00"
    assert air.ask(GET_WIFI_CONFIGURATION, [1]) == bytes([1, 0, 3, 1, 44])
    assert air.ask(SET_WIFI_BANDWIDTH, [1, 40]) == b"\x01\x00"
    assert air.ask(GET_WIFI_BANDWIDTH, [1]) == b"\x01\x28"
    got = air.unit.set_sensors(rssi=-70, thermo=-256, accel=(1, 2, 65535))
    assert got == {"rssi": -70, "battery": 1380, "thermo": -256, "accel": (1, 2, 65535)}
    assert [air.ask(c, [1]) for c in (GET_RSSI, GET_THERMOMETER, READ_ACCELERATION)] == [
        bytes([1, 186]), bytes([1, 0xFF, 0x00]), bytes([1, 0, 1, 0, 2, 0xFF, 0xFF])]
    air.ask(RESET_FACTORY)
    assert air.ask(GET_WIFI_CONFIGURATION, [1]) == bytes([1, 0, 5, 0, 60])  # as it came
    assert air.ask(GET_RSSI, [1]) == bytes([1, 186])  # sensors measure on


# ---- what the unit leaves to others -----------------------------------------------------------------

def test_stream_and_discovery_codes_stay_unanswered(lan):
    lan.sock.sendall(request(START_AI_STREAMING, b"\x00") + request(GET_DEVICE_INFO, b"\x00"))
    assert lan.ask(GET_SERIAL_NUMBER).decode() == lan.unit.serial  # the next bytes are this reply


def test_fault_status_goes_where_the_firmware_puts_it(lan):
    lan.unit.status(7, code=SET_GATEWAY)
    lan.unit.status(5, code=SET_DIO_STATE)
    assert lan.ask(SET_GATEWAY, [1, 2, 3, 4]) == b"\x07"
    assert lan.ask(SET_DIO_STATE, [0, 0, 1, 0, 1]) == b"\x00\x05"


# ---- pin modes --------------------------------------------------------------------------------------

def test_opens_and_closes_change_pin_modes(lan):
    u = lan.unit
    assert lan.ask(SET_DIO_CURRENT, [1] + list(w(0xFFFF, 0xFFFF, 0, 0))) == b"\x01\x00"    # DI port 1
    assert lan.ask(SET_DIO_CURRENT, [0] + list(w(0b101, 0xFFFF, 0xFFFF, 0))) == b"\x00\x00"  # DO pins 0, 2
    assert u.pin_modes(1) == [DI] * 8 and u.pin_modes(0) == [DO, IDLE, DO, IDLE, IDLE, IDLE]
    assert lan.ask(GET_PIN_MODE_OF_SLOT, [0]) == bytes([0, 6, 0x13, 0x13, 0x11])
    assert lan.ask(GET_DIO_CURRENT, [0, 0xFF, 0xFF] + list(ONES)) == bytes([0]) + w(0b101, 0b101, 0)
    assert lan.ask(SET_DIO_CURRENT, [0] + list(w(0b1, 0, 0, 0))) == b"\x00\x00"  # close pin 0
    assert u.pin_modes(0)[:3] == [IDLE, IDLE, DO]
    assert lan.ask(SET_SLOT_IDLE, [1, 0]) == b"\x01\x00"
    assert u.pin_modes(1) == [IDLE] * 8


# 13: not allowed now; 23: not the request's layout. Neither changes anything.
@pytest.mark.parametrize("code,payload,status", [
    (SET_DIO_CURRENT, [1] + list(w(0xFFFF, 0xFFFF, 0xFFFF, 0)), 13),  # outputs on an input port
    (SET_DIO_CURRENT, [2] + list(w(0xFFFF, 0xFFFF, 0, 0)), 13),      # a port the unit lacks
    (SET_DIO_STATE, [0] + list(w(1, 1)), 13),                        # pin 0 is not an open output
    (SAVE_DIO_STARTUP, [1] + list(w(1, 1, 0)), 13),
    (TOGGLE_DIO_DIR, [0] + list(w(1, 0)), 13),                       # not open
    (SET_AND_WRITE_DO, [0] + list(w(1, 1)), 13),
    (GET_DIO_CURRENT, [0, 0xFF, 0xFF] + [0] * 6, 23),                # the six bytes must be 1
    (LOAD_DIO_STARTUP, [0], 23),
])
def test_digital_refusals_change_nothing(lan, code, payload, status):
    before = [lan.unit.dio_registers(p) for p in (0, 1)]
    assert lan.ask(code, payload) == bytes([payload[0], status])
    assert [lan.unit.dio_registers(p) for p in (0, 1)] == before


def test_a_pin_held_by_another_function_cannot_be_opened(lan):
    lan.unit.set_pin_mode(0, 3, "UART")
    assert lan.ask(SET_SLOT_DO, [0, 0]) == b"\x00\x0d"
    assert lan.ask(SET_DIO_CURRENT, [0] + list(w(0b111, 0xFFFF, 0xFFFF, 0))) == b"\x00\x00"
    assert lan.ask(SET_SLOT_IDLE, [0, 0]) == b"\x00\x00"  # frees the digital pins only
    assert lan.unit.pin_modes(0) == [IDLE, IDLE, IDLE, "UART", IDLE, IDLE]
    assert lan.ask(REBOOT) == b"\x00"
    assert lan.unit.pin_modes(0) == [IDLE] * 6


# ---- digital loopback -----------------------------------------------------------------------------

def open_lan_loopback(lan):
    assert lan.ask(SET_DIO_CURRENT, [0] + list(w(0xFFFF, 0xFFFF, 0xFFFF, 0))) == b"\x00\x00"
    assert lan.ask(SET_DIO_CURRENT, [1] + list(w(0xFFFF, 0xFFFF, 0, 0))) == b"\x01\x00"


def test_state_is_driven_only_when_written(lan):
    open_lan_loopback(lan)
    assert lan.ask(SET_DIO_STATE, [0] + list(w(0b1111, 0b1010))) == b"\x00\x00"
    assert lan.ask(GET_DIO_STATE, [0] + list(w(0xFFFF))) == bytes([0]) + w(0b1010)
    assert lan.ask(READ_DI, [1, 0]) == b"\x01\x00"
    assert lan.ask(GET_DIO_STATE, [1] + list(w(0xFFFF))) == bytes([1]) + w(0)
    assert lan.ask(WRITE_DO, [0, 0]) == b"\x00\x00"
    assert lan.unit.dio_registers(0)["driven"] == 0b1010
    assert lan.ask(READ_DI, [1, 0]) == b"\x01\x00"
    assert lan.ask(GET_DIO_STATE, [1] + list(w(0xFFFF))) == bytes([1]) + w(0b1010)


def test_wiring_and_levels_through_control(lan):
    u = lan.unit
    assert u.wiring() == [((0, n), (1, n)) for n in range(6)]  # by default outputs loop to inputs
    open_lan_loopback(lan)
    u.set_levels(1, 0b11000000)  # pins 6 and 7 have no wire
    assert lan.ask(SET_AND_WRITE_DO, [0] + list(w(0xFFFF, 0b100101))) == bytes([0]) + w(0b100101)
    assert lan.ask(READ_AND_GET_DI, [1] + list(w(0xFFFF))) == bytes([1]) + w(0b11100101)
    assert lan.ask(READ_AND_GET_DI, [1] + list(w(0b11))) == bytes([1]) + w(0b01)
    assert lan.ask(TOGGLE_AND_WRITE_DO, [0] + list(w(0b11))) == bytes([0]) + w(0b100110)
    assert lan.ask(READ_AND_GET_DI, [1] + list(w(0x3F))) == bytes([1]) + w(0b100110)
    u.clear_wiring()  # unwired, the inputs read their set levels
    u.set_levels(1, 0b10, mask=0b11)
    assert lan.ask(READ_AND_GET_DI, [1] + list(w(0xFF))) == bytes([1]) + w(0b11000010)
    u.wire(((0, 5), (1, 0)))
    assert u.wiring() == [((0, 5), (1, 0))]
    assert lan.ask(READ_AND_GET_DI, [1] + list(w(0xFF))) == bytes([1]) + w(0b11000011)
    u.wire(((0, 4), (1, 0)))  # pin 1.0 takes its new wire
    u.default_wiring()
    assert u.wiring() == [((0, n), (1, n)) for n in range(6)]
    for bad in [((0, 6), (1, 0)), ((0, 1), (0, 1)), ((2, 0), (1, 0))]:
        with pytest.raises(simctl.SimError, match="cannot wire"):
            u.wire(bad)


def test_start_up_values_come_into_force_at_reboot(lan):
    assert lan.ask(LOAD_DIO_STARTUP, [0] + list(ONES)) == bytes([0]) + w(0, 0, 0)
    assert lan.ask(SAVE_DIO_STARTUP, [0] + list(w(0x3F, 0x3F, 0b11))) == b"\x00\x00"
    assert lan.ask(SAVE_DIO_STARTUP, [1] + list(w(0xFF, 0, 0))) == b"\x01\x00"
    assert lan.unit.pin_modes(0) == [IDLE] * 6  # saved, not yet in force
    assert lan.ask(LOAD_DIO_STARTUP, [0] + list(ONES)) == bytes([0]) + w(0x3F, 0x3F, 0b11)
    assert lan.ask(REBOOT) == b"\x00"
    assert lan.unit.pin_modes(0) == [DO] * 6 and lan.unit.pin_modes(1) == [DI] * 8
    assert lan.ask(READ_AND_GET_DI, [1] + list(w(0xFF))) == bytes([1]) + w(0b11)
    assert lan.ask(RESET_FACTORY) == b"\x00"
    assert lan.ask(LOAD_DIO_STARTUP, [0] + list(ONES)) == bytes([0]) + w(0, 0, 0)
    assert lan.unit.pin_modes(0) == [IDLE] * 6

