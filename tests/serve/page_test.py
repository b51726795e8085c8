"""The page in a browser, while messages pass: page_test.py PROGRAMS"""
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../dev"))
import browser  # noqa: E402
from lab import Lab, eventually, run, skip  # noqa: E402

KOREAN, HOSTILE = "한국-01", "<script>x()</script>"
NAMES = "[...document.querySelectorAll('#rows tr .name')].map(name => name.textContent)"
CELL = """([...document.querySelectorAll('#rows tr')].filter(
    tr => tr.querySelector('.name').textContent === arguments[0]).map(
    tr => tr.querySelector(`td[data-col=${arguments[1]}]`).textContent)[0] || '')"""


def rows_appear_and_sort_by_trouble_then_depth(lab, page):
    lab.send("GW01", 5)
    lab.send("GW02", 9)
    page.open(lab.url)
    page.wait(f"return {NAMES}.length === 269")
    page.wait(f"return {NAMES}.slice(0, 2).join() === 'GW02,GW01'")
    assert page.run("return " + CELL, "GW02", "state") == "no reader"
    names = page.run("return " + NAMES)
    assert HOSTILE in names and KOREAN in names, names[:12]
    assert page.run("return document.querySelectorAll('#rows script').length") == 0
    assert page.run("return document.getElementById('total-trouble').textContent") == "2"
    page.size(400, 800)
    assert page.run("return document.documentElement.scrollWidth") <= 400, "it fits a narrow screen"
    page.size(1400, 900)


def numbers_change_while_traffic_runs(lab, page):
    traffic = lab.traffic("MT01")
    page.wait(f"return Number({CELL}) > 5", "MT01", "in")
    assert page.run("return " + CELL, "MT01", "state") == "flowing"
    assert str(traffic[1].pid) in page.run("return " + CELL, "MT01", "writer")
    # The writer is killed: the reader stays, nobody writes any more.
    for process in traffic[:2]:
        lab.end(process)
    page.wait(f"return {CELL} === 'idle'", "MT01", "state")
    lab.end(traffic[2])


def filters_and_sorts_stay_in_the_address(_, page):
    page.keys("/gw01")
    page.wait(f"return {NAMES}.join() === 'GW01'")
    assert "q=gw01" in page.url(), page.url()
    page.keys("\ue00c")  # Escape
    page.click("#trouble")
    page.wait(f"return {NAMES}.length === 2")
    assert "trouble=1" in page.url()
    page.click("#trouble")
    page.click("th[data-key=name] button")
    page.wait(f"return {NAMES}[0] === arguments[0]", HOSTILE)
    page.click("th[data-key=name] button")
    page.wait(f"return {NAMES}[0] === arguments[0]", "MT01")
    assert "sort=name" in page.url() and "dir=desc" in page.url()
    page.open(page.url().split("?")[0] + "?q=fq&type=F&sort=number")
    page.wait(f"return {NAMES}.join() === 'FQ01'")


def a_row_opens_details_by_key_and_pointer(lab, page):
    page.open(lab.url + "?sort=depth")
    page.wait(f"return {NAMES}[0] === 'GW02'")
    page.keys("\ue015\ue007")  # arrow down, Enter
    page.wait("return document.getElementById('details-name')?.textContent.startsWith('GW02')")
    page.wait("return document.querySelector('#details table')?.textContent.includes('halvo-send')")
    assert "nobody holds the reader" in page.run("return document.getElementById('details').textContent")
    assert "message 0" not in page.run("return document.body.textContent")
    page.keys("\ue00c")
    assert page.run("return document.getElementById('details').hidden")
    page.run("""[...document.querySelectorAll('#rows tr')].find(
        tr => tr.querySelector('.name').textContent === arguments[0]).click()""", HOSTILE)
    page.wait("return document.getElementById('details-name')?.textContent.startsWith(arguments[0])", HOSTILE)
    page.keys("\ue00c")


def a_hidden_tab_stops_asking(_, page):
    count = "return performance.getEntriesByType('resource').length"
    page.run("performance.setResourceTimingBufferSize(10000)")
    hide = """Object.defineProperty(document, 'hidden', { value: arguments[0], configurable: true });
        document.dispatchEvent(new Event('visibilitychange'))"""
    page.run(hide, True)
    time.sleep(0.5)
    before = page.run(count)
    time.sleep(2.5)
    assert page.run(count) <= before + 1, "a hidden tab asks"  # one may have been on its way
    page.run(hide, False)
    page.wait(count + " > arguments[0]", before)


def a_bar_tells_that_figures_are_old(lab, page):
    bar = "const bar = document.getElementById('bar'); return !bar.hidden && bar.textContent.includes(arguments[0])"
    lab.remove()
    page.wait(bar, "The segment is gone")
    assert len(page.run("return " + NAMES)) == 269, "the last figures stay"
    page.wait("return document.getElementById('age').textContent.endsWith(' old')")
    lab.create()
    page.wait("return document.getElementById('bar').hidden")
    page.wait("return document.getElementById('total-depth').textContent === '0'")
    lab.end(lab.server)
    page.wait(bar, "No new data")


def main():
    lacking = browser.missing()
    if lacking:
        skip(f"no {' and no '.join(lacking)}")
    first = [{"name": "MT01"}, {"name": HOSTILE}, {"name": KOREAN}, {"name": "FQ01", "type": "F"}]
    rest = [{"name": f"GW{i:02}", "slots": 16} for i in range(1, 266)]
    with Lab(sys.argv[1], first + rest) as lab, browser.Browser() as page:
        lab.serve()
        eventually(lambda: lab.json("api/channels")["channels"], "the first sample")
        run([rows_appear_and_sort_by_trouble_then_depth, numbers_change_while_traffic_runs,
             filters_and_sorts_stay_in_the_address, a_row_opens_details_by_key_and_pointer,
             a_hidden_tab_stops_asking, a_bar_tells_that_figures_are_old], lab, page)
        said = [line for line in page.complaints() if "net::ERR" not in line and "503" not in line]
        assert not said, said


main()
