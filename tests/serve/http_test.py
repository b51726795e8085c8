"""The served paths, as programs and as strangers ask for them: http_test.py PROGRAMS"""
import http.client
import json
import os
import signal
import socket
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor

from lab import Lab, eventually, run

KB = 1024


def connect(lab):
    return socket.create_connection(("127.0.0.1", lab.port), timeout=20)


def raw(lab, request):
    """The status of the answer to bytes, or 0 when the server hangs up without one."""
    with connect(lab) as client:
        client.sendall(request)
        answer = b""
        try:
            while b"\r\n" not in answer and (more := client.recv(4 * KB)):
                answer += more
        except ConnectionResetError:
            pass
        return int(answer.split()[1]) if answer.startswith(b"HTTP/") else 0


def ask(client, path):
    client.request("GET", path)
    answer = client.getresponse()
    return answer.status, {name.lower(): value for name, value in answer.getheaders()}, answer.read().decode()


def answers_by_the_table(lab):
    own = b"Host: 127.0.0.1\r\n"
    table = [
        (b"GET / HTTP/1.1", own, 200),
        (b"HEAD / HTTP/1.1", own, 200),
        (b"GET /metrics HTTP/1.1", b"Host: localhost:9470\r\n", 200),
        (b"GET /healthz HTTP/1.1", b"Host: [::1]:9470\r\n", 200),
        (b"GET /api/channels/MT01 HTTP/1.1", own, 200),
        (b"GET /api/channels/%3Cscript%3Ex() HTTP/1.1", own, 200),
        (b"GET /api/channels/MT01%00 HTTP/1.1", own, 404),
        (b"GET /api/channels/MT99 HTTP/1.1", own, 404),
        (b"GET /api/history?since=0&channel=MT01 HTTP/1.1", own, 200),
        (b"GET /api/history?channel=MT99 HTTP/1.1", own, 404),
        (b"GET /api/history?since=-1 HTTP/1.1", own, 400),
        (b"GET /api/history?since=99999999999999999999 HTTP/1.1", own, 400),
        (b"GET /metrics/ HTTP/1.1", own, 404),
        (b"GET /../etc/passwd HTTP/1.1", own, 404),
        (b"POST / HTTP/1.1", own + b"Content-Length: 5\r\n", 405),
        (b"OPTIONS / HTTP/1.1", own, 405),
        (b"GET / HTTP/1.1", b"Host: gateway.example.com\r\n", 421),
        (b"GET / HTTP/1.1", b"Host: 127.0.0.1.example.com\r\n", 421),
        (b"GET / HTTP/1.1", b"Host: [::1\r\n", 421),
        (b"GET / HTTP/1.1", b"Host: 127.0.0.1:99999\r\n", 421),
        (b"GET / HTTP/1.1", b"Host: \r\n", 421),
        (b"GET / HTTP/1.0", b"", 400),
        (b"GET / HTTP/1.1", own + b"X: " + b"x" * 6 * KB + b"\r\n", 200),
        (b"GET / HTTP/1.1", own + b"X: " + b"x" * 9 * KB + b"\r\n", 431),
    ]
    for line, headers, status in table:
        got = raw(lab, line + b"\r\n" + headers + b"\r\n")
        assert got == status, f"{line[:60]} {headers[:60]}: {got}, not {status}"


def leaves_a_browser_no_choice(lab):
    client = http.client.HTTPConnection("127.0.0.1", lab.port, timeout=20)
    for path, kind in [("/", "text/html"), ("/metrics", "text/plain; version=0.0.4"),
                       ("/api/channels", "application/json"), ("/nothing", "text/plain")]:
        _, headers, body = ask(client, path)
        assert headers["content-type"].startswith(kind), headers
        assert headers["x-content-type-options"] == "nosniff"
        assert headers["content-security-policy"].startswith("default-src 'none'")
        assert "unsafe" not in headers["content-security-policy"]
        assert not [name for name in headers if name.startswith("access-control-")]
        if path == "/":
            nonce = headers["content-security-policy"].split("'nonce-")[1].split("'")[0]
            assert body.count(f'nonce="{nonce}"') == 2 and "@" + "NONCE" not in body
            first = client.sock.getsockname()
    assert client.sock.getsockname() == first, "connections are kept"
    assert f'nonce="{nonce}"' not in ask(client, "/")[2]
    client.close()


def tells_what_is_in_the_segment(lab):
    lab.send("MT01", 3)
    document = eventually(lambda: (got := lab.json("api/channels"))["totals"]["depth"] == 3 and got,
                          "three messages wait")
    assert document["version"] == 1 and document["segment"]["up"]
    names = [channel["name"] for channel in document["channels"]]
    assert names == [channel["name"] for channel in lab.channels], names
    first = document["channels"][0]
    assert (first["state"], first["level"]) == ("no reader", "bad"), first
    one = lab.json("api/channels/MT01")["channel"]
    assert (one["put"], one["got"], one["ring_depth"]) == (3, 0, 3), one
    assert [(each["type"], each["count"]) for each in one["types"]] == [(1, 3)], one["types"]
    assert "message 0" not in json.dumps(one), "bodies stay in the segment"

    whole = lab.json("api/history")
    assert len(whole["samples"]) == len(whole["times"]) == len(whole["channels"][0]["depth"])
    assert whole["channels"][0]["depth"][-1] == 3
    since = whole["samples"][-1]
    later = eventually(lambda: (got := lab.json(f"api/history?since={since}"))["samples"] and got,
                       "a new point")
    assert later["samples"][0] == since + 1
    metrics = lab.get("metrics").splitlines()
    assert 'halvo_channel_trouble{channel="MT01",number="0",type="M",trouble="no reader"} 1' in metrics


def outlives_the_segment(lab):
    client = http.client.HTTPConnection("127.0.0.1", lab.port, timeout=20)
    before = lab.json("api/channels")["segment"]["epoch"]
    lab.remove()
    eventually(lambda: ask(client, "/healthz")[0] == 503, "it tells that the segment is gone")
    assert lab.get("metrics").splitlines()[2] == "halvo_up 0"
    assert lab.json("api/channels")["segment"]["up"] is False
    lab.create()
    eventually(lambda: ask(client, "/healthz")[0] == 200, "it comes back by itself")
    after = lab.json("api/history")
    assert after["segment"]["epoch"] == before + 1
    assert all(depth == 0 for depth in after["channels"][0]["depth"]), "the past is another segment's"
    client.close()


def drip(lab):
    """A byte now and then does not keep a connection for ever: tells for how long it was kept."""
    began = time.monotonic()
    with connect(lab) as client:
        client.settimeout(0.2)
        while time.monotonic() < began + 60:
            try:
                client.sendall(b"G")
                if client.recv(KB) == b"":
                    break
            except socket.timeout:
                continue
            except OSError:
                break
    return time.monotonic() - began


def keeps_to_its_limits(lab):
    # Some do not take their answer: others are served at once.
    deaf = [connect(lab) for _ in range(5)]
    for client in deaf:
        client.sendall(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n" * 20)
    began = time.monotonic()
    for _ in range(50):
        lab.get("healthz")
    assert time.monotonic() - began < 9, "slow clients, which have ten seconds, starve the others"
    # One more than 32 is turned away, and there is room again when they are gone.
    idle = [connect(lab) for _ in range(32)]
    healthz = b"GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"
    assert raw(lab, healthz) == 0
    for client in idle + deaf:
        client.close()
    eventually(lambda: raw(lab, healthz) == 200, "room again")


def ends_at_once(lab):
    clients = [connect(lab) for _ in range(8)]
    clients[0].sendall(b"GET /api/history HTTP/1.1\r\nHost: localhost\r\n\r\n")
    clients[1].sendall(b"GET / HT")
    time.sleep(0.2)
    began = time.monotonic()
    lab.end(lab.server, signal.SIGTERM)
    assert time.monotonic() - began < 8, "it does not wait for clients, which have ten seconds"
    assert lab.server.returncode == 0, lab.server.returncode
    for client in clients:
        client.close()


def refuses_other_addresses(lab):
    lab.serve(listen="localhost:0")
    for listen, status, why in [("0.0.0.0:0", 2, "--allow-remote permits it"), ("[::]:0", 2, "--allow-remote"),
                                ("gateway.example.com:80", 2, "not an address"),
                                ("127.0.0.1", 2, "not ADDRESS:PORT"), ("127.0.0.1:66000", 2, "not ADDRESS:PORT"),
                                ("[::1:80", 2, "not ADDRESS:PORT"), (f"127.0.0.1:{lab.port}", 1, "in use")]:
        outcome = subprocess.run([lab.program("halvo-mon"), "--key", lab.key, "serve", "--listen", listen],
                                 capture_output=True, text=True, timeout=20, check=False)
        assert outcome.returncode == status and why in outcome.stderr, (listen, outcome)
    lab.end(lab.server, signal.SIGTERM)
    lab.serve("--allow-remote", listen="0.0.0.0:0", stderr=subprocess.PIPE)
    assert lab.url.startswith("http://0.0.0.0:") and "whoever reaches" in lab.server.stderr.readline()
    lab.end(lab.server, signal.SIGTERM)


def runs_as_any_user(lab):
    if os.getuid() != 0:
        return
    os.chmod(lab.folder, 0o755)
    lab.serve(user=65534, group=0, extra_groups=[])  # the group may read the segment
    assert lab.json("api/channels")["segment"]["up"]
    lab.end(lab.server, signal.SIGTERM)


def main():
    channels = [{"name": "MT01"}, {"name": "MO01", "slots": 4}, {"name": "<script>x()"}]
    with Lab(sys.argv[1], channels) as lab:
        lab.serve()
        with ThreadPoolExecutor() as pool:
            kept = pool.submit(drip, lab)
            run([answers_by_the_table, leaves_a_browser_no_choice, tells_what_is_in_the_segment,
                 outlives_the_segment, keeps_to_its_limits], lab)
            assert 8 < kept.result() < 30, f"a request has ten seconds: {kept.result()}"
        run([ends_at_once, refuses_other_addresses, runs_as_any_user], lab)


main()
