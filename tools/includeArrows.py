#!/usr/bin/env python3
"""includeArrows.py -- checks that includes follow the layers of the tree.

A folder is a layer; a header of lib/public belongs to the folder that implements it.  Prints each
#include "..." of a tracked C++ file that points the wrong way, is not the path from the root, or names
no file of the tree, and exits with 1 if there is any.  The arrows are those of docs/map.md.
"""
import os
import re
import subprocess
import sys

# Folder -> the folders whose headers it may include, besides its own and BASE.  Folders without a row
# (tests, bench, ...) may include anything, and folders with a row may not include theirs.
LIB = ['lib/string', 'lib/misc/containers', 'lib/unicode/encodings', 'lib/misc/codeset', 'lib/unicode',
       'lib/misc/host', 'lib/lock', 'lib/misc/messages', 'lib/file', 'lib/file/raw']
ARROWS = {
    'platform': [],
    'platform/darwin': ['platform'],
    'platform/linux': ['platform'],
    'platform/linux/seal': ['platform', 'platform/linux'],
    'lib/string': ['platform'],
    'lib/misc/containers': ['lib/string'],
    'lib/unicode/encodings': ['lib/string', 'lib/misc/containers'],
    'lib/misc/codeset': ['platform', 'lib/string', 'lib/misc/containers', 'lib/unicode/encodings'],
    'lib/unicode': ['lib/string', 'lib/misc/containers', 'lib/unicode/encodings', 'lib/misc/codeset'],
    'lib/misc/host': ['platform', 'lib/string', 'lib/misc/containers', 'lib/misc/codeset'],
    'lib/lock': ['platform', 'lib/string'],
    'lib/misc/messages': ['platform', 'lib/string', 'lib/misc/containers', 'lib/misc/codeset',
                          'lib/lock'],
    'lib/file': ['platform'] + LIB[:-2],
    'lib/file/raw': ['platform'] + LIB[:-1],
    'lib/file/copy': ['platform'] + LIB,
    'lib/file/lock': ['platform'] + LIB,
    'lib/file/io': ['platform', 'lib/file/lock'] + LIB,
    'opener': ['platform', 'lib/file/copy'] + LIB[:-1],
    'service': ['platform', 'lib/string', 'opener'],
    'checker': ['platform', 'opener', 'lib/file/copy'] + LIB,
}
# Headers outside all layers: owners, keepers and fatal errors, which no source file implements or which
# every program has, and the log, which each program supplies.
BASE = 'lib/public'
PUBLIC = 'lib/public/'
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def tracked_sources():
    out = subprocess.run(['git', 'ls-files', '-z', '--', '*.cpp', '*.h', '*.inc'],
                         stdout=subprocess.PIPE, check=True).stdout
    return [name for name in os.fsdecode(out).split('\0') if name]


def layer(path, sources):
    """The folder of a file, or for a public header the outermost one that implements it."""
    if not path.startswith(PUBLIC):
        return os.path.dirname(path)
    stem = re.escape(os.path.basename(path)[:-len('.h')])
    for name in (stem, stem + r'[A-Z]\w*'):     # file.h: file[Delete].cpp
        source = re.compile(rf'lib/(?!public/).*/{name}\.cpp')
        owners = {os.path.dirname(s) for s in sources if source.fullmatch(s)}
        if owners:
            return min(owners, key=len)
    return BASE


def fault(source, name, sources):
    """What is wrong with an include, or None."""
    home = layer(source, sources)
    if name not in sources:
        return f'no file "{name}" (a path begins at the root of the tree)'
    to = layer(name, sources)
    allowed = ARROWS.get(home)
    if allowed is None or to in [home, BASE] + allowed:
        return None
    return f'{home} must not include "{name}" of {to}'


def main():
    if subprocess.run(['git', 'rev-parse', '--git-dir'], capture_output=True).returncode != 0:
        print('not a git work tree')
        return 77
    sources = tracked_sources()
    known = set(sources)
    faults = []
    for source in sources:
        with open(source, encoding='utf-8') as f:
            for name in INCLUDE.findall(f.read()):
                what = fault(source, name, known)
                if what:
                    faults.append(f'{source}: {what}')
    print('\n'.join(faults) if faults else f'{len(sources)} files follow the arrows')
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
