#!/usr/bin/env python3
"""Checks the include graph of the library's folders against tools/layers.txt.

Fails (exit 1) on an #include edge between two library folders that the list
does not allow, on a cycle among the allowed edges, and on a third-party header
included outside platform/linux/ and plugins/.

usage: check_layers.py [REPO]            check the tree
       check_layers.py --self-test [REPO] also prove that an added edge fails
"""
import os
import re
import sys

PROJECT_INCLUDE = re.compile(r'^\s*#\s*include\s+"([A-Za-z0-9_]+)/')
SYSTEM_INCLUDE = re.compile(r'^\s*#\s*include\s+<([^>]+)>')
SOURCE_ENDINGS = (".cpp", ".h", ".hpp", ".cc", ".inc", ".c")
# Headers of the libraries behind the engine and the plug-ins.
THIRD_PARTY = re.compile(
    r'^(zlib\.h|png\.h|pngconf\.h|tiff\.h|tiffio\.h|jpeglib\.h|jerror\.h|turbojpeg\.h|'
    r'gif_lib\.h|lcms2\.h|cairo|ft2build\.h|freetype|fontconfig|pango|harfbuzz|hb\.h|'
    r'openjpeg\.h|Imf|Imath|OpenEXR|libraw|jbig\.h|X11/|curl/|sane/|tesseract|ZXing|dmtx\.h|'
    r'cups/|poppler|Q[A-Z])')
THIRD_PARTY_HOMES = ("platform/linux/", "plugins/")


def read_layers(path):
    folders, allowed = [], set()
    for raw in open(path):
        line = raw.split("#", 1)[0].strip()
        if not line:
            continue
        if line.startswith("folders:"):
            folders = line.split(":", 1)[1].split()
            continue
        src, arrow, dsts = line.partition("->")
        if not arrow:
            raise SystemExit(f"{path}: cannot read line: {raw.rstrip()}")
        for dst in dsts.split():
            allowed.add((src.strip(), dst))
    return folders, allowed


def scan(root, folders):
    """Returns ({(from, to): [where]}, [third-party misuse])."""
    edges, misuse = {}, []
    for top in folders:
        base = os.path.join(root, top)
        if not os.path.isdir(base):
            continue
        for dirpath, _, files in os.walk(base):
            for name in sorted(files):
                if not name.endswith(SOURCE_ENDINGS):
                    continue
                path = os.path.join(dirpath, name)
                rel = os.path.relpath(path, root)
                for number, line in enumerate(open(path, errors="replace"), 1):
                    m = PROJECT_INCLUDE.match(line)
                    if m and m.group(1) != top and m.group(1) in folders:
                        edges.setdefault((top, m.group(1)), []).append(f"{rel}:{number}")
                    m = SYSTEM_INCLUDE.match(line)
                    if m and THIRD_PARTY.match(m.group(1)) and not rel.startswith(THIRD_PARTY_HOMES):
                        misuse.append(f"{rel}:{number}: <{m.group(1)}>")
    return edges, misuse


def find_cycle(edges):
    graph = {}
    for a, b in edges:
        graph.setdefault(a, set()).add(b)
    state = {}

    def visit(node, trail):
        state[node] = 1
        for nxt in sorted(graph.get(node, ())):
            if state.get(nxt) == 1:
                return trail + [node, nxt]
            if nxt not in state:
                found = visit(nxt, trail + [node])
                if found:
                    return found
        state[node] = 2
        return None

    for node in sorted(graph):
        if node not in state:
            found = visit(node, [])
            if found:
                return found
    return None


def problems(edges, misuse, allowed):
    out = []
    for (a, b), where in sorted(edges.items()):
        if (a, b) not in allowed:
            out.append(f"edge {a} -> {b} is not allowed (tools/layers.txt); first at {where[0]}"
                       + (f" and {len(where) - 1} more" if len(where) > 1 else ""))
    cycle = find_cycle(allowed)
    if cycle:
        out.append("the allowed edges form a cycle: " + " -> ".join(cycle))
    out.extend(f"third-party header outside platform/linux/ and plugins/: {m}" for m in misuse)
    return out


def main(argv):
    self_test = "--self-test" in argv
    args = [a for a in argv if a != "--self-test"]
    root = args[0] if args else os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    folders, allowed = read_layers(os.path.join(root, "tools", "layers.txt"))
    edges, misuse = scan(root, folders)
    found = problems(edges, misuse, allowed)
    for p in found:
        print(p)
    print(f"folders: {len(folders)}, include edges: {len(edges)}, problems: {len(found)}")
    if found:
        return 1
    if self_test:
        # An edge added by hand, from the bottom to the top, must be refused,
        # and so must an allowed list that points back up.
        forged = dict(edges)
        forged[("core", "imaging")] = ["core/forged.cpp:1"]
        if not problems(forged, [], allowed):
            print("self-test: an added core -> imaging edge was not refused")
            return 1
        if not find_cycle(allowed | {("platform", "core")}):
            print("self-test: a cycle in the allowed edges was not found")
            return 1
        if not problems(edges, ["pdf/x.cpp:1: <zlib.h>"], allowed):
            print("self-test: a third-party header in pdf/ was not refused")
            return 1
        print("self-test: added edges, cycles and misplaced third-party headers are refused")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
