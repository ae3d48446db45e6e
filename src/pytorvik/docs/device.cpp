// Texts of the device core: connection bases, gates, pools and the awaitable operation.
#include "docs/docs.hpp"

namespace torvik::py_binding {

void documentDevice(py::module_& m) {
    applyDocs(m, {
        {"Device.close", "Marks the object closed for good (killed); the subclasses' close also ends their threads.",
         "verbose (bool): print \"Closed handle (...)\"."},
        {"run",
         "Runs an operation (what an _async method returns) to its result on this thread, without an event loop.\n"
         "It gives what awaiting the operation gives and raises what awaiting it raises (the same retries, time\n"
         "limits and asyncio.TimeoutError). The thread waits with the GIL released, woken by the reply itself;\n"
         "Ctrl-C interrupts the wait. Several threads may run operations on one handle at once.\n"
         "    print(pytorvik.run(dev.Sys_getRTC_async()))",
         "operation (Coroutine[Any, Any, _R]): an operation of this library, or a coroutine that awaits only them.",
         "_R: the operation's result.",
         "RuntimeError: called from a thread whose event loop is running (await the operation there).\n"
         "TypeError: not an operation of this library (a Future, a Task, a generator).\n"
         "Error, asyncio.TimeoutError: whatever awaiting the operation raises."},
        {"Device.__enter__",
         "Starts a `with` block: gives the handle itself. Leaving the block calls close(), also when\n"
         "connect or the body raised, so that the handle's threads end and the script can exit.",
         "", "Self: the handle."},
        {"Device.__exit__", "Leaves a `with` block: calls the handle's close(). The block's exception propagates.",
         "", "bool: False."},
        {"Device.__aenter__", "Starts an `async with` block: gives the handle itself.", "",
         "Coroutine[Any, Any, Self]: gives the handle."},
        {"Device.__aexit__", "Leaves an `async with` block: calls the handle's close().", "",
         "Coroutine[Any, Any, bool]: gives False."},
        {"Device.__repr__", "The product, its address or serial number, and whether it is connected.", "",
         "str: e.g. <TorvikLanLogic 127.0.0.5:7 connected>."},
        {"USBDevice.connect",
         "Opens the USB unit with this serial number and lets the receive thread run.\n"
         "A second connect while connected does nothing.",
         "serial_num (str): the unit's USB serial number, e.g. \"21JA1239\".\n"
         "verbose (bool): print \"Connected to ...\".",
         "bool | None: True when it connected now, None when it was connected already.",
         "USBConnectionError: no unit with that serial number (-8001).\n"
         "USBError: libusb is missing or fails."},
        {"USBDevice.disconnect", "Stops receiving and releases the USB unit; the handle can connect again.",
         "verbose (bool): print \"Disconnected from ...\"."},
        {"USBDevice.close",
         "Disconnects, then ends the receive thread. Without close the interpreter does not exit.\n"
         "The disconnect line is printed even with verbose=False.",
         "verbose (bool): print \"Closed handle (...)\"."},
        {"NetworkDevice.connect",
         "Opens the TCP command connection to the unit and lets the receive thread run.\n"
         "A second connect while connected does nothing.",
         "ip_addr (str): the unit's IPv4 address (see DeviceFinder).\nport (int): its command port (7).\n"
         "verbose (bool): print \"Connected to ...\".",
         "bool | None: True when it connected now, None when it was connected already.",
         "NetworkConnectionError: the unit cannot be reached (-8002)."},
        {"NetworkDevice.disconnect", "Stops receiving and closes the command connection.",
         "verbose (bool): print \"Disconnected from ...\".", "",
         "NetworkConnectionLostError: the connection could not be shut down (-8007)."},
        {"NetworkDevice.close",
         "Disconnects, then ends the receive thread. Without close the interpreter does not exit.",
         "verbose (bool): print \"Closed handle (...)\"."},
        {"WifiDevice.connect",
         "Opens the command connection and the data connection of a Wi-Fi unit.",
         "ip (str): the unit's IPv4 address.\nport1 (int): its command port (7).\nport2 (int): its data port (1336).\n"
         "verbose (bool): print \"Connected to ...\".",
         "bool | None: True when it connected now, None when it was connected already.",
         "NetworkConnectionError: the unit cannot be reached (-8002)."},
        {"WifiDevice.disconnect", "Stops receiving and closes both connections.",
         "verbose (bool): print \"Disconnected from ...\".", "",
         "NetworkConnectionLostError: a connection could not be shut down (-8007)."},
        {"WifiDevice.close", "Disconnects, then ends both receive threads.",
         "verbose (bool): print \"Closed handle (...)\"."},
        {"BroadcastDevice.connect", "Binds the UDP socket for discovery answers (local port 6667).",
         "verbose (bool): print \"Connected to ...\".",
         "bool | None: True when it bound now, None when it was bound already.",
         "NetworkConnectionError: the port cannot be bound (-8002)."},
        {"BroadcastDevice.disconnect",
         "Stops receiving and shuts the UDP socket down. On Linux the shutdown of a socket that never\n"
         "connected fails: see DeviceFinder for the sequence that closes a finder.",
         "verbose (bool): print \"Disconnected from ...\".", "",
         "NetworkConnectionLostError: the socket could not be shut down (-8007; always on Linux)."},
        {"BroadcastDevice.close", "Disconnects if connected, then ends the receive thread.",
         "verbose (bool): print \"Closed handle (...)\".", "",
         "NetworkConnectionLostError: from disconnect; see DeviceFinder."},

        {"Gate.acquire", "Takes the gate, as threading.Lock.acquire does (any thread may release it).",
         "blocking (bool): wait for it.\ntimeout (float): seconds to wait at most; -1 waits without limit.",
         "bool: whether the gate was taken."},
        {"Gate.release", "Opens the gate.", "", "", "RuntimeError: the gate is not held."},
        {"Gate.locked", "Whether the gate is held.", "", "bool: True while held."},

        {"StreamQueue.qsize", "The number of packets waiting.", "", "int: the count."},
        {"StreamQueue.empty", "Whether no packet waits.", "", "bool: True when empty."},
        {"StreamQueue.full", "Always False: the queue is unbounded.", "", "bool: False."},
        {"StreamQueue.put", "Appends a packet's data (or None, the wake-up mark).",
         "item (bytes | None): the data.\nblock (bool): accepted as queue.Queue does.\ntimeout (float | None): the same."},
        {"StreamQueue.put_nowait", "Appends without waiting.", "item (bytes | None): the data."},
        {"StreamQueue.get", "Takes the oldest entry, as queue.Queue.get does.",
         "block (bool): wait for one.\ntimeout (float | None): seconds to wait at most.",
         "bytes | None: the data, or None (the wake-up mark).", "queue.Empty: nothing came in time."},
        {"StreamQueue.get_nowait", "Takes the oldest entry without waiting.", "", "bytes | None: the data.",
         "queue.Empty: nothing waits."},
        {"SignalQueue.qsize", "The number of records waiting.", "", "int: the count."},
        {"SignalQueue.empty", "Whether no record waits.", "", "bool: True when empty."},
        {"SignalQueue.full", "Whether the queue holds maxsize records.", "", "bool: True when full."},
        {"SignalQueue.put", "Appends a record, as queue.Queue.put does.",
         "item (Any): the record.\nblock (bool): wait for room.\ntimeout (float | None): seconds to wait at most.",
         "", "queue.Full: no room came in time."},
        {"SignalQueue.put_nowait", "Appends a record without waiting.", "item (Any): the record.", "",
         "queue.Full: the queue is full."},
        {"SignalQueue.get", "Takes the oldest record, as queue.Queue.get does.",
         "block (bool): wait for one.\ntimeout (float | None): seconds to wait at most.", "Any: the record.",
         "queue.Empty: nothing came in time."},
        {"SignalQueue.get_nowait", "Takes the oldest record without waiting.", "", "Any: the record.",
         "queue.Empty: nothing waits."},
        {"EchoPool.keys", "The command codes with an unclaimed reply.", "", "list[int]: the codes."},
        {"EchoPool.get", "The unclaimed reply of a code, left in the pool.",
         "key (int): the command code.\ndefault (Any): returned when there is none.", "Any: the reply's bytes or default."},
        {"EchoPool.pop", "Takes the unclaimed reply of a code out of the pool.",
         "arg0 (int): the command code.\nargs (Any): an optional default.", "Any: the reply's bytes or the default.",
         "KeyError: no reply and no default."},
        {"EchoPool.items", "(code, reply) of every unclaimed reply.", "", "list[tuple[int, bytes]]: the pairs."},
        {"EchoPool.clear", "Drops every unclaimed reply.", "", "None: nothing."},
        {"StreamPool.keys", "The keys of the stream queues made so far: a code or (code, port).", "",
         "list[Any]: the keys."},
        {"BroadcastPool.keys", "The command codes with an answer set.", "", "list[int]: the codes."},
        {"AnswerSet.add", "Adds an answer (duplicates fall together).", "arg0 (bytes): the answer."},
        {"AnswerSet.discard", "Removes an answer if present.", "arg0 (bytes): the answer."},
        {"AnswerSet.remove", "Removes an answer.", "arg0 (bytes): the answer.", "", "KeyError: it is not there."},
        {"AnswerSet.clear", "Removes every answer."},
        {"AnswerSet.copy", "The answers as a plain set.", "", "set[bytes]: a copy."},

        {"Operation",
         "An awaitable operation on a unit: what every *_async method returns.\n\n"
         "It behaves as a coroutine: await it, or hand it to asyncio.create_task, gather, wait_for or\n"
         "asyncio.run. Its argument checks run at the first step, where a coroutine's body would.\n"
         "Replies are matched by command code alone: two operations of the same code at once on one\n"
         "handle share replies, and a late reply answers the next request of its code."},
        {"Operation.send", "Runs the operation to its next wait, as coroutine.send does.",
         "value (Any): None to start or resume.", "Any: the future it waits on.",
         "StopIteration: the operation finished; its value is the result."},
        {"Operation.throw", "Raises an exception inside the operation, as coroutine.throw does.",
         "typ (Any): the exception (class or instance).\nval (Any): its value.\ntb (Any): its traceback.",
         "Any: the next future it waits on."},
        {"Operation.close", "Ends the operation without a result, as coroutine.close does."},
    });
}

}  // namespace torvik::py_binding
