#!/bin/sh
# Compiler launcher of the mutation build: warnings stay warnings there, so that a mutant that
# only draws a warning (an unused variable after a dropped statement) is still tested.
if command -v ccache >/dev/null 2>&1; then exec ccache "$@" -Wno-error; fi
exec "$@" -Wno-error
