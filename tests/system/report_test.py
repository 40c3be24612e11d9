# tests/system/report_test.py: the page of trak-backup report, in a browser
# SPDX-License-Identifier: GPL-2.0-only
import glob
import json
import os
import pathlib

from trak_machine import BIN, MIB, SystemTest
from trak_testing import main, run
from webdriver import Browser, pixels

BACKUP = os.path.join(BIN, "trak-backup")
SIZE = 64 * MIB
NAME = "<script>alert(1)<b>&amp;\"'"  # of the store's folder, and of the node
READ = """
return [...document.querySelectorAll('data[data-field]')].map(e => [
  e.closest('[data-id]') ? e.closest('[data-id]').dataset.id : null, e.dataset.field, e.value,
  e.textContent]);
"""
WIDEST = "return document.documentElement.scrollWidth - window.innerWidth;"
UNNAMED = """
return [...document.querySelectorAll('svg')].filter(e => e.getAttribute('role') != 'img' ||
  !e.getAttribute('aria-label')).length;
"""
SEGMENTS = """
return Math.max(...[...document.querySelectorAll('svg.map')].map(svg =>
  [...svg.querySelectorAll('path')].reduce((n, p) => n + p.getAttribute('d').split('M').length, 0)));
"""
FOREIGN = "return document.querySelectorAll('script, img, iframe, main b b').length;"


def size_text(value):
    """As the program writes sizes."""
    units, unit, value = ("B", "KiB", "MiB", "GiB", "TiB"), 0, float(value)
    while unit < 4 and value >= 1023.5:
        value, unit = value / 1024, unit + 1
    return f"{value:.0f} {units[unit]}" if unit == 0 or value >= 99.95 else (
        f"{value:.1f} {units[unit]}")


def field_of(manifest, field):
    for key in field.split("."):
        manifest = manifest[key]
    return manifest


class Report(SystemTest):
    def back_up(self, daemon, kind, *words, expect=0):
        run(BACKUP, "--root", daemon.root, kind, "--disk", "0", "--store", self.store, *words,
            expect=expect, timeout=300)

    def write(self, daemon, offset, size, data=None):
        with open(daemon.node(NAME), "r+b", buffering=0) as node:
            node.seek(offset)
            node.write(data or os.urandom(size))
            os.fsync(node.fileno())

    def chain(self):
        """full, incr, incr with a silent miss, diff; and a manifest with an odd name and no sense."""
        self.store = self.m.path(f"store {NAME}")
        image = self.m.image("d.img", SIZE)
        daemon = self.m.trakd(images={"d": image})
        with daemon.control() as control:
            control.add_filter("/dev/image/d", self.m.folder("maps"), 4096, name=NAME)
            control.start(0)
        self.write(daemon, 0, 8 * MIB)
        self.back_up(daemon, "full")
        for at in range(0, SIZE, MIB):
            self.write(daemon, at + at // 97 // 4096 * 4096, 4096)
        with open(daemon.node(NAME), "rb") as node:
            same = node.read(MIB)
        self.write(daemon, 0, 0, same)
        self.back_up(daemon, "incr")
        with open(image, "r+b") as file:
            file.seek(3 * MIB)
            file.write(os.urandom(MIB))
        os.sync()
        self.back_up(daemon, "incr", "--audit-sample", "100000", expect=3)
        self.back_up(daemon, "diff")
        daemon.stop()
        with open(f"{self.store}/000009-<img src=x onerror=alert(2)>.json", "w",
                  encoding="ascii") as file:
            file.write("<script>alert(3)</script>")

    def manifests(self):
        found = {}
        for name in glob.glob(f"{glob.escape(self.store)}/*-full.json") + glob.glob(
                f"{glob.escape(self.store)}/*-incr.json") + glob.glob(
                f"{glob.escape(self.store)}/*-diff.json"):
            with open(name, encoding="utf-8") as file:
                found[os.path.basename(name)[:-5]] = json.load(file)
        return found

    def check_numbers(self, numbers, manifests):
        """Each is the manifest's, and each manifest's stand on the page."""
        shown = set()
        for name, field, value, text in numbers:
            if name is None:
                continue
            wanted = field_of(manifests[name], field)
            self.assertEqual(float(value), float(wanted), f"{name} {field}")
            if field.startswith("seconds"):
                self.assertEqual(text, f"{wanted:.2f} s", f"{name} {field}")
            elif field.startswith(("bytes", "image", "hashes", "map")):
                self.assertEqual(text, size_text(wanted), f"{name} {field}")
            else:
                self.assertEqual(text, str(wanted), f"{name} {field}")
            shown.add((name, field))
        for name, one in manifests.items():
            for group in ("bytes", "extents", "seconds"):
                for key in one[group]:
                    self.assertIn((name, f"{group}.{key}"), shown)
        sums = {field: int(value) for name, field, value, _ in numbers if name is None}
        every = manifests.values()
        self.assertEqual(sums, {
            "sum.stored": sum(one[part]["size"] for one in every for part in
                              ("image", "hashes", "map")),
            "sum.unchanged": sum(one["bytes"]["unchanged"] for one in every),
            "sum.audited": sum(one["audit"]["blocks"] for one in every),
            "sum.differing": sum(one["audit"]["differing"] for one in every)})

    def test_the_page_shows_the_manifests_numbers_and_nothing_from_names(self):
        self.chain()
        page, manifests = self.m.path("page.html"), self.manifests()
        run(BACKUP, "report", "--store", self.store, "--to", page, expect=1)  # one is damaged
        self.assertLess(os.path.getsize(page), 200000)
        self.assertEqual(sorted(one["kind"] for one in manifests.values()),
                         ["diff", "full", "incr", "incr"])
        with Browser(self.m.folder("browser")) as browser:
            browser.open(pathlib.Path(page).as_uri())
            self.check_numbers(browser.run(READ), manifests)
            self.assertEqual(browser.run(FOREIGN), 0)
            self.assertEqual(browser.run(UNNAMED), 0)
            self.assertLess(browser.run(SEGMENTS), 2100)
            top = browser.run("return document.querySelector('.top').textContent;")
            self.assertIn(f"node {NAME}", top)
            self.assertIn(f"/store {NAME}", top)
            self.assertIn("alert(2)", browser.run("return document.querySelector('.faults')"
                                                  ".textContent;"))
            self.assertGreater(browser.run("return document.querySelectorAll('.miss').length;"), 0)
            for width in (1200, 390):
                browser.width(width)
                self.assertLessEqual(browser.run(WIDEST), 0, f"too wide for {width} pixels")
                png = browser.screenshot()
                self.keep(f"report-{width}.png", png)
                seen = pixels(png)
                self.assertEqual(seen[:2], (width, 1000))
                self.assertGreater(len(seen[2]), 20, "blank")
            self.assertEqual(browser.console(), [])

    def keep(self, name, data):
        """The pictures, for a person who asks for them."""
        if os.environ.get("TRAK_KEEP"):
            pathlib.Path(os.environ["TRAK_KEEP"], name).write_bytes(data)

    def test_no_other_file_is_overwritten(self):
        self.store = self.m.folder("store")
        daemon = self.filter(size=4 * MIB)
        self.back_up(daemon, "full")
        daemon.stop()
        page = self.m.path("page.html")
        pathlib.Path(page).write_text("mine", encoding="ascii")
        words = (BACKUP, "report", "--store", self.store, "--to", page)
        self.assertIn("no report", run(*words, expect=1).err)
        self.assertEqual(pathlib.Path(page).read_text(encoding="ascii"), "mine")
        run(*words, "--force")
        first = pathlib.Path(page).read_bytes()
        self.assertIn(b"000001-full", first)
        os.unlink(f"{self.store}/000001-full.map")
        run(*words)  # over a report
        self.assertIn(b"There is no picture", pathlib.Path(page).read_bytes())


if __name__ == "__main__":
    main()
