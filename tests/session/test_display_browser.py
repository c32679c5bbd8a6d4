"""The display's page in a real browser: what it shows is compared with the modules, as an operator would use it."""
import contextlib
import math
import os
import pathlib
import signal
import subprocess
import time

import numpy as np
import pytest
from display import Browser, Display
from kestrel_data import Module, do
from kestrel_session import SCALE, WAIT, wait_until
from test_pulsar3_cards import play  # noqa: F401 (a fixture)
from test_pulsar3_dummy import no_modules_left  # noqa: F401 (a fixture)

SHOTS = os.environ.get("KESTREL_SCREENSHOTS")  # a folder to leave pictures in, for the manual
BINS, CHANNELS = 4096, 48


@pytest.fixture
def page(start, server):
    """A browser on the page of a display that watches the server."""
    display = start(kind=Display, server_port=server.port)
    browser = Browser(display.url)
    browser.display = display
    browser.wait("display.state === 'live'")
    yield browser
    complaints = browser.complaints()
    browser.close()
    assert complaints == []


def picture(page, name):
    if SHOTS:
        page.driver.save_screenshot(str(pathlib.Path(SHOTS) / f"{name}.png"))


def spectra_of(rng, channels=CHANNELS):
    x = np.arange(BINS)
    peaks = [(1280, 3000, 22), (1411, 450, 23), (2400, 900, 29)]  # iron's lines and another at 5 eV a bin
    shape = 30 * np.exp(-x / 1500) + 2 + sum(h * np.exp(-((x - p) / s) ** 2 / 2) for p, h, s in peaks)
    return rng.poisson(shape, (channels, BINS))


@pytest.fixture
def spectra(client, names):
    """(name, elements) of a module of spectra."""
    name = names("spectra")
    assert client.lines(f"module create '{name}' {BINS} {CHANNELS} 'bin' 'channel' header") == ["* 0"]
    data = Module(name).data
    data[:] = spectra_of(np.random.default_rng(1))
    return name, data


def choose(page, name):
    page.wait(f"!!display.named('{name}')", "module in the list")
    page.run("Array.from(document.querySelectorAll('#modules button')).find((b) => b.firstChild.data === arguments[0]).click()",
             name)


def drawn(page):
    """The series on the spectrum's plot, in counts of a linear scale: its own data."""
    return page.run("const s = display.tabs.spectra; return s.head && s.plot ? s.data.map((a) => Array.from(a)) : []")


def wait_drawn(page, wanted):
    """Waits until the plot's series are these."""
    wanted = [list(map(float, row)) for row in wanted]
    wait_until(lambda: drawn(page)[1:] == wanted, "spectra on the plot")


def test_spectra_zoom_pan_scales_and_the_energy_axis(page, spectra):
    name, data = spectra
    choose(page, name)
    page.set("channels", "2-3,7")
    width = page.run("return Math.round(document.getElementById('plot').clientWidth * devicePixelRatio)")
    edges = [BINS * c // width for c in range(width + 1)]
    wait_drawn(page, [[data[c, a:b].max() for a, b in zip(edges, edges[1:])] for c in (2, 3, 7)])
    assert page.run("return document.getElementById('legend').innerText").split("\n") == [f"channel {c}, frame 0" for c in (2, 3, 7)]
    page.set("frames", "99")  # there is none: what is shown says so
    assert page.run("return document.getElementById('legend').innerText").startswith("channel 2, frame 0")
    page.set("frames", "0")
    page.run("display.tabs.spectra.zoom([1200, 1499])")
    wait_drawn(page, data[[2, 3, 7], 1200:1500])
    page.set("gain", "0.005")
    assert drawn(page)[0] == pytest.approx(np.arange(1200, 1500) * 0.005)
    page.set("elements", "Fe")
    picture(page, "spectra")
    page.press("\ue014")  # right
    wait_drawn(page, data[[2, 3, 7], 1275:1575])
    page.press("l")
    assert drawn(page)[1] == pytest.approx(np.log10(np.maximum(data[2, 1275:1575], 0.5)))
    page.press("l")
    assert drawn(page)[1] == pytest.approx(np.sqrt(data[2, 1275:1575]))
    page.press("l", "f")
    page.wait(f"display.tabs.spectra.head.x1 === {BINS - 1}")


def test_a_drag_over_the_plot_zooms_and_the_cursor_reads_counts(page, spectra):
    from selenium.webdriver.common.action_chains import ActionChains
    name, data = spectra
    choose(page, name)
    wait_until(lambda: len(drawn(page)) == 2, "spectrum")
    over = page.driver.find_element("css selector", "#plot .u-over")
    ActionChains(page.driver).move_to_element_with_offset(over, -100, 0).click_and_hold().move_by_offset(150, 0).release().perform()
    page.wait("display.tabs.spectra.range !== null")
    first, last = page.run("return display.tabs.spectra.range")
    assert 0 < first < last < BINS - 1
    page.wait(f"display.tabs.spectra.head.x0 === {first}")
    ActionChains(page.driver).move_to_element(over).perform()
    page.wait("document.getElementById('readout').textContent.includes('channel')")
    words = page.run("return document.getElementById('readout').textContent").split()
    channel, counts = int(words[1]), int(words[-1])
    assert words[2] == "energy" and counts == data[0, channel]


def test_a_region_has_sum_net_sum_and_error_whatever_the_zoom(page, spectra):
    name, data = spectra
    choose(page, name)
    page.set("channels", "5")
    page.run("display.tabs.spectra.zoom([1200, 1360])")
    page.wait("display.tabs.spectra.head?.x1 === 1360 && display.tabs.spectra.series[0].channel === 5")
    page.press("r")
    page.press("f")
    page.wait("display.tabs.spectra.regions[0]?.result")
    got = page.run("return display.tabs.spectra.regions[0].result")
    row = data[5].astype(float)
    sides, total, width = (row[1197:1200].sum(), row[1361:1364].sum()), row[1200:1361].sum(), 161
    net = total - width * sum(sides) / 6
    assert (got["sum"], got["net"]) == (total, pytest.approx(net))
    assert got["error"] == pytest.approx(math.sqrt(total + sum(sides) * (width / 6) ** 2))
    data[5, 1280] += 1000
    page.wait(f"display.tabs.spectra.regions[0].result.sum === {total + 1000}")
    assert f"{total + 1000:.0f}" in page.run("return document.getElementById('regions').innerText")


def test_numbers_that_lead_nowhere_cost_no_connection(page, spectra, client, names):
    name, data = spectra
    tall = names("tall")
    assert client.lines(f"module create '{tall}' 16 5001 header") == ["* 0"]
    choose(page, name)
    page.run("display.live.socket.mark = 1")
    for tab, field in ("3", "planenumber"), ("4", "fitpoint"), ("5", "scalerframe"):
        page.press(tab)
        for typed in "-1", "1.5", "99999999999", "1e400", "x", "":
            page.set(field, typed)
    page.press("3")
    page.set("planenumber", "-1")
    page.wait("display.tabs.image.head?.t0 === 0 && document.getElementById('imagereadout').textContent.includes('frame 0')")
    page.press("1")
    choose(page, tall)
    page.set("channels", "1,2,5000")
    page.wait("document.getElementById('spectranote').textContent.endsWith('shown with them: channel 5000')")
    page.wait("display.tabs.spectra.series.map((s) => s.channel).join() === '1,2'")
    assert page.run("return display.live.socket.mark") == 1


def test_a_paused_page_has_missed_nothing_when_it_goes_on(page, spectra):
    name, data = spectra
    choose(page, name)
    page.run("display.tabs.spectra.zoom([0, 99])")
    wait_drawn(page, [data[0, :100]])
    page.press(" ")
    before = data[0, :100].copy()
    data[0, :100] += 1
    page.wait("display.live.wanted.get(0).waiting !== null")
    wait_drawn(page, [before])
    page.run("display.tabs.spectra.zoom([100, 199])")  # what is asked for anew is shown
    wait_drawn(page, [data[0, 100:200]])
    data[0, 100:200] += 2
    page.wait("display.live.wanted.get(0).waiting !== null")
    page.press(" ")
    wait_drawn(page, [data[0, 100:200]])


def test_large_counts_are_told_to_the_last_digit(page, client, names):
    name = names("large")
    assert client.lines(f"module create '{name}' 60000 1 header") == ["* 0"]
    data = Module(name).data[0]
    data[:] = 16777217
    choose(page, name)
    wait_until(lambda: len(drawn(page)) == 2 and set(drawn(page)[1]) == {16777217}, "exact counts")
    page.press("r", "f")
    page.wait("document.getElementById('regions').innerText.includes(String(60000 * 16777217))")
    page.run("display.tabs.spectra.addRegion(1, 40)")  # one bin on its left side
    data[:50] = np.arange(50) * 1000
    row = data.astype(float)
    page.wait(f"display.tabs.spectra.regions[1]?.result?.sum === {row[1:41].sum()}")
    got = page.run("return display.tabs.spectra.regions[1].result")
    assert got["net"] == pytest.approx(0, abs=1e-3)  # a straight line leaves nothing
    right = (42 - 20.5) / 42
    variance = row[1:41].sum() + (40 * right) ** 2 * row[0] + (40 * (1 - right)) ** 2 * row[41:44].sum() / 9
    assert got["error"] == pytest.approx(math.sqrt(variance))
    os.truncate(f"/dev/shm/{name}", 5000)
    page.wait("display.tabs.spectra.regions[1]?.result === undefined")
    page.wait("document.getElementById('spectranote').textContent.startsWith('Nothing can be shown')")


@pytest.mark.parametrize("ticks, texts", [
    ([10010, 10020, 10030], ["10010", "10020", "10030"]), ([0, 0.1, 0.2, 0.30000000000000004], ["0", "0.1", "0.2", "0.3"]),
    ([1, 3.1622776601683795, 10], ["1", "3.16", "10"]), ([1250000, 1250500], ["1250000", "1250500"]), ([5], ["5"]),
    ([-0.5, 0, 0.5], ["-0.5", "0", "0.5"])])
def test_ticks_are_what_their_words_say(page, ticks, texts):
    assert page.run("const {tickTexts} = await import('./common.js'); return tickTexts(arguments[0])", ticks) == texts


def test_corrected_rates_are_the_inverse_of_the_dead_time(page):
    seen = [0, 1e3, 1e5, 5e5, 9e5, 0.999 / (math.e * 4e-7), 1.01 / (math.e * 4e-7)]
    got = page.run("const {correctedRate} = await import('./rates.js'); return arguments[0].map((r) => correctedRate(r, 4e-7))", seen)
    assert got[-1] is None  # beyond the peak nothing can be told
    for rate, r in zip(got[:-1], seen):
        assert rate * math.exp(-rate * 4e-7) == pytest.approx(r, rel=1e-9) and rate <= 1 / 4e-7
    assert page.run("const {correctedRate} = await import('./rates.js'); return correctedRate(7, 0)") == 7


@pytest.mark.parametrize("field, good, bad", [
    ("gain", ["0.005", "1e-3", ".5", "10"], ["0", "0.00", "0e5", "-1", "0,005", "x", ""]),
    ("offset", ["-0.02", "0"], ["1,5", "--1", ""]), ("tick", ["12.5"], ["0", "-3"]), ("deadtime", ["0", "400"], ["-1", "4 00"])])
def test_a_number_that_is_none_is_marked_and_not_calculated_with(page, field, good, bad):
    ask = "const {numberOf} = await import('./common.js'); return numberOf(arguments[0], 'none')"
    for typed in good + bad:
        page.set(field, typed)
        assert page.run(ask, field) == (float(typed) if typed in good else "none"), typed
        assert page.run("return document.querySelectorAll('input:invalid').length") == (typed in bad)


def test_losses_of_two_systems_stay_apart(page):
    text = "".join(f'kestrel_frames_total{{path="{p}",channel="0",fate="missing"}} {n}\n' for p, n in ((0, 5), (1, 0)))
    lost = page.run("const {losses} = await import('./rates.js'); return losses(arguments[0]).map((r) => [r[0], r[1], r[4]])", text)
    assert lost == [[0, 0, 5], [1, 0, 0]]


def test_48_channels_are_drawn_within_40_ms(page, spectra):
    name, data = spectra
    choose(page, name)
    page.press("2")
    page.wait("display.tabs.overview.head?.rows === 48")
    rng = np.random.default_rng(2)
    times, end = [], time.monotonic() + WAIT
    while len(times) < 25 and time.monotonic() < end:
        data[:] += rng.poisson(1.0, data.shape).astype("u4")
        time.sleep(0.1)
        times = sorted(page.run("return display.tabs.overview.times"))
    picture(page, "overview")
    assert len(times) >= 25 and times[len(times) // 4] < 40, times  # a quarter of them with nothing else in between
    head = page.run("const h = display.tabs.overview.head; return [h.columns, Array.from(h.values)]")
    edges = [BINS * c // head[0] for c in range(head[0] + 1)]
    wanted = np.array([[row[a:b].max() for a, b in zip(edges, edges[1:])] for row in data])
    wait_until(lambda: page.run("return Array.from(display.tabs.overview.head.values)") == wanted.ravel().tolist(), "newest data")


def test_an_image_its_colours_and_profiles(page, client, names):
    name = names("image")
    assert client.lines(f"module create '{name}' 200 100 header double num-t 3") == ["* 0"]
    data = Module(name).data
    y, x = np.mgrid[0:100, 0:200]
    for t in range(3):
        data[t] = 1000 * np.exp(-((x - 60 - 30 * t) ** 2 + (y - 50) ** 2) / 400) + 5 * np.sin(x / 9)
    choose(page, name)
    page.press("3")
    page.set("planenumber", "1")
    page.wait("display.tabs.image.head?.t0 === 1")
    page.run("display.tabs.image.mark = [90, 50]; display.tabs.image.profiles()")
    profiles = page.run("return display.tabs.image.shownProfiles")
    assert profiles["along"] == pytest.approx(data[1, 50]) and profiles["down"] == pytest.approx(data[1, :, 90])
    page.set("colours", "equalised")
    picture(page, "image")
    ranks = page.run("const {ranks} = await import('./image.js'); return Array.from(ranks(display.tabs.image.head.values, 'equalised'))")
    counts = np.bincount(ranks, minlength=256)
    assert counts.max() < 4 * len(ranks) / 256  # every colour is about as frequent
    page.set("plane", "xt")
    page.set("planenumber", "50")
    page.wait("display.tabs.image.head?.rows === 3 && display.tabs.image.head.y0 === 50")
    values = page.run("return Array.from(display.tabs.image.head.values)")
    assert np.array_equal(np.reshape(values, (3, 200)), data[:, 50])
    assert "frame 2, channel 50 (module 200 × 100 × 3)" in page.run(
        "display.tabs.image.mark = [0, 2]; display.tabs.image.profiles(); return document.getElementById('imagereadout').textContent")
    os.unlink(f"/dev/shm/{name}")
    page.wait("document.getElementById('imagereadout').textContent.startsWith('Nothing can be shown')")


def test_a_cut_down_waterfall_tells_which_bins_and_frames(page, client, names, tmp_path):
    name = names("fall")
    assert client.lines(f"module create '{name}' 4000 1 header num-t 1000") == ["* 0"]
    data = Module(name).data
    data[:] = np.random.default_rng(4).poisson(50, data.shape)
    choose(page, name)
    page.press("3")
    page.set("plane", "xt")
    page.wait("display.tabs.image.head?.rows === 480 && display.tabs.image.head.nx === 4000")
    page.driver.execute_cdp_cmd("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": str(tmp_path)})
    page.press("c")
    path = tmp_path / f"{name}-image.csv"
    wait_until(lambda: path.exists() and path.stat().st_size, "saved file")
    head, *rows = [line.split(",") for line in path.read_text().splitlines()]
    xs, frames = list(map(int, head[1:])) + [4000], [int(row[0]) for row in rows] + [1000]
    wanted = [[data[a:b, 0, c:d].max() for c, d in zip(xs, xs[1:])] for a, b in zip(frames, frames[1:])]
    assert head[0] == "frame / x" and [list(map(int, row[1:])) for row in rows] == wanted
    page.run("display.tabs.image.mark = [7, 9]; display.tabs.image.profiles()")
    assert page.run("return document.getElementById('imagereadout').textContent").startswith(
        f"x {xs[7]}–{xs[8] - 1}, frame {frames[9]}–{frames[10] - 1}, channel 0 ")


def test_a_fitted_model_lies_over_its_spectrum(page, client, spectra, names):
    name, data = spectra
    results = names("results")
    assert do(client, f"peak-fit module '{name}' '{results}' 0 3 fe55 no-lor") >= 0
    choose(page, name)
    page.press("4")
    page.wait(f"!!display.named('{results}')")
    page.set("fitresult", results)
    page.set("fitspectra", name)
    page.set("fitpoint", "2")
    frames = Module(results).frames()
    page.wait(f"Math.abs((display.tabs.fit.values?.get('posn[0]') ?? 0) - {float(frames['posn[0]'][0, 2])}) < 1e-9")
    page.wait("display.tabs.fit.head?.y0 === 2")
    shown = page.run("return display.tabs.fit.data")
    assert shown["measured"] == data[2, shown["xs"][0]:shown["xs"][-1] + 1].tolist()
    xs = np.array(shown["xs"])
    model = sum(frames[f"height[{i}]"][0, 2] * np.exp(-((xs - frames[f"posn[{i}]"][0, 2]) / frames[f"sigma[{i}]"][0, 2]) ** 2 / 2)
                for i in range(2))
    assert shown["model"] == pytest.approx(model)
    assert shown["residuals"] == pytest.approx((np.array(shown["measured"]) - model) / np.sqrt(np.maximum(model, 1)))
    picture(page, "fit")


def test_a_run_is_watched_while_cards_count(page, server, client, play):  # noqa: F811
    sim = play("-cards=1", "-chans=2", "-speed=1")
    assert do(client, f"pulsar3 config 1 8 0 baseIP '{sim.net}1'") == 0
    choose(page, "plr3_hist0")
    page.set("channels", "1")
    page.set("frames", "newest")
    assert do(client, f"pulsar3 setup-timing 0 internal time {0.5 * SCALE} frames 6") == 0
    assert do(client, "pulsar3 hist start 0") == 0
    seen = set()
    end = time.monotonic() + 20 * SCALE
    while len(seen) < 3 and time.monotonic() < end:
        seen.add(page.run("return display.tabs.spectra.series[0]?.frame"))
    assert len(seen) >= 3, seen
    assert do(client, "pulsar3 check-progress 0 num-t 6") == 6
    hist = Module("plr3_hist0", "r").data  # channel, frame, bin
    page.set("frames", "5")
    page.run("display.tabs.spectra.zoom([0, 500])")
    wait_drawn(page, [hist[1, 5, :501]])
    assert do(client, "pulsar3 open-scalers 0") == 0
    client.lines("read 0 0 0 9 2 6 from 0 to-module 'plr3_read_scalers'")
    os.unlink("/dev/shm/plr3_read_scalers")
    client.lines("close 0")
    page.press("5")
    page.wait("display.tabs.rates.lost[1]?.[2] === 6")
    rows = page.run("return display.tabs.rates.rows()")
    picture(page, "rates")
    scalers = Module("plr3_scalers0", "r").data[0].astype(float)  # frame 0
    for channel in range(2):
        live = (scalers[channel, 0] - scalers[channel, 1]) * 12.5e-9
        assert rows[channel][2] == pytest.approx(scalers[channel, 3] / live)
        assert rows[channel][3] * math.exp(-rows[channel][3] * 4e-7) == pytest.approx(rows[channel][2])
    assert page.run("return display.tabs.rates.lost") == [[0, c, 6, 0, 0, 0, 0, 0, 0, 0] for c in range(2)]
    do(client, "pulsar3 close 0")


def test_what_the_server_does_is_told_while_it_does_it(page, server):
    server.client().send("sleep 600\n")
    page.wait("document.getElementById('running').textContent.startsWith('sleep 600')")
    page.press("6")
    page.wait("document.getElementById('status').textContent.includes('command sleep')")
    picture(page, "server")
    server.interrupt()
    page.wait("document.getElementById('running').textContent === 'idle'")


def test_a_browser_that_is_stopped_and_goes_on_shows_the_newest(page, spectra):
    name, data = spectra
    choose(page, name)
    page.run("display.tabs.spectra.zoom([0, 99])")
    wait_drawn(page, [data[0, :100]])
    processes = page.processes()
    assert len(processes) > 2
    for p in processes:
        with contextlib.suppress(ProcessLookupError):
            os.kill(p, signal.SIGSTOP)
    for value in range(20):
        data[0, :100] = value
        time.sleep(0.1)
    for p in processes:
        with contextlib.suppress(ProcessLookupError):
            os.kill(p, signal.SIGCONT)
    wait_drawn(page, [data[0, :100]])


def test_pages_follow_announcements_and_reconnect(page, start, server, client, names):
    client.lines(f"client define '127.0.0.1' {page.display.port} imgd")
    client.lines("imgd enable all")
    for shape, tab in (("32 32", "image"), ("512 1", "spectra")):
        name = names(tab)
        client.lines(f"module create '{name}' {shape} header")
        client.lines(f"module open '{name}' header")
        page.wait(f"display.open === '{tab}'")
    page.run("const live = display.live, told = live.onState; display.states = [];"
             "live.onState = (state) => { display.states.push(state); told.call(live, state); }; live.socket.close()")
    page.wait("display.states.join() === 'connection lost,live' && display.state === 'live'")


def test_saving_gives_the_numbers_and_the_picture(page, spectra, tmp_path):
    page.driver.execute_cdp_cmd("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": str(tmp_path)})
    name, data = spectra
    choose(page, name)
    page.run("display.tabs.spectra.zoom([10, 29])")
    wait_drawn(page, [data[0, 10:30]])
    page.press("c", "p")
    csv, png = tmp_path / f"{name}.csv", tmp_path / f"{name}.png"
    wait_until(lambda: all(path.exists() and path.stat().st_size for path in (csv, png)), "saved files")
    lines = csv.read_text().splitlines()
    assert lines[0] == "channel,energy,channel 0 frame 0"
    assert lines[1:] == [f"{x},{x},{data[0, x]}" for x in range(10, 30)]
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


def test_a_view_of_nothing_says_that_there_is_nothing_to_save(page):
    page.run("display.take = () => {}; display.takeModules([]); display.choose('gone');"  # whatever other tests have
             "Object.assign(display.tabs.fit, {data: null}); Object.assign(display.tabs.rates, {head: null, lost: []})")
    for tab in "123456":
        for key, form in ("p", "PNG"), ("c", "CSV"):
            page.press(tab, "+", "-", "f", "l", "r", "\ue012", "\ue014", key)  # arrows, too, find nothing
            assert page.run("return document.getElementById('saved').innerText") == f"Nothing here to save as {form}"
    page.press("1")
    assert page.run("return document.getElementById('saved').innerText") == ""


def test_titles_are_text_and_nothing_comes_from_elsewhere(page, client, names):
    name = names("hostile")
    client.lines(f"module create '{name}' 32 1 header")
    Module(name).head["title"] = b"<img src=x onerror=display.hacked=1>"
    page.wait(f"display.named('{name}')?.title.startsWith('<img')")
    assert page.run("return display.hacked") is None
    urls = page.run("return performance.getEntriesByType('resource').map((e) => e.name)")
    assert urls and all(url.startswith(page.display.url) for url in urls)


def test_a_small_and_dark_screen(page, spectra):
    name, _ = spectra
    page.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": "dark"}]})
    page.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                {"width": 390, "height": 800, "deviceScaleFactor": 2, "mobile": True})
    choose(page, name)
    page.wait("display.tabs.spectra.plot?.width < 390")
    assert page.run("return document.documentElement.scrollWidth") <= 390
    assert page.run("return getComputedStyle(document.body).backgroundColor") == "rgb(20, 23, 28)"
    picture(page, "small")


def test_the_metrics_are_what_prometheus_reads(start, server, client):
    display = start(kind=Display, server_port=server.port)
    for line in ("sleep 0.01", "close 9", "nothing"):
        client.lines(line)
    import urllib.error
    import urllib.request

    def metrics():
        try:
            return urllib.request.urlopen(display.url + "metrics", timeout=20).read()
        except urllib.error.HTTPError:
            return b""

    text = wait_until(lambda: b'command="sleep"' in metrics() and metrics(), "metrics")
    judged = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, timeout=60)
    assert (judged.returncode, judged.stdout, judged.stderr) == (0, b"", b"")
