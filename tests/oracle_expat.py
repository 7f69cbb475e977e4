#!/usr/bin/env python3
"""Random documents read by the library and by expat, trees compared; the
library's printed text read back by expat.

Not part of ctest (it loads the built library through ctypes, so it needs a
build without sanitizers); CI runs it on 1000 documents, and longer runs
take other seeds. Expat serves as the oracle for names,
attribute values and leaf texts, with entities, character references of the
whole Unicode range, CDATA sections and raw UTF-8. The documents are drawn
from the part of XML that both read alike: no mixed content, no text that
begins with white space, '>' or '/', no literal TAB, LF or CR in attribute
values (expat normalises them), no name that ends in '-' (our "-->" is a
delimiter). Each document is parsed on the heap and in a session.
Both trees are then printed, to the same text, and expat must read it as
the same tree, except for strings that the printer writes as they stand on purpose
and expat then reads otherwise: an '&' that begins a reference, a CR, and
TAB or LF in an attribute value.

  python3 tests/oracle_expat.py build/libkrvxml.so SEED COUNT
Exits 1 when any tree differs or a document expat reads is refused.
"""
import ctypes
import random
import sys
import xml.parsers.expat

lib = ctypes.CDLL(sys.argv[1])


class Node(ctypes.Structure):
    pass


NodeP = ctypes.POINTER(Node)
Node._fields_ = [("mem", ctypes.c_void_p), ("name", ctypes.c_char_p), ("value", ctypes.c_char_p),
                 ("nsPrefix", ctypes.c_char_p), ("kind", ctypes.c_uint8), ("ownsSession", ctypes.c_uint8),
                 ("nameOwned", ctypes.c_uint8), ("valueOwned", ctypes.c_uint8), ("parent", NodeP),
                 ("next", NodeP), ("prev", NodeP), ("firstChild", NodeP), ("lastChild", NodeP),
                 ("firstAttr", NodeP)]
for entry in (lib.KRV_XML_Parse, lib.KRV_XML_ParseEx):
    entry.argtypes = [ctypes.c_char_p, ctypes.POINTER(NodeP)]
lib.KRV_XML_FreeNode.argtypes = [NodeP]
lib.KRV_XML_Transform.argtypes = [NodeP, ctypes.POINTER(ctypes.c_void_p)]
lib.KRV_XML_FreeMem.argtypes = [ctypes.c_void_p]


def text_of(b):
    return (b or b"").decode("utf-8", "surrogateescape")  # bad UTF-8 differs, never raises


def qname(prefix, name):
    return (text_of(prefix) + ":" if prefix else "") + text_of(name)


def links(first):
    while first:
        yield first.contents
        first = first.contents.next


# A tree is [qualified name, [(qualified name, value)], text, [children]].
# Returns the result, the tree and, on request, the printed text.
def ours(text, entry, printed=False):
    doc = NodeP()
    rc = entry(text, ctypes.byref(doc))
    if rc != 0:
        return rc, None, None

    def shallow(n):
        attrs = [(qname(a.nsPrefix, a.name), text_of(a.value)) for a in links(n.firstAttr)]
        return [qname(n.nsPrefix, n.name), attrs, text_of(n.value), list(links(n.firstChild))]

    root = shallow(doc.contents)
    todo = [root]
    while todo:  # no recursion on depth
        t = todo.pop()
        t[3] = [shallow(k) for k in t[3]]
        todo.extend(t[3])
    out = None
    if printed:
        buf = ctypes.c_void_p()
        if lib.KRV_XML_Transform(doc, ctypes.byref(buf)) == 0:
            out = ctypes.string_at(buf.value)
            lib.KRV_XML_FreeMem(buf)
    lib.KRV_XML_FreeNode(doc)
    return 0, root, out


def same_printed(back, want):
    """Whether back, read from the printed text, is want, but for the strings
    of want that the printer keeps as they stand."""
    def kept(v, attr):
        return any(c in v for c in ("&\t\n\r" if attr else "&\r"))

    todo = [(back, want)]
    while todo:
        b, w = todo.pop()
        if b[0] != w[0] or len(b[1]) != len(w[1]) or len(b[3]) != len(w[3]):
            return False
        if not kept(w[2], False) and b[2] != w[2]:
            return False
        for (bn, bv), (wn, wv) in zip(b[1], w[1]):
            if bn != wn or (not kept(wv, True) and bv != wv):
                return False
        todo.extend(zip(b[3], w[3]))
    return True


def expat(text):
    p = xml.parsers.expat.ParserCreate()
    roots, open_ = [], []

    def start(name, attrs):
        e = [name, list(attrs.items()), "", []]
        (open_[-1][3] if open_ else roots).append(e)
        open_.append(e)

    def end(_):
        e = open_.pop()
        if e[3]:
            e[2] = ""  # the white space between children

    def chars(data):
        open_[-1][2] += data

    p.StartElementHandler, p.EndElementHandler, p.CharacterDataHandler = start, end, chars
    p.Parse(text, True)
    return roots[0]


def name(r):
    first = r.choice("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_")
    rest = "".join(r.choice("abcxyzXYZ019_.-") for _ in range(r.randrange(0, 20)))
    return (first + rest).rstrip("-")


def codepoint(r):
    while True:
        c = r.choice([r.randrange(0x20, 0x80), r.randrange(0x80, 0x800), r.randrange(0x800, 0x10000),
                      r.randrange(0x10000, 0x110000),
                      r.choice([9, 10, 13, 0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xE000, 0xFFFD, 0x10000, 0x10FFFF])])
        if not (0xD800 <= c <= 0xDFFF or c in (0xFFFE, 0xFFFF)):
            return c


def piece(r, quote):
    """A piece of an attribute value (quote given) or of a leaf text."""
    k = r.randrange(10)
    if k == 0:
        return r.choice(["&amp;", "&lt;", "&gt;", "&apos;", "&quot;"])
    if k == 1:
        return "&#%s%d;" % ("0" * r.randrange(3), codepoint(r))
    if k == 2:
        return "&#x%s;" % r.choice(["%x", "%X", "00%x"]) % codepoint(r)
    if k == 3:
        c = codepoint(r)
        return "A" if c < 0x20 or chr(c) in "\"'<&" else chr(c)
    if k == 4 and quote is None:
        body = "".join(r.choice("ab<>&]] x\"'") for _ in range(r.randrange(0, 12))).replace("]]>", "]>")
        return "<![CDATA[" + body + "]]>"
    if k == 5 and quote is None:
        return r.choice([" ", "\n", "\t", ">", "]", "]]", "\"", "'"])
    if k == 5:
        return r.choice([" ", ">", "]]>", "'" if quote == '"' else '"'])
    n = r.choice([r.randrange(1, 40), r.randrange(1, 40), r.randrange(40, 3000)])
    return "".join(r.choice("abcdefghijklmnopqrstuvwxyz0123456789 .,;:!?/-=+*()[]{}#%$@^~|") for _ in range(n))


def element(r, depth, out):
    tag = name(r) if r.random() < 0.8 else name(r) + ":" + name(r)
    out.append("<" + tag)
    used = set()
    for _ in range(r.choice([0, 0, 1, 2, 3, 5, 8, 20, 40])):
        attr = name(r) if r.random() < 0.8 else name(r) + ":" + name(r)
        if attr in used:
            continue
        used.add(attr)
        q = r.choice("\"'")
        value = "".join(piece(r, q) for _ in range(r.randrange(0, 6)))
        out.append(r.choice([" ", "  ", "\n\t"]) + attr + r.choice(["=", " = "]) + q + value + q)
    if r.random() < 0.15:
        out.append(r.choice(["/>", " />"]))
        return
    out.append(">")
    if depth < 5 and r.random() < 0.45:
        for _ in range(r.randrange(1, 5)):
            out.append(r.choice(["", "\n", "\n  ", " "]))
            element(r, depth + 1, out)
        out.append(r.choice(["", "\n"]))
    else:
        out.append("".join(piece(r, None) for _ in range(r.randrange(0, 8))).lstrip("\n\t\r >/"))
    out.append("</" + tag + ">")


def main():
    seed, count = int(sys.argv[2]), int(sys.argv[3])
    compared = failed = 0
    for i in range(count):
        r = random.Random(seed * 1000003 + i)
        out = []
        element(r, 0, out)
        text = "".join(out).encode()
        try:
            want = expat(text)
        except xml.parsers.expat.ExpatError:
            continue  # a literal "]]>" in a text: XML forbids it, this library reads it as text
        compared += 1
        texts, read_alike = {}, True
        for label, entry in (("heap", lib.KRV_XML_Parse), ("session", lib.KRV_XML_ParseEx)):
            rc, got, texts[label] = ours(text, entry, printed=True)
            if got != want:
                failed, read_alike = failed + 1, False
                print("differs (%s parse, result %d): seed %d case %d" % (label, rc, seed, i))
        if not read_alike:
            continue
        if texts["heap"] is None or texts["session"] is None:
            failed += 1
            print("a tree could not be printed: seed %d case %d" % (seed, i))
            continue
        if texts["session"] != texts["heap"]:
            failed += 1
            print("the session tree printed otherwise than the heap tree: seed %d case %d" % (seed, i))
        try:
            back = expat(texts["heap"])
        except xml.parsers.expat.ExpatError as e:
            if "&" in repr(want):
                continue  # "&#;" and references out of range pass the printer as they stand
            back = str(e)
        if isinstance(back, str) or not same_printed(back, want):
            failed += 1
            print("printed text reads differently: seed %d case %d (%s)" % (seed, i, back if isinstance(back, str) else "tree"))
    print("documents %d, compared %d, differing %d" % (count, compared, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
