"""An SMTP proxy that keeps every message that passes, with its envelope, and changes one when it is asked to."""

import re
import socket
import threading


class Passed:
    """A message as it went over the wire, lines ending in CRLF, dots unstuffed."""

    def __init__(self, sender, recipients, data, commands):
        self.sender = sender
        self.recipients = recipients
        self.data = data
        self.commands = commands  # MAIL and those RCPT that were taken, as they came
        self.reply = b""


class Tap:
    def __init__(self, target):
        self.target = target
        self.passed = []
        self.change = None  # a function of a Passed that answers other data
        self.hide = {b"PIPELINING", b"CHUNKING", b"STARTTLS"}  # so that a command has one answer, and DATA is the one way
        self.lock = threading.Lock()
        self.listening = socket.create_server(("127.0.0.1", 0), backlog=100)
        self.port = self.listening.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                connection, _ = self.listening.accept()
            except OSError:
                return
            threading.Thread(target=self.converse, args=(connection,), daemon=True).start()

    def converse(self, connection):
        try:
            with connection, socket.create_connection(("127.0.0.1", self.target)) as onward:
                client, server = connection.makefile("rwb"), onward.makefile("rwb")
                self.relay(client, server)
        except OSError:
            pass  # one of both went away, which the other sees from the closed connection

    def relay(self, client, server):
        self.answer(client, server)
        sender, recipients, commands = b"", [], []
        for line in iter(client.readline, b""):
            verb = line[:4].upper()
            server.write(line)
            server.flush()
            reply = self.answer(client, server, ehlo=verb == b"EHLO")
            if reply.startswith(b"2"):
                if verb == b"MAIL":
                    sender, recipients, commands = self.path(line), [], [line.decode().strip()]
                elif verb == b"RCPT":
                    recipients.append(self.path(line))
                    commands.append(line.decode().strip())
            if verb == b"DATA" and reply.startswith(b"354"):
                self.body(client, server, Passed(sender.decode(), [r.decode() for r in recipients], b"", commands))

    @staticmethod
    def path(line):
        return line[line.index(b"<") + 1:line.index(b">")]

    def answer(self, client, server, ehlo=False):
        lines = []
        while True:
            line = server.readline()
            if not line:
                raise OSError("the server went away")
            lines.append(line)
            if line[3:4] != b"-":
                break
        if ehlo:
            kept = [line for line in lines if line[4:].split(None, 1)[:1] and line[4:].split()[0] not in self.hide]
            lines = [line[:3] + b"-" + line[4:] for line in kept[:-1]] + [kept[-1][:3] + b" " + kept[-1][4:]]
        client.write(b"".join(lines))
        client.flush()
        return lines[-1]

    def body(self, client, server, passed):
        # The client waits for an answer behind the final dot, so that nothing comes after it.
        raw = bytearray()
        while not raw.endswith(b"\r\n.\r\n") and raw != b".\r\n":
            piece = client.read1(1 << 16)
            if not piece:
                return
            raw += piece
        passed.data = re.sub(rb"(?m)^\.", b"", bytes(raw[:-3]))
        if self.change:
            passed.data = self.change(passed)
            raw = re.sub(rb"(?m)^\.", b"..", passed.data) + b".\r\n"
        server.write(raw)
        server.flush()
        # Kept before the client hears of it: whoever waits for the end of the delivery finds it here.
        with self.lock:
            self.passed.append(passed)
        passed.reply = self.answer(client, server)

    def messages(self):
        with self.lock:
            return list(self.passed)

    def clear(self):
        with self.lock:
            self.passed.clear()

    def stop(self):
        self.listening.close()
