#!/usr/bin/python3
"""The page of a hub (a gateway with a devices file) in headless Chromium: the devices to tick,
and one list of their results in time order with a device column."""
import os
import unittest

from selenium.webdriver.common.by import By

from browser import chromium, wait_until

# Started by Devices.HubStreamsTheMerge... in devices_test.cpp, with the hub's address and token.
URL, TOKEN = os.environ["RS_HUB_URL"], os.environ["RS_HUB_TOKEN"]
DEVICES = os.environ["RS_HUB_DEVICES"].split(",")


class HubPageTest(unittest.TestCase):
    def test_ticked_devices_answer_in_one_list_in_time_order(self):
        driver = chromium()
        try:
            driver.get(URL + "/")
            driver.find_element(By.ID, "token").send_keys(TOKEN + "\n")
            boxes = wait_until("the devices", lambda: driver.find_elements(By.CSS_SELECTOR, "input[name=device]"), 30)
            self.assertEqual([b.get_attribute("value") for b in boxes], DEVICES)
            for box in boxes[:2]:
                box.click()
            driver.find_element(By.ID, "tab-events").click()
            driver.find_element(By.ID, "start").send_keys("2024-01-01T00:00:00Z")
            driver.find_element(By.ID, "end").send_keys("2024-01-01T00:10:00Z")
            driver.find_element(By.ID, "run").click()
            message = wait_until("the end", lambda: driver.find_element(By.ID, "run").is_enabled()
                                 and driver.find_element(By.ID, "message").text, 30)
            self.assertRegex(message, r"^Finished: \d+ events")
            head = [th.text for th in driver.find_elements(By.CSS_SELECTOR, "#results thead th")]
            self.assertEqual(head[0], "device")
            rows = [[td.get_attribute("title") or td.text for td in tr.find_elements(By.TAG_NAME, "td")]
                    for tr in driver.find_elements(By.CSS_SELECTOR, "#results tbody tr")]
            self.assertEqual({r[0] for r in rows}, set(DEVICES[:2]))
            times = [r[1] for r in rows]
            self.assertEqual(times, sorted(times))
        finally:
            driver.quit()


if __name__ == "__main__":
    unittest.main(verbosity=2)
