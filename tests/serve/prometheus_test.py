"""Prometheus itself scrapes the server, and what is shipped for it fits: prometheus_test.py PROGRAMS SOURCES"""
import glob
import json
import os
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import time
import urllib.parse
import urllib.request

from lab import Lab, eventually, run, skip

SHARE = os.path.join(sys.argv[2], "tools/mon/share")
RULES = os.path.join(SHARE, "prometheus-rules.yml")


def check(*words, given=None):
    done = subprocess.run(words, input=given, capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    return done


def promtool_passes_rules_and_metrics(lab):
    check("promtool", "check", "rules", RULES)
    test = os.path.join(lab.folder, "rules_test.yml")
    with open(os.path.join(sys.argv[2], "tests/serve/rules_test.yml"), encoding="utf-8") as file:
        text = file.read().replace("[RULES]", f"[{RULES}]")
    with open(test, "w", encoding="utf-8") as file:
        file.write(text)
    check("promtool", "test", "rules", test)
    check("promtool", "check", "metrics", given=lab.get("metrics"))


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def prometheus_answers_the_dashboard(lab):
    config = os.path.join(lab.folder, "prometheus.yml")
    with open(config, "w", encoding="utf-8") as file:
        file.write(f"global: {{scrape_interval: 1s, evaluation_interval: 1s}}\nrule_files: [{RULES}]\n"
                   f"scrape_configs: [{{job_name: halvo, static_configs: [{{targets: ['127.0.0.1:{lab.port}']}}]}}]\n")
    base = f"127.0.0.1:{free_port()}"
    lab.start("prometheus", f"--config.file={config}", f"--storage.tsdb.path={lab.folder}/tsdb",
              f"--web.listen-address={base}", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def ask(path, **arguments):
        with urllib.request.urlopen(f"http://{base}/api/v1/{path}?{urllib.parse.urlencode(arguments)}",
                                    timeout=20) as answer:
            return json.load(answer)["data"]

    def rate():
        try:
            got = ask("query", query='rate(halvo_channel_ring_got_total{channel="MT01"}[15s])')["result"]
        except OSError:
            return 0  # it is starting
        return float(got[0]["value"][1]) if got else 0

    lab.send("MO01", 7)
    lab.traffic("MT01")
    eventually(lambda: rate() > 5, "a rate of MT01")
    states = {alert["labels"]["alertname"]: alert["state"] for alert in ask("alerts")["alerts"]}
    assert "HalvoNoReader" in states and "HalvoSegmentDown" not in states, states
    rules = [rule for group in ask("rules")["groups"] for rule in group["rules"]]
    assert len(rules) == 12 and all(rule["health"] == "ok" for rule in rules), rules

    with open(os.path.join(SHARE, "grafana-dashboard.json"), encoding="utf-8") as file:
        dashboard = json.load(file)
    asked = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
    asked += [re.match(r"label_values\((.*), \w+\)$", each["query"]["query"]).group(1)
              for each in dashboard["templating"]["list"] if each["type"] == "query"]
    assert len(asked) > 15
    with open(RULES, encoding="utf-8") as file:
        named = {name for text in asked + [file.read()] for name in re.findall(r"\bhalvo_\w+", text)}
    unknown = named - set(re.findall(r"^# TYPE (\S+)", lab.get("metrics"), re.M))
    assert not unknown, f"nobody serves {unknown}"
    for query in asked:
        query = re.sub(r'"\$\w+"', '".*"', query).replace("$__rate_interval", "15s")
        assert ask("query", query=query)["result"] or " > 0" in query, f"no answer to {query}"
    boxes = [tuple(panel["gridPos"].values()) for panel in dashboard["panels"]]
    assert len(set(boxes)) == len(boxes) and all(x + width <= 24 for x, _, width, _ in boxes)


def units_start_what_is_there(lab):
    environment = {"HALVO_KEY": lab.key, "HALVO_LISTEN": "127.0.0.1:0", "HALVO_TEXTFILES": lab.folder}
    for unit in glob.glob(os.path.join(SHARE, "*.service")):
        with open(unit, encoding="utf-8") as file:
            command = re.search(r"^ExecStart=(.*)$", file.read(), re.M).group(1).replace("%i", "gw")
        command = re.sub(r"\$\{(\w+)\}", lambda name: environment[name.group(1)], command)
        words = shlex.split(command)
        process = lab.start(lab.program(words[0]), *words[1:], stdout=subprocess.PIPE, text=True)
        if "serve" in words:
            assert process.stdout.readline().startswith("serving http://127.0.0.1:")
            lab.end(process, signal.SIGTERM)
        assert process.wait(timeout=20) == 0, command
    with open(os.path.join(lab.folder, "halvo-gw.prom"), encoding="utf-8") as file:
        assert "\nhalvo_up 1\n" in file.read()
    if shutil.which("systemd-analyze"):
        # A path for each instance; the program is elsewhere here.
        folder = os.path.join(lab.folder, "units")
        shutil.copytree(SHARE, folder)
        units = glob.glob(os.path.join(folder, "*@.*"))
        check("sed", "-i", f"s|^ExecStart=halvo-mon|ExecStart={lab.program('halvo-mon')}|", *units)
        done = check("systemd-analyze", "verify", "--man=no",
                     *[unit.replace("@.", "@gw.") for unit in units])
        assert not done.stderr.strip(), done.stderr


def nagios_example_answers(lab):
    with open(os.path.join(SHARE, "nagios.cfg"), encoding="utf-8") as file:
        text = file.read()
    commands = dict(re.findall(r"command_name +(\S+)\n +command_line +(.*)", text))
    calls = [call.split("!") for call in re.findall(r"check_command +(.*)", text)]
    assert len(commands) == len(calls) == 2
    # Nothing was passed, so that ends are older than any limit, and nobody holds the reader's end.
    for name, *arguments in calls:
        words = commands[name]
        for number, argument in enumerate(arguments, 1):
            words = words.replace(f"$ARG{number}$", argument)
        words = (words.replace("/usr/bin", lab.programs).replace("/var/lib/gateway/halvo.key", lab.key)
                 .replace("/etc/halvo", SHARE))
        done = subprocess.run(shlex.split(words), capture_output=True, text=True, check=False)
        assert done.returncode == 2 and "HALVO CRITICAL - MT01 reader" in done.stdout, done


def main():
    with Lab(sys.argv[1], [{"name": "MT01"}, {"name": "MO01"}, {"name": "FQ01", "type": "F"}]) as lab:
        lab.serve()
        run([units_start_what_is_there, nagios_example_answers], lab)
        if not shutil.which("prometheus") or not shutil.which("promtool"):
            skip("no prometheus and no promtool")
        run([promtool_passes_rules_and_metrics, prometheus_answers_the_dashboard], lab)


main()
