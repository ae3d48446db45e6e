"""The catalogue tables, the exported names and every handle's composition."""
import pytest

import pytorvik as t

USB_3V3 = ["USBDevice", "SystemModule", "UARTModule", "I2CModule"]
COMPOSED = ["ETHDevice", "SystemModule", "NetworkModule", "AIModule", "AOModule", "DIOModule"]


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
    assert t.HANDLE_LIST == sum(t.HANDLE_DICT.values(), []) and t.PRODUCT_LIST == t.HANDLE_LIST[2:]
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
    assert set(props) == set(t.HANDLE_LIST) - {"DataLogger"}
    assert t.CATEGORY_DICT == {name: list(p["cat_port"]) for name, p in props.items()}
    assert t.CATEGORY_LIST == list(t.EXAMPLE_DICT)
    lines = t.SEE_MORE.split("\n")
    assert lines[0] == "For other examples please check:" and lines[1].startswith("    ") and len(lines[1]) > 4
    assert lines[2] == "See README.md file to get detailed usage of this example."


@pytest.mark.parametrize("name,label,bases", HANDLES, ids=[h[0] for h in HANDLES])
def test_handle_composition(name, label, bases):
    cls = getattr(t, name)
    assert [b.__name__ for b in cls.__bases__] == bases
    assert t.LABEL_DICT[name] == label and cls.__module__ == "pytorvik"


def test_wifi_handle_guards_connect_and_disconnect(sim, capsys):
    air = sim("TorvikAirAnalog").unit
    if (air.cmd_port, air.data_port) != (t.TCP_CMD_PORT, t.TCP_DATA_PORT):
        pytest.skip("the Wi-Fi handle connects on the units' own ports, which only root can give the emulator")
    dev = t.TorvikAirAnalog()
    try:
        dev.disconnect()  # not connected: nothing happens
        dev.connect(air.addr)
        air.wait_connected("data")
        dev.connect(air.addr)  # connected: left alone, nothing sent
        assert air.connections("cmd") == (1, 1) and air.connections("data") == (1, 1)
    finally:
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
