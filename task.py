import glob, os, sys, time
from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select
width = int(sys.argv[1]); dl = f"/tmp/person/dl{width}"; os.makedirs(dl, exist_ok=True)
o = Options()
for a in ["--headless=new", "--no-sandbox", "--window-size=1280,900"]: o.add_argument(a)
o.add_experimental_option("prefs", {"download.default_directory": dl})
d = webdriver.Chrome(options=o)
d.execute_cdp_cmd("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": dl})
if width < 500: d.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {"width": width, "height": 800, "deviceScaleFactor": 1, "mobile": True})
d.get("http://127.0.0.1:18700/")
d.find_element(By.ID, "token").send_keys("tok\n"); time.sleep(1)
Select(d.find_element(By.ID, "zone")).select_by_value("utc")
d.find_element(By.ID, "start").send_keys("2024-01-01 00:00")
d.find_element(By.ID, "end").send_keys("2024-01-01 00:30")
d.find_element(By.CSS_SELECTOR, "input[value=vehicle]").click()
Select(d.find_element(By.ID, "colour")).select_by_visible_text("red")
time.sleep(0.5)
d.find_element(By.ID, "run").click()
for _ in range(100):
    if d.find_element(By.ID, "run").is_enabled() and d.find_element(By.ID, "message").text: break
    time.sleep(0.1)
print(width, d.find_element(By.ID, "message").text)
d.save_screenshot(f"/tmp/person/result{width}.png")
b = d.find_element(By.ID, "download-csv"); d.execute_script("arguments[0].scrollIntoView()", b); b.click(); time.sleep(1.5)
for f in glob.glob(dl + "/*"): print(f, open(f).read().splitlines()[:3])
d.quit()
