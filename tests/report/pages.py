"""Reads a page strictly: every element and attribute must be one that the templates have."""

import base64
import hashlib
from html.parser import HTMLParser

VOID = {"meta", "rect", "path"}
# Elements, and the attributes that they may have.
ALLOWED = {
    "html": {"lang"}, "head": set(), "title": set(), "style": set(), "body": set(),
    "meta": {"charset", "http-equiv", "content", "name"},
    "header": set(), "main": set(), "nav": set(), "section": {"class"}, "p": {"class"},
    "h1": set(), "h2": set(), "h3": {"id"}, "a": {"href"}, "span": {"class"}, "div": {"class"},
    "dl": {"class"}, "dt": set(), "dd": set(), "time": {"datetime"}, "code": set(),
    "table": {"class", "role"}, "caption": {"class"}, "thead": {"role"}, "tbody": {"role"},
    "tr": {"role"}, "th": {"scope", "role", "class"}, "td": {"role", "class"},
    "svg": {"class", "role", "aria-label", "width", "height", "viewbox"}, "g": {"class"},
    "rect": {"class", "x", "y", "width", "height"}, "path": {"d"},
    "pre": set(), "ins": set(), "del": set(), "b": set(),
}
ODD = {*range(0x20), *range(0x7f, 0xa0), 0x61c, *range(0x200b, 0x2010), *range(0x2028, 0x202f),
       *range(0x2060, 0x2070), 0xfeff} - {9, 10}


class Page(HTMLParser):
    def __init__(self, text):
        super().__init__()
        self.open, self.links, self.rows, self.texts = [], [], [], {}
        self.cells = None
        assert not ODD & {ord(c) for c in text}, "a character that is not simply shown"
        self.feed(text)
        self.close()
        assert not self.open
        # What the browser takes for the style sheet is what the policy permits.
        digest = base64.b64encode(hashlib.sha256(self.text_of("style").encode()).digest())
        assert f"style-src 'sha256-{digest.decode()}'" in self.policy
        assert self.policy.startswith("default-src 'none'; ")

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        assert attributes.keys() <= ALLOWED[tag], (tag, attributes)
        if attributes.get("http-equiv") == "Content-Security-Policy":
            self.policy = attributes["content"]
        if "href" in attributes:
            self.links.append(attributes["href"])
        if tag == "tr":
            self.rows.append([])
        elif tag in ("th", "td"):
            self.rows[-1].append("")
        if tag not in VOID:
            self.open.append(tag)
            self.texts.setdefault(tag, []).append("")

    def handle_endtag(self, tag):
        if tag not in VOID:
            assert self.open.pop() == tag
        if tag in ("th", "td"):
            self.rows[-1][-1] = " ".join(self.rows[-1][-1].split())

    def handle_data(self, data):
        for tag in set(self.open):
            self.texts[tag][-1] += data
        if self.rows and {"th", "td"} & set(self.open):
            self.rows[-1][-1] += data

    def text_of(self, tag):
        """All that elements of the tag hold, one a line."""
        return "\n".join(self.texts.get(tag, []))

    def counts(self):
        """The numbers at the top."""
        return dict(zip(self.texts["dt"], self.texts["dd"]))
