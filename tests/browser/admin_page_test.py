"""The administration page in a real headless Chromium, against `webapi-host
serve` on a free port of 127.0.0.1 with a temporary state folder per test.

Run by CTest (tests/CMakeLists.txt), which names the host, the module and the
folder for screenshots in the environment; every test leaves a screenshot
there, passed or failed. Waits are explicit: the page answers when the host
has answered, which on a loaded machine takes what it takes.
"""
import datetime
import functools
import http.server
import json
import os
import select
import shutil
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.request

from selenium import webdriver
from selenium.common.exceptions import TimeoutException
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support import expected_conditions as EC
from selenium.webdriver.support.ui import WebDriverWait

HOST = os.environ.get("WEBAPI_HOST", "")
MODULE = os.environ.get("PELLIXCENTER_SO", "")
SHOTS = os.environ.get("SCREENSHOT_DIR", tempfile.gettempdir())
WAIT = 30  # seconds; PBKDF2 sign-ins on two busy cores are slow, not stuck

CENTER = "TALV.Core.PellixCenter"
EMAIL = "ada@example.com"
PASSWORD = "secret1"


class DevHost:
    """`webapi-host serve` in a child process, stopped by stop()."""

    def __init__(self, folder):
        self.state = os.path.join(folder, "state")
        self.log_path = os.path.join(folder, "serve.log")
        self.log = open(self.log_path, "w")
        self.process = subprocess.Popen(
            [HOST, "--module", MODULE, "serve", "--state", self.state, "--port", "0"],
            stdout=subprocess.PIPE, stderr=self.log)
        # Raw reads: a buffered reader would hold text that select() no
        # longer sees.
        announced = ""
        while "Stop with" not in announced:
            ready, _, _ = select.select([self.process.stdout], [], [], WAIT)
            chunk = os.read(self.process.stdout.fileno(), 4096) if ready else b""
            if not chunk:
                self.stop()
                raise RuntimeError("webapi-host serve did not start:\n" + announced)
            announced += chunk.decode()
        start = announced.index("http://127.0.0.1:")
        self.url = announced[start:announced.index("/", start + 7)] + "/"
        self.announcement = announced

    def post(self, path, fields):
        request = urllib.request.Request(self.url + path.lstrip("/"), data=json.dumps(fields).encode(),
                                         headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=WAIT) as answer:
                return json.load(answer)
        except urllib.error.HTTPError as refused:
            return json.load(refused)

    def entry(self, api, version, method, **params):
        return self.post("/webapi/entry", dict(params, api=api, version=version, method=method))

    def reasons(self, text):
        with open(os.path.join(self.state, "device", "logout-reasons.conf"), "w") as f:
            f.write(text)

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(WAIT)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process.stdout.close()
        self.log.close()


def chromium():
    options = Options()
    options.binary_location = shutil.which("chromium") or "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     "--window-size=1100,1300", "--no-first-run", "--no-default-browser-check",
                     "--disable-extensions", "--disable-background-networking", "--disable-sync",
                     "--password-store=basic", "--lang=en-US", "--hide-scrollbars"):
        options.add_argument(argument)
    profile = tempfile.mkdtemp(prefix="chromium-profile.")
    options.add_argument("--user-data-dir=" + profile)
    driver = webdriver.Chrome(service=Service(shutil.which("chromedriver") or "/usr/bin/chromedriver"),
                              options=options)
    return driver, profile


class AdminPageTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="admin-page.")
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.host = DevHost(self.folder)
        self.addCleanup(self.host.stop)
        self.driver, profile = chromium()
        self.addCleanup(shutil.rmtree, profile, True)
        self.addCleanup(self.driver.quit)
        # Runs first of the clean-ups: the page as the test left it.
        self.addCleanup(self.screenshot)
        self.driver.get(self.host.url)
        self.wait_text("#st-account", "Not signed in")

    def screenshot(self):
        os.makedirs(SHOTS, exist_ok=True)
        self.driver.save_screenshot(os.path.join(SHOTS, self.id().rsplit(".", 1)[-1] + ".png"))

    # --- helpers ---------------------------------------------------------

    def find(self, css):
        return self.driver.find_element(By.CSS_SELECTOR, css)

    def wait_text(self, css, text):
        try:
            WebDriverWait(self.driver, WAIT).until(EC.text_to_be_present_in_element((By.CSS_SELECTOR, css), text))
        except TimeoutException:
            shown = self.driver.find_elements(By.CSS_SELECTOR, css)
            self.fail("%r never showed %r; it shows %r" % (css, text, shown[0].text if shown else None))

    def wait_visible(self, css):
        return WebDriverWait(self.driver, WAIT).until(EC.visibility_of_element_located((By.CSS_SELECTOR, css)))

    def type_into(self, css, text, enter=False):
        field = self.wait_visible(css)
        field.clear()
        field.send_keys(text + (Keys.ENTER if enter else ""))

    def sign_in_by_password(self, password):
        self.type_into("#pw-email", EMAIL)
        self.type_into("#pw-password", password, enter=True)

    def register_signed_in(self):
        answer = self.host.entry(CENTER, 2, "register", account=EMAIL, password=PASSWORD, fullname="Ada Lovelace",
                                 critical_release=True)
        self.assertTrue(answer["success"], answer)
        self.driver.refresh()
        self.wait_text("#st-account", "Signed in as " + EMAIL)

    # --- tests -----------------------------------------------------------

    def test_register_sign_out_and_sign_in_by_password(self):
        self.type_into("#reg-email", EMAIL)
        self.type_into("#reg-name", "Ada Lovelace")
        self.type_into("#reg-password", PASSWORD, enter=True)
        self.wait_text("#st-account", "Signed in as " + EMAIL)
        self.assertEqual(self.find("#st-domain").text, "critical.pellix.example")
        self.assertTrue(self.find("#profile").is_displayed())
        self.assertFalse(self.find("#signin").is_displayed())

        self.wait_visible("#so-go").click()
        self.wait_text("#st-account", "Not signed in")
        self.assertEqual(self.find("#st-key").text, "–")

        self.sign_in_by_password("wrong password")
        self.wait_text("#signin .outcome", "code 3004")
        self.assertIn("Wrong e-mail address or password", self.find("#signin .outcome .sentence").text)
        # The answer itself only behind the toggle.
        self.assertFalse(self.find("#signin .outcome pre").is_displayed())
        self.find("#signin .outcome summary").click()
        self.assertIn('"code": 3004', self.find("#signin .outcome pre").text)

        self.sign_in_by_password(PASSWORD)
        self.wait_text("#st-account", "Signed in as " + EMAIL)
        self.assertFalse(self.find("#pw-password").get_attribute("value"), "the password stays in the form")

    def test_created_by_version_1_then_signed_in_by_pkce_key_and_token(self):
        self.find("#f-register input[name=version][value='1']").click()
        self.assertFalse(self.find("#reg-country").is_displayed(), "version 1 takes no country")
        self.type_into("#reg-email", EMAIL)
        self.type_into("#reg-name", "Ada Lovelace")
        self.type_into("#reg-password", PASSWORD, enter=True)
        self.wait_text("#register .outcome", "Account %s created. Sign in with it" % EMAIL)
        self.assertEqual(self.find("#st-account").text, "Not signed in")

        self.find("input[name=signin-way][value=pkce]").click()
        self.type_into("#pk-email", EMAIL)
        self.type_into("#pk-password", "not hers", enter=True)
        self.wait_text("#signin .outcome", "code 3004")
        self.type_into("#pk-password", PASSWORD, enter=True)
        self.wait_text("#st-account", "Signed in as " + EMAIL)
        key = self.find("#st-key").text

        # The key of that sign-in, offered by the page after a sign-out.
        self.assertTrue(self.host.entry(CENTER, 2, "logout", force=True)["success"])
        self.driver.refresh()
        self.wait_text("#st-account", "Not signed in")
        self.find("input[name=signin-way][value=key]").click()
        self.assertEqual(self.find("#key-key").get_attribute("value"), key)
        serial = self.host.announcement.split("(device ", 1)[1].split(",", 1)[0]
        self.type_into("#key-serial", serial, enter=True)
        self.wait_text("#st-account", "Signed in as " + EMAIL)

        self.assertTrue(self.host.entry(CENTER, 2, "logout", force=True)["success"])
        self.driver.refresh()
        self.wait_text("#st-account", "Not signed in")
        token = self.host.post("/sim/token", {"email": EMAIL, "password": PASSWORD})["access_token"]
        self.find("input[name=signin-way][value=token]").click()
        self.type_into("#tok-token", token, enter=True)
        self.wait_text("#st-account", "Signed in as " + EMAIL)

    def test_profile_sends_only_changes_and_shows_them_after_reload(self):
        self.register_signed_in()
        WebDriverWait(self.driver, WAIT).until(lambda d: self.find("#pr-name").get_attribute("value"))
        self.assertEqual(self.find("#pr-name").get_attribute("value"), "Ada Lovelace")
        self.assertTrue(self.find("#f-profile input[name=critical_release]").is_selected())
        # What leaves the page, to see that untouched fields are not sent.
        self.driver.execute_script("""
            window.sent = [];
            const send = window.fetch;
            window.fetch = (url, options) => { window.sent.push(JSON.parse(options.body)); return send(url, options); };
        """)
        self.type_into("#pr-name", "Ada King")
        self.find("#f-profile input[name=critical_release]").click()
        self.find("#f-profile input[name=enews]").send_keys(Keys.SPACE)
        self.find("#pr-country").send_keys(Keys.ENTER)
        self.wait_text("#profile .outcome", "Saved: Full name, Critical releases, Newsletter.")
        sets = [s for s in self.driver.execute_script("return window.sent") if s["method"] == "set"]
        self.assertEqual(sets, [{"api": "TALV.Core.PellixCenter.Account", "version": 1, "method": "set",
                                 "full_name": "Ada King", "critical_release": False, "enews": True}])

        self.driver.refresh()
        WebDriverWait(self.driver, WAIT).until(lambda d: self.find("#pr-name").get_attribute("value") == "Ada King")
        self.assertFalse(self.find("#f-profile input[name=critical_release]").is_selected())
        self.assertTrue(self.find("#f-profile input[name=enews]").is_selected())

        self.find("#pr-country").send_keys(Keys.ENTER)
        self.wait_text("#profile .outcome", "Nothing to save")

    def test_purchases_for_a_date_range_at_phone_width(self):
        self.driver.set_window_size(390, 844)
        self.register_signed_in()
        today = datetime.date.today()
        set_date = "arguments[0].value = arguments[1];"
        self.driver.execute_script(set_date, self.find("#pu-from"), (today - datetime.timedelta(days=1)).isoformat())
        self.driver.execute_script(set_date, self.find("#pu-to"), (today + datetime.timedelta(days=1)).isoformat())
        self.find("#f-purchases button").click()
        self.wait_text("#purchases .outcome", "1 purchase.")
        rows = self.driver.find_elements(By.CSS_SELECTOR, "#pu-table tbody tr")
        self.assertEqual(len(rows), 1)
        self.assertIn("Cloud backup, 30-day trial", rows[0].text)
        self.assertIn("0.00 USD", rows[0].text)
        self.assertTrue(self.driver.execute_script(
            "return document.documentElement.scrollWidth <= window.innerWidth"), "the page is wider than a phone")

        self.driver.execute_script(set_date, self.find("#pu-from"), "2001-01-01")
        self.driver.execute_script(set_date, self.find("#pu-to"), "2001-12-31")
        self.find("#f-purchases button").click()
        self.wait_text("#purchases .outcome", "No purchases in these dates.")
        self.assertFalse(self.find("#pu-table").is_displayed())

    def test_refused_sign_outs_hard_stands_soft_is_overridden(self):
        self.register_signed_in()
        self.host.reasons("soft = A backup to the cloud is running\nhard = The device is being repaired\n")
        self.wait_visible("#so-go").click()
        self.wait_text("#signout .outcome", "code 3014")
        self.wait_text("#so-refusal .refusal-title", "hard check")
        reasons = [r.text for r in self.driver.find_elements(By.CSS_SELECTOR, "#so-refusal .reasons li")]
        self.assertEqual(reasons, ["The device is being repaired"])
        self.assertFalse(self.find("#so-force").is_displayed(), "a hard refusal cannot be overridden")

        self.host.reasons("soft = A backup to the cloud is running\nsoft = Photos are being indexed\n")
        self.find("#so-go").click()
        self.wait_text("#so-refusal .refusal-title", "soft check")
        reasons = [r.text for r in self.driver.find_elements(By.CSS_SELECTOR, "#so-refusal .reasons li")]
        self.assertEqual(reasons, ["A backup to the cloud is running", "Photos are being indexed"])
        self.wait_visible("#so-force").click()
        self.wait_text("#st-account", "Not signed in")
        self.assertFalse(self.host.entry(CENTER, 2, "query")["data"]["is_logged_in"])

    def test_a_page_of_another_site_changes_nothing(self):
        self.register_signed_in()
        # Another origin of the same site: a server of its own on another port.
        other = os.path.join(self.folder, "other")
        os.makedirs(other)
        logout = self.host.url + "webapi/entry?api=%s&version=2&method=logout&force=true" % CENTER
        with open(os.path.join(other, "index.html"), "w") as page:
            page.write("""<!doctype html><title>another site</title>
<iframe name="sink"></iframe>
<form method="post" action="%(entry)s" target="sink">
  <input name="api" value="%(api)s"><input name="version" value="2">
  <input name="method" value="logout"><input name="force" value="true">
</form>
<img src="%(logout)s&amp;by=img">
<script>
  fetch("%(logout)s&by=fetch", {mode: "no-cors"}).catch(() => {});
  document.forms[0].submit();
</script>""" % {"entry": self.host.url + "webapi/entry", "api": CENTER, "logout": logout})
        quiet = type("Quiet", (http.server.SimpleHTTPRequestHandler,), {"log_message": lambda *_: None})
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(quiet, directory=other))
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)

        self.driver.get("http://127.0.0.1:%d/" % server.server_address[1])
        # The host's word that each of the three reached it and was refused.
        refusals = ("POST /webapi/entry: 403 code 108", "GET /webapi/entry: 403 code 108")
        deadline = time.monotonic() + WAIT
        while time.monotonic() < deadline:
            with open(self.host.log_path) as log:
                text = log.read()
            if text.count(refusals[0]) >= 1 and text.count(refusals[1]) >= 2:
                break
            time.sleep(0.2)
        else:
            self.fail("the host did not refuse the form, the fetch and the image:\n" + text)
        self.assertTrue(self.host.entry(CENTER, 2, "query")["data"]["is_logged_in"])

        # The host's own page still does what it did.
        self.driver.get(self.host.url)
        self.wait_text("#st-account", "Signed in as " + EMAIL)
        self.wait_visible("#so-go").click()
        self.wait_text("#st-account", "Not signed in")



if __name__ == "__main__":
    unittest.main()
