"""The Python module against the headers, the digits model, small models, and operators with values by hand.

The environment says where everything is: OPKIT_LIBRARY, OPKIT_SOURCE_DIR, OPKIT_MODELS (from write_models) and CC.
"""

import contextlib
import ctypes
import io
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
import zlib

import numpy as np

SOURCE = pathlib.Path(os.environ["OPKIT_SOURCE_DIR"])
MODELS = pathlib.Path(os.environ["OPKIT_MODELS"])
LIBRARY = os.environ["OPKIT_LIBRARY"]
DIGITS = SOURCE / "examples/digits/data"
sys.path.insert(0, str(SOURCE / "python"))

import opkit
from opkit import attributes, records, tables


def headers():
    return "".join(path.read_text() for path in sorted((SOURCE / "include/opkit/attributes").glob("*.h")))


class HeadersTest(unittest.TestCase):
    """What a C compiler says of the records, and the headers in plain text, against what the module says."""

    @classmethod
    def setUpClass(cls):
        cls.lines = []
        for record in records.LAYOUT:
            name = record.__name__
            cls.lines.append((f"{name} size", f"sizeof({name})", ctypes.sizeof(record)))
            for field, _ in record._fields_:
                place = getattr(record, field)
                cls.lines.append((f"{name}.{field} offset", f"offsetof({name}, {field})", place.offset))
                cls.lines.append((f"{name}.{field} size", f"sizeof((({name}*)0)->{field})", place.size))
        kinds = {"u1": 1, "S1": 2, "<u4": 3, "<i4": 4, "<u8": 5, "<i8": 6, "<f4": 7}
        for name, (size, fields) in tables.RECORDS.items():
            cls.lines.append((f"{name} size", f"sizeof({name})", size))
            block = attributes.block_type(name)
            for field in fields:
                kind, offset = block.fields[field][:2]
                cls.lines.append((f"{name}.{field} offset", f"offsetof({name}, {field})", offset))
                cls.lines.append((f"{name}.{field} size", f"sizeof((({name}*)0)->{field})", kind.itemsize))
                if kind.base == tables.STRIDES:
                    continue
                base = "S1" if kind.kind == "S" else kind.base.str.lstrip("|")
                entry = f"(({name}*)0)->{field}" + ("[0]" if kind.subdtype or kind.kind == "S" else "")
                cls.lines.append((f"{name}.{field} type", f"KIND({entry})", kinds[base]))
        for name, value in tables.CODES.items():
            cls.lines.append((name, f"(uint32_t)({name})", value & 0xFFFFFFFF))
        for name in ("MAX_BATCH", "MAX_LAYERS", "MAX_LAYER_INPUTS", "MAX_LAYER_OUTPUTS", "MAX_MODEL_SIZE", "MAX_DIMS",
                     "MEM_SCRATCH", "MEM_SCRATCH_BATCHED", "NO_SEGMENT", "FAILURE", "VERSION"):
            cls.lines.append((name, "OPKIT_" + name, getattr(records, name)))

    def test_c_compiler_agrees(self):
        prints = "".join(f'    printf("%llu\\n", (unsigned long long)({c}));\n' for _, c, _ in self.lines)
        program = ("#include <opkit/opkit.h>\n#include <stdio.h>\n"
                   "#define KIND(x) _Generic((x), uint8_t: 1, char: 2, uint32_t: 3, int32_t: 4, uint64_t: 5, "
                   "int64_t: 6, float: 7)\nint main(void)\n{\n" + prints + "    return 0;\n}\n")
        with tempfile.TemporaryDirectory() as folder:
            (pathlib.Path(folder) / "layout.c").write_text(program)
            subprocess.run([os.environ["CC"], "-std=c11", "-I", SOURCE / "include", "layout.c", "-o", "layout"],
                           cwd=folder, check=True)
            values = subprocess.run([folder + "/layout"], check=True, capture_output=True, text=True).stdout.split()
        self.assertEqual(len(values), len(self.lines))
        for (what, _, here), there in zip(self.lines, values):
            self.assertEqual(here, int(there), what)
        self.assertGreater(len(values), 600)

    def test_every_field_of_the_headers_is_there(self):
        stated = re.findall(r"OPKIT_OFFSET\((\w+Attr), ([\w.]+), (\d+)\)", headers())
        self.assertGreater(len(stated), 150)
        for record, field, offset in stated:
            self.assertEqual(tables.RECORDS[record][1][field][1], int(offset), f"{record}.{field}")

    def test_every_code_of_the_headers_is_there(self):
        codes = dict(re.findall(r"\n    (OPKIT_\w+) = (-?\d+)", headers()))
        self.assertGreater(len(codes), 50)
        for name, value in codes.items():
            self.assertEqual(tables.CODES[name], int(value), name)

    def test_every_row_of_the_operator_table_is_there(self):
        table = re.findall(r"^OPKIT_OPERATOR\((\w+),", (SOURCE / "include/opkit/operators.def").read_text(), re.M)
        self.assertEqual(list(opkit.OPERATORS), table)
        self.assertIn("ThresholdedRelu", table)
        for name in table:
            address = ctypes.cast(opkit.library().forward_function(name), ctypes.c_void_p).value
            plain = "DetectionOutput" if name in ("FilterBox", "Sort", "NMS") else name
            expected = ctypes.cast(getattr(opkit.library().c, plain + "OpkitForward"), ctypes.c_void_p).value
            self.assertEqual(address, expected, name)

    def test_a_wrong_layout_stops_the_import(self):
        for layout in ({records.TensorInfo: (48, {})}, {records.LayerRecord: (44, {"nameOffset": 8})}):
            right, records.LAYOUT = records.LAYOUT, layout
            try:
                self.assertRaises(ImportError, records.check_layout)
            finally:
                records.LAYOUT = right


class LibraryTest(unittest.TestCase):
    def run_python(self, code, **environment):
        clean = {k: v for k, v in os.environ.items() if k not in ("OPKIT_LIBRARY", "LD_LIBRARY_PATH")}
        return subprocess.run([sys.executable, "-c", "import opkit; " + code], capture_output=True, text=True,
                              env={**clean, "PYTHONPATH": str(SOURCE / "python"), **environment})

    def test_found_by_argument_environment_and_loader(self):
        show = "print(hex(opkit.library().version), opkit.library().path)"
        folder = str(pathlib.Path(LIBRARY).parent)
        for code, environment, path in (
                (f"opkit.load_library({LIBRARY!r}); {show}", {"OPKIT_LIBRARY": "/nowhere.so"}, LIBRARY),
                (show, {"OPKIT_LIBRARY": LIBRARY}, LIBRARY),
                (show, {"LD_LIBRARY_PATH": folder}, "libopkit.so.3")):
            result = self.run_python(code, **environment)
            self.assertEqual(result.stdout, f"0x30000 {path}\n", result.stderr)

    def test_what_cannot_be_loaded_is_told(self):
        result = self.run_python("opkit.library()", OPKIT_LIBRARY="/nowhere.so")
        self.assertIn("OpkitError: /nowhere.so: cannot open", result.stderr)
        result = self.run_python("opkit.load_library('libm.so.6')")
        self.assertIn("libm.so.6 is not the opkit library", result.stderr)


class DigitsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.model = opkit.load(DIGITS / "digits.json")
        cls.images = np.load(DIGITS / "images.npy").astype(np.float32) / 16
        cls.labels = np.load(DIGITS / "labels.npy")
        cls.whole = cls.model.run(pixels=cls.images)

    def test_recognises_as_many_as_the_demo(self):
        self.assertEqual(self.whole["classes"].shape, (360, 1, 3))
        self.assertEqual(np.count_nonzero(self.whole["classes"][:, 0, 0] == self.labels), 354)
        np.testing.assert_allclose(self.whole["logits"], np.load(DIGITS / "logits.npy"), rtol=0, atol=1e-4)

    def test_any_batch_size_gives_the_same_bits(self):
        for batch in (1, 7, 30, 256):
            part = self.model.run({"pixels": self.images[:90]}, batch=batch)
            for name, values in part.items():
                self.assertEqual(values.tobytes(), self.whole[name][:90].tobytes(), (name, batch))

    def test_items_are_counted_by_the_dimensions_in_front(self):
        one = self.model.run(pixels=self.images[5])
        self.assertEqual({n: v.shape for n, v in one.items()}, {"logits": (10,), "scores": (1, 3), "classes": (1, 3)})
        self.assertEqual(one["logits"].tobytes(), self.whole["logits"][5].tobytes())
        for shape in ((1, 1, 8, 8), (1, 8, 8)):
            again = self.model.run(pixels=self.images[5].reshape(shape))
            self.assertEqual(again["logits"].tobytes(), one["logits"].tobytes())
        for shape, items in (((2, 1, 1, 8, 8), 2), ((2, 3, 8, 8), 6), ((0, 8, 8), 0)):
            many = self.model.run(pixels=self.images[:items].reshape(shape))
            self.assertEqual(many["logits"].shape, (items, 10))
            self.assertEqual(many["logits"].tobytes(), self.whole["logits"][:items].tobytes())

    def test_layers_constants_and_tensors_are_described(self):
        layers = self.model.layers()
        self.assertEqual([layer.operator for layer in layers[:4]], [
            "ConvolutionOpkitForward", "BinaryMathOpkitForward", "ThresholdedReluOpkitForward",
            "PoolingMaxOpkitForward"])
        self.assertEqual(layers[9].outputs[0].shape, (1, 10))
        self.assertEqual(self.model.inputs, [("pixels", (1, 1, 8, 8), 64)])
        for name, values in self.model.constants.items():
            np.testing.assert_array_equal(values.ravel(), np.load(DIGITS / f"weights/{name}.npy").ravel(), name)
        self.assertEqual(len(self.model.constants), 6)

    def test_dumps_show_every_layer(self):
        request = opkit.Request(self.model, 2)
        request.set_input("pixels", self.images[:2])
        dumps = []
        request.on_dump(dumps.append)
        request.run()
        self.assertEqual([d.layer_id for d in dumps], 2 * ([*range(12)] + [11]))
        self.assertEqual([d.output_index for d in dumps[:13]], [0] * 12 + [1])
        self.assertEqual(dumps[0].stride, 64)
        self.assertEqual(dumps[0].rows.shape, (16 * 8 * 16,))
        self.assertEqual(dumps[0].values.shape, (1, 16, 8, 8))
        rectified = dumps[2]
        np.testing.assert_array_equal(rectified.values, np.maximum(dumps[1].values, 0))
        self.assertEqual(rectified.layer.operator, "ThresholdedReluOpkitForward")
        np.testing.assert_array_equal(dumps[22].values[0], self.whole["logits"][1])  # layer 9 of the second item
        np.testing.assert_array_equal(dumps[25].values, self.whole["classes"][1])

        dumps.clear()
        request.on_dump(dumps.append, [9, 2])
        request.run()
        self.assertEqual([d.layer_id for d in dumps], [2, 9, 2, 9])
        request.on_dump(None)
        request.run()
        self.assertEqual(len(dumps), 4)

    def test_what_a_dump_function_raises_comes_out(self):
        request = opkit.Request(self.model)
        request.on_dump(lambda dump: 1 / 0)
        self.assertRaises(ZeroDivisionError, request.run)
        request.on_dump(None)
        request.run()

    def test_profile_times_every_layer_of_every_item(self):
        request = opkit.Request(self.model, 3)
        seen = []
        request.on_profile(seen.append)
        request.run()
        request.run()
        self.assertEqual(len(seen), 2)
        self.assertEqual([(t.item, t.layer.index) for t in seen[1]], [(i, k) for i in range(3) for k in range(12)])
        times = [time for t in seen[0] + seen[1] for time in (t.start, t.end)]
        self.assertEqual(times, sorted(times))
        self.assertGreater(times[0], 1_600_000_000_000_000)
        self.assertEqual(seen[0][0].operator, "ConvolutionOpkitForward")
        request.on_profile(None)
        request.run()
        self.assertEqual(len(seen), 2)

    def test_requests_on_several_threads(self):
        results = {}

        def work(first):
            results[first] = self.model.run(pixels=self.images[first:first + 60])["logits"]

        threads = [threading.Thread(target=work, args=(first,)) for first in range(0, 240, 60)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for first, logits in results.items():
            self.assertEqual(logits.tobytes(), self.whole["logits"][first:first + 60].tobytes())
        self.assertEqual(len(results), 4)

    def test_a_stopped_request_fails(self):
        request = opkit.Request(self.model, 2)
        layers = []
        request.on_dump(lambda dump: (layers.append(dump.layer_id), dump.layer_id == 3 and request.stop()))
        self.assertRaisesRegex(opkit.OpkitError, "was stopped", request.run)
        self.assertEqual(layers, [0, 1, 2, 3])
        request.on_dump(None)
        request.resume()
        request.run()

    def test_what_does_not_fit_is_refused(self):
        for call, message in (
                (lambda: self.model.run(pixel=self.images), "inputs are pixels, not pixel"),
                (lambda: self.model.run(), "not none"),
                (lambda: self.model.run(pixels=np.zeros((8, 7))), r"shape \(1, 1, 8, 8\)"),
                (lambda: opkit.Request(self.model, 257), "1 to 256 items"),
                (lambda: opkit.Request(self.model, 0), "1 to 256 items"),
                (lambda: opkit.Request(self.model).set_input("pixels", [1, 2]), "takes 64 elements, not 2"),
                (lambda: opkit.Request(self.model).set_input("x", []), "there is no input x"),
                (lambda: opkit.Request(self.model).get_output("y"), "there are logits, scores, classes"),
                (lambda: opkit.Request(self.model).run(4), "no segment 4")):
            self.assertRaisesRegex(opkit.OpkitError, message, call)


class SegmentsTest(unittest.TestCase):
    X = np.array([[1, 2, 3], [4, 5, 6]], np.float32)

    def test_a_loop(self):
        model = opkit.load(MODELS / "loop")
        request = opkit.Request(model)
        request.set_input("one", [1])
        request.set_input("x", self.X)
        passes = []
        self.assertEqual(request.run_segments(on_pass=passes.append), 8)
        self.assertEqual([p.segment for p in passes], [10, 20, 10, 20, 10, 20, 10, 30])
        self.assertEqual([p.seg_id for p in passes], [2**32 - 1, 10] * 3 + [30, 2**32 - 1])
        self.assertEqual([p.number for p in passes], [*range(8)])
        np.testing.assert_array_equal(request.get_output("y"), [self.X])  # three times inside, once behind

        # The steps by hand, with the segment id in view.
        request = opkit.Request(model)
        request.set_input("one", [1])
        request.set_input("x", self.X)
        request.seg_id = 5
        request.run(10)
        self.assertEqual(request.seg_id, opkit.NO_SEGMENT)
        request.run(20)
        self.assertEqual(request.seg_id, 10)
        self.assertFalse(np.array_equal(request.model_bytes, model.bytes))  # the loop counts in its own copy

    def test_a_loop_per_item(self):
        model = opkit.load(MODELS / "loop")
        x = np.arange(18, dtype=np.float32).reshape(3, 2, 3)
        y = model.run(x=x, one=np.ones((3, 1)))["y"]
        np.testing.assert_array_equal(y, x)

    def test_two_branches(self):
        model = opkit.load(MODELS / "branch")
        y = model.run(x=[[1, 2, 3, 4], [0, 2, 3, 4]])["y"]
        np.testing.assert_array_equal(y, [[-1, -2, -3, -4], [0, 2, 3, 4]])
        request = opkit.Request(model)
        passes = []
        self.assertEqual(request.run_segments(3, on_pass=passes.append), 1)
        self.assertEqual(passes, [(0, 3, opkit.NO_SEGMENT)])

    def test_a_loop_that_does_not_end_is_given_up(self):
        request = opkit.Request(opkit.load(MODELS / "loop"))
        request.set_input("one", [1])
        self.assertRaisesRegex(opkit.OpkitError, "given up after 3 passes, before segment 20",
                               lambda: request.run_segments(max_passes=3))


class SmallModelsTest(unittest.TestCase):
    def test_batched_scratch_and_padded_rows(self):
        model = opkit.load(MODELS / "batched")
        self.assertEqual(model.largest_batch, 4)
        self.assertRaisesRegex(opkit.OpkitError, "1 to 4 items, not 5", lambda: opkit.Request(model, 5))
        x = np.arange(54, dtype=np.float64).reshape(9, 1, 2, 3)
        result = model.run(x=x)["y"]
        self.assertEqual(result.dtype, np.float32)
        np.testing.assert_array_equal(result, -(x[:, 0] + 10))
        np.testing.assert_array_equal(model.constants["ten"], [10])

    def test_a_failure_says_why_on_standard_output(self):
        with tempfile.TemporaryFile() as file:
            saved = os.dup(1)
            os.dup2(file.fileno(), 1)
            try:
                request = opkit.Request(opkit.load(MODELS / "failing"))
                dumps = []
                request.on_dump(dumps.append)
                self.assertRaisesRegex(opkit.OpkitError, "segment 0 failed with 0xffffffff", request.run)
            finally:
                os.dup2(saved, 1)
                os.close(saved)
            file.seek(0)
            self.assertIn(b"CeluOpkitForward failed.", file.read())
        self.assertEqual(len(dumps), 1)  # of the first layer; ids repeat, so it cannot be told which one it is
        self.assertIsNone(dumps[0].layer)
        self.assertIsNone(dumps[0].values)


class LoadTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        for suffix in (".json", ".bin"):
            shutil.copy(MODELS / ("loop" + suffix), self.folder / ("m" + suffix))

    def expect(self, message):
        self.assertRaisesRegex(opkit.OpkitError, message, lambda: opkit.load(self.folder / "m"))

    def test_by_either_name(self):
        for name in ("m", "m.json", "m.bin"):
            self.assertEqual(len(opkit.load(str(self.folder / name)).tables), 3)

    def test_a_damaged_buffer(self):
        path = self.folder / "m.bin"
        whole = path.read_bytes()
        path.write_bytes(whole[:-1])
        self.expect("m.bin: has .* bytes, field bufferSize says")
        path.write_bytes(b"\xff" + whole[1:])
        self.expect("m.bin: its CRC-32 is")
        path.unlink()
        self.expect("No such file")

    def test_a_buffer_that_leads_outside(self):
        path = self.folder / "m.bin"
        manifest = json.loads((self.folder / "m.json").read_text())
        base = manifest["tables"][1]["layerTableOffset"]
        whole = bytearray(path.read_bytes())
        first = base + int.from_bytes(whole[base + 4:base + 8], "little")
        for offset, message in ((base, "layers, at most 128"), (base + 4, "layer 0 lies outside"),
                                (first + 4, "the name of layer 0 lies outside"), (first + 28, "too many tensors"),
                                (first + 32, "a tensor table lies outside")):
            damaged = bytearray(whole)
            damaged[offset:offset + 4] = b"\xf0\xff\xff\x7f"
            path.write_bytes(damaged)
            manifest["bufferCrc32"] = zlib.crc32(damaged)
            (self.folder / "m.json").write_text(json.dumps(manifest))
            self.expect(message)

    def test_a_damaged_manifest(self):
        path = self.folder / "m.json"
        right = json.loads(path.read_text())
        for change, message in (
                ({"format": "other"}, "is no manifest"), ({"formatVersion": 2}, "later format"),
                ({"scratchSize": -1}, "field scratchSize is missing or wrong"), ({"maxBatch": True}, "field maxBatch"),
                ({"inputs": {}}, "field inputs"), ({"inputs": [{"name": "x"}]}, r"field inputs\[0\].shape"),
                ({"outputs": [{"name": "x", "shape": ["1"], "strideBytes": 4}]}, r"field outputs\[0\].shape"),
                ({"tables": []}, "tables is empty"), ({"tables": [right["tables"][0]] * 2}, "share an id"),
                ({"tables": [1]}, r"tables\[0\]. is no object"),
                ({"constants": [{"name": "c", "offset": 4294967292, "shape": [2]}]}, "constant c lies outside")):
            path.write_text(json.dumps({**right, **change}))
            self.expect(message)
        path.write_text("[]")
        self.expect("is no object")
        path.write_text("{")
        self.expect("line 1")


class OperatorsTest(unittest.TestCase):
    def test_element_by_element(self):
        x = np.array([[1.5, -2, 0], [3, -0.25, 7]], np.float32)
        result = opkit.run_operator("Neg", [x], [x.shape])
        np.testing.assert_array_equal(result.outputs[0], -x)
        self.assertEqual((result.code, result.seg_id, result.attributes), (0, 0xFFFFFFFF, {}))
        sums = opkit.run_operator("BinaryMathOpkitForward", [x, opkit.Constant([10, 20, 30])], [(2, 3)],
                                  {"mathType": "OPKIT_BINARY_ADD"})
        np.testing.assert_array_equal(sums.outputs[0], x + [10, 20, 30])
        self.assertEqual(sums.attributes["inputStrides"], [[], [1]])  # of the input whose shape differs
        self.assertEqual(sums.attributes["outputStrides"], [[3, 1]])

    def test_matrix_product_with_work_space_of_its_own(self):
        a, b, c = np.array([[1, 2], [3, 4]]), np.array([[5, 6], [7, 8]]), np.array([1, -1])
        result = opkit.run_operator("Gemm", [a, opkit.Constant(b), opkit.Constant(c)], [(2, 2)],
                                    {"inputCount": 3, "alpha": 2, "beta": 10, "transB": 1})
        np.testing.assert_array_equal(result.outputs[0], [[34 + 10, 46 - 10], [78 + 10, 106 - 10]])

    def test_convolution_gets_enough_work_space(self):
        x = np.arange(9, dtype=np.float32).reshape(1, 1, 3, 3)
        weights = np.ones((1, 1, 2, 2))
        shape = dict(channels=1, height=3, width=3, kernelH=2, kernelW=2, strideH=1, strideW=1, dilationH=1,
                     dilationW=1, outHeight=2, outWidth=2, colChannels=4, groupNum=1, outChannels=1, gemmM=1, gemmN=4,
                     gemmK=4, inputCount=2)
        result = opkit.run_operator("Convolution", [x, opkit.Constant(weights)], [(1, 1, 2, 2)], shape)
        np.testing.assert_array_equal(result.outputs[0], [[[[8, 12], [20, 24]]]])

    def test_lists_in_attributes(self):
        x = np.arange(6, dtype=np.float32).reshape(2, 3)
        result = opkit.run_operator("Permute", [x], [(3, 2)], {
            "permDimCount": 2, "permOutDimCount": 2, "perm": [1, 0], "permLength": 2})
        np.testing.assert_array_equal(result.outputs[0], x.T)
        self.assertEqual(result.attributes["perm"], [1, 0] + [0] * 8)
        total = opkit.run_operator("Reduction", [x], [(2, 1)], {
            "axes": [1], "axesNum": 1, "reductionType": "OPKIT_REDUCE_SUM"})
        np.testing.assert_array_equal(total.outputs[0], [[3], [12]])

    def test_two_outputs(self):
        result = opkit.run_operator("TopK", [[3, 9, 1, 7]], [(2,), (2,)], {
            "k": 2, "axis": 0, "largest": 1, "hasValues": 1, "hasIndices": 1})
        self.assertEqual([o.tolist() for o in result.outputs], [[9, 7], [1, 3]])

    def test_padded_rows_and_what_stays_behind(self):
        x = opkit.Tensor([[1, 2, 3], [4, 5, 6]], stride=16)
        result = opkit.run_operator("Acosh", [x], [opkit.Tensor(np.zeros((2, 3)), stride=32)])
        np.testing.assert_array_equal(result.outputs[0], np.arccosh(x.values.astype(np.float64)).astype(np.float32))
        self.assertEqual(result.inputs[0].shape, (2, 4))
        self.assertEqual(result.inputs[0].ravel()[:6].tolist(), [1, 2, 3, 4, 5, 6])  # compacted in its own memory

    def test_segment_ids(self):
        for value, segment in ((1, 8), (0, 9)):
            result = opkit.run_operator("If", [[value]], [(1,)], {"thenSegId": 8, "elseSegId": 9})
            self.assertEqual(result.seg_id, segment)

    def test_failures(self):
        attributes = {"mathType": 5}
        one = [np.ones(2), np.ones(2)]
        result = opkit.run_operator("BinaryMath", one, [(2,)], attributes, check=False)
        self.assertEqual(result.code, 0xFFFFFFFF)
        self.assertRaisesRegex(opkit.OpkitError, "BinaryMath failed with 0xffffffff",
                               lambda: opkit.run_operator("BinaryMath", one, [(2,)], attributes))

    def test_typed_attributes(self):
        def run(operator, values):
            return lambda: opkit.run_operator(operator, [np.ones(2)], [(2,)], values)

        self.assertRaisesRegex(KeyError, "DetectionOutput is no operator", run("DetectionOutput", {}))
        self.assertRaisesRegex(KeyError, "no attribute beta; there are alpha", run("Celu", {"beta": 1}))
        self.assertRaisesRegex(KeyError, "OPKIT_NOTHING", run("Round", {"roundMode": "OPKIT_NOTHING"}))
        self.assertRaisesRegex(ValueError, "0 to 4294967295, not -1", run("Round", {"roundMode": -1}))
        self.assertRaisesRegex(ValueError, "whole numbers", run("Argmin", {"axis": 0.5}))
        self.assertRaisesRegex(ValueError, "whole numbers", run("Permute", {"perm": [1, 2**32]}))
        self.assertRaisesRegex(ValueError, "room for 10 entries", run("Permute", {"perm": [0] * 11}))
        self.assertRaisesRegex(ValueError, "63 characters", run("Custom", {"funcName": "x" * 64}))
        block = np.zeros((), attributes.block_type("CustomAttr"))
        attributes.fill(block, {"funcName": "MyFunction", "params.fixed": b"\1\2\3", "fixedSize": 3})
        raw = block.tobytes()
        self.assertEqual(raw[3928:3939], b"MyFunction\0")
        self.assertEqual(raw[3992:3996], b"\1\2\3\0")
        self.assertEqual(raw[4072:], b"\3\0\0\0")
        self.assertEqual(len(raw), 4076)

    def test_strides_are_checked(self):
        self.assertRaisesRegex(ValueError, "multiple of 4", lambda: opkit.Tensor([1, 2], stride=6))
        self.assertRaisesRegex(ValueError, "at most 80 inputs",
                               lambda: opkit.run_operator("Concat", [np.ones(1)] * 81, [(81,)]))


class ReadmeTest(unittest.TestCase):
    def test_the_page_shows_what_happens(self):
        """Every python block runs, in order and in one namespace; a text block behind one is what it printed."""
        page = (SOURCE / "python/README.md").read_text()
        blocks = re.findall(r"```(python|text)\n(.*?)```", page, re.DOTALL)
        space, printed, shown = {}, None, 0
        with contextlib.chdir(SOURCE):
            for kind, text in blocks:
                if kind == "text":
                    self.assertEqual(printed, text)
                    shown += 1
                    continue
                with contextlib.redirect_stdout(io.StringIO()) as out:
                    exec(compile(text, "README.md", "exec"), space)
                printed = out.getvalue()
        self.assertGreaterEqual(shown, 3)


if __name__ == "__main__":
    unittest.main(verbosity=1)
