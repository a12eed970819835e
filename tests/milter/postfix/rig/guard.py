"""Cleans up after a rig that was killed: run as a program, it waits until its standard input ends, and then ends the sessions and
removes the folders that it was told about and that nobody took back."""

import os
import shutil
import signal
import subprocess
import sys
import time


class Guard:
    def __init__(self):
        self.process = subprocess.Popen([sys.executable, "-B", __file__], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, start_new_session=True)

    def tell(self, word, what):
        self.process.stdin.write(f"{word} {what}\n".encode())
        self.process.stdin.flush()

    def session(self, process):
        self.tell("session", process.pid)

    def session_ended(self, process):
        self.tell("ended", process.pid)

    def folder(self, path):
        self.tell("folder", path)

    def mount(self, path):
        self.tell("mount", path)

    def close(self):
        """What is left of what it was told about goes now."""
        self.process.stdin.close()
        self.process.wait()


def main():
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    sessions, folders, mounts = [], [], []
    for line in sys.stdin:
        word, _, what = line.rstrip("\n").partition(" ")
        if word == "session":
            sessions.append(int(what))
        elif word == "ended":
            sessions.remove(int(what))
        elif word == "mount":
            mounts.append(what)
        else:
            folders.append(what)
    for number in (signal.SIGTERM, signal.SIGKILL):
        for session in sessions:
            try:
                os.killpg(session, number)
            except ProcessLookupError:
                pass
        if sessions and number == signal.SIGTERM:
            time.sleep(1)
    for mount in mounts:
        if os.path.ismount(mount):
            subprocess.run(["umount", "-l", mount])
    for folder in folders:
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
