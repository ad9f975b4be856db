#!/usr/bin/env python3
"""An HTTPS echo service built from Python's own http.server and ssl modules.

usage: python_tls_server.py CERT_FILE KEY_FILE

Prints its port, then serves on 127.0.0.1 and ::1 (the same port) until its
standard input closes. Like many small servers it ends every connection with
a plain TCP close, never a TLS close_notify. The body is the client's address
and a line break; the path chooses how the answer is framed:
  /length    Content-Length
  /chunked   chunked, with the last chunk
  /short     Content-Length one more than the body holds
  /cut       chunked, without the last chunk
  /unframed  neither
"""
import http.server
import socket
import ssl
import sys
import threading


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        body = self.client_address[0].encode() + b"\n"
        framing = {
            "/length": ("Content-Length", str(len(body)), body),
            "/short": ("Content-Length", str(len(body) + 1), body),
            "/chunked": ("Transfer-Encoding", "chunked", b"%x\r\n%s\r\n0\r\n\r\n" % (len(body), body)),
            "/cut": ("Transfer-Encoding", "chunked", b"%x\r\n%s\r\n" % (len(body), body)),
            "/unframed": (None, None, body),
        }.get(self.path)
        if framing is None:
            self.send_error(404)
            return
        header, value, payload = framing
        self.send_response(200)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Connection", "close")
        if header:
            self.send_header(header, value)
        self.end_headers()
        self.wfile.write(payload)
        self.close_connection = True

    def log_message(self, *args):
        pass


class Server(http.server.ThreadingHTTPServer):
    def __init__(self, family, address, context):
        self.address_family = family
        super().__init__(address, Handler, bind_and_activate=False)
        if family == socket.AF_INET6:
            self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
        self.server_bind()
        self.server_activate()
        self.socket = context.wrap_socket(self.socket, server_side=True)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[1], sys.argv[2])
    v6 = Server(socket.AF_INET6, ("::1", 0), context)
    v4 = Server(socket.AF_INET, ("127.0.0.1", v6.server_address[1]), context)
    for server in (v4, v6):
        threading.Thread(target=server.serve_forever, daemon=True).start()
    print(v6.server_address[1], flush=True)
    sys.stdin.read()


if __name__ == "__main__":
    main()
