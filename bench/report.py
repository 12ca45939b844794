"""How the benchmarks print what they measured."""


def say(name, measured, goal, met):
    """A line: what was measured, its goal, and whether that was met."""
    print("  %-58s %-26s goal %-18s %s" % (name, measured, goal, "met" if met else "MISSED"))


def percentile(values, percent):
    return sorted(values)[min(len(values) - 1, int(len(values) * percent / 100))]
