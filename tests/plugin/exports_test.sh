#!/bin/sh
# exports_test.sh PLUGIN: the plug-in's dynamic symbol table defines its two
# entry points and nothing else.
set -eu
symbols=$(nm -D --defined-only "$1" | awk '{print $NF}' | sort | tr '\n' ' ')
if [ "$symbols" != "qt_plugin_instance qt_plugin_query_metadata_v2 " ]; then
    echo "exports_test: $1 defines: $symbols" >&2
    exit 1
fi
