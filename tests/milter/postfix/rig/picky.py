"""A milter of others, beside ours: it refuses recipients."""

import socket
import struct
import threading


class Picky:
    """Refuses those in whose address `word` stands, and has nothing against anything else."""

    # Nothing but the recipients is wanted.
    STEPS = 0x377

    def __init__(self, word):
        self.word = word.encode()
        self.listening = socket.create_server(("127.0.0.1", 0))
        self.address = f"inet:127.0.0.1:{self.listening.getsockname()[1]}"
        threading.Thread(target=self.run, daemon=True).start()

    def run(self):
        while True:
            try:
                client, _ = self.listening.accept()
            except OSError:
                return
            threading.Thread(target=self.talk, args=(client,), daemon=True).start()

    def talk(self, client):
        with client, client.makefile("rwb") as stream:
            while head := stream.read(4):
                packet = stream.read(struct.unpack("!I", head)[0])
                answer = self.answer(packet[:1], packet[1:])
                if answer is None:
                    return
                if answer:
                    stream.write(struct.pack("!I", len(answer)) + answer)
                    stream.flush()

    def answer(self, command, data):
        if command == b"O":
            return b"O" + struct.pack("!III", 6, 0, self.STEPS)
        if command == b"R" and self.word in data.split(b"\0")[0]:
            return b"y550 5.1.1 not here\0"
        if command == b"Q":
            return None
        return b"" if command in b"DAK" else b"c"

    def stop(self):
        self.listening.close()
