"""A segment of its own with processes at its channels, and `halvo-mon serve` beside it, for one test.

    with Lab(programs, [{"name": "MT01"}]) as lab:
        lab.serve()
        lab.send("MT01", 5)
        assert lab.json("api/channels")["totals"]["depth"] == 5
"""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.request


def skip(why):
    print(f"skipped: {why}")
    sys.exit(77)  # by which ctest knows


def eventually(condition, what, seconds=40):
    end = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"not within {seconds} s: {what}")
        time.sleep(0.05)
    return value


def run(tests, *given):
    for test in tests:
        began = time.monotonic()
        test(*given)
        print(f"{test.__name__}: {time.monotonic() - began:.1f} s", flush=True)


class Lab:
    def __init__(self, programs, channels, prefix="halvo-test-serve-"):
        self.programs = os.path.abspath(programs)
        self.channels = channels
        self.running = []
        self.url = self.server = None
        self.folder = tempfile.mkdtemp(prefix=prefix)
        self.key = os.path.join(self.folder, "halvo.key")
        try:
            self.create()
        except BaseException:
            self.close()
            raise

    def program(self, name):
        return os.path.join(self.programs, name)

    def create(self):
        """Makes the segment. Keys come from inodes and are few: another test may hold the same one."""
        config = os.path.join(self.folder, "segment.toml")
        with open(config, "w", encoding="utf-8") as file:
            for channel in self.channels:
                lines = {"slots": 64, "slot_size": 256, **channel}
                file.write("[[channel]]\n" + "".join(
                    f"{name} = {json.dumps(value, ensure_ascii=False)}\n" for name, value in lines.items()))
        for attempt in range(20):
            made = subprocess.run([self.program("halvo-qm"), "create", config, "--key", self.key],
                                  capture_output=True, text=True, check=False)
            if made.returncode == 0:
                return
            if "--replace removes it first" not in made.stderr:
                break
            open(os.path.join(self.folder, f"inode-{attempt}"), "w", encoding="ascii").close()
        raise RuntimeError(made.stderr)

    def remove(self, check=True):
        subprocess.run([self.program("halvo-qm"), "remove", "--key", self.key],
                       capture_output=True, check=check)

    def start(self, *words, **how):
        process = subprocess.Popen(words, **how)
        self.running.append(process)
        return process

    def serve(self, *more, listen="127.0.0.1:0", **how):
        self.server = self.start(self.program("halvo-mon"), "--key", self.key, "serve", "--listen",
                                 listen, *more, stdout=subprocess.PIPE, text=True, **how)
        self.url = re.match(r"serving (http://\S+/)", self.server.stdout.readline()).group(1)
        self.port = int(self.url.rsplit(":", 1)[1].strip("/"))

    def get(self, path):
        with urllib.request.urlopen(self.url + path, timeout=20) as answer:
            return answer.read().decode()

    def json(self, path):
        return json.loads(self.get(path))

    def send(self, channel, count):
        subprocess.run([self.program("halvo-send"), "--key", self.key, "--quiet", channel],
                       input="".join(f"message {i}\n" for i in range(count)), text=True, check=True)

    def receive(self, channel):
        return self.start(self.program("halvo-recv"), "--key", self.key, "--quiet", channel,
                          "--output", "/dev/null")

    def traffic(self, channel, pause=0.01):
        """Messages without end from one process to another."""
        reader = self.receive(channel)
        source = self.start("sh", "-c", f"while echo message; do sleep {pause}; done",
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        writer = self.start(self.program("halvo-send"), "--key", self.key, "--quiet", channel,
                            stdin=source.stdout)
        return source, writer, reader

    def end(self, process, number=signal.SIGKILL):
        if process.poll() is None:
            process.send_signal(number)
        process.wait(timeout=20)
        for stream in (process.stdout, process.stderr):
            if stream:
                stream.close()

    def close(self):
        for process in self.running:
            self.end(process)
        self.remove(check=False)
        shutil.rmtree(self.folder, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
