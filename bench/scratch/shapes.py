#!/usr/bin/env python3
"""Writes small documents of one construct each (about 1 MB), to see where
the session parse stands against pugixml construct by construct:

    python3 bench/scratch/shapes.py /tmp/shapes
    for f in /tmp/shapes/*.xml; do /tmp/parse_median $f 1 400; /tmp/pugi_median $f 400; done
"""
import os
import sys

WORDS = ['alpha', 'bravo', 'charlie', 'delta', 'echo', 'fox', 'golf', 'hotel']
SHAPES = {
    'attrs': (16000, lambda i: f'  <item id="r{i:07d}" state="draft" kind="k{i % 5}" rank="{i * 7 % 99999}"/>\n'),
    'leaves': (50000, lambda i: f'  <tag>{WORDS[i % 8]}</tag>\n'),
    'ents': (15000, lambda i: f'  <d>tango whiskey &lt;x&gt; caf&#233; &#x20AC;{i} &quot;q&quot; &apos;a&apos;</d>\n'),
    'nested': (35000, lambda i: '  <a><b><c><d></d></c></b></a>\n'),
    'prefixed': (35000, lambda i: f'  <cat:tag m:x="1">{WORDS[i % 8]}</cat:tag>\n'),
    'cdata': (18000, lambda i: '  <n><![CDATA[raw <b>zulu bravo</b> & "quoted" ]] text]]></n>\n'),
    'cdata_plain': (15000, lambda i: f'  <n><![CDATA[raw <b>zulu bravo</b> & "quoted" plain text {i}]]></n>\n'),
}

def main():
    out = sys.argv[1] if len(sys.argv) > 1 else '/tmp/shapes'
    os.makedirs(out, exist_ok=True)
    for name, (count, line) in SHAPES.items():
        root = '<root xmlns:cat="u:c" xmlns:m="u:m">' if name == 'prefixed' else '<root>'
        body = ''.join(line(i) for i in range(count))
        with open(os.path.join(out, name + '.xml'), 'w') as f:
            f.write('<?xml version="1.0"?>\n' + root + '\n' + body + '</root>\n')

if __name__ == '__main__':
    main()
