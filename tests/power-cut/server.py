# SPDX-License-Identifier: Apache-2.0
"""A web server on this machine alone, which can go on with a part of a file."""

import hashlib
import http.server
import os
import re
import threading


class Handler(http.server.BaseHTTPRequestHandler):
    directory = None

    def do_GET(self):
        try:
            with open(os.path.join(self.directory, os.path.basename(self.path)), "rb") as file:
                content = file.read()
        except OSError:
            self.send_error(404)
            return
        mark = f'"{hashlib.sha256(content).hexdigest()}"'
        wanted = re.fullmatch(r"bytes=(\d+)-", self.headers.get("Range", ""))
        first = int(wanted[1]) if wanted and self.headers.get("If-Range") == mark else 0
        self.send_response(206 if first else 200)
        self.send_header("ETag", mark)
        self.send_header("Content-Length", str(len(content) - first))
        if first:
            self.send_header("Content-Range", f"bytes {first}-{len(content) - 1}/{len(content)}")
        self.end_headers()
        self.wfile.write(content[first:])

    def log_message(self, *_):
        pass


class Server:
    def __init__(self, directory):
        handler = type("Files", (Handler,), {"directory": directory})
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        self.url = f"http://127.0.0.1:{self.server.server_port}/"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def close(self):
        self.server.shutdown()
        self.server.server_close()
