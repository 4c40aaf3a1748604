#!/usr/bin/env python3
"""Recording HTTP/1.1 server for the HTTP client tests.

Usage: http_server.py [port]   (0 or none: any free port)
Listens on 127.0.0.1 and prints the port on the first line of stdout.
Every answer closes the connection. Paths:

  /status/NNN          status NNN, body "status NNN"
  /empty               200 with an empty body
  /redirect/N?code=C   C (302 when not given) to /redirect/N-1?code=C; at 0 echo
  /nolocation         302 without a Location header
  /badlocation        302 to an ftp:// URL
  /drop/N/<key>        the first N requests for this path are closed
                       unanswered, later ones get "attempt <k>"
  /hits/<path>         how many requests for /<path> arrived
  /hang                reads the request and never answers
  /stall               sends the head and 10 of 100 body bytes, then stalls
  /cut                 sends the head and 10 of 100 body bytes, then closes
  /garbage             answers with a line that is not HTTP, then closes
  a TLS handshake      a plain-text 400, then the connection closes
  anything else        200, body: the raw request as received
"""
import re
import socket
import socketserver
import sys
import threading

hits = {}
hits_lock = threading.Lock()


def read_request(sock):
    """The raw request bytes (head and Content-Length body), or None."""
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = sock.recv(65536)
        if not chunk:
            return None
        data += chunk
        if data.startswith(b"\x16"):  # a TLS handshake
            return data
    head, _, body = data.partition(b"\r\n\r\n")
    m = re.search(rb"\r\ncontent-length:[ \t]*(\d+)", head, re.I)
    length = int(m.group(1)) if m else 0
    while len(body) < length:
        chunk = sock.recv(65536)
        if not chunk:
            break
        body += chunk
    return head + b"\r\n\r\n" + body


def response(code, body=b"", extra=b""):
    return (b"HTTP/1.1 %d X\r\nContent-Length: %d\r\nConnection: close\r\n%s\r\n"
            % (code, len(body), extra) + body)


def wait_for_close(sock):
    """Blocks until the client goes away."""
    try:
        while sock.recv(65536):
            pass
    except OSError:
        pass


class Handler(socketserver.BaseRequestHandler):
    def handle(self):
        sock = self.request
        raw = read_request(sock)
        if raw is None:
            return
        if raw.startswith(b"\x16"):
            sock.sendall(b"HTTP/1.1 400 Not TLS\r\n\r\n")
            return
        target = raw.split(b" ", 2)[1].decode("latin-1")
        path, _, query = target.partition("?")
        with hits_lock:
            count = hits[path] = hits.get(path, 0) + 1
        answer = self.answer(sock, path, query, count, raw)
        if answer is not None:
            sock.sendall(answer)

    def answer(self, sock, path, query, count, raw):
        parts = path.split("/")
        if path.startswith("/status/"):
            code = int(parts[2])
            return response(code, b"status %d" % code)
        if path == "/empty":
            return response(200)
        if path.startswith("/redirect/"):
            left = int(parts[2])
            code = int(query[5:]) if query.startswith("code=") else 302
            if left == 0:
                return response(200, raw)
            where = "/redirect/%d?code=%d" % (left - 1, code)
            return response(code, extra=b"Location: %s\r\n" % where.encode())
        if path == "/nolocation":
            return response(302)
        if path == "/badlocation":
            return response(302, extra=b"Location: ftp://127.0.0.1/file\r\n")
        if path.startswith("/drop/"):
            if count <= int(parts[2]):
                return None
            return response(200, b"attempt %d" % count)
        if path.startswith("/hits/"):
            with hits_lock:
                return response(200, b"%d" % hits.get(path[5:], 0))
        if path == "/hang":
            wait_for_close(sock)
            return None
        if path in ("/stall", "/cut"):
            sock.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789")
            if path == "/stall":
                wait_for_close(sock)
            return None
        if path == "/garbage":
            return b"this is not http\r\n\r\n"
        return response(200, raw)


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True
    request_queue_size = 64


def main():
    port = int(sys.argv[1]) if len(sys.argv) > 1 else 0
    with Server(("127.0.0.1", port), Handler) as server:
        print(server.server_address[1], flush=True)
        server.serve_forever()


if __name__ == "__main__":
    main()
