"""atheris harness: the module's conversion and check functions called with values made from the
fuzzer's bytes (ints of any size, floats with nan and inf, text, bytes, nested lists and tuples,
None, bools). Each call must give a value or an exception a Python function could raise: a crash,
a SystemError or a text of the binding library is a finding.

    python tests/fuzz/fuzz_convert.py -max_total_time=60 -artifact_prefix=DIR/ [CORPUS...]
"""
import inspect
import sys

import atheris

import pytorvik

FUNCTIONS = sorted(n for n in dir(pytorvik) if n.startswith(("convert", "check")) and n != "checkFirmwareError") + [
    "coerce", "adjustDataList"]


def arity(fn):
    """(required, total) parameters of the function's signature."""
    params = inspect.signature(fn).parameters.values()
    return sum(p.default is p.empty for p in params), len(params)


ARITY = {name: arity(getattr(pytorvik, name)) for name in FUNCTIONS}
BINDING_TEXT = ("Unable to cast", "C++ type", "incompatible function arguments", "pybind11", "Could not allocate")


@atheris.instrument_func  # the module is compiled: the harness's own branches guide the fuzzer
def value(fdp, depth=0):
    kind = fdp.ConsumeIntInRange(0, 11 if depth < 2 else 8)
    if kind == 0:
        return None
    if kind == 1:
        return fdp.ConsumeBool()
    if kind == 2:
        return fdp.ConsumeIntInRange(-300, 300)
    if kind == 3:
        return fdp.ConsumeInt(fdp.ConsumeIntInRange(1, 20))  # up to 160 bits, either sign
    if kind == 4:
        return fdp.ConsumeRegularFloat()
    if kind == 5:
        return fdp.PickValueInList([float("nan"), float("inf"), -float("inf"), -0.0, 1e300])
    if kind == 6:
        return fdp.ConsumeUnicode(fdp.ConsumeIntInRange(0, 24))
    if kind == 7:
        return fdp.ConsumeBytes(fdp.ConsumeIntInRange(0, 24))
    if kind == 8:
        return fdp.PickValueInList(["192.168.1.110", "00:1a:2b:3c:4d:5e", "ff:FF:0", "1.2.3", int, (int, list)])
    items = [value(fdp, depth + 1) for _ in range(fdp.ConsumeIntInRange(0, 10))]
    return tuple(items) if kind == 9 else items


@atheris.instrument_func
def one_input(data):
    fdp = atheris.FuzzedDataProvider(data)
    name = fdp.PickValueInList(FUNCTIONS)
    fn = getattr(pytorvik, name)
    args = [value(fdp) for _ in range(fdp.ConsumeIntInRange(*ARITY[name]))]
    try:
        fn(*args)
    except (SystemError, RuntimeError) as e:
        raise AssertionError("%s%r raised %s: %s" % (fn.__name__, tuple(args), type(e).__name__, e))
    except Exception as e:  # noqa: BLE001 - any other exception is a fair answer to a bad argument
        if any(text in str(e) for text in BINDING_TEXT):
            raise AssertionError("%s%r: binding text: %s" % (fn.__name__, tuple(args), e))


if __name__ == "__main__":
    import resource
    # A length that asks for more than this fails with MemoryError, as it would on a smaller machine,
    # instead of growing the process until the fuzzer counts it out of memory.
    resource.setrlimit(resource.RLIMIT_AS, (1 << 31, 1 << 31))
    atheris.Setup(sys.argv, one_input)
    atheris.Fuzz()
