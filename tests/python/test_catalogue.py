"""The catalogue tables, the exported names and every handle's composition."""
import pytest

import pytorvik as t

USB_3V3 = ["USBDevice", "SystemModule", "UARTModule", "I2CModule"]
COMPOSED = ["ETHDevice", "SystemModule", "NetworkModule", "AIModule", "AOModule", "DIOModule"]

@pytest.fixture
def make_handle():
    made = []

    def make(cls):
        made.append(cls())
        return made[-1]

    yield make
    for dev in made:
        dev.close()


HANDLES = [  # class, label, bases in order
    ("DeviceFinder", "Device finder", ["BroadcastDevice", "BroadcastModule"]),
    ("TorvikAirAnalog", "Torvik-Air-Analog",
     ["WifiDevice", "SystemModule", "SystemAnalogModule", "NetworkModule", "WifiModule", "AIModule"]),
    ("TorvikCore", "TorvikCore", COMPOSED),
    ("TorvikCoreMini", "Torvik-Core-Mini", COMPOSED),
    ("TorvikDrive", "TorvikDrive", ["ETHDevice", "SystemModule", "NetworkModule"]),
    ("TorvikBox", "TorvikBox", COMPOSED),
    ("TorvikLanRelay", "Torvik-LAN-Relay", ["ETHDevice", "SystemModule", "NetworkModule", "DIOModule", "RelayModule"]),
    ("TorvikUsbLogic", "Torvik-USB-Logic", USB_3V3 + ["SPIModule", "DIOModule"]),
    ("TorvikUsbAnalog", "Torvik-USB-Analog", USB_3V3 + ["SPIModule", "AIModule", "DIOModule"]),
    ("TorvikUsbThermo", "Torvik-USB-Thermo", USB_3V3 + ["SPIModule", "ThermalModule", "ThermocoupleModule", "DIOModule"]),
    ("TorvikUsbCan", "Torvik-USB-Can", USB_3V3 + ["SPIModule", "CANModule", "DIOModule"]),
    ("TorvikUsbMixed", "Torvik-USB-Mixed", USB_3V3 + ["AIModule", "AOModule", "DIOModule"]),
    ("TorvikUsbRtd", "Torvik-USB-Rtd", USB_3V3 + ["SPIModule", "ThermalModule", "DIOModule"]),
    ("TorvikUsbSink", "Torvik-USB-Sink", ["USBDevice", "SystemModule", "DIOModule"]),
    ("TorvikLanLogic", "Torvik-LAN-Logic", ["ETHDevice", "SystemModule", "NetworkModule", "DIOModule"]),
    ("TorvikLanAnalog", "Torvik-LAN-Analog", ["ETHDevice", "SystemModule", "NetworkModule", "AIModule"]),
    ("TorvikLanOutput", "Torvik-LAN-Output", ["ETHDevice", "SystemModule", "NetworkModule", "AOModule"]),
]


def test_handle_families_and_lists():
    assert t.HANDLE_DICT == {
        "utilities": ["DeviceFinder", "DataLogger"],
        "wireless": ["TorvikAirAnalog"],
        "ethernet": ["TorvikLanAnalog", "TorvikLanLogic", "TorvikLanRelay", "TorvikLanOutput"],
        "USB": ["TorvikUsbLogic", "TorvikUsbSink", "TorvikUsbAnalog", "TorvikUsbMixed", "TorvikUsbThermo", "TorvikUsbRtd",
                "TorvikUsbCan"],
    }
    assert list(t.HANDLE_DICT) == ["utilities", "wireless", "ethernet", "USB"]
    assert t.HANDLE_LIST == sum(t.HANDLE_DICT.values(), []) and len(t.HANDLE_LIST) == 14
    assert t.PRODUCT_LIST == t.HANDLE_LIST[2:] and len(t.PRODUCT_LIST) == 12
    assert t.__all__ == t.HANDLE_LIST + ["PKG_NAME", "PKG_FULL_NAME", "__version__", "HANDLE_LIST", "PRODUCT_LIST",
                                         "CATEGORY_LIST", "Error", "TorvikWarning", "printGenericError"]
    assert all(hasattr(t, name) for name in t.__all__)
    assert (t.PKG_NAME, t.PKG_FULL_NAME, t.__version__) == ("pytorvik", "Torvik Python driver", "1.1.0")


def test_installed_distribution_has_the_module_version():
    metadata = pytest.importorskip("importlib.metadata")
    try:
        version = metadata.version("pytorvik")
    except metadata.PackageNotFoundError:
        pytest.skip("pytorvik runs from a build tree, not from an installed distribution")
    assert version == t.__version__


def test_properties_categories_and_examples():
    props = t.HANDLE_PROPERTIES
    assert list(props) == ["DeviceFinder", "TorvikLanAnalog", "TorvikLanLogic", "TorvikLanRelay", "TorvikLanOutput",
                           "TorvikUsbAnalog", "TorvikUsbMixed", "TorvikUsbCan", "TorvikUsbLogic", "TorvikUsbSink",
                           "TorvikUsbRtd", "TorvikUsbThermo", "TorvikAirAnalog"]
    assert props["TorvikUsbThermo"] == {"connect": "21JA1239", "cat_port": {
        "DIO": 0, "I2C": 1, "SPI": 1, "UART": 2, "Temperature_TC": 1, "System_USB": None, "Tutorial": None}}
    assert props["TorvikAirAnalog"] == {"connect": "192.168.5.79", "cat_port": {"AI": 1, "System_Wifi": None, "Tutorial": None}}
    assert props["DeviceFinder"] == {"connect": "21JA1200", "cat_port": {"Find_devices": None}}
    assert t.CATEGORY_DICT == {name: list(p["cat_port"]) for name, p in props.items()}
    assert t.CATEGORY_DICT["TorvikUsbMixed"] == ["AI", "AO", "AIO", "DIO", "I2C", "UART", "System_USB", "Tutorial"]
    assert t.CATEGORY_LIST == list(t.EXAMPLE_DICT) and len(t.CATEGORY_LIST) == 15 and t.CATEGORY_LIST[0] == "System_USB"
    assert t.EXAMPLE_DICT["AI"][:2] == ["AI_continuous", "AI_continuous_with_logger"]
    assert t.EXAMPLE_DICT["Tutorial"] == ["single_loop_thread", "single_loop_async", "multiple_loops_thread",
                                          "multiple_loops_async"]
    lines = t.SEE_MORE.split("\n")
    assert lines[0] == "For other examples please check:" and lines[1].startswith("    ") and len(lines[1]) > 4
    assert lines[2] == "See README.md file to get detailed usage of this example."


@pytest.mark.parametrize("name,label,bases", HANDLES, ids=[h[0] for h in HANDLES])
def test_handle_composition(name, label, bases):
    cls = getattr(t, name)
    assert [b.__name__ for b in cls.__bases__] == bases
    assert t.LABEL_DICT[name] == label and cls.__module__ == "pytorvik"


@pytest.mark.parametrize("name,doc", [
    ("TorvikAirAnalog", "8ch 16-bit +/-10V analog input, max sampling rate 10KHz\n\nPorts:\n    AI: 1"),
    ("TorvikUsbAnalog", "26ch 3.3V DIO/I2C/SPI, max sampling rate 16KHz\n\nPorts:\n    AI: 0\n    UART: 1, 2\n    I2C: 1, 2\n"
                        "    SPI: 2\n    DIO: 0, 1, 2, 3"),
    ("TorvikUsbMixed", "16ch 3.3V DIO/I2C/SPI, 8ch AI, 8ch AO, max sampling rate 16KHz\n\nPorts:\n    AI: 0\n    AO: 0\n"
                       "    UART: 1, 2\n    I2C: 1, 2\n    DIO: 0, 1, 2, 3"),
])
def test_descriptions(name, doc):
    assert getattr(t, name).__doc__ == doc


@pytest.mark.parametrize("name,tables", [
    ("TorvikUsbAnalog", {"SPI_dict": {2: [(3, 3), (3, 4), (3, 5)]}, "ai_dict": {0: [(1, 5)]}, "ai_max_rate": 16000,
                         "ai_ratio": 0.00030517578125, "ai_strm_cmd": t.START_AI_STREAMING_VARIABLE,
                         "di_dict": {0: list(range(8)), 1: [0, 1, 2, 3], 2: [6, 7], 3: list(range(6))}}),
    ("TorvikUsbMixed", {"ao_dict": {0: [(1, 4)]}, "ao_volt_min": 0, "ao_volt_max": 5, "ao_channel": 8,
                        "do_dict": {0: list(range(8)), 1: [0, 1, 2, 3], 2: [6, 7], 3: [0, 1]},
                        "uart_dict": {1: [(0, 3), (0, 4)], 2: [(1, 2), (1, 3)]}}),
    ("TorvikAirAnalog", {"ai_dict": {1: [(1, 5)]}, "ai_max_rate": 10000, "ai_ratio": 0.000152587890625,
                         "ai_num_channels": 8}),
])
def test_tables_of_the_later_handles(make_handle, name, tables):
    dev = make_handle(getattr(t, name))
    assert {k: getattr(dev, k) for k in tables} == tables


def test_mixed_unit_has_no_spi_and_compositions_have_no_tables(make_handle):
    assert not hasattr(t.TorvikUsbMixed, "SPI_open_async") and hasattr(t.TorvikUsbAnalog, "SPI_open_async")
    for name in ("TorvikCore", "TorvikCoreMini", "TorvikDrive", "TorvikBox"):
        cls = getattr(t, name)
        assert "__init__" not in vars(cls) and cls.__doc__ in ("", None)
        dev = make_handle(cls)
        assert not any(hasattr(dev, k) for k in ("ai_dict", "ao_dict", "di_dict", "do_dict"))


def test_wifi_handle_guards_connect_and_disconnect(sim, make_handle, capsys):
    air = sim("TorvikAirAnalog").unit
    if (air.cmd_port, air.data_port) != (t.TCP_CMD_PORT, t.TCP_DATA_PORT):
        pytest.skip("the Wi-Fi handle connects on the units' own ports, which only root can give the emulator")
    dev = make_handle(t.TorvikAirAnalog)
    dev.disconnect()  # not connected: nothing happens
    dev.connect(air.addr)
    air.wait_connected("data")
    dev.connect(air.addr)  # connected: left alone, nothing sent
    assert air.connections("cmd") == (1, 1) and air.connections("data") == (1, 1)
    dev.close()  # disconnects first, then frees the analog worker
    dev.close()
    assert capsys.readouterr().out.splitlines() == [
        "Opened handle (Torvik-Air-Analog)", "Connected to %s (Torvik-Air-Analog)" % air.addr,
        "Disconnected from %s (Torvik-Air-Analog)" % air.addr, "Closed handle (Torvik-Air-Analog)"]
    dev.ai_stream_thread.join(2)
    assert not dev.ai_stream_thread.is_alive() and dev.connect_status_cmd is False


def test_readme_products_table_is_the_catalogue():
    import importlib.util
    import os
    root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
    found = importlib.util.spec_from_file_location("gen_products_table", os.path.join(root, "tools", "gen_products_table.py"))
    gen = importlib.util.module_from_spec(found)
    found.loader.exec_module(gen)
    with open(os.path.join(root, "README.md")) as f:
        readme = f.read()
    begin = readme.index("\n", readme.index("<!-- products:begin")) + 1
    assert readme[begin:readme.index("<!-- products:end -->")] == gen.table(), "run tools/gen_products_table.py"
