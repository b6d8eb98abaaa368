#!/usr/bin/env python3
"""Measures the passes for their pages: measure.py QEL [PASS]... writes tools/site/costs.json, anew
or for some passes.

Each pass is measured in the graph of its page's first picture, at three sizes, as a multiple of the GPU time of a copy of
the whole image in the same frames. A ratio of two times of one run holds where the times themselves do not."""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

from pictures import ROOT, load_graph

# Draws of larger images are interrupted by other programs, which the smallest of several times does not undo.
SIZES = [[160, 90], [320, 180], [640, 360]]
RUNS = 3
FRAMES = 8


def prepared(graph):
    """Adds a copy of the output image, and a pass that makes the graph run it. Shadow maps are redrawn every frame."""
    for entry in graph["passes"]:
        entry.get("inputs", {}).pop("Dirty" if entry["type"] == "ShadowMapRenderPass" else None, None)
    image = graph.get("output") or graph["passes"][-1]["inputs"]["Texture"]
    graph["passes"] += [
        {"name": "copied", "type": "ShaderRenderPass", "inputs": {"Input": image},
         "options": {"inputs": ["Qel_QRect_Viewport", "Qel_QelTexture*_Input"], "outputs": ["Qel_QelTexture*_Copy"]}},
        {"name": "shownCopy", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@copied.Copy"}}]
    return graph


def times(qel, graph, size):
    """The smallest GPU time of each pass in a run, by name, in milliseconds."""
    graph = {**graph, "viewport": size}
    with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
        json.dump(graph, file)
        file.flush()
        run = subprocess.run([qel, "render", file.name, "--profile", "--json", "--frames", str(FRAMES)], check=True,
                             capture_output=True, text=True, env={**os.environ, "QT_QPA_PLATFORM": "offscreen"})
    return {entry["name"]: entry["gpu"]["minimum"] for entry in json.loads(run.stdout)["passes"]}


def measure(qel, chosen):
    info = subprocess.run([qel, "info"], check=True, capture_output=True, text=True).stdout
    device = re.search(r"^renderer +(.*)$", info, flags=re.M).group(1)
    file = ROOT / "tools/site/costs.json"
    results = json.loads(file.read_text())["passes"] if chosen else {}
    measured = {}
    for page in sorted(ROOT.glob("src/Qel/RenderPasses/*/*.md")):
        if chosen and page.stem not in chosen:
            continue
        source = re.search(r'"graph": "([^"]+)"', page.read_text()).group(1)
        if source not in measured:
            print(f"measure: {source}", flush=True)
            graph = load_graph(ROOT / source)
            names = {entry["type"]: entry["name"] for entry in reversed(graph["passes"])}
            # A graph with viewports of its own does not change with the size of the image.
            if any("Viewport" in entry.get("inputs", {}) for entry in graph["passes"]):
                continue
            graph = prepared(graph)
            runs = [[times(qel, graph, size) for _ in range(RUNS)] for size in SIZES]
            rows = [{name: min(run[name] for run in several) for name in several[0]} for several in runs]
            measured[source] = names, rows
        names, rows = measured[source]
        ratios = [round(row[names[page.stem]] / row["copied"], 3) for row in rows]
        results[page.stem] = {"graph": source, "ratios": ratios}
    costs = {"device": device, "sizes": SIZES, "passes": results}
    file.write_text(json.dumps(costs, indent=1) + "\n")


if __name__ == "__main__":
    measure(pathlib.Path(sys.argv[1]).resolve(), sys.argv[2:])
