#!/bin/sh
# Shows a header's plain comments to Doxygen as documentation: the first one describes the file, one that
# begins a line what follows it, one behind a declaration what stands before it.
sed -E \
    -e '1s#^/\* ?#/** @file\n * #' \
    -e '/^ *\/\* ----/b' \
    -e 's#^( *)/\* #\1/** #' \
    -e 's#([;,{a-zA-Z0-9_)]) +/\* #\1 /**< #' "$1"
