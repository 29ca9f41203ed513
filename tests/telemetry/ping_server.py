#!/usr/bin/env python3
"""A telemetry endpoint for the ping tests, on 127.0.0.1 at a port of the system's choosing.

Prints its port and process id on its first line, and appends one JSON line per POST to the records
file (path, headers as pairs, body) before answering, so a client that has its answer finds its
request on file. /redirect answers 307 to /sink, /error answers 500, anything else 200. With --cert
and --key it speaks HTTPS.
"""
import argparse
import http.server
import json
import os
import ssl

parser = argparse.ArgumentParser()
parser.add_argument("--records", required=True)
parser.add_argument("--cert")
parser.add_argument("--key")
args = parser.parse_args()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # keeps the connection open, as the client reuses it

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0"))).decode("utf-8")
        with open(args.records, "a", encoding="utf-8") as out:
            record = {"path": self.path, "headers": list(self.headers.items()), "body": body}
            out.write(json.dumps(record) + "\n")
        status = {"/redirect": 307, "/error": 500}.get(self.path, 200)
        self.send_response(status)
        if status == 307:
            self.send_header("Location", "/sink")
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *unused):
        pass


server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
if args.cert:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(args.cert, args.key)
    server.socket = context.wrap_socket(server.socket, server_side=True)
print(server.server_address[1], os.getpid(), flush=True)
server.serve_forever()
