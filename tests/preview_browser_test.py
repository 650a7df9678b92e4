#!/usr/bin/env python3
"""The ribbon preview in a real browser: headless Chromium draws the page and dumps its DOM.

usage: preview_browser_test.py TABFORGE SOURCE_DIR WORK_DIR

Leaves WORK_DIR/preview.html and WORK_DIR/preview.png (the picture in docs/). Exits 77 (skipped)
when Chromium is not installed.
"""
import html.parser
import os
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

WIDTH, HEIGHT = 1400, 400
NS = "{http://schemas.microsoft.com/office/2006/01/customui}"

failures = []


def fail(message):
    failures.append(message)
    print("FAIL: " + message)


def run(args, **kwargs):
    return subprocess.run(args, check=True, capture_output=True, text=True, timeout=120, **kwargs)


def chromium(browser, *args):
    profile = tempfile.mkdtemp(prefix="tabforge-chromium-")
    try:
        return run([browser, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                    "--no-first-run", "--disable-background-networking",
                    "--disable-component-update", "--disable-sync",
                    "--user-data-dir=" + profile, *args]).stdout
    finally:
        shutil.rmtree(profile, ignore_errors=True)


class Dom(html.parser.HTMLParser):
    """Elements with their attributes, and the text each one holds directly."""

    def __init__(self):
        super().__init__()
        self.elements, self.stack = [], []

    def handle_starttag(self, tag, attrs):
        element = {"tag": tag, "attrs": dict(attrs), "text": ""}
        self.elements.append(element)
        if tag not in ("img", "meta", "br"):
            self.stack.append(element)

    def handle_endtag(self, tag):
        while self.stack and self.stack.pop()["tag"] != tag:
            pass

    def handle_data(self, data):
        if self.stack:
            self.stack[-1]["text"] += data


def parse(text):
    dom = Dom()
    dom.feed(text)
    return dom.elements


def expectations(tabforge, cwd, session):
    """What Main2 answers for each control, asked through the session command."""
    commands = [l for l in session.splitlines() if l.strip() and not l.startswith("#")]
    document = ET.fromstring(run([tabforge, "ribbon-xml"]).stdout)
    controls = [e for e in document.iter() if e.tag in (NS + "button", NS + "toggleButton")]
    questions = ""
    for c in controls:
        questions += "GetLabel {0}\nGetEnabled {0}\nGetPressed {0}\n".format(c.get("id"))
    answers = [line[2:] for line in
               run([tabforge, "session"], input=session + questions, cwd=cwd).stdout.splitlines()
               if line.startswith("= ")][len(commands):]
    expected = {}
    for i, c in enumerate(controls):
        label, enabled, pressed = answers[3 * i:3 * i + 3]
        expected[c.get("id")] = {
            "label": c.get("label") or label.strip('"'),
            "shown": c.get("showLabel") != "false",
            "enabled": enabled == "true",
            "pressed": c.tag == NS + "toggleButton" and pressed == "true",
        }
    groups = [g.get("label") for g in document.iter(NS + "group")]
    return expected, groups


def check_page(page):
    """Every picture is an inline PNG; nothing is fetched."""
    images = [e for e in parse(page) if e["tag"] == "img"]
    if len(images) < 10:
        fail("only %d pictures on the page" % len(images))
    for image in images:
        if not image["attrs"].get("src", "").startswith("data:image/png;base64,"):
            fail("a picture is not an inline PNG: " + image["attrs"].get("src", "")[:40])
    for needle in ("http://", "https://", "<script", "<link"):
        if needle in page:
            fail("the page holds " + needle)


def check_dom(dom, expected, groups):
    elements = parse(dom)
    by_id = {}
    for e in elements:
        if e["tag"] == "button" and "data-id" in e["attrs"]:
            by_id.setdefault(e["attrs"]["data-id"], []).append(e)
    texts = {e["text"].strip() for e in elements}
    for group in groups:
        if group not in texts:
            fail("group label %r is not drawn" % group)
    for control_id, want in expected.items():
        drawn = by_id.get(control_id)
        if not drawn:
            fail(control_id + " is not drawn")
            continue
        for e in drawn:
            if want["shown"] and want["label"] not in texts:
                fail("%s: label %r is not drawn" % (control_id, want["label"]))
            if e["attrs"].get("aria-label") != want["label"]:
                fail("%s: aria-label %r" % (control_id, e["attrs"].get("aria-label")))
            if ("disabled" in e["attrs"]) == want["enabled"]:
                fail("%s: enabled is %s, the page says otherwise" % (control_id, want["enabled"]))
            if (e["attrs"].get("aria-pressed") == "true") != want["pressed"]:
                fail("%s: pressed should be %s" % (control_id, want["pressed"]))
    if not any(not w["enabled"] for w in expected.values()):
        fail("the session leaves no control disabled, so the check proves nothing")
    if not any(w["pressed"] for w in expected.values()):
        fail("the session leaves no control pressed, so the check proves nothing")
    for e in elements:
        claimed = "%sx%s" % (e["attrs"].get("data-width"), e["attrs"].get("data-height"))
        if e["tag"] == "img" and e["attrs"].get("data-natural") != claimed:
            fail("the browser decoded a picture of %s as %s, not %s"
                 % (e["attrs"].get("alt", "?"), e["attrs"].get("data-natural"), claimed))


def main():
    tabforge, source, work = sys.argv[1:4]
    browser = shutil.which("chromium") or shutil.which("chromium-browser")
    if browser is None:
        print("SKIP: chromium is not installed (scripts/install-linux-deps.sh installs it)")
        return 77
    os.makedirs(work, exist_ok=True)
    session = os.path.join(source, "examples", "preview.session")
    with open(session) as f:
        session_text = f.read()
    page_path = os.path.join(work, "preview.html")
    run([tabforge, "preview", "--session", session, "-o", page_path], cwd=source)
    with open(page_path) as f:
        page = f.read()
    check_page(page)

    # The page needs no script; only this copy gets one, to read what the browser decoded.
    probe = os.path.join(work, "probe.html")
    with open(probe, "w") as f:
        f.write(page.replace("</body>", "<script>addEventListener('load', () => { for (const i of "
                             "document.images) i.dataset.natural = i.naturalWidth + 'x' + "
                             "i.naturalHeight; });</script></body>"))
    expected, groups = expectations(tabforge, source, session_text)
    check_dom(chromium(browser, "--dump-dom", "file://" + probe), expected, groups)

    shot = os.path.join(work, "preview.png")
    chromium(browser, "--screenshot=" + shot, "--window-size=%d,%d" % (WIDTH, HEIGHT),
             "--hide-scrollbars", "file://" + page_path)
    print("%d controls checked; screenshot %s" % (len(expected), shot))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
