"""The administration page in a real headless Chromium, against `webapi-host
serve` on a free port of 127.0.0.1 with a temporary state folder per test.

Run by CTest (tests/CMakeLists.txt), which names the host, the module and the
folder for screenshots in the environment; every test leaves a screenshot
there, passed or failed. Waits are explicit: the page answers when the host
has answered, which on a loaded machine takes what it takes. Every state a
test waits for is also looked at as a person would see it (check_page).
"""
import datetime
import functools
import http.server
import json
import os
import select
import shutil
import socket
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
WIDTHS = ((1280, 800), (390, 844))
VITE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "vite")  # a desk's window and a phone's

# What a person could not read in the shown page: elements out of the window
# or scrolling sideways (a field scrolls its own text; the visually hidden
# are meant to be out of sight), and errors that do not say what to do.
UNREADABLE = """
const width = document.documentElement.clientWidth;
const wide = [];
for (const e of document.body.querySelectorAll('*')) {
  const box = e.getBoundingClientRect();
  if (!box.width || e instanceof HTMLInputElement || e.closest('.sr-only')) continue;
  const scrolls = e.scrollWidth > e.clientWidth + 1 && getComputedStyle(e).display !== 'inline';
  if (box.left < 0 || box.right > width + 0.5 || scrolls)
    wide.push(`${e.tagName}#${e.id}.${e.className} ${Math.round(box.left)}..${Math.round(box.right)} of ${width}`);
}
const mute = Array.from(document.querySelectorAll('.outcome.error'))
  .filter((o) => o.offsetParent && !(o.querySelector('.todo') || {}).textContent).map((o) => o.textContent);
return [wide, mute];
"""


class DevHost:
    """`webapi-host serve` in a child process, stopped by stop()."""

    def __init__(self, folder, more=()):
        self.state = os.path.join(folder, "state")
        self.log_path = os.path.join(folder, "serve.log")
        self.log = open(self.log_path, "w")
        self.process = subprocess.Popen(
            [HOST, "--module", MODULE, "serve", "--state", self.state, "--port", "0", "--check-answers", *more],
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
    def described(self):
        """Every answer the host gave is one the description of the web API allows."""
        with open(self.host.log_path) as log:
            self.assertNotIn("does not match the description", log.read())

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="admin-page.")
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.host = DevHost(self.folder)
        self.addCleanup(self.described)
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
        self.check_page(text)

    def check_page(self, state):
        """The page in `state` at both widths, every "Details" opened: nothing
        wider than the window, and every error says what to do."""
        size = self.driver.get_window_size()
        self.driver.execute_script("(window.shut = Array.from(document.querySelectorAll('details:not([open])')))"
                                   ".forEach((d) => { d.open = true; })")
        try:
            for width, height in WIDTHS:
                self.driver.set_window_size(width, height)
                wide, mute = self.driver.execute_script(UNREADABLE)
                self.assertEqual(wide, [], "wider than the window at %d px, showing %r" % (width, state))
                self.assertEqual(mute, [], "an error that does not say what to do")
        finally:
            self.driver.execute_script("window.shut.forEach((d) => { d.open = false; })")
            self.driver.set_window_size(size["width"], size["height"])

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
        # Every sentence of the page's one table says what to do.
        for what, todo in self.driver.execute_script("return Messages.all()"):
            self.assertTrue(what and todo, (what, todo))
        # What the page knows of the service's rules is checked before
        # sending, and the error names the field. The limits are in bytes.
        for css, wrong, said in (("#reg-email", "ada@example", "E-mail address: this is not an e-mail address."),
                                 ("#reg-name", "A", "Full name: it must be 2 to 256 bytes long, and it is 1."),
                                 ("#reg-password", "\u00e9\u00e9", "Password: it must be 6 to 128 bytes long, and it is 4."),
                                 ("#reg-password", "", "Password: this field is empty.")):
            for field, value in (("#reg-email", EMAIL), ("#reg-name", "Ada Lovelace"), ("#reg-password", PASSWORD)):
                self.type_into(field, wrong if field == css else value)
            self.find(css).send_keys(Keys.ENTER)
            self.wait_text("#register .outcome .what", said)
            self.assertEqual(self.find(css).get_attribute("aria-invalid"), "true")
        self.type_into("#reg-password", PASSWORD, enter=True)
        self.wait_text("#st-account", "Signed in as " + EMAIL)
        self.assertEqual(self.find("#st-domain").text, "critical.pellix.example")
        self.assertTrue(self.find("#profile").is_displayed())
        self.assertFalse(self.find("#signin").is_displayed())

        self.wait_visible("#so-go").click()
        self.wait_text("#st-account", "Not signed in")
        self.assertEqual(self.find("#st-key").text, "Not signed in")

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
        # Signed out elsewhere meanwhile: Refresh tells it.
        self.assertTrue(self.host.entry(CENTER, 2, "logout", force=True)["success"])
        self.find("#refresh").click()
        self.wait_text("#status .outcome", "signed out meanwhile")

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
        # PKCE settings of the device without a client_id, once: told, not sent as nothing.
        self.driver.execute_script("const real = window.fetch; window.fetch = async (url, init) => {"
                                   "  const res = await real(url, init); window.fetch = real;"
                                   "  const answer = await res.json(); delete answer.data.login.client_id;"
                                   "  return new Response(JSON.stringify(answer)); };")
        self.type_into("#pk-password", PASSWORD, enter=True)
        self.wait_text("#signin .outcome", "The device's PKCE settings lack client_id, which this sign-in needs.")
        self.type_into("#pk-password", PASSWORD, enter=True)
        self.wait_text("#st-account", "Signed in as " + EMAIL)
        self.find("#st-key button").click()
        key = self.find("#st-key").text

        # The key of that sign-in, offered by the page after a sign-out.
        self.assertTrue(self.host.entry(CENTER, 2, "logout", force=True)["success"])
        self.driver.refresh()
        self.wait_text("#st-account", "Not signed in")
        self.find("input[name=signin-way][value=key]").click()
        self.assertEqual(self.find("#key-key").get_attribute("value"), key)
        serial = self.host.announcement.split("(device ", 1)[1].split(",", 1)[0]
        self.assertEqual(self.find("#key-serial").get_attribute("value"), serial)
        self.find("#key-key").send_keys(Keys.ENTER)
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

        # A new password needs the current one, and a wrong one is told as such.
        for current, said in (("", 'Current password: needed together with "New password".'),
                              ("not hers", "The current password is wrong.")):
            self.type_into("#pr-current", current)
            self.type_into("#pr-new", "another1", enter=True)
            self.wait_text("#profile .outcome .what", said)

        # The device gone: nothing of the account stays in the status, nor
        # the colour of a signed-in account.
        signed_in = self.find("#st-account").value_of_css_property("color")
        self.host.stop()
        self.find("#refresh").click()
        self.wait_text("#st-account", "Not known: the device did not answer")
        self.assertEqual([self.find(css).text for css in ("#st-activated", "#st-domain", "#st-key")], ["–"] * 3)
        self.assertNotEqual(self.find("#st-account").value_of_css_property("color"), signed_in)

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

        self.driver.execute_script(set_date, self.find("#pu-from"), "2001-12-31")
        self.driver.execute_script(set_date, self.find("#pu-to"), "2001-01-01")
        self.find("#f-purchases button").click()
        self.wait_text("#purchases .outcome .what", "From is after To.")
        self.driver.execute_script(set_date, self.find("#pu-from"), "2001-01-01")
        self.driver.execute_script(set_date, self.find("#pu-to"), "2001-12-31")
        self.find("#f-purchases button").click()
        self.wait_text("#purchases .outcome", "No purchases in these dates.")
        self.assertFalse(self.find("#pu-table").is_displayed())

    def test_every_code_of_the_page_reached_through_the_simulated_service(self):
        """Each code of the page's table as a person meets it, set up from
        the service's panel, and told in the table's sentence."""
        reached = set()

        def told(section, code, context=None):
            self.wait_text(section + " .outcome .code", "code %d" % code)
            shown = [self.find(section + " .outcome " + part).text for part in (".what", ".todo")]
            self.assertEqual(shown, self.driver.execute_script("return Messages.of(...arguments)", code, context))
            reached.add(code)

        def condition(form, said, **fields):
            for name, value in fields.items():
                self.driver.execute_script("arguments[0].value = arguments[1]", self.find(form + " [name=%s]" % name),
                                           str(value))
            self.find(form + " button").click()
            self.wait_text("#sim-list", said)

        # Bob exists to sign in at the account service (PKCE) and, later,
        # elsewhere while the page signs in (3010).
        self.assertTrue(self.host.entry(CENTER, 2, "register", account="bob@example.com", password=PASSWORD,
                                        fullname="Bob", critical_release=False)["success"])
        self.assertTrue(self.host.entry(CENTER, 2, "logout", force=True)["success"])
        self.find("#sim-panel summary").click()
        self.type_into("#pw-email", EMAIL)
        self.find("input[name=signin-way][value=pkce]").click()
        self.type_into("#pk-email", "bob@example.com")
        # The next sign-in, whichever way, fails with the account error chosen.
        typed = {"password": "#pw-password", "key": "#key-key", "token": "#tok-token", "pkce": "#pk-password"}
        for error, code, way in ((2, 3000, "password"), (1, 3001, "key"), (4, 3002, "token"), (5, 3003, "password"),
                                 (14, 3004, "key"), (16, 3005, "password"), (17, 3006, "token"), (18, 3008, "pkce"),
                                 (25, 3013, "password")):
            self.assertIn("→ code %d:" % code, self.find("#sim-error option[value='%d']" % error).text)
            condition("#f-sim-signin", "fails with account error %d" % error, account_error=error)
            self.find("input[name=signin-way][value=%s]" % way).click()
            self.type_into(typed[way], PASSWORD, enter=True)
            self.wait_visible("#sim-none")  # used up
            told("#signin", code, None if way == "pkce" else way)

        # Unreachable, and slow: both in the list, one Clear all ends them.
        self.find("#sim-unreachable").click()
        told("#status", 3002)
        self.assertEqual(self.find("#st-account").text, "Not known: the device could not tell")
        condition("#f-sim-slow", "Answers 0.5 s late.", seconds=0.5)
        self.find("#sim-clear").click()
        self.wait_text("#st-account", "Not signed in")
        self.wait_visible("#sim-none")

        # Signed in elsewhere meanwhile: the status tells the refusal, and who.
        self.assertTrue(self.host.entry(CENTER, 2, "login", account="bob@example.com", password=PASSWORD)["success"])
        self.find("input[name=signin-way][value=password]").click()
        self.sign_in_by_password(PASSWORD)
        told("#status", 3010)
        self.wait_text("#st-account", "Signed in as bob@example.com")

        # A hard refusal stands; cleared, a soft one is overridden. A reason
        # may be one long word: it wraps in its card (check_page).
        condition("#f-sim-refusal", "The device is being repaired", grade="hard", reason="The device is being repaired")
        self.find("#so-go").click()
        told("#signout", 3014, "hard")
        reasons = [r.text for r in self.driver.find_elements(By.CSS_SELECTOR, "#so-refusal .reasons li")]
        self.assertEqual(reasons, ["The device is being repaired"])
        self.assertFalse(self.find("#so-force").is_displayed(), "a hard refusal cannot be overridden")
        self.find("#sim-list button").click()
        self.wait_visible("#sim-none")
        path = "/share/Backups/" + "Holiday_2025_" * 12 + ".jpg"
        condition("#f-sim-refusal", "Holiday", grade="soft", reason="Copying " + path)
        self.find("#so-go").click()
        told("#signout", 3014, "soft")
        reasons = [r.text for r in self.driver.find_elements(By.CSS_SELECTOR, "#so-refusal .reasons li")]
        self.assertEqual(reasons, ["Copying " + path])
        # The refusal and its action come before the answer itself.
        self.assertTrue(self.driver.execute_script(
            "return !!(arguments[0].compareDocumentPosition(arguments[1]) & Node.DOCUMENT_POSITION_FOLLOWING)",
            self.find("#so-force"), self.find("#signout .outcome details")), "Details stands before the refusal")
        self.find("#so-force").click()
        self.wait_text("#st-account", "Not signed in")

        table = {c for c in self.driver.execute_script("return Messages.codes()") if c >= 3000}
        self.assertEqual(table - reached, set(), "codes of the page's table that no step reaches")

    def call(self, method, api=CENTER, version=2, **params):
        """A call by the function `call` of the page shown (vite/index.html)."""
        return self.driver.execute_async_script(
            "call(...Array.from(arguments).slice(0, 4)).then(arguments[4], (e) => arguments[4](String(e)))",
            api, version, method, params)

    def other_server(self, pages):
        """A second local server, another origin of the same site, serving
        `pages` (name: text); its origin."""
        other = self.other = tempfile.mkdtemp(dir=self.folder)
        for name, text in pages.items():
            with open(os.path.join(other, name), "w") as page:
                page.write(text)
        quiet = type("Quiet", (http.server.SimpleHTTPRequestHandler,), {"log_message": lambda *_: None})
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(quiet, directory=other))
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        return "http://127.0.0.1:%d" % server.server_address[1]

    def wait_log(self, *lines):
        """Until the host's log holds each of `lines` (text, count)."""
        deadline = time.monotonic() + WAIT
        while time.monotonic() < deadline:
            with open(self.host.log_path) as log:
                text = log.read()
            if all(text.count(line) >= count for line, count in lines):
                return
            time.sleep(0.2)
        self.fail("the host's log lacks %r:\n%s" % (lines, text))

    def test_a_page_of_another_site_changes_nothing(self):
        self.register_signed_in()
        logout = self.host.url + "webapi/entry?api=%s&version=2&method=logout&force=true" % CENTER
        origin = self.other_server({"index.html": """<!doctype html><title>another site</title>
<iframe name="sink"></iframe>
<form method="post" action="%(entry)s" target="sink">
  <input name="api" value="%(api)s"><input name="version" value="2">
  <input name="method" value="logout"><input name="force" value="true">
</form>
<img src="%(logout)s&amp;by=img">
<iframe src="%(host)ssim/account"></iframe>
<iframe src="%(host)ssim/authorize?code_challenge=c&amp;redirect_uri=http://127.0.0.1:1/cb"></iframe>
<script>
  fetch("%(logout)s&by=fetch", {mode: "no-cors"}).catch(() => {});
  fetch("%(entry)s", {method: "POST", headers: {"Content-Type": "application/json"},
                      body: JSON.stringify({api: "%(api)s", version: 2, method: "logout", force: true})})
    .then((r) => r.json()).then((j) => { document.title = j.error.details.reason; });
  document.forms[0].submit();
</script>""" % {"entry": self.host.url + "webapi/entry", "api": CENTER, "logout": logout, "host": self.host.url}})
        self.driver.get(origin + "/")
        # The host's word that each reached it and was refused, and the
        # page's own fetch reads why.
        self.wait_log(("POST /webapi/entry: 403 code 108", 2), ("GET /webapi/entry: 403 code 108", 2),
                      ("GET /sim/account: 403 code 108", 1), ("GET /sim/authorize: 403 code 108", 1))
        WebDriverWait(self.driver, WAIT).until(lambda d: "--trust-origin" in d.title)
        self.assertIn("or let that page's origin in with serve --trust-origin " + origin, self.driver.title)
        self.assertTrue(self.host.entry(CENTER, 2, "query")["data"]["is_logged_in"])

        # The host's own page still does what it did.
        self.driver.get(self.host.url)
        self.wait_text("#st-account", "Signed in as " + EMAIL)
        self.wait_visible("#so-go").click()
        self.wait_text("#st-account", "Not signed in")

    def test_a_trusted_page_signs_in_and_out_and_back_by_pkce(self):
        """A page of a trusted origin: queries, signs in by password and
        out, runs the PKCE sign-in back to itself, and frames the account."""
        with open(os.path.join(VITE, "index.html")) as mine:
            call = '<script>var H = "%s";</script>' + mine.read()
        pages = {"index.html": call, "cb.html": call + """<script>
const back = new URLSearchParams(location.search);
(async () => {
  const login = (await call("TALV.Core.PellixCenter.Login", 1, "pkce_config_get", {})).data.login;
  const answer = await call("TALV.Core.PellixCenter.Login", 1, "pkce_login", {
    code_challenge: sessionStorage.challenge, grant_code: back.get("code"), client_id: login.client_id,
    token_endpoint: login.token_endpoint, redirect_uri: login.redirect_uri});
  document.title = back.get("state") + " " + JSON.stringify(answer);
})();
</script>""", "frame.html": '<!doctype html><title>framed</title><iframe src="%ssim/account"></iframe>'}
        origin = self.other_server(pages)
        self.host.stop()
        self.host = DevHost(tempfile.mkdtemp(dir=self.folder),
                            ["--trust-origin", origin, "--pkce-redirect-uri", origin + "/cb.html"])
        self.addCleanup(self.host.stop)
        for name in ("index.html", "cb.html"):
            pages[name] = pages[name] % self.host.url
        pages["frame.html"] %= self.host.url
        for name, text in pages.items():
            with open(os.path.join(self.other, name), "w") as page:
                page.write(text)
        self.assertTrue(self.host.post("/sim/register", {"email": EMAIL, "password": PASSWORD,
                                                       "full_name": "Ada Lovelace"})["registered"])

        self.driver.get(origin + "/index.html")
        self.assertEqual(self.call("query"), {"success": True, "data": {"is_logged_in": False}})
        self.assertTrue(self.call("login", account=EMAIL, password=PASSWORD)["success"])
        self.assertTrue(self.call("query")["data"]["is_logged_in"])
        self.assertEqual(self.call("logout", force=True), {"success": True, "data": None})

        challenge = self.call("create", "TALV.Remote.Credential.Verifier", 1)["data"]["challenge"]
        self.driver.execute_script("sessionStorage.challenge = arguments[0]", challenge)
        authorize = self.call("pkce_config_get", "TALV.Core.PellixCenter.Login", 1)["data"]["login"]["authorize_endpoint"]
        self.driver.execute_script("location = arguments[0] + '?' + new URLSearchParams(arguments[1])", authorize,
                                   {"code_challenge": challenge, "state": "s1", "redirect_uri": origin + "/cb.html"})
        self.type_into("input[name=email]", EMAIL)
        self.type_into("input[name=password]", PASSWORD, enter=True)
        WebDriverWait(self.driver, WAIT).until(lambda d: d.title.startswith("s1 {"))
        self.assertTrue(self.driver.current_url.startswith(origin + "/cb.html?code="), self.driver.current_url)
        self.assertIn('"success":true', self.driver.title)
        self.assertTrue(self.host.entry(CENTER, 2, "query")["data"]["is_logged_in"])

        self.driver.get(origin + "/frame.html")
        self.driver.switch_to.frame(self.find("iframe"))
        WebDriverWait(self.driver, WAIT).until(EC.text_to_be_present_in_element((By.CSS_SELECTOR, "dl"), EMAIL))
        self.driver.switch_to.default_content()


    def test_through_a_vite_dev_server(self):
        """docs/devhost.md's Vite proxy (tests/browser/vite, installed by
        scripts/test.sh) with the host trusting the dev server's origin."""
        if not os.path.isdir(os.path.join(VITE, "node_modules")):
            self.skipTest("no Vite: npm ci --prefix tests/browser/vite")
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            origin = "http://127.0.0.1:%d" % free.getsockname()[1]
        self.host.stop()
        self.host = DevHost(tempfile.mkdtemp(dir=self.folder), ["--trust-origin", origin])
        self.addCleanup(self.host.stop)
        server = subprocess.Popen(["node", "node_modules/vite/bin/vite.js", "--port", origin.rsplit(":", 1)[1],
                                   "--strictPort"], cwd=VITE, env=dict(os.environ, WEBAPI_HOST_URL=self.host.url),
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(server.wait)
        self.addCleanup(server.terminate)
        self.assertTrue(self.host.post("/sim/register", {"email": EMAIL, "password": PASSWORD,
                                                         "full_name": "Ada Lovelace"})["registered"])
        deadline = time.monotonic() + WAIT
        while True:
            try:
                urllib.request.urlopen(origin + "/", timeout=WAIT).close()
                break
            except OSError:
                self.assertLess(time.monotonic(), deadline, "Vite did not start")
                time.sleep(0.3)
        self.driver.get(origin + "/")
        for method, params, answer in (("login", {"account": EMAIL, "password": PASSWORD}, True),
                                       ("query", {}, True), ("logout", {"force": True}, None)):
            said = self.call(method, **params)
            self.assertTrue(said["success"], said)
            self.assertEqual(said["data"] and said["data"]["is_logged_in" if method == "query" else "activated"],
                             answer)
        self.assertEqual(self.host.entry(CENTER, 2, "query")["data"], {"is_logged_in": False})


if __name__ == "__main__":
    unittest.main()
