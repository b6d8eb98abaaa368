#!/usr/bin/env python3
"""Builds the manual as a static site: build.py QEL OUTPUT. Called by scripts/docs."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys

from pages import Site, gallery, pass_page, sections
from pictures import ROOT, PictureError, Renderer

HERE = ROOT / "tools/site"


def doxygen(stage, output):
    """Runs Doxygen on the pages and on the public headers; any warning is an error."""
    settings = (HERE / "Doxyfile").read_text()
    settings += f'\nINPUT = "{stage}" "{ROOT}/src/Qel"\nOUTPUT_DIRECTORY = "{output.parent}"\nHTML_OUTPUT = {output.name}\n'
    settings += f'USE_MDFILE_AS_MAINPAGE = "{stage}/index.md"\nSTRIP_FROM_PATH = "{ROOT}/src"\nSTRIP_FROM_INC_PATH = "{ROOT}/src"\n'
    settings += f'HTML_HEADER = "{HERE}/header.html"\nHTML_FOOTER = "{HERE}/footer.html"\nHTML_STYLESHEET = "{HERE}/style.css"\n'
    settings += f'FILTER_PATTERNS = "*.h={HERE}/header-filter"\n'
    settings += f'WARN_LOGFILE = "{stage}/warnings"\n'
    (stage / "Doxyfile").write_text(settings)
    subprocess.run(["doxygen", stage / "Doxyfile"], check=True, stdout=subprocess.DEVNULL)
    warnings = (stage / "warnings").read_text()
    if warnings:
        sys.exit("docs: Doxygen warns:\n" + warnings)
    # Doxygen copies scripts and pictures for parts of its own layout that these pages do not have.
    for pattern in ("*.js", "nav_*.png", "tab_*.png", "bdwn.png", "open.png", "doc.png", "folder*.png",
                    "sync_*.png", "splitbar.png", "tabs.css", "bc_s.png", "bc_sd.png", "doxygen.svg"):
        for file in output.glob(pattern):
            file.unlink()


def build(qel, output):
    stage = ROOT / "build/docs/pages"
    shutil.rmtree(stage, ignore_errors=True)
    shutil.rmtree(output, ignore_errors=True)
    stage.mkdir(parents=True)
    output.mkdir(parents=True)

    reference = sections(subprocess.run([qel, "passes", "--markdown"], check=True, capture_output=True, text=True).stdout)
    files = {file.stem: file for file in ROOT.glob("src/Qel/RenderPasses/*/*.md")}
    for name in sorted(set(reference) - set(files)):
        sys.exit(f"docs: the pass {name} has no page; write {name}.md beside its source")
    for name in sorted(set(files) - set(reference)):
        sys.exit(f"docs: {files[name].relative_to(ROOT)}: there is no pass of this name")

    documents = [file for file in sorted((ROOT / "docs").glob("*.md")) if file.name != "passes.md"]
    documents += [ROOT / "CONTRIBUTING.md", ROOT / "CHANGELOG.md"]
    renderer = Renderer(qel, ROOT / "build/docs/pictures")
    site = Site(stage, output, renderer, set(reference))
    site.name_pages([*documents, *files.values()])
    for file in documents:
        body, _ = site.convert(file, file.read_text())
        site.write(file.stem, body)
    costs = json.loads((HERE / "costs.json").read_text())
    entries = {}
    for name, file in files.items():
        summary, picture = pass_page(site, name, file, reference[name], costs)
        entries[name] = (file.parent.name, summary, picture)
    gallery(site, entries)

    print(f"docs: {len(renderer.shots)} pictures")
    renderer.render_all(os.cpu_count() or 1)
    doxygen(stage, output)
    renderer.copy_to(output / "images")


if __name__ == "__main__":
    try:
        build(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve())
    except PictureError as problem:
        sys.exit(f"docs: {problem}")
