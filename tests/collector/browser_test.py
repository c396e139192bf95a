#!/usr/bin/env python3
"""The collector's debug view in a real browser (Debian's Chromium, headless,
driven by Selenium), after the example shop ran against the collector over
HTTPS: what arrived is listed, opens into readable tables, and a second run
of the example appears while the page is open.

Exit status 77 means the browser cannot run here; the reason is printed."""

import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
import ssl
import time
import urllib.request

SKIP = 77


def skip(reason):
    print("SKIPPED: " + reason)
    sys.exit(SKIP)


def make_certificate(work):
    """A certificate for 127.0.0.1: the SDK reports debug tags over HTTPS only."""
    cert, key = os.path.join(work, "cert.pem"), os.path.join(work, "key.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                    "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", cert],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return cert, key


def run_example(example, base, cert, token, work, debug_code):
    """The example shop, as a developer runs it against the collector."""
    result = subprocess.run([example, "--domain", base[len("https://"):], "--ca-file", cert, "--token", token,
                             "--debug-code", debug_code, "--data-dir", os.path.join(work, "sdk")],
                            capture_output=True, text=True, timeout=120)
    assert result.returncode == 0 and "done: all submissions sent" in result.stdout, result.stdout + result.stderr


def fetch_requests(base, cert, token):
    context = ssl.create_default_context(cafile=cert)
    request = urllib.request.Request(base + "/api/requests", headers={"Authorization": "Bearer " + token})
    with urllib.request.urlopen(request, timeout=10, context=context) as response:
        records = json.load(response)
    records = records["requests"] if isinstance(records, dict) else records
    return sorted(records, key=lambda r: r["id"])


def start_browser(profile):
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError as error:
        skip("Selenium is not installed for %s (Debian: python3-selenium): %s" % (sys.executable, error))
    chromium = shutil.which("chromium") or shutil.which("chromium-browser")
    driver = shutil.which("chromedriver") or ("/usr/bin/chromedriver" if os.path.exists("/usr/bin/chromedriver") else None)
    if not chromium or not driver:
        skip("Chromium or its driver is missing (Debian: chromium chromium-driver)")
    options = webdriver.ChromeOptions()
    options.binary_location = chromium
    for flag in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--window-size=1440,1000", "--ignore-certificate-errors", "--user-data-dir=" + profile):
        options.add_argument(flag)
    try:
        return webdriver.Chrome(service=Service(executable_path=driver), options=options)
    except Exception as error:  # the browser could not start here (no display libraries, no namespaces, ...)
        skip("Chromium cannot start: %s" % str(error).splitlines()[0])


def wait_for(what, condition, timeout=15):
    deadline = time.time() + timeout
    last = None
    while time.time() < deadline:
        try:
            last = condition()
            if last:
                return last
        except Exception as error:  # the page may be re-rendering under us
            last = error
        time.sleep(0.1)
    raise AssertionError("timed out waiting for %s (last: %r)" % (what, last))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--collector", required=True)
    parser.add_argument("--example", required=True)
    parser.add_argument("--screenshot", required=True)
    args = parser.parse_args()

    work = tempfile.mkdtemp(prefix="collector-browser-")
    cert, key = make_certificate(work)
    token = "browser-test-token"
    collector = subprocess.Popen([args.collector, "--port", "0", "--data-dir", os.path.join(work, "data"),
                                  "--token", token, "--tls-cert", cert, "--tls-key", key],
                                 stdout=subprocess.PIPE, text=True)
    browser = None
    try:
        first = collector.stdout.readline().strip()
        assert first.startswith("listening on https://127.0.0.1:"), first
        base = first[len("listening on "):]

        run_example(args.example, base, cert, token, work, "shop-debug")
        arrived = fetch_requests(base, cert, token)
        kinds = [r["kind"] for r in arrived]
        assert kinds.count("consent") == 2 and kinds.count("data") == 4 and "monitor" in kinds, kinds
        assert not [p for r in arrived for p in r.get("problems", [])], "the example's requests have problems"

        browser = start_browser(os.path.join(work, "profile"))
        browser.get(base + "/ui/#token=" + token)
        by_css = lambda css: browser.find_elements("css selector", css)

        # The page lists what arrived, newest first, each with its kind and a clean shape check.
        wait_for("every request", lambda: len(by_css("#requests li.request")) == len(arrived))
        listed = by_css("#requests li.request")
        assert [li.get_attribute("data-kind") for li in listed] == kinds[::-1], [li.text for li in listed]
        assert all("shape ok" in li.text for li in listed), [li.text for li in listed]

        # The product views opened: variables, pushed commands and enrichment as tables.
        products = next(r for r in arrived if r["kind"] == "data" and "in_stock" in r["body"]["data"]["variables"])
        variables = products["body"]["data"]["variables"]
        by_css('#requests li.request[data-id="%d"]' % products["id"])[0].click()
        wait_for("the variables table", lambda: by_css('#detail table.variables tr[data-name="sku"]'))
        rows = {tr.get_attribute("data-name"): tr.text for tr in by_css("#detail table.variables tbody tr")}
        assert str(variables["sku"]) in rows["sku"] and str(variables["price"]) in rows["price"], rows
        assert "running" in rows["tags"] and "array" in rows["tags"], rows
        assert "Example Shop" in rows["app_application_name"], rows
        commands = [li.text for li in by_css("#detail ol.commands li")]
        assert commands == variables["tvrpushedcommands"], commands
        assert "Lisbon" in by_css("#detail table.enrichment")[0].text
        session = products["body"]["data"]["identifier"]["session"]["id"]
        assert session in by_css("#detail table.identifiers")[0].text

        # The changed consent decision: only ads is marked, with the earlier denial beside it.
        change = [r for r in arrived if r["kind"] == "consent"][1]
        by_css('#requests li.request[data-id="%d"]' % change["id"])[0].click()
        changed = wait_for("the changed vendor", lambda: by_css("#detail table.vendors tr.changed"))
        assert [tr.get_attribute("data-vendor") for tr in changed] == ["ads"], [tr.text for tr in changed]
        assert "true" in changed[0].text and "false" in changed[0].text, changed[0].text

        # The tags of every report form one timeline for the debug code, in the order the SDK made them.
        made = [t for r in arrived if r["kind"] == "monitor" for t in r["body"]["tags"]]
        shown = by_css('#timeline .tl-group[data-debug="shop-debug"] li.tag')
        assert [li.get_attribute("data-tag-id") for li in shown] == [t["id"] for t in made], [li.text for li in shown]
        assert shown[0].get_attribute("data-tag-id") == "AI01", "the start-up tag comes first"
        stamps = [t["timestamp"] for t in made]
        assert stamps == sorted(stamps), stamps

        # A second run of the example while the page is open appears without a reload.
        browser.execute_script("window.__sameDocument = true;")
        run_example(args.example, base, cert, token, work, "shop-debug")
        total = len(fetch_requests(base, cert, token))
        assert total > len(arrived), total
        wait_for("the second run's requests", lambda: len(by_css("#requests li.request")) == total)
        assert browser.execute_script("return window.__sameDocument === true;"), "the page was reloaded"
        assert by_css("#requests li.request")[0].get_attribute("data-id") == str(total)
        assert "live" == by_css("#live")[0].text

        by_css('#requests li.request[data-id="%d"]' % products["id"])[0].click()
        wait_for("the variables table", lambda: by_css("#detail table.variables"))
        os.makedirs(os.path.dirname(os.path.abspath(args.screenshot)), exist_ok=True)
        browser.save_screenshot(args.screenshot)
        print("screenshot: " + args.screenshot)
        print("PASSED")
    finally:
        if browser is not None:
            browser.quit()
        collector.terminate()
        collector.wait(timeout=10)
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
