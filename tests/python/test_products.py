"""What depends on a product's tables, once per product that has the module: every port of a table
opens and closes on the emulated unit, a port beyond the table fails with the module's error and
sends nothing, analog values scale by the product's ratio and outputs stay in its range."""
import asyncio

import pytest

import pytorvik as t
from devices import ProductUnits

# module base -> (table field, open, close, error of a port outside the table)
PORT_MODULES = {
    "DIOModule": [("di_dict", "DI_openPort_async", "DI_closePort_async", "DIPortNotAvaliableError"),
                  ("do_dict", "DO_openPort_async", "DO_closePort_async", "DOPortNotAvaliableError")],
    "AIModule": [("ai_dict", "AI_open_async", "AI_close_async", "AIPortNotAvaliableError")],
    "AOModule": [("ao_dict", "AO_open_async", "AO_close_async", "AOPortNotAvaliableError")],
    "UARTModule": [("uart_dict", "UART_open_async", "UART_close_async", "UARTPortNotAvaliableError")],
    "I2CModule": [("I2C_dict", "I2C_open_async", "I2C_close_async", "I2CPortNotAvaliableError")],
    "SPIModule": [("SPI_dict", "SPI_open_async", "SPI_close_async", "SPIPortNotAvaliableError")],
    "CANModule": [("can_dict", "CAN_open_async", "CAN_close_async", "CANPortNotAvaliableError")],
    "ThermalModule": [("thermal_dict", "Thermal_open_async", "Thermal_close_async", "ThermalPortNotAvaliableError")],
}


def cases():
    for product in t.PRODUCT_LIST:
        for base in getattr(t, product).__bases__:
            for table, open_op, close_op, error in PORT_MODULES.get(base.__name__, []):
                yield pytest.param(product, table, open_op, close_op, error, id="%s-%s" % (product, table))


@pytest.fixture(scope="module")
def units():
    u = ProductUnits()
    yield u
    u.close()


@pytest.fixture
def connected(units):
    made = []

    def connect(product):
        made.append(units.connected(product))
        return made[-1], units.unit

    yield connect
    for dev in made:
        dev.close()


@pytest.mark.parametrize("product,table,open_op,close_op,error", list(cases()))
def test_every_port_of_the_table_and_none_beyond(connected, product, table, open_op, close_op, error):
    dev, unit = connected(product)
    ports = sorted(getattr(dev, table))

    async def run():
        for port in ports:
            assert await getattr(dev, open_op)(port) == 0, (port, unit.log()[-1:])
            assert await getattr(dev, close_op)(port) == 0, port
        unit.clear_log()
        for port in (max(ports) + 1, -1):
            with pytest.raises(getattr(t, error)):
                await getattr(dev, open_op)(port)
        assert unit.log() == []

    asyncio.run(run())


@pytest.mark.parametrize("product", [p for p in t.PRODUCT_LIST if issubclass(getattr(t, p), t.AIModule)])
def test_analog_input_scales_by_the_products_ratio(connected, product):
    dev, unit = connected(product)
    port = min(dev.ai_dict)
    for ch, counts in enumerate((1, -1, 32767, -32768, 12345)):
        unit.set_waveform(ch, "raw", counts)

    async def run():
        await dev.AI_open_async(port)
        try:
            return await dev.AI_readOnDemand_async(port)
        finally:
            await dev.AI_close_async(port)

    values = asyncio.run(run())
    assert values[:5] == [round(c * dev.ai_ratio, 4) for c in (1, -1, 32767, -32768, 12345)]


@pytest.mark.parametrize("product", [p for p in t.PRODUCT_LIST if issubclass(getattr(t, p), t.AOModule)])
def test_analog_output_range_of_the_product(connected, product):
    dev, unit = connected(product)
    port = min(dev.ao_dict)

    async def run():
        await dev.AO_open_async(port)
        try:
            unit.clear_log()
            for volts in (dev.ao_volt_min - 0.5, dev.ao_volt_max + 0.5):
                with pytest.raises(t.InputDataNotInRangeError):
                    await dev.AO_writeOneChannel_async(port, 0, volts)
            assert unit.log() == []
            for volts in (dev.ao_volt_min, dev.ao_volt_max):
                await dev.AO_writeOneChannel_async(port, 0, volts)
                assert (await dev.AO_getValues_async(port))[0] == pytest.approx(volts, abs=1e-3)
        finally:
            await dev.AO_close_async(port)

    asyncio.run(run())
