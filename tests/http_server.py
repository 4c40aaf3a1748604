#!/usr/bin/env python3
"""HTTP/1.1 server of the HTTP client tests on 127.0.0.1; prints its port.
One exchange per connection; what a path does is in the table below;
anything else gets 200 and the request as received, Host line left out."""
import re, socketserver

hits = {}


def response(code, body=b"", extra=""):
    return b"HTTP/1.1 %d X\r\nContent-Length: %d\r\n%s\r\n" % (code, len(body), extra.encode()) + body


class Handler(socketserver.BaseRequestHandler):
    def read(self, data=b""):
        while b"\r\n\r\n" not in data and data[:1] != b"\x16":  # \x16: a TLS hello
            data += self.request.recv(65536) or b"\r\n\r\n"
        length = re.search(rb"\r\ncontent-length: *(\d+)", data, re.I)
        while length and len(data.partition(b"\r\n\r\n")[2]) < int(length.group(1)):
            data += self.request.recv(1 << 20) or b"\0" * int(length.group(1))  # closed: stop
        return re.sub(rb"\r\nHost: [^\r]*", b"", data, 1)

    def handle(self):
        raw = self.read()
        target = "/garbage" if raw[:1] == b"\x16" else raw.split(b" ")[1].decode()
        path, _, query = target.partition("?")
        hits[path] = hits.get(path, 0) + 1
        what, n = (path.split("/") + ["", "0"])[1:3]
        code = int(query[5:] or 302) if what == "redirect" else 302
        answer = {
            "hits": lambda: response(200, b"%d" % hits.get("/" + path[6:], 0)),
            "status": lambda: response(int(n), b"status " + n.encode()),
            "redirect": lambda: response(code, extra="Location: /redirect/%d?code=%d\r\n" % (int(n) - 1, code))
            if int(n) else response(200, raw),
            "nolocation": lambda: response(302),
            "badlocation": lambda: response(302, extra="Location: ftp://127.0.0.1/f\r\n"),
            "drop": lambda: b"" if hits[path] <= int(n) else response(200, b"attempt %d" % hits[path]),
            "hang": lambda: b"",
            "stall": lambda: b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789",
            "garbage": lambda: b"this is not http\r\n\r\n",
        }.get(what.replace("cut", "stall"), lambda: response(200, raw))()
        self.request.sendall(answer)
        if what in ("hang", "stall"):
            while self.request.recv(65536):  # until the client goes away
                pass


server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
server.daemon_threads = True
print(server.server_address[1], flush=True)
server.serve_forever()
