"""The results as Markdown tables."""
UNITS = {'ms': 'ms', 'cpu_ms': 'ms CPU', 'mib': 'MiB', 'us': 'µs', 'ns': 'ns'}
OTHERS = {'floor': 'floor', 'peer': 'dconf', 'unwatched': 'no callback', 'loading': 'loads the library'}
MOST_CALLS = 8


def number(value):
    return f'{value:,.0f}' if value >= 99.5 else f'{value:.3g}'


def spread(figure):
    if figure.least == figure.most:
        return number(figure.middle)
    return f'{number(figure.middle)} ({number(figure.least)}–{number(figure.most)})'


def markdown(heads, rows):
    widths = [max(len(row[i]) for row in [heads, *rows]) for i in range(len(heads))]
    texts = [' | '.join(cell.ljust(width) for cell, width in zip(row, widths)) for row in [heads, *rows]]
    texts.insert(1, ' | '.join('-' * width for width in widths))
    return ''.join(f'| {text} |\n' for text in texts)


def verdict(result):
    if result.line.target is None:
        return ''
    return 'yes' if result.is_met else 'NO'


def comparison(results):
    """Medians, with the least and the most of the rounds."""
    rows = []
    for result in results:
        line = result.line
        other = 'bound' if line.row == 'peak' else OTHERS[line.other]
        rows.append([line.work, spread(result.ours) + ' ' + UNITS[line.figure], f'{spread(result.other)} {other}',
                     f'{result.ratio:.2f}', '' if line.target is None else f'≤ {line.target:g}', verdict(result)])
    return markdown(['work', 'ours', 'beside', 'ratio', 'target', 'met'], rows)


def counts(measurements):
    """Statements and system calls: what one more record costs, by two sizes, and what the smaller one made in all."""
    counted = {}
    for measurement in measurements:
        if measurement['row'] == 'counts':
            counted.setdefault(measurement['case'], []).append(measurement)
    rows = []
    for case, sizes in counted.items():
        if len(sizes) < 2:
            continue
        small, large = sorted(sizes, key=lambda measurement: measurement['size'])
        more = large['size'] - small['size']
        each = {name: (large['facts'][name] - small['facts'][name]) / more
                for name in ('steps', 'preparations', 'system_calls')}
        facts = small['facts']
        calls = sorted(((count, name[5:]) for name, count in facts.items() if name.startswith('call ')), reverse=True)
        rows.append([case, f'{each["steps"]:.2f}', f'{each["system_calls"]:.2f}', f'{facts["steps"]:,.0f}',
                     f'{facts["preparations"]:,.0f}', f'{facts["system_calls"]:,.0f}',
                     ', '.join(f'{name} {count:.0f}' for count, name in calls[:MOST_CALLS])])
    size = min((m['size'] for m in measurements if m['row'] == 'counts'), default=0)
    return markdown(['work', 'statements a record', 'system calls a record', f'statements, {size:,}', 'prepared',
                     'system calls', 'most of them'], rows) if rows else ''
