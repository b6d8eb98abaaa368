#!/usr/bin/env python3
"""Checks the links of a static site: check_links.py FOLDER. Each must lead to a file of the folder, and each fragment to an
element. Addresses on the network are errors in what a page loads, and are otherwise left unchecked."""

import html.parser
import pathlib
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    """The links, the loaded files and the anchors of a page."""

    def __init__(self, text):
        super().__init__()
        self.links = []
        self.loads = []
        self.anchors = set()
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        self.anchors |= {values[key] for key in ("id", "name") if values.get(key)}
        if tag == "a" and values.get("href"):
            self.links.append(values["href"])
        elif values.get("src") or (tag == "link" and values.get("href")):
            self.loads.append(values.get("src") or values["href"])

    handle_startendtag = handle_starttag


def check(folder):
    pages = {file: Page(file.read_text(encoding="utf-8")) for file in sorted(folder.rglob("*.html"))}
    problems = []
    number = 0
    for file, page in pages.items():
        for link in sorted(set(page.links + page.loads)):
            parts = urllib.parse.urlsplit(link)
            if parts.scheme == "data" or (parts.scheme in ("http", "https", "mailto") and link not in page.loads):
                continue
            number += 1
            target = (file.parent / urllib.parse.unquote(parts.path)).resolve() if parts.path else file
            where = f"{file.relative_to(folder)}: {link}"
            if parts.scheme or parts.netloc:
                problems.append(f"{where}: is loaded from the network")
            elif not target.is_relative_to(folder) or not target.is_file():
                problems.append(f"{where}: no such file")
            elif parts.fragment and target in pages and urllib.parse.unquote(parts.fragment) not in pages[target].anchors:
                problems.append(f"{where}: no such place in the page")
    print(f"check_links: {len(pages)} pages, {number} links")
    if not pages:
        problems.append(f"{folder}: holds no pages")
    return problems


if __name__ == "__main__":
    found = check(pathlib.Path(sys.argv[1]).resolve())
    for problem in found:
        print(f"check_links: {problem}", file=sys.stderr)
    sys.exit(1 if found else 0)
