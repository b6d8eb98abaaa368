#!/usr/bin/env python3
"""Measures the passes for their pages: measure.py QEL [PASS]... writes tools/site/costs.json, anew
or for some passes. qel-benchmarks lies beside QEL. Nothing else may run on the machine.

Each pass is measured in the graph of its page's first picture, at two sizes: the memory that it holds, its GPU time, and
that as a multiple of the time of a copy of the whole image in the same frames, which also holds on other machines."""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

from pictures import ROOT, load_graph

SIZES = [[640, 360], [1280, 720]]
RUNS = 2
FRAMES = 4
# The benchmarks that compare a pass to hand-written GL.
BENCHMARKS = {
    "BlendRenderPass": "Blend/3",
    "CameraSpaceZBufferRenderPass": "Positions/1280x720",
    "DeferredRenderPass": "Deferred/1280x720",
    "FastApproximateAntiAliasingRenderPass": "FXAA/1920x1080",
    "ForwardRenderPass": "SubmitModel/100",
    "GaussianBlurRenderPass": "GaussianBlur/1920x1080/radius5",
    "GBufferRenderPass": "GBuffer/1280x720/100000",
    "ModelDeferredPass": "ModelDeferred/1280x720",
    "ModelRenderPass": "ModelGBuffer/1280x720/100000",
    "ScalableAmbientObscuranceRenderPass": "AmbientObscurance/1280x720/samples:11",
    "ShadowMapRenderPass": "ShadowMaps",
    "SkyboxRenderPass": "Skybox",
    "SMAARenderPass": "SMAA/1920x1080",
    "TextureToScreenRenderPass": "SubmitFullScreenPass",
    "TransparencyRenderPass": "Transparency",
    "VisibilityBufferRenderPass": "BuildFragmentLists",
}


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


def profile(qel, graph, size):
    """The smallest GPU time of each pass in a run, by name, in milliseconds, and its memory, kept and pooled, in bytes."""
    graph = {**graph, "viewport": size}
    with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
        json.dump(graph, file)
        file.flush()
        run = subprocess.run([qel, "render", file.name, "--profile", "--json", "--frames", str(FRAMES)], check=True,
                             capture_output=True, text=True, env={**os.environ, "QT_QPA_PLATFORM": "offscreen"})
    passes = json.loads(run.stdout)["passes"]
    return ({entry["name"]: entry["gpu"]["minimum"] for entry in passes},
            {entry["name"]: [entry["memory"]["keptBytes"], entry["memory"]["pooledBytes"]] for entry in passes})


def rows(qel, graph):
    """For each size, the time, its multiple of a copy, and the memory of each pass by name."""
    table = []
    for size in SIZES:
        runs = [profile(qel, graph, size) for _ in range(RUNS)]
        times = {name: min(run[0][name] for run in runs) for name in runs[0][0]}
        table.append({name: {"ms": round(time, 2), "copies": round(time / times["copied"], 3),
                             "kept": runs[0][1][name][0], "pooled": runs[0][1][name][1]}
                      for name, time in times.items()})
    return table


def by_hand(qel, names):
    """The ratio of each benchmark, the library to hand-written GL, by name."""
    pattern = "|".join(f"^{re.escape(name)}$" for name in names)
    with tempfile.NamedTemporaryFile(suffix=".json") as report:
        subprocess.run([qel.parent / "qel-benchmarks", f"--benchmark_filter={pattern}",
                        "--benchmark_min_time=0.05", "--benchmark_out_format=json",
                        f"--benchmark_out={report.name}"], check=True, capture_output=True)
        benchmarks = json.loads(pathlib.Path(report.name).read_text())["benchmarks"]
    return {entry["name"]: round(entry["ratio"], 2) for entry in benchmarks}


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
            measured[source] = names, rows(qel, prepared(graph))
        names, table = measured[source]
        results[page.stem] = {"graph": source, "rows": [row[names[page.stem]] for row in table]}
    ratios = by_hand(qel, [BENCHMARKS[name] for name in results if name in BENCHMARKS])
    for name, benchmark in BENCHMARKS.items():
        if name in results:
            results[name]["byHand"] = {"benchmark": benchmark, "ratio": ratios[benchmark]}
    costs = {"device": device, "sizes": SIZES, "passes": results}
    file.write_text(json.dumps(costs, indent=1) + "\n")


if __name__ == "__main__":
    measure(pathlib.Path(sys.argv[1]).resolve(), sys.argv[2:])
