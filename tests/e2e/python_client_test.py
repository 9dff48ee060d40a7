"""A Python program as a SANE front end: python3-sane (the _sane extension
over the system's libsane and its dll loader) lists the simulated scanners,
reads and sets options, and scans pages whose pixels must follow the page
formula."""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import quarto_page as qp  # noqa: E402

qp.reexec_with_library_path()
CONF = qp.ConfDir()
os.environ.update(CONF.env())
import sane  # noqa: E402  (after the environment: the dll loader reads it at init)

sane.init()


class PythonClient(unittest.TestCase):
    def test_device_list(self):
        # The four models, named as the dll loader prefixes them.
        self.assertEqual(sorted(sane.get_devices()), [
            ("quarto:libusb/001/002", "Tarvesk", "Quarto 3260", "Scanner"),
            ("quarto:libusb/001/003", "Tarvesk", "Quarto 4010", "Scanner"),
            ("quarto:libusb/001/004", "Tarvesk", "Quarto 5100", "Scanner"),
            ("quarto:libusb/001/005", "Tarvesk", "Quarto 4200", "Scanner"),
        ])

    def test_options_read_and_set(self):
        dev = sane.open("quarto:libusb/001/004")
        try:
            opts = {o[1]: o for o in dev.get_options()}
            self.assertEqual(opts["mode"][8], list(qp.MODE_NAMES.values()))
            self.assertEqual(opts["scan-resolution"][8], [75, 150, 300, 600, 1200])
            self.assertEqual((dev.mode, dev.scan_resolution), ("24-bit Color", 300))
            dev.mode, dev.scan_resolution = "1-bit Black & White", 600
            self.assertEqual((dev.mode, dev.scan_resolution), ("1-bit Black & White", 600))
            # A value outside the list is refused by the backend, and the old one stays.
            with self.assertRaises(sane._sane.error) as refused:
                dev.scan_resolution = 123
            self.assertIn("Invalid argument", str(refused.exception))
            self.assertEqual(dev.scan_resolution, 600)
        finally:
            dev.close()

    def test_scans_follow_the_page_formula(self):
        cases = [("quarto:libusb/001/004", "24-bit Color", 150, 3),
                 ("quarto:libusb/001/004", "8-bit Grayscale", 300, 2),
                 ("quarto:libusb/001/002", "24-bit Color", 150, 3),
                 ("quarto:libusb/001/005", "8-bit Grayscale", 150, 2)]
        for name, mode, dpi, wire_color in cases:
            with self.subTest(device=name, mode=mode, dpi=dpi):
                dev = sane.open(name)
                try:
                    dev.mode, dev.scan_resolution, dev.original_size = mode, dpi, "Business Card"
                    fmt, last, (pixels, lines), depth, bpl = dev.get_parameters()
                    image = dev.scan()
                    window = qp.last_window(CONF.sim_events())
                    self.assertEqual(window["color"], wire_color)
                    self.assertEqual(image.size, (pixels, lines))
                    self.assertEqual((fmt, depth), ("color" if wire_color == 3 else "gray", 8))
                    self.assertEqual(qp.compare(window, pixels, lines, image.tobytes()), "")
                finally:
                    dev.close()


if __name__ == "__main__":
    try:
        unittest.main(verbosity=2)
    finally:
        sane.exit()
        CONF.cleanup()
