"""The page in headless Chromium, against a simulator on free ports. Each
test's final page is saved as a screenshot in $LEITCH_WEB_ARTIFACTS."""

import os
import shutil
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
from routerd import LeitchClient, Routerd, config  # noqa: E402

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.action_chains import ActionChains
except ImportError:
    webdriver = None

CHROMIUM = shutil.which("chromium") or shutil.which("chromium-browser")
CHROMEDRIVER = shutil.which("chromedriver")
ARTIFACTS = os.environ.get("LEITCH_WEB_ARTIFACTS", os.path.join(tempfile.gettempdir(), "leitch-web-artifacts"))


def start_browser(profile):
    options = webdriver.ChromeOptions()
    # Without these, Chromium on a machine with no internet stalls on start-up.
    for flag in ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--disable-dev-shm-usage", "--window-size=1400,900", "--user-data-dir=" + profile]:
        options.add_argument(flag)
    options.binary_location = CHROMIUM
    return webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)


def eventually(check, timeout=5.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if check():
            return True
        time.sleep(0.02)
    return check()


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.profile = tempfile.mkdtemp(prefix="leitch-chromium-")
        cls.browser = start_browser(cls.profile)
        os.makedirs(ARTIFACTS, exist_ok=True)

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        shutil.rmtree(cls.profile, ignore_errors=True)

    def setUp(self):
        self.routerd = Routerd()
        self.addCleanup(lambda: self.routerd.close())
        self.open_page()

    def tearDown(self):
        self.browser.save_screenshot(os.path.join(ARTIFACTS, self._testMethodName + ".png"))

    def open_page(self):
        self.browser.get(self.routerd.url)
        self.assertTrue(eventually(lambda: self.view("connected()")), "the page did not connect")

    def view(self, expression):
        return self.browser.execute_script("return routerView." + expression)

    def click(self, point):
        # Selenium's offsets are from the element's centre.
        body = self.browser.find_element("tag name", "body")
        size = body.size
        ActionChains(self.browser).move_to_element_with_offset(
            body, int(point["x"] - size["width"] / 2), int(point["y"] - size["height"] / 2)).click().perform()

    def hover(self, point):
        body = self.browser.find_element("tag name", "body")
        size = body.size
        ActionChains(self.browser).move_to_element_with_offset(
            body, int(point["x"] - size["width"] / 2), int(point["y"] - size["height"] / 2)).perform()

    def tooltip_over(self, point):
        self.hover(point)
        return self.view("tooltip()")

    def test_built_in_router_grid_is_drawn(self):
        self.assertEqual([(l["number"], l["name"], l["leitch_level"]) for l in self.view("levels()")],
                         [(0, "video", 0), (1, "audio", 1)])
        grid = self.browser.find_element("id", "grid")
        self.assertEqual((grid.get_attribute("data-level"), grid.get_attribute("data-sources"),
                          grid.get_attribute("data-destinations")), ("0", "32", "32"))
        self.assertTrue(eventually(lambda: int(grid.get_attribute("data-paints") or 0) > 0))
        tabs = self.browser.find_elements("css selector", "#tabs button")
        self.assertEqual([t.get_attribute("data-level") for t in tabs], ["0", "1"])

    def test_the_links_served_are_listed(self):
        self.assertEqual(self.view("links()"), [{"kind": "tcp", "where": "127.0.0.1:%d" % self.routerd.port,
                                                 "settings": "", "up": True, "problem": ""}])
        rows = self.browser.find_elements("css selector", "#links tbody tr")
        self.assertEqual([[cell.text for cell in row.find_elements("tag name", "td")] for row in rows],
                         [["tcp", "127.0.0.1:%d" % self.routerd.port, "-", "listening"]])

    def test_take_by_a_leitch_client_shows_within_one_second(self):
        client = LeitchClient(self.routerd.port)
        client.send("@ X:0/5,3\r")
        sent = time.monotonic()
        self.assertTrue(eventually(lambda: self.view("source(0, 5)") == 3, timeout=1.0))
        self.assertLess(time.monotonic() - sent, 1.0)
        self.assertTrue(eventually(lambda: any(e["kind"] == "take" and e["destination"] == 5 and e["source"] == 3
                                               for e in self.view("events()"))))
        client.close()

    def test_click_on_a_cell_is_reported_to_a_report_mode_client(self):
        client = LeitchClient(self.routerd.port)
        client.report_mode()
        self.click(self.view("cellCentre(9, 4)"))
        self.assertEqual(client.read_until("\r\n>"), "\r\nS:09,4\r\n>")
        self.assertTrue(eventually(lambda: self.view("source(0, 9)") == 4))
        client.close()

    def test_lock_by_a_leitch_client_shows(self):
        client = LeitchClient(self.routerd.port)
        client.send("@ W:0/7,1,1\r")
        self.assertTrue(eventually(lambda: self.view("lock(0, 7)") == 1, timeout=1.0))
        client.close()

    def test_click_on_a_lock_box_locks_the_destination(self):
        self.click(self.view("lockCentre(12)"))
        self.assertTrue(eventually(lambda: self.view("lock(0, 12)") == 1))

    def test_take_on_a_locked_destination_shows_the_refusal(self):
        client = LeitchClient(self.routerd.port)
        client.send("@ W:0/7,1,1\r")
        self.assertTrue(eventually(lambda: self.view("lock(0, 7)") == 1))
        self.click(self.view("cellCentre(7, 2)"))
        self.assertTrue(eventually(lambda: self.view("message()") == "refused: destination locked"))
        self.assertTrue(eventually(lambda: (self.view("lastRefusal()") or {}).get("reason") == "destination locked"))
        self.assertEqual(self.view("source(0, 7)"), 0)
        client.close()

    def test_large_level_is_drawn_and_jumps_to_a_destination(self):
        self.routerd.close()
        self.routerd = Routerd("--config", config("one_large_level.toml"))
        self.open_page()
        client = LeitchClient(self.routerd.port)
        client.send("@ X:0/400,3FF\r")
        self.assertTrue(eventually(lambda: self.view("source(0, 1024)") == 1023))
        self.view("scrollToDestination(1024)")
        self.assertEqual(self.browser.find_element("id", "grid").get_attribute("data-destinations"), "1152")
        client.close()

    def test_labels_are_shown_in_the_headers_and_in_tooltips(self):
        self.routerd.close()
        self.routerd = Routerd("--config", config("labelled_levels.toml"))
        self.open_page()
        client = LeitchClient(self.routerd.port)
        client.send("@ X:0/1,2\r@ W:0/4,1,1\r")
        self.assertTrue(eventually(lambda: self.view("source(0, 1)") == 2 and self.view("lock(0, 4)") == 1))
        self.assertEqual(self.view("labels(0)")["destination_labels"][11:], [
            "REC 2", "Multiviewer 1 Quad Split Top Left Input", "Caf\u00e9 \u2192 Lobby"])
        self.assertEqual(self.view("labels(1)"), {"source_labels": [], "destination_labels": []})

        # Destinations down with their labels, sources across; numbers in hexadecimal beside them.
        self.assertTrue(eventually(lambda: len(self.view("headers()")["rows"]) >= 16))
        headers = self.view("headers()")
        rows = {row[0]: row[1:] for row in headers["rows"]}
        columns = {column[0]: column[1:] for column in headers["columns"]}
        for number, shown in [(0, ["0", "Studio A PGM"]), (1, ["1", "Studio A PVW"]), (9, ["9", "TX 2"]),
                              (13, ["D", "Caf\u00e9 \u2192 Lobby"]), (14, ["E", ""]), (15, ["F", ""])]:
            self.assertEqual(rows[number], shown, number)
        for number, shown in [(0, ["0", "CAM 1"]), (9, ["9", "VTR 2"]), (14, ["E", ""]), (15, ["F", "CLIP PLAYER"]),
                              (20, ["14", "BLACK"]), (21, ["15", ""])]:
            self.assertEqual(columns[number], shown, number)
        # Too long for a header: cut short with an ellipsis, whole in the tooltip.
        for cut, whole in [(rows[12], "Multiviewer 1 Quad Split Top Left Input"),
                           (columns[18], "Studio B Remote Feed Camera 12 Wide")]:
            self.assertTrue(cut[1].endswith("\u2026") and whole.startswith(cut[1][:-1].rstrip()), cut)
            self.assertLess(len(cut[1]), len(whole))

        self.assertEqual(self.tooltip_over(self.view("cellCentre(12, 18)")),
                         "Studio B Remote Feed Camera 12 Wide (src 12) \u2192 "
                         "Multiviewer 1 Quad Split Top Left Input (dst C)")
        self.assertEqual(self.tooltip_over(self.view("cellCentre(4, 0)")),
                         "CAM 1 (src 0) \u2192 MON 3 (dst 4) \u00b7 locked")
        self.assertEqual(self.tooltip_over(self.view("cellCentre(20, 25)")), "src 19 \u2192 dst 14")
        self.assertEqual(self.tooltip_over(self.view("headerPoint('destination', 1)")),
                         "Studio A PVW (dst 1) \u2190 CAM 3 (src 2)")
        self.assertEqual(self.tooltip_over(self.view("headerPoint('source', 15)")), "CLIP PLAYER (src F)")
        self.assertEqual(self.tooltip_over(self.view("headerPoint('source', 14)")), "src E")
        self.assertEqual(self.tooltip_over(self.view("lockCentre(4)")), "MON 3 (dst 4): unlock")
        self.assertEqual(self.browser.find_element("id", "hover-info").text, "MON 3 (dst 4): unlock")

        # Sources down: the same labels, the other way round.
        self.browser.find_element("id", "swap").click()
        self.assertTrue(eventually(lambda: [0, "0", "CAM 1"] in self.view("headers()")["rows"]))
        self.assertIn([1, "1", "Studio A PVW"], self.view("headers()")["columns"])
        self.assertEqual(self.tooltip_over(self.view("headerPoint('source', 2)")), "CAM 3 (src 2)")
        self.assertEqual(self.tooltip_over(self.view("cellCentre(0, 9)")), "VTR 2 (src 9) \u2192 Studio A PGM (dst 0)")

        # A level without labels shows its numbers alone.
        self.view("select(1)")
        self.assertTrue(eventually(lambda: [0, "0", ""] in self.view("headers()")["rows"]))
        self.assertEqual(self.tooltip_over(self.view("cellCentre(3, 5)")), "src 5 \u2192 dst 3")
        client.close()

    def test_saved_routing_is_saved_and_recalled_from_the_page(self):
        state_directory = tempfile.mkdtemp(prefix="leitch-state-")
        self.addCleanup(lambda: shutil.rmtree(state_directory, ignore_errors=True))
        self.routerd.close()
        self.routerd = Routerd("--state", os.path.join(state_directory, "state.db"))
        self.open_page()
        client = LeitchClient(self.routerd.port)
        client.send("@ X:0/3,7\r")
        self.assertTrue(eventually(lambda: self.view("source(0, 3)") == 7))
        self.browser.find_element("id", "salvo-name").send_keys("rehearsal")
        self.browser.find_element("css selector", "#salvo-save button").click()
        self.assertTrue(eventually(lambda: [s["name"] for s in self.view("salvos()")] == ["rehearsal"]))
        # Read in one go: the panel is drawn again whenever the links change.
        state_row = ["state", os.path.join(state_directory, "state.db"), "SQLite", "saved"]
        self.assertTrue(eventually(lambda: state_row in self.browser.execute_script(
            "return [...document.querySelectorAll('#links tbody tr')].map(r => [...r.cells].map(c => c.textContent))")))

        client.send("@ X:0/3,1\r")
        self.assertTrue(eventually(lambda: self.view("source(0, 3)") == 1))
        client.report_mode()
        self.browser.find_element("css selector", '#salvos li[data-name="rehearsal"] button').click()
        reports = client.read_until("S:11F,0\r\n>", timeout=5.0)
        self.assertIsNotNone(reports)
        self.assertIn("\r\nS:03,7\r\n>", reports)
        self.assertTrue(eventually(lambda: self.view("source(0, 3)") == 7))
        self.assertTrue(eventually(lambda: self.view("message()") == "recalled rehearsal: 64 taken"))
        client.close()

    def test_page_reconnects_after_the_simulator_restarts(self):
        port = self.routerd.web_port
        self.assertEqual(self.routerd.stop(), 0)
        self.assertTrue(eventually(lambda: not self.view("connected()")))
        self.routerd.close()
        self.routerd = Routerd(http="127.0.0.1:%d" % port)
        client = LeitchClient(self.routerd.port)
        client.send("@ X:0/6,2\r")
        self.assertTrue(eventually(lambda: self.view("connected()") and self.view("hellos()") == 2, timeout=10))
        self.assertTrue(eventually(lambda: self.view("source(0, 6)") == 2))
        client.close()


if __name__ == "__main__":
    if webdriver is None or not CHROMIUM or not CHROMEDRIVER:
        print("skipped: Chromium, chromedriver or python3-selenium is missing (scripts/install-deps.sh installs them)")
        sys.exit(77)
    unittest.main(warnings="ignore")
