"""The charts, as SVG with nothing but text: ours beside floor and peer, and cost over size."""
import math

from rows import RUNS, PASS_TARGETS
from tables import number

OURS, OTHER, AIM, INK, GRID = '#1f6feb', '#9aa4b2', '#d1242f', '#1f2328', '#d8dee4'
CASE_COLOURS = {'new': '#1f6feb', 'changed': '#bf5af2', 'unchanged': '#1a7f37'}


class Drawing:
    def __init__(self, width, height, title):
        self.head = (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
                     f'height="{height}" font-family="sans-serif" font-size="12">\n<title>{title}</title>\n')
        self.parts = [f'<rect width="{width}" height="{height}" fill="#ffffff"/>']
        self.text(width / 2, 22, title, 'middle', size=15)

    def text(self, x, y, words, anchor='start', colour=INK, size=12):
        words = words.replace('&', '&amp;').replace('<', '&lt;').replace('`', '')
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{colour}" '
                          f'font-size="{size}">{words}</text>')

    def box(self, x, y, width, height, colour):
        self.parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}" fill="{colour}"/>')

    def path(self, points, colour, width=1.0, dashes=''):
        coordinates = ' '.join(f'{x:.1f},{y:.1f}' for x, y in points)
        self.parts.append(f'<polyline points="{coordinates}" fill="none" stroke="{colour}" stroke-width="{width}"'
                          + (f' stroke-dasharray="{dashes}"' if dashes else '') + '/>')

    def dot(self, x, y, colour):
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" fill="{colour}"/>')

    def svg(self):
        return self.head + '\n'.join(self.parts) + '\n</svg>\n'


def beside(results):
    """Bars whose unit is the floor or the peer; what each took stands beside them."""
    shown = [result for result in results if result.line.row not in ('peak', 'log')]
    left, right, row, top = 300, 880, 26, 70
    longest = max([1.5] + [max(result.ratio, result.line.target or 0) for result in shown])
    drawing = Drawing(1000, top + row * len(shown) + 40, 'Ours beside floor and peer (which are 1)')
    for x, colour, words in ((left, OURS, 'ours'), (left + 80, OTHER, 'floor, peer'), (left + 190, AIM, 'target')):
        drawing.box(x, 38, 12, 12, colour)
        drawing.text(x + 18, 48, words)

    def place(ratio):
        return left + (right - left) * ratio / longest
    for step in range(math.floor(longest * 2) + 1):
        drawing.path([(place(step / 2), top - 6), (place(step / 2), top + row * len(shown))], GRID)
        drawing.text(place(step / 2), top + row * len(shown) + 18, f'{step / 2:g}', 'middle')
    for index, result in enumerate(shown):
        y = top + index * row
        drawing.text(left - 8, y + 14, result.line.work, 'end')
        drawing.box(left, y + 1, place(result.ratio) - left, 11, OURS)
        drawing.box(left, y + 13, place(1) - left, 7, OTHER)
        drawing.path([(place(result.line.target), y), (place(result.line.target), y + 21)], AIM, 2)
        unit = result.line.figure.replace('cpu_', '').replace('us', 'µs')
        drawing.text(right + 8, y + 14, f'{number(result.ours.middle)} / {number(result.other.middle)} {unit}')
    return drawing.svg()


def over_size(results):
    """Milliseconds of a pass over its records, both logarithmic; floor dashed, least to most as whiskers."""
    passes = {(result.line.case, result.line.size): result for result in results if result.line.row == 'pass'}
    sizes = [run.size for run in RUNS if run.row == 'pass']
    left, right, top, bottom = 80, 700, 50, 470
    figures = [value for result in passes.values() for value in (result.ours, result.other)]
    low = math.floor(math.log10(min(figure.least for figure in figures)))
    high = math.ceil(math.log10(max(figure.most for figure in figures)))
    drawing = Drawing(900, 520, 'A pass over its number of records')

    def place(size, milliseconds):
        across = math.log10(size / sizes[0]) / math.log10(sizes[-1] / sizes[0])
        up = (math.log10(milliseconds) - low) / (high - low)
        return left + (right - left) * across, bottom - (bottom - top) * up
    for size in sizes:
        drawing.path([place(size, 10 ** low), place(size, 10 ** high)], GRID)
        drawing.text(place(size, 1)[0], bottom + 20, f'{size:,}', 'middle')
    for power in range(low, high + 1):
        drawing.path([place(sizes[0], 10 ** power), place(sizes[-1], 10 ** power)], GRID)
        drawing.text(left - 8, place(sizes[0], 10 ** power)[1] + 4, f'{10 ** power:g} ms', 'end')
    drawing.text((left + right) / 2, bottom + 40, 'records', 'middle')
    for row, case in enumerate(PASS_TARGETS):
        for side, dashes in (('ours', ''), ('other', '6 4')):
            colour = CASE_COLOURS[case]
            line = [(size, getattr(passes[case, size], side)) for size in sizes if (case, size) in passes]
            drawing.path([place(size, figure.middle) for size, figure in line], colour, 2, dashes)
            for size, figure in line:
                drawing.path([place(size, figure.least), place(size, figure.most)], colour)
                drawing.dot(*place(size, figure.middle), colour)
            y = 80 + 22 * (2 * row + (side == 'other'))
            drawing.path([(right + 30, y), (right + 65, y)], colour, 2, dashes)
            drawing.text(right + 72, y + 4, f'{case}, {"ours" if side == "ours" else "floor"}')
    return drawing.svg()
