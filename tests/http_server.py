#!/usr/bin/env python3
"""HTTP/1.1 server of the HTTP client tests on 127.0.0.1, one exchange per connection; prints its port.
With a directory argument it also serves TLS (see tls_listeners) on more ports, printed on that line."""
import base64, hashlib, re, socketserver, ssl, subprocess, sys, threading

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
        if self.server.tls:
            tls = "/tls/%d" % self.server.server_address[1]  # its connections, under /hits/tls/PORT
            hits[tls] = hits.get(tls, 0) + 1
            try:
                self.request = self.server.tls.wrap_socket(self.request, server_side=True)
            except (ssl.SSLError, OSError):  # the client refused us or we refused it
                return
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
            "downgrade": lambda: response(302, extra="Location: http://127.0.0.1/\r\n"),
            "drop": lambda: b"" if hits[path] <= int(n) else response(200, b"attempt %d" % hits[path]),
            "hang": lambda: b"",
            "stall": lambda: b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789",
            "garbage": lambda: b"this is not http\r\n\r\n",
        }.get(what.replace("cut", "stall"), lambda: response(200, raw))()
        self.request.sendall(answer)
        if what in ("hang", "stall"):
            while self.request.recv(65536):  # until the client goes away
                pass


def tls_listeners(d):
    """Makes in d CAs ca, other, clientca; certificates good, unknown, wronghost, expired, device (a
    client's); pin (good's). Returns a context per server certificate, then good requiring a client's."""
    def openssl(*args):
        subprocess.run(("openssl",) + args, cwd=d, check=True, capture_output=True)
    key = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj")
    open(d + "/ca.cnf", "w").write("[ca]\ndefault_ca=d\n[d]\ndatabase=index\nnew_certs_dir=.\nrand_serial=yes\n"
        "default_md=sha256\npolicy=p\ncopy_extensions=copy\nunique_subject=no\n[p]\ncommonName=supplied\n")
    open(d + "/index", "w").close()
    for ca in ("ca", "other", "clientca"):
        openssl("req", "-x509", *key, "/CN=" + ca, "-keyout", ca + ".key", "-out", ca + ".pem", "-days", "2")
    for name, ca, host in (("good", "ca", "IP:127.0.0.1,DNS:localhost"), ("unknown", "other", "IP:127.0.0.1"),
                           ("wronghost", "ca", "DNS:other.invalid"), ("expired", "ca", "IP:127.0.0.1"),
                           ("device", "clientca", "DNS:device")):
        dates = ("-startdate", "20200101000000Z", "-enddate", "20200102000000Z") if name == "expired" else ("-days", "2")
        openssl("req", "-new", *key, "/CN=" + name, "-keyout", name + ".key", "-out", name + ".csr",
                "-addext", "subjectAltName=" + host)
        openssl("ca", "-batch", "-config", "ca.cnf", "-cert", ca + ".pem", "-keyfile", ca + ".key",
                "-in", name + ".csr", "-out", name + ".pem", "-notext", *dates)
    der = subprocess.run(("openssl", "pkey", "-in", d + "/good.key", "-pubout", "-outform", "DER"),
                         check=True, capture_output=True).stdout
    open(d + "/pin", "w").write("sha256//" + base64.b64encode(hashlib.sha256(der).digest()).decode())
    contexts = [ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER) for _ in range(5)]
    for c, name in zip(contexts, ("good", "unknown", "wronghost", "expired", "good")):
        c.load_cert_chain(d + "/%s.pem" % name, d + "/%s.key" % name)
    contexts[-1].verify_mode = ssl.CERT_REQUIRED
    contexts[-1].load_verify_locations(d + "/clientca.pem")
    return contexts


servers = []
for tls in [None] + (tls_listeners(sys.argv[1]) if len(sys.argv) > 1 else []):
    servers.append(socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler))
    servers[-1].daemon_threads, servers[-1].tls = True, tls
    threading.Thread(target=servers[-1].serve_forever, daemon=True).start()
print(" ".join(str(s.server_address[1]) for s in servers), flush=True)
threading.Event().wait()
