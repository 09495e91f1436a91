"""Times commands interleaved round by round in one run, and prints the median wall and processor
times of each with their ratios to a peer (below 1: faster than the peer).

    from time_rounds import run
    run({"name": argv, ...}, rounds, peer="name", checked=("qor",), before={"name": fn},
        sums={"a + b": ["a", "b"]})

Each command runs once untimed first (to warm the page cache and the loader). `before[name]`, when
given, runs untimed before each run of that command. A command whose program is in `checked` must
exit with status 0. `sums` adds rows that are the sums of other rows' medians.
"""
import resource
import statistics
import subprocess
import sys
import time


def timed(command, checked):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.perf_counter()
    result = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    wall = time.perf_counter() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if command[0] in checked and result.returncode != 0:
        sys.exit(command[0] + " failed: " + result.stderr.decode(errors="replace")[:500])
    cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
    return wall * 1000, cpu * 1000


def run(commands, rounds, peer, checked=(), before=None, sums=None):
    before = before or {}
    times = {name: [] for name in commands}
    for name, command in commands.items():
        if name in before:
            before[name]()
        timed(command, checked)
    for _ in range(rounds):
        for name, command in commands.items():
            if name in before:
                before[name]()
            times[name].append(timed(command, checked))
    median = {name: (statistics.median(t[0] for t in runs), statistics.median(t[1] for t in runs))
              for name, runs in times.items()}
    for name, parts in (sums or {}).items():
        median[name] = (sum(median[p][0] for p in parts), sum(median[p][1] for p in parts))
    ref = median[peer]
    width = max(28, max(len(name) for name in median) + 1)
    print()
    print(f"{'command (median of ' + str(rounds) + ')':<{width}} {'wall ms':>9} {'cpu ms':>9} "
          f"{'wall ratio':>11} {'cpu ratio':>10}")
    for name, (wall, cpu) in median.items():
        print(f"{name:<{width}} {wall:>9.1f} {cpu:>9.1f} {wall / ref[0]:>11.2f} "
              f"{cpu / ref[1]:>10.2f}")
    return median
