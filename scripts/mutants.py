#!/usr/bin/env python3
"""Mutation check of the test suites.

Applies one small change at a time to the library's sources (a comparison
turned round, && for ||, a result code swapped, an off-by-one), rebuilds the
test executables, runs them and reports whether any test failed ("killed")
or all passed ("SURVIVED"). A survivor is a fault the tests let through.

The mutants depend only on the sources' text, --sources, --n and --seed, so
two runs over the same library sources (for example before and after a
change to the tests) try the same mutants and can be compared line by line.
The source is restored after each mutant, also on Ctrl-C.

Usage, from a build directory configured with -DKRVXML_BUILD_TESTS=ON
(a Release build with -DKRVXML_PGO=OFF rebuilds and runs fastest):
  python3 scripts/mutants.py BUILD [--tests test_tree,test_value]
      [--sources src/xml/xml_tree.cpp,...] [--n 200] [--seed 7] [--ids 3,17] [--list]
Output: one line per mutant, "ID STATUS file:line 'before' -> 'after'",
then the counts.
"""
import argparse
import glob
import os
import random
import re
import subprocess

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# (pattern, replacement); the lookarounds keep <<, >>, ->, <=, >= and == whole.
OPS = [
    (r'==', '!='), (r'!=', '=='),
    (r'(?<![<>=!-])<=(?!=)', '<'), (r'(?<![<>=!-])>=(?!=)', '>'),
    (r'(?<![<>=-])<(?![<=])', '<='), (r'(?<![<>=-])>(?![>=])', '>='),
    (r'&&', '||'), (r'\|\|', '&&'),
    (r'\+ 1\b', '+ 2'), (r'- 1\b', '- 0'),
    (r'\btrue\b', 'false'), (r'\bfalse\b', 'true'),
    (r'return KRV_XML_OK;', 'return KRV_XML_ERR_INVALID_PARAM;'),
    (r'return KRV_XML_ERR_[A-Z_]+;', 'return KRV_XML_OK;'),
    (r'\+\+', '--'),
]
# Lines with template or cast brackets get no mutants of < and >: they
# would mostly not compile.
ANGLE_FREE = [op for op in OPS if not re.search(r'[<>]', op[0] + op[1])]
BRACKETS = re.compile(r'std::|<[A-Za-z_:]+\s*\*?>|_cast\b')


def candidates(sources):
    out = []
    for src in sources:
        in_comment = False
        for i, line in enumerate(open(os.path.join(ROOT, src)).read().split('\n')):
            s = line.strip()
            if in_comment:
                in_comment = '*/' not in s
                continue
            if s.startswith('/*'):
                in_comment = '*/' not in s
                continue
            if s.startswith(('//', '#')) or 'static_assert' in s or 'template' in s:
                continue
            code = line.split('//')[0]
            for pat, rep in (ANGLE_FREE if BRACKETS.search(code) else OPS):
                for m in re.finditer(pat, code):
                    out.append((src, i, m.start(), m.end(), m.group(0), rep))
    return out


def run_tests(build, tests, timeout):
    for t in tests:
        try:
            r = subprocess.run([os.path.join(build, 'tests', t), '--gtest_brief=1'],
                               capture_output=True, timeout=timeout)
        except subprocess.TimeoutExpired:
            return 'killed'
        if r.returncode != 0:
            return 'killed'
    return 'SURVIVED'


def main():
    ap = argparse.ArgumentParser(description='Mutation check of the test suites.')
    ap.add_argument('build')
    ap.add_argument('--tests', help='test executables, comma-separated (default: all)')
    ap.add_argument('--sources', help='library sources, comma-separated (default: all of src/)')
    ap.add_argument('--n', type=int, default=200)
    ap.add_argument('--seed', type=int, default=7)
    ap.add_argument('--ids', default='', help='only these mutants, comma-separated')
    ap.add_argument('--list', action='store_true', help='print the mutants, run nothing')
    ap.add_argument('--timeout', type=int, default=30, help='seconds per test executable')
    a = ap.parse_args()
    build = os.path.abspath(a.build)
    tests = a.tests.split(',') if a.tests else sorted(
        os.path.basename(p) for p in glob.glob(os.path.join(build, 'tests', 'test_*'))
        if os.access(p, os.X_OK) and os.path.isfile(p))
    sources = a.sources.split(',') if a.sources else sorted(
        os.path.relpath(p, ROOT) for p in glob.glob(os.path.join(ROOT, 'src', '**', '*.[ch]*'), recursive=True))
    cands = candidates(sources)
    picked = random.Random(a.seed).sample(range(len(cands)), min(a.n, len(cands)))
    mutants = [cands[k] for k in picked]
    ids = [int(x) for x in a.ids.split(',') if x] or range(len(mutants))
    counts = {}
    for i in ids:
        src, ln, start, end, before, after = mutants[i]
        where = f'{src}:{ln + 1} {before!r} -> {after!r}'
        if a.list:
            print(i, where)
            continue
        path = os.path.join(ROOT, src)
        text = open(path).read()
        lines = text.split('\n')
        lines[ln] = lines[ln][:start] + after + lines[ln][end:]
        try:
            open(path, 'w').write('\n'.join(lines))
            built = subprocess.run(['ninja', '-C', build] + tests, capture_output=True).returncode == 0
            status = run_tests(build, tests, a.timeout) if built else 'nocompile'
        finally:
            open(path, 'w').write(text)
        counts[status] = counts.get(status, 0) + 1
        print(i, status, where, flush=True)
    if not a.list:
        subprocess.run(['ninja', '-C', build] + tests, capture_output=True)
        print(' '.join(f'{k}: {v}' for k, v in sorted(counts.items())))


if __name__ == '__main__':
    main()
