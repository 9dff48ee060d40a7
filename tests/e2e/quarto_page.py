"""Shared pieces of the front-end tests written in Python: a SANE configuration
directory of the test's own, the environment that puts the simulated scanner
in front of the backend, the scan window the simulator logged, and the page
formula of sim/README.md computed here, independently of backend and simulator.

As a program: quarto_page.py IMAGE.pnm SIMLOG checks every pixel of a PNM that
scanimage wrote against the last scan window of the simulator's log."""

import os
import re
import sys
import tempfile

SOURCE_DIR = os.environ.get("QUARTO_SOURCE_DIR",
                            os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..")))
BINARY_DIR = os.environ.get("QUARTO_BINARY_DIR", os.path.join(SOURCE_DIR, "build"))

# The four simulated models with their shipped feature files (tests/data/e2e_models.scn).
MODELS_CONF = """usb 0x2f4a 0x0500 {m}/quarto5100.conf Quarto_5100
usb 0x2f4a 0x0402 {m}/quarto4200.conf Quarto_4200
usb 0x2f4a 0x0401 {m}/quarto4010.conf Quarto_4010
usb 0x2f4a 0x0326 {m}/quarto3260.conf Quarto_3260
DISCOVER_USB_FLAG=1
DISCOVER_NET_FLAG=0
DEVICE_LIST_ORDER_MODE=0
SHOW_PSEUDO_NETWORK_FLAG=0
""".format(m=os.path.join(SOURCE_DIR, "etc", "models"))

MODELS_SCENARIO = os.path.join(SOURCE_DIR, "tests", "data", "e2e_models.scn")
MODE_NAMES = {1: "1-bit Black & White", 2: "8-bit Grayscale", 3: "24-bit Color"}


def library_path():
    """The simulator first, then the built backend."""
    return os.path.join(BINARY_DIR, "sim") + ":" + os.path.join(BINARY_DIR, "backend")


def reexec_with_library_path():
    """The dynamic loader reads LD_LIBRARY_PATH only at start: run this program
    again with the simulator in front when it is not there yet."""
    if os.environ.get("LD_LIBRARY_PATH") != library_path():
        os.environ["LD_LIBRARY_PATH"] = library_path()
        os.execv(sys.executable, [sys.executable] + sys.argv)


class ConfDir:
    """A private SANE_CONFIG_DIR whose dll.conf loads only quarto, with its
    own quarto.conf, simulator scenario and simulator log."""

    def __init__(self, quarto_conf=MODELS_CONF, scenario=MODELS_SCENARIO):
        self.path = tempfile.mkdtemp(prefix="quarto-fe-")
        self.write("dll.conf", "quarto\n")
        self.write("quarto.conf", quarto_conf)
        self.scenario = scenario
        self.sim_log = os.path.join(self.path, "usbsim.log")

    def write(self, name, text):
        with open(os.path.join(self.path, name), "w") as f:
            f.write(text)
        return os.path.join(self.path, name)

    def env(self, extra=None):
        e = {"SANE_CONFIG_DIR": self.path, "LD_LIBRARY_PATH": library_path(),
             "QUARTO_USBSIM": self.scenario, "QUARTO_USBSIM_LOG": self.sim_log}
        e.update(extra or {})
        return e

    def sim_events(self):
        try:
            with open(self.sim_log) as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def cleanup(self):
        for name in os.listdir(self.path):
            os.unlink(os.path.join(self.path, name))
        os.rmdir(self.path)


def last_window(log):
    """The last scan window the simulated device was asked for, as a dict."""
    found = re.findall(r"window dev=(\d+) color=(\d+) width=(\d+) lines=(\d+) x=(\d+) y=(\d+)", log)
    if not found:
        return None
    dev, color, width, lines, x, y = (int(v) for v in found[-1])
    return {"dev": dev, "color": color, "width": width, "lines": lines, "x": x, "y": y}


def device_line(w, row):
    """One line of the page for window w: X = offset x + column, Y = offset y +
    row; colour R = X, G = Y, B = X + Y; grey X + 2Y; line art bit 1 where
    X div 8 + Y div 8 is odd, most significant bit first (all mod 256)."""
    y = w["y"] + row
    xs = range(w["x"], w["x"] + w["width"])
    if w["color"] == 3:
        out = bytearray()
        for x in xs:
            out += bytes((x & 255, y & 255, (x + y) & 255))
        return bytes(out)
    if w["color"] == 2:
        return bytes((x + 2 * y) & 255 for x in xs)
    out = bytearray((w["width"] + 7) // 8)
    for c, x in enumerate(xs):
        if (x // 8 + y // 8) & 1:
            out[c // 8] |= 0x80 >> (c % 8)
    return bytes(out)


def compare(w, width, height, data):
    """'' when the image (width x height, packed lines) is the window's page,
    else the first difference."""
    if w is None:
        return "the simulator logged no scan window"
    line_bytes = (width + 7) // 8 if w["color"] == 1 else width * (3 if w["color"] == 3 else 1)
    if len(data) != line_bytes * height:
        return "image holds %d bytes, %d x %d lines expected" % (len(data), line_bytes, height)
    if height != w["lines"]:
        return "image has %d lines, the window %d" % (height, w["lines"])
    for row in range(height):
        want = device_line(w, row)[:line_bytes].ljust(line_bytes, b"\0")
        got = data[row * line_bytes:(row + 1) * line_bytes]
        if got != want:
            i = next(i for i in range(line_bytes) if got[i] != want[i])
            return "line %d byte %d: got %d, expected %d" % (row, i, got[i], want[i])
    return ""


def read_pnm(path):
    """(kind, width, height, data) of a binary PNM (P4, P5, P6)."""
    with open(path, "rb") as f:
        blob = f.read()
    tokens, pos = [], 0
    need = 3 if blob[:2] == b"P4" else 4
    while len(tokens) < need:
        m = re.compile(rb"\s*(#[^\n]*\n\s*)*(\S+)").match(blob, pos)
        if not m:
            raise ValueError("truncated PNM header in " + path)
        tokens.append(m.group(2))
        pos = m.end()
    return tokens[0].decode(), int(tokens[1]), int(tokens[2]), blob[pos + 1:]


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: quarto_page.py IMAGE.pnm SIMLOG")
    kind, width, height, data = read_pnm(sys.argv[1])
    with open(sys.argv[2]) as f:
        window = last_window(f.read())
    problem = compare(window, width, height, data)
    if problem:
        sys.exit("%s: %s" % (sys.argv[1], problem))
    print("%s: %dx%d %s, every pixel as the page formula gives" % (sys.argv[1], width, height, kind))
