"""The C library (ugs_client.h), with the types of its functions."""

import ctypes
import os

NAME, PACKAGE = "libugs-client.so.1", "libugs-client1"


class Counters(ctypes.Structure):
    _fields_ = [
        *((name, ctypes.c_ulong) for name in ("sent", "counted", "refused", "unanswered", "reconnects")),
        ("last_counted", ctypes.c_long),
        ("reserved", ctypes.c_long * 4),
    ]


Listener = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_char_p)

_handle, _text, _int, _long, _size = ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int, ctypes.c_long, ctypes.c_size_t
_functions = {
    "ugs_version": (_text,),
    "ugs_usage_new": (_handle, _text),
    "ugs_usage_set_container": (_int, _handle, _text),
    "ugs_usage_set_layout": (_int, _handle, _text),
    "ugs_usage_add_camera": (_int, _handle, _text),
    "ugs_usage_set_count": (_int, _handle, _text, _long),
    "ugs_usage_free": (None, _handle),
    "ugs_open": (_handle, _text, _text, _long),
    "ugs_greet": (_int, _handle),
    "ugs_report": (_int, _handle, _handle),
    "ugs_send_document": (_int, _handle, _text, _size),
    "ugs_send_sealed": (_int, _handle, _text, _size),
    "ugs_sign_off": (_int, _handle, _handle),
    "ugs_interrupt": (None, _handle),
    "ugs_get_counters": (_int, _handle, ctypes.POINTER(Counters)),
    "ugs_last_error": (_int, _handle),
    "ugs_last_error_text": (_text, _handle),
    "ugs_close": (None, _handle),
    "ugs_reporter_start": (_handle, _text, _text, _handle, _long, _long, Listener, _handle),
    "ugs_reporter_update": (_int, _handle, _handle),
    "ugs_reporter_sign_off": (_int, _handle),
    "ugs_reporter_interrupt": (None, _handle),
    "ugs_reporter_get_counters": (_int, _handle, ctypes.POINTER(Counters)),
    "ugs_reporter_stop": (None, _handle),
}


def _load() -> ctypes.CDLL:
    try:
        found = ctypes.CDLL(os.environ.get("UGS_CLIENT_LIBRARY") or NAME)
        for name, (result, *arguments) in _functions.items():
            function = getattr(found, name)
            function.restype, function.argtypes = result, arguments
        return found
    except (OSError, AttributeError) as error:
        raise ImportError(
            f"ugs_client cannot use the C library {NAME}: {error}. It comes with the Debian package {PACKAGE}; "
            "the environment variable UGS_CLIENT_LIBRARY names the file of another one",
            name=__name__,
        ) from error


library = _load()
