"""One thread that runs timers and file descriptors for the buses and the simulated nodes.

Everything that happens on a wire happens in this thread, so nothing of it needs a lock; other threads reach in with
`invoke`.
"""

import heapq
import itertools
import os
import select
import threading
import time
import traceback

# Seconds of a turn at most, where something is to be called in each.
TURN = 0.001


class Timer:
    """Handle of a pending call; cancel() makes it never run."""

    __slots__ = ("fn",)

    def __init__(self, fn):
        self.fn = fn

    def cancel(self):
        self.fn = None


class Loop:
    """Runs until stop(). Times are those of time.monotonic()."""

    def __init__(self):
        self._timers = []
        self._order = itertools.count()
        self._readers = {}
        self._calls = []
        self._lock = threading.Lock()
        self._wake_r, self._wake_w = os.pipe()
        os.set_blocking(self._wake_r, False)
        os.set_blocking(self._wake_w, False)
        self._stopping = False
        self._tick = None
        self.errors = []
        self._thread = threading.Thread(target=self._run, name="sim-loop", daemon=True)
        self._thread.start()

    # For the loop's own thread.

    def call_at(self, when, fn):
        """Runs fn in the loop's thread at a time; returns a Timer."""
        timer = Timer(fn)
        heapq.heappush(self._timers, (when, next(self._order), timer))
        return timer

    def call_later(self, delay, fn):
        """Runs fn in the loop's thread after a delay in seconds; returns a Timer."""
        return self.call_at(time.monotonic() + delay, fn)

    def add_reader(self, fd, fn):
        """Calls fn whenever the descriptor is readable."""
        self._readers[fd] = fn

    def remove_reader(self, fd):
        """Forgets the descriptor."""
        self._readers.pop(fd, None)

    # For any thread.

    def invoke(self, fn, *args, **kwargs):
        """Runs fn in the loop's thread and returns its result, or raises what it raised."""
        if threading.current_thread() is self._thread:
            return fn(*args, **kwargs)
        done = threading.Event()
        outcome = []

        def call():
            try:
                outcome.append((fn(*args, **kwargs), None))
            except BaseException as error:
                outcome.append((None, error))
            done.set()

        self.post(call)
        while not done.wait(1.0):
            if not self._thread.is_alive():
                raise RuntimeError("the loop has ended")
        value, error = outcome[0]
        if error is not None:
            raise error
        return value

    def post(self, fn):
        """Runs fn in the loop's thread soon, without waiting."""
        with self._lock:
            self._calls.append(fn)
        try:
            os.write(self._wake_w, b"x")
        except BlockingIOError:
            pass

    def keep_calling(self, fn):
        """Calls fn in each turn from now on, at least once in TURN seconds."""
        self.invoke(setattr, self, "_tick", fn)

    def stop(self):
        """Ends the thread. Pending timers never run."""
        self._stopping = True
        self.post(lambda: None)
        if threading.current_thread() is not self._thread:
            self._thread.join(5.0)
            os.close(self._wake_r)
            os.close(self._wake_w)

    def _run(self):
        while not self._stopping:
            timeout = None
            if self._timers:
                timeout = max(0.0, self._timers[0][0] - time.monotonic())
            if self._tick is not None:
                self._tick()
                timeout = TURN if timeout is None else min(timeout, TURN)
            ready, _, _ = select.select([self._wake_r, *self._readers], [], [], timeout)
            for fd in ready:
                if fd == self._wake_r:
                    self._drain_calls()
                elif fd in self._readers:
                    self._guard(self._readers[fd])
            now = time.monotonic()
            while self._timers and self._timers[0][0] <= now:
                _, _, timer = heapq.heappop(self._timers)
                if timer.fn is not None:
                    self._guard(timer.fn)

    def _drain_calls(self):
        try:
            os.read(self._wake_r, 4096)
        except BlockingIOError:
            pass
        with self._lock:
            calls, self._calls = self._calls, []
        for call in calls:
            self._guard(call)

    def _guard(self, fn):
        """A fault in one simulated node is kept for the owner and must not end the loop."""
        try:
            fn()
        except Exception:
            self.errors.append(traceback.format_exc())
