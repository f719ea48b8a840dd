"""The chart of the report: one group of bars a kind of work, one bar a store, on a logarithmic
scale. Plain SVG, readable on light and dark backgrounds."""

import math
from xml.sax.saxutils import escape

colours = {
    "tulo": "#d9480f",
    "floor": "#868e96",
    "gsettings": "#1c7ed6",
    "kconfig": "#37b24d",
    "qsettings": "#0ca678",
    "sqlite": "#7048e8",
    "lmdb": "#ae3ec9",
}
# Work and number of settings.
groups = [
    ("get", 1000),
    ("rows_20", 1000),
    ("accept", 1000),
    ("durable", 1000),
    ("durable", 100000),
    ("start", 1000),
]

width = 760
left = 110
bar_height = 14
gap = 26


def bars_of(figures, work, settings):
    bars = [(subject, figures.median(work, subject, settings)) for subject in colours]
    return sorted([bar for bar in bars if bar[1] is not None], key=lambda bar: bar[1])


def chart(figures, shown, titles):
    """`shown` formats a median, `titles` names the work."""
    parts = []
    y = 30
    for work, settings in groups:
        bars = bars_of(figures, work, settings)
        if len(bars) < 2:
            continue
        parts.append(f'<text x="10" y="{y}" class="title">{escape(titles[work])}, '
                     f'{settings:,} settings</text>')
        y += 8
        low = math.floor(math.log10(bars[0][1]) - 0.3)
        high = math.log10(bars[-1][1])
        for subject, median in bars:
            length = (math.log10(median) - low) / (high - low) * (width - left - 110)
            parts.append(f'<text x="{left - 8}" y="{y + 11}" text-anchor="end">{subject}</text>'
                         f'<rect x="{left}" y="{y}" width="{length:.1f}" height="{bar_height}" '
                         f'fill="{colours[subject]}"/>'
                         f'<text x="{left + length + 6:.1f}" y="{y + 11}">'
                         f'{escape(shown(work, median))}</text>')
            y += bar_height + 3
        y += gap
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{y}" '
            f'viewBox="0 0 {width} {y}">\n'
            '<style>text { font: 12px sans-serif; fill: #868e96 } '
            '.title { font-weight: bold }</style>\n'
            + "\n".join(parts)
            + f'\n<text x="10" y="{y - 8}">Medians, logarithmic scale within each group; '
              'shorter is better.</text>\n</svg>\n')
