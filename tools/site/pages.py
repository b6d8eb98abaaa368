"""Turns the Markdown files of the repository into the pages that Doxygen reads."""

import html
import json
import pathlib
import re
import shutil

from pictures import ROOT, PictureError, block_html

HEADINGS = ["When to use it", "Values", "Before and after it", "What goes wrong"]
GROUPS = [("geometry", "Drawing a scene"), ("lighting", "Light, shadows, transparency"),
          ("visibility", "Fragment lists"), ("compositing", "Images and compositing"),
          ("postprocessing", "Post-processing"), ("framework", "Your own GLSL")]


def slug(heading):
    """The anchor that hosts of Markdown files give a heading."""
    return re.sub(r"[^\w\- ]", "", re.sub(r"[`*]", "", heading).strip().lower()).replace(" ", "-")


def raw(text):
    return f"\n\\htmlonly[block]\n{text}\n\\endhtmlonly\n"


def breakable(name):
    """Lets a long name break before its capitals."""
    return re.sub(r"(?<=[a-z])(?=[A-Z])", "<wbr>", name)


def listing(text):
    return f"<pre class=\"fragment\">{html.escape(text.rstrip())}</pre>"


class Site:
    """Collects the pages, and the files of the repository that they link to."""

    def __init__(self, stage, output, renderer, passes):
        self.stage = stage
        self.output = output
        self.renderer = renderer
        self.passes = passes
        self.names = {}

    def name_pages(self, files):
        for file in files:
            self.names[file.resolve()] = file.stem
        # The reference of all passes is divided over their pages, in front of which stands the gallery.
        self.names[(ROOT / "docs/passes.md").resolve()] = "gallery"
        self.names[(ROOT / "README.md").resolve()] = "index"

    def link(self, target, file):
        """The address in the site of a link in a file."""
        if re.match(r"[a-z]+:|#", target) or target.endswith(".html"):
            return f"#{file.stem}_{target[1:]}" if target.startswith("#") else target
        path, _, anchor = target.partition("#")
        source = (file.parent / path).resolve()
        if source in self.names:
            page = self.names[source]
            return f"{page}.html" + (f"#{page}_{anchor}" if anchor else "")
        if not source.is_relative_to(ROOT) or not source.exists():
            raise PictureError(f"{file.relative_to(ROOT)}: no file {target}")
        relative = source.relative_to(ROOT)
        copy = self.output / "files" / relative
        if source.is_dir():
            copy.mkdir(parents=True, exist_ok=True)
            entries = sorted(entry for entry in source.iterdir() if entry.is_file())
            for entry in entries:
                shutil.copyfile(entry, copy / entry.name)
            items = "".join(f'<li><a href="{entry.name}">{entry.name}</a></li>' for entry in entries)
            (copy / "index.html").write_text(f"<!doctype html><title>{relative}</title><h1>{relative}</h1><ul>{items}</ul>")
            return f"files/{relative}/index.html"
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(source, copy)
        return f"files/{relative}"

    def prose(self, line, file):
        """Rewrites the links of a line, and makes links of the names of passes."""
        def name_to_link(match):
            name = match.group(0).strip("`")
            return f"[{name}]({name}.html)" if name in self.passes and name != file.stem else match.group(0)

        parts = re.split(r"(\[[^\]]*\]\([^)]*\))", line)
        for k, part in enumerate(parts):
            link = re.fullmatch(r"\[([^\]]*)\]\(([^)]*)\)", part)
            if link:
                parts[k] = f"[{link.group(1)}]({self.link(link.group(2), file)})"
            elif not line.startswith("#"):
                parts[k] = re.sub(r"`\w+Pass`|(?<![\w`.])\w+Pass(?![\w`]|\.\w)", name_to_link, part)
        return "".join(parts)

    def convert(self, file, text):
        """Returns the page's Doxygen Markdown, and the name of the picture that stands for it."""
        page = self.names[file.resolve()]
        lines = []
        picture = None
        fence = None
        block = []
        for line in text.splitlines():
            if fence is None and line.startswith("```"):
                fence = line[3:].strip()
                block = []
            elif fence is not None and line.startswith("```"):
                if fence in ("compare", "strip"):
                    try:
                        request = json.loads("\n".join(block))
                        content, shown = block_html(self.renderer, fence, request, file.stem)
                    except (json.JSONDecodeError, KeyError, OSError) as error:
                        raise PictureError(f"{file.relative_to(ROOT)}: in a block \"{fence}\": {error}") from error
                    lines.append(raw(content))
                    picture = shown if picture is None or "gallery" in request else picture
                elif fence == "graph":
                    path = ROOT / "".join(block).strip()
                    lines.append(f"The file [{path.name}]({self.link(str(path), file)}):\n")
                    lines.append(raw(listing(path.read_text())))
                else:
                    lines.append(raw(listing("\n".join(block))))
                fence = None
            elif fence is not None:
                block.append(line)
            else:
                line = self.prose(line, file)
                heading = re.match(r"(#+) (.*)", line)
                if heading:
                    label = page if len(heading.group(1)) == 1 else f"{page}_{slug(heading.group(2))}"
                    # Doxygen names the main page itself.
                    line += "" if label == "index" else f" {{#{label}}}"
                lines.append(line)
        return "\n".join(lines) + "\n", picture

    def write(self, page, text):
        (self.stage / f"{page}.md").write_text(text)


def sections(reference):
    """Splits the reference that "qel passes --markdown" prints into the parts of the passes."""
    parts = re.split(r"^## (\w+)\n", reference, flags=re.M)
    return dict(zip(parts[1::2], parts[2::2]))


def cost_table(costs, name):
    measured = costs["passes"].get(name)
    if not measured:
        return ""
    lines = []
    for (width, height), row in zip(costs["sizes"], measured["rows"]):
        kept, pooled = (f"{row[key] / 2**20:.3g} MiB" for key in ("kept", "pooled"))
        lines.append(f"| {width} x {height} | {row['ms']:.3g} ms | {row['copies']:.2g} | {kept} | {pooled} |")
    by_hand = measured.get("byHand")
    text = (f"\nIn `{measured['graph']}` on two cores, without a GPU ({costs['device']}):\n\n"
            "| size | time | in copies of the image | kept between frames | from the pool |\n|---|---|---|---|---|\n"
            + "\n".join(lines) + "\n")
    if by_hand:
        text += (f"\nThe time of the library is {by_hand['ratio']} times that of hand-written GL for the same work "
                 f"(`qel-benchmarks --benchmark_filter={by_hand['benchmark']}`).\n")
    return text


def pass_page(site, name, file, reference, costs):
    """Writes the page of a pass and returns its summary and picture."""
    text = file.read_text()
    found = re.findall(r"^## (.*)$", text, flags=re.M)
    missing = [heading for heading in [*HEADINGS, "Cost"] if heading not in found]
    if missing or not text.startswith(f"# {name}\n"):
        raise PictureError(f"{file.relative_to(ROOT)}: needs the title \"{name}\" and the sections {', '.join(missing)}")
    summary, _, tables = reference.strip().partition("\n\n")
    text = text.replace(f"# {name}\n", f"# {name}\n\n{summary}\n", 1)
    text = re.sub(r"^(## Cost\n.*?)(?=^## |\Z)", lambda match: match.group(1).rstrip() + "\n" + cost_table(costs, name) + "\n",
                  text, flags=re.M | re.S)
    text += "\n## Ports and options\n\n" + tables
    body, picture = site.convert(file, text)
    if picture is None:
        raise PictureError(f"{file.relative_to(ROOT)}: has no picture")
    header = file.with_suffix(".h").name
    body += f"\nIn code: [the class {name}](classMorvane_1_1Qel_1_1{name}.html), `<Qel/RenderPasses/{file.parent.name}/{header}>`.\n"
    site.write(name, body)
    return summary, picture


def gallery(site, entries):
    """Writes the page with a picture of each pass; entries: name to (folder, summary, picture)."""
    text = ["# Gallery of the passes {#gallery}", "",
            "Each picture leads to the page of its pass: what it is for, good values, its cost, and what can go wrong. "
            f"[Which pass for what](choosing.html) starts from the task instead.", ""]
    for folder, title in GROUPS:
        cards = "".join(
            f'<a class="card" href="{name}.html"><img src="images/{picture}" alt="" loading="lazy">'
            f"<strong>{breakable(name)}</strong><span>{html.escape(summary)}</span></a>"
            for name, (place, summary, picture) in sorted(entries.items()) if place == folder)
        text += [f"## {title} {{#gallery_{folder}}}", raw(f'<div class="gallery">{cards}</div>')]
    site.write("gallery", "\n".join(text))
