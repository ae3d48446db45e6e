// Texts of the measurement modules: digital I/O, analog input and output, temperature, relays.
#include "docs/docs.hpp"

// A pin selection and what a single int means there.
#define PIN_ARG                                                                                    \
    "pin (int | list[int]): a list of pin indices, or an int that is a bit MASK (bit n = pin n):\n" \
    "    2 is pin 1, 5 is pins 0 and 2. bool counts as int."
#define DIO_PORT_RAISES "InputTypeNotCorrectError: port or pin of the wrong type (-8012).\n"
#define LEVELS "list[int]: the level (0 or 1) of every pin of the port, pin 0 first, at least dio_num_pins_per_port entries."

namespace torvik::py_binding {

void documentMeasure(py::module_& m) {
    applyDocs(m, {
        {"DIOModule.DI_openPort_async", "Makes every pin of a port a digital input.",
         "port (int): a DI port, a key of di_dict (DI_getPinMap()).", STATUS,
         "DIPortNotAvaliableError: no DI port of this product, or its pins are not in DI mode (-8101).\n" TORVIK_DOC_SENDS},
        {"DIOModule.DO_openPort_async", "Makes every pin of a port a digital output.",
         "port (int): a DO port, a key of do_dict (DO_getPinMap()).", STATUS,
         "DOPortNotAvaliableError: no DO port of this product, or its pins are not in DO mode (-8102).\n" TORVIK_DOC_SENDS},
        {"DIOModule.DI_openPins_async", "Makes the selected pins digital inputs.",
         "port (int): a DI port.\n" PIN_ARG, STATUS,
         "DIPortNotAvaliableError: no DI port, or a pin not in DI mode (-8101).\n"
         "PinsNotExistError: a pin the port does not have (-8009).\n" TORVIK_DOC_SENDS},
        {"DIOModule.DO_openPins_async", "Makes the selected pins digital outputs.",
         "port (int): a DO port.\n" PIN_ARG, STATUS,
         "DOPortNotAvaliableError: no DO port, or a pin not in DO mode (-8102).\n"
         "PinsNotExistError: a pin the port does not have (-8009).\n" TORVIK_DOC_SENDS},
        {"DIOModule.DI_closePort_async", "Releases every pin of a DI port.", "port (int): a DI port.", STATUS,
         "DIPortNotAvaliableError: no DI port of this product (-8101).\n" TORVIK_DOC_SENDS},
        {"DIOModule.DO_closePort_async", "Releases every pin of a DO port.", "port (int): a DO port.", STATUS,
         "DOPortNotAvaliableError: no DO port of this product (-8102).\n" TORVIK_DOC_SENDS},
        {"DIOModule.DI_closePins_async", "Releases the selected DI pins.", "port (int): a DI port.\n" PIN_ARG, STATUS,
         "DIPortNotAvaliableError: no DI port (-8101).\nPinsNotExistError: a pin the port does not have (-8009).\n"
         TORVIK_DOC_SENDS},
        {"DIOModule.DO_closePins_async", "Releases the selected DO pins.", "port (int): a DO port.\n" PIN_ARG, STATUS,
         "DOPortNotAvaliableError: no DO port (-8102).\nPinsNotExistError: a pin the port does not have (-8009).\n"
         TORVIK_DOC_SENDS},
        {"DIOModule.DI_readPort_async", "Reads the levels of a whole DI port.", "port (int): a DI port.", LEVELS,
         "DIPortNotAvaliableError: no DI port of this product (-8101).\n" TORVIK_DOC_SENDS},
        {"DIOModule.DI_readPins_async", "Reads the levels of the selected pins.", "port (int): a DI port.\n" PIN_ARG,
         "list[int]: one level (0 or 1) per selected pin, in the order of the selection.",
         "DIPortNotAvaliableError: no DI port (-8101).\nPinsNotExistError: a pin the port does not have (-8009).\n"
         TORVIK_DOC_SENDS},
        {"DIOModule.DO_writePort_async", "Sets the levels of a whole DO port.",
         "port (int): a DO port.\n"
         "value (int | list[int]): an int is the port's word (bit n = level of pin n); a list gives the\n"
         "    level of pin k at index k (values are clamped to 0..1).",
         LEVELS, "DOPortNotAvaliableError: no DO port of this product (-8102).\n" TORVIK_DOC_SENDS},
        {"DIOModule.DO_writePins_async",
         "Sets the levels of the selected pins; pin and value must be of the same type.\n"
         "DO_writePins_async(2, [0, 2], [1, 1]) and DO_writePins_async(2, 5, 5) both set pins 0 and 2.",
         "port (int): a DO port.\n" PIN_ARG "\n"
         "value (int | list[int]): with a list pin, one level per listed pin (clamped to 0..1); with a\n"
         "    mask pin, a word whose bits stand at the pin positions.",
         LEVELS,
         "DOPortNotAvaliableError: no DO port (-8102).\nPinsNotExistError: a pin the port does not have (-8009).\n"
         "InputTypeNotConsistentError: pin and value of different types (-8011).\n"
         "PinsValueNotDefineError: lists of different lengths (-8010).\n" TORVIK_DOC_SENDS},
        {"DIOModule.Sys_setPortIdle_async", "Sets every pin of a hardware port to Idle (no function).",
         "port (int): hardware port number.", STATUS, TORVIK_DOC_SENDS},
        {"DIOModule.Sys_setPortDI_async", "Sets every pin of a hardware port to digital input.",
         "port (int): hardware port number.", STATUS, TORVIK_DOC_SENDS},
        {"DIOModule.Sys_setPortDO_async", "Sets every pin of a hardware port to digital output.",
         "port (int): hardware port number.", STATUS, TORVIK_DOC_SENDS},
        {"DIOModule.DI_getPinMap", "The DI ports and their pins (the handle's own table, not a copy).", "",
         "dict[int, list[int]]: DI port -> pin numbers."},
        {"DIOModule.DO_getPinMap", "The DO ports and their pins (the handle's own table, not a copy).", "",
         "dict[int, list[int]]: DO port -> pin numbers."},

        {"AIModule.AI_open_async",
         "Opens an analog input port (its pins must be Idle) and lets the stream worker run.",
         "port (int): an AI port, a key of ai_dict (AI_getPort()).", STATUS,
         "AIPortNotAvaliableError: no AI port of this product, or its pins are not idle (-8201).\n" TORVIK_DOC_SENDS},
        {"AIModule.AI_close_async", "Closes an analog input port and stops its stream worker.",
         "port (int): an AI port.", STATUS, "AIPortNotAvaliableError: no AI port (-8201).\n" TORVIK_DOC_SENDS},
        {"AIModule.AI_setSamplingRate_async", "Sets the sampling rate of N-samples and continuous mode.",
         "port (int): an AI port.\nsampling_rate (int): samples per second, at most ai_max_rate.", STATUS,
         "AIPortNotAvaliableError: no AI port (-8201).\nAIRateNotVaildError: above ai_max_rate (-8210).\n"
         TORVIK_DOC_SENDS},
        {"AIModule.AI_setMode_async", "Sets the acquisition mode.",
         "port (int): an AI port.\nmode (int): 0 on demand, 1 N-samples, 2 continuous.", STATUS,
         "AIPortNotAvaliableError: no AI port (-8201).\nAIModeNotAvaliableError: mode not 0, 1 or 2 (-8208).\n"
         TORVIK_DOC_SENDS},
        {"AIModule.AI_setNumSamples_async", "Sets the number of samples of N-samples mode.",
         "port (int): an AI port.\nsample_points (int): samples per channel.", STATUS,
         "AIPortNotAvaliableError: no AI port (-8201).\n" TORVIK_DOC_SENDS},
        {"AIModule.AI_start_async",
         "Starts the acquisition; samples then flow into the handle's queue (no reply is awaited).",
         "port (int): an AI port.", "int: 0.", "AIPortNotAvaliableError: no AI port (-8201).\n"
                                               "InputTypeNotCorrectError: port is no int (-8012)."},
        {"AIModule.AI_stop_async", "Stops the acquisition.", "port (int): an AI port.", STATUS,
         "AIPortNotAvaliableError: no AI port (-8201).\n" TORVIK_DOC_SENDS},
        {"AIModule.AI_readBufferStatus_async", "Reads the unit's sample buffer counters.", "port (int): an AI port.",
         "list[int]: four unsigned 32-bit counters of the unit's buffer, in reply order.",
         "AIPortNotAvaliableError: no AI port (-8201).\n" TORVIK_DOC_SENDS},
        {"AIModule.AI_clearBufferStatus_async", "Clears the unit's sample buffer.", "port (int): an AI port.", STATUS,
         "AIPortNotAvaliableError: no AI port (-8201).\n" TORVIK_DOC_SENDS},
        {"AIModule.AI_readStreaming_async",
         "Waits `delay` seconds, then takes up to num_samples frames that have arrived (never more than\n"
         "are there). Call it often enough: a full queue drops frames with an AIQueueOverflowWarning.",
         "port (int): an AI port (not checked here).\nnum_samples (int): the most frames to take; negative takes all.\n"
         "delay (float): seconds to wait first.",
         "list[list[float]]: frames, oldest first; each frame holds one value in volts per channel."},
        {"AIModule.AI_readOnDemand_async", "Reads one sample of every channel now (mode 0).", "port (int): an AI port.",
         "list[float]: one value in volts per channel.",
         "AIPortNotAvaliableError: no AI port (-8201).\n" TORVIK_DOC_SENDS},
        {"AIModule.AI_getPort", "The AI ports of this product.", "", "Any: a view of the keys of ai_dict."},

        {"AOModule.AO_open_async", "Opens an analog output port (its pins must be Idle).",
         "port (int): an AO port, a key of ao_dict (AO_getPort()).", STATUS,
         "AOPortNotAvaliableError: no AO port of this product, or its pins are not idle (-8204).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_close_async", "Closes an analog output port.", "port (int): an AO port.", STATUS,
         "AOPortNotAvaliableError: no AO port (-8204).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_writeOneChannel_async", "Sets the voltage of one output channel.",
         "port (int): an AO port.\nchannel (int): 0 to 7.\nAO_value (float): volts, ao_volt_min to ao_volt_max.", STATUS,
         "AOPortNotAvaliableError: no AO port (-8204).\nAOChannelNotAvaliableError: channel not 0-7 (-8209).\n"
         "InputDataNotInRangeError: the voltage out of range (-8014).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_writeAllChannels_async", "Sets the voltages of all ao_channel channels at once.",
         "port (int): an AO port.\nAO_value (list[float]): volts per channel, channel 0 first; missing ones are 0.",
         STATUS,
         "AOPortNotAvaliableError: no AO port (-8204).\nInputDataNotInRangeError: a voltage out of range (-8014).\n"
         TORVIK_DOC_SENDS},
        {"AOModule.AO_getValues_async", "Reads back the voltages of the eight channels.", "port (int): an AO port.",
         "list[float]: eight voltages, channel 0 first.", "AOPortNotAvaliableError: no AO port (-8204).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_openStreaming_async", "Opens the unit's waveform generator.", "port (int): an AO port.",
         "list[Any]: [mode (int), sampling_rate (float)] as the unit reports them.",
         "AOPortNotAvaliableError: no AO port (-8204).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_startStreaming_async", "Starts the waveform generator (no reply is awaited).",
         "port (int): an AO port.", "int: 0.", "AOPortNotAvaliableError: no AO port (-8204)."},
        {"AOModule.AO_stopStreaming_async", "Stops the waveform generator.", "port (int): an AO port.", STATUS,
         "AOPortNotAvaliableError: no AO port (-8204).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_closeStreaming_async", "Closes the waveform generator.", "port (int): an AO port.", STATUS,
         "AOPortNotAvaliableError: no AO port (-8204).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_setMode_async", "Sets the generation mode.",
         "port (int): an AO port.\nmode (int): 0 on demand, 1 N-samples, 2 continuous.", STATUS,
         "AOPortNotAvaliableError: no AO port (-8204).\nAOModeNotVaildError: mode not 0-2 (-8206).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_setSamplingRate_async", "Sets the generator's rate (no upper bound is checked).",
         "port (int): an AO port.\nsampling_rate (float): samples per second.", STATUS,
         "AOPortNotAvaliableError: no AO port (-8204).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_setNumSamples_async", "Sets the number of samples of N-samples mode.",
         "port (int): an AO port.\nsample_points (int): 0 to 2**32 - 1.", STATUS,
         "AOPortNotAvaliableError: no AO port (-8204).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_setEnableChannels_async", "Enables the generator on a channel.",
         "port (int): an AO port.\nchannel (int | list[int]): channel 0 to 7 (a list never passes the check).", STATUS,
         "AOPortNotAvaliableError: no AO port (-8204).\nAOChannelNotAvaliableError: channel not 0-7 (-8209).\n"
         TORVIK_DOC_SENDS},
        {"AOModule.AO_setForm_async", "Sets the waveform of a channel.",
         "port (int): an AO port.\nchannel (int): 0 to 7.\nform (int): 1 rectangular, 2 triangular, 3 sine.", STATUS,
         "AOPortNotAvaliableError: no AO port (-8204).\nAOFormNotAvaliableError: form not 1-3 (-8211).\n"
         "AOChannelNotAvaliableError: channel not 0-7 (-8209).\n" TORVIK_DOC_SENDS},
        {"AOModule.AO_setFormParam_async", "Sets the waveform's parameters of a channel.",
         "port (int): an AO port.\nchannel (int): 0 to 7.\namplitude (float): volts.\noffset (float): volts.\n"
         "period (float): seconds.",
         STATUS, "AOPortNotAvaliableError: no AO port (-8204).\nAOChannelNotAvaliableError: channel not 0-7 (-8209).\n"
                 TORVIK_DOC_SENDS},
        {"AOModule.AO_getPort", "The AO ports of this product.", "", "Any: a view of the keys of ao_dict."},

        {"ThermalModule.Thermal_open_async", "Opens a temperature port (its pins must be Idle).",
         "port (int): a key of thermal_dict (Thermal_getPinMap()).", "int: the unit's status byte (0 on success).",
         "ThermalPortNotAvaliableError: no such port, or its pins are not idle (-8301).\n" TORVIK_DOC_SENDS},
        {"ThermalModule.Thermal_close_async", "Closes a temperature port.", "port (int): a thermal port.",
         "int: the unit's status byte (0 on success).", "ThermalPortNotAvaliableError: no such port (-8301).\n"
                                                         TORVIK_DOC_SENDS},
        {"ThermalModule.Thermal_setNoiseFilter_async", "Sets the mains noise filter of a channel.",
         "port (int): a thermal port.\nchannel (int): 0 or 1.\nmode (int): 0 or 1 (the filter setting).",
         "int: the unit's status byte (0 on success).",
         "ThermalPortNotAvaliableError: no such port (-8301).\nThermalChipSelectNotAvaliableError: channel not 0/1 "
         "(-8304).\nThermalModeNotVaildError: mode not 0/1 (-8305).\n" TORVIK_DOC_SENDS},
        {"ThermalModule.Thermal_setType_async", "Sets the sensor type of a channel.",
         "port (int): a thermal port.\nchannel (int): 0 or 1.\n"
         "type_ (int): thermocouple units 0 to 7 (the thermocouple types); RTD units 0 or 1 (PT-100, PT-1000).",
         "int: the unit's status byte (0 on success).",
         "ThermalPortNotAvaliableError: no such port (-8301).\nThermalChipSelectNotAvaliableError: channel not 0/1 "
         "(-8304).\nThermalTypeNotVaildError: type out of range (-8306).\n" TORVIK_DOC_SENDS},
        {"ThermalModule.Thermal_getStatus_async", "Reads the fault status of a channel.",
         "port (int): a thermal port.\nchannel (int): 0 or 1.",
         "int: on thermocouple units 1 for an open circuit, else 0; on RTD units the status byte whole.",
         "ThermalPortNotAvaliableError: no such port (-8301).\nThermalChipSelectNotAvaliableError: channel not 0/1 "
         "(-8304).\n" TORVIK_DOC_SENDS},
        {"ThermalModule.Thermal_readSensor_async", "Reads the temperature of a channel.",
         "port (int): a thermal port.\nchannel (int): 0 or 1.", "float: degrees Celsius, rounded to 3 decimals.",
         "ThermalPortNotAvaliableError: no such port (-8301).\nThermalChipSelectNotAvaliableError: channel not 0/1 "
         "(-8304).\n" TORVIK_DOC_SENDS},
        {"ThermalModule.Thermal_getPinMap", "The temperature ports and their pins (the handle's own table).", "",
         "dict[int, list[tuple[int, int]]]: port -> (hardware port, pin) cells."},
        {"ThermocoupleModule.Thermal_setOverSampling_async", "Sets the over-sampling of a thermocouple channel.",
         "port (int): a thermal port.\nchannel (int): 0 or 1.\nmode (int): 0 to 4.",
         "int: the unit's status byte (0 on success).",
         "ThermalPortNotAvaliableError: no such port (-8301).\nThermalChipSelectNotAvaliableError: channel not 0/1 "
         "(-8304).\nThermalModeNotVaildError: mode not 0-4 (-8305).\n" TORVIK_DOC_SENDS},
        {"ThermocoupleModule.Thermal_setJunctionOn_async", "Switches the cold-junction compensation of a channel.",
         "port (int): a thermal port.\nchannel (int): 0 or 1.\nstatus (int): 1 on, 0 off.",
         "int: the unit's status byte (0 on success).",
         "ThermalPortNotAvaliableError: no such port (-8301).\nThermalChipSelectNotAvaliableError: channel not 0/1 "
         "(-8304).\n" TORVIK_DOC_SENDS},

        {"RelayModule.Relay_read_async", "Reads the switching counters of the relays.",
         "index (int): the relay wanted, or -1 for all.", "list[int]: unsigned 32-bit counters.", TORVIK_DOC_SENDS},
    });
}

}  // namespace torvik::py_binding
