"""figures.py: what was measured beside what is to be reached, and how it comes of runs."""
import collections
import statistics
import threading
import time

figures, printing = [], threading.Lock()


def say(text):
    with printing:
        print(time.strftime("%H:%M:%S"), text, flush=True)


def figure(row, what, measured, aim, isGood):
    figures.append((row, what, measured, aim, "ok" if isGood else "MISSED"))
    say("%s: %s: %s (%s)%s" % (row, what, measured, aim, "" if isGood else "  MISSED"))


def phaseOf(board, period):
    """Of its grid on the monotonic clock: as Schedule has it."""
    mask = (1 << 64) - 1
    value = 0xCBF29CE484222325
    for byte in board.encode():
        value = (value ^ byte) * 0x100000001B3 & mask
    value = (value ^ value >> 33) * 0xFF51AFD7ED558CCD & mask
    return (value ^ value >> 33) % int(period * 1000) / 1000


def lateness(runs, boards, period, begin, end):
    """Of every time of a board's grid between the two, how much later a run began; without end where none did. Seconds,
    in order."""
    wall = time.time() - time.monotonic()
    late, times = [], collections.defaultdict(list)
    for board, started, *_ in runs:
        times[board].append(started)
    for board in boards:
        phase = wall + phaseOf(board, period) - 0.002  # what the clocks' readings differ by
        slots = {}
        for started in sorted(times[board]):
            slots.setdefault(int((started - phase) // period), (started - phase) % period)
        first = int(-(-(begin - phase) // period))
        late += [slots.get(slot, float("inf")) for slot in range(first, int((end - phase) // period) + 1)]
    return sorted(late)


def figureLateness(row, late):
    share = sum(1 for one in late if one <= 1) / len(late)
    figure(row, "runs that begin within 1 s of their time", "%.2f %% of %d, median %.0f ms" %
           (100 * share, len(late), 1000 * statistics.median(late)), ">= 99 %", share >= 0.99)
    figure(row, "the latest", "%.2f s" % late[-1], "<= 5 s", late[-1] <= 5)


def atATime(noted):
    """Runs that began while another of their board was under way, as the boards saw it."""
    ends, count = {}, 0
    for one in sorted(noted, key=lambda one: one.asked):
        count += one.asked < ends.get(one.board, 0) - 0.05
        ends[one.board] = max(one.ended, ends.get(one.board, 0))
    return count


def figureStored(row, noted, runs):
    """What is stored: of each board one run after the other."""
    ends, twice = {}, 0
    for board, started, seconds, _ in sorted(runs, key=lambda run: run[1]):
        twice += started < ends.get(board, 0) - 0.002
        ends[board] = max(started + seconds, ends.get(board, 0))
    figure(row, "two runs of a board at a time", "%d of %d" % (atATime(noted), len(noted)), "0", atATime(noted) == 0)
    figure(row, "stored twice, or beside another", "%d of %d" % (twice, len(runs)), "0", twice == 0)


def figureLost(row, noted, runs):
    times = collections.defaultdict(list)
    for board, started, *_ in runs:
        times[board].append(started)
    lost = sum(not any(-0.01 <= one.asked - time < 1 for time in times[one.board]) for one in noted if one.isWhole)
    figure(row, "runs that are lost", "%d of %d" % (lost, len(noted)), "0", lost == 0)
