"""The page of the gateway in a real browser on the LAN: lumen-web, Chromium and a whole router."""

import html
import os
import pathlib
import struct
import tempfile
import unittest

from support import axe, pcp
from support.browser import ENTER, TAB, Browser, missing_programs
from support.network import LAN_ADDRESS, WAN_ADDRESS, WAN_LINK
from support.router import PROGRAMS
from support.router_case import RouterCase
from test_pinholes import LAN_HOST, PinholeCase

PAGE = f"http://{LAN_ADDRESS}/"
PICTURES = PROGRAMS.parent / "page"  # of the last run

PHONE = {"width": 390, "height": 844, "phone": True}
DESKTOP = {"width": 1600, "height": 1000}

MARKUP = "<img src=x onerror=document.title='taken'>"


@unittest.skipIf(missing_programs(), f"not installed: {', '.join(missing_programs())}")
class PageCase(RouterCase):
    def setUp(self):
        super().setUp()
        self.router.lumenctl("web", "on")
        self.host = self.lan[0]
        self.wait_until(self.is_served, "the page is served")

    def is_served(self):
        try:
            self.host.connect(LAN_ADDRESS, 80).close()
            return True
        except OSError:
            return False

    def browser(self, **options):
        """A browser that shows the page, until the end of the test."""
        browser = Browser(self.host.namespace, **options)
        self.addCleanup(browser.close)
        browser.open(PAGE)
        return browser

    def live_browser(self):
        """The same once it follows the router."""
        browser = self.browser()
        self.wait_until(lambda: "Live" in browser.text("#connection"), "the page is live")
        return browser

    def wait_for_text(self, browser, selector, text):
        self.wait_until(lambda: text in (browser.text(selector) or ""),
                        f"{selector} shows {text!r}")

    def check_each_screen(self, browser, pictures, part="connection"):
        """Shows that part of the page on a phone and on a wide screen, in both colour schemes."""
        for name, screen in {"phone": PHONE, "desktop": DESKTOP}.items():
            for dark in (False, True):
                with self.subTest(screen=name, dark=dark):
                    browser.show_as(**screen, dark=dark)
                    too_wide = browser.run("return document.documentElement.scrollWidth - "
                                           "document.documentElement.clientWidth;")
                    self.assertLessEqual(too_wide, 0)
                    self.assertEqual(axe.violations(browser), [])
                    browser.run("document.getElementById(arguments[0]).scrollIntoView();", part)
                    scheme = "dark" if dark else "light"
                    browser.save_picture(PICTURES / f"{pictures}{name}-{scheme}.png")
                    grounds = browser.run("return getComputedStyle(document.body).backgroundColor;")
                    brightness = max(int(c) for c in grounds.strip("rgba()").split(",")[:3])
                    self.assertEqual(brightness < 128, dark, grounds)


class PageTest(PageCase):
    # Promise: The page shows a port that opens or closes, and a link that goes down or
    # comes up, without being loaded again.
    def test_a_port_appears_when_it_opens_and_disappears_when_it_closes(self):
        browser = self.live_browser()
        browser.run("window.loaded = 'once';")
        self.assertIn("No port is open.", browser.text())
        self.host.upnpc("-e", "a game", "-a", self.host.address, "8080", "8081", "TCP")
        self.wait_for_text(browser, "#ports", "8081")
        row = browser.text("#ports")
        self.assertIn("tcp", row)
        self.assertIn(self.host.address, row)
        self.assertIn("new", row)
        self.wait_for_text(browser, "#lately", "8081")
        browser.save_picture(PICTURES / "port-opened.png")
        browser.run("""
            window.faded = '';
            new MutationObserver(() => {
              const row = document.querySelector('#ports tr.gone');
              if (row) faded = getComputedStyle(row).animationName + ' ' + row.textContent;
            }).observe(document.getElementById('ports'), { childList: true });""")
        self.host.upnpc("-d", "8081", "TCP")
        self.wait_until(lambda: "No port is open." in browser.text(), "the port has gone")
        self.assertRegex(browser.run("return window.faded;"), "^fade 8081.*closed")
        self.assertEqual(browser.run("return window.loaded;"), "once")

    def test_a_link_that_goes_down_is_shown(self):
        browser = self.live_browser()
        self.assertIn(WAN_ADDRESS, browser.text("#state"))
        self.network.router.ip("link", "set", WAN_LINK, "down")
        self.wait_until(lambda: WAN_ADDRESS not in browser.text("#state"), "the state changes")
        self.wait_for_text(browser, "#interfaces", "down")
        browser.save_picture(PICTURES / "link-down.png")
        self.network.router.ip("link", "set", WAN_LINK, "up")
        self.wait_for_text(browser, "#state", WAN_ADDRESS)

    # Promise: It plots the traffic of each external interface, of the last ten minutes.
    def test_traffic_is_plotted(self):
        browser = self.live_browser()
        self.wait_for_text(browser, "#plots", WAN_LINK)
        self.assertIn("10 min ago", browser.run(
            "return document.querySelector('#plots svg').textContent;"))
        browser.show_as(**DESKTOP)
        across = "return document.querySelector('#plots svg').viewBox.baseVal.width;"
        wide = self.wait_until(lambda: (width := browser.run(across)) > 700 and width,
                               "it is drawn for the screen")
        browser.save_picture(PICTURES / "traffic.png")
        browser.show_as(**PHONE)
        self.wait_until(lambda: browser.run(across) < wide / 2, "it is drawn for the phone")

    # Promise: Without the script the page is complete when it is loaded.
    def test_without_the_script_the_page_shows_the_open_ports(self):
        self.host.open_port(8080, "TCP")
        browser = self.browser(scripts=False)
        self.assertIn("8080", browser.text("#ports"))
        self.assertIn(WAN_ADDRESS, browser.text("#state"))
        self.assertEqual(browser.text("h2"), "State", "it comes first")
        self.assertNotIn("{{", browser.text())
        browser.save_picture(PICTURES / "without-script.png")

    # No promise, since axe-core may not be there: it fits phones and wide screens, in both colour
    # schemes, and axe-core finds nothing that keeps people from using it.
    def test_it_is_usable_on_each_screen_and_in_each_colour_scheme(self):
        try:
            axe.script()
        except axe.Missing as why:
            self.skipTest(str(why))
        for port in range(8080, 8090):
            self.host.open_port(port, "TCP")
        browser = self.live_browser()
        self.wait_for_text(browser, "#ports", "8089")
        self.check_each_screen(browser, "")

    # Promise: Everything on it is reached and used by keyboard.
    def test_it_is_used_by_keyboard(self):
        for port in (8081, 8080):
            self.host.open_port(port, "TCP")
        browser = self.live_browser()
        self.wait_for_text(browser, "#ports", "8081")
        reached = []
        for _ in range(40):
            browser.press(TAB)
            focused = browser.run(
                "const e = document.activeElement;"
                "return e === document.body ? '' : (e.id || e.textContent.trim());")
            if not focused:
                break
            reached.append(focused)
            self.assertNotEqual(browser.run(
                "return getComputedStyle(document.activeElement).outlineStyle;"), "none", focused)
            if focused == "Port":
                # Sorted by port already: the first time turns the order round.
                browser.press(ENTER)
                self.wait_until(lambda: browser.text("#ports tr").startswith("8081"),
                                "the highest port comes first")
            if focused == "copy":
                browser.press(ENTER)
                self.wait_for_text(browser, "#copy", "Copied")
            if focused == "filter-text":
                browser.press("8", "0", "8", "0")
                self.wait_until(lambda: "8081" not in browser.text("#ports"), "it filters")
                browser.run("document.activeElement.value = '';"
                            "document.activeElement.dispatchEvent(new Event('input'));")
        for name in ("filter-text", "Port", "Host", "copy"):
            self.assertIn(name, reached)

    # Promise: What a host says of itself or of its ports is shown as text, never as markup.
    def test_a_description_that_is_markup_does_nothing(self):
        self.host.upnpc("-e", html.escape(MARKUP), "-a", self.host.address, "8080", "8080", "TCP")
        browser = self.live_browser()
        self.wait_for_text(browser, "#ports", "8080")
        self.assertEqual(browser.run("return document.images.length;"), 0)
        self.assertNotEqual(browser.run("return document.title;"), "taken")


class NamedHostTest(PageTest):
    """Where the router's leases give a host a name that would be markup."""

    def setUp(self):
        leases = tempfile.TemporaryDirectory(prefix="palinode-var-")
        self.addCleanup(leases.cleanup)
        folder = pathlib.Path(leases.name)
        (folder / "lib" / "misc").mkdir(parents=True)
        for path in (folder, folder / "lib", folder / "lib" / "misc"):
            os.chmod(path, 0o755)
        name = MARKUP.replace(" ", "/")
        (folder / "lib" / "misc" / "dnsmasq.leases").write_text(
            f"0 02:00:00:00:00:01 192.168.88.10 {name} *\n")
        self.PRIVATE = {"/var": leases.name}
        self.name = name
        super().setUp()

    def test_a_name_that_is_markup_is_shown_as_text(self):
        self.host.open_port(8080, "TCP")
        browser = self.live_browser()
        self.wait_for_text(browser, "#ports", self.name)
        self.assertEqual(browser.run("return document.images.length;"), 0)
        self.assertEqual(self.browser(scripts=False).text("#ports th"), "8080")


class LanguagesTest(PageCase, PinholeCase):
    """A port of each language, and one of an IPv6 host."""

    def setUp(self):
        super().setUp()
        self.host.open_port(8080, "TCP")
        # FILTER (RFC 6887 section 13.3): of the WAN network only, at any port.
        some = struct.pack("!BxH", 3, 20) + struct.pack("!xBH", 96 + 24, 0) + pcp.mapped("45.45.45.0")
        for request in (pcp.natpmp_map(pcp.UDP, 5060, 5060),
                        pcp.pcp_map(pcp.TCP, 8443, 8443, host=self.host.address, options=some)):
            with self.host.udp(to=(LAN_ADDRESS, pcp.PORT)) as sock:
                sock.settimeout(5)
                sock.send(request)
                self.assertEqual(sock.recv(100)[3], 0)
        self.assertEqual(self.map(pcp.TCP, 51413)[0], 0)

    def cell(self, browser, table, port, heading):
        """The text of a port's cell under that heading; None: it is not shown."""
        return browser.run("""
            const table = document.getElementById(arguments[0]).closest('table');
            const at = [...table.tHead.rows[0].cells].findIndex(h => h.textContent === arguments[2]);
            const row = [...table.tBodies[0].rows].find(r => r.cells[0].textContent === arguments[1]);
            return row && row.cells[at].offsetParent ? row.cells[at].textContent : null;
            """, table, str(port), heading)

    # Promise: The page shows which service opened each port, from where alone it is reached and when its
    # lease ends, and the open ports of IPv6 hosts; what is left counts down by itself.
    def test_it_shows_who_opened_a_port_and_when_it_ends(self):
        for browser in (self.browser(scripts=False), self.live_browser()):
            self.wait_for_text(browser, "#pinholes", "51413")
            self.wait_for_text(browser, "#ports", "8443")
            for port, owner, source in ((8080, "upnp", "anywhere"), (5060, "pcp", "anywhere"),
                                        (8443, "pcp", "45.45.45.0/24")):
                self.assertEqual(self.cell(browser, "ports", port, "Opened by"), owner)
                self.assertEqual(self.cell(browser, "ports", port, "From"), source)
            self.assertEqual(self.cell(browser, "ports", 8080, "Ends in"), "")
            self.assertRegex(self.cell(browser, "ports", 5060, "Ends in"), r"^(1 h|59 min .*)$")
            self.assertEqual(self.cell(browser, "pinholes", 51413, "IPv6 host"), LAN_HOST)
            self.assertEqual(self.cell(browser, "pinholes", 51413, "Opened by"), "pcp")
        browser.run("window.row = document.querySelector('#pinholes tr');")
        for table, port in (("ports", 5060), ("pinholes", 51413)):
            before = self.cell(browser, table, port, "Ends in")
            self.wait_until(lambda: self.cell(browser, table, port, "Ends in") != before,
                            "what is left is less")
        self.assertTrue(browser.run("return window.row.isConnected;"), "it was not drawn again")

    def test_a_port_of_an_ipv6_host_comes_and_goes(self):
        browser = self.live_browser()
        self.wait_for_text(browser, "#pinholes", "51413")
        self.map(pcp.UDP, 51414)
        self.wait_for_text(browser, "#pinholes", "51414")
        self.assertIn("new", self.cell(browser, "pinholes", 51414, "IPv6 host"))
        for protocol, port in ((pcp.UDP, 51414), (pcp.TCP, 51413)):
            self.map(protocol, port, lifetime=0)
        self.wait_until(lambda: not browser.text("#pinholes"), "they have gone")
        self.assertTrue(browser.run("return document.getElementById('pinholes-region').hidden;"))

    def test_columns_that_say_nothing_are_not_there(self):
        browser = self.live_browser()
        self.wait_for_text(browser, "#ports", "8443")
        self.router.lumenctl("pcp", "off")
        self.wait_until(lambda: "8443" not in browser.text("#ports"), "only one port is left")
        for heading in ("From", "Ends in"):
            self.assertIsNone(self.cell(browser, "ports", 8080, heading))
        self.assertEqual(self.cell(browser, "ports", 8080, "Opened by"), "upnp")

    # No promise, since axe-core may not be there.
    def test_it_is_usable_on_each_screen_and_in_each_colour_scheme(self):
        try:
            axe.script()
        except axe.Missing as why:
            self.skipTest(str(why))
        browser = self.live_browser()
        self.wait_for_text(browser, "#pinholes", "51413")
        self.check_each_screen(browser, "languages-", part="ports-heading")


if __name__ == "__main__":
    unittest.main()
