"""Line charts as SVG, beside one another in one picture."""

import dataclasses
import html
import math

WIDTH, HEIGHT = 420, 330
LEFT, RIGHT, TOP, BOTTOM = 64, 16, 40, 50
LINE_HEIGHT = 16
COLOURS = ("#1f6feb", "#d1242f", "#1a7f37", "#9a6700", "#8250df", "#57606a")


@dataclasses.dataclass
class Chart:
    """`series` has for each name of a line its values, one for each of `steps`. Values begin at 0;
    so do the steps when they are `linear`, and stand in equal distances otherwise."""

    title: str
    steps: tuple
    unit: str  # of the steps
    series: dict
    linear: bool = False


def draw(charts, note):
    """All charts, whose values are of the unit that `note` names."""
    lines = max(len(chart.series) for chart in charts)
    height = HEIGHT + lines * LINE_HEIGHT
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH * len(charts)}" '
             f'height="{height}" font-family="sans-serif" font-size="12">',
             '<rect width="100%" height="100%" fill="#ffffff"/>']
    for number, chart in enumerate(charts):
        parts.append(f'<g transform="translate({WIDTH * number} 0)">')
        parts += _draw(chart, note)
        parts.append("</g>")
    return "\n".join([*parts, "</svg>", ""])


def _draw(chart, note):
    step = _round_up(max(map(max, chart.series.values())) / 5)
    most = step * 5
    bottom, right = HEIGHT - BOTTOM, WIDTH - RIGHT

    def x(position):
        if chart.linear:
            return LEFT + chart.steps[position] * (right - LEFT) * 0.95 / max(chart.steps)
        return LEFT + (position + 0.5) * (right - LEFT) / len(chart.steps)

    def y(value):
        return bottom - value * (bottom - TOP) / most

    yield _text(WIDTH / 2, 18, chart.title, "middle", 'font-weight="bold"')
    yield _text(4, 34, note)
    for tick in range(6):
        height = y(tick * step)
        yield (f'<line x1="{LEFT}" y1="{height:.1f}" x2="{right}" y2="{height:.1f}" '
               'stroke="#d0d7de"/>')
        yield _text(LEFT - 6, height + 4, f"{tick * step:,g}", "end")
    for position, count in enumerate(chart.steps):
        yield _text(x(position), bottom + 18, f"{count:,}", "middle")
    yield _text(WIDTH / 2, bottom + 36, chart.unit, "middle")
    for number, (name, values) in enumerate(chart.series.items()):
        colour = COLOURS[number % len(COLOURS)]
        # A colour that comes again is a broken line's.
        dashes = ' stroke-dasharray="6 4"' if number >= len(COLOURS) else ""
        points = [(x(position), y(value)) for position, value in enumerate(values)]
        path = " ".join(f"{a:.1f},{b:.1f}" for a, b in points)
        yield (f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"'
               f'{dashes}/>')
        yield from (f'<circle cx="{a:.1f}" cy="{b:.1f}" r="3" fill="{colour}"/>' for a, b in points)
        height = HEIGHT + number * LINE_HEIGHT
        yield (f'<line x1="{LEFT}" y1="{height - 4}" x2="{LEFT + 22}" y2="{height - 4}" '
               f'stroke="{colour}" stroke-width="2"{dashes}/>')
        yield _text(LEFT + 28, height, name)


def _text(x, y, text, anchor="start", more=""):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {more}>'
            f"{html.escape(text)}</text>")


def _round_up(value):
    """The next of 1, 2, 2.5, 5 and 10, times a power of ten."""
    power = 10 ** math.floor(math.log10(value))
    return next(digit * power for digit in (1, 2, 2.5, 5, 10) if digit * power >= value)
