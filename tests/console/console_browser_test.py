#!/usr/bin/python3
"""The operator console in a real browser: headless Chromium driven through
chromedriver and Selenium against the built tsanomalyctl.

A simulated backup domain gets one real detection pass; the console serves
it on a free loopback port. The browser opens the address printed at
start-up with the token from the token file, filters the list by a client, opens an anomaly, reports it as a
false positive and sees the new state; after a second detection pass the
page shows it learned and the job is in HIST_DATA with
USER_IDENTIFIED_CLUSTER 1; signing out ends the session. The browser's log must hold no Content Security
Policy violation.

usage: console_browser_test.py TSANOMALYCTL [--screenshots DIR]
Exits 77 (skipped) when Chromium, chromedriver or Selenium is missing.
"""
import argparse
import os
import re
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support import expected_conditions
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    print("SKIPPED: python3-selenium is not installed (run scripts/install-deps)")
    sys.exit(77)


def run(ctl, *args):
    subprocess.run([ctl, *args], check=True, stdout=subprocess.DEVNULL, timeout=120)


def detect(ctl, work):
    run(ctl, "detect", "-database_location", work, "-database_file_name", "anomaly.db", "-log_path", work)


def start_console(ctl, db, *options):
    server = subprocess.Popen([ctl, "serve", db, "--listen", "127.0.0.1:0", *options], stdout=subprocess.PIPE,
                              text=True)
    deadline = time.time() + 20
    while time.time() < deadline:
        line = server.stdout.readline()
        match = re.match(r"Open (http://127\.0\.0\.1:\d+)/\?token=TOKEN, with TOKEN the content of (.+), to sign in\.",
                         line)
        if match:
            with open(match.group(2)) as token_file:
                token = token_file.read().strip()
            check(token not in line, "the console printed its token")
            return server, match.group(1), token
    server.kill()
    raise AssertionError("the console did not print its address")


def browser():
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1280,1000",
                 "--disable-dev-shm-usage"):
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)


def check(condition, message):
    if not condition:
        raise AssertionError(message)


def wait_for_url(driver, part):
    WebDriverWait(driver, 20).until(expected_conditions.url_contains(part))


def state_text(driver):
    return driver.find_element(By.CSS_SELECTOR, ".current-state .state").text


def csp_violations(driver):
    return [entry["message"] for entry in driver.get_log("browser") if "Content Security Policy" in entry["message"]]


def walk_through(driver, base, token, db, ctl, work, shots):
    driver.get(f"{base}/?token={token}")
    check("token=" not in driver.current_url, "the token stays in the address bar: " + driver.current_url)
    rows = driver.find_elements(By.CSS_SELECTOR, "tr[data-anomaly-id]")
    with sqlite3.connect(db) as con:
        total = con.execute("SELECT COUNT(*) FROM ANOMALY_DATA").fetchone()[0]
    check(len(rows) == total and total >= 2, f"{len(rows)} rows listed, {total} anomalies stored")
    if shots:
        driver.save_screenshot(os.path.join(shots, "console-anomalies.png"))

    client = rows[0].find_element(By.CSS_SELECTOR, "td.client").text
    box = driver.find_element(By.NAME, "client")
    box.clear()
    box.send_keys(client)
    driver.find_element(By.CSS_SELECTOR, "form.filters button").click()
    wait_for_url(driver, "client=")
    filtered = driver.find_elements(By.CSS_SELECTOR, "tr[data-anomaly-id]")
    check(filtered and all(r.find_element(By.CSS_SELECTOR, "td.client").text == client for r in filtered),
          "the client filter lists other clients")
    anomaly_id = filtered[0].get_attribute("data-anomaly-id")

    filtered[0].find_element(By.CSS_SELECTOR, "a.anomaly-link").click()
    wait_for_url(driver, "/anomalies/")
    check(driver.current_url.endswith("/anomalies/" + anomaly_id), "not the anomaly's page: " + driver.current_url)
    check(len(driver.find_elements(By.CSS_SELECTOR, "svg.chart")) >= 1, "the anomaly page has no chart")
    check(state_text(driver) == "Open", "a fresh anomaly should be open, not " + state_text(driver))
    if shots:
        driver.save_screenshot(os.path.join(shots, "console-anomaly.png"))

    driver.find_element(By.CSS_SELECTOR, "button[value='false-positive']").click()
    wait_for_url(driver, "result=false-positive-recorded")
    result = driver.find_element(By.CSS_SELECTOR, "p.result").text
    check(result.startswith("Reported as a false positive"), "result shown: " + result)
    check(state_text(driver) == "False positive, waiting for the next pass", "state: " + state_text(driver))
    driver.find_element(By.CSS_SELECTOR, "button[value='false-positive']").click()
    wait_for_url(driver, "result=false-positive-already")
    check("already" in driver.find_element(By.CSS_SELECTOR, "p.result").text, "a second click is not idempotent")

    detect(ctl, work)
    driver.get(f"{base}/anomalies/{anomaly_id}")
    check(state_text(driver) == "False positive, learned", "after the pass: " + state_text(driver))
    with sqlite3.connect(db) as con:
        learned = con.execute(
            "SELECT h.USER_IDENTIFIED_CLUSTER FROM HIST_DATA h JOIN ANOMALY_DATA a ON h.UNIQUE_KEY = a.DETECTION_KEY "
            "WHERE a.ANOMALY_UNIQUE_ID = ?", (anomaly_id,)).fetchall()
    check(learned == [(1,)], f"HIST_DATA rows of the job: {learned}")
    driver.get(f"{base}/status")
    check(driver.find_element(By.CSS_SELECTOR, "[data-figure='false-positive-learned'] dd").text == "1",
          "the status page does not count the learned false positive")
    driver.find_element(By.CSS_SELECTOR, "form.sign-out button").click()
    WebDriverWait(driver, 20).until(lambda d: "Signed out" in d.title)
    driver.get(f"{base}/status")
    check("Sign-in needed" in driver.title, "the session outlived signing out: " + driver.title)
    violations = csp_violations(driver)
    check(not violations, "Content Security Policy violations: " + "; ".join(violations))


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
        run(args.tsanomalyctl, "simulate", db, "--workloads", "24", "--days", "60", "--pending", "24",
            "--anomalies", "30", "--seed", "11")
        detect(args.tsanomalyctl, work)
        server, base, token = start_console(args.tsanomalyctl, db)
        driver = None
        try:
            driver = browser()
            walk_through(driver, base, token, db, args.tsanomalyctl, work, args.screenshots)
        finally:
            if driver is not None:
                driver.quit()
            server.send_signal(signal.SIGTERM)
            code = server.wait(timeout=20)
        check(code == 0, f"the console exited with {code} on SIGTERM")
    print("console browser test passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
