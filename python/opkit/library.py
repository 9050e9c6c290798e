"""Finds and loads libopkit.so."""

import ctypes
import os
import sys
from ctypes import POINTER, c_char_p, c_uint32, c_void_p

from opkit.attributes import short_name
from opkit.records import VERSION, ForwardFunc, ForwardParam

_default = None


class OpkitError(RuntimeError):
    """A file that is no model, a call that does not fit it, or a request that failed."""


class Library:
    """A loaded libopkit.so; `c` is the ctypes library, for everything that has no wrapper here."""

    def __init__(self, path=None):
        self.path = str(path or os.environ.get("OPKIT_LIBRARY") or "libopkit.so.3")
        try:
            self.c = ctypes.CDLL(self.path)
        except OSError as error:
            raise OpkitError(f"{error}. Give load_library() a path, set OPKIT_LIBRARY, or install the library where "
                             "the loader looks") from None
        try:
            self.c.OpkitGetVersion.restype = c_uint32
            self.version = self.c.OpkitGetVersion()
            self.build = c_char_p.in_dll(self.c, "OPKIT_GIT_VERSION").value.decode()
        except (AttributeError, ValueError):
            raise OpkitError(f"{self.path} is not the opkit library") from None
        if self.version != VERSION:
            raise OpkitError(f"{self.path} has version {self.version:#x}, this module is for {VERSION:#x}")
        self.forward = self.c.OpkitForward
        self.forward.argtypes = [POINTER(ForwardParam)]
        self.forward.restype = c_uint32
        self._find = self.c.GetForwardFunc
        self._find.argtypes = [c_char_p]
        self._find.restype = c_void_p

    def forward_function(self, operator):
        """The function behind a row of the operator table, such as "Neg"; it takes a pointer to a ForwardParam."""
        address = self._find((short_name(operator) + "OpkitForward").encode())
        if not address:
            raise OpkitError(f"{self.path} has no operator {operator}")
        return ForwardFunc(address)


def load_library(path=None):
    """Loads the library that everything uses from now on: `path`, or the file that OPKIT_LIBRARY names, or
    libopkit.so.3 from the loader's own path. Without a call, the first use does it."""
    global _default
    _default = Library(path)
    return _default


def library():
    """The library in use."""
    return _default or load_library()


def flush_messages():
    """Brings out what the library printed: it does so by C's standard output, which has a buffer of its own."""
    sys.stdout.flush()
    ctypes.CDLL(None).fflush(None)
