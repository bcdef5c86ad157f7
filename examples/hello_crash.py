#!/usr/bin/env python3
"""Crash reports for a program in Python, by ctypes and the library's C face.

    $ hello_crash.py PREFIX/lib/libvantor_crash_client.so.0
    Reports of crashes are on.
    $ hello_crash.py PREFIX/lib/libvantor_crash_client.so.0 crash
    Reports of crashes are on.
    Now I crash.
    Segmentation fault

The second leaves a report in ~/.local/share/vantor/crash, or sends it, with the annotation "stage". An exception
that nobody catches is no crash: a hook makes an annotation of it, and a report of that moment if you like.
"""

import ctypes
import sys

TEXT_SIZE = 512
REPORT_SIZE = 37

client = ctypes.CDLL(sys.argv[1])
client.vantor_crash_start.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_size_t]
client.vantor_crash_set.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
client.vantor_crash_dump.argtypes = [ctypes.c_char_p]

problem = ctypes.create_string_buffer(TEXT_SIZE)
if client.vantor_crash_start(None, problem, TEXT_SIZE) != 0:
    print("hello_crash.py:", problem.value.decode(), file=sys.stderr)
else:
    print("Reports of crashes are on.", flush=True)


def report_exception(kind, exception, traceback):
    client.vantor_crash_set(b"python_exception", f"{kind.__name__}: {exception}".encode()[:255])
    report = ctypes.create_string_buffer(REPORT_SIZE)
    client.vantor_crash_dump(report)
    sys.__excepthook__(kind, exception, traceback)


sys.excepthook = report_exception
client.vantor_crash_set(b"stage", b"greeting")
if sys.argv[2:] == ["crash"]:
    print("Now I crash.", flush=True)
    ctypes.string_at(0)
if sys.argv[2:] == ["raise"]:
    raise ValueError("nobody catches this")
