#!/usr/bin/env python3
"""unreached.py -- line coverage of the product, and the lines that no test reaches.

    tools/unreached.py BUILD

BUILD is the folder of preset coverage, after its tests have run.  Prints lines, lines reached and
their share per folder.  Then compares the lines not reached with the reviewed ones of
tests/unreached.txt; prints what differs, and exits with 1 if anything does.

A line is identified by its file, its function and its text, so that it may move.  Lines with nothing but
braces and `else` do not count.
"""
import collections
import glob
import os
import re
import subprocess
import sys

REVIEWED = 'tests/unreached.txt'
# Of tools/, what is installed.
PRODUCT = ['lib/*.cpp', 'lib/*.h', 'opener/*.cpp', 'opener/*.h', 'platform/*.cpp', 'platform/*.h',
           'service/*.cpp', 'service/*.h', 'tools/codeseal/*.cpp', 'tools/codeseal/*.h',
           'tools/lumenLocks/*.cpp', 'tools/lumenLocks/*.h', 'checker/*.cpp', 'checker/*.h']
NO_CODE = re.compile(r'\W*(else)?\W*')
# The beginning of an unindented line that may start a function or a class.
BEGINNING = re.compile(r'(?!namespace|using|extern "C"|static_assert|typedef)[A-Za-z_\[]')
NAME = re.compile(r'(?:class|struct|union) (?:\[\[\w+\]\] )?(\w+)(?! *\()|'
                  r'((?!__attribute__|alignas|decltype)[\w:~]+|operator\S+)\(')
WHOLE = 'all of it'


def output_of(*command):
    return os.fsdecode(subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                      check=True).stdout)


def programs(build):
    """The executables that the build links, without those that an earlier build has left."""
    for line in output_of('ninja', '-C', build, '-t', 'targets', 'all').splitlines():
        path, _, rule = line.partition(': ')
        if '_EXECUTABLE_LINKER_' in rule and not path.endswith('.cmake'):
            yield os.path.join(build, path)


def counts(build, sources):
    """{file: {line number: how often it ran}} for the files that any program has code from."""
    merged = os.path.join(build, 'coverage.profdata')
    output_of('llvm-profdata-14', 'merge', '-o', merged,
              *glob.glob(os.path.join(build, 'profiles', '*.profraw')))
    first, *others = sorted(programs(build))
    report = output_of('llvm-cov-14', 'export', '-format=lcov', f'-instr-profile={merged}', first,
                       *(f'-object={path}' for path in others),
                       *(os.path.abspath(source) for source in sources))
    found, lines = {}, None
    for row in report.splitlines():
        kind, _, value = row.partition(':')
        if kind == 'SF':
            lines = found.setdefault(os.path.relpath(value), {})
        elif kind == 'DA':
            number, count = map(int, value.split(',')[:2])
            lines[number] = max(count, lines.get(number, 0))
    return found


def functions(text):
    """For each line, the name of the function or class that contains it."""
    name = ''
    for line in text:
        if BEGINNING.match(line):
            match = NAME.search(line)
            name = (match[1] or match[2]) if match else name
        yield name


def examine(path, ran, known):
    """The number of lines, and a row for each line, or whole function, that was not reached.

    Adds to `known` all rows that there could be.
    """
    with open(path, encoding='utf-8') as f:
        text = f.read().splitlines()
    names = list(functions(text))
    code = [n for n in sorted(ran) if not NO_CODE.fullmatch(text[n - 1])]
    alive = {names[n - 1] for n in code if ran[n]}
    rows = []
    for n in code:
        name = names[n - 1]
        line, whole = (f'{path} | {name} | {what}' for what in (text[n - 1].strip(), WHOLE))
        known |= {line, whole}
        row = line if name in alive else whole
        if not ran[n] and (name in alive or row not in rows):
            rows.append(row)
    return len(code), sum(ran[n] == 0 for n in code), rows


def print_table(folders):
    print(f'{"folder":20} {"lines":>7} {"reached":>7} {"percent":>8}')
    folders['all'] = tuple(map(sum, zip(*folders.values())))
    for folder, (total, missed) in folders.items():
        print(f'{folder:20} {total:7} {total - missed:7} {100 - 100 * missed / total:8.2f}')


def reviewed():
    """The rows of the list that must not be reached, and those that may be, by chance."""
    with open(REVIEWED, encoding='utf-8') as f:
        rows = [line.strip() for line in f if ' | ' in line and not line.startswith('#')]
    chance = {row[2:] for row in rows if row.startswith('? ')}
    return collections.Counter(row for row in rows if row[:2] != '? '), chance


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sources = output_of('git', 'ls-files', '--', *PRODUCT).splitlines()
    found = counts(sys.argv[1], sources)
    folders = {}
    rows, known = collections.Counter(), set()
    for path in sorted(found):
        total, missed, new = examine(path, found[path], known)
        old = folders.get(os.path.dirname(path), (0, 0))
        folders[os.path.dirname(path)] = (old[0] + total, old[1] + missed)
        rows.update(new)
    print_table(folders)
    print('of the other host:', *(s for s in sources if s.endswith('.cpp') and s not in found))

    listed, chance = reviewed()
    rows = collections.Counter({row: n for row, n in rows.items() if row not in chance})
    for row in (rows - listed).elements():
        print(f'not reached, and not in {REVIEWED}: {row}')
    for row in [*(listed - rows).elements(), *(chance - known)]:
        print(f'in {REVIEWED}, but reached or gone: {row}')
    return 0 if rows == listed and chance <= known else 1


if __name__ == '__main__':
    try:
        sys.exit(main())
    except subprocess.CalledProcessError as failure:
        sys.exit(f'{failure.cmd[0]}: {os.fsdecode(failure.stderr)[-2000:]}')
