"""The library's status codes (ORB_ERROR_CODE in orb_error_codes.h) and the
exception that carries one.

The table mirrors the C enumeration; tests/test_package.py checks it against
the header so that the two cannot drift apart.
"""

from typing import Dict, Optional

# Value -> enumerator. 0 has two names in the header; the failure one is kept.
ERROR_CODE_NAMES: Dict[int, str] = {
    -1: "vn_ec_fail",
    0: "vn_ec_undefined_fail",
    1: "vn_ec_success",
    2: "vn_ec_memory_is_null",
    3: "vn_ec_no_device_in_system",
    4: "vn_ec_fail_to_connect_device",
    5: "vn_ec_fail_to_create_device_obj",
    6: "vn_ec_fail_to_initialize_device",
    7: "vn_ec_device_object_is_null",
    8: "vn_ec_sensor_id_is_empty",
    9: "vn_ec_fw_recv_timeout",
    10: "vn_ec_fail_to_create_core_spectrum_obj",
    11: "vn_ec_fail_to_initialize_core_spectrum_obj",
    12: "vn_ec_fail_to_load_sensor_cal_data",
    13: "vn_ec_fail_to_add_sensor_to_active_sensor_list",
    14: "vn_ec_sensor_cal_data_is_null",
    15: "vn_ec_sensor_cal_for_input_sensor_id_is_not_valid",
    16: "vn_ec_spectrum_core_object_is_null",
    17: "vn_ec_memory_for_spectrum_data_buffer_is_null",
    18: "vn_ec_memory_for_wavelength_data_buffer_is_null",
    19: "vn_ec_filter_buffer_is_null",
    20: "vn_ec_filter_data_is_nan",
    21: "vn_ec_background_buffer_is_null",
    22: "vn_ec_fail_to_calculate_spectrum",
    23: "vn_ec_wrong_reply",
    24: "vn_ec_ill_defined_input",
    25: "vn_ec_ill_defined_output",
    26: "vn_ec_initialization_required",
    27: "vn_ec_file_open_failed",
    28: "vn_ec_weights_matrix_allocation_fail",
    29: "vn_ec_fail_to_create_color_object",
    30: "vn_ec_fail_to_initialize_color_object",
    31: "vn_ec_color_object_is_null",
    32: "vn_ec_end_code",
}


class OrbError(Exception):
    """Every failure this package reports: the root of its exceptions.

    `code` is an ORB_ERROR_CODE value when the library gave one (`name` is
    its enumerator), else -1 (vn_ec_fail).
    """

    def __init__(self, text: Optional[str] = None, code: int = -1) -> None:
        self.code = code
        self.name = ERROR_CODE_NAMES.get(code, "unknown")
        super().__init__(text or f"{self.name} ({code})")


class NoSensorError(OrbError):
    """No sensor came up: none attached, or no access to its device node."""

    def __init__(self, text: str = "no sensor found") -> None:
        super().__init__(text, code=3)


class SensorLostError(OrbError):
    """The sensor left the bus (or its process ended). The same Sensor
    works again once it is plugged back in."""


class SensorTimeoutError(OrbError):
    """The sensor is on the bus but not answering within the time-out. The
    next call starts the library afresh (as a replug would) and gets frames
    again once the sensor answers; replug it only if it stays silent."""


class SensorStalledError(SensorTimeoutError):
    """The sensor's frame endpoint stalled; the sensor is still on the bus.
    The call was retried in a fresh library process once; the next call
    tries again. Clear the stall (a power cycle of the sensor's firmware);
    replug only if it persists."""


class SensorRefusedError(OrbError):
    """The sensor refused a request (it stalled it): it is on the bus and
    answering, but said no. The next call asks again."""


class OrbValueError(OrbError, ValueError):
    """An argument out of range: nothing was sent to the sensor."""


class OrbTypeError(OrbError, TypeError):
    """An argument of the wrong type: nothing was sent to the sensor."""


class CalibrationError(OrbError):
    """A sensor's calibration cannot be used: none found for its ID (the
    text names the places searched and how to make or install one), another
    sensor's, another layout version, or a damaged file."""


class SpectrumError(OrbError):
    """A spectrum or a colour could not be computed from the data given."""
