#!/usr/bin/env python3
"""Checks the direction of the includes: each folder may use only the folders below it, and no header
includes itself by a detour.

usage: check_includes.py SOURCE_FOLDER
       check_includes.py --self-test
"""

import pathlib
import re
import sys
import tempfile

# Folder -> folders whose headers it may include besides its own.
COMMON = {"karst", "orrisd/common"}
MAPS = COMMON | {"orrisd/store", "orrisd/directory"}
SERVER = MAPS | {"orrisd/maps"}
YP = SERVER | {"orrisd/server"}
DAEMON = YP | {"orrisd/yp"}

ALLOWED = {
    "twine": set(),
    "karst": {"twine"},
    "quorad": {"karst", "twine"},
    "orrisguard": {"karst", "twine"},
    "orrisd/common": {"karst"},
    "orrisd/store": COMMON,
    "orrisd/directory": COMMON,
    "orrisd/maps": MAPS,
    "orrisd/server": SERVER,
    "orrisd/yp": YP,
    "orrisd/daemon": DAEMON,
}

# Where the name in an #include "..." or <...> is looked up, besides the folder of the file itself.
ROOTS = ["", "orrisd", "karst/include", "twine/include", "quorad", "karst/src", "twine/src"]
SOURCES = {".h", ".cpp"}
INCLUDE = re.compile(r'^\s*#\s*include\s*["<]([^">]+)[">]', re.MULTILINE)


def folder_of(path):
    """The folder of the table to which a file belongs, if any."""
    for length in (2, 1):
        name = "/".join(path.parts[:length])
        if name in ALLOWED:
            return name
    return None


def resolve(root, path, name):
    """The file of this project that an include names, relative to the source folder."""
    for place in [path.parent, *map(pathlib.Path, ROOTS)]:
        candidate = root / place / name
        if candidate.is_file():
            found = candidate.resolve()
            if found.is_relative_to(root):
                return found.relative_to(root)
    return None


def read_includes(root):
    includes = {}
    for folder in ALLOWED:
        for file in sorted((root / folder).rglob("*")):
            if file.suffix in SOURCES:
                path = file.relative_to(root)
                names = INCLUDE.findall(file.read_text(encoding="utf-8"))
                found = (resolve(root, path, name) for name in names)
                includes[path] = [other for other in found if other is not None]
    return includes


def check_directions(includes):
    for path, others in includes.items():
        own = folder_of(path)
        for other in others:
            used = folder_of(other)
            if used != own and used not in ALLOWED[own]:
                yield f"{path}: includes {other}, but {own} may not use {used or other.parent}"


def find_circles(includes):
    """Each circle once, as the list of its files."""
    done, on_path = set(), []

    def visit(path):
        if path in on_path:
            yield on_path[on_path.index(path):] + [path]
            return
        if path in done:
            return
        on_path.append(path)
        for other in includes.get(path, []):
            yield from visit(other)
        on_path.pop()
        done.add(path)

    for path in includes:
        yield from visit(path)


def find_faults(root):
    includes = read_includes(root)
    if not includes:
        sys.exit(f"{root}: no sources found")
    faults = list(check_directions(includes))
    faults += ["circle: " + " -> ".join(map(str, circle)) for circle in find_circles(includes)]
    return len(includes), faults


def self_test():
    """Whether the faults that this is for are found, and nothing else."""
    files = {
        "orrisd/common/A.h": '#include "common/B.h"\n#include <string>\n',
        "orrisd/common/B.h": '#  include "common/A.h"\n',
        "orrisd/store/C.h": '#include "common/A.h"\n#include "server/D.h"\n',
        "orrisd/server/D.h": "#include <karst/E.h>\n",
        "karst/include/karst/E.h": "// nothing\n",
        "twine/include/twine/F.h": "#include <karst/E.h>\n",
    }
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder).resolve()
        for name, text in files.items():
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_text(text, encoding="utf-8")
        _, faults = find_faults(root)
    expected = [
        "twine/include/twine/F.h: includes karst/include/karst/E.h, but twine may not use karst",
        "orrisd/store/C.h: includes orrisd/server/D.h, but orrisd/store may not use orrisd/server",
        "circle: orrisd/common/A.h -> orrisd/common/B.h -> orrisd/common/A.h",
    ]
    if faults != expected:
        sys.exit("found instead of what was expected:\n" + "\n".join(faults))


def main():
    if sys.argv[1] == "--self-test":
        self_test()
        return
    count, faults = find_faults(pathlib.Path(sys.argv[1]).resolve())
    for fault in faults:
        print(fault)
    print(f"{count} files, {len(faults)} faults")
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
