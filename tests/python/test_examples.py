"""The example programs, run as shipped: under torvik-sim with no target on the command line, so
that each finds its unit through the emulator and sets up what it needs there itself."""
import csv
import os
import re
import socket
import subprocess
import sys

import pytest

from pytorvik import simctl

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")
HELPERS = {"target", "ai_acquire"}
LOGIC, ANALOG, OUTPUT, AIR = "TorvikLanLogic", "TorvikLanAnalog", "TorvikLanOutput", "TorvikAirAnalog"


# example: (network units, USB units, what its output must hold)
CASES = {
    "quickstart": ([LOGIC], [], ["['Torvik-LAN-Logic', '", "[1, 0, 1, 0, 1, 0, 0, 0]"]),
    "DIO_loopback_port": ([LOGIC], [], ["DO port 0 wrote [1, 0, 1, 0, 1, 0] | DI port 1 reads [1, 0, 1, 0, 1, 0]"]),
    "DIO_loopback_pins": ([LOGIC], [], ["<- [1, 0, 1] | DI P1 pins [0, 2, 3] read [1, 0, 1]"]),
    "DO_write_port": ([LOGIC], [], ["write [1, 0, 1, 0, 1, 0] -> levels [1, 0, 1, 0, 1, 0, 0, 0]", "close: 0"]),
    "DO_write_pins": ([LOGIC], [], ["pins [0, 1, 2] <- [1, 0, 1]: levels [1, 0, 1, 0, 0, 0, 0, 0]",
                                    "mask 0b111 <- 0b10: levels [0, 1, 0, 0"]),
    "DO_blinky_port": ([LOGIC], [], ["port 0 on : [1, 1, 1, 1, 1, 1, 0, 0]", "port 0 off: [0, 0, 0, 0, 0, 0, 0, 0]"]),
    "DO_blinky_pins": ([LOGIC], [], ["pins [0, 1] <- [0, 1]: [0, 1, 0, 0, 0, 0, 0, 0]"]),
    "get_network_info": ([LOGIC], [], ["driver info:   ['Torvik-LAN-Logic'", "subnet mask:   255.255.255.0"]),
    "get_pin_mode": ([LOGIC], [], ["port 1: P1.0 Idle"]),
    "single_loop_async": ([LOGIC], [], ["9: 20"]),
    "single_loop_thread": ([LOGIC], [], ["9: 20"]),
    "multiple_loops_async": ([LOGIC], [], ["clock 5: ", "info 3: ['Torvik-LAN-Logic'", "serial 4: ", "all loops done"]),
    "multiple_loops_thread": ([LOGIC], [], ["clock 5: ", "info 3: ['Torvik-LAN-Logic'", "all loops done"]),
    "blocking_dio": ([LOGIC], [], ["<- [1, 0, 1] | DI reads [1, 0, 1]", "close: 0 0"]),
    "blocking_ai": ([ANALOG], [], ["volts: [", "500 frames at 5000 Hz", "close: 0"]),
    "AI_on_demand_once": ([ANALOG], [], ["open: 0", "volts: [", "close: 0"]),
    "AI_on_demand_in_loop": ([ANALOG], [], ["read 9: ["]),
    "AI_N_samples_once": ([ANALOG], [], ["1000 frames at 10000 Hz"]),
    "AI_N_samples_in_loop": ([ANALOG], [], ["round 2: 500 frames"]),
    "AI_continuous": ([ANALOG], [], [" frames in 2 s at 2000 Hz"]),
    "AI_continuous_with_logger": ([ANALOG], [], [" frames logged", "Close file name: (AI_continuous_with_logger.csv)"]),
    "AO_write_one_channel": ([OUTPUT], [], ["outputs: [10.0, 0.0", "close: 0"]),
    "AO_write_all_channels": ([OUTPUT], [], ["outputs: [1.25, -1.25, 0.0"]),
    "AO_waveform_gen": ([OUTPUT], [], ["5 V around 0 V: 0", "start: 0", "stop: 0"]),
    "get_Air_status": ([AIR], [], ["RSSI (dBm):         -", "Wi-Fi configuration: ["]),
    "AIO_one_channel_loopback": ([], ["TorvikUsbMixed"], ["AO CH0 wrote 3.3000 V | AI CH0 reads 3.2"]),
    "AIO_all_channels_loopback": ([], ["TorvikUsbMixed"], ["AO wrote [0.5, 1.0, 1.5, 2.0, 2.5, 3.0, 3.5, 4.0]\n"
                                                           "AI reads [0.4"]),
    "UART_write": ([], ["TorvikUsbLogic"], ["came back: %r" % "".join("Hello from pytorvik, line %d\r\n" % n
                                                                       for n in range(3))]),
    "UART_read": ([], ["TorvikUsbLogic"], ["read 24 bytes: 'Hello from the far end\\r\\n'", "received 24 bytes in 2 s"]),
    "I2C_write_read": ([], ["TorvikUsbLogic"], ["write [222, 173, 190, 239] at 0x00: 0", "read: [222, 173, 190, 239]"]),
    "SPI_read_and_write": ([], ["TorvikUsbLogic"], ["write [1, 2, 3] read [1, 2, 3]", "close: 0"]),
    "SPI_write": ([], ["TorvikUsbLogic"], ["write ['0x02', '0x00', '0x10', '0xAA', '0x55']: 0", "close: 0"]),
    "TC_read_channel_data": ([], ["TorvikUsbThermo"], ["read 4: CH0 2", " C, CH1 2", "close: 0"]),
    "TC_read_channel_status": ([], ["TorvikUsbThermo"], ["CH0: connected", "CH1: connected"]),
    "TC_read_channel_data_with_logger": ([], ["TorvikUsbThermo"], ["10 reads logged"]),
    "RTD_read_channel_data": ([], ["TorvikUsbRtd"], ["read 4: CH0 2", "close: 0"]),
    "RTD_read_channel_status": ([], ["TorvikUsbRtd"], ["CH1: fault register 0x00 (no fault)"]),
    "RTD_read_channel_data_with_logger": ([], ["TorvikUsbRtd"], ["10 reads logged"]),
    "CAN_write": ([], ["TorvikUsbCan"], ["write CANFrame(id=291, id_format=0, remote=0, data=[17, 34, 51, 0, 0, 0, 0, 0]): 0",
                                         "counters: [3, 0, "]),
    "CAN_read": ([], ["TorvikUsbCan"], ["CANFrame(id=682, id_format=0, remote=0, data=[0, 0, 0, 0, 0, 0, 0, 19])",
                                        "20 frames in 2 s"]),
    "get_USB_info": ([], ["TorvikUsbSink:21JA1298", "TorvikUsbLogic:21JA1299,product=Bench-Logic"],
                     ["serial number: 21JA1299, product: Bench-Logic", "driver info: ['Torvik-USB-Logic'"]),
}
QUICKSTART_PORT = 17007  # the quick start takes its unit's address from the command line


def csv_rows(path):
    with open(path, newline="") as f:
        return list(csv.reader(f))


def check_ai_log(out, cwd):
    logged = int(out.split(" frames logged")[0].split()[-1])
    rows = csv_rows(cwd / "AI_continuous_with_logger.csv")
    assert rows[0][:2] == ["frame", "AI0 (V)"] and len(rows) == logged + 1 and logged > 100
    assert [int(r[0]) for r in rows[1:]] == list(range(logged))  # every row written before the file closed


def check_temperature_log(out, cwd):
    rows = csv_rows(next(cwd.glob("*.csv")))
    assert rows[0] == ["time (s)", "CH0 (C)", "CH1 (C)"] and len(rows) == 11
    assert all(15 < float(v) < 40 for r in rows[1:] for v in r[1:]), rows  # the emulator's room temperature


# What an example leaves behind, looked at after it ended.
CHECKS = {"AI_continuous_with_logger": check_ai_log, "TC_read_channel_data_with_logger": check_temperature_log,
          "RTD_read_channel_data_with_logger": check_temperature_log}


def run_under_sim(name, units, usb_units, cwd, args=(), timeout=30):
    """Runs the example as the child of torvik-sim; (return code, stdout, stderr), or a skip."""
    if usb_units and not sys.platform.startswith("linux"):
        pytest.skip("USB units are emulated with umockdev, which runs on Linux only")
    argv = [simctl.sim_binary()]
    for unit in units:
        argv += ["--unit", unit]
    for usb_arg in usb_units:
        argv += ["--usb", usb_arg]
    argv += ["--", sys.executable, os.path.abspath(os.path.join(EXAMPLES, name + ".py"))] + list(args)
    r = subprocess.run(argv, capture_output=True, text=True, timeout=timeout, cwd=cwd, env=simctl.clean_env())
    if r.returncode == 77 and "umockdev" in r.stderr:
        pytest.skip("the emulator cannot play USB units here: " + r.stderr.strip())
    return r.returncode, r.stdout, r.stderr


def test_every_example_has_a_case():
    names = {f[:-3] for f in os.listdir(EXAMPLES) if f.endswith(".py")}
    assert names - HELPERS - {"find_all_devices"} == set(CASES)


@pytest.mark.parametrize("name", sorted(CASES))
def test_example_runs_as_shipped(tmp_path, name):
    classes, usb_units, expect = CASES[name]
    if AIR in classes and os.geteuid() != 0:
        pytest.skip("the Wi-Fi unit listens on the units' own ports, which only root can give the emulator")
    units = [simctl.unit_spec(c, cmd_port=QUICKSTART_PORT if name == "quickstart" else None) for c in classes]
    args = [units[0].split("@")[1]] if name == "quickstart" else []
    code, out, err = run_under_sim(name, units, usb_units, tmp_path, args)
    assert code == 0, out + err
    for text in expect:
        assert text in out, out
    # Every handle opened was closed: the `with` blocks, which let the interpreter end.
    opened = re.findall(r"^Opened handle \((.*)\)$", out, re.M)
    assert opened and opened == re.findall(r"^Closed handle \((.*)\)$", out, re.M), out
    if name in CHECKS:
        CHECKS[name](out, tmp_path)


@pytest.mark.parametrize("name,target,usb_units", [
    ("DIO_loopback_port", "127.0.0.1:1", []),  # nothing listens on port 1: connect fails
    ("UART_write", "NOSUCH01", ["TorvikUsbLogic"]),  # no unit of that serial on the bus
    ("quickstart", "127.0.0.1:1", []),
])
def test_example_ends_when_connect_fails(tmp_path, name, target, usb_units):
    code, out, err = run_under_sim(name, [simctl.unit_spec(LOGIC)], usb_units, tmp_path, [target])
    assert code == 1 and "Error" in err, out + err
    assert re.findall(r"^Opened handle", out, re.M) == ["Opened handle"] and "Closed handle" in out, out


@pytest.mark.slow
def test_find_all_devices_lists_usb_and_network_units(tmp_path):
    if [n for _, n in socket.if_nameindex()] != ["lo"]:
        pytest.skip("broadcasts run only in a private network namespace with loopback alone (see tools/run-tests.sh)")
    lan = simctl.unit_spec("TorvikLanRelay")
    addr = lan.split("@")[1].split(":")[0]
    code, out, err = run_under_sim("find_all_devices", [lan], ["TorvikUsbThermo:21JA1239"], tmp_path)
    assert code == 0, out + err
    assert "serial number: 21JA1239, product: Torvik-USB-Thermo" in out
    assert "1 unit(s) on the network" in out and "IP address: %s, subnet mask: 255.255.255.0" % addr in out
    assert "model: Torvik-LAN-Relay" in out
