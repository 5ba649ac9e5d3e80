#!/bin/bash
# Writes the reference into DIRECTORY, which holds its Doxyfile. Fails where Doxygen warns, and where a
# function, a record or a header has no text.
# usage: build.sh DOXYGEN DIRECTORY
set -euo pipefail

doxygen=$1
cd "$2"
rm -rf html man xml
"$doxygen" Doxyfile

undocumented=$(awk '
    FNR == 1 { kind = "" }
    /<compounddef/ { kind = "record"; name = ""; text = 0; inside = 0 }
    /<compoundname>/ && name == "" { name = $0; gsub(/.*<compoundname>|<\/compoundname>.*/, "", name) }
    /<sectiondef/ { inside = 1 }
    /<memberdef kind="function"/ { member = 1; function_name = ""; member_text = 0 }
    member && /<name>/ { function_name = $0; gsub(/.*<name>|<\/name>.*/, "", function_name) }
    member && /<para>/ { member_text = 1 }
    member && /<\/memberdef>/ { if (!member_text) print function_name; member = 0 }
    /<\/sectiondef>/ { inside = 0 }
    !inside && /<para>/ { text = 1 }
    /<\/compounddef>/ { if (!text && name !~ /::|@/) print name }
' xml/*_8h.xml xml/struct*.xml)
if [ -n "$undocumented" ]; then
    printf 'reference: without a text in the headers:\n%s\n' "$undocumented" >&2
    exit 1
fi
echo "reference: $(find man -name '*.3' | wc -l) manual pages, and $PWD/html/index.html"
