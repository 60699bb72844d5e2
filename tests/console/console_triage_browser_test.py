#!/usr/bin/python3
"""The console's second step in a real browser: headless Chromium driven
through chromedriver and Selenium against the built tsanomalyctl.

A simulated domain gets one detection pass; one workload then moves to new
storage with an oversized job, and a second pass (JUDGE_ON_FALLBACK_FEATURES=1)
reports it on the two features of its history across storages. The browser
follows an anomaly's link without a session, signs in and lands on it; reads
why it was flagged and its workload's page, for the moved workload and a
normal one; acknowledges everything one client's filter matches after the
count is shown, checked in the database with the reason; gives a verdict
with the keyboard alone; and at 390 px wide no page scrolls sideways.

usage: console_triage_browser_test.py TSANOMALYCTL [--screenshots DIR]
Exits 77 (skipped) when Chromium, chromedriver or Selenium is missing.
"""
import argparse
import os
import sqlite3
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from console_browser_test import (CHROMEDRIVER, CHROMIUM, check, csp_violations, detect, run,  # noqa: E402
                                  start_console, state_text, wait_for_url)

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
except ImportError:
    print("SKIPPED: python3-selenium is not installed (run scripts/install-deps)")
    sys.exit(77)

MOVED_KEY = "moved-job-1"


def browser(width, height):
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", f"--window-size={width},{height}",
                 "--disable-dev-shm-usage", "--force-device-scale-factor=1"):
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)


def move_a_workload(db):
    """Queues one workload's next job on new storage, twenty times its size."""
    with sqlite3.connect(db) as con:
        con.execute("CREATE TEMP TABLE moved AS SELECT * FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 1 LIMIT 1")
        con.execute("UPDATE moved SET UNIQUE_KEY = ?, DESTINATION_STORAGE_NAME = 'new-pool', PROCESSED_STATUS = 0, "
                    "BACKUP_TIME = BACKUP_TIME + 86400, JOB_ID = JOB_ID + 100000, IMAGE_SIZE = IMAGE_SIZE * 20, "
                    "NUM_FILES = NUM_FILES * 20", (MOVED_KEY,))
        con.execute("INSERT INTO DATA_TO_PROCESS SELECT * FROM moved")


def one(db, sql, *args):
    with sqlite3.connect(db) as con:
        return con.execute(sql, args).fetchone()


def no_sideways_scroll(driver, what):
    width = driver.execute_script("return document.documentElement.scrollWidth")
    inner = driver.execute_script("return window.innerWidth")
    check(width <= inner, f"{what}: the page is {width} px wide in a {inner} px window")


def why_and_workload(driver, base, anomaly_id, expect, shots, name):
    driver.get(f"{base}/anomalies/{anomaly_id}")
    panel = driver.find_element(By.CSS_SELECTOR, "section.why")
    check("Why this was flagged" in panel.text, "no why-panel")
    check(expect in panel.text, f"the why-panel does not say '{expect}': {panel.text}")
    check(panel.find_elements(By.CSS_SELECTOR, "li[data-rule-result='refused']"), "no refused rule listed")
    if shots:
        driver.execute_script("arguments[0].scrollIntoView()", panel)
        driver.save_screenshot(os.path.join(shots, f"console-why{name}.png"))
    driver.find_element(By.CSS_SELECTOR, "a.workload-link").click()
    wait_for_url(driver, "/workloads?anomaly=")
    check(len(driver.find_elements(By.CSS_SELECTOR, "svg.chart")) == 5, "the workload page has not five charts")
    check(driver.find_elements(By.CSS_SELECTOR, "circle.mark"), "no anomaly marked on the workload's charts")
    check(driver.find_elements(By.CSS_SELECTOR, f"tr[data-anomaly-id='{anomaly_id}']"),
          "the workload's table lacks the anomaly")
    if shots:
        driver.save_screenshot(os.path.join(shots, f"console-workload{name}.png"))


def batch_acknowledge(driver, base, db, shots):
    client, expected = one(db, "SELECT CLIENT, COUNT(*) FROM ANOMALY_DATA WHERE ANOMALY_STATE = 0 GROUP BY CLIENT "
                               "ORDER BY COUNT(*) DESC LIMIT 1")
    driver.get(f"{base}/?client={client}")
    driver.find_element(By.CSS_SELECTOR, "form.triage button[value='filter']").click()
    wait_for_url(driver, "/triage")
    confirm = driver.find_element(By.CSS_SELECTOR, "form.confirm button[type='submit']")
    check(confirm.get_attribute("data-count") == str(expected), f"the count shown is not {expected}: {confirm.text}")
    driver.find_element(By.CSS_SELECTOR, "input[value='acknowledge']").click()
    driver.find_element(By.NAME, "reason").send_keys("restore test of the whole client")
    if shots:
        driver.save_screenshot(os.path.join(shots, "console-triage.png"))
    confirm.click()
    wait_for_url(driver, "/triage/apply")
    check(driver.find_element(By.CSS_SELECTOR, "p.result").get_attribute("data-changed") == str(expected),
          "the result page does not count the verdicts given")
    left = one(db, "SELECT COUNT(*) FROM ANOMALY_DATA WHERE CLIENT = ? AND ANOMALY_STATE = 0", client)[0]
    check(left == 0, f"{left} anomalies of {client} are still open")
    reasons = one(db, "SELECT COUNT(*) FROM VERDICT_REASON WHERE REASON = 'restore test of the whole client'")[0]
    check(reasons == expected, f"{reasons} reasons kept for {expected} verdicts")


def keyboard_verdict(driver, base, db):
    anomaly_id = one(db, "SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA WHERE ANOMALY_STATE = 0 LIMIT 1")[0]
    driver.get(f"{base}/anomalies/{anomaly_id}")
    body = driver.find_element(By.TAG_NAME, "body")
    for _ in range(12):
        body.send_keys(Keys.TAB) if driver.switch_to.active_element == body else \
            driver.switch_to.active_element.send_keys(Keys.TAB)
        label = driver.switch_to.active_element.get_attribute("aria-label") or ""
        if label.startswith("Acknowledge"):
            break
    check((driver.switch_to.active_element.get_attribute("aria-label") or "").startswith("Acknowledge: anomaly"),
          "the Acknowledge button cannot be reached with the Tab key")
    driver.switch_to.active_element.send_keys(Keys.ENTER)
    wait_for_url(driver, "result=acknowledge-recorded")
    check(state_text(driver) == "Acknowledged", "state after the keyboard verdict: " + state_text(driver))
    check(one(db, "SELECT ANOMALY_STATE FROM ANOMALY_DATA WHERE ANOMALY_UNIQUE_ID = ?", anomaly_id)[0] == 1,
          "the keyboard verdict is not in the database")


def narrow(base, token, db, anomaly_id):
    driver = browser(390, 844)
    try:
        driver.get(f"{base}/?token={token}")
        for path in ("/", f"/anomalies/{anomaly_id}", f"/workloads?anomaly={anomaly_id}", "/status"):
            driver.get(base + path)
            no_sideways_scroll(driver, path)
    finally:
        driver.quit()


def walk_through(base, token, db, shots):
    normal_id = one(db, "SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA WHERE DETECTION_KEY <> ? ORDER BY rowid LIMIT 1",
                    MOVED_KEY)[0]
    moved_id = one(db, "SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA WHERE DETECTION_KEY = ?", MOVED_KEY)
    check(moved_id is not None, "the moved workload's oversized job was not reported")
    driver = browser(1280, 1000)
    try:
        driver.get(f"{base}/anomalies/{normal_id}")
        check(driver.find_elements(By.CSS_SELECTOR, "form.sign-in"), "no sign-in form for a link without a session")
        driver.find_element(By.NAME, "token").send_keys(token)
        driver.find_element(By.CSS_SELECTOR, "form.sign-in button").click()
        wait_for_url(driver, "/anomalies/")
        check(driver.current_url == f"{base}/anomalies/{normal_id}", "sign-in landed on " + driver.current_url)
        why_and_workload(driver, base, normal_id, "the job's own storage", shots, "")
        why_and_workload(driver, base, moved_id[0], "across storages", None, "-moved")
        keyboard_verdict(driver, base, db)
        batch_acknowledge(driver, base, db, shots)
        violations = csp_violations(driver)
        check(not violations, "Content Security Policy violations: " + "; ".join(violations))
    finally:
        driver.quit()
    narrow(base, token, db, normal_id)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("tsanomalyctl")
    parser.add_argument("--screenshots")
    args = parser.parse_args()
    for program in (CHROMIUM, CHROMEDRIVER):
        if not os.access(program, os.X_OK):
            print(f"SKIPPED: {program} is not installed (run scripts/install-deps)")
            return 77
    with tempfile.TemporaryDirectory() as work:
        db = os.path.join(work, "anomaly.db")
        ini = os.path.join(work, "tsanomalydetect.ini")
        with open(ini, "w") as f:
            f.write("[ANOMALY_MODEL_SETTINGS]\nJUDGE_ON_FALLBACK_FEATURES=1\n")
        run(args.tsanomalyctl, "simulate", db, "--workloads", "24", "--days", "60", "--pending", "24",
            "--anomalies", "30", "--seed", "11")
        detect(args.tsanomalyctl, work)
        move_a_workload(db)
        run(args.tsanomalyctl, "detect", "-database_location", work, "-database_file_name", "anomaly.db",
            "-log_path", work, "-config_file", ini)
        server, base, token = start_console(args.tsanomalyctl, db, "-config_file", ini)
        try:
            walk_through(base, token, db, args.screenshots)
        finally:
            server.terminate()
            server.wait(timeout=20)
    print("console triage browser test passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
