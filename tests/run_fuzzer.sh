#!/bin/sh
# run_fuzzer.sh FUZZER SEEDS WORK [libFuzzer options...]
# Runs a libFuzzer program over a fresh copy of its seed corpus in WORK: libFuzzer adds every
# input that reaches new code to the folder it is given, and that must be the build folder,
# never the source tree.
set -eu
fuzzer=$1
seeds=$2
work=$3
shift 3
rm -rf "$work"
mkdir -p "$work"
cp "$seeds"/* "$work"/
exec "$fuzzer" "$@" "$work"
