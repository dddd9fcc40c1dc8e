#!/usr/bin/env python3
"""includeArrows.py -- checks that includes follow the layers of the tree.

Prints each #include "..." of a tracked C++ file that points the wrong way, or that names no file of
the tree, and exits with 1 if there is any.  The arrows are those of docs/map.md.
"""
import os
import re
import subprocess
import sys

# Layer -> the layers it may include.  A layer may always include itself and "base", the headers of
# lib/public that no source file stands behind (owners, keepers, fatal messages) and the log, which
# every program supplies.  Folders without a row (tests, bench, ...) include what they need.
ARROWS = {
    'base': set(),
    'platform': set(),
    'lib/string': {'platform'},
    'containers': {'lib/string'},
    'encoding': {'lib/string', 'containers'},
    'codeset': {'platform', 'lib/string', 'containers', 'encoding'},
    'lib/unicode': {'lib/string', 'containers', 'encoding', 'codeset'},
    'lib/misc': {'platform', 'lib/string', 'containers', 'encoding', 'codeset'},
    'lib/lock': {'platform', 'lib/string'},
    'messages': {'platform', 'lib/string', 'containers', 'codeset', 'lib/lock'},
    'lib/file': {'platform', 'lib/string', 'containers', 'encoding', 'codeset', 'lib/misc',
                 'lib/unicode', 'lib/lock', 'messages'},
    'opener': {'platform', 'lib/string', 'containers', 'encoding', 'codeset', 'lib/misc',
               'lib/unicode', 'lib/file'},
    'service': {'platform', 'lib/string', 'containers', 'encoding', 'codeset', 'lib/misc',
                'lib/unicode', 'opener'},
}
# Folders that hold more than one library: files whose names begin so are of another layer.
SPLIT = {
    'lib/misc': {'dynbuf': 'containers', 'escape': 'containers', 'hashTable': 'containers',
                 'codeset': 'codeset', 'err': 'messages', 'msg': 'messages'},
    'lib/unicode': {'encoding': 'encoding', 'unicodeSimpleTypes': 'encoding'},
}
PUBLIC = 'lib/public/'
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def tracked_sources():
    out = subprocess.run(['git', 'ls-files', '-z', '--', '*.cpp', '*.h', '*.inc'],
                         stdout=subprocess.PIPE, check=True).stdout
    return [name for name in os.fsdecode(out).split('\0') if name]


def folder_layer(path):
    parts = path.split('/')
    folder = '/'.join(parts[:2]) if parts[0] == 'lib' else parts[0]
    beginnings = SPLIT.get(folder, {})
    return next((beginnings[b] for b in beginnings if parts[-1].startswith(b)), folder)


def layer(path, sources):
    """The layer of a file; a public header belongs to the module that implements it."""
    if not path.startswith(PUBLIC):
        return folder_layer(path)
    stem = re.escape(os.path.basename(path)[:-len('.h')])
    source = re.compile(rf'lib/(?!public/).*/{stem}([A-Z]\w*)?\.cpp')     # hostinfo[Posix].cpp
    owners = {folder_layer(s) for s in sources if source.fullmatch(s)}
    return min(owners, default='base')


def resolve(name, includer, files):
    candidates = (os.path.join(os.path.dirname(includer), name), name, PUBLIC + name,
                  'platform/linux/' + name)     # stands for each host's header of that name
    return next((c for c in map(os.path.normpath, candidates) if c in files), None)


def main():
    if subprocess.run(['git', 'rev-parse', '--git-dir'], stdout=subprocess.DEVNULL,
                      stderr=subprocess.DEVNULL, check=False).returncode != 0:
        print(f'{sys.argv[0]}: not a git work tree')
        return 77
    sources = tracked_sources()
    files = set(sources)
    faults = []
    for source in sources:
        home = layer(source, sources)
        allowed = ARROWS.get(home)
        if allowed is None and not source.startswith('lib/'):
            continue
        with open(source, encoding='utf-8') as f:
            names = INCLUDE.findall(f.read())
        for name in names:
            target = resolve(name, source, files)
            to = layer(target, sources) if target else None
            if target is None:
                faults.append(f'{source}: no file "{name}"')
            elif allowed is None:
                faults.append(f'{source}: {home} has no row in {sys.argv[0]}')
            elif to not in allowed | {home, 'base'}:
                faults.append(f'{source}: {home} must not include "{name}" of {to}')
    print('\n'.join(faults) if faults else f'{len(sources)} files follow the arrows')
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
