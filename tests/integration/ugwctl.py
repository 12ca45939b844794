"""ugwctl run beside a card's gateway: in the card's IPC namespace, with its working directory named by --dir."""

import os
import subprocess


class Ugwctl:
    """ugwctl for a card: `run("tree")` gives the finished process, `read("tree")` its output, which has to come with
    status 0 and nothing on stderr; `argv` is for who starts it otherwise."""

    def __init__(self, card):
        self.card = card
        self.program = os.path.join(card.build, "ugwctl")
        assert os.path.exists(self.program), "no ugwctl in %s: build first" % card.build

    def argv(self, *arguments):
        """The command line."""
        enter = ["nsenter", "-t", str(self.card.sandbox.pid), "-i"]
        if os.geteuid() != 0:
            enter += ["-U", "--preserve-credentials"]
        return enter + [self.program, "--dir", self.card.sandbox.cwd] + [str(a) for a in arguments]

    def run(self, *arguments, timeout=30, **environment):
        """Runs it without a terminal."""
        return subprocess.run(self.argv(*arguments), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=timeout, env=dict(os.environ, **environment))

    def start(self, *arguments):
        """Starts it; the caller waits for it."""
        return subprocess.Popen(self.argv(*arguments), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    def read(self, *arguments):
        """What it prints."""
        done = self.run(*arguments)
        assert (done.returncode, done.stderr) == (0, "")
        return done.stdout
