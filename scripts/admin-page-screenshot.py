"""The README's picture of the page (docs/admin-page.png): a signed-in account,
its purchases listed and a soft refusal to sign out, at 820 pixels wide.

    /usr/bin/python3 tests/browser/readme_screenshot.py docs/admin-page.png
"""
import os, shutil, sys, tempfile
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
BUILD = os.path.join(HERE, "..", "..", "build", "default")
os.environ.setdefault("WEBAPI_HOST", os.path.join(BUILD, "webapi-host"))
os.environ.setdefault("PELLIXCENTER_SO", os.path.join(BUILD, "pellixcenter.so"))
import admin_page_test as t
from selenium.webdriver.common.by import By
folder = tempfile.mkdtemp()
host = t.DevHost(folder)
driver, profile = t.chromium()
try:
    host.entry(t.CENTER, 2, "register", account=t.EMAIL, password=t.PASSWORD, fullname="Ada Lovelace", critical_release=True, country="UK")
    driver.set_window_size(820, 1000)
    driver.get(host.url)
    t.WebDriverWait(driver, 30).until(t.EC.text_to_be_present_in_element((By.CSS_SELECTOR, "#st-account"), "Signed in"))
    t.WebDriverWait(driver, 30).until(lambda d: d.find_element(By.CSS_SELECTOR, "#pr-name").get_attribute("value"))
    host.reasons("soft = A backup to the cloud is running\n")
    driver.find_element(By.CSS_SELECTOR, "#f-purchases button").click()
    t.WebDriverWait(driver, 30).until(t.EC.text_to_be_present_in_element((By.CSS_SELECTOR, "#purchases .outcome"), "purchase"))
    driver.find_element(By.CSS_SELECTOR, "#so-go").click()
    t.WebDriverWait(driver, 30).until(t.EC.text_to_be_present_in_element((By.CSS_SELECTOR, "#signout .outcome"), "3014"))
    # The window's height counts more than the page's viewport: measure the
    # difference once, then make the viewport exactly as tall as the page.
    h = driver.execute_script("return document.documentElement.scrollHeight")
    driver.set_window_size(820, h + 100)
    inner = driver.execute_script("return window.innerHeight")
    h = driver.execute_script("return document.documentElement.scrollHeight")
    driver.set_window_size(820, h + (h + 100 - inner) + 8)
    driver.execute_script("window.scrollTo(0,0)")
    driver.save_screenshot(sys.argv[1])
finally:
    driver.quit(); host.stop(); shutil.rmtree(folder, True); shutil.rmtree(profile, True)
