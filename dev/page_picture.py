#!/usr/bin/env python3
"""Takes the pictures of the served page from a segment at work, in headless Chromium:

    dev/page_picture.py build/i386 docs [SECONDS]

Messages pass for so many seconds (310 without) before docs/page.png and docs/page-details.png are
taken, for the page shows the last five minutes. Removes all else that it made."""
import math
import os
import random
import subprocess
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests/serve"))
sys.dont_write_bytecode = True
from browser import Browser, missing  # noqa: E402
from lab import Lab, eventually  # noqa: E402

# name, slots, messages per second, seconds of a wave
FLOWS = [("발송-01", 256, 420, 80), ("발송-02", 256, 260, 130), ("발송-03", 128, 90, 45), ("수신-01", 128, 150, 60),
         ("수신-02", 128, 35, 100), ("결과-01", 512, 610, 90), ("결과-02", 512, 240, 200), ("인증-OTP", 64, 12, 25),
         ("MT21", 64, 5, 30), ("MT22", 64, 44, 70), ("MO21", 64, 2, 20), ("MO22", 64, 18, 150)]
REST = ["국제-01", "광고-01", "야간-01", "MT23", "MO23", "RPT1", "RPT2"] + [f"GW{i:02}" for i in range(1, 25)]


def feed(pipes, slow, ended):
    """Writes lines into the senders, in waves and bursts; `slow` gets more than its limit."""
    owed = [0.0] * len(FLOWS)
    while not ended.wait(0.05):
        now = time.monotonic()
        slow.write("offer\n" if random.random() < 0.5 else "")
        slow.flush()
        for i, (_, _, rate, wave) in enumerate(FLOWS):
            owed[i] += 0.05 * rate * max(0, 0.75 + 0.5 * math.sin(now * 2 * math.pi / wave + i) + random.gauss(0, 0.3))
            lines, owed[i] = int(owed[i]), owed[i] % 1
            pipes[i].write("message of a gateway\n" * lines)
            pipes[i].flush()


def work(lab, seconds):
    pipes = []
    for name, *_ in FLOWS:
        lab.receive(name)
        sender = lab.start(lab.program("halvo-send"), "--key", lab.key, "--quiet", name,
                           stdin=subprocess.PIPE, text=True)
        pipes.append(sender.stdin)
    lab.send("야간-01", 41)  # nobody reads
    full = lab.start(lab.program("halvo-send"), "--key", lab.key, "--quiet", "--timeout", "3600000",
                     "국제-01", stdin=subprocess.PIPE, text=True)
    full.stdin.write("one too many\n" * 65)
    full.stdin.flush()
    lab.receive("광고-01")  # slower than its writer, by its limit
    slow = lab.start(lab.program("halvo-send"), "--key", lab.key, "--quiet", "--timeout", "3600000",
                     "광고-01", stdin=subprocess.PIPE, text=True)
    ended = threading.Event()
    feeder = threading.Thread(target=feed, args=(pipes, slow.stdin, ended))
    feeder.start()
    time.sleep(seconds)
    return lambda: (ended.set(), feeder.join())


def main():
    build, folder = sys.argv[1], sys.argv[2]
    seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 310
    if missing():
        sys.exit(f"page_picture: no {' and no '.join(missing())}; dev/setup.sh installs them")
    channels = [{"name": name, "slots": slots} for name, slots, *_ in FLOWS]
    channels += [{"name": name, "rate_limit": 8} if name == "광고-01" else {"name": name} for name in REST]
    with Lab(os.path.join(build, "bin"), channels, "gateway-") as lab, Browser(1400, 860) as page:
        lab.serve()
        stop = work(lab, seconds)
        try:
            page.scheme("dark")
            page.open(lab.url)
            page.wait("return document.querySelectorAll('#rows .flows').length > 9")
            page.picture(os.path.join(folder, "page.png"))
            page.scheme("light")
            page.open(lab.url + "?channel=" + "결과-01")
            eventually(lambda: page.run("return document.querySelectorAll('#details td').length") > 8, "details")
            time.sleep(2)
            page.picture(os.path.join(folder, "page-details.png"))
        finally:
            stop()


main()
