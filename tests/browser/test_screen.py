"""tarvo-screen in a headless Chromium, driven by the keys of a remote control, against the real
host and cloud. Run one case: test_screen.py CASE (exit 77 when no browser is installed)."""

import json
import os
import socketserver
import sys
import threading
import unittest
import urllib.error
import urllib.request

from screen_fixture import Television, missing_browser, wait_until

try:
    from selenium.webdriver.common.keys import Keys
except ImportError:  # main() reports the run as skipped
    Keys = None


class TelevisionCase(unittest.TestCase):
    """Cloud, host and screen running on a fresh root; the browser is opened by each test."""

    country = "US"
    language = "en_US.utf8"

    def setUp(self):
        self.tv = Television(self.id().split(".")[-1], self.country, self.language)
        self.addCleanup(self.tv.close)
        self.tv.prepare_root()
        self.tv.start_cloud()
        self.tv.start_host()
        self.tv.start_screen()

    def tearDown(self):
        # Runs before the clean-up closes the browser: the page wrote no error to the console.
        if self.tv.driver:
            severe = [entry for entry in self.tv.driver.get_log("browser") if entry["level"] == "SEVERE"]
            self.assertEqual(severe, [])


class Screen(TelevisionCase):

    def test_wizard_by_keys_fails_retries_and_records_the_answers(self):
        tv = self.tv
        tv.admin("POST", "/admin/fault", {"path": "any", "kind": "stat_error", "code": "4711"})
        tv.open_browser()
        tv.wait_home()
        tv.press(Keys.ENTER)
        tv.wait_js("return document.querySelector('[data-role=error-code]')", "the error screen", 60)
        self.assertEqual(tv.js("return document.querySelector('[data-role=error-code]').textContent"),
                         "Error code 4711")
        tv.screenshot("wizard-error")

        tv.admin("DELETE", "/admin/fault")
        tv.press(Keys.ENTER)  # Retry
        self.assertEqual(tv.wait_screen("main_common", 60), "button1")
        tv.screenshot("wizard-group")
        tv.press(Keys.ARROW_RIGHT, Keys.ENTER)  # Next: walk the group one screen each
        tv.wait_screen("tnc")
        tv.screenshot("wizard-terms")
        tv.press(Keys.ENTER)  # Agree
        tv.wait_screen("pp")
        self.assertEqual(tv.texts(".details li strong"), ["What the television collects", "Why", "Your choices"])
        tv.screenshot("wizard-privacy")
        tv.press(Keys.ENTER)
        tv.wait_screen("sub_common")
        # "Select a service to read its full text": each one listed opens its own screen.
        self.assertEqual(tv.js("return [...document.querySelectorAll('[data-role=members] .focusable')].map(b => b.dataset.id)"),
                         ["viewing", "voice_new", "voice_service", "service_request"])
        tv.js("document.querySelector('[data-key=member-voice_new]').focus()")
        tv.press(Keys.ENTER)
        tv.wait_screen("voice_new")
        tv.press(Keys.ESCAPE, Keys.ESCAPE)  # back to the group, one screen at a time
        tv.wait_screen("sub_common")
        tv.press(Keys.ARROW_RIGHT, Keys.ENTER)  # Skip
        tv.wait_screen("viewing")
        tv.press(Keys.ARROW_RIGHT, Keys.ENTER)  # Disagree
        tv.wait_screen("voice_new")
        tv.press(Keys.ARROW_RIGHT, Keys.ENTER)
        # Voice Control declined: its partner's Agree waits for it, the remote starts on Disagree.
        self.assertEqual(tv.wait_screen("voice_service"), "button2")
        self.assertEqual(tv.state_of("section.disclaimer"), "waiting")
        self.assertTrue(tv.js("return document.querySelector('[data-key=button1]').disabled"))
        tv.screenshot("wizard-waiting")
        tv.press(Keys.ENTER)
        tv.wait_screen("service_request")
        self.assertEqual(tv.texts(".buttons button"), ["OK"])
        self.assertEqual(tv.state_of("section.disclaimer"), "notice")
        tv.press(Keys.ENTER)
        tv.wait_js("return document.querySelector('[data-role=done] .summary li')", "the summary")
        tv.screenshot("wizard-done")

        # The store holds them; their way to the agreement server is the upload's own test.
        answers = {id_: tv.record(id_)["is_agreed"] for id_ in ("tnc", "pp", "viewing", "voice_new", "voice_service")}
        self.assertEqual(answers, {"tnc": True, "pp": True, "viewing": False, "voice_new": False, "voice_service": False})

    def test_menu_follows_every_change_live_and_outlives_the_host(self):
        tv = self.tv
        tv.fill_store()
        tv.open_browser("#menu")
        tv.wait_js("return document.querySelector('.row[data-id=tnc]:focus')", "the menu")
        tv.js("window.notReloaded = true")
        self.assertEqual(tv.texts(".menu h2"), ["Welcome to Tarvo Home", "Optional Services", "More terms and notices"])
        self.assertEqual(tv.state_of(".row[data-id=voice_service]"), "waiting")
        tv.screenshot("menu")

        tv.ctl("agree", "voice_new")
        wait_until(lambda: tv.state_of(".row[data-id=voice_new]") == "agreed", 10, "the page to follow tarvoctl")
        self.assertEqual(tv.state_of(".row[data-id=voice_service]"), "not-agreed")

        tv.press(Keys.ENTER)  # opens Terms of Use
        tv.wait_screen("tnc")
        self.assertIn("2. Your account.", tv.js("return document.querySelector('.details').textContent"))
        tv.screenshot("menu-record")
        tv.press(Keys.ENTER)  # Agree, and back to the list on the same row
        tv.wait_js("return document.querySelector('.row[data-id=tnc]:focus .tag[data-state=agreed]')", "tnc agreed")
        self.assertTrue(tv.record("tnc")["is_agreed"])
        self.assertEqual(tv.js("return document.getElementById('message').textContent"), "Agreed to “Terms of Use”")
        self.assertGreaterEqual(tv.js("return Math.min(...[...document.querySelectorAll('.tag')]"
                                      ".map(t => parseFloat(getComputedStyle(t).fontSize)))"), 28)
        # Right finds nothing beside a row; Down from the last row reaches the control under it.
        tv.press(Keys.ARROW_RIGHT)
        self.assertEqual(tv.focused(), "row-tnc")
        tv.js("[...document.querySelectorAll('.row')].pop().focus()")
        tv.press(Keys.ARROW_DOWN)
        self.assertEqual(tv.focused(), "agree-all")
        tv.press(Keys.ARROW_RIGHT)
        self.assertEqual(tv.focused(), "back")
        # A message ends with the screen it was said on; a changed address opens its screen.
        tv.press(Keys.ESCAPE)
        tv.wait_js("return document.querySelector('#stage[data-view=home] [data-key=wizard]:focus')", "home")
        self.assertEqual(tv.js("return document.getElementById('message').textContent"), "")
        tv.js("location.hash = '#menu'")
        tv.wait_js("return document.querySelector('#stage[data-view=menu] .row[data-id=tnc]')", "the menu by its address")
        tv.ctl("disagree", "tnc")
        wait_until(lambda: tv.state_of(".row[data-id=tnc]") == "not-agreed", 10, "tnc withdrawn")

        tv.js("document.querySelector('[data-key=agree-all]').click()")
        wait_until(lambda: all(tv.record(i)["is_agreed"] for i in ("tnc", "pp", "viewing", "billing")), 10,
                   "every record agreed")
        wait_until(lambda: tv.state_of(".row[data-id=pp]") == "agreed", 10, "the page to show pp agreed")

        tv.host.stop()
        tv.wait_js("return !document.getElementById('no-host').hidden", "the page to see the host go")
        self.assertEqual(tv.js("return document.getElementById('no-host-title').textContent"), "The service is not running")
        tv.screenshot("no-host")
        tv.start_host()
        tv.wait_js("return document.getElementById('no-host').hidden", "the page to see the host return")
        tv.ctl("disagree", "pp")  # reaches the page only if it subscribed again
        wait_until(lambda: tv.state_of(".row[data-id=pp]") == "not-agreed", 10, "the page to follow the new host")
        self.assertTrue(tv.js("return window.notReloaded === true"))

    def test_a_revised_record_is_offered_again_alone(self):
        tv = self.tv
        tv.fill_store()
        tv.ctl("agree", "tnc", "pp", "voice_new", "viewing")
        tv.open_browser()
        tv.wait_home()
        self.assertFalse(tv.js("return document.querySelector('[data-role=revised-banner]')"))

        tv.admin("POST", "/admin/publish", {"country": "US", "id": "voice_new", "version": "2.0"})
        tv.ctl("network", "up", "ethernet")  # a new run of the service picks the version up
        tv.wait_js("return document.querySelector('[data-role=revised-banner]')", "the updated-terms banner", 60)
        tv.screenshot("revised-banner")
        tv.press(Keys.ARROW_UP, Keys.ENTER)
        tv.wait_screen("voice_new")
        self.assertEqual(tv.js("return document.getElementById('progress').textContent"), "1 of 1")
        self.assertEqual(tv.js("return document.querySelector('[data-role=version-note]').textContent"),
                         "These terms changed from version 1.0, which you had agreed to, to version 2.0. "
                         "Please answer again.")
        tv.screenshot("revised")
        tv.press(Keys.ENTER)  # Agree
        tv.wait_js("return document.querySelector('#stage[data-view=home] [data-key=wizard]')", "home again")
        tv.wait_js("return !document.querySelector('[data-role=revised-banner]')", "the banner to go")
        self.assertTrue(tv.record("voice_new")["is_agreed"])
        self.assertNotIn("disclaimers", tv.ctl_json("call", '{"method": "get revised disclaimers"}')[0])

    def test_a_closed_store_is_said_so_on_every_screen_until_the_service_restarts(self):
        tv = self.tv
        tv.open_browser()
        tv.wait_home()
        tv.ctl("power", "off")
        words = tv.wait_js("const s = document.getElementById('host-state').textContent;"
                           "return s.startsWith('Store closed since the power-off') && s", "the footer to say so")
        self.assertIn("restart the service", words)
        home = tv.wait_js("const n = document.querySelector('#stage[data-view=home] [data-role=store-closed]');"
                          "return n && n.textContent", "the home screen to say the store is closed")
        self.assertIn("A restart of the service opens it.", home)
        tv.screenshot("closed-home")
        tv.js("location.hash = '#menu'")
        note = tv.wait_js("const n = document.querySelector('#stage[data-view=menu] [data-role=store-closed]');"
                          "return n && n.textContent", "the menu to say the store is closed")
        self.assertIn("closed since the power-off", note)
        self.assertNotIn("first-run setup", tv.js("return document.getElementById('view').textContent"))
        tv.js("location.hash = '#wizard'")
        tv.wait_js("return document.querySelector('#stage[data-view=wizard] [data-role=failure]')", "the wizard")
        self.assertIn("A restart of the service opens it.",
                      tv.js("return document.querySelector('[data-role=error-reason]').textContent"))

        tv.host.stop()
        tv.start_host()
        tv.wait_js("return document.getElementById('host-state').textContent === 'Service connected'",
                   "the restarted service's open store")


class RightToLeft(TelevisionCase):
    country = "AE"
    language = "ar_AE.utf8"

    def test_a_reversed_set_reads_right_to_left_and_its_notice_only_acknowledges(self):
        tv = self.tv
        tv.fill_store()
        tv.open_browser("#menu")
        tv.wait_js("return document.querySelector('.row[data-id=tnc]')", "the menu")
        self.assertEqual(tv.js("return getComputedStyle(document.querySelector('.row[data-id=tnc]')).direction"), "rtl")
        tv.press(Keys.ENTER)
        tv.wait_screen("tnc")
        self.assertEqual(tv.js("return getComputedStyle(document.querySelector('section.disclaimer')).direction"), "rtl")
        self.assertEqual(tv.texts(".buttons button"), ["موافق", "غير موافق"])
        tv.screenshot("rtl-record")
        tv.press(Keys.ESCAPE)
        tv.wait_js("return document.querySelector('.row[data-id=tnc]:focus')", "the menu again")
        tv.js("document.querySelector('.row[data-id=service_request]').click()")
        tv.wait_screen("service_request")
        self.assertEqual(tv.js("return document.querySelectorAll('.buttons button').length"), 1)
        self.assertEqual(tv.state_of("section.disclaimer"), "notice")
        tv.screenshot("rtl-notice")
        tv.press(Keys.ENTER)
        tv.wait_js("return document.querySelector('.row[data-id=service_request]:focus')", "the menu after the notice")
        self.assertFalse(tv.record("service_request")["is_agreed"])


class OddHost(unittest.TestCase):
    """A stand-in host on the screen's socket that answers with replies of the wrong shape."""

    def setUp(self):
        self.tv = Television(self.id().split(".")[-1])
        self.addCleanup(self.tv.close)
        self.path = os.path.join(self.tv.dir, "odd.sock")
        self.tv.start_screen(socket=self.path)

    def serve_odd_host(self):
        class Odd(socketserver.StreamRequestHandler):
            def handle(self):
                for line in self.rfile:
                    frame = json.loads(line)
                    answer = {"reply": {"result": True, "disclaimers": "several"}} if "call" in frame else {"ok": True}
                    self.wfile.write((json.dumps({"id": frame["id"], **answer}) + "\n").encode())

        server = socketserver.ThreadingUnixStreamServer(self.path, Odd)
        server.daemon_threads = True
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)

    def test_no_host_then_a_reply_of_the_wrong_shape_and_no_call_from_elsewhere(self):
        tv = self.tv
        tv.open_browser()
        tv.wait_js("return !document.getElementById('no-host').hidden && "
                   "document.getElementById('no-host-title').textContent === 'The service is not running'",
                   "the page saying no service runs")
        tv.screenshot("no-service")

        self.serve_odd_host()
        message = tv.wait_js("const m = document.getElementById('message');"
                             "return m.classList.contains('error') && m.textContent", "an error in the status strip")
        self.assertIn('unexpected reply to "get revised disclaimers"', message)

        # Another site's page may post a form to loopback without asking first; it is refused.
        form = urllib.request.Request(tv.url + "api/call", data=b'{"method": "set all agreement", "is_agreed": true}',
                                      headers={"Content-Type": "text/plain"}, method="POST")
        with self.assertRaises(urllib.error.HTTPError) as refused:
            urllib.request.urlopen(form, timeout=10)
        self.assertEqual(refused.exception.code, 403)


def main():
    why = missing_browser()
    if why:
        print(f"SKIPPED: {why}")
        return 77
    suite = unittest.defaultTestLoader.loadTestsFromNames(sys.argv[1:], sys.modules[__name__])
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
