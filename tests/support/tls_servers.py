#!/usr/bin/env python3
"""Loopback HTTP and HTTPS servers on the Linux side, for the Windows programs under Wine.

The Windows build has no TLS server of its own (cpp-httplib's needs OpenSSL), so the Windows test
script starts these before the suites and zoth.exe and stops them after. Made in DIR:
  ca.pem, other-ca.pem   a CA of the run's own and one that signed nothing here
  trusted/               a folder that holds ca.pem (hashed by `openssl rehash`)
and served on ephemeral ports of 127.0.0.1:
  good        signed by ca.pem for 127.0.0.1 and localhost
  other_host  signed by ca.pem for other.example only
  self_signed signed by itself for 127.0.0.1 and localhost
  plain       plain HTTP
Every answer carries a Content-Length (Wine's TLS does not see the end of a body that ends with the
connection). GET, PUT and POST answer "path:body", where an uploaded part named "file" stands for the
body; /big/N answers N bytes, /slow/S a body of S seconds; a path that starts with /close ends its connection.
DIR/fixture.txt lists the ports and the files as key=value lines (files as Wine sees them, on Z:),
and is written last: its presence means every server listens. Runs until killed.

usage: tls_servers.py DIR
"""
import http.server
import os
import ssl
import subprocess
import sys
import threading
import time

EXTENSIONS = """[req]
distinguished_name = dn
prompt = no
[dn]
[ca]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[loopback]
basicConstraints = critical,CA:FALSE
subjectAltName = IP:127.0.0.1,DNS:localhost
[other_host]
basicConstraints = critical,CA:FALSE
subjectAltName = DNS:other.example
"""


def make_certificate(folder, name, cn, extensions, issuer=None):
    """A P-256 key and certificate NAME.pem/NAME.key, signed by ISSUER (a name) or by itself."""
    config = os.path.join(folder, "openssl.cnf")
    with open(config, "w") as f:
        f.write(EXTENSIONS)
    cert, key = os.path.join(folder, name + ".pem"), os.path.join(folder, name + ".key")
    command = ["openssl", "req", "-x509", "-config", config, "-extensions", extensions, "-newkey", "ec",
               "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj", "/CN=" + cn,
               "-keyout", key, "-out", cert]
    if issuer:
        command += ["-CA", os.path.join(folder, issuer + ".pem"), "-CAkey", os.path.join(folder, issuer + ".key")]
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return cert, key


def uploaded_file(body, content_type):
    """The content of the multipart part named "file", or None."""
    if "boundary=" not in content_type:
        return None
    boundary = b"--" + content_type.split("boundary=", 1)[1].strip('"').encode()
    for part in body.split(boundary):
        head, _, content = part.partition(b"\r\n\r\n")
        if b'name="file"' in head:
            return content[:-2] if content.endswith(b"\r\n") else content
    return None


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def answer(self):
        length = int(self.headers.get("Content-Length") or 0)
        body = self.rfile.read(length) if length else b""
        if self.path.startswith("/slow/"):  # 64 KiB every 50 ms for the given seconds
            pieces = int(self.path[6:]) * 20
            self.send_response(200)
            self.send_header("Content-Length", str(pieces << 16))
            self.end_headers()
            for _ in range(pieces):
                self.wfile.write(b"s" * (1 << 16))
                time.sleep(0.05)
            return
        if self.path.startswith("/big/"):
            size = int(self.path[5:])
            data = bytes(((i * 131 + i // 7) & 0xFF) for i in range(min(size, 1 << 16))) * (size // (1 << 16) + 1)
            data = data[:size]
        else:
            part = uploaded_file(body, self.headers.get("Content-Type", ""))
            data = self.path.encode() + b":" + (part if part is not None else body)
        self.send_response(200)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(data)))
        if self.path.startswith("/close"):
            self.send_header("Connection", "close")
            self.close_connection = True
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(data)

    do_GET = do_POST = do_PUT = do_HEAD = answer


def serve(cert=None, key=None):
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    if cert:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(cert, key)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server.server_address[1]


def wine_path(path):
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def main():
    folder = sys.argv[1]
    os.makedirs(os.path.join(folder, "trusted"), exist_ok=True)
    make_certificate(folder, "ca", "ZOTH test CA", "ca")
    make_certificate(folder, "other-ca", "ZOTH other CA", "ca")
    good = make_certificate(folder, "good", "localhost", "loopback", "ca")
    other = make_certificate(folder, "other", "other.example", "other_host", "ca")
    self_signed = make_certificate(folder, "self", "localhost", "loopback")
    with open(os.path.join(folder, "ca.pem"), "rb") as src, open(os.path.join(folder, "trusted", "ca.pem"), "wb") as dst:
        dst.write(src.read())
    subprocess.run(["openssl", "rehash", os.path.join(folder, "trusted")], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    ports = {"good": serve(*good), "other_host": serve(*other), "self_signed": serve(*self_signed),
             "plain": serve()}
    lines = ["%s=%d" % item for item in ports.items()]
    lines += ["ca=" + wine_path(os.path.join(folder, "ca.pem")),
              "other_ca=" + wine_path(os.path.join(folder, "other-ca.pem")),
              "ca_folder=" + wine_path(os.path.join(folder, "trusted"))]
    with open(os.path.join(folder, "fixture.tmp"), "w") as f:
        f.write("\n".join(lines) + "\n")
    os.rename(os.path.join(folder, "fixture.tmp"), os.path.join(folder, "fixture.txt"))
    threading.Event().wait()


if __name__ == "__main__":
    main()
