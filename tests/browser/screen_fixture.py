"""An emulated television for the browser tests: a fresh root, tarvo-cloud serving our own
disclaimer sets, tarvo-service-host, tarvo-screen and a headless Chromium on its page, all on
loopback and all ended at clean-up. Paths come from the environment that CMake sets."""

import importlib.util
import json
import os
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.request

import screen_data

BIN = {name: os.environ.get(var, "") for name, var in [
    ("host", "TARVO_HOST_BIN"), ("module", "TARVO_MODULE_PATH"), ("ctl", "TARVO_CTL_BIN"),
    ("cloud", "TARVO_CLOUD_BIN"), ("screen", "TARVO_SCREEN_BIN")]}
SCREENSHOT_DIR = os.environ.get("TARVO_SCREENSHOT_DIR", "screens")
CHROMIUM = shutil.which("chromium") or shutil.which("chromium-browser")
CHROMEDRIVER = shutil.which("chromedriver")
DUID = "DUID-SCREEN-TEST"


def missing_browser():
    """Why the browser tests cannot run here, or None."""
    if not CHROMIUM or not CHROMEDRIVER:
        return "chromium and chromium-driver are not installed (scripts/deps.sh installs them)"
    if importlib.util.find_spec("selenium") is None:
        return "python3-selenium is not installed (scripts/deps.sh installs it)"
    return None


def wait_until(condition, timeout=15.0, what="the condition"):
    """Polls `condition` every 50 ms; its last truthy value, or AssertionError after `timeout`."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise AssertionError(f"timed out after {timeout:.0f} s waiting for {what}")
        time.sleep(0.05)


class Process:
    """A child in a session of its own, output to files; SIGTERM then SIGKILL at stop."""

    def __init__(self, argv, log_prefix, env=None):
        self.log_prefix = log_prefix
        self.out, self.err = open(log_prefix + ".out", "wb"), open(log_prefix + ".err", "wb")
        self.proc = subprocess.Popen(argv, stdout=self.out, stderr=self.err, stdin=subprocess.DEVNULL,
                                     env={**os.environ, **(env or {})}, start_new_session=True)

    def first_line(self, timeout=10.0):
        def line():
            assert self.running(), f"{self.log_prefix}: ended before its first line: {self.stderr()}"
            with open(self.log_prefix + ".out") as f:
                first = f.readline()
            return first.strip() if first.endswith("\n") else None
        return wait_until(line, timeout, f"the first line of {self.log_prefix}")

    def stderr(self):
        with open(self.log_prefix + ".err", "rb") as f:
            return f.read().decode(errors="replace")[-2000:]

    def running(self):
        return self.proc.poll() is None

    def stop(self, grace=5.0):
        if self.running():
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(grace)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait(5)
        self.out.close()
        self.err.close()


class Television:
    """One test's whole set-up. Call the start_* steps in order; close() ends everything."""

    def __init__(self, name, country="US", language="en_US.utf8"):
        self.name = name
        self.dir = tempfile.mkdtemp(prefix="tarvo-screen-test-")
        self.root = os.path.join(self.dir, "root")
        self.country, self.language = country, language
        self.processes = []
        self.host = self.screen = self.driver = None
        self.url = None
        self.env = {"TARVO_ROOT": self.root, "TARVO_ALARM_SCALE": "0.05", "TARVO_TIMEOUT_SCALE": "0.2"}

    # ---- processes ---------------------------------------------------------------------------

    def _spawn(self, argv, name, **kwargs):
        process = Process(argv, os.path.join(self.dir, name), env=self.env, **kwargs)
        self.processes.append(process)
        return process

    def prepare_root(self):
        for folder in ("run", "var/vconf/db", "run/vconf/memory", "var/log", "etc/tarvo",
                       "opt/usr/apps/org.mirlo.cloning/data/Clone"):
            os.makedirs(os.path.join(self.root, folder), exist_ok=True)
        # The developer's default set, its network down at start so that nothing is fetched
        # before a test asks for it.
        shutil.copy(os.path.join(os.path.dirname(__file__), "../../data/devices/retail_uhd.json"),
                    os.path.join(self.root, "etc/tarvo/device.json"))
        self._set_link(False)

    def start_cloud(self):
        """The cloud on our own data, its servers written into the device profile."""
        data = os.path.join(self.dir, "data/openapi")
        os.makedirs(data)
        for dataset in (screen_data.US, screen_data.AE):
            with open(os.path.join(data, dataset["country"] + ".json"), "w", encoding="utf-8") as f:
                json.dump(dataset, f, ensure_ascii=False)
        state = os.path.join(self.dir, "cloud.json")
        self._spawn([BIN["cloud"], "--data", os.path.dirname(data), "--openapi-port", "0", "--admin-port", "0",
                     "--tls-dir", os.path.join(self.dir, "tls"), "--state-file", state,
                     "--write-profile", os.path.join(self.root, "etc/tarvo/device.json")], "cloud")
        self.ports = wait_until(lambda: _read_json(state), 10, "the cloud's ports")
        self.admin_url = f"http://127.0.0.1:{self.ports['admin']}"
        for key, value in [("db/nimbra/gpmurl/apps", f"http://127.0.0.1:{self.ports['openapi']}"),
                           ("db/nimbra/countrycode", self.country), ("db/nimbra/modelid", "TV55SCREEN"),
                           ("db/nimbra/duid", DUID), ("db/menu_widget/language", self.language)]:
            self.ctl("vconf", "set", key, value, "--type", "string")

    def start_host(self):
        self._set_link(False)
        log = os.path.join(self.root, "var/log/tarvo.log")
        created = "Data Control Service Created Success!"
        starts = _read_text(log).count(created)
        self.host = self._spawn([BIN["host"], "--module", BIN["module"], "--root", self.root], "host")
        wait_until(lambda: not self.host.running() or self.ctl_run("ping").returncode == 0, 20,
                   "the host to answer a ping")
        assert self.host.running(), self.host.stderr()
        available = '"result":true'
        wait_until(lambda: available in self.ctl_run("--json", "call", '{"method": "is service available"}').stdout,
                   20, "the service to be available")
        # The start found no network (its check comes before this line), so nothing is fetched
        # before a test asks; the link itself comes up unannounced, so that what a test asks for
        # reaches the cloud.
        wait_until(lambda: _read_text(log).count(created) > starts, 20, "the service's start")
        self._set_link(True)

    def _set_link(self, up):
        path = os.path.join(self.root, "etc/tarvo/device.json")
        profile = _read_json(path)
        profile["network"]["up"] = up
        with open(path + ".new", "w") as f:
            json.dump(profile, f)
        os.replace(path + ".new", path)

    def start_screen(self, socket=None):
        where = ["--socket", socket] if socket else ["--root", self.root]
        self.screen = self._spawn([BIN["screen"], *where, "--port", "0"], "screen")
        self.url = self.screen.first_line()
        assert self.url.startswith("http://127.0.0.1:"), self.url

    def open_browser(self, path=""):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service

        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        # The console's entries, so that a test can tell the page logged no error.
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1920,1080",
                         "--disable-background-networking", "--disable-component-update", "--disable-sync",
                         "--no-first-run", "--disable-dev-shm-usage", f"--user-data-dir={self.dir}/chromium"):
            options.add_argument(argument)
        self.chromedriver = Service(executable_path=CHROMEDRIVER, log_path=os.path.join(self.dir, "chromedriver.log"))
        self.driver = webdriver.Chrome(service=self.chromedriver, options=options)
        # The window's own frame takes some of its 1080 rows; the page gets a whole television screen.
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                    {"width": 1920, "height": 1080, "deviceScaleFactor": 1, "mobile": False})
        self.driver.set_page_load_timeout(20)
        self.driver.set_script_timeout(20)
        self.driver.get(self.url + path)
        return self.driver

    def close(self):
        if self.driver:
            try:
                self.driver.quit()
            except Exception:
                pass
            # Ends chromedriver and, through its process group, any Chromium left behind.
            process = getattr(self.chromedriver, "process", None)
            if process and process.poll() is None:
                process.kill()
        for process in reversed(self.processes):
            process.stop()
        shutil.rmtree(self.dir, ignore_errors=True)

    # ---- the television's tools --------------------------------------------------------------

    def ctl_run(self, *args, timeout=60):
        return subprocess.run([BIN["ctl"], "--root", self.root, *args], capture_output=True, text=True,
                              env={**os.environ, **self.env}, timeout=timeout)

    def ctl(self, *args, timeout=60):
        done = self.ctl_run(*args, timeout=timeout)
        assert done.returncode == 0, f"tarvoctl {' '.join(args)}: {done.returncode} {done.stderr}"
        return done.stdout

    def ctl_json(self, *args):
        """Each line of `tarvoctl --json ...` as JSON."""
        return [json.loads(line) for line in self.ctl("--json", *args).splitlines() if line.strip()]

    def record(self, id_):
        return self.ctl_json("show", id_)[0]

    def fill_store(self):
        self.ctl("update", "--from", "wizard-terms", "--timeout", "60", timeout=90)

    def admin(self, method, path, body=None):
        """The cloud's admin answer as JSON."""
        data = json.dumps(body).encode() if body is not None else None
        request = urllib.request.Request(self.admin_url + path, data=data, method=method,
                                         headers={"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=10) as response:
            return json.loads(response.read() or b"null")

    # ---- the page -----------------------------------------------------------------------------

    def js(self, script, *args):
        return self.driver.execute_script(script, *args)

    def press(self, *keys):
        from selenium.webdriver.common.action_chains import ActionChains

        for key in keys:
            ActionChains(self.driver).send_keys(key).perform()

    def wait_js(self, script, what, timeout=20.0):
        return wait_until(lambda: self.js(script), timeout, what)

    def wait_screen(self, record_id, timeout=20.0):
        """Waits for the screen of `record_id` with the remote's focus in it; the focused key."""
        return self.wait_js(
            f"""const card = document.querySelector('#view section.disclaimer[data-id="{record_id}"]');
                return card && card.contains(document.activeElement) ? document.activeElement.dataset.key : null;""",
            f"the screen of {record_id}", timeout)

    def texts(self, selector):
        return self.js(f"return [...document.querySelectorAll('{selector}')].map(e => e.textContent)")

    def focused(self):
        return self.js("return document.activeElement.dataset.key")

    def wait_home(self):
        self.wait_js("return document.activeElement.dataset.key === 'wizard'", "the home screen")

    def state_of(self, selector):
        return self.js(f"const t = document.querySelector('{selector} .tag'); return t ? t.dataset.state : null;")

    def screenshot(self, view):
        os.makedirs(SCREENSHOT_DIR, exist_ok=True)
        path = os.path.join(SCREENSHOT_DIR, f"{self.name}-{view}.png")
        self.driver.save_screenshot(path)
        return path


def _read_text(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read()
    except OSError:
        return ""


def _read_json(path):
    try:
        return json.loads(_read_text(path))
    except ValueError:
        return None
