#!/usr/bin/env python3
"""Makes a site of the pages and of the public headers, which works from the file system.

    tools/make_site.py OUTPUT

Needs cmark-gfm and doxygen. Every link and every anchor of what was made is checked: a dead one is an error, and so is
anything that a page would fetch from elsewhere.
"""

import html
import html.parser
import os
import pathlib
import re
import shutil
import subprocess
import sys
import urllib.parse

ROOT = pathlib.Path(__file__).parent.parent
SITE = ROOT / "tools" / "site"
# The navigation. Pages that are not in it stand under "More".
GROUPS = {
    "Begin": {"docs/index.md": "What it is", "docs/quick-start.md": "Quick start",
              "docs/from-sockets.md": "From a socket to QVTP", "docs/concepts.md": "Concepts"},
    "Guides": {"docs/easy.md": "The easy face", "docs/server-guide.md": "Server guide",
               "docs/client-guide.md": "Client guide", "docs/time-outs.md": "Time-outs", "docs/errors.md": "Errors",
               "docs/logs-and-tracing.md": "Logs and tracing", "docs/command-line.md": "The program qvtp",
               "docs/configuration.md": "Configuration", "docs/other-languages.md": "Other languages"},
    "Look up": {"api": "The interface", "docs/wire-format.md": "Wire format", "docs/log-format.md": "Log formats",
                "SECURITY.md": "Security", "docs/untrusted-clients.md": "Untrusted clients",
                "docs/porting.md": "Windows and Linux", "docs/packaging.md": "Packages",
                "docs/abi.md": "Binary interface", "docs/performance.md": "Performance"},
    "Inside": {"docs/architecture.md": "Architecture", "docs/threading.md": "Threads",
               "docs/reliability.md": "Reliability", "CONTRIBUTING.md": "Contributing", "CHANGELOG.md": "Changes",
               "README.md": "README"},
}
PAGE = """<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>{title} - libqvtp</title>
<link rel="stylesheet" href="{up}style.css">{more}
</head>
<body>
<a class="skip" href="#content">To the text</a>
<div class="page">
<nav class="site" aria-label="Pages"><details{open}><summary>libqvtp</summary>
{navigation}</details></nav>
<main id="content">
"""
END = "</main>\n</div>\n<script>{script}</script>\n</body>\n</html>\n"
# On a phone the navigation is closed until somebody opens it.
SCRIPT = "if (matchMedia('(max-width: 56rem)').matches) document.querySelector('nav.site details').open = false;"


def pages():
    found = sorted([*ROOT.glob("*.md"), *(ROOT / "docs").glob("*.md")])
    return [file.relative_to(ROOT).as_posix() for file in found]


def target_of(source):
    """Where a file of the tree is in the site, or None."""
    if source == "api":
        return "api/index.html"
    if source.endswith(".md"):
        return pathlib.PurePosixPath(source).stem + ".html"
    if source.startswith("docs/"):
        return source.removeprefix("docs/")
    return f"source/{source}.html" if is_text(source) else f"source/{source}"


def is_text(source):
    """Whether it can be shown as a page; folders can."""
    if (ROOT / source).is_dir():
        return True
    try:
        (ROOT / source).read_text(encoding="utf-8")
    except UnicodeDecodeError:
        return False
    return True


def relative(target, page):
    return os.path.relpath(target, os.path.dirname(page) or ".")


def title_of(source):
    text = (ROOT / source).read_text(encoding="utf-8")
    return re.search(r"^# (.*)$", text, re.MULTILINE).group(1)


def navigation(page, current):
    listed = {source for group in GROUPS.values() for source in group}
    rest = {source: title_of(source) for source in pages() if source not in listed}
    lines = []
    for name, group in {**GROUPS, "More": rest}.items():
        items = [f'<li><a href="{relative(target_of(source), page)}"{here}>{html.escape(title)}</a></li>'
                 for source, title in group.items()
                 for here in [' aria-current="page"' if source == current else ""]]
        lines += [f"<h2>{name}</h2>", "<ul>", *items, "</ul>"] if items else []
    return "\n".join(lines) + "\n"


def frame(page, current, title, more=""):
    up = "../" * page.count("/")
    return PAGE.format(title=html.escape(title), up=up, more=more, open=" open", navigation=navigation(page, current))


class Site:
    def __init__(self, output):
        self.output = output
        self.sources = {}  # files and folders of the tree that pages lead to
        self.errors = []

    def write(self, name, text):
        file = self.output / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text, encoding="utf-8")

    def render(self, source):
        markdown = subprocess.run(["cmark-gfm", "-e", "table", str(ROOT / source)], check=True, capture_output=True,
                                  encoding="utf-8").stdout
        page = target_of(source)
        body = re.sub(r"<table>.*?</table>", lambda m: f'<div class="table" tabindex="0">{m.group()}</div>', markdown,
                      flags=re.DOTALL)
        body = re.sub(r'(<pre><code class="language-console">)(.*?)(</code>)', bold_commands, body, flags=re.DOTALL)
        body = with_anchors(body)
        body = re.sub(r'(href|src)="([^"#][^"]*)"', lambda m: self.relink(m, source, page), body)
        title = html.unescape(re.sub(r"<[^>]*>", "", re.search(r"<h1.*?>(.*?)<a class", body, re.DOTALL).group(1)))
        self.write(page, frame(page, source, title) + body + END.format(script=SCRIPT))

    def relink(self, match, source, page):
        target, hash_mark, anchor = html.unescape(match.group(2)).partition("#")
        if re.match(r"[a-z]+:", target):
            return match.group()
        path = os.path.normpath(os.path.join(os.path.dirname(source), urllib.parse.unquote(target)))
        if not (ROOT / path).exists():
            self.errors.append(f"{source}: leads nowhere: {target}")
        if not path.endswith(".md") and not path.startswith("docs/"):
            self.sources[path] = True
        return f'{match.group(1)}="{relative(target_of(path), page)}{hash_mark}{anchor}"'

    def copy_pictures(self):
        """And whatever else of docs/ is no page."""
        for file in sorted((ROOT / "docs").rglob("*")):
            if file.is_file() and file.suffix != ".md":
                target = self.output / file.relative_to(ROOT / "docs")
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(file, target)

    def show_sources(self):
        """Files as they are; folders as lists of their files."""
        for path in list(self.sources):
            for file in sorted((ROOT / path).glob("*")) if (ROOT / path).is_dir() else []:
                self.sources.setdefault(file.relative_to(ROOT).as_posix(), True)
        for path in [path for path in self.sources if not (ROOT / path).is_dir()]:
            page = target_of(path)
            if not is_text(path):
                (self.output / page).parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(ROOT / path, self.output / page)
                continue
            text = (ROOT / path).read_text(encoding="utf-8")
            self.write(page, frame(page, "", path) + f"<h1>{html.escape(path)}</h1>\n<pre><code>{html.escape(text)}"
                       "</code></pre>\n" + END.format(script=SCRIPT))
        for path in [path for path in self.sources if (ROOT / path).is_dir()]:
            page = target_of(path)
            inside = [each for each in self.sources if os.path.dirname(each) == path and not (ROOT / each).is_dir()]
            items = "".join(f'<li><a href="{relative(target_of(each), page)}">{html.escape(each)}</a></li>\n'
                            for each in inside)
            self.write(page, frame(page, "", path) + f"<h1>{html.escape(path)}</h1>\n<ul>\n{items}</ul>\n" +
                       END.format(script=SCRIPT))

    def make_manual(self):
        """Doxygen's pages, within the frame of the others."""
        more = '\n<link rel="stylesheet" href="$relpath^$stylesheet">'
        head = frame("api/x.html", "api", "$title", more)
        work = self.output / ".doxygen"
        work.mkdir()
        (work / "header.html").write_text(head + '<div id="top">\n', encoding="utf-8")
        (work / "footer.html").write_text(END.format(script=SCRIPT.replace("$", "$$")), encoding="utf-8")
        settings = (SITE / "Doxyfile").read_text(encoding="utf-8") + (
            f"OUTPUT_DIRECTORY = {self.output}\nHTML_HEADER = {work}/header.html\nHTML_FOOTER = {work}/footer.html\n")
        (work / "Doxyfile").write_text(settings, encoding="utf-8")
        done = subprocess.run(["doxygen", str(work / "Doxyfile")], cwd=ROOT, capture_output=True, text=True, check=False)
        shutil.rmtree(work)
        if done.returncode != 0 or done.stderr:
            sys.exit(f"make_site: Doxygen complains:\n{done.stderr}")
        for file in (self.output / "api").glob("*"):
            if file.suffix == ".html":
                file.write_text(without_scripts(file.read_text(encoding="utf-8")), encoding="utf-8")
            elif file.suffix != ".css":
                file.unlink()

    def make(self):
        for source in pages():
            self.render(source)
        self.copy_pictures()
        shutil.copyfile(SITE / "style.css", self.output / "style.css")
        self.show_sources()
        self.make_manual()


def without_scripts(page):
    """A page of Doxygen's without what needs its scripts and pictures, and without its link to a list of nested classes
    where all of them are private, and the list is left out."""
    page = re.sub(r' onclick="[^"]*"', "", page)
    page = re.sub(r'<img src="[^"]*"[^>]*>(&#160;)?', "", page)
    if 'name="nested-classes"' not in page:
        page = re.sub(r'<a href="#nested-classes">[^<]*</a>( &#124;)?', "", page)
    return page


def bold_commands(match):
    lines = [f"<b>{line}</b>" if line.startswith("$ ") else line for line in match.group(2).split("\n")]
    return match.group(1) + "\n".join(lines) + match.group(3)


def with_anchors(body):
    """Headings get the names that links use: lower case, without punctuation, hyphens for blanks."""
    seen = {}

    def named(match):
        text = html.unescape(re.sub(r"<[^>]*>", "", match.group(2)))
        name = re.sub(r"[^\w\- ]", "", text.lower()).replace(" ", "-")
        count = seen.get(name, 0)
        seen[name] = count + 1
        name = name if count == 0 else f"{name}-{count}"
        return (f'<h{match.group(1)} id="{name}">{match.group(2)}<a class="anchor" href="#{name}" '
                f'aria-label="Link to this heading">#</a></h{match.group(1)}>')

    return re.sub(r"<h([1-6])>(.*?)</h\1>", named, body, flags=re.DOTALL)


class Links(html.parser.HTMLParser):
    """What a page leads to, what it fetches, and what leads into it."""

    def __init__(self, text):
        super().__init__()
        self.leads_to, self.fetches, self.names = [], [], set()
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        given = dict(attributes)
        self.names.update(given[key] for key in ("id", "name") if given.get(key))
        if tag == "a" and given.get("href") is not None:
            self.leads_to.append(given["href"])
        elif given.get("href") or given.get("src"):
            self.fetches.append(given.get("href") or given["src"])


MARK = ".made-by-make_site"


def check(output):
    """Complaints, and how many links there are."""
    parsed = {file: Links(file.read_text(encoding="utf-8")) for file in sorted(output.rglob("*.html"))}
    errors, count = [], 0
    for file, links in parsed.items():
        place = file.relative_to(output)
        if str(ROOT) in file.read_text(encoding="utf-8"):
            errors.append(f"{place}: says where the tree lies on this machine")
        errors += [f"{place}: fetches {target}" for target in links.fetches if re.match(r"([a-z]+:|//)", target)]
        for target in links.leads_to + links.fetches:
            if re.match(r"(https?|mailto):", target):
                continue
            count += 1
            path, _, anchor = urllib.parse.unquote(target).partition("#")
            leads_to = pathlib.Path(os.path.normpath(file.parent / path)) if path else file
            if not leads_to.is_file():
                errors.append(f"{place}: leads nowhere: {target}")
            elif anchor and (leads_to not in parsed or anchor not in parsed[leads_to].names):
                errors.append(f"{place}: no such place: {target}")
    return errors, count, len(parsed)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    output = pathlib.Path(sys.argv[1]).resolve()
    if output.exists() and any(output.iterdir()) and not (output / MARK).is_file():
        sys.exit(f"make_site: {sys.argv[1]} is there, and no site that this program has made: it stays")
    shutil.rmtree(output, ignore_errors=True)
    output.mkdir(parents=True)
    (output / MARK).write_text("made by tools/make_site.py, which removes this folder before it makes it anew\n",
                               encoding="utf-8")
    site = Site(output)
    site.make()
    errors, links, count = check(output)
    for error in site.errors + errors:
        print(error)
    print(f"{count} pages, {links} links")
    return 1 if site.errors or errors or not links else 0


if __name__ == "__main__":
    sys.exit(main())
