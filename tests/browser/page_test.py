#!/usr/bin/python3
"""The search page in headless Chromium against the real programs on a private bus."""
import json
import os
import subprocess
import time
import unittest
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By

# Started by GatewayPage in web_gateway_test.cpp, which runs the stack and the gateway: where
# they are comes in the environment (and DBUS_SYSTEM_BUS_ADDRESS for recsearch).
URL, TOKEN, BIN = os.environ["RS_PAGE_URL"], os.environ["RS_PAGE_TOKEN"], os.environ["RS_BIN_DIR"]
HOUR = ("2024-01-01T00:00:00Z", "2024-01-01T01:00:00Z")
WAIT = 20  # seconds: every wait is bounded and says what it waited for


def wait_until(what, check, timeout=WAIT):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        result = check()
        if result:
            return result
        time.sleep(0.05)
    raise AssertionError(f"waited {timeout} s for {what}")


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
        options = Options()
        for argument in ["--headless=new", "--no-sandbox", "--window-size=1280,1000"]:
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.driver = webdriver.Chrome(options=options)

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()

    def setUp(self):
        self.driver.get(URL + "/")
        self.driver.execute_script("sessionStorage.clear()")
        self.driver.get(URL + "/")
        self.driver.get_log("browser")  # what earlier tests left

    def el(self, id_):
        return self.driver.find_element(By.ID, id_)

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

    def test_loads_clean_and_asks_for_nothing_off_the_gateway(self):
        self.search("events", *HOUR)
        self.el("end").send_keys("\n")  # Enter runs the search
        self.finished()
        errors = [e for e in self.driver.get_log("browser") if e["level"] == "SEVERE"]
        self.assertEqual(errors, [])
        origins = self.driver.execute_script(
            "return performance.getEntriesByType('resource').map(e => new URL(e.name).origin)")
        self.assertEqual(set(origins) - {URL}, set())

    def test_a_wrong_token_is_said_and_a_right_one_is_kept_for_the_tab(self):
        self.sign_in("not-the-token")
        message = wait_until("the refusal", lambda: self.el("token-error").text)
        self.assertIn("not accepted", message)
        self.sign_in()
        wait_until("the search form", lambda: self.el("app").is_displayed())
        self.driver.refresh()
        wait_until("the form again without a token", lambda: self.el("app").is_displayed())

    def test_a_drawn_region_and_a_class_give_the_appearances_of_the_api(self):
        self.search("appearances", "2024-01-01T00:00:00Z", "2024-01-01T00:20:00Z")
        self.el("start").click()
        self.driver.find_element(By.CSS_SELECTOR, "input[value=person]").click()
        frame = self.el("frame")
        width, height = frame.size["width"], frame.size["height"]
        ActionChains(self.driver).move_to_element_with_offset(frame, -width // 2 + 1, -height // 2 + 1) \
            .click_and_hold().move_by_offset(width // 2, height - 2).release().perform()
        region = [self.el(f"region-{e}").get_attribute("value") for e in ("left", "top", "right", "bottom")]
        self.assertEqual(region[0], "0")
        wait_until("the expression", lambda: "BoundingBox" in self.el("xpath").get_attribute("value"))
        self.el("run").click()
        self.finished()
        rows = [[td.text for td in tr.find_elements(By.TAG_NAME, "td")]
                for tr in self.driver.find_elements(By.CSS_SELECTOR, "#results tbody tr")]
        lines = api("metadata", {"start": "2024-01-01T00:00:00Z", "end": "2024-01-01T00:20:00Z",
                                            "class": ["person"], "region": region, "spans": "2s"})
        spans = [[l["start"], l["end"], str(l["matches"])] for l in lines if l.get("kind") == "span"]
        self.assertGreater(len(spans), 0)
        self.assertEqual([[r[0], r[1], r[3]] for r in rows], spans)

    def test_stop_ends_the_search_on_the_service_and_says_how_far_it_got(self):
        self.search("appearances", *HOUR)
        self.el("xpath").send_keys("/")
        self.el("run").click()
        wait_until("a result", lambda: self.driver.find_elements(By.CSS_SELECTOR, "#results tbody tr"))
        self.el("stop").click()
        message = self.finished()
        self.assertRegex(message, r"^Stopped after \d+ results: searched through 2024-01-01T00:")
        job = self.driver.execute_script("return performance.getEntriesByType('resource')"
                                         ".map(e => e.name).filter(n => n.includes('/searches/'))")
        self.assertEqual(len(job), 1)
        self.assertEqual(search_state(job[0].rsplit("/", 1)[1]), "unknown")

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

    def test_the_events_picture_and_the_coverage_bars_appear(self):
        self.search("events", "2024-01-01T00:00:00Z", "2024-01-01T00:10:00Z")
        self.el("run").click()
        picture = wait_until("the picture", lambda: self.el("picture").is_displayed() and self.el("picture"))
        wait_until("the picture to load", lambda: self.driver.execute_script(
            "return arguments[0].complete && arguments[0].naturalWidth > 0", picture))
        self.el("tab-coverage").click()
        self.el("end").clear()
        self.el("end").send_keys(HOUR[1])
        self.el("run").click()
        self.finished()
        bars = self.driver.find_elements(By.CSS_SELECTOR, "#bars .bar")
        self.assertEqual(len(bars), 4)  # an hour in buckets of 15 minutes
        self.assertTrue(self.driver.find_elements(By.CSS_SELECTOR, "#gaps li"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
