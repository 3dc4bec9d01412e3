#!/usr/bin/python3
"""The page of a hub (a gateway with a devices file and no device of its own) in headless
Chromium: it reads as a hub, its devices' results come in one list in time order with a device
column, coverage is drawn per device, and a device stopped mid-search is said in plain words."""
import os
import signal
import unittest

from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select

from browser import chromium, wait_until

# Started by Devices.HubStreamsTheMerge... in devices_test.cpp, with the hub's address and token,
# and the process of the last device's gateway, which this test stops for a while.
URL, TOKEN = os.environ["RS_HUB_URL"], os.environ["RS_HUB_TOKEN"]
DEVICES = os.environ["RS_HUB_DEVICES"].split(",")
STOP_PID = int(os.environ["RS_HUB_STOP_PID"])
SHOTS = os.environ.get("RS_SCREENSHOT_DIR", "")


class HubPageTest(unittest.TestCase):
    def setUp(self):
        self.driver = chromium()
        self.driver.get(URL + "/")
        self.el("token").send_keys(TOKEN + "\n")
        wait_until("the search form", lambda: self.el("app").is_displayed(), 30)
        Select(self.el("zone")).select_by_value("utc")

    def tearDown(self):
        self.driver.quit()

    def el(self, id_):
        return self.driver.find_element(By.ID, id_)

    def run_search(self):
        self.el("run").click()
        return wait_until("the end", lambda: self.el("run").is_enabled() and self.el("message").text, 60)

    def rows(self):
        return [[td.get_attribute("title") or td.text for td in tr.find_elements(By.TAG_NAME, "td")]
                for tr in self.driver.find_elements(By.CSS_SELECTOR, "#results tbody tr")]

    def test_a_hub_searches_all_its_devices_in_one_list_and_draws_each_ones_coverage(self):
        self.assertEqual(wait_until("the header", lambda: self.el("service").text), f"Hub for {len(DEVICES)} devices")
        boxes = self.driver.find_elements(By.CSS_SELECTOR, "input[name=device]")
        self.assertEqual([b.get_attribute("value") for b in boxes], DEVICES)
        self.assertTrue(all(b.is_selected() for b in boxes))
        boxes[0].click()  # all but the first
        self.el("tab-events").click()
        self.el("start").send_keys("2024-01-01T00:00:00Z")
        self.el("end").send_keys("2024-01-01T00:10:00Z")
        self.assertRegex(self.run_search(), r"^Finished: \d+ events")
        head = [th.text for th in self.driver.find_elements(By.CSS_SELECTOR, "#results thead th")]
        self.assertEqual(head[0], "device")
        rows = self.rows()
        self.assertEqual({r[0] for r in rows}, set(DEVICES[1:]))
        times = [r[1] for r in rows]
        self.assertEqual(times, sorted(times))
        for device in DEVICES[1:]:
            self.assertRegex(self.el("how").text, rf"{device}: completed, \d+ results")
        self.el("tab-coverage").click()
        self.run_search()
        names = [n.text for n in self.driver.find_elements(By.CSS_SELECTOR, ".device-chart .device-name")]
        self.assertEqual(sorted(names), sorted(DEVICES[1:]))
        if SHOTS:
            self.driver.save_screenshot(os.path.join(SHOTS, "hub-coverage-1280.png"))

    def test_a_device_stopped_mid_search_is_said_with_what_it_leaves_out(self):
        self.el("start").send_keys("2024-01-01T00:00:00Z")
        self.el("end").send_keys("2024-01-01T01:00:00Z")
        self.el("xpath").send_keys("/")  # every document: a walk of the hour on each device
        self.el("run").click()
        wait_until("the first rows", lambda: self.driver.find_elements(By.CSS_SELECTOR, "#results tbody tr"), 30)
        os.kill(STOP_PID, signal.SIGSTOP)
        label = self.driver.find_element(By.CSS_SELECTOR, f"input[value={DEVICES[-1]}]").find_element(By.XPATH, "..")
        try:
            # Silent, it is waited for before it is dropped.
            waited = wait_until("the device waited for", lambda: "waiting for its answer" in label.text
                                or self.el("problem").text, 30)
            said = wait_until("the stopped device", lambda: self.el("problem").text, 30)
        finally:
            os.kill(STOP_PID, signal.SIGCONT)
        self.assertIs(waited, True)
        self.assertNotIn("waiting", label.text)
        self.assertRegex(said, rf"^{DEVICES[-1]}: no results after 2024-01-01 00:\d\d:\d\d \(its gateway stopped answering\)\.$")
        self.assertNotRegex(said, r"HTTP|curl|stream|timed out")
        self.el("stop").click()
        wait_until("the end", lambda: self.el("run").is_enabled(), 30)


if __name__ == "__main__":
    unittest.main(verbosity=2)
