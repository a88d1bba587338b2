"""What bench/compare and bench/growth share: counting what a process does, and drawing it."""
import collections
import html
import pathlib
import re
import subprocess
import sys
import tempfile

# System calls of a whole process, from its start to its end; reads, writes and bytes are those of one file.
Traffic = collections.namedtuple("Traffic", "calls reads writes bytes_read bytes_written")

READING = r"p?readv?(64)?"
WRITING = r"p?writev?(64)?"


def quiet(command, **options):
    return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)


def fail(text):
    sys.exit(f"{pathlib.Path(sys.argv[0]).name}: {text}")


def traffic(trace, volume):
    """The figures of a trace that `strace -f -y` wrote."""
    lines = [line for line in trace.splitlines() if re.match(r"^\d+ +\w+\(", line)]

    def amounts(call):
        of_volume = [line for line in lines if re.match(rf"^\d+ +{call}\(\d+<{re.escape(volume)}>", line)]
        return [int(line.rsplit("=", 1)[1].split()[0]) for line in of_volume]

    reads, writes = amounts(READING), amounts(WRITING)
    return Traffic(len(lines), len(reads), len(writes), sum(reads), sum(writes))


def traffic_of(command, volume):
    with tempfile.NamedTemporaryFile("r") as trace:
        quiet(["strace", "-f", "-y", "-o", trace.name, *command])
        return traffic(trace.read(), volume)


CALLGRIND = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]


def collected(run):
    """The instructions that callgrind has counted, by what it said."""
    found = re.search(r"Collected : (\d+)", run.stderr)
    if run.returncode != 0 or not found:
        fail(f"valgrind does not count the instructions of {' '.join(run.args)}:\n{run.stderr}")
    return int(found.group(1))


def instructions_of(command):
    return collected(subprocess.run([*CALLGRIND, *command], capture_output=True, text=True))


def copy_sparse(source, target):
    subprocess.run(["cp", "--sparse=always", source, target], check=True)


class Drawing:
    """An SVG in the style of docs/drawings, made from the top down."""

    STYLE = """text { font: 12px "DejaVu Sans", Verdana, Helvetica, Arial, sans-serif; fill: #1a202c; }
.mid { text-anchor: middle; }
.end { text-anchor: end; }
.bold { font-weight: bold; }
.small { font-size: 10.5px; fill: #4a5568; }
.over { paint-order: stroke; stroke: #ffffff; stroke-width: 3px; }
.page { fill: #ffffff; }
.first { fill: #2b6cb0; }
.second { fill: #c05621; }
.ours { fill: #63a4e0; }
.other { fill: #cbd5e0; }
path { fill: none; stroke: #4a5568; }
path.first { fill: none; stroke: #2b6cb0; stroke-width: 2; }
path.second { fill: none; stroke: #c05621; stroke-width: 2; }
path.spread { stroke: #1a202c; }
path.grid { stroke: #e2e8f0; }"""

    def __init__(self, title, width):
        self.title, self.width, self.parts = title, width, []

    def text(self, x, y, text, kind=""):
        self.parts.append(f'<text class="{kind}" x="{x:.1f}" y="{y:.1f}">{html.escape(text)}</text>')

    def bar(self, x, y, width, height, kind):
        self.parts.append(f'<rect class="{kind}" x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}"/>')

    def line(self, points, kind=""):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<path class="{kind}" d="M{path}"/>')

    def dot(self, x, y, kind):
        self.parts.append(f'<circle class="{kind}" cx="{x:.1f}" cy="{y:.1f}" r="3"/>')

    def write(self, path, height):
        size = f'width="{self.width}" height="{height:.0f}"'
        head = [f'<svg xmlns="http://www.w3.org/2000/svg" {size} viewBox="0 0 {self.width} {height:.0f}">',
                f"<title>{html.escape(self.title)}</title>", f"<style>\n{self.STYLE}\n</style>",
                f'<rect class="page" {size}/>']
        pathlib.Path(path).write_text("\n".join([*head, *self.parts, "</svg>", ""]), encoding="utf-8")
