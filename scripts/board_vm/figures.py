"""figures.py: what was measured beside what is expected."""
import time

figures = []  # of the row that this process is at


def say(text):
    print(time.strftime("%H:%M:%S"), text, flush=True)


def figure(row, what, measured, expected, isGood):
    figures.append((row, what, measured, expected, "ok" if isGood else "MISSED"))
    say("%s: %s: %s (%s)%s" % (row, what, measured, expected, "" if isGood else "  MISSED"))


def figureSpan(row, what, seconds, least, most):
    figure(row, what, "%.1f s" % seconds, "%g to %g s" % (least, most), least <= seconds <= most)


def printTable(lines):
    lines = [("row", "figure", "measured", "expected", "")] + lines
    widths = [max(len(line[i]) for line in lines) for i in range(5)]
    print("\n" + "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip()
                           for line in lines))
