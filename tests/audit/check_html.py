"""Checks the page of `zyldb audit --html`: it parses as XML (the page is
written as XHTML), has one bar per clip of each timeline, and every link
in it points at an element of the page.

usage: check_html.py ZYLDB EXAMPLES_DIR
"""
import os
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

zyldb, examples = sys.argv[1], sys.argv[2]
work = tempfile.mkdtemp()
try:
    for name in ("clips.log", "audit_demo.log"):
        shutil.copy(os.path.join(examples, name), work)
    page = os.path.join(work, "report.html")
    run = subprocess.run([zyldb, "audit", "clips.log", "audit_demo.log", "--html", page],
                         cwd=work, capture_output=True, text=True)
    assert run.returncode == 1, run  # the demo log has errors
    root = ET.parse(page).getroot()  # raises on markup that is not well-formed

    ids = {}
    for el in root.iter():
        if "id" in el.attrib:
            assert el.attrib["id"] not in ids, "duplicate id " + el.attrib["id"]
            ids[el.attrib["id"]] = el
    bars = [el for el in root.iter() if el.attrib.get("class") == "bar"]

    def count(prefix):
        return sum(1 for i in ids if i.startswith(prefix) and i.count("-") == 2)

    # clips.log: 36 clips, each on a picture reel and a sound reel.
    assert count("log1-pic-") == 36, count("log1-pic-")
    assert count("log1-snd-") == 36, count("log1-snd-")
    # audit_demo.log: 21 clips, of which 4 have no usable picture range
    # (an impossible start, a missing end, an impossible end, a reversed
    # range) and 1 no sound timecodes.
    assert count("log2-pic-") == 17, count("log2-pic-")
    assert count("log2-snd-") == 20, count("log2-snd-")
    assert len(bars) == 36 + 36 + 17 + 20, len(bars)

    links = [el.attrib[k] for el in root.iter() for k in el.attrib if k.endswith("href")]
    assert links, "no links"
    for href in links:
        assert href.startswith("#") and href[1:] in ids, "dangling link " + href
    findings = [i for i in ids if i.startswith("log2-finding-")]
    assert len(findings) == 10, findings
    print("ok: %d bars, %d links" % (len(bars), len(links)))
finally:
    shutil.rmtree(work)
