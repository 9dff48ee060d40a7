"""The progress window program on input it must survive: the data file is
followed line by line in bounded time and memory whatever the lines hold, and
nothing but a regular file is ever read. Loaded as a module, so no display is
needed; the checks that start it run it with DISPLAY unset."""

import importlib.machinery
import importlib.util
import os
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAM = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "progress", "quarto-progress")
_loader = importlib.machinery.SourceFileLoader("quarto_progress", PROGRAM)
_spec = importlib.util.spec_from_loader("quarto_progress", _loader)
qp = importlib.util.module_from_spec(_spec)
_loader.exec_module(qp)


class Widget:
    """Stands in for the window, the label and the bar: records the texts set."""

    def __init__(self):
        self.texts = []

    def set_title(self, text):
        self.texts.append(text)

    def set_text(self, text):
        self.texts.append(text)

    def pulse(self):
        pass


class Progress(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.path = os.path.join(self.dir.name, ".tmp.display.1")
        self.writer = open(self.path, "wb", buffering=0)
        self.fd = os.open(self.path, os.O_RDONLY)

    def tearDown(self):
        os.close(self.fd)
        self.writer.close()
        self.dir.cleanup()

    def lines_until_eof(self, follower):
        seen = []
        for _ in range(10000):
            got = follower.read_lines()
            seen += got
            if not got and os.lseek(self.fd, 0, os.SEEK_CUR) == os.fstat(self.fd).st_size:
                return seen
        return seen

    def test_a_huge_line_is_skipped_in_linear_time(self):
        # 16 MiB without a newline, then two page lines.
        block = b"x" * (1 << 20)
        for _ in range(16):
            self.writer.write(block)
        self.writer.write(b"\n2\n[END]\n")
        follower = qp.Follower(self.fd, Widget(), Widget(), Widget())
        start = time.monotonic()
        seen = self.lines_until_eof(follower)
        elapsed = time.monotonic() - start
        self.assertEqual(seen, ["2", "[END]"])
        self.assertLess(elapsed, 3.0, "a long line took %.1f s" % elapsed)

    def test_the_tail_of_a_long_line_is_no_line_of_its_own(self):
        follower = qp.Follower(self.fd, Widget(), Widget(), Widget())
        self.writer.write(b"y" * 1000)
        self.assertEqual(follower.read_lines(), [])
        self.writer.write(b"[END]\n3\n")
        self.assertEqual(follower.read_lines(), ["3"])

    def test_any_line_is_shown_without_an_error(self):
        window, label = Widget(), Widget()
        follower = qp.Follower(self.fd, window, label, Widget())
        # Superscript two counts as a digit in Python but is no number.
        self.writer.write("\u00b2\n7\n\x1b[2J\n".encode())
        self.assertTrue(follower.poll())
        self.assertEqual(label.texts, ["\u00b2", "Scanning page 7", "?[2J"])
        self.assertEqual(window.texts, label.texts)


class OnlyARegularFile(unittest.TestCase):
    def test_a_device_or_a_pipe_is_refused_at_once(self):
        with tempfile.TemporaryDirectory() as d:
            fifo = os.path.join(d, "fifo")
            os.mkfifo(fifo)
            for path in ("/dev/zero", fifo):
                env = dict(os.environ)
                env.pop("DISPLAY", None)
                try:
                    run = subprocess.run([sys.executable, PROGRAM, path], env=env, capture_output=True, timeout=20)
                except subprocess.TimeoutExpired:
                    self.fail("quarto-progress %s did not return" % path)
                self.assertEqual(run.returncode, 1, path)
                self.assertIn(b"not a regular file", run.stderr, path)


class StandardStreams(unittest.TestCase):
    def test_stderr_stays_open_when_the_data_file_is_descriptor_0(self):
        with tempfile.NamedTemporaryFile() as f:
            env = dict(os.environ)
            env.pop("DISPLAY", None)
            run = subprocess.run([sys.executable, PROGRAM, f.name], env=env, capture_output=True, timeout=60,
                                 preexec_fn=lambda: os.close(0))
            self.assertEqual(run.returncode, 1)
            self.assertIn(b"quarto-progress: ", run.stderr)


if __name__ == "__main__":
    unittest.main()
