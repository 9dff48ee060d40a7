"""The table of supported devices in README.md must list the device lines of
etc/quarto.conf, in their order: model, connection, identifiers, feature file.
  readme_devices.py SOURCE_DIR           check (the ctest entry)
  readme_devices.py SOURCE_DIR --write   rewrite the table from quarto.conf"""

import os
import re
import sys

MARKER = "<!-- the table below is checked against etc/quarto.conf by ctest (doc.readme_devices) -->\n"


def rows(conf_text):
    out = ["| Model | Connection | USB vendor:product | Feature file |", "|---|---|---|---|"]
    for line in conf_text.splitlines():
        words = line.split()
        if len(words) < 5 or words[0].startswith("#") or "=" in line:
            continue
        vid, pid = int(words[1], 16), int(words[2], 16)
        network = vid == 0xFFFF and pid == 0xFFFF
        out.append("| %s | %s | %s | %s |" % (
            words[4].replace("_", " "), "network" if network else "USB",
            "-" if network else "%04x:%04x" % (vid, pid), os.path.basename(words[3])))
    return out


def main():
    root = sys.argv[1]
    with open(os.path.join(root, "etc", "quarto.conf")) as f:
        want = rows(f.read())
    readme_path = os.path.join(root, "README.md")
    with open(readme_path) as f:
        readme = f.read()
    start = readme.index(MARKER) + len(MARKER)
    end = start
    for line in readme[start:].splitlines(keepends=True):
        if not line.startswith("|") and not line.startswith("@DEVICES@"):
            break
        end += len(line)
    if "--write" in sys.argv:
        with open(readme_path, "w") as f:
            f.write(readme[:start] + "".join(r + "\n" for r in want) + readme[end:])
        return 0
    have = [r for r in readme[start:end].splitlines() if r.startswith("|")]
    if have != want:
        print("README.md lists the devices\n  %s\nbut etc/quarto.conf has\n  %s\n"
              "(tests/docs/readme_devices.py SOURCE_DIR --write rewrites the table)"
              % ("\n  ".join(have), "\n  ".join(want)))
        return 1
    print("README.md lists the %d device lines of etc/quarto.conf" % (len(want) - 2))
    return 0


if __name__ == "__main__":
    sys.exit(main())
