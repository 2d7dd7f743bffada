"""The report's "set corners" mode in a real browser (Debian's chromium and
chromedriver, through selenium): a capture the batch could not align well
is opened, its screen's corners clicked a little off the simulator's truth,
the hints saved (a real download), the batch run again by the command the
page gives, and the new corners checked against the truth."""
import csv
import os
import pathlib
import shlex
import shutil
import subprocess
import tempfile
import time
import unittest

import numpy as np

try:
    from selenium import webdriver
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
except ImportError:  # reported by the skip below
    webdriver = None

BUILD = os.environ["FRAMEALIGN_BUILD"]
CHROMIUM, CHROMEDRIVER = "/usr/bin/chromium", shutil.which("chromedriver")
# A small screen (15% of the capture's width): the search finds it, but its
# estimate is just over 1 px, so the report offers to set its corners.
SIM_OPTIONS = ["--seed", "1", "--screen-scale", "0.15"]


def browser(downloads):
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--window-size=1400,1000", f"--user-data-dir={downloads.parent / 'profile'}"):
        options.add_argument(flag)
    options.add_experimental_option("prefs", {"download.default_directory": str(downloads),
                                              "download.prompt_for_download": False})
    driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
    driver.execute_cdp_cmd("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": str(downloads)})
    return driver


def summary_row(root, id):
    with open(root / "summary.csv", newline="") as file:
        return next(r for r in csv.DictReader(file) if r["id"] == id)


def corners_of(row):
    return np.array([float(row[k]) for k in ("x1", "y1", "x2", "y2", "x3", "y3", "x4", "y4")]).reshape(4, 2)


@unittest.skipUnless(webdriver and CHROMEDRIVER and os.path.exists(CHROMIUM),
                     "needs Debian's chromium, chromium-driver and python3-selenium")
class SetCorners(unittest.TestCase):
    def test_clicked_corners_become_hints_refined_to_the_truth(self):
        work = pathlib.Path(tempfile.mkdtemp(prefix="framealign_browser_"))
        subprocess.run([f"{BUILD}/framealign-sim", "--out", str(work / "hard"), "--width", "1280", "--height", "720",
                        "--capture-width", "1920", "--capture-height", "1440", *SIM_OPTIONS], check=True,
                       stdout=subprocess.DEVNULL)
        truth = np.loadtxt(work / "hard" / "corners.txt").reshape(4, 2)
        batch = [f"{BUILD}/framealign-batch", "--reference-file", "hard/reference.yuv", "--width", "1280",
                 "--height", "720", "--refine", "--jobs", "1", "--result-root", "out", "hard/capture.jpg"]
        subprocess.run(batch, check=True, cwd=work, capture_output=True)
        first = summary_row(work / "out", "capture")
        self.assertTrue(first["status"] != "aligned" or float(first["est_error_px"]) > 1, first)

        downloads = work / "downloads"
        driver = browser(downloads)
        try:
            driver.get((work / "out" / "report.html").as_uri())
            driver.find_element(By.CSS_SELECTOR, "tr[data-id='capture'] button.set").click()
            for _ in range(100):
                if driver.execute_script("return document.getElementById('set-img').naturalWidth"):
                    break
                time.sleep(0.05)
            svg = driver.find_element(By.ID, "set-svg")
            width = driver.execute_script("return document.getElementById('set-img').naturalWidth")
            # A click as a hand gives: 2% of the screen's width off, each
            # corner another way. Any answer the search drew is cleared first.
            driver.find_element(By.ID, "set-clear").click()
            size = np.hypot(*(truth[1] - truth[0]))
            clicks = truth + 0.02 * size * np.array([[0.7, 0.7], [-0.7, 0.7], [0.7, -0.7], [-0.7, -0.7]])
            shown = svg.rect
            for x, y in clicks:
                scale = shown["width"] / width
                ActionChains(driver).move_to_element_with_offset(
                    svg, int(round(x * scale - shown["width"] / 2)), int(round(y * scale - shown["height"] / 2))
                ).click().perform()
            if os.environ.get("FRAMEALIGN_SCREENSHOT"):
                driver.save_screenshot(os.environ["FRAMEALIGN_SCREENSHOT"])
            driver.find_element(By.ID, "set-done").click()
            driver.find_element(By.ID, "save-hints").click()
            saved = downloads / "hints.csv"
            for _ in range(100):
                if saved.exists():
                    break
                time.sleep(0.05)
            command = driver.find_element(By.ID, "next-command").text
        finally:
            driver.quit()
        with open(saved, newline="") as file:
            hints = list(csv.DictReader(file))
        self.assertEqual([h["id"] for h in hints], ["capture"])
        # What was clicked is what was saved, in capture pixels (to the
        # screen pixel a click lands on, and the next).
        self.assertLess(np.abs(corners_of(hints[0]) - clicks).max(), 2 * width / shown["width"])
        # The page's next step, with the downloaded file's path.
        words = shlex.split(command)
        self.assertEqual(words[-2:], ["--hints", "hints.csv"])
        subprocess.run(words[:-1] + [str(saved)], check=True, cwd=work, capture_output=True)
        second = summary_row(work / "out", "capture")
        self.assertEqual((second["status"], second["path"]), ("aligned", "hint"), second["reason"])
        self.assertLess(np.abs(corners_of(second) - truth).max(), 1.0)
        shutil.rmtree(work)


@unittest.skipUnless(webdriver and CHROMEDRIVER and os.path.exists(CHROMIUM),
                     "needs Debian's chromium, chromium-driver and python3-selenium")
class VideoTimeline(unittest.TestCase):
    """A filmed video (a hand in front of the screen, the file cut short) is one
    timeline with a mark per frame; only the frames that need a look have rows,
    each reached from the timeline's list, with its pictures."""

    def test_a_video_is_a_timeline_and_its_doubtful_frames_rows(self):
        work = pathlib.Path(tempfile.mkdtemp(prefix="framealign_timeline_"))
        subprocess.run([f"{BUILD}/framealign-sim", "--video", "--out", str(work / "clip"), "--width", "640",
                        "--height", "360", "--capture-width", "960", "--capture-height", "540", "--seconds", "0.5",
                        "--seed", "3", "--reference-frames", "16", "--codec", "mjpg", "--hand"], check=True,
                       stdout=subprocess.DEVNULL)
        whole = (work / "clip" / "capture.avi").read_bytes()
        (work / "cut.avi").write_bytes(whole[:len(whole) * 2 // 3])
        subprocess.run([f"{BUILD}/framealign-batch", "--video", "cut.avi", "--reference-file", "clip/reference.yuv",
                        "--width", "640", "--height", "360", "--fast", "--result-root", "out"], cwd=work,
                       capture_output=True)
        with open(work / "out" / "summary.csv", newline="") as file:
            rows = list(csv.DictReader(file))
        self.assertEqual(len(rows), 15)
        looks = [r["id"] for r in rows if r["status"] != "aligned" or r["unsure"]
                 or float(r["est_error_px"] or 0) > 1]
        self.assertTrue(any(r["status"] == "error" for r in rows))
        driver = browser(work / "downloads")
        try:
            driver.get((work / "out" / "report.html").as_uri())
            section = driver.find_element(By.CSS_SELECTOR, "section.video")
            self.assertEqual(section.get_attribute("data-frames"), "15")
            marks = section.find_elements(By.CSS_SELECTOR, "g.frame")
            self.assertEqual([m.get_attribute("data-id") for m in marks], [r["id"] for r in rows])
            tip = marks[0].find_element(By.TAG_NAME, "title").get_attribute("textContent")
            self.assertIn(rows[0]["id"], tip)
            # The page's own style leaves each mark its status's colour.
            fills = driver.execute_script(
                "return Array.from(document.querySelectorAll('g.frame rect:last-child'))"
                ".map(r => getComputedStyle(r).fill)")
            by_status = {r["status"]: fill for r, fill in zip(rows, fills)}
            self.assertNotEqual(by_status["error"], by_status.get("aligned", by_status.get("not_found")))
            table = [tr.get_attribute("data-id") for tr in driver.find_elements(By.CSS_SELECTOR, "#rows tbody tr")]
            self.assertEqual(sorted(table), sorted(looks))
            links = section.find_elements(By.CSS_SELECTOR, "a.look")
            self.assertEqual(len(links), len(looks))
            for link in links:
                driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", link)
                link.click()
                target = driver.execute_script("return location.hash.slice(5)")
                row = driver.find_element(By.ID, "row-" + target)
                self.assertIn(target, looks)
                if row.find_elements(By.CSS_SELECTOR, "img.capture"):
                    image = row.find_element(By.CSS_SELECTOR, "img.capture")
                    for _ in range(100):
                        if driver.execute_script("return arguments[0].complete && arguments[0].naturalWidth", image):
                            break
                        time.sleep(0.05)
                    self.assertGreater(driver.execute_script("return arguments[0].naturalWidth", image), 0, target)
        finally:
            driver.quit()
        shutil.rmtree(work)


if __name__ == "__main__":
    unittest.main()
