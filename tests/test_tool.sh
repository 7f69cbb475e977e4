#!/usr/bin/env bash
# The krvxml tool on files: output, error lines and exit codes of each
# command, the atomic rewrite of `set`, and standard input.
#   tests/test_tool.sh KRVXML_BINARY EXAMPLES_DIR
set -uo pipefail
tool=$1
examples=$2
work=$(mktemp -d)
trap 'chmod -R u+w "$work"; rm -rf "$work"' EXIT
failures=0
fail() { failures=$((failures + 1)); echo "FAIL $*"; }

# t NAME EXIT STDOUT STDERR-REGEX -- ARGS...   (STDOUT "*" = not checked;
# trailing newlines are not compared; STDIN names the input file, if any)
t() {
  local name=$1 want=$2 out=$3 err=$4 bad=""
  shift 5
  "$tool" "$@" >"$work/.out" 2>"$work/.err" <"${STDIN:-/dev/null}"
  local rc=$?
  [ "$rc" = "$want" ] || bad+=" exit $rc (want $want);"
  [ "$out" = "*" ] || [ "$(cat "$work/.out")" = "$out" ] || bad+=" stdout differs;"
  if [ -z "$err" ]; then
    [ ! -s "$work/.err" ] || bad+=" unexpected stderr;"
  else
    grep -Eq -- "$err" "$work/.err" || bad+=" stderr lacks /$err/;"
    [ "$(wc -l <"$work/.err")" -le 1 ] || [ "$want" = 2 ] || bad+=" error is not one line;"
  fi
  [ -z "$bad" ] || { fail "$name:$bad"; echo "  krvxml $*"; sed 's/^/  out: /' "$work/.out" "$work/.err"; }
}
no_temp_left() { ! ls -a "$work" | grep -q 'krvxml-' || fail "temporary file left behind $1"; }

cfg=$work/config.xml
cp "$examples/config.xml" "$cfg"
printf '<a>\n<b/>text</a>\n' >"$work/bad.xml"
: >"$work/empty.xml"
printf '<a><b>1</b><c/></a>' >"$work/frame.xml"

# --- usage and help ----------------------------------------------------------
t "no command" 2 "" "usage: krvxml" --
t "unknown command" 2 "" "unknown command 'frob'" -- frob
t "main help" 0 "*" "" -- --help
t "help of no command" 2 "" "unknown command 'nosuch'" -- help nosuch
t "help of a command" 0 "*" "" -- help get
grep -q "^usage: krvxml get" "$work/.out" || fail "help get"
for v in --version -V; do
  t "$v" 0 "krvxml (KRV XML 2.1.9)" "" -- $v
done
for c in check get set print demo; do
  t "$c --help" 0 "*" "" -- "$c" --help
  grep -q "^usage: krvxml $c" "$work/.out" || fail "$c --help text"
done
t "unknown option" 2 "" "unknown option --frob" -- get "$cfg" config --frob
t "option without value" 2 "" "option --attr needs a value" -- get "$cfg" config --attr
t "unknown type" 2 "" "unknown type 'int64'" -- get "$cfg" config.name --type int64
t "get arity" 2 "" "expected FILE and PATH" -- get "$cfg"
t "check arity" 2 "" "no FILE given" -- check
t "head and tail" 2 "" "exclude each other" -- print "$cfg" --head --tail
t "demo arity" 2 "" "takes no arguments" -- demo extra

# --- check -------------------------------------------------------------------
for mode in "" --heap; do
  t "check ok $mode" 0 "$cfg: ok" "" -- check $mode "$cfg"
  t "check refusal $mode" 1 "" "^$work/bad.xml:2:[0-9]+: .*\(KRV_XML_ERR_SYNTAX\)$" -- check $mode "$work/bad.xml"
  t "check missing $mode" 1 "" "^$work/none.xml: .*KRV_XML_ERR_FILE_OPEN" -- check $mode "$work/none.xml"
  t "check empty $mode" 1 "" "KRV_XML_ERR_SYNTAX" -- check $mode "$work/empty.xml"
  STDIN=$cfg t "check stdin $mode" 0 "<stdin>: ok" "" -- check $mode -
  STDIN=$work/bad.xml t "check bad stdin $mode" 1 "" "^<stdin>:2:[0-9]+: .*KRV_XML_ERR_SYNTAX" -- check $mode -
done
printf '<a>1\n\0</a>' >"$work/nul.xml"
t "check NUL" 1 "" "^$work/nul.xml:2:1: NUL byte in the text \(KRV_XML_ERR_SYNTAX\)$" -- check "$work/nul.xml"
STDIN=$work/nul.xml t "check NUL stdin" 1 "" "^<stdin>:2:1: NUL byte" -- check -
t "check endless device" 1 "" "^/dev/zero:1:1: NUL byte" -- check /dev/zero
t "check pipe" 0 "*" "" -- check <(cat "$cfg")
"$tool" check "$cfg" >/dev/full 2>"$work/.err"
[ $? = 1 ] && grep -q "cannot write standard output" "$work/.err" || fail "check into a full disk"
t "check of several files" 1 "$cfg: ok
$work/frame.xml: ok" "bad.xml:2:" -- check "$cfg" "$work/bad.xml" "$work/frame.xml"

# --- get ---------------------------------------------------------------------
t "get value" 0 "inventory" "" -- get "$cfg" config.name
t "get attribute" 0 "beta.example.net" "" -- get "$cfg" config.server.2 --attr host
t "get typed attribute" 0 "8443" "" -- get "$cfg" config.server.2 --attr port --type uint16
t "get name of an empty prefix" 2 "" "':host' names no attribute" -- get "$cfg" config.server.2 --attr :host
t "get typed bool" 0 "true" "" -- get "$cfg" config.server.2 --attr secure --type bool
t "get typed value" 0 "30" "" -- get "$cfg" config.limits.timeout --type int8
t "get out of range" 1 "" "^krvxml: $cfg: read int8 of 'config.server@port': KRV_XML_ERR_INVALID_PARAM$" \
  -- get "$cfg" config.server --attr port --type int8
t "get no value" 0 "" "" -- get "$cfg" config.limits
t "get missing attribute" 1 "" "KRV_XML_ERR_NOT_FOUND" -- get "$cfg" config.server --attr nope
t "get missing path" 1 "" "^krvxml: $cfg: path 'config.server.3': KRV_XML_ERR_NOT_FOUND$" -- get "$cfg" config.server.3
t "get index 0" 1 "" "KRV_XML_ERR_URL_NOT_FOUND" -- get "$cfg" config.server.0
t "get from bad file" 1 "" "^krvxml: $work/bad.xml:2:" -- get "$work/bad.xml" a
STDIN=$cfg t "get stdin" 0 "64" "" -- get - config.limits.connections

# --- set ---------------------------------------------------------------------
before=$(cat "$cfg")
t "set bad typed value" 2 "" "'70000' is not a uint16 value" -- set "$cfg" config.server --attr port --type uint16 70000
t "set bad bool" 2 "" "not a bool value" -- set "$cfg" config.server --attr secure --type bool yes
for tv in "uint8 +5" "uint16 -0" "bool +1" "bool -0"; do  # what get --type would refuse
  t "set --type $tv" 2 "" "is not a ${tv% *} value" -- set "$cfg" config.server --attr port --type $tv
done
t "set missing path" 1 "" "KRV_XML_ERR_NOT_FOUND" -- set "$cfg" config.nothing value
t "set missing output dir" 1 "" "^krvxml: $work/no/x.xml: write: " -- set "$cfg" config.name x -o "$work/no/x.xml"
[ "$(cat "$cfg")" = "$before" ] || fail "refused set changed the file"

chmod 640 "$cfg"
inode=$(stat -c %i "$cfg")
t "set typed attribute" 0 "" "" -- set "$cfg" config.server.2 --attr port --type uint16 9443
[ "$(stat -c %i "$cfg")" != "$inode" ] || fail "set did not replace the file"
[ "$(stat -c %a "$cfg")" = 640 ] || fail "set lost the permissions"
t "set negative" 0 "" "" -- set "$cfg" config.limits.timeout --type int32 -15
t "set canonical bool" 0 "" "" -- set "$cfg" config.server --attr secure --type bool 1
t "set new attribute" 0 "" "" -- set "$cfg" config.log --attr rotate daily
t "set new typed attribute" 0 "" "" -- set "$cfg" config.limits --attr max --type uint8 200
t "set prefixed attribute" 0 "" "" -- set "$cfg" config.name --attr x:lang en
t "set value" 0 "" "" -- set "$cfg" config.name "store & stock"
t "get after set" 0 "9443" "" -- get "$cfg" config.server.2 --attr port --type int32
t "get negative" 0 "-15" "" -- get "$cfg" config.limits.timeout
t "get canonical bool" 0 "true" "" -- get "$cfg" config.server --attr secure
t "get typed new attribute" 0 "200" "" -- get "$cfg" config.limits --attr max --type uint8
t "get prefixed" 0 "en" "" -- get "$cfg" config.name --attr x:lang
t "prefix is identity" 1 "" "KRV_XML_ERR_NOT_FOUND" -- get "$cfg" config.name --attr lang
t "get escaped value" 0 "store & stock" "" -- get "$cfg" config.name
t "check after sets" 0 "$cfg: ok" "" -- check "$cfg"
no_temp_left "after sets"

cp "$cfg" "$work/keep.xml"
t "set -o" 0 "" "" -- set "$cfg" config.name renamed -o "$work/out.xml"
cmp -s "$cfg" "$work/keep.xml" || fail "set -o changed its input"
t "get from -o result" 0 "renamed" "" -- get "$work/out.xml" config.name
t "set -o -" 0 "*" "" -- set "$cfg" config.name piped -o -
grep -q '^<name x:lang="en">piped</name>$' "$work/.out" || fail "set -o - output"
STDIN=$cfg t "set from stdin" 0 "*" "" -- set - config.limits.connections 99
grep -q '^<connections>99</connections>$' "$work/.out" || fail "set - output"
t "set empty value" 0 "" "" -- set "$cfg" config.log "" -o "$work/novalue.xml"
grep -q '^<log level="info" rotate="daily"/>$' "$work/novalue.xml" || fail "empty value"

# A symbolic link keeps pointing at the changed file.
ln -s "$cfg" "$work/link.xml"
t "set through link" 0 "" "" -- set "$work/link.xml" config.name linked
[ -L "$work/link.xml" ] && [ "$("$tool" get "$cfg" config.name)" = linked ] || fail "set through a link"

# VALUE is stored as given, and other values keep their text: the printer
# would keep "&lt;" in a value as a reference.
printf '<a x="&amp;lt;"><c>&amp;#65;</c><b/></a>' >"$work/amp.xml"
t "set literal reference" 0 "" "" -- set "$work/amp.xml" a.b "&lt;&#1;"
t "get literal reference" 0 "&lt;&#1;" "" -- get "$work/amp.xml" a.b
t "other values kept" 0 "&lt;" "" -- get "$work/amp.xml" a --attr x
t "print keeps values" 0 $'<a x="&amp;lt;">\n<c>&amp;#65;</c>\n<b>&amp;lt;&amp;#1;</b>\n</a>' "" -- print "$work/amp.xml"

# Blanks that begin a text, and those in attribute values, are written as
# references: the parser would drop the first and others normalise the second.
printf '<r><pre>&#10;  x\n</pre><n>1</n><a v="1&#10;2&#9;3"/></r>' >"$work/blank.xml"
t "set beside a leading line feed" 0 "" "" -- set "$work/blank.xml" r.n 2
t "get kept leading line feed" 0 $'\n  x' "" -- get "$work/blank.xml" r.pre
t "set leading tab" 0 "" "" -- set "$work/blank.xml" r.n $'\tlead'
t "get leading tab" 0 $'\tlead' "" -- get "$work/blank.xml" r.n
t "blanks as references" 0 $'<r>\n<pre>&#10;  x\n</pre>\n<n>&#9;lead</n>\n<a v="1&#10;2&#9;3"/>\n</r>' "" -- print "$work/blank.xml"

# Names that only references could make do not print; an empty CDATA section
# prints as the empty element it reads back as; CR is kept from other parsers.
printf '<r><a&#32;b/></r>' >"$work/refname.xml"
t "print a name with a blank" 1 "" "the name 'a b' cannot be written" -- print "$work/refname.xml"
# A colon that would divide a name otherwise, a prefix without a name, and
# element names that read as an instruction or comment; control bytes are
# named as references, so the message stays one line.
printf '<r p:q:r="1"><p:a:b>x</p:a:b></r>' >"$work/colons.xml"  # divided at the first colon only
t "print names of two colons" 0 $'<r p:q:r="1">\n<p:a:b>x</p:a:b>\n</r>' "" -- print "$work/colons.xml"
for doc in '<r a&#58;b="1"/>|a:b' '<r><q&#58;/></r>|q:' '<r><&#63;b/></r>|[?]b' '<r><&#33;--b/></r>|!--b' \
  '<r a&#10;b="1"/>|a&#10;b'; do
  printf '%s' "${doc%|*}" >"$work/name.xml"
  t "print name ${doc#*|}" 1 "" "the name '${doc#*|}' cannot be written" -- print "$work/name.xml"
done
for name in 'a--' 'a]]'; do  # its end tag would read as "-->" or "]]>"
  printf '<r><%s >v</%s ></r>' "$name" "$name" >"$work/cut.xml"
  t "print element $name" 1 "" "the name '$name' cannot be written" -- print "$work/cut.xml"
  printf '<r><%s/></r>' "$name" >"$work/cut.xml"  # an empty tag reads back whole, left open it does not
  t "print empty element $name" 0 $'<r>\n<'"$name"$'/>\n</r>' "" -- print "$work/cut.xml"
  t "print head of empty element $name" 1 "" "the name '$name' cannot be written" -- print --head "$work/cut.xml"
done
printf '<?xml version="1.0" encoding="ISO-8859-1"?>\n<a>caf\xe9</a>\n' >"$work/latin1p.xml"
t "print other encoding" 1 "" "declared as ISO-8859-1" -- print "$work/latin1p.xml"
t "print usage before reading" 2 "" "PATH must hold 1 to 511 bytes" -- print "$work/none.xml" ""
printf '<r><e><![CDATA[]]></e><c>x&#13;y</c></r>' >"$work/cr.xml"
t "print empty CDATA and CR" 0 $'<r>\n<e/>\n<c>x&#13;y</c>\n</r>' "" -- print "$work/cr.xml"

# Refused edits leave the file as it was.
cp "$cfg" "$work/keep.xml"
t "set bad attribute name" 2 "" "'a b' is not an XML name" -- set "$cfg" config.name --attr "a b" v
t "set control character" 2 "" "VALUE is not UTF-8 text" -- set "$cfg" config.name $'a\x01'
t "set name with a no-break space" 2 "" "is not an XML name" -- set "$cfg" config.name --attr $'a\u00a0b' v
t "set name of an empty prefix" 2 "" "':x' names no attribute" -- set "$cfg" config.name --attr :x v
printf '\n<?xml version="1.0" encoding="ISO-8859-1"?><a/>' >"$work/latin1b.xml"
t "set encoding after a blank" 1 "" "declared as ISO-8859-1" -- set "$work/latin1b.xml" a 2
t "set bad UTF-8" 2 "" "VALUE is not UTF-8 text" -- set "$cfg" config.name $'\xc3'
t "set value beside children" 1 "" "^krvxml: $cfg: set 'config.limits': an element with children" -- set "$cfg" config.limits v
printf '<?xml version="1.0" encoding="ISO-8859-1"?>\n<a>1</a>\n' >"$work/latin1.xml"
t "set other encoding" 1 "" "declared as ISO-8859-1" -- set "$work/latin1.xml" a 2
cmp -s "$cfg" "$work/keep.xml" || fail "a refused set changed the file"
# A UTF-8 byte order mark is read over, counted in positions, and kept.
printf '\xef\xbb\xbf<a>1</a>\n' >"$work/bom.xml"
printf '\xef\xbb\xbf<a>1</b>' >"$work/bombad.xml"
t "check BOM" 0 "$work/bom.xml: ok" "" -- check "$work/bom.xml"
t "check BOM position" 1 "" "^$work/bombad.xml:1:10: " -- check "$work/bombad.xml"
t "set BOM" 0 "" "" -- set "$work/bom.xml" a 2
[ "$(head -c 3 "$work/bom.xml" | od -An -tx1 | tr -d ' ')" = efbbbf ] && [ "$("$tool" get "$work/bom.xml" a)" = 2 ] ||
  fail "set lost the byte order mark"
t "path too long" 2 "" "PATH must hold 1 to 511 bytes" -- get "$cfg" "$(printf 'a%.0s' {1..512})"
STDIN=$cfg t "stdin named in errors" 1 "" "^krvxml: <stdin>: path 'config.nope'" -- get - config.nope

# Outputs that are not files to replace: a pipe is written, and stays a pipe.
mkfifo "$work/fifo"
timeout 10 cat "$work/fifo" >"$work/fifo.out" &
t "set into a pipe" 0 "" "" -- set "$cfg" config.name piped -o "$work/fifo"
wait
[ -p "$work/fifo" ] && grep -q '>piped</name>$' "$work/fifo.out" || fail "set into a pipe"
# Input that is no file to replace goes to standard output; a descriptor
# given as OUT is written at its offset, as standard output would be.
cp "$cfg" "$work/fd.xml" && cp "$cfg" "$work/fd.keep"
STDIN=$work/fd.xml t "set /dev/stdin" 0 "*" "" -- set /dev/stdin config.name fromstdin
grep -q '>fromstdin</name>$' "$work/.out" && cmp -s "$work/fd.xml" "$work/fd.keep" || fail "set /dev/stdin"
{ echo head; "$tool" set "$cfg" config.name x -o -; echo tail; } >"$work/b.out"
for name in /dev/stdout /dev/fd//1 /proc/self/fd/./1; do  # however the name is spelled
  { echo head; "$tool" set "$cfg" config.name x -o "$name"; echo tail; } >"$work/a.out"
  cmp -s "$work/a.out" "$work/b.out" || fail "-o $name into a redirected file"
done
"$tool" set /dev/fd//0 config.name x <"$work/fd.xml" >/dev/null && cmp -s "$work/fd.xml" "$work/fd.keep" ||
  fail "set /dev/fd//0"
# A descriptor name is read from where the descriptor stands, as "-" is.
{ printf 'not xml!!!'; cat "$examples/config.xml"; } >"$work/after.xml"
{ dd bs=10 count=1 2>/dev/null >/dev/null; "$tool" get /dev/stdin config.name; } <"$work/after.xml" >"$work/.out"
[ "$(cat "$work/.out")" = inventory ] || fail "read /dev/stdin from its offset"
# Another process's descriptor link, longer than the size lstat gives it.
long=$work/$(printf 'L%.0s' {1..80}).xml
exec 7>"$long"
t "set through /proc/PID/fd" 0 "" "" -- set "$cfg" config.name viaproc -o "/proc/$$/fd/7"
exec 7>&-
grep -q '>viaproc</name>$' "$long" || fail "set through /proc/PID/fd"
# A link to a file not yet there: the file is made, the link stays.
ln -s "$work/made.xml" "$work/dangling.xml"
t "set through dangling link" 0 "" "" -- set "$cfg" config.name made -o "$work/dangling.xml"
[ -L "$work/dangling.xml" ] && [ "$("$tool" get "$work/made.xml" config.name)" = made ] || fail "dangling link"
ln -s loopb "$work/loopa" && ln -s loopa "$work/loopb"
t "set through a link loop" 1 "" "Too many levels of symbolic links" -- set "$cfg" config.name x -o "$work/loopa"
[ -L "$work/loopa" ] || fail "a link of a loop was replaced"
# A write stopped by the file size limit fails and leaves nothing behind.
{ printf '<r>'; for i in $(seq 300); do printf '<e n="%d">value</e>' "$i"; done; printf '</r>'; } >"$work/big.xml"
cp "$work/big.xml" "$work/big.keep"
(ulimit -f 1; "$tool" set "$work/big.xml" r.e v) 2>"$work/.err"
[ $? = 1 ] && grep -q "File too large" "$work/.err" && cmp -s "$work/big.xml" "$work/big.keep" || fail "file size limit"
no_temp_left "after the file size limit"
(ulimit -f 1; "$tool" set "$work/big.xml" r.e v -o - >"$work/big.out") 2>"$work/.err"
[ $? = 1 ] && grep -q "cannot write standard output: File too large" "$work/.err" || fail "file size limit on standard output"
long=$work/$(printf 'n%.0s' {1..250})
t "set file of a long name" 0 "" "" -- set "$cfg" config.name long -o "$long"
if [ "$(id -u)" = 0 ]; then
  cp "$cfg" "$work/owned.xml" && chown nobody "$work/owned.xml"
  t "set as root" 0 "" "" -- set "$work/owned.xml" config.name x
  [ "$(stat -c %U "$work/owned.xml")" = nobody ] || fail "set lost the owner"
fi

# A write that fails at the rename leaves no temporary file behind.
mkdir "$work/adir"
t "set over a directory" 1 "" "^krvxml: $work/adir: write: cannot replace" -- set "$cfg" config.name x -o "$work/adir"
no_temp_left "after a failed write"

# A directory that cannot be written: the set fails, the file stays whole.
mkdir "$work/ro" && cp "$examples/config.xml" "$work/ro/c.xml" && chmod 555 "$work/ro"
if [ "$(id -u)" != 0 ]; then
  t "set unwritable" 1 "" "^krvxml: $work/ro/c.xml: write: cannot create a temporary file" \
    -- set "$work/ro/c.xml" config.name x
  cmp -s "$work/ro/c.xml" "$examples/config.xml" || fail "unwritable file changed"
fi

# --- print -------------------------------------------------------------------
whole=$(grep -v '^<[?!]' "$examples/config.xml" | sed 's/^ *//')
limits=$(sed -n '/<limits>/,/<\/limits>/p' "$examples/config.xml" | sed 's/^ *//')
for mode in "" --heap; do
  t "print $mode" 0 "$whole" "" -- print $mode "$examples/config.xml"
  t "print path $mode" 0 "$limits" "" -- print $mode "$examples/config.xml" config.limits
  t "print head $mode" 0 $'<a>\n<b>1</b>\n<c>' "" -- print $mode "$work/frame.xml" --head
  t "print tail $mode" 0 $'</c>\n</a>' "" -- print $mode --tail "$work/frame.xml" a
  t "print tail of a leaf $mode" 0 '</c>' "" -- print $mode --tail "$work/frame.xml" a.c
done
STDIN=$examples/config.xml t "print stdin" 0 "$whole" "" -- print -
# The heap parser keeps further top-level elements; print and set keep them too.
printf '<a/><b>1</b>' >"$work/two.xml"
t "print two roots --heap" 0 $'<a/>\n<b>1</b>' "" -- print --heap "$work/two.xml"
t "print two roots" 1 "" "^krvxml: $work/two.xml:1:[0-9]+: .*KRV_XML_ERR_SYNTAX" -- print "$work/two.xml"
t "set keeps two roots --heap" 0 $'<a>v</a>\n<b>1</b>' "" -- set --heap "$work/two.xml" a v -o -
t "set new attribute beside two roots --heap" 1 "" "no attribute can be added in a document of several top-level elements" \
  -- set --heap "$work/two.xml" a --attr n v -o -
t "print missing path" 1 "" "KRV_XML_ERR_NOT_FOUND" -- print "$examples/config.xml" config.nothing
"$tool" print "$examples/config.xml" | "$tool" print - >"$work/again.out" && [ "$(cat "$work/again.out")" = "$whole" ] ||
  fail "printed text does not print the same again"

# --- demo --------------------------------------------------------------------
t "demo" 0 "*" "" -- demo
sed -n '/^the edited document:$/,$p' "$work/.out" | tail -n +2 >"$work/demo.xml"
t "demo result parses" 0 "$work/demo.xml: ok" "" -- check "$work/demo.xml"
t "demo copied a server" 0 "gamma.example.net" "" -- get "$work/demo.xml" config.server.3 --attr host
t "demo typed edit" 0 "9443" "" -- get "$work/demo.xml" config.server.2 --attr port

[ $failures -eq 0 ] || { echo "$failures tool checks failed"; exit 1; }
echo "tool checks passed"
