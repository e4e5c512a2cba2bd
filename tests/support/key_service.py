"""A key service on 127.0.0.1 for the download tests.

Serves the files of the folder given as its argument (the request log goes to standard error) and
answers any path that begins with /trickle with a key that never ends: one byte every half second,
as a hostile or broken service might. Prints "Serving HTTP on 127.0.0.1 port N" once it listens.
"""
import functools
import http.server
import sys
import time


class Handler(http.server.SimpleHTTPRequestHandler):
    def do_GET(self):
        if not self.path.startswith("/trickle"):
            super().do_GET()
            return
        self.send_response(200)
        self.send_header("Content-Length", "1000000")
        self.end_headers()
        try:
            while True:
                self.wfile.write(b"-")
                self.wfile.flush()
                time.sleep(0.5)
        except OSError:
            pass


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Handler, directory=sys.argv[1]))
print("Serving HTTP on 127.0.0.1 port %d" % server.server_address[1], flush=True)
server.serve_forever()
