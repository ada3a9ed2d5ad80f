#!/usr/bin/env bash
# Checks the API reference: Doxygen over the public headers and the guides
# (docs/Doxyfile, undocumented members reported) must print no warning, and
# every function of the pinned export list must have a description in the
# output; every C block of docs/guide.md marked "<!-- compiles" must compile
# as C99 against the headers. Needs doxygen, python3 and cc; writes only to a
# temporary folder.
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
cd "$ROOT"
{
    cat docs/Doxyfile
    echo "OUTPUT_DIRECTORY = $out"
    echo "GENERATE_HTML = NO"
    echo "GENERATE_XML = YES"
} | doxygen - >"$out/log" 2>&1 || { cat "$out/log"; exit 1; }
if grep -i -E "warning|error" "$out/log"; then
    echo "check-docs: doxygen reported the lines above" >&2
    exit 1
fi
python3 - "$out/xml" "$ROOT/tests/kernel/export_list.h" <<'PY'
import glob, re, sys
import xml.etree.ElementTree as ET
xml_dir, export_list = sys.argv[1], sys.argv[2]
exports = set(re.findall(r"X\((_?zk\w+)\)", open(export_list).read()))
described = set()
for path in glob.glob(xml_dir + "/*.xml"):
    for member in ET.parse(path).iter("memberdef"):
        if member.get("kind") != "function":
            continue
        name = member.findtext("name")
        text = "".join(member.find("briefdescription").itertext()).strip()
        text += "".join(member.find("detaileddescription").itertext()).strip()
        if text:
            described.add(name)
missing = sorted(exports - described)
for name in missing:
    print("check-docs: no description for " + name, file=sys.stderr)
print("check-docs: %d exports, %d described, no doxygen warnings" % (len(exports), len(exports & described)))
sys.exit(1 if missing else 0)
PY

# The guide's marked snippets, each compiled on its own.
python3 - "$ROOT/docs/guide.md" "$out" <<'PY'
import sys
lines = open(sys.argv[1]).read().split("\n")
count, i = 0, 0
while i < len(lines):
    if lines[i].startswith("<!-- compiles"):
        assert lines[i + 1].strip() == "```c", "a marked snippet must be a ```c block"
        j = lines.index("```", i + 2)
        count += 1
        open("%s/snippet%d.c" % (sys.argv[2], count), "w").write("\n".join(lines[i + 2:j]) + "\n")
        i = j
    i += 1
print("check-docs: %d guide snippets" % count)
PY
for snippet in "$out"/snippet*.c; do
    cc -std=c99 -pedantic -Wall -Wextra -Werror -I"$ROOT/include" -c "$snippet" -o "$out/snippet.o"
done
echo "check-docs: the guide's snippets compile"
