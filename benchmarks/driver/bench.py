"""Measures every row beside its floor or peer, turn about in one run, and prints the table.

Writes build/bench/results.json and two charts beside it. Medians and spreads are of 5 to 25 rounds, the fewer the more
there is to do in one. benchmarks/README.md says what each row is.
"""
import argparse
import datetime
import json
import os
import platform
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import charts
import rows
import tables

ROOT = Path(__file__).resolve().parents[2]
PROGRAM = ROOT / 'build' / 'release' / 'bin' / 'lq_bench'
OUT = ROOT / 'build' / 'bench'
KEPT = ROOT / 'benchmarks'
DISK = '/var/tmp'   # what is measured waits for a disk, which /tmp need not be on


def output_of(*command):
    """What it says; nothing when it is not installed."""
    try:
        return subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False).stdout.strip()
    except OSError:
        return ''


def field_of(file, name):
    for line in Path(file).read_text().splitlines():
        if line.startswith(name):
            return line.split(':', 1)[1].strip()
    return ''


def machine():
    return {'processor': f'{field_of("/proc/cpuinfo", "model name")}, {len(os.sched_getaffinity(0))} cores',
            'memory': f'{int(field_of("/proc/meminfo", "MemTotal").split()[0]) / (1 << 20):.0f} GiB',
            'system': f'Linux {platform.release().partition("-")[0]}, '
                      + platform.freedesktop_os_release()['PRETTY_NAME'],
            'virtual machine': output_of('systemd-detect-virt', '--vm') or 'not known',
            'file system': output_of('findmnt', '-no', 'FSTYPE', '-T', DISK),
            'compiler': output_of('g++', '--version').partition('\n')[0],
            'libraries': ', '.join(f'{name} {output_of("pkg-config", "--modversion", name)}'
                                   for name in ('sqlite3', 'pugixml', 'openssl')),
            'revision': output_of('git', 'rev-parse', '--short', 'HEAD')
                        + (' and changes' if output_of('git', 'status', '--porcelain', '-uno') else '')}


def measure(runs, folder):
    """The measurements of all runs, and which of them failed."""
    measurements, failed = [], []
    environment = {**os.environ, 'LQ_BENCH_FOLDER': folder}
    for index, run in enumerate(runs, 1):
        print(f'[{index}/{len(runs)}] {run.row} {run.size:,} ', end='', file=sys.stderr, flush=True)
        began = time.monotonic()
        done = subprocess.run([PROGRAM, run.row, str(run.size), str(run.rounds)], env=environment, capture_output=True,
                              text=True, check=False)
        measurements += [json.loads(line) for line in done.stdout.splitlines()]
        print(f'{time.monotonic() - began:.1f} s', file=sys.stderr)
        if done.returncode != 0:
            failed.append(f'{run.row} {run.size:,}')
            print(done.stderr, file=sys.stderr)
    return measurements, failed


def results_page(about, results, measurements):
    facts = ''.join(f'- {name}: {value}\n' for name, value in about.items())
    return ('# Results\n\n'
            'The last run of `scripts/bench --keep`; [README.md](README.md) says what each row is. Medians, with the\n'
            'least and the most of the rounds in brackets.\n\n'
            f'{facts}\n{tables.comparison(results)}\n'
            '![Ours beside floor and peer](beside.svg)\n\n![A pass over its number of records](over_size.svg)\n\n'
            '## Statements and system calls\n\n'
            'In a process of its own, its start included; a record costs what the larger of two sizes has more.\n\n'
            f'{tables.counts(measurements)}')


def main():
    names = list(dict.fromkeys(run.row for run in rows.RUNS))
    parser = argparse.ArgumentParser(prog='scripts/bench', description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter,
                                     epilog='Exit code: 0 when everything was measured, also when a target is missed.')
    parser.add_argument('row', nargs='?', choices=names, metavar='ROW',
                        help='one row; otherwise all: ' + ', '.join(names))
    parser.add_argument('size', nargs='?', type=int, help='only with this number of records')
    parser.add_argument('--list', action='store_true', help='list the lines of the table and their targets')
    parser.add_argument('--keep', action='store_true', help='also rewrite benchmarks/RESULTS.md and its charts')
    options = parser.parse_args()
    if options.list:
        for line in rows.lines():
            print(f'{line.row:10}{line.work}' + ('' if line.target is None else f', at most {line.target:g}'))
        return 0
    if options.keep and options.row:
        parser.error('--keep is for a run of all rows')
    runs = [run for run in rows.RUNS if options.row in (None, run.row) and options.size in (None, run.size)]
    if not runs:
        parser.error(f'{options.row} is not measured with {options.size} records')

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # through the end of the folder
    about = {'measured': f'{datetime.datetime.now(datetime.timezone.utc):%Y-%m-%d %H:%M} UTC', **machine()}
    with tempfile.TemporaryDirectory(prefix='lqbench.', dir=DISK) as folder:
        measurements, failed = measure(runs, folder)
    results = list(rows.results(measurements))
    missed = [result for result in results if not result.is_met]
    OUT.mkdir(parents=True, exist_ok=True)
    (OUT / 'results.json').write_text(json.dumps({'about': about, 'table': [result.as_json() for result in results],
                                                  'measurements': measurements}, indent=1))
    if results:
        print(tables.comparison(results))
    print(tables.counts(measurements), end='')
    if options.row is None and not failed:
        for folder in (OUT, KEPT) if options.keep else (OUT,):
            (folder / 'beside.svg').write_text(charts.beside(results))
            (folder / 'over_size.svg').write_text(charts.over_size(results))
        if options.keep:
            (KEPT / 'RESULTS.md').write_text(results_page(about, results, measurements))
    if missed:
        print(f'Missed, {len(missed)} of {len(results)}:')
        for result in missed:
            print(f'  {result.line.work}: {result.ratio:.2f} instead of {result.line.target:g}')
    if failed:
        print('Not measured: ' + ', '.join(failed), file=sys.stderr)
    return 1 if failed else 0


sys.exit(main())
