#!/bin/sh
# Makes the small random-weight models the tests run the real runtimes on. Nothing here is
# downloaded: llama.cpp's own generator writes the chat model, our tool the Whisper model.
# Usage: make-test-models.sh TOOLS_DIR OUTPUT_DIR
set -eu
tools=$1
out=$2
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

LD_PRELOAD="$tools/corvane-load-backends.so" "$tools/test-llama-archs" -a '^qwen35$' -o "$work" >"$work/log" 2>&1 \
  || { cat "$work/log" >&2; exit 1; }
chat=$(ls "$work"/*.gguf | head -n 1)
# The generator declares a 256-token training context, to which the server would cap every
# slot; raise it so that tests can use the application's real context sizes.
"$tools/corvane-gguf-set-u32" "$chat" qwen35.context_length 65536
mv "$chat" "$out/chat-qwen35.gguf"

"$tools/corvane-make-whisper-model" "$out/whisper-random.bin"
ls -l "$out"
