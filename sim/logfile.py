"""The daemon's log, as it stands in a file: waited for, searched, taken apart into lines."""

import collections
import re
import time

PREFIX = re.compile(r"^ *(\d+)-> \[(\d\d):(\d\d):(\d\d)\] (\S+) (Err|Dbg|War|) \((~?\w+)\): (.*)$", re.S)

Line = collections.namedtuple("Line", "pid time file level function message text")


def parse_line(text):
    """A Line; one without the ordinary prefix has only `message` and `text`, the others None."""
    match = PREFIX.match(text)
    if not match:
        return Line(None, None, None, None, None, text, text)
    pid, hour, minute, second, file, level, function, message = match.groups()
    return Line(int(pid), (int(hour), int(minute), int(second)), file, level, function, message, text)


class LogFile:
    """A log that another process writes. Positions are byte offsets: take mark() first, search from there."""

    def __init__(self, path):
        self.path = path

    def mark(self):
        """The present end of the log."""
        return len(self._raw(0))

    def _raw(self, since):
        try:
            with open(self.path, "rb") as file:
                file.seek(since)
                return file.read()
        except FileNotFoundError:
            return b""

    def text(self, since=0):
        """The log from a mark on; each byte is one character, whatever came off a wire."""
        return self._raw(since).decode("latin-1")

    def lines(self, since=0, level=None, function=None):
        """The whole lines from a mark on, of a level ("Err", "War", "Dbg", "" for plain) and a function if given."""
        lines = [parse_line(text) for text in self.text(since).split("\n")[:-1]]
        return [line for line in lines if (level is None or line.level == level)
                and (function is None or line.function == function)]

    def find(self, pattern, since=0):
        """The first match of a regular expression (or None); ^ and $ are line ends."""
        return re.compile(pattern, re.M).search(self.text(since))

    def count(self, pattern, since=0):
        """How often a regular expression matches."""
        return len(re.findall(pattern, self.text(since), re.M))

    def wait(self, pattern, timeout=5.0, since=0, times=1):
        """Waits until the expression matches `times` times; returns the last match or raises AssertionError with
        the tail of the log."""
        deadline = time.monotonic() + timeout
        compiled = re.compile(pattern, re.M)
        while True:
            matches = list(compiled.finditer(self.text(since)))
            if len(matches) >= times:
                return matches[times - 1]
            if time.monotonic() >= deadline:
                raise AssertionError("no %r in the log within %g s; its end:\n%s"
                                     % (pattern, timeout, self.tail(30, since)))
            time.sleep(0.01)

    def wait_message(self, message, timeout=5.0, since=0, times=1):
        """The same for a literal text anywhere in a line."""
        return self.wait(re.escape(message), timeout, since, times)

    def tail(self, lines=30, since=0):
        """The last lines."""
        return "\n".join(self.text(since).split("\n")[-lines - 1:])
