#!/usr/bin/python3
"""tidewell_stand_in.py PORT FILE: answers the daemon's questions about node keys, over HTTPS.

A stand-in for the administration web application, good for trying things and for tests, and for
nothing else: it keeps no nodes, only the keys that the JSON file names:

    {"token": "…", "keys": ["…"], "hang": ["…"], "seconds": 0.02}

"keys" are confirmed, questions about those of "hang" are never answered, and all other keys are not
known. Each answer takes "seconds". The file is read anew for each question. The certificate is made
at the start and thrown away at the end; the daemon does not look at it."""

import asyncio
import json
from pathlib import Path
import ssl
import subprocess
import sys
import tempfile
import urllib.parse

PATH = "/api/v4/nodes/key-verification/"


def throw_away_certificate():
    """A TLS context with a certificate of its own."""
    with tempfile.TemporaryDirectory(prefix="pelorus-certificate-") as folder:
        key, certificate = Path(folder, "key.pem"), Path(folder, "certificate.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
                        "-subj", "/CN=tidewell-stand-in", "-keyout", key, "-out", certificate],
                       check=True, capture_output=True)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, key)
        return context


class StandIn:
    def __init__(self, file):
        self.file = Path(file)

    async def serve(self, reader, writer):
        """One connection, with as many questions as come on it."""
        try:
            while True:
                status, answer = await self.answer(*await self.question(reader))
                body = json.dumps(answer).encode()
                writer.write(f"HTTP/1.1 {status}\r\nContent-Type: application/json\r\n"
                             f"Content-Length: {len(body)}\r\n\r\n".encode() + body)
                await writer.drain()
        except (asyncio.IncompleteReadError, ConnectionError, ssl.SSLError):
            pass  # the daemon has closed it
        finally:
            writer.close()

    async def question(self, reader):
        """Path, headers (lower case) and form of one request."""
        head = (await reader.readuntil(b"\r\n\r\n")).decode("latin-1")
        first, *lines = head.strip().split("\r\n")
        headers = {name.lower(): value.strip()
                   for name, _, value in (line.partition(":") for line in lines)}
        body = await reader.readexactly(int(headers.get("content-length", 0)))
        return first.split(" ")[1], headers, urllib.parse.parse_qs(body.decode("latin-1"))

    async def answer(self, path, headers, form):
        known = json.loads(self.file.read_text())
        key = form.get("key", [""])[0]
        if key in known.get("hang", ()):
            await asyncio.sleep(3600)
        await asyncio.sleep(known.get("seconds", 0))
        if path != PATH:
            return "404 Not Found", {"detail": "no such page"}
        if headers.get("x-authorization") != f"Token {known['token']}":
            return "403 Forbidden", {"detail": "the token is not known"}
        accepted = key in known["keys"]
        print(f"key ending in {key[-4:]}: {'confirmed' if accepted else 'not known'}", flush=True)
        return "200 OK", {"key": key if accepted else None}


async def main(port, file):
    server = await asyncio.start_server(StandIn(file).serve, "127.0.0.1", port,
                                        ssl=throw_away_certificate(), backlog=128)
    print(f"listening on 127.0.0.1:{port}", flush=True)
    await server.serve_forever()


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    try:
        asyncio.run(main(int(sys.argv[1]), sys.argv[2]))
    except KeyboardInterrupt:
        pass
