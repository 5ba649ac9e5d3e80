#!/bin/bash
# Holds the dynamic symbols of the built library against its headers, in both directions, against the
# list of names that it may ever export, and against what it may ask of others.
# usage: exports_test.sh LIBRARY SOURCE_DIR C_COMPILER [sanitized]
set -eu
export LC_ALL=C

library=$1 source=$2 cc=$3 sanitized=${4:-}
result=0

complain() {
    echo "exports_test: $1" >&2
    sed 's/^/    /' >&2
    result=1
}

# Standard input: what should not be there.
expect_none() {
    local names
    names=$(cat)
    [ -z "$names" ] || complain "$1" <<<"$names"
}

# The functions that the headers of a folder declare: the preprocessor drops comments and what other
# headers bring in, the rest is looked at declaration by declaration.
declared() {
    local header
    for header in "$source/$1"/*.h; do
        echo "#include \"$header\"" |
            "$cc" -E -x c++ -D__attribute__\(x\)= -I "$source/$1" - |
            awk -v file="$header" '/^# [0-9]+ "/ { own = index($0, "\"" file "\"") } own && !/^#/' |
            tr '\n' ' ' | tr ';{}' '\n\n\n' |
            sed -nE '/typedef|=|static|alignas/d; s/^[^(]*[ *]([A-Za-z_][A-Za-z0-9_]*)\(.*$/\1/p'
    done | sort -u
}

exported=$(nm -DC --defined-only "$library" | awk '$2 != "A" { sub(/[[(@].*/, "", $3); print $3 }' |
    sort -u)
undefined=$(nm -D --undefined-only "$library" | awk '{ print $NF }' | sort -u)
headers=$(declared include)
platform=$(declared platform)

[ -n "$exported" ] && [ -n "$undefined" ] && [ -n "$headers" ] && [ -n "$platform" ] ||
    complain "cannot be read:" <<<"$library and its headers"
expect_none "exported, but in no header of include/:" \
    < <(comm -23 <(echo "$exported") <(echo "$headers"))
expect_none "in a header of include/, but not exported:" \
    < <(comm -13 <(echo "$exported") <(echo "$headers"))
expect_none "exported, but not in exports.names:" \
    < <(comm -23 <(echo "$exported") <(sort "$source/tests/boundary/exports.names"))

if [ -z "$sanitized" ]; then
    # Names with a version belong to the system's libraries; all others must be the platform's.
    # The XML library's symbols have none, but a namespace, and cJSON's a prefix.
    plain=$(echo "$undefined" | grep -vE '@|^_ITM_|^__gmon_start__$|^__cxa_finalize$|^_Z[A-Z]+8tinyxml2|^cJSON_')
    expect_none "asked of the platform, but in no header of platform/:" \
        < <(comm -23 <(echo "$plain") <(echo "$platform"))
    expect_none "asked of an unexpected library:" \
        < <(echo "$undefined" | grep '@' | grep -vE '@(GLIBC|GLIBCXX|CXXABI|GCC|OPENSSL)_')
fi

expect_none "bound to one platform:" < <(readelf -d "$library" | grep 'NEEDED.*tamo')
readelf -d "$library" | grep -q 'SONAME.*\[libconference_common\.so\.1\]' ||
    complain "the SONAME is not libconference_common.so.1" < <(readelf -d "$library" | grep SONAME)
exit $result
