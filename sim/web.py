"""Serves the page of web/ beside a status file, as a small web server of the card would.

    with Page(file_source(path), port=8080) as page:
        print(page.address)

Nobody but this machine can see it unless `host` says so.
"""

import contextlib
import os
import threading
import time
from http.server import SimpleHTTPRequestHandler, ThreadingHTTPServer

FOLDER = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "web")
DOCUMENT = "/vu.json"
DEFAULT_PORT = 8080


def file_source(path):
    """A source for Page: bytes and time of change of the file as it is at each call, or None while there is none."""
    def read():
        try:
            with open(path, "rb") as file:
                return file.read(), os.fstat(file.fileno()).st_mtime
        except FileNotFoundError:
            return None
    return read


class Handler(SimpleHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    timeout = 30
    # An answer goes out in one piece: in two, the second would wait for the first to be acknowledged.
    wbufsize = 64 * 1024

    def __init__(self, *args, **options):
        super().__init__(*args, directory=FOLDER, **options)

    def do_GET(self):
        if self.path.partition("?")[0] != DOCUMENT:
            super().do_GET()
            return
        found = self.server.source()
        if found is None:
            self.send_error(404)
            return
        raw, changed = found
        self.send_response(200)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(raw)))
        if changed is not None:
            self.send_header("Last-Modified", self.date_time_string(changed))
        self.send_header("Cache-Control", "no-store")
        self.end_headers()
        self.wfile.write(raw)

    def date_time_string(self, timestamp=None):
        return super().date_time_string(self.server.now() if timestamp is None else timestamp)

    def log_message(self, *_):
        pass


class Page(ThreadingHTTPServer):
    """See above. source: gives the document and its time of change, or None; port 0 takes any that is free; now: the
    clock behind the Date header."""

    handler = Handler

    def __init__(self, source, port=DEFAULT_PORT, host="127.0.0.1", now=time.time):
        self.source = source
        self.now = now
        try:
            super().__init__((host, port), self.handler)
        except OSError as error:
            raise OSError("cannot serve the page at %s:%d: %s" % (host, port, error.strerror)) from error
        self._thread = threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True)
        self._thread.start()

    @property
    def address(self):
        """Where the page is."""
        return "http://%s:%d/" % self.server_address[:2]

    def handle_error(self, request, client_address):
        """A browser that goes away in the middle is nothing to tell."""

    def close(self):
        self.shutdown()
        self._thread.join()
        self.server_close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


@contextlib.contextmanager
def served(scene, options, out):
    """Serves the page beside the status file of the card that the options name, and prints its address; gives a line
    with the address for the picture, an empty one if no page is wanted."""
    if not options.web:
        yield ""
        return
    source = file_source(scene.gateways[options.web].status_file.path)
    with Page(source, options.port, options.host) as page:
        line = "page of card %s: %s" % (options.web, page.address)
        out.write(line + "\n")
        out.flush()
        yield line
