#!/usr/bin/env python3
"""The collector's debug view in a real browser (Debian's Chromium, headless,
driven by Selenium): what arrived is listed, opens into readable tables, and
new requests appear while the page is open.

Exit status 77 means the browser cannot run here; the reason is printed."""

import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import urllib.request

SKIP = 77


def skip(reason):
    print("SKIPPED: " + reason)
    sys.exit(SKIP)


NOW = int(time.time() * 1000)
AGENT = "ShopApp/2.1 (Linux; x86_64) TavrinSDK/1.0"


def system(initiator="tvr_push_submit", at=NOW):
    return {"type": "sdk-ios", "timestamp": at, "navigator-userAgent": AGENT, "initiator": initiator}


CONFIGURATION = {"container": "shop-app", "environment": "live", "version": "3", "debugcode": "dbg-42"}


def data_submission(commands, properties, session_action, at, enrichment=None):
    variables = {"document_location_href": "app://shop/" + commands[-1], "fb_browser_id": "fb.1.1795312800.42",
                 "tvrpushedcommands": commands}
    variables.update(properties)
    variables["app_offline_cached_data"] = "false"
    data = {"identifier": {"user": {"id": "u-7f3a", "action": "update"},
                           "session": {"id": "s-91c2", "action": session_action}},
            "variables": variables}
    if enrichment is not None:
        data["enrichment"] = enrichment
    return {"version": "3", "system": system(at=at), "consent": {"analytics": {"status": True}, "ads": {"status": "ncm"}},
            "configuration": CONFIGURATION, "data": data}


def consent_submission(vendors, changed, consent_action, at):
    return {"version": "3", "system": system(at=at), "configuration": CONFIGURATION,
            "data": {"identifier": {"user": {"id": "u-7f3a", "action": "update"},
                                    "consent": {"id": "c-55d0", "action": consent_action}},
                     "consent": {"lastupdate": at, "data": {}, "vendors": vendors, "vendorsChanged": changed}}}


def tag(tag_id, text, at):
    return {"id": tag_id, "name": text, "source": "frontend", "type": "info", "timestamp": at,
            "trigger": {"id": "", "executed": True, "conditions": [], "excludeTriggers": []},
            "http": {"general": {"requestUrl": "", "requestMethod": "", "requestStatus": 200, "remoteAddress": ""},
                     "payload": {}, "requestHeaders": {}, "queryStringParameters": {},
                     "response": {"status": 200, "statusText": "", "data": "", "success": True, "headers": {}}},
            "variables": {"frontend": {}, "backend": {}, "constant": {}, "enrichment": {}}, "functions": {}}


def monitor_report(tags):
    return {"debugid": "dbg-42", "consent": {}, "docs": {}, "state": "", "eventDocumentId": "", "tags": tags}


def post(base, path, document):
    request = urllib.request.Request(base + path, data=json.dumps(document, separators=(",", ":")).encode(),
                                     headers={"Content-Type": "application/json"}, method="POST")
    with urllib.request.urlopen(request, timeout=10) as response:
        return json.load(response)


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
                 "--window-size=1440,1000", "--user-data-dir=" + profile):
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
    parser.add_argument("--screenshot", required=True)
    args = parser.parse_args()

    work = tempfile.mkdtemp(prefix="collector-browser-")
    collector = subprocess.Popen([args.collector, "--port", "0", "--data-dir", os.path.join(work, "data")],
                                 stdout=subprocess.PIPE, text=True)
    browser = None
    try:
        first = collector.stdout.readline().strip()
        assert first.startswith("listening on http://127.0.0.1:"), first
        base = first[len("listening on "):]

        # What an application sends in a short shopping session with a debug code set.
        post(base, "/monitor", monitor_report([tag("AI01", "T-SDK: [INIT] - [AI01] SDK initialised", NOW),
                                               tag("AC03", "T-SDK: [CONSENT] - [AC03] Stored consent read", NOW + 1)]))
        post(base, "/", data_submission(["pageview"], {"page_title": "Home"}, "new", NOW + 100))
        post(base, "/", data_submission(["pageview", "product_view"],
                                        {"product_sku": "A1-RED", "price": 9.99, "qty": 2, "tags": ["sale", "summer"]},
                                        "update", NOW + 200,
                                        {"geo": {"arguments": {"city": "Lisbon"}, "variables": ["region"]}}))
        post(base, "/monitor", monitor_report([tag("AD01", "T-SDK: [TAVRIN DL] - [AD01] Push: pageview", NOW + 150),
                                               tag("AD01", "T-SDK: [TAVRIN DL] - [AD01] Push: product_view", NOW + 160),
                                               tag("AS01", "T-SDK: [STATE] - [AS01] State executed: tvr_push_submit", NOW + 200)]))
        post(base, "/", consent_submission({"analytics": True, "ads": True}, {"analytics": True, "ads": True}, "new", NOW + 300))
        post(base, "/", consent_submission({"analytics": True, "ads": False}, {"ads": False}, "update", NOW + 400))
        post(base, "/monitor", monitor_report([tag("AC04", "T-SDK: [CONSENT] - [AC04] Consent updated", NOW + 400)]))
        resent = data_submission(["pageview"], {"page_title": "Offers"}, "update", NOW + 450)
        resent.update({"app_offline_cached_data": "true", "app_offline_resend_timestamp": str(NOW + 9000)})
        post(base, "/", resent)
        broken = data_submission(["pageview"], {"coupon": None}, "update", NOW + 460)
        post(base, "/", broken)

        browser = start_browser(os.path.join(work, "profile"))
        browser.get(base + "/ui/")
        by_css = lambda css: browser.find_elements("css selector", css)

        # The page lists what arrived, newest first.
        wait_for("nine requests", lambda: len(by_css("#requests li.request")) == 9)
        kinds = [li.get_attribute("data-kind") for li in by_css("#requests li.request")]
        assert kinds == ["data", "offline-resend", "monitor", "consent", "consent", "monitor", "data", "data", "monitor"], kinds
        # Problems show in the list; clean requests say so.
        first = by_css("#requests li.request")[0]
        assert "1 problem" in first.text and "/data/variables/coupon: custom property is null" in first.text, first.text
        assert "shape ok" in by_css("#requests li.request")[1].text

        # Opening the product view shows its variables, pushed commands and enrichment as tables.
        by_css('#requests li.request[data-id="3"]')[0].click()
        wait_for("the variables table", lambda: by_css('#detail table.variables tr[data-name="product_sku"]'))
        rows = {tr.get_attribute("data-name"): tr.text for tr in by_css("#detail table.variables tbody tr")}
        assert "A1-RED" in rows["product_sku"] and "9.99" in rows["price"], rows
        assert "sale" in rows["tags"] and "array" in rows["tags"], rows
        assert "document_location_href" not in rows, rows
        commands = [li.text for li in by_css("#detail ol.commands li")]
        assert commands == ["pageview", "product_view"], commands
        assert "Lisbon" in by_css("#detail table.enrichment")[0].text
        assert "s-91c2" in by_css("#detail table.identifiers")[0].text

        # The consent change: the vendor that changed is marked, with its earlier decision.
        by_css('#requests li.request[data-id="6"]')[0].click()
        changed = wait_for("the changed vendor", lambda: by_css('#detail table.vendors tr.changed'))
        assert [tr.get_attribute("data-vendor") for tr in changed] == ["ads"], [tr.text for tr in changed]
        assert "true" in changed[0].text and "false" in changed[0].text, changed[0].text
        assert "Changed: ads → false" in by_css("#detail .consent-summary")[0].text

        # The tags of all reports form one timeline per debug code, in the order they were made.
        tags = [li.get_attribute("data-tag-id") for li in by_css('#timeline .tl-group[data-debug="dbg-42"] li.tag')]
        assert tags == ["AI01", "AC03", "AD01", "AD01", "AS01", "AC04"], tags

        # A request sent while the page is open appears without a reload.
        browser.execute_script("window.__sameDocument = true;")
        answer = post(base, "/", data_submission(["pageview", "add_to_cart"], {"product_sku": "B2", "cart_total": 19.5},
                                                 "update", NOW + 500))
        wait_for("the live request", lambda: by_css('#requests li.request[data-id="%d"]' % answer["id"]))
        assert browser.execute_script("return window.__sameDocument === true;"), "the page was reloaded"
        assert by_css("#requests li.request")[0].get_attribute("data-id") == str(answer["id"])
        assert "live" == by_css("#live")[0].text

        by_css('#requests li.request[data-id="3"]')[0].click()
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
