"""opkit from Python: runs models and single operators of libopkit.so on numpy arrays.

    import opkit
    model = opkit.load("digits")
    scores = model.run(pixels=images)["scores"]

Nothing is built: the module talks to the shared library by ctypes. The library is, in this order, the argument of
load_library(), the file that the environment variable OPKIT_LIBRARY names, or libopkit.so.3 on the loader's path.
"""

from opkit.library import Library, OpkitError, library, load_library
from opkit.model import Dump, Layer, Model, Pass, Request, Timing, load
from opkit.operators import Constant, Result, Tensor, run_operator
from opkit.records import NO_SEGMENT
from opkit.tables import CODES, OPERATORS, RECORDS

__all__ = ["CODES", "NO_SEGMENT", "OPERATORS", "RECORDS", "Constant", "Dump", "Layer", "Library", "Model", "OpkitError",
           "Pass", "Request", "Result", "Tensor", "Timing", "library", "load", "load_library", "run_operator"]
