"""Remakes the README's picture of the administration page: an account signed
in, its purchases listed and a soft refusal to sign out, 820 pixels wide, the
whole page. Runs `webapi-host serve` of the release tree (build/default, or
WEBAPI_HOST and PELLIXCENTER_SO) on a free port with a state folder of its own.

    /usr/bin/python3 scripts/admin-page-screenshot.py docs/admin-page.png
"""
import os
import shutil
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build", "default")
os.environ.setdefault("WEBAPI_HOST", os.path.join(BUILD, "webapi-host"))
os.environ.setdefault("PELLIXCENTER_SO", os.path.join(BUILD, "pellixcenter.so"))
# The browser tests' host and browser, started the same way.
sys.path.insert(0, os.path.join(ROOT, "tests", "browser"))
import admin_page_test as page  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402

WIDTH = 820


def main(out):
    folder = tempfile.mkdtemp(prefix="admin-page-screenshot.")
    host = page.DevHost(folder)
    driver, profile = page.chromium()
    shown = lambda css, text: page.WebDriverWait(driver, page.WAIT).until(  # noqa: E731
        page.EC.text_to_be_present_in_element((By.CSS_SELECTOR, css), text))
    try:
        answer = host.entry(page.CENTER, 2, "register", account=page.EMAIL, password=page.PASSWORD,
                            fullname="Ada Lovelace", critical_release=True, country="UK")
        assert answer["success"], answer
        refusal = host.post("/sim/conditions", {"logout_refusal": {"grade": "soft",
                                                                  "reason": "A backup to the cloud is running"}})
        assert "id" in refusal, refusal
        driver.set_window_size(WIDTH, 1000)
        driver.get(host.url)
        shown("#st-account", "Signed in")
        page.WebDriverWait(driver, page.WAIT).until(
            lambda d: d.find_element(By.CSS_SELECTOR, "#pr-name").get_attribute("value"))
        driver.find_element(By.CSS_SELECTOR, "#f-purchases button").click()
        shown("#purchases .outcome", "purchase")
        driver.find_element(By.CSS_SELECTOR, "#so-go").click()
        shown("#signout .outcome", "code 3014")
        # The window is taller than its viewport by the browser's own frame:
        # measure that once, then make the viewport exactly the page's height.
        height = driver.execute_script("return document.documentElement.scrollHeight")
        driver.set_window_size(WIDTH, height + 100)
        frame = height + 100 - driver.execute_script("return window.innerHeight")
        driver.set_window_size(WIDTH, driver.execute_script("return document.documentElement.scrollHeight") + frame)
        driver.execute_script("window.scrollTo(0, 0)")
        driver.save_screenshot(out)
    finally:
        driver.quit()
        host.stop()
        shutil.rmtree(folder, True)
        shutil.rmtree(profile, True)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: admin-page-screenshot.py OUT.png")
    main(sys.argv[1])
