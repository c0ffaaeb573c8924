import json
import os
from types import SimpleNamespace

import numpy as np
import pytest

from kelm import _page
from kelm._spikes import SPIKE, PopulationRange, Spikes

MS = 1_000_000
POPULATIONS = PopulationRange("E </script>", 0, 80), PopulationRange("I", 80, 20)


def some_spikes(end=2000 * MS, count=30_000):
    draw = np.random.default_rng(5)
    array = np.empty(count, SPIKE)
    array["time"] = draw.integers(7 * MS, end, count)
    array["neuron"] = draw.integers(0, 100, count)
    return Spikes(np.sort(array, order=["time", "neuron"]), populations=POPULATIONS,
                  provenance={"seed": 2**60 + 1, "digest": 255, "position_ns": end})


@pytest.fixture(scope="module")
def browser(tmp_path_factory):
    webdriver = pytest.importorskip("selenium.webdriver")
    if not os.path.exists("/usr/bin/chromedriver"):
        pytest.skip("chromedriver is not installed")
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    for argument in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                     "--no-first-run", "--disable-background-networking", "--disable-sync",
                     "--disable-component-update", "--window-size=1200,900",
                     f"--user-data-dir={tmp_path_factory.mktemp('profile')}"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    # A sanitizer that is loaded into the interpreter is not for the browser.
    environment = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver", env=environment),
                              options=options)
    yield driver
    driver.quit()


@pytest.fixture
def open_page(browser, tmp_path):
    from selenium.webdriver.support.wait import WebDriverWait

    def opened(spikes, net=None):
        _page.page(spikes, net, tmp_path / "page.html", title="a <b>")
        browser.get((tmp_path / "page.html").as_uri())
        WebDriverWait(browser, 60).until(lambda b: b.execute_script("return !!window.kelm"))
        return browser

    yield opened
    assert browser.get_log("browser") == []
    entries = [json.loads(entry["message"])["message"] for entry in browser.get_log("performance")]
    urls = [entry["params"]["request"]["url"] for entry in entries
            if entry["method"] == "Network.requestWillBeSent"
            and entry["params"]["documentURL"].endswith("page.html")]
    assert {url.partition(":")[0] for url in urls} <= {"file", "data"} and urls


def in_view(browser):
    return browser.execute_script("return kelm.spikesInView")


def show(browser, start, end, first, last):
    browser.execute_script("kelm.show({start: arguments[0], end: arguments[1], first: arguments[2],"
                           " last: arguments[3]})", start, end, first, last)
    return in_view(browser)


def expected(spikes, start, end, first, last):
    part = spikes.between(start, end)
    return int(((part.neuron >= first) & (part.neuron < last)).sum())


def picture(browser):
    """The pixels of the raster that are not white, and those of E and of I."""
    return browser.execute_script("""
        const canvas = document.getElementById("raster");
        const data = canvas.getContext("2d").getImageData(70, 4, canvas.width - 98,
                                                          canvas.height - 8).data;
        const counts = [0, 0, 0];
        for (let i = 0; i < data.length; i += 4) {
            if (data[i] + data[i + 1] + data[i + 2] < 765) counts[0]++;
            if (data[i] === 0x00 && data[i + 1] === 0x72 && data[i + 2] === 0xb2) counts[1]++;
            if (data[i] === 0xd5 && data[i + 1] === 0x5e && data[i + 2] === 0x00) counts[2]++;
        }
        return counts;""")


def test_shows_each_spike_and_what_it_is_from(open_page):
    spikes = some_spikes()
    browser = open_page(spikes)
    assert in_view(browser) == len(spikes)
    text = browser.find_element("tag name", "body").text
    counts = [len(spikes.of(population)) for population in POPULATIONS]
    for piece in ("a <b>", f"E </script> 0 80 {counts[0]}", f"I 80 20 {counts[1]}",
                  "digest 00000000000000ff", f"seed {2**60 + 1}",
                  f"{len(spikes)} of {len(spikes)} spikes in view"):
        assert piece in text
    assert min(picture(browser)) > 0
    some = spikes.time[len(spikes) // 2]
    for bounds in ((100 * MS, 300 * MS, 0, 100), (0, 2000 * MS, 80, 90), (MS, 8 * MS, 3, 4),
                   (int(some), int(some) + 1000, 0, 100), (int(some) + 1, 1900 * MS, 0, 80)):
        assert show(browser, *bounds) == expected(spikes, *bounds)
    # Only the upper population, then only the lower one.
    show(browser, 0, 2000 * MS, 80, 100)
    every, of_e, of_i = picture(browser)
    assert of_e == 0 and of_i == every > 0
    show(browser, 0, 2000 * MS, 0, 80)
    every, of_e, of_i = picture(browser)
    assert of_i == 0 and of_e == every > 0


def test_shows_the_populations_of_a_network_alone(open_page):
    spikes = some_spikes()
    browser = open_page(spikes, SimpleNamespace(populations=POPULATIONS[1:]))
    assert in_view(browser) == len(spikes.of("I"))
    every, of_i, _ = picture(browser)  # the first population is blue
    assert of_i == every > 0
    assert show(browser, 0, 500 * MS, 80, 85) == expected(spikes, 0, 500 * MS, 80, 85)


def test_wheel_drag_keys_and_the_rates_move_the_view(open_page):
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.actions.wheel_input import ScrollOrigin

    spikes = some_spikes()
    browser = open_page(spikes)

    def after(action):
        before = picture(browser)
        action()
        view = browser.execute_script("return kelm.view")
        assert picture(browser) != before
        start, end = int(np.ceil(view["start"])), int(np.ceil(view["end"]))
        inside = (spikes.neuron + 1.0 > view["first"]) & (spikes.neuron < view["last"])
        part = spikes.time[inside]
        assert in_view(browser) == ((part >= start) & (part < end)).sum()
        return end - start, start, view["first"]

    raster = browser.find_element("id", "raster")
    wheel = ActionChains(browser).scroll_from_origin(ScrollOrigin.from_element(raster), 0, -400)
    closer, start, _ = after(wheel.perform)
    assert closer < 1000 * MS and start > 0
    drag = ActionChains(browser).drag_and_drop_by_offset(raster, 100, 0)
    length, earlier, _ = after(drag.perform)
    assert earlier < start and length == pytest.approx(closer)
    _, later, _ = after(lambda: raster.send_keys("\ue014"))  # the right arrow
    assert later > earlier
    scale = "const u = document.querySelector('#rates .u-over').getBoundingClientRect();"
    left, width = browser.execute_script(scale + "return [u.left, u.width]")
    raster_left = browser.execute_script("return arguments[0].getBoundingClientRect().left", raster)
    assert left == pytest.approx(raster_left + 64, abs=1)  # both pictures have one time axis
    rates = browser.find_element("css selector", "#rates .u-over")
    stretch = ActionChains(browser).move_to_element(rates).click_and_hold().move_by_offset(
        int(width / 4), 0).release()
    quarter, _, _ = after(stretch.perform)
    assert quarter == pytest.approx(length / 4, rel=0.02)
    after(browser.find_element("id", "all").click)
    assert in_view(browser) == len(spikes)


@pytest.mark.parametrize("spikes", [
    some_spikes(end=40_000_000 * MS, count=50),  # steps of more than 2^32 ns
    Spikes(np.zeros(0, SPIKE)),
], ids=["long", "none"])
def test_shows_long_and_empty_runs(open_page, spikes):
    browser = open_page(spikes)
    assert in_view(browser) == len(spikes)
    middle = spikes.end // 2
    assert show(browser, 0, middle, 0, 100) == len(spikes.between(0, middle))


def test_counts_more_spikes_into_cells(open_page, monkeypatch):
    monkeypatch.setattr(_page, "_EACH", 10_000)
    spikes = some_spikes()
    browser = open_page(spikes)
    assert in_view(browser) == len(spikes)
    assert "counted into 4000 times 100 cells" in browser.find_element("id", "state").text
    assert min(picture(browser)) > 0
    # At the borders of cells the count is exact.
    for bounds in ((500 * MS, 1000 * MS, 0, 100), (0, 2000 * MS, 80, 90), (MS, 8 * MS, 3, 4)):
        assert show(browser, *bounds) == expected(spikes, *bounds)
