"""The device's State and Status: what the sensor is doing, or what is
wrong with it and what to do about it."""

from tango import DevState

from ..errors import NoSensorError, OrbError, SensorLostError, SensorStalledError, SensorTimeoutError

CONNECTING = "connecting"
LOST = "lost"
SILENT = "silent"
STALLED = "stalled"
FAILED = "failed"

# How soon to try a sensor again. One that left costs a look at the bus.
# One that does not answer, or whose endpoint stalled, costs a new library
# process (which cuts the streams of every other sensor of this server);
# each try waits for frames about two seconds itself, so that paces it, and
# the device gets frames within a few seconds of the fault being cleared.
RETRY_S = {LOST: 0.5, SILENT: 0.5, STALLED: 0.5, FAILED: 1.0, CONNECTING: 0.5}
# Attempts that started a library process and failed all the same wait
# twice as long each time, up to this: a library that cannot start is
# not started again every second. A sensor on the bus that does not answer
# is not such a library: it is tried at its pace until it does.
MAX_RETRY_S = 30.0
NO_BACKOFF = (SILENT, STALLED)


def problem_of(error):
    """(kind, text) for an exception that says the sensor cannot be
    reached, or None for one that says nothing about it (a bad argument)."""
    if isinstance(error, (SensorLostError, NoSensorError)):
        return LOST, str(error)
    if isinstance(error, SensorStalledError):
        return STALLED, str(error)
    if isinstance(error, SensorTimeoutError):
        return SILENT, str(error)
    if isinstance(error, (ValueError, TypeError)):
        return None
    if isinstance(error, OrbError):
        return FAILED, str(error)
    return None


def advice(name, problem):
    """What is wrong with sensor `name` and what to do about it."""
    kind, text = problem
    if kind == CONNECTING:
        return f"Looking for sensor {name}."
    if kind == LOST:
        return (f"Sensor {name} is not on the bus: plug the sensor back in (or bring its USB/IP link "
                f"back). The device finds it again by itself. ({text})")
    if kind == SILENT:
        return (f"Sensor {name} is on the bus but not answering. The device tries it again by itself and "
                f"streams again once it answers; replug it only if it stays silent. ({text})")
    if kind == STALLED:
        return (f"Sensor {name} is on the bus, its frame endpoint stalled. The device retries it by itself; "
                f"clear the stall, and replug it only if it persists. ({text})")
    return (f"The library failed on sensor {name}: {text}. The device tries again by itself; if this "
            "stays, restart the server.")


def describe(name, problem, streaming):
    """(DevState, status text) of sensor `name`; `streaming`: a stream
    runs or is wanted."""
    if problem is None:
        if streaming:
            return DevState.RUNNING, (f"Streaming sensor {name}: FilterData sends a change event with "
                                      "every frame (an average of Averages frames). Stop ends it.")
        return DevState.ON, f"Sensor {name} is ready: Start streams, Acquire takes one frame."
    if problem[0] == CONNECTING:
        return DevState.INIT, advice(name, problem)
    return DevState.FAULT, advice(name, problem) + (" Streaming resumes then." if streaming else "")
