#!/usr/bin/python3
"""The search page in headless Chromium against the real programs on a private bus."""
import json
import os
import signal
import subprocess
import unittest
import urllib.error
import urllib.request

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select

from browser import chromium, wait_until

# Started by GatewayPage in web_gateway_test.cpp, which runs the stack and the gateway: where
# they are comes in the environment (and DBUS_SYSTEM_BUS_ADDRESS for recsearch).
URL, TOKEN, BIN = os.environ["RS_PAGE_URL"], os.environ["RS_PAGE_TOKEN"], os.environ["RS_BIN_DIR"]
SERVICE_PID = int(os.environ.get("RS_SERVICE_PID", "0"))
SHOTS = os.environ.get("RS_SCREENSHOT_DIR", "")
HOUR = ("2024-01-01T00:00:00Z", "2024-01-01T01:00:00Z")
WAIT = 20  # seconds: every wait is bounded and says what it waited for


def request(path, body):
    return urllib.request.urlopen(urllib.request.Request(
        f"{URL}/api/v1/{path}", data=json.dumps(body).encode(),
        headers={"Authorization": f"Bearer {TOKEN}", "Content-Type": "application/json"}),
        timeout=WAIT)


def api(path, body):
    """The lines the API answers for a request, as objects."""
    with request(path, body) as response:
        return [json.loads(line) for line in response.read().decode().splitlines()]


def search_state(job):
    out = subprocess.run([f"{BIN}/recsearch", "state", str(job), "--json"],
                         capture_output=True, text=True).stdout
    return json.loads(out)["state_name"]


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.driver = chromium(logs=True)

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()

    def setUp(self):
        self.width(1280)
        self.driver.get(URL + "/")
        self.driver.execute_script("sessionStorage.clear()")
        self.driver.get(URL + "/")
        self.driver.get_log("browser")  # what earlier tests left

    def width(self, pixels):
        """The page as a window this wide (360: a phone) and 900 high shows it."""
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": pixels, "height": 900, "deviceScaleFactor": 1, "mobile": pixels < 500})

    def shot(self, name):
        if SHOTS:
            os.makedirs(SHOTS, exist_ok=True)
            self.driver.save_screenshot(os.path.join(SHOTS, name + ".png"))

    def el(self, id_):
        return self.driver.find_element(By.ID, id_)

    def js(self, script, *args):
        return self.driver.execute_script(script, *args)

    def sign_in(self, token=TOKEN):
        self.el("token").clear()
        self.el("token").send_keys(token + "\n")

    def search(self, view, start, end):
        self.sign_in()
        wait_until("the search form", lambda: self.el("app").is_displayed())
        self.el(f"tab-{view}").click()
        self.el("start").send_keys(start)
        self.el("end").send_keys(end)

    def finished(self):
        return wait_until("the search to finish", lambda: self.el("run").is_enabled()
                          and self.el("message").text, 60)

    def rows(self):
        return self.driver.find_elements(By.CSS_SELECTOR, "#results tbody tr")

    # The page as a whole.

    def test_loads_clean_and_asks_for_nothing_off_the_gateway(self):
        self.search("events", *HOUR)
        self.el("end").send_keys("\n")  # Enter runs the search
        self.finished()
        errors = [e for e in self.driver.get_log("browser") if e["level"] == "SEVERE"]
        self.assertEqual(errors, [])
        origins = self.js("return performance.getEntriesByType('resource').map(e => new URL(e.name).origin)")
        self.assertEqual(set(origins) - {URL}, set())

    def test_a_wrong_token_is_said_and_a_right_one_is_kept_for_the_tab(self):
        self.sign_in("not-the-token")
        message = wait_until("the refusal", lambda: self.el("token-error").text)
        self.assertIn("not accepted", message)
        self.sign_in()
        wait_until("the search form", lambda: self.el("app").is_displayed())
        self.driver.refresh()
        wait_until("the form again without a token", lambda: self.el("app").is_displayed())

    def test_times_in_either_zone_presets_and_the_backward_notice(self):
        self.sign_in()
        wait_until("the search form", lambda: self.el("app").is_displayed())
        Select(self.el("zone")).select_by_value("utc")
        self.el("start").send_keys("2024-01-01 00:10")
        self.el("end").send_keys("2024-01-01 00:05")
        self.driver.find_element(By.CSS_SELECTOR, "input[value=person]").click()
        self.assertIn("backward", self.el("direction").text)
        self.assertIn("2024-01-01 00:10:00 UTC", self.el("start-local").text)
        self.el("run").click()
        self.finished()
        shown = [r.find_element(By.TAG_NAME, "td").get_attribute("title") for r in self.rows()]
        lines = api("metadata", {"start": "2024-01-01T00:10:00Z", "end": "2024-01-01T00:05:00Z",
                                 "class": ["person"], "spans": "2s"})
        spans = [l["start"] for l in lines if l.get("kind") == "span"]
        self.assertEqual(shown, spans)  # latest first, at full precision on hover
        self.el("start").clear()
        self.el("end").clear()
        self.driver.find_element(By.CSS_SELECTOR, "[data-preset=hour]").click()
        start, end = (self.el(i).get_attribute("value") for i in ("start", "end"))
        span = self.js("return (Date.parse(arguments[1] + 'Z') - Date.parse(arguments[0] + 'Z')) / 1000",
                       start.replace(" ", "T"), end.replace(" ", "T"))
        self.assertEqual(span, 3600)
        self.assertEqual(self.el("direction").text, "")

    def test_a_field_that_is_empty_or_wrong_gets_a_sentence_beside_it(self):
        self.search("appearances", "", "2024-01-01T00:10:00Z")
        self.el("run").click()
        self.assertIn("Enter when to start", wait_until("the empty start", lambda: self.el("start-error").text))
        self.el("start").send_keys(HOUR[0])
        for edge, value in zip(("left", "top", "right", "bottom"), ("0.6", "0", "0.2", "1")):
            self.el(f"region-{edge}").send_keys(value)
        self.el("run").click()
        message = wait_until("the region's sentence", lambda: self.el("region-error").text)
        self.assertIn("left below right", message)
        self.assertNotIn("LEFT", message)

    # Appearances.

    def test_a_drawn_region_and_a_class_give_the_appearances_of_the_api_with_what_appeared(self):
        self.search("appearances", "2024-01-01T00:00:00Z", "2024-01-01T00:20:00Z")
        self.el("start").click()
        self.driver.find_element(By.CSS_SELECTOR, "input[value=person]").click()
        frame = self.el("frame")
        self.js("arguments[0].scrollIntoView({block: 'center'})", frame)
        width, height = frame.size["width"], frame.size["height"]
        ActionChains(self.driver).move_to_element_with_offset(frame, -width // 2 + 1, -height // 2 + 1) \
            .click_and_hold().move_by_offset(width // 2, height - 2).release().perform()
        region = [self.el(f"region-{e}").get_attribute("value") for e in ("left", "top", "right", "bottom")]
        self.assertEqual(region[0], "0")
        wait_until("the expression", lambda: "BoundingBox" in self.el("xpath").get_attribute("value"))
        self.el("run").click()
        message = self.finished()
        rows = [[td.get_attribute("title") or td.text for td in tr.find_elements(By.TAG_NAME, "td")]
                for tr in self.rows()]
        lines = api("metadata", {"start": "2024-01-01T00:00:00Z", "end": "2024-01-01T00:20:00Z",
                                 "class": ["person"], "region": region, "spans": "2s"})
        spans = [l for l in lines if l.get("kind") == "span"]
        self.assertGreater(len(spans), 0)
        self.assertEqual([[r[0], r[1], r[5]] for r in rows], [[l["start"], l["end"], str(l["matches"])] for l in spans])
        matches = next(l["results"] for l in lines if "results" in l)
        self.assertRegex(message, rf"^Finished: {len(spans)} appearances? \({matches} matching frames?\)")
        if "classes" in spans[0]:  # answered from the index: what appeared, and where
            self.assertIn("person", rows[0][3])
            self.assertTrue(self.rows()[0].find_elements(By.CSS_SELECTOR, "svg.boxes rect.end"))
        cells = self.driver.find_elements(By.CSS_SELECTOR, "#strip .cell")
        self.assertEqual(len(cells), 48)
        self.assertEqual(sum(int(c.get_attribute("data-count")) for c in cells), len(spans))
        busiest = max(cells, key=lambda c: int(c.get_attribute("data-count")))
        busiest.click()  # narrows the range to its stretch of 25 s
        start, end = (self.el(i).get_attribute("value") for i in ("start", "end"))
        self.assertNotEqual(start, "2024-01-01T00:00:00Z")
        self.assertLessEqual(self.js("return (Date.parse(arguments[1]) - Date.parse(arguments[0])) / 1000",
                                     start.replace(" ", "T"), end.replace(" ", "T")), 26)

    def test_a_broken_xpath_is_said_beside_it_and_searches_nothing(self):
        self.search("appearances", *HOUR)
        self.el("xpath").send_keys("//Object[")
        self.el("run").click()
        message = wait_until("the XPath's sentence", lambda: self.el("xpath-error").text)
        self.assertIn("cannot be used", message)
        self.assertEqual(self.el("message").text, "")
        self.assertEqual(self.rows(), [])

    def test_a_search_that_finds_nothing_shows_progress_and_its_status_in_view(self):
        self.search("appearances", *HOUR)
        self.el("xpath").send_keys("//Nothing")
        self.el("run").send_keys(Keys.ENTER)
        self.assertEqual(self.js("return document.activeElement.id"), "stop")
        wait_until("progress", lambda: float(self.el("progress").get_attribute("value")) > 0.05)
        self.assertEqual(self.el("status").get_attribute("aria-live"), "polite")
        top = self.js("return document.getElementById('message').getBoundingClientRect().top")
        self.assertTrue(0 <= top < self.js("return innerHeight"), top)
        self.shot("searching-1280")
        self.el("stop").send_keys(Keys.ENTER)
        self.assertRegex(self.finished(), r"^Stopped: 0 appearances \(0 matching frames\); searched through 2024-01-01 00:")
        self.assertEqual(self.js("return document.activeElement.id"), "run")

    def test_stop_ends_the_search_on_the_service_and_says_how_far_it_got(self):
        self.search("appearances", *HOUR)
        self.el("xpath").send_keys("/")
        self.el("run").click()
        wait_until("a result", self.rows)
        self.el("stop").click()
        message = self.finished()
        self.assertRegex(message, r"^Stopped: \d+ appearances? \(\d+ matching frames?\); searched through 2024-01-01 00:")
        job = self.js("return performance.getEntriesByType('resource')"
                      ".map(e => e.name).filter(n => n.includes('/searches/'))")
        self.assertEqual(len(job), 1)
        self.assertEqual(search_state(job[0].rsplit("/", 1)[1]), "unknown")

    def test_stop_before_the_search_has_its_id_still_ends_it(self):
        self.search("appearances", *HOUR)
        self.el("xpath").send_keys("/")
        self.js("document.getElementById('run').click(); document.getElementById('stop').click();")
        self.assertIn("Stopped", self.finished())
        # Had it gone on walking the hour, two more searches would be one too many.
        def two_run():
            try:
                streams = [request("metadata", {"start": HOUR[0], "end": HOUR[1], "xpath": "/"}) for _ in range(2)]
            except urllib.error.HTTPError:
                return False
            for s in streams:
                s.close()
            return True
        wait_until("room for two searches", two_run, 5)

    def test_a_third_search_while_two_run_says_so(self):
        running = [request("metadata", {"start": HOUR[0], "end": HOUR[1], "xpath": ""}) for _ in range(2)]
        try:
            for r in running:
                r.readline()  # the search's first line: it runs
            self.search("events", *HOUR)
            self.el("run").click()
            message = wait_until("the limit", lambda: self.el("problem").text)
            self.assertIn("Two searches are already running", message)
        finally:
            for r in running:
                r.close()

    # Events and coverage.

    def test_the_events_picture_the_coverage_chart_and_no_stale_rows(self):
        self.search("events", "2024-01-01T00:00:00Z", "2024-01-01T00:10:00Z")
        Select(self.el("zone")).select_by_value("utc")
        self.el("run").click()
        picture = wait_until("the picture", lambda: self.el("picture").is_displayed() and self.el("picture"))
        wait_until("the picture to load", lambda: self.js(
            "return arguments[0].complete && arguments[0].naturalWidth > 0", picture))
        self.assertRegex(self.el("message").text, r"^Finished: \d+ events? in")
        self.shot("events-1280")
        self.el("tab-coverage").click()
        self.assertEqual(self.rows(), [])  # nothing of the events view is left to download
        self.assertFalse(self.el("download-csv").is_enabled())
        self.el("end").clear()
        self.el("end").send_keys(HOUR[1])
        self.el("run").click()
        self.finished()
        bars = self.driver.find_elements(By.CSS_SELECTOR, "#bars .bar")
        self.assertEqual(len(bars), 4)  # an hour in buckets of 15 minutes
        self.assertRegex(bars[0].find_element(By.TAG_NAME, "small").text, r"^\d+ %$")
        self.assertEqual(self.el("bars-from").text, "2024-01-01 00:00:00")
        self.assertTrue(self.driver.find_elements(By.CSS_SELECTOR, "#gaps li"))
        self.assertEqual(self.el("gaps-heading").text, "Not recorded")
        self.assertTrue(self.el("download-csv").is_enabled())
        self.el("tab-events").click()  # the events found before are still there
        self.assertRegex(self.el("message").text, r"^Finished: \d+ events? in")
        self.assertTrue(self.rows())
        self.assertTrue(self.el("download-csv").is_enabled())
        self.assertTrue(self.el("picture").is_displayed())

    def test_the_layout_at_1280_and_at_360(self):
        self.search("appearances", "2024-01-01T00:00:00Z", "2024-01-01T00:10:00Z")
        self.assertLess(self.el("region-left").size["width"], 100)
        self.driver.find_element(By.CSS_SELECTOR, "input[value=person]").click()
        self.driver.find_element(By.CSS_SELECTOR, "input[value=vehicle]").click()
        self.el("minLikelihood").send_keys("0.5\t")
        self.el("colour").send_keys("red")
        wait_until("a long expression", lambda: len(self.el("xpath").get_attribute("value")) > 150)
        self.assertLessEqual(self.js("const x = document.getElementById('xpath'); return x.scrollHeight - x.clientHeight"), 2)
        self.assertLess(self.el("run").rect["y"] + self.el("run").rect["height"], 900)  # on the first screen
        self.assertTrue(self.el("start").get_attribute("placeholder").startswith("e.g."))
        self.el("run").click()
        self.finished()
        self.assertLess(self.js("return document.getElementById('run').getBoundingClientRect().bottom"), 900)
        self.assertEqual([th.text for th in self.driver.find_elements(By.CSS_SELECTOR, "#results th")][5], "matching frames")
        self.shot("appearances-1280")
        self.width(360)
        self.assertFalse(self.el("results").find_element(By.TAG_NAME, "thead").is_displayed())
        cell = self.rows()[0].find_element(By.TAG_NAME, "td")
        self.assertEqual(cell.get_attribute("data-label"), "start")
        self.assertLessEqual(self.js("return document.documentElement.scrollWidth"), 360)
        self.shot("appearances-360")
        # While a search runs, Stop is in view wherever the page is scrolled.
        self.el("xpath").clear()
        self.el("xpath").send_keys("/")
        self.el("run").click()
        wait_until("the search to run", lambda: self.el("stop").is_enabled())
        for scroll in (0, 100000):
            self.js("scrollTo(0, arguments[0])", scroll)
            stop = self.js("const r = document.getElementById('stop').getBoundingClientRect(); return [r.top, r.bottom]")
            self.assertTrue(0 <= stop[0] and stop[1] <= 900, stop)
        self.el("stop").click()
        self.finished()
        self.el("tab-events").click()
        self.el("run").click()
        wait_until("the picture", lambda: self.el("picture").is_displayed())
        box = self.el("picture-box")
        wait_until("the picture to load", lambda: self.js("return arguments[0].complete", self.el("picture")))
        self.assertLessEqual(self.js("return arguments[0].scrollWidth - arguments[0].clientWidth", box), 0)
        self.assertLessEqual(self.el("picture").size["width"], 360)
        # The start state is one row per track; the same change at the same instant is not repeated.
        rows = [[td.text for td in r.find_elements(By.TAG_NAME, "td")] for r in self.rows()]
        at_start = [r[1:3] for r in rows if r[0] == rows[0][0]]
        self.assertEqual(len(at_start), len({tuple(r) for r in at_start}), at_start)
        self.assertLessEqual(self.js("return document.documentElement.scrollWidth"), 360)
        self.shot("events-360")
        # Three hours in buckets of a minute: 180 bars that do not widen the page.
        self.el("tab-coverage").click()
        Select(self.el("bucket")).select_by_visible_text("1m")
        self.el("end").clear()
        self.el("end").send_keys("2024-01-01T03:00:00Z")
        self.el("run").click()
        self.finished()
        self.assertEqual(len(self.driver.find_elements(By.CSS_SELECTOR, "#bars .bar")), 180)
        self.assertLessEqual(self.js("return document.documentElement.scrollWidth"), 360)
        self.shot("coverage-360")
        # Buckets fall on the zone's whole hours however the range starts.
        self.width(1280)
        Select(self.el("zone")).select_by_value("utc")
        Select(self.el("bucket")).select_by_visible_text("1h")
        self.el("start").clear()
        self.el("start").send_keys("2024-01-01 00:30")
        self.el("run").click()
        self.finished()
        self.assertEqual([r.find_elements(By.TAG_NAME, "td")[1].text for r in self.rows()], ["01:00:00", "02:00:00", "03:00:00"])


    # What the page knows, said; what was found, kept.

    def signed_in(self):
        self.sign_in()
        wait_until("the search form", lambda: self.el("app").is_displayed())
        Select(self.el("zone")).select_by_value("utc")

    def test_the_recordings_span_is_said_and_a_range_without_it_finds_nothing_recorded(self):
        for pixels in (1280, 360):
            self.width(pixels)
            self.driver.execute_script("sessionStorage.clear()")
            self.driver.get(URL + "/")
            self.signed_in()
            said = wait_until("the recording's span", lambda: self.el("recorded").text)
            self.assertIn("from 2024-01-01 00:00:00 to 2024-01-01 01:00:00", said)
            self.el("preset-recorded").click()
            self.assertEqual([self.el(i).get_attribute("value") for i in ("start", "end")],
                             ["2024-01-01 00:00:00", "2024-01-01 01:00:00"])
            self.el("start").clear()
            self.el("end").clear()
            self.el("start").send_keys("2025-03-01 10:00")
            self.el("end").send_keys("2025-03-01 11:00")
            self.assertIn("after its end", self.el("recorded").text)
            self.el("tab-events").click()
            self.el("run").click()
            self.assertEqual(self.finished(), "Nothing was recorded between 2025-03-01 10:00:00 and 2025-03-01 11:00:00.")
            self.shot(f"nothing-recorded-{pixels}")

    def test_another_zone_shows_every_row_and_the_typed_range_at_the_same_instant(self):
        self.driver.execute_cdp_cmd("Emulation.setTimezoneOverride", {"timezoneId": "America/New_York"})
        try:
            self.driver.get(URL + "/")
            self.signed_in()
            self.el("start").send_keys("2024-01-01 00:00")
            self.el("end").send_keys("2024-01-01 00:15")
            self.el("tab-events").click()
            self.el("run").click()
            self.finished()
            first = self.rows()[0].find_element(By.TAG_NAME, "td")
            self.assertEqual(first.text, "2024-01-01 00:00:00")
            self.js("const f = window.fetch; window.pictureBodies = [];"
                    "window.fetch = (u, o) => { if (String(u).endsWith('/picture')) window.pictureBodies.push(o.body); return f(u, o); };")
            Select(self.el("zone")).select_by_value("local")
            self.assertEqual(self.el("start").get_attribute("value"), "2023-12-31 19:00:00")
            self.assertEqual(self.rows()[0].find_element(By.TAG_NAME, "td").text, "2023-12-31 19:00:00")
            self.assertIn("2023-12-31 19:00:00", self.el("recorded").text)
            self.assertIn("America/New_York", self.el("zone-local").text)
            # The picture is drawn again in New York's clock.
            bodies = wait_until("the picture asked again", lambda: [b for b in self.js("return window.pictureBodies")
                                                                   if '"utcOffset":-300' in b], 20)
            self.assertTrue(bodies)
            self.shot("events-new-york-1280")
        finally:
            self.driver.execute_cdp_cmd("Emulation.setTimezoneOverride", {"timezoneId": ""})

    def test_the_notices_say_how_it_searched_and_walked_rows_say_what_is_not_known(self):
        self.signed_in()
        self.el("start").send_keys("2024-01-01 00:00")
        self.el("end").send_keys("2024-01-01 00:05")
        self.driver.find_element(By.CSS_SELECTOR, "input[value=person]").click()
        self.el("run").click()
        self.finished()
        self.assertIn("recording_index is not running", self.el("notices").text)
        self.assertIn("Found by walking", self.el("how").text)
        self.assertIn("not known", self.rows()[0].text)

    def test_the_strip_has_a_caption_an_axis_and_searches_a_stretch_from_the_keyboard(self):
        self.signed_in()
        self.el("start").send_keys("2024-01-01 00:00")
        self.el("end").send_keys("2024-01-01 00:48")
        self.el("tab-events").click()
        self.el("run").click()
        self.finished()
        strip = self.el("strip")
        self.assertEqual(strip.get_attribute("role"), "slider")
        self.assertIn("48 stretches", self.el("strip-caption").text)
        self.assertEqual(self.el("strip-from").text, "2024-01-01 00:00:00")
        strip.send_keys(Keys.ARROW_RIGHT, Keys.ARROW_RIGHT)
        self.assertTrue(strip.get_attribute("aria-valuetext").startswith("2024-01-01 00:02:00 to 2024-01-01 00:03:00:"))
        self.assertIn("00:02:00 to", self.driver.find_elements(By.CSS_SELECTOR, "#strip .cell")[2].get_attribute("title"))
        strip.send_keys(Keys.ENTER)  # narrows to the stretch and searches it
        wait_until("the narrowed search", lambda: self.el("start").get_attribute("value") == "2024-01-01 00:02:00"
                   and self.el("run").is_enabled() and self.el("message").text.startswith("Finished"))
        self.assertEqual(self.el("end").get_attribute("value"), "2024-01-01 00:03:00")

    def test_a_bad_field_takes_the_focus_and_the_button_names_it(self):
        self.signed_in()
        self.el("start").send_keys("2024-02-30 10:00")
        self.el("end").send_keys("2024-03-01 10:00")
        self.el("run").click()
        self.assertIn("no such date or time", wait_until("the date's sentence", lambda: self.el("start-error").text))
        self.assertEqual(self.js("return document.activeElement.id"), "start")
        self.assertIn("From", self.el("run-error").text)
        self.el("start").clear()
        self.el("start").send_keys("2024-01-01 00:00")
        self.el("end").clear()
        self.el("end").send_keys("2024-01-01 00:05")
        self.el("xpath").send_keys("count(//tt:Object) > 0")
        self.el("run").click()
        self.assertIn("does not compile", wait_until("the XPath's sentence", lambda: self.el("xpath-error").text))
        self.assertEqual(self.js("return document.activeElement.id"), "xpath")

    def test_an_own_xpath_turns_the_filters_off_until_asked_back(self):
        self.signed_in()
        self.driver.find_element(By.CSS_SELECTOR, "input[value=person]").click()
        wait_until("the filter's XPath", lambda: "person" in self.el("xpath").get_attribute("value"))
        self.assertFalse(self.el("filters-off").is_displayed())
        self.el("xpath").send_keys(Keys.END, " or //Frame")
        self.assertTrue(self.el("filters-off").is_displayed())
        self.assertFalse(self.driver.find_element(By.CSS_SELECTOR, "input[value=vehicle]").is_enabled())
        self.driver.find_element(By.XPATH, "//button[text()='Use the filters instead']").click()
        self.assertTrue(self.driver.find_element(By.CSS_SELECTOR, "input[value=vehicle]").is_enabled())
        wait_until("the filter's XPath again", lambda: self.el("xpath").get_attribute("value").startswith("//")
                   and "or //Frame" not in self.el("xpath").get_attribute("value"))

    def test_an_appearance_at_the_ranges_edge_is_marked_cut_in_the_row_and_the_csv(self):
        lines = api("metadata", {"start": HOUR[0], "end": HOUR[1], "class": ["person"], "spans": "2s"})
        long = next(l for l in lines if l.get("kind") == "span" and l["end_sec"] - l["start_sec"] >= 6)
        middle = long["start_sec"] + 3
        self.signed_in()
        self.el("start").send_keys(str(middle))
        self.el("end").send_keys(str(middle + 120))
        self.driver.find_element(By.CSS_SELECTOR, "input[value=person]").click()
        self.el("run").click()
        self.finished()
        self.assertIn("began before", self.rows()[0].find_element(By.CSS_SELECTOR, ".cut").text)
        csv = self.driver.execute_async_script(
            "const done = arguments[0]; const [make, click] = [URL.createObjectURL, HTMLAnchorElement.prototype.click];"
            "HTMLAnchorElement.prototype.click = () => {};"
            "URL.createObjectURL = (blob) => { blob.text().then(done); return 'about:blank'; };"
            "document.getElementById('download-csv').click();"
            "URL.createObjectURL = make; HTMLAnchorElement.prototype.click = click;")
        head, first = csv.split("\r\n")[:2]
        self.assertTrue(head.endswith('"box_at_start","box_at_end","cut"'), head)
        self.assertTrue(first.endswith('"before"'), first)

    # Last (the name sorts last): it kills the service of the stack.
    def test_a_csv_cell_from_a_device_is_never_a_formula(self):
        cells = self.driver.execute_async_script(
            "const done = arguments[0];"
            "import('/views.js').then((v) => done(['=1+1', '+A1', '-2+3', '@SUM(A1)', '\\tx',"
            " 'plain \"quoted\"', 0.5, -3].map(v.csvCell)));")
        self.assertEqual(cells, ['"\'=1+1"', '"\'+A1"', '"\'-2+3"', '"\'@SUM(A1)"', '"\'\tx"',
                                 '"plain ""quoted"""', '"0.5"', '"-3"'])

    def test_zz_the_service_going_away_is_said_plainly_and_the_header_follows(self):
        self.search("appearances", *HOUR)
        self.assertEqual(wait_until("the status", lambda: self.el("service").text), "Search service running")
        self.el("xpath").send_keys("/")
        self.el("run").click()
        wait_until("a result", self.rows)
        os.kill(SERVICE_PID, signal.SIGKILL)
        message = wait_until("the sentence", lambda: self.el("problem").text)
        self.assertIn("search service on the device stopped during the search", message)
        self.assertNotIn("went away", message)
        self.assertTrue(wait_until("the search to end", lambda: self.el("run").is_enabled()))
        self.assertNotIn("Searching", self.el("message").text)
        self.assertEqual(wait_until("the header to follow", lambda: "not running" in self.el("service").text
                                    and self.el("service").text, 15), "The search service is not running")


if __name__ == "__main__":
    unittest.main(verbosity=2)
