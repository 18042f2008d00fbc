#!/bin/sh
# Runs a program in a umockdev testbed holding the device descriptions of this folder, so that
# the real libudev sees the mocked modems and adapters instead of the machine's devices.
# The preload library comes ahead of the sanitizer runtime; ASan must not insist on being first.
dir=$(dirname "$0")
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0"
export ASAN_OPTIONS
exec umockdev-run -d "$dir/modems.umockdev" -d "$dir/adapters.umockdev" -- "$@"
