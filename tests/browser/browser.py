"""What the browser tests share: headless Chromium, and bounded waits that say what they waited for."""
import time

from selenium import webdriver
from selenium.webdriver.chrome.options import Options


def chromium(logs=False):
    options = Options()
    for argument in ["--headless=new", "--no-sandbox", "--window-size=1280,900"]:
        options.add_argument(argument)
    if logs:
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(options=options)


def wait_until(what, check, timeout=20):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        result = check()
        if result:
            return result
        time.sleep(0.05)
    raise AssertionError(f"waited {timeout} s for {what}")
