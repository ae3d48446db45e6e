// Texts of the handles' own methods (their class texts are the product descriptions).
#include "docs/docs.hpp"

namespace torvik::py_binding {

namespace {

constexpr const char* kHandleClose =
    "Disconnects, ends the receive thread and frees the stream workers. Without close the\n"
    "interpreter does not exit; a second close does nothing. The base's verbose stays at its\n"
    "default, so the lines are printed.";

}  // namespace

void documentLoggerAndProducts(py::module_& m) {
    applyDocs(m, {
        {"DataLogger.Logger_openFile",
         "Opens the CSV file and lets the writer thread run. Once per logger: a closed logger is finished.",
         "filename (str): the file's path.\nclear_old (bool): True truncates, False appends.\n"
         "verbose (bool): print \"Opened file name: (...)\".",
         "", "OSError: the file cannot be opened.\nRuntimeError: the logger is open already."},
        {"DataLogger.__enter__", "Starts a `with` block: gives the logger itself.", "", "Self: the logger."},
        {"DataLogger.__exit__",
         "Leaves a `with` block: waits until every queued row is written, then Logger_closeFile().\n"
         "Unlike a bare Logger_closeFile, no queued row is lost.", "", "bool: False."},
        {"DataLogger.__repr__", "The file and whether it is open.", "", "str: e.g. <DataLogger 'f.csv' open>."},
        {"DataLogger.Logger_writeHeader", "Queues a header row (a plain row).", "header (list[Any]): the column names."},
        {"DataLogger.Logger_writeValue", "Queues a row of one value.", "value (Any): the value."},
        {"DataLogger.Logger_writeList", "Queues one row.", "value_list (list[Any]): the row's values."},
        {"DataLogger.Logger_write2DList", "Queues several rows (never blocks).", "value_mat (list[list[Any]]): the rows."},
        {"DataLogger.Logger_closeFile",
         "Closes the file and ends the writer thread. It does not wait: rows still queued are lost, so let\n"
         "the queue run empty (save_data_queue.empty()) before closing.",
         "verbose (bool): print \"Close file name: (...)\"."},
        {"TorvikAirAnalog.connect", "Connects to the Wi-Fi unit (command port 7, data port 1336).",
         "ip (str): the unit's IPv4 address.", "", "NetworkConnectionError: the unit cannot be reached (-8002)."},
        {"TorvikAirAnalog.disconnect", "Closes both connections; does nothing when not connected.", "", "",
         "NetworkConnectionLostError: a connection could not be shut down (-8007)."},
        {"TorvikAirAnalog.close", kHandleClose},
        {"TorvikLanAnalog.close", kHandleClose},
        {"TorvikLanOutput.close", kHandleClose},
        {"TorvikLanRelay.close", kHandleClose},
        {"TorvikUsbAnalog.close", kHandleClose},
        {"TorvikUsbCan.close", kHandleClose},
        {"TorvikUsbLogic.close", kHandleClose},
        {"TorvikUsbMixed.close", kHandleClose},
        {"TorvikUsbRtd.close", kHandleClose},
        {"TorvikUsbThermo.close", kHandleClose},
    });
}

}  // namespace torvik::py_binding
