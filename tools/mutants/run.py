#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Breaks the library in many places, one at a time, and tells which breaks no test notices.

Works on a copy of the tree in build/mutants. All mutants of a run are compiled into one build; an
environment variable switches one of them on. First every test runs once without any, and tells how
long it takes and which mutants it meets; then each mutant runs the tests that meet it, those of its
own file first, until one fails.
"""

import argparse
import hashlib
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import find

ROOT = Path(__file__).resolve().parents[2]
WORK = ROOT / 'build/mutants'
BUILD = WORK / 'build/dev'
FILES = ['mixer/*.cpp', 'mixer/engine/*.cpp', 'mixer/io/*.cpp', 'mixer/meter/*.cpp', 'dsp/*.cpp']
# They need a sound server or wait for one, and test what is not mutated.
SERVERS = re.compile(r'alsa|jack|pipewire|pulse|rtaudio|note_queue|stream_watch')


def write_if_changed(path, content):
    if not path.exists() or path.read_bytes() != content:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)


def sources():
    """{name: text} of the files to break."""
    paths = sorted(path for pattern in FILES for path in ROOT.glob(pattern))
    return {str(path.relative_to(ROOT)): path.read_text() for path in paths}


def shuffled(pool, seed):
    """Each mutant draws its own lot, so that a change of the tree moves no others."""
    alike = {}

    def lot(mutant):
        name = f'{seed} {mutant.path} {mutant.kind} {mutant.text}'
        alike[name] = alike.get(name, 0) + 1
        return hashlib.sha256(f'{name} {alike[name]}'.encode()).digest()
    lots = [(lot(mutant), mutant) for mutant in pool]
    return [mutant for _, mutant in sorted(lots, key=lambda pair: pair[0])]


def copy_tree(without):
    """Brings the rest of the copy up to date, touching only what differs."""
    names = subprocess.run(['git', 'ls-files', '-co', '--exclude-standard'], cwd=ROOT, check=True,
                           capture_output=True, text=True).stdout.split('\n')
    wanted = {name for name in names if name and (ROOT / name).is_file()}
    for path in WORK.rglob('*'):
        name = str(path.relative_to(WORK))
        if path.is_file() and not name.startswith('build/') and name not in wanted:
            path.unlink()
    for name in wanted.difference(without):
        write_if_changed(WORK / name, (ROOT / name).read_bytes())
    write_if_changed(WORK / 'mutant.h', (ROOT / 'tools/mutants/mutant.h').read_bytes())


def write_mutants(originals, drawn):
    for name, source in originals.items():
        numbered = {number: mutant for number, mutant in drawn.items() if mutant.path == name}
        text = find.broken(source, numbered) if numbered else source
        write_if_changed(WORK / name, text.encode())


def ninja(jobs, *targets):
    return subprocess.run(['ninja', '-C', BUILD, f'-j{jobs}', '-k0', *targets],
                          capture_output=True, text=True)


def place(mutant):
    return f'{mutant.path}:{mutant.line} {mutant.kind}: {mutant.text[:100]}'


def refused(log, originals, drawn):
    """The mutants on lines that the compiler complains about."""
    complaint = re.compile(r'((?:mixer|dsp)/[\w/]+\.cpp):(\d+):\d+:(?: fatal)? (?:error|required)')
    lines = {(match.group(1), int(match.group(2))) for match in complaint.finditer(log)}
    for number, mutant in drawn.items():
        source = originals[mutant.path]
        touched = [source.count('\n', 0, offset) + 1 for offset, _, _ in mutant.edits]
        if any((mutant.path, line) in lines for line in range(min(touched), max(touched) + 1)):
            yield number


def build_mutants(originals, pool, count, jobs):
    """Draws until that many compile. Returns {id: mutant}."""
    drawn, taken = {}, 0
    while True:
        while len(drawn) < count and taken < len(pool):
            drawn[taken] = pool[taken]
            taken += 1
        write_mutants(originals, drawn)
        result = ninja(jobs, 'qttovelmixer_internal')
        if result.returncode == 0:
            return drawn
        rejected = list(refused(result.stdout, originals, drawn))
        if not rejected:
            sys.exit(f'{result.stdout[-4000:]}\nmutants: the build failed for another reason')
        for number in rejected:
            print(f'not compiled: {place(drawn.pop(number))}', flush=True)


def configure():
    subprocess.run(['cmake', '--preset', 'dev', '-DQTTOVELMIXER_BUILD_EXAMPLES=OFF'], cwd=WORK,
                   check=True, stdout=subprocess.DEVNULL)
    targets = subprocess.run(['ninja', '-C', BUILD, '-t', 'targets', 'all'], check=True,
                             capture_output=True, text=True).stdout
    programs = re.findall(r'^(tests/(?:dsp|mixer)/(?:\w+/)*(tst_\w+)): CXX_EXECUTABLE', targets, re.M)
    return {name: [str(BUILD / path)] for path, name in programs if not SERVERS.search(name)}


def run_test(command, seconds, **environment):
    """'' when it passes, else how it failed; ended at its first failure."""
    process = subprocess.Popen(command, cwd=Path(command[0]).parent, start_new_session=True,
                               env={**os.environ, **environment}, text=True, errors='replace',
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    expired = threading.Event()

    def kill():
        expired.set()
        os.killpg(process.pid, signal.SIGKILL)
    timer = threading.Timer(seconds, kill)
    timer.start()
    failure = ''
    for line in process.stdout:
        if match := re.match(r'(?:FAIL!|XPASS)\s*: \w+::(\w+\(.*?\))', line):
            failure = match.group(1)
            break
    timer.cancel()
    if failure:
        os.killpg(process.pid, signal.SIGKILL)
    code = process.wait()
    process.stdout.close()
    return failure or ('time limit' if expired.is_set() else f'exit {code}' if code else '')


class Tests:
    """What each test takes and meets, without a mutant."""

    def __init__(self, commands, jobs):
        self.commands, self.seconds, self.met = commands, {}, {}
        with ThreadPoolExecutor(jobs) as pool:
            list(pool.map(self.measure, commands))
        for name in sorted(set(commands) - set(self.met)):
            print(f'left out, since it fails without a mutant: {name}', flush=True)

    def measure(self, name):
        with tempfile.TemporaryDirectory() as folder:
            begin = time.monotonic()
            failure = run_test(self.commands[name], 600, QTOVELMIXER_MUTANTS_REACHED=folder)
            self.seconds[name] = time.monotonic() - begin
            if not failure:
                self.met[name] = {int(line) for file in Path(folder).iterdir()
                                  for line in file.read_text().split()}

    def against(self, number, path):
        """Those that meet the mutant; first those of its own file, then the quick ones."""
        stem, folder = Path(path).stem, Path('tests') / Path(path).parent
        words = [stem, *(stem.rsplit('_', cut)[0] for cut in range(1, stem.count('_') + 1))]

        def rank(name):
            is_near = str(folder) in self.commands[name][0]
            fitting = [i for i, word in enumerate(words) if name.startswith('tst_' + word)]
            mirrored = min(fitting, default=len(words)) if is_near else len(words)
            return mirrored, not is_near, self.seconds[name]
        return sorted((name for name, met in self.met.items() if number in met), key=rank)

    def judge(self, number, path):
        """(whether the mutant was noticed, by what)."""
        names = self.against(number, path)
        for name in names:
            failure = run_test(self.commands[name], 15 + 4 * self.seconds[name],
                               QTOVELMIXER_MUTANT=str(number))
            if failure:
                return True, f'{name}: {failure}'
        return False, f'{len(names)} tests meet it' if names else 'no test meets it'


def report(drawn, verdicts, seed):
    print(f'\n{"mutant":50} {"kind":20} noticed by')
    for number, mutant in sorted(drawn.items(), key=lambda item: (item[1].path, item[1].line)):
        noticed, reason = verdicts[number]
        where = f'{number:4} {mutant.path}:{mutant.line}'
        print(f'{where:50} {mutant.kind:20} {reason if noticed else "SURVIVED"}')
        if not noticed:
            print(f'{"":5}{mutant.text} ({reason})')
    kinds = sorted({mutant.kind for mutant in drawn.values()})
    print(f'\n{"kind":20} {"mutants":>7} {"killed":>7}')
    for kind in [*kinds, 'all']:
        of_kind = [number for number, mutant in drawn.items() if kind in ('all', mutant.kind)]
        print(f'{kind:20} {len(of_kind):7} {sum(verdicts[number][0] for number in of_kind):7}')
    print(f'seed {seed}')


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    parser.add_argument('--mutants', type=int, default=120, help='how many are drawn (%(default)s)')
    parser.add_argument('--seed', type=int, default=1, help='of the draw (%(default)s)')
    parser.add_argument('--jobs', type=int, default=os.cpu_count(),
                        help='parallel compilers and tests')
    parser.add_argument('--only', default='', metavar='REGEX',
                        help='draw from the files whose path matches')
    parser.add_argument('--number', type=int, action='append',
                        help='judge only this one of those drawn; may be repeated')
    parser.add_argument('--tests', default='', metavar='REGEX',
                        help='run only the tests whose name matches')
    options = parser.parse_args()
    if not shutil.which('ninja') or not shutil.which('cmake'):
        sys.exit('mutants: cmake and ninja are missing (./dev deps)')

    originals = sources()
    pool = [mutant for name, source in originals.items() if re.search(options.only, name)
            for mutant in find.find(name, source)]
    print(f'{len(pool)} mutants to draw from', flush=True)
    pool = shuffled(pool, options.seed)
    copy_tree(without=originals)
    write_mutants({name: text for name, text in originals.items() if not (WORK / name).exists()}, {})
    commands = {name: command for name, command in configure().items()
                if re.search(options.tests, name)}
    drawn = build_mutants(originals, pool, options.mutants, options.jobs)
    if options.number:
        drawn = {number: drawn[number] for number in options.number}
    print(f'{len(drawn)} mutants compiled, building {len(commands)} tests', flush=True)
    if not commands:
        sys.exit('mutants: no test of that name')
    built = ninja(options.jobs, *commands)
    if built.returncode:
        sys.exit(built.stdout[-4000:])
    tests = Tests(commands, options.jobs)
    print(f'{len(tests.met)} tests pass without a mutant, in {sum(tests.seconds.values()):.0f} s',
          flush=True)

    verdicts = {}

    def judge(number):
        verdicts[number] = tests.judge(number, drawn[number].path)
        noticed, reason = verdicts[number]
        print(f'{len(verdicts):4}/{len(drawn)} {"killed" if noticed else "SURVIVED"} ({reason}), '
              f'{place(drawn[number])}', flush=True)
    with ThreadPoolExecutor(options.jobs) as pool_of_jobs:
        list(pool_of_jobs.map(judge, drawn))
    report(drawn, verdicts, options.seed)


if __name__ == '__main__':
    main()
