# Writes a deterministic catalog document: gen_catalog.py OUT BYTES
import random
import sys
random.seed(7)
out=['<catalog xmlns:p="urn:x">\n']
size=0
i=0
limit=int(sys.argv[2]) if len(sys.argv) > 2 else 30_000_000
while size < limit:
    s=f'  <p:book id="b{i}" lang="en" price="{random.randint(1,999)}.99">\n    <title>Title number {i} &amp; more</title>\n    <author>Author {random.randint(1,5000)}</author>\n    <year>{1900+i%120}</year>\n    <note><![CDATA[some <cdata> text]]></note>\n  </p:book>\n'
    out.append(s); size+=len(s); i+=1
out.append('</catalog>\n')
open(sys.argv[1] if len(sys.argv) > 1 else 'doc.xml','w').write(''.join(out))
