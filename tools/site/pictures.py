"""Renders the pictures of the manual with qel and makes the HTML that shows them.

A page asks for pictures in fenced blocks of JSON, named "compare" (two pictures with a slider) or "strip" (a row). A
block holds the properties of its shots and either "shots", a list of [caption, properties], or "vary", a list of an
input "pass.Port", its values and their unit. The properties of a shot:

    graph    a graph file, relative to the root of the repository
    set      input values, by "pass.Port"
    options  options, by "pass.option"
    without  passes to leave out
    camera, lights, models, output
             replace those of the graph; a camera of null is fitted to the models
    show     a shader of tools/site/shaders that makes the output visible: depth, normal, id, ...
    factor   a number for that shader
    size     width and height in pixels
    zoom     renders fewer pixels by this factor, and shows them enlarged
    frames   number of frames to render

The block's "gallery" is the index of the shot that stands for the pass in the gallery, else the page's first "after".
"""

import hashlib
import html
import json
import os
import pathlib
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor

ROOT = pathlib.Path(__file__).resolve().parents[2]
SHADERS = ROOT / "tools/site/shaders"


class PictureError(Exception):
    """A picture that cannot be made; the text says which and why."""


def absolute_paths(value, folder):
    """Makes the strings that name files relative to a folder absolute."""
    if isinstance(value, dict):
        return {key: absolute_paths(element, folder) for key, element in value.items()}
    if isinstance(value, list):
        return [absolute_paths(element, folder) for element in value]
    if isinstance(value, str) and "." in value and (folder / value).is_file():
        return str((folder / value).resolve())
    return value


def load_graph(file):
    """Reads a graph file with all that it includes, as one graph whose paths are absolute."""
    text = re.sub(r"^\s*//.*$", "", file.read_text(), flags=re.M)
    graph = absolute_paths(json.loads(text), file.parent)
    for included in graph.pop("include", []):
        for key, value in load_graph(pathlib.Path(included)).items():
            if isinstance(value, list) and key in ("passes", "lights"):
                graph[key] = value + graph.get(key, [])
            elif isinstance(value, dict) and key in ("models", "parameters"):
                graph[key] = {**value, **graph.get(key, {})}
            else:
                graph.setdefault(key, value)
    return graph


def apply(graph, shot):
    """Changes a graph as the properties of a shot say."""
    passes = {entry["name"]: entry for entry in graph["passes"]}
    for kind, group in (("set", "inputs"), ("options", "options")):
        for target, value in shot.get(kind, {}).items():
            name, _, member = target.partition(".")
            if name not in passes:
                raise PictureError(f'{shot["graph"]} has no pass "{name}"')
            passes[name].setdefault(group, {})[member] = absolute_paths(value, ROOT)
    graph["passes"] = [entry for entry in graph["passes"] if entry["name"] not in shot.get("without", [])]
    for key in ("camera", "lights", "output"):
        if key in shot:
            graph[key] = shot[key]
    if graph.get("camera", "") is None:
        del graph["camera"]
    if "models" in shot:
        graph["models"] = absolute_paths(shot["models"], ROOT)
    if "show" in shot:
        graph["passes"].append({
            "name": "shown",
            "type": "ShaderRenderPass",
            "options": {"inputs": ["Qel_QRect_Viewport", "Qel_QelTexture*_Data", "Qel_float_Factor"],
                        "outputs": ["Qel_QelTexture*_Picture"],
                        "fragmentShader": str(SHADERS / (shot["show"] + ".frag"))},
            "inputs": {"Data": graph["output"], "Factor": shot.get("factor", 1)},
        })
        graph["output"] = "@shown.Picture"
    # Where the graph settles each frame, the frames of a still view are counted by that.
    if "settle" in graph:
        graph["settle"] = shot.get("frames", 1)
    zoom = shot.get("zoom", 1)
    graph["viewport"] = [shot["size"][0] // zoom, shot["size"][1] // zoom]


class Renderer:
    """Renders shots into PNG files, each one once; files of earlier runs are used again."""

    def __init__(self, qel, cache):
        self.qel = qel
        self.cache = cache
        cache.mkdir(parents=True, exist_ok=True)
        self.shots = {}
        build = qel.parents[1]
        binaries = [qel, *sorted(build.glob("src/**/*.so.*.*"))]
        self.version = [(str(file), file.stat().st_mtime_ns) for file in binaries]
        self.version += [file.read_text() for file in sorted(SHADERS.glob("*.frag"))]

    def add(self, shot):
        """Notes a shot and returns the name of its picture."""
        file = ROOT / shot["graph"]
        graph = load_graph(file)
        apply(graph, shot)
        text = json.dumps(graph, indent=1)
        frames = 1 if "settle" in graph else shot.get("frames", 1)
        key = hashlib.sha1(json.dumps([text, frames, self.version]).encode()).hexdigest()[:16]
        self.shots[key] = (text, frames, shot["graph"])
        return key + ".png"

    def render(self, key):
        text, frames, source = self.shots[key]
        picture = self.cache / (key + ".png")
        if picture.exists():
            return
        graph = self.cache / (key + ".json")
        graph.write_text(text)
        run = subprocess.run([self.qel, "render", graph, "--frames", str(frames), "--output", picture],
                             capture_output=True, text=True, env={**os.environ, "QT_QPA_PLATFORM": "offscreen"})
        if run.returncode != 0:
            raise PictureError(f"{source}, as changed in {graph}: {run.stderr.strip() or run.stdout.strip()}")
        graph.unlink()

    def render_all(self, jobs):
        with ThreadPoolExecutor(jobs) as pool:
            list(pool.map(self.render, self.shots))

    def copy_to(self, folder):
        folder.mkdir(parents=True, exist_ok=True)
        for key in self.shots:
            (folder / (key + ".png")).write_bytes((self.cache / (key + ".png")).read_bytes())


def shots_of(block, size):
    """Returns the captions and properties of a block's pictures."""
    common = {"size": size, **{key: value for key, value in block.items() if key not in ("shots", "vary", "caption", "gallery")}}
    if "vary" in block:
        target, values, unit = block["vary"]
        kind = block.get("varyKind", "set")
        port = target.partition(".")[2].rpartition("_")[2]
        return [(f"{port} {json.dumps(value) if not isinstance(value, str) else value} {unit}".strip(),
                 {**common, kind: {**common.get(kind, {}), target: value}}) for value in values]
    shots = []
    for caption, changes in block["shots"]:
        shot = {**common, **changes}
        for kind in ("set", "options"):
            if kind in common and kind in changes:
                shot[kind] = {**common[kind], **changes[kind]}
        shots.append((caption, shot))
    return shots


def figure(renderer, shot, caption, text):
    name = renderer.add(shot)
    width, height = shot["size"]
    style = ' class="pixels"' if shot.get("zoom", 1) > 1 else ""
    return (f'<figure><img{style} src="images/{name}" width="{width}" height="{height}" alt="{html.escape(text)}">'
            f"<figcaption>{html.escape(caption)}</figcaption></figure>")


def block_html(renderer, kind, block, title):
    """Returns the HTML of a block and the name of its picture that shows the effect."""
    shots = shots_of(block, block.get("size", [640, 360] if kind == "compare" else [320, 180]))
    if kind == "compare" and len(shots) != 2:
        raise PictureError(f"{title}: a comparison has two pictures, not {len(shots)}")
    figures = "".join(figure(renderer, shot, caption, f"{title}: {caption}") for caption, shot in shots)
    caption = f'<p class="caption">{html.escape(block["caption"])}</p>' if "caption" in block else ""
    column = shots[0][1]["size"][0] * 2 // 3
    return f'<div class="{kind}" style="--column: {column}px">{figures}</div>{caption}', renderer.add(shots[block.get("gallery", -1)][1])
