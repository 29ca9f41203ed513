#!/usr/bin/env python3
"""A telemetry endpoint for the ping tests.

Listens on 127.0.0.1 on a port of the system's choosing, prints that port on the first line of its
standard output, and appends one JSON line per POST to the records file: the path, the headers (in
order, as pairs) and the body. The record is written before the answer, so a client that has its
answer finds its request on file. Paths:
  /redirect  answers 307 to /sink (a POST follows a 307 with its body)
  /error     answers 500
  anything else answers 200
With --cert and --key it speaks HTTPS.
"""
import argparse
import http.server
import json
import ssl
import sys


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--records", required=True)
    parser.add_argument("--cert")
    parser.add_argument("--key")
    args = parser.parse_args()

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"  # keeps the connection open, as the client reuses it

        def do_POST(self):
            length = int(self.headers.get("Content-Length", "0"))
            body = self.rfile.read(length).decode("utf-8")
            record = {"path": self.path, "headers": list(self.headers.items()), "body": body}
            with open(args.records, "a", encoding="utf-8") as out:
                out.write(json.dumps(record) + "\n")
            if self.path == "/redirect":
                self.answer(307, b"", location="/sink")
            elif self.path == "/error":
                self.answer(500, b"failed")
            else:
                self.answer(200, b'{"status":"ok"}')

        def answer(self, status, payload, location=None):
            self.send_response(status)
            if location:
                self.send_header("Location", location)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(payload)))
            self.end_headers()
            self.wfile.write(payload)

        def log_message(self, *unused):
            pass

    server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
    if args.cert:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args.cert, args.key)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    print(server.server_address[1], flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    sys.exit(0)


if __name__ == "__main__":
    main()
