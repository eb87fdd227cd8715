#!/bin/sh
# exports_test.sh PLUGIN HOST: the plug-in's dynamic symbol table defines its
# two entry points and nothing else, and the image model is in one place:
# both load the shared library that holds it, and the plug-in has no copy.
set -eu
plugin=$1 host=$2
symbols=$(nm -D --defined-only "$plugin" | awk '{print $NF}' | sort | tr '\n' ' ')
if [ "$symbols" != "qt_plugin_instance qt_plugin_query_metadata_v2 " ]; then
    echo "exports_test: $plugin defines: $symbols" >&2
    exit 1
fi
for binary in "$plugin" "$host"; do
    if ! readelf -d "$binary" | grep -q 'NEEDED.*\[libskyrinse-image\.so\.1\]'; then
        echo "exports_test: $binary does not load libskyrinse-image.so.1" >&2
        exit 1
    fi
done
copies=$(nm -C --defined-only "$plugin" "$host" | grep -c -E ' (ZImage|ZException)::| iflSaveBitmap' || true)
if [ "$copies" != 0 ]; then
    echo "exports_test: the image model is linked into the plug-in or the host" >&2
    exit 1
fi
