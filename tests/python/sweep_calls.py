"""Worker of the argument sweep (test_sweep.py): calls public callables of pytorvik with odd values
in each argument position and writes one line per call to a result file.

    python sweep_calls.py PLAN_JSON RESULT_FILE START

PLAN_JSON: {"mode": "unconnected" | "connected", "full": bool, "broadcast": bool, "units": [...]}.
The calls are enumerated here, deterministically, from the type stubs (their names and parameters)
and the built module; the driver gives only the index to start at, so that after a crash it can go
on behind the call that crashed. Before each call "S <index>" is written, after it "R <index> <json>".
A call that takes longer than CALL_LIMIT ends the process through faulthandler, which prints where
it hung; a crash leaves the "S" line alone as its trace.
"""
import ast
import asyncio
import collections.abc
import contextlib
import faulthandler
import io
import json
import math  # noqa: F401 - the odd values are expressions that use it
import os
import re
import sys
import time
import warnings

import pytorvik as t

CALL_LIMIT = 20.0  # seconds before a call counts as hung (an operation's own budget is 5 s)
OP_LIMIT = 6.0     # an awaited operation is cut off here; the protocol's time-out is 5 s
OP_LIMIT_FAST = 1.5  # the same in the sampled sweep: a unit that answers does so in milliseconds
OP_LIMIT_OFF = 0.1  # unconnected, nothing answers: only a sleep asked for can last


def _refuse(what):
    def refuse(self, *args):
        raise ArithmeticError(what + " refused")
    return refuse


class Evil:
    """An object whose number, length, iteration, truth and comparison protocols all fail."""
    __index__, __int__, __float__ = _refuse("index"), _refuse("int"), _refuse("float")
    __len__, __iter__, __bool__ = _refuse("len"), _refuse("iter"), _refuse("bool")
    __eq__ = __ne__ = __lt__ = __le__ = __gt__ = __ge__ = _refuse("comparison")

    def __hash__(self):
        return 1


class BadIndex:
    """__index__ returns something that is no int."""

    def __index__(self):
        return 1.5


class HugeLen:
    def __len__(self):
        return sys.maxsize

    def __getitem__(self, i):
        raise IndexError(i)


IntSub = type("IntSub", (int,), {})
StrSub = type("StrSub", (str,), {})


# Each odd value as the expression that makes it: evaluated afresh for every call, since callables
# may keep or change what they get, and shown as it is in the reports. Strings are never host
# names, so that nothing asks a name server.
ODD = [
    "None", "''", "'1'", "'\\x00'", "'\\udcff'", "b''", "b'\\xff\\x00'", "bytearray(b'\\x01\\x02')",
    "0.5", "math.nan", "math.inf", "-math.inf", "1e300", "True", "False",
    "-1", "256", "2**31", "-2**63-1", "2**64", "2**62", "10**400", "1j",
    "[]", "[None]", "[[1]]", "[-1]", "[256]", "[2**70]", "[0.5, 'a']", "[0]*300",
    "()", "(1,)", "{}", "{1}", "range(3)", "(i for i in (1, 2))", "object()",
    "Evil()", "BadIndex()", "HugeLen()", "IntSub(1)", "StrSub('1')", "int", "...",
]

# Argument values that pass a typical check, so that an odd value elsewhere reaches its own check.
GOOD_BY_NAME = {
    "verbose": False, "block": False, "blocking": False, "timeout": 0.01, "delay": 0, "clear_old": True,
    "data": [0], "int_list": [0], "data_out": [0], "write_data": [0], "value_list": [0], "value_mat": [[0]],
    "index_list": [0], "binary_list": [1], "pin_list": [0], "id_in_list": [0, 0, 0, 0], "header": ["h"],
    "channel": 0, "pin": 0, "mode": 0, "value": 0, "length": 1, "index": 0, "num_samples": 1,
    "num_frames": 1, "bytes_to_read": 1, "sampling_rate": 1000, "sample_points": 1, "baud_rate": 9600,
    "num_retries": 1, "year": 2020, "month": 1, "day": 1, "hour": 0, "minute": 0, "second": 0,
    "ip": "127.0.0.1", "ip_addr": "127.0.0.1", "subnet_mask": "255.0.0.0", "gateway": "127.0.0.1",
    "mac_addr": "00:11:22:33:44:55", "serial_num": "NOSUCHUNIT", "filename": "sweep.csv", "msg": "m",
    "str_": "ab", "list_": [0], "data_list": [0], "value_int": 1, "width": 2, "cmd": 1, "id_": 1,
    "error_code": 0, "maxsize": 0, "held": False, "amplitude": 1.0, "offset": 0.0, "period": 1.0,
    "AO_value": 0.0, "temperature": 0.0, "span": 0, "form": 0, "cs": 0, "state": 0, "status": 0,
    "correct_type": int, "low": 0, "high": 1, "lower": 0, "upper": 1, "item": 0, "key": 1,
}
GOOD_BY_TYPE = {"int": 0, "float": 0.0, "str": "", "bool": False, "list[int]": [0], "int | list[int]": 0}
# The module table behind a port argument, by the operation's prefix.
PORT_TABLES = [("AI_", "ai_dict"), ("AO_", "ao_dict"), ("DI_", "di_dict"), ("DO_", "do_dict"), ("UART_", "uart_dict"),
               ("I2C_", "i2c_dict"), ("SPI_", "spi_dict"), ("CAN_", "can_dict"), ("Thermal_", "thermal_dict"),
               ("TC_", "tc_dict"), ("RTD_", "rd_dict")]

POSITIONAL_ONLY = re.compile(r"arg\d+$")  # the binding's unnamed parameters
STUB_POSITIONAL_ONLY = {}  # function name: the names its stub puts before "/"
HANDLES = list(t.HANDLE_LIST) + ["TorvikCore", "TorvikCoreMini", "TorvikDrive", "TorvikBox"]
BROADCASTING = {"Bcst_enumerateNetworkDevices_async", "Bcst_checkMACAndSetIP_async", "Bcst_checkMACAndReboot_async",
                "_broadcastPacket_async", "sendBcstPacket"}
# Never called: the binding's own plumbing, and thread bodies, which loop until their handle ends.
NEVER = {"_pybind11_conduit_v1_", "__init_subclass__", "__await__", "__next__", "send", "throw"}
# Left out on a connected handle: what ends or moves its connection (the unconnected sweep has them).
NOT_CONNECTED = {"connect", "disconnect", "close", "Sys_reboot_async", "Net_setIPAddr_async",
                 "Bcst_checkMACAndReboot_async", "Wifi_setAP_async", "_setMACAddr_async"}
# A stream module's close takes its gate, which only an open hands over: a close without an open
# blocks the caller for good, as it is meant to. The sweep opens the gates first.
GATES_TAKEN = {"AI_close_async": ("ai_lock",), "CAN_close_async": ("can_lock",),
               "UART_close_async": ("uart_p1_lock", "uart_p2_lock")}
# The packet layer's own waits run to their time limits on a connected unit (seconds each): the
# unconnected sweep has them, and the full one on the first connected handle (they are the same
# functions on every handle).
SLOW_CONNECTED = {"_getReplyFromPool_async", "_echoPacket_async", "_echoPacketWithRetry_async",
                  "_getStreamingFromPool_async"}


def stub_signatures():
    """{class name or "": {function name: [(param, annotation, has_default)]}} from the stubs."""
    path = os.path.join(os.path.dirname(t.__file__), "__init__.pyi")
    with open(path) as f:
        source = f.read()
    tree = ast.parse(source)
    lines = source.splitlines()
    out = {"": {}}

    def text(node):  # annotations are on one line in the stubs
        if node is None:
            return "Any"
        return lines[node.lineno - 1][node.col_offset:node.end_col_offset]

    def params(fn):
        STUB_POSITIONAL_ONLY.setdefault(fn.name, set()).update(a.arg for a in getattr(fn.args, "posonlyargs", []))
        args = getattr(fn.args, "posonlyargs", []) + fn.args.args
        defaults = [False] * (len(args) - len(fn.args.defaults)) + [True] * len(fn.args.defaults)
        ps = [(a.arg, text(a.annotation), d) for a, d in zip(args, defaults)]
        return ps, fn.args.vararg is not None

    for node in tree.body:
        if isinstance(node, ast.FunctionDef):
            out[""][node.name] = params(node)
        elif isinstance(node, ast.ClassDef):
            out[node.name] = {n.name: params(n) for n in node.body if isinstance(n, ast.FunctionDef)}
    return out


def port_value(obj, method):
    for prefix, table in PORT_TABLES:
        if method.startswith(prefix) or method.startswith("_" + prefix) or ("_check" + prefix[:-1]) in method:
            d = getattr(obj, table, None)
            if isinstance(d, dict) and d:
                return sorted(d)[0]
    for table in ("thermal_dict", "tc_dict", "rd_dict"):
        if method.startswith(("Thermal", "_Thermal", "_checkThermal")) and isinstance(getattr(obj, table, None), dict):
            d = getattr(obj, table)
            if d:
                return sorted(d)[0]
    return 0


def good_value(obj, method, name, annotation):
    if name.endswith("port") or name.endswith("_port") or name in ("port1", "port2"):
        if name in ("port1", "port2") or method in ("connect", "bind"):
            return 1
        return port_value(obj, method)
    if name in GOOD_BY_NAME:
        return GOOD_BY_NAME[name]
    return GOOD_BY_TYPE.get(annotation, 0)


class Target:
    """Something whose callables are swept: the module, a class (its constructor) or an object."""

    def __init__(self, key, make, stub_classes, connected=False, unit=None):
        self.key = key
        self.make = make            # returns the object that carries the callables
        self.stub_classes = stub_classes
        self.connected = connected
        self.unit = unit
        self.obj = None


def enumerate_calls(plan, stubs):
    """[(target key, callable name, params, position, odd index, keyword)]: the calls, in order."""
    full = plan["full"]
    calls = []
    seen = set()
    slow_done = set()

    def add(key, owner, name, ps, connected):
        if name in NEVER or name.endswith("Thread") or (name in BROADCASTING and not plan["broadcast"]):
            return
        if connected and (name in NOT_CONNECTED or (name in SLOW_CONNECTED and (not full or name in slow_done))):
            return
        if connected and name in SLOW_CONNECTED:
            slow_done.add(name)
        fn = getattr(owner, name, None)
        if fn is None:
            return
        ident = (getattr(fn, "__func__", fn), connected)
        # Each function once: the fast sweep with a sample of values in each position, the full one
        # with every value, connected on the first unit that has it (its body is the same on all).
        if not full or connected:
            if ident in seen:
                return
            seen.add(ident)
        params, _ = ps
        params = [p for p in params if p[0] not in ("self", "cls")]
        for pos in range(len(params)):
            for i in range(len(ODD)):
                if not full and (i + pos + len(name)) % 5:
                    continue
                kw = (i % 3 == 0)  # every third value goes by keyword, which also checks the stub's names
                calls.append((key, name, pos, i, kw))
        if not params:
            calls.append((key, name, -1, -1, False))

    for name, ps in stubs[""].items():
        add("module", t, name, ps, False)
    for cls_name, members in stubs.items():
        if not cls_name or cls_name.startswith("_"):
            continue
        cls = getattr(t, cls_name, None)
        if not isinstance(cls, type) or issubclass(cls, BaseException):
            continue
        if "__init__" in members and members["__init__"][0][1:]:
            add("new:" + cls_name, cls, "__init__", members["__init__"], False)
    for key in object_keys(plan):
        kind, cls_name = key.split(":", 1)
        cls = getattr(t, cls_name)
        connected = kind == "on"
        for base in cls.__mro__:
            for name, ps in stubs.get(base.__name__, {}).items():
                if name == "__init__" or getattr(cls, name, None) is None:
                    continue
                if any(name in vars(b) for b in cls.__mro__[:cls.__mro__.index(base)]):
                    continue  # a subclass defines its own
                add(key, cls, name, ps, connected)
    return calls


def object_keys(plan):
    keys = ["off:" + h for h in HANDLES]
    keys += ["off:" + c for c in ("CANFrame", "Gate", "StreamQueue", "Client", "NetworkClient", "TCPClient",
                                   "UDPClient", "EchoPool", "StreamPool", "BroadcastPool",
                                   "AnswerSet", "SignalQueue")]
    if plan["mode"] == "connected":
        keys = ["on:" + u["cls"] for u in plan["units"]]
    return keys


def quiet_close(obj):
    if getattr(obj, "killed", True) is not False:
        return
    for args in ({"verbose": False}, {}):
        try:
            obj.close(**args)
            return
        except TypeError:
            continue
        except Exception:  # noqa: BLE001 - a handle left broken by a call
            return


class Runner:
    def __init__(self, plan):
        self.plan = plan
        self.loop = asyncio.new_event_loop()
        asyncio.set_event_loop(self.loop)
        self.objects = {}
        self.units = {u["cls"]: u for u in plan.get("units", [])}
        self.connected = plan["mode"] == "connected"
        self.op_limit = (OP_LIMIT if plan["full"] else OP_LIMIT_FAST) if self.connected else OP_LIMIT_OFF
        self.sim_units = {}
        if self.connected:
            from pytorvik import simctl
            sims = {}
            for u in plan["units"]:
                if u["control"] not in sims:
                    sims[u["control"]] = simctl.Sim.attach(u["control"])
                sim = sims[u["control"]]
                self.sim_units[u["cls"]] = next(x for x in sim.units if x.serial == u["serial"] and x.cls == u["cls"])

    # -- objects ---------------------------------------------------------------------------------
    def helper(self, name):
        if name == "CANFrame":
            return t.CANFrame(1)
        if name in ("Gate", "StreamQueue", "Client", "NetworkClient", "TCPClient", "UDPClient"):
            return getattr(t, name)()
        dev = self.obj("off:TorvikUsbCan")
        finder = self.obj("off:DeviceFinder")
        return {"EchoPool": lambda: dev.data_pool_echo, "StreamPool": lambda: dev.data_pool_strm,
                "BroadcastPool": lambda: finder.data_pool_bcst, "AnswerSet": lambda: finder.data_pool_bcst[1],
                "SignalQueue": lambda: dev.uart_p1_signal_queue}[name]()

    def obj(self, key):
        o = self.objects.get(key)
        kind, name = key.split(":", 1)
        if o is not None:
            fine = True
            if name in HANDLES or name in ("DataLogger", "DeviceFinder"):
                if getattr(o, "killed", False):
                    fine = False
                elif kind == "off" and (getattr(o, "connect_status_cmd", False) or getattr(o, "connect_status_udp", False)):
                    fine = False
                elif kind == "on" and not getattr(o, "connect_status_cmd", True):
                    fine = False
            if fine:
                return o
            quiet_close(o)
        cls = getattr(t, name)
        if name in HANDLES:
            with contextlib.redirect_stdout(io.StringIO()):
                o = cls()
            if kind == "on":
                u = self.units[name]
                if u["addr"].startswith("usb:"):
                    o.connect(u["serial"], verbose=False)
                elif name == "TorvikAirAnalog":
                    t.WifiDevice.connect(o, u["addr"], port1=u["cmd_port"], port2=u["data_port"], verbose=False)
                else:
                    o.connect(u["addr"], port=u["cmd_port"], verbose=False)
        else:
            o = self.helper(name)
        self.objects[key] = o
        return o

    # -- one call --------------------------------------------------------------------------------
    def build(self, key, name, pos, odd_index, kw, stubs_for):
        if key == "module":
            owner = t
        elif key.startswith("new:"):
            owner = getattr(t, key[4:])
        else:
            owner = self.obj(key)
        params = [p for p in stubs_for(key, name)[0] if p[0] not in ("self", "cls")]
        args, kwargs = [], {}
        shown = []
        positional = STUB_POSITIONAL_ONLY.get(name, set())
        for j, (pname, annotation, has_default) in enumerate(params):
            if j < pos:
                v = good_value(owner, name, pname, annotation)
            elif j == pos:
                v = eval(ODD[odd_index])
            else:
                if has_default and pname != "timeout":
                    break
                v = good_value(owner, name, pname, annotation)
            by_keyword = kw and j >= pos and not POSITIONAL_ONLY.match(pname) and pname not in positional
            if by_keyword:
                kwargs[pname] = v
            else:
                args.append(v)
            shown.append("%s%s" % (pname + "=" if by_keyword else "", ODD[odd_index] if j == pos else repr(v)))
        fn = owner if name == "__init__" else getattr(owner, name)
        desc = "%s.%s(%s)" % (key, name, ", ".join(shown))
        return fn, args, kwargs, desc

    def invoke(self, fn, args, kwargs):
        with contextlib.redirect_stdout(io.StringIO()):
            r = fn(*args, **kwargs)
            if isinstance(r, collections.abc.Coroutine):
                try:
                    r = self.loop.run_until_complete(asyncio.wait_for(r, self.op_limit))
                except asyncio.TimeoutError:
                    return "timeout", None
            return "value", r


def outcome(exc):
    """None when the exception is one a Python function could raise, else why it is not."""
    text = "%s: %s" % (type(exc).__name__, exc)
    if isinstance(exc, SystemError):
        return "SystemError: " + text
    for marker in ("Unable to cast", "C++ type", "incompatible function arguments", "pybind11", "Could not allocate",
                   "Unable to convert", "std::", "NULL result without error", "returned a result with an exception"):
        if marker in text:
            return "binding text: " + text
    if type(exc).__module__ not in ("builtins", "pytorvik", "asyncio.exceptions", "concurrent.futures._base",
                                     "encodings", "_socket", "socket", "csv", "__main__"):
        return "unexpected exception class %s.%s: %s" % (type(exc).__module__, type(exc).__name__, exc)
    return None


def main():
    plan = json.loads(sys.argv[1])
    out = open(sys.argv[2], "a", buffering=1)
    start = int(sys.argv[3])
    warnings.simplefilter("ignore")
    # A value that asks for an enormous result fails with MemoryError instead of swapping.
    try:
        import resource
        resource.setrlimit(resource.RLIMIT_AS, (3 << 30, 3 << 30))
    except ImportError:  # Windows: no such limit
        pass
    stubs = stub_signatures()
    calls = enumerate_calls(plan, stubs)
    if start == 0:
        out.write("N %d\n" % len(calls))
    runner = Runner(plan)

    def stubs_for(key, name):
        if key == "module":
            return stubs[""][name]
        cls = getattr(t, key.split(":", 1)[1])
        for base in cls.__mro__:
            if name in stubs.get(base.__name__, {}):
                return stubs[base.__name__][name]
        raise KeyError(name)

    for index in range(start, len(calls)):
        key, name, pos, odd_index, kw = calls[index]
        unit = runner.sim_units.get(key.split(":", 1)[1]) if key.startswith("on:") else None
        try:
            fn, args, kwargs, desc = runner.build(key, name, pos, odd_index, kw, stubs_for)
        except Exception as e:  # noqa: BLE001 - a handle that cannot be made or connected
            out.write("R %d %s\n" % (index, json.dumps({"desc": "%s.%s" % (key, name), "problem": "setup: %r" % e})))
            continue
        for gate in GATES_TAKEN.get(name, ()):
            g = getattr(runner.objects.get(key), gate, None)
            if g is not None and g.locked():
                g.release()
        if unit is not None:
            unit.clear_log()
        out.write("S %d %s\n" % (index, desc))
        faulthandler.dump_traceback_later(CALL_LIMIT, exit=True)
        result = {"desc": desc}
        began = time.monotonic()
        try:
            kind, value = runner.invoke(fn, args, kwargs)
            result["kind"] = kind
            if name == "__init__":
                quiet_close(value)
        except BaseException as e:  # noqa: BLE001 - what the sweep is about
            if isinstance(e, (KeyboardInterrupt, SystemExit)):
                raise
            result["kind"] = "error" if isinstance(e, t.Error) else "exception"
            problem = outcome(e)
            if problem:
                result["problem"] = problem
            if isinstance(e, t.Error) and unit is not None:
                # A pin-state check asks the unit for its pin modes before it fails: that query is
                # the check itself, not the command refused.
                sent = [f for f in unit.log() if f.code != t.GET_PIN_MODE_OF_SLOT]
                if sent:
                    result["problem"] = "%s raised %s after sending %s" % (desc, type(e).__name__,
                                                                        [(f.code, f.payload.hex()) for f in sent])
        faulthandler.cancel_dump_traceback_later()
        result["s"] = round(time.monotonic() - began, 4)
        result["t"] = round(time.monotonic(), 3)
        out.write("R %d %s\n" % (index, json.dumps(result)))
        if unit is not None and result["kind"] != "error":
            time.sleep(0.002)  # what this call sent reaches the unit's log before the next call clears it
    out.write("D\n")
    out.close()
    sys.stdout.flush()
    os._exit(0)  # handles made by constructor calls may still run their threads


if __name__ == "__main__":
    faulthandler.enable()
    main()
