"""The demo's web service: keeps the JSON records POSTed to /records and
answers GET /count with how many it holds. Listens on a free port of
127.0.0.1 and writes that port to the file given as its first argument.
With CERT and KEY (PEM files) as further arguments it serves HTTPS.
Usage: web.py PORT-FILE [CERT KEY]"""
import json
import os
import ssl
import sys
from http.server import BaseHTTPRequestHandler, HTTPServer

records = []


class Handler(BaseHTTPRequestHandler):
    def reply(self, status, text):
        body = text.encode()
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_POST(self):
        if self.path != "/records":
            return self.reply(404, "no such path\n")
        length = int(self.headers.get("Content-Length", 0))
        try:
            records.append(json.loads(self.rfile.read(length)))
        except ValueError:
            return self.reply(400, "not JSON\n")
        self.reply(201, "stored\n")

    def do_GET(self):
        if self.path != "/count":
            return self.reply(404, "no such path\n")
        self.reply(200, "%d\n" % len(records))

    def log_message(self, *args):
        pass


server = HTTPServer(("127.0.0.1", 0), Handler)
if len(sys.argv) == 4:
    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.load_cert_chain(sys.argv[2], sys.argv[3])
    server.socket = tls.wrap_socket(server.socket, server_side=True)
with open(sys.argv[1] + ".tmp", "w") as f:
    f.write(str(server.server_port))
os.rename(sys.argv[1] + ".tmp", sys.argv[1])
server.serve_forever()
