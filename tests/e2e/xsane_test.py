"""xsane, a graphical SANE front end, under a virtual X server (Xvfb): it opens
the simulated Quarto 5100 and acquires a preview, clicked with xdotool. The
simulator must have sent the whole frame it was asked for, and the preview
image xsane keeps must be the page formula in every pixel. A screenshot of
the screen after the preview is kept in the build tree as
tests/artifacts/xsane-preview.png.

xsane gets a HOME and a TMPDIR of the test's own, so it reads no user
settings and writes nothing outside the test's directory (its temporary
files go where a settings file of the test's own tells it)."""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import quarto_page as qp  # noqa: E402

qp.reexec_with_library_path()
import numpy  # noqa: E402
from PIL import ImageGrab  # noqa: E402

DEVICE = "quarto:libusb/001/004"  # the Quarto 5100 of the models scenario
ARTIFACT = os.path.join(qp.BINARY_DIR, "tests", "artifacts", "xsane-preview.png")


def wait_for(what, probe, seconds):
    """probe() until it gives something true; fails the test after seconds."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        found = probe()
        if found:
            return found
        time.sleep(0.2)
    raise AssertionError("timed out waiting for " + what)


class XsanePreview(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="quarto-xsane-")
        for d in ("home", "home/.sane", "home/.sane/xsane", "tmp"):
            os.mkdir(os.path.join(self.work, d))
        # xsane keeps its temporary files (the preview images) in the directory
        # of its "tmp-path" setting, not in TMPDIR: the test's own, for this run.
        with open(os.path.join(self.work, "home/.sane/xsane/xsane.rc"), "w") as f:
            f.write('"xsane-version"\n"0.999"\n"tmp-path"\n"%s/"\n' % os.path.join(self.work, "tmp"))
        self.conf = qp.ConfDir()
        self.procs = []
        # Xvfb picks a free display and writes its number to the pipe; no TCP.
        rfd, wfd = os.pipe()
        self.procs.append(subprocess.Popen(
            ["Xvfb", "-displayfd", str(wfd), "-screen", "0", "1280x1024x24", "-nolisten", "tcp"],
            pass_fds=(wfd,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        os.close(wfd)
        with os.fdopen(rfd) as r:
            self.display = ":" + r.readline().strip()
        self.assertNotEqual(self.display, ":", "Xvfb did not start")
        self.env = dict(os.environ, DISPLAY=self.display, HOME=os.path.join(self.work, "home"),
                        TMPDIR=os.path.join(self.work, "tmp"), **self.conf.env())

    def tearDown(self):
        for p in reversed(self.procs):
            p.terminate()
            try:
                p.wait(10)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        self.conf.cleanup()
        shutil.rmtree(self.work)

    def xdotool(self, *args):
        r = subprocess.run(["xdotool"] + list(args), env=self.env, capture_output=True, text=True)
        return r.stdout.split() if r.returncode == 0 else []

    def test_acquires_a_whole_preview(self):
        self.procs.append(subprocess.Popen(["xsane", DEVICE], env=self.env, cwd=self.work, stdout=subprocess.DEVNULL,
                                           stderr=subprocess.DEVNULL))
        # As root xsane first asks whether to go on; its default button does.
        if os.getuid() == 0:
            warning = wait_for("xsane's root warning", lambda: self.xdotool("search", "--name", "^Warning$"), 30)
            self.xdotool("key", "--window", warning[0], "Return")
        preview = wait_for("the preview window", lambda: self.xdotool("search", "--name", "^Preview "), 30)[0]
        geometry = dict(re.findall(r"(\w+)=(\d+)", "\n".join(
            self.xdotool("getwindowgeometry", "--shell", preview))))
        # "Acquire preview" is the first button of the preview window's bottom row.
        self.xdotool("mousemove", "--window", preview, "55", str(int(geometry["HEIGHT"]) - 24), "click", "1")

        end = wait_for("the end of the scan", lambda: re.search(
            r"scan dev=\d+ end status=(\d+) lines=(\d+)", self.conf.sim_events()), 120)
        window = qp.last_window(self.conf.sim_events())
        self.assertEqual(end.group(1), "1", "the scan did not complete")
        self.assertEqual(int(end.group(2)), window["lines"], "xsane stopped before the end of the frame")

        # xsane keeps the preview as a 16-bit PPM (each 8-bit value shifted up,
        # host order) in TMPDIR once the whole frame is in.
        files = wait_for("xsane's preview file", lambda: [
            f for f in glob.glob(os.path.join(self.env["TMPDIR"], "xsane-preview-level-0-*"))
            if os.path.getsize(f) >= window["width"] * window["lines"] * 6], 30)
        time.sleep(1)
        os.makedirs(os.path.dirname(ARTIFACT), exist_ok=True)
        ImageGrab.grab(xdisplay=self.display).save(ARTIFACT)
        self.assertEqual(self.xdotool("search", "--name", "rror"), [], "xsane shows an error window")

        with open(files[0], "rb") as f:
            blob = f.read()
        head = re.match(rb"P6\s+(?:#[^\n]*\n\s*)*(\d+)\s+(\d+)\s+65535\s", blob)
        self.assertIsNotNone(head, "not a 16-bit PPM")
        width, height = int(head.group(1)), int(head.group(2))
        self.assertEqual((width, height), (window["width"], window["lines"]))
        got = numpy.frombuffer(blob, "<u2", width * height * 3, head.end()).reshape(height, width, 3) >> 8
        x = numpy.arange(window["x"], window["x"] + width)[None, :]
        y = numpy.arange(window["y"], window["y"] + height)[:, None]
        want = numpy.stack(numpy.broadcast_arrays(x, y, x + y), axis=2) & 255
        bad = numpy.argwhere(got != want)
        self.assertEqual(len(bad), 0, "first difference at line, column, channel %s" % (bad[:1],))


if __name__ == "__main__":
    unittest.main(verbosity=2)
