"""opkit report in a browser: no console errors, all layers, search, keys, views, and something to be seen."""

import os
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import zlib

import webdriver

TOOL = os.environ["OPKIT_TOOL"]
DIGITS = pathlib.Path(os.environ["OPKIT_SOURCE_DIR"]) / "examples/digits/data"
LOADING_LIMIT = 10  # seconds, for the largest page on a slow machine


def save_npy(path, shape, values):
    header = "{'descr': '<f4', 'fortran_order': False, 'shape': (%s,), }" % ", ".join(map(str, shape))
    header = header.ljust((10 + len(header) + 64) // 64 * 64 - 11) + "\n"
    path.write_bytes(b"\x93NUMPY\x01\x00" + struct.pack("<H", len(header)) + header.encode() +
                     struct.pack(f"<{len(values)}f", *values))


def bytes_of_npy(path):
    data = path.read_bytes()
    return data[10 + data[8] + 256 * data[9]:]


def png_rows(png):
    """Unfiltered rows of an RGB or RGBA picture of 8 bits."""
    at, pixels, header = 8, b"", None
    while at < len(png):
        size, kind = struct.unpack(">I4s", png[at:at + 8])
        body = png[at + 8:at + 8 + size]
        header = struct.unpack(">IIBBBBB", body) if kind == b"IHDR" else header
        pixels += body if kind == b"IDAT" else b""
        at += 12 + size
    step = {2: 3, 6: 4}[header[3]]
    data, width = zlib.decompress(pixels), header[0] * step
    before, rows = bytearray(width), []
    for y in range(header[1]):
        kind, *row = data[y * (width + 1):(y + 1) * (width + 1)]
        for i in range(width):
            left = row[i - step] if i >= step else 0
            corner = before[i - step] if i >= step else 0
            guess = left + before[i] - corner
            paeth = min((left, before[i], corner), key=lambda value: abs(guess - value))
            row[i] = row[i] + (0, left, before[i], (left + before[i]) // 2, paeth)[kind] & 255
        before = row
        rows.append([tuple(row[i:i + 3]) for i in range(0, width, step)])
    return rows


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="opkit-page-"))
        for file in DIGITS.glob("digits.*"):
            shutil.copy(file, cls.folder)
        save_npy(cls.folder / "pixels.npy", (20, 8, 8), [b / 16 for b in bytes_of_npy(DIGITS / "images.npy")[:20 * 64]])
        subprocess.run([os.environ["OPKIT_LONG_MODEL"], cls.folder], check=True)
        save_npy(cls.folder / "image.npy", (8, 16, 16), [(i % 256) / 128 - 1 for i in range(8 * 16 * 16)])
        cls.tool("report digits -o plain.html")
        cls.tool("report digits -i pixels=pixels.npy --repeat 3 -o digits.html")
        cls.tool("run digits -i pixels=pixels.npy --dump before")
        text = cls.tool("disassemble digits")
        (cls.folder / "changed.text").write_text(text.replace('"alpha": 0.0}', '"alpha": 0.01}', 1))
        cls.tool("assemble changed.text -o changed")
        cls.tool("report changed -i pixels=pixels.npy --compare before -o changed.html", code=1)
        cls.tool("report long -i image=image.npy --repeat 3 -o long.html")
        cls.browser = webdriver.Browser().__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.browser.__exit__()
        shutil.rmtree(cls.folder)

    @classmethod
    def tool(cls, arguments, code=0):
        result = subprocess.run([TOOL, *arguments.split()], cwd=cls.folder, capture_output=True, text=True)
        if result.returncode != code:
            raise AssertionError(f"opkit {arguments}: {result.returncode}\n{result.stdout}{result.stderr}")
        return result.stdout

    def open(self, page):
        self.browser.open(self.folder / page)
        self.browser.frame()
        self.assertEqual(self.browser.messages(), [])

    def tearDown(self):
        self.assertEqual(self.browser.messages(), [])

    def texts(self, selector):
        return self.browser.run(f"return [...document.querySelectorAll('{selector}')].map((e) => e.textContent)")

    def count(self, selector):
        return self.browser.run(f"return document.querySelectorAll('{selector}').length")

    def test_graph_has_all_layers(self):
        operators = ["Convolution", "BinaryMath", "ThresholdedRelu", "PoolingMax", "Convolution", "BinaryMath",
                     "ThresholdedRelu", "PoolingMax", "Reshape", "Gemm", "Reshape", "TopK"]
        for page in ("plain.html", "digits.html"):
            self.open(page)
            names = self.texts(".node:not(.end) .name")
            self.assertEqual(sorted(names), sorted(f"{i} {name}" for i, name in enumerate(operators)))
            ends = self.texts(".node.end .name")
            self.assertEqual(sorted(ends), ["classes", "logits", "pixels", "scores"])
            self.assertGreaterEqual(self.count(".edge"), 12)

    def test_search_finds_a_layer(self):
        self.open("digits.html")
        self.browser.press("/")
        self.browser.press("gem")
        self.assertEqual(self.texts("#found"), ["1 of 12"])
        self.assertEqual(self.texts(".node.match .name"), ["9 Gemm"])
        self.browser.press("Enter")
        self.assertEqual(self.texts(".node.selected .name"), ["9 Gemm"])
        self.assertEqual(self.texts("#panel h2"), ["9 Gemm"])
        self.assertIn("dense_weight", self.texts("#panel")[0])
        self.browser.press("Escape")
        self.assertEqual(self.texts(".node.match .name"), [])

    def test_keys_walk_and_change_the_view(self):
        self.open("digits.html")
        self.browser.press("jjj")
        self.assertEqual(self.texts(".node.selected .name"), ["2 ThresholdedRelu"])
        self.browser.press("k")
        self.assertEqual(self.texts(".node.selected .name"), ["1 BinaryMath"])
        self.browser.click("#graph")
        self.browser.press("Down")
        for number, title in enumerate(["Model", "Layer", "Time", "Scratch", "Tensors", "Constants", "Comparison"], 1):
            self.browser.press(str(number))
            self.assertEqual(self.texts("#tabs [aria-selected=true]"), [title])
        self.browser.press("?")
        self.assertEqual(self.count("dialog[open]"), 1)

    def test_views_show_the_run(self):
        self.open("digits.html#view=time")
        self.assertEqual(self.count("#panel tbody tr"), 12)
        self.assertEqual(self.count("#panel .uplot"), 1)
        self.browser.press("4")
        self.assertEqual(self.count("#panel .uplot"), 1)
        self.assertIn("Peak: 16 KiB at layer 1 BinaryMath", self.texts("#panel")[0])
        self.browser.press("5")
        self.assertIn("13 layer outputs", self.texts("#panel")[0])
        self.assertEqual(self.count("#panel tbody tr"), 13)
        self.browser.press("6")
        self.assertEqual(self.texts("#panel tbody td:first-child")[0], "conv2_weight")
        self.browser.press("s")
        self.assertEqual(self.count("#panel figure .uplot") > 0, True)
        self.assertEqual(self.count("#panel figure canvas.picture") > 0, True)

    def test_comparison_leads_to_the_first_difference(self):
        self.open("changed.html")
        self.assertEqual(self.texts(".node.same .name"), ["0 Convolution", "1 BinaryMath"])
        self.assertIn("2 ThresholdedRelu", self.texts(".node.differs .name"))
        self.browser.press("d")
        self.assertEqual(self.texts(".node.selected .name"), ["2 ThresholdedRelu"])
        self.browser.press("7")
        self.assertIn("request 0, pass 0, element [0, 0, 0, 2, 6]", self.texts("#panel")[0])

    def test_five_hundred_layers(self):
        begin = time.monotonic()
        self.open("long.html")
        self.assertLess(time.monotonic() - begin, LOADING_LIMIT)
        self.assertEqual(self.count(".node:not(.end)"), 500)
        self.assertEqual(self.count(".segment"), 4)
        begin = time.monotonic()
        self.browser.press("3" + "j" * 20 + "fff+++")
        self.browser.frame()
        self.assertLess(time.monotonic() - begin, LOADING_LIMIT)
        self.assertEqual(self.texts(".node.selected .name"), ["19 BinaryMath"])
        self.browser.press("/")
        self.browser.press("part3 sigmoid")
        self.assertEqual(self.texts("#found"), ["25 of 500"])

    def test_screenshot_is_not_blank(self):
        for page in ("digits.html#view=scratch", "long.html"):
            self.open("plain.html")
            self.open(page)
            rows = png_rows(self.browser.screenshot())
            for name, part in (("graph", slice(0, 500)), ("views", slice(600, 1300))):
                colours = {}
                for row in rows[60:]:
                    for pixel in row[part]:
                        colours[pixel] = colours.get(pixel, 0) + 1
                ground = max(colours.values()) / sum(colours.values())
                self.assertGreater(len(colours), 15, (page, name))
                self.assertLess(ground, 0.995, (page, name))


if __name__ == "__main__":
    if webdriver.missing():
        print("skipped: needs", " and ".join(webdriver.missing()),
              "(Debian's chromium and chromium-driver; script/bootstrap --test installs them)")
        sys.exit(77)
    unittest.main(verbosity=2)
