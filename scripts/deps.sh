#!/usr/bin/env bash
# Sets up everything Corvane needs to build and test, idempotently:
#   1. Debian packages (only the missing ones are installed);
#   2. the pinned npm-registry packages that carry SQLite, llama.cpp and whisper.cpp,
#      checked against the SHA-512 values in scripts/deps.lock;
#   3. a static SQLite with FTS5, llama-server, test-llama-archs and whisper-cli, built once
#      into a cache outside the checkout and keyed by version and build options;
#   4. the runtimes placed at BUILD/libexec/corvane/ and the paths written to BUILD/deps.cmake.
# A second run finds every stamp in place and finishes in seconds.
#
# Usage: scripts/deps.sh [BUILD_DIR]   (default: build)
# Environment: CORVANE_DEPS_CACHE (default ~/.cache/corvane/deps), JOBS (default: nproc).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(dirname "$here")
build=$(mkdir -p "${1:-$root/build}" && cd "${1:-$root/build}" && pwd)
cache=${CORVANE_DEPS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/corvane/deps}
jobs=${JOBS:-$(nproc)}
mkdir -p "$cache"

log() { printf 'deps: %s\n' "$*" >&2; }
as_root() { if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo -n "$@"; fi; }

# ---------------------------------------------------------------- Debian packages
packages=(
  build-essential cmake ninja-build git pkg-config ca-certificates clang libclang-rt-14-dev
  qt6-base-dev qt6-base-dev-tools qt6-declarative-dev qt6-declarative-dev-tools qt6-image-formats-plugins
  qt6-multimedia-dev qt6-speech-dev qcoro-qt6-dev libssl-dev libgl-dev
  qml6-module-qtquick qml6-module-qtqml qml6-module-qtqml-models qml6-module-qtquick-controls
  qml6-module-qtquick-layouts qml6-module-qtquick-window qml6-module-qtquick-dialogs
  qml6-module-qtquick-templates qml6-module-qtquick-shapes qml6-module-qtqml-workerscript
  qml6-module-qt-labs-qmlmodels qml6-module-qt-labs-folderlistmodel qml6-module-qttest
  qt6-qpa-plugins libmozjs-102-dev
  flite1-dev pulseaudio pulseaudio-utils
  libtss2-dev swtpm
  xvfb xauth x11-apps x11-utils imagemagick fonts-dejavu-core dbus-daemon
  desktop-file-utils appstream librsvg2-bin libxml2-utils
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# npm may come with a Node.js from elsewhere; Debian's npm would conflict with it.
command -v npm >/dev/null || missing+=(npm)
if [ ${#missing[@]} -gt 0 ]; then
  log "installing Debian packages: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  as_root apt-get update -qq
  as_root apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# ---------------------------------------------------------------- npm-registry sources
# fetch NAME VERSION INTEGRITY: unpacks the checked tarball into $cache/NAME-VERSION.
fetch() {
  local name=$1 version=$2 integrity=$3 dest="$cache/$1-$2"
  [ -f "$dest/.complete" ] && return 0
  log "fetching $name@$version"
  local tmp; tmp=$(mktemp -d)
  (cd "$tmp" && npm pack --silent "$name@$version" >/dev/null 2>"$tmp/npm.log") || {
    cat "$tmp/npm.log" >&2; rm -rf "$tmp"; log "could not fetch $name@$version"; return 1; }
  local tarball; tarball=$(ls "$tmp"/*.tgz)
  local actual; actual="sha512-$(openssl dgst -sha512 -binary "$tarball" | base64 -w0)"
  if [ "$actual" != "$integrity" ]; then
    rm -rf "$tmp"; log "$name@$version: integrity mismatch (got $actual)"; return 1
  fi
  rm -rf "$dest" && mkdir -p "$dest"
  tar -xzf "$tarball" -C "$dest" --strip-components=1
  rm -rf "$tmp"
  touch "$dest/.complete"
}
declare -A version
while read -r name ver integrity; do
  case "$name" in ''|'#'*) continue ;; esac
  fetch "$name" "$ver" "$integrity"
  version[$name]=$ver
done < "$here/deps.lock"

# stamp_key TEXT...: a short digest of the build options, so that changing them rebuilds.
stamp_key() { printf '%s\n' "$@" | sha256sum | cut -c1-12; }

# ---------------------------------------------------------------- SQLite
# FTS5 for the search index; no extension loading and no deprecated or shared-cache
# interfaces, which the application never uses; memory statistics off (a global mutex
# on every allocation otherwise). Thread-safe mode stays on: key derivation runs on
# worker threads beside the main thread's connection.
sqlite_flags=(-O2 -fPIC -DSQLITE_ENABLE_FTS5 -DSQLITE_THREADSAFE=1 -DSQLITE_DEFAULT_MEMSTATUS=0
  -DSQLITE_OMIT_LOAD_EXTENSION -DSQLITE_OMIT_DEPRECATED -DSQLITE_OMIT_SHARED_CACHE
  -DSQLITE_LIKE_DOESNT_MATCH_BLOBS -DSQLITE_USE_ALLOCA)
sqlite_src="$cache/better-sqlite3-${version[better-sqlite3]}/deps/sqlite3"
sqlite_ver=$(sed -n 's/^#define SQLITE_VERSION *"\(.*\)"/\1/p' "$sqlite_src/sqlite3.h")
sqlite_dir="$cache/sqlite-$sqlite_ver-$(stamp_key "${sqlite_flags[@]}")"
if [ ! -f "$sqlite_dir/.complete" ]; then
  log "building SQLite $sqlite_ver"
  rm -rf "$sqlite_dir" && mkdir -p "$sqlite_dir/include" "$sqlite_dir/lib"
  cc "${sqlite_flags[@]}" -c "$sqlite_src/sqlite3.c" -o "$sqlite_dir/sqlite3.o"
  ar rcs "$sqlite_dir/lib/libsqlite3.a" "$sqlite_dir/sqlite3.o" && rm "$sqlite_dir/sqlite3.o"
  cp "$sqlite_src/sqlite3.h" "$sqlite_src/sqlite3ext.h" "$sqlite_dir/include/"
  printf '%s\n' "${sqlite_flags[@]}" > "$sqlite_dir/options.txt"
  touch "$sqlite_dir/.complete"
fi

# ---------------------------------------------------------------- llama.cpp
# CPU only, static, no web UI (neither built nor downloaded), no HTTPS and so no model
# downloads from inside the server. A fixed x86-64 instruction set rather than -march=native
# keeps the cached binaries valid if the cache moves to another machine.
cpu_flags=()
if [ "$(uname -m)" = x86_64 ]; then
  cpu_flags=(-DGGML_NATIVE=OFF -DGGML_AVX=ON -DGGML_AVX2=ON -DGGML_FMA=ON -DGGML_F16C=ON -DGGML_BMI2=ON)
fi
llama_opts=(-DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF -DLLAMA_BUILD_TESTS=ON
  -DLLAMA_BUILD_TOOLS=ON -DLLAMA_BUILD_SERVER=ON -DLLAMA_BUILD_EXAMPLES=OFF -DLLAMA_BUILD_APP=OFF
  -DLLAMA_BUILD_UI=OFF -DLLAMA_USE_PREBUILT_UI=OFF -DLLAMA_OPENSSL=OFF -DLLAMA_LLGUIDANCE=OFF
  -DGGML_OPENMP=OFF -DGGML_BLAS=OFF "${cpu_flags[@]}")
llama_ver=${version[node-llama-cpp]}
llama_dir="$cache/llama.cpp-$llama_ver-$(stamp_key "${llama_opts[@]}")"
if [ ! -f "$llama_dir/.complete" ]; then
  log "building llama-server from node-llama-cpp $llama_ver (several minutes)"
  rm -rf "$llama_dir" && mkdir -p "$llama_dir/bin"
  git clone -q "$cache/node-llama-cpp-$llama_ver/llama/gitRelease.bundle" "$llama_dir/src" 2>/dev/null
  cmake -S "$llama_dir/src" -B "$llama_dir/build" "${llama_opts[@]}" >"$llama_dir/configure.log" 2>&1 \
    || { tail -30 "$llama_dir/configure.log" >&2; exit 1; }
  cmake --build "$llama_dir/build" -j "$jobs" --target llama-server test-llama-archs \
    >"$llama_dir/build.log" 2>&1 || { tail -40 "$llama_dir/build.log" >&2; exit 1; }
  cp "$llama_dir/build/bin/llama-server" "$llama_dir/build/bin/test-llama-archs" "$llama_dir/bin/"
  rm -rf "$llama_dir/build"
  touch "$llama_dir/.complete"
fi

# ---------------------------------------------------------------- whisper.cpp
whisper_opts=(-DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF -DWHISPER_BUILD_TESTS=OFF
  -DWHISPER_BUILD_EXAMPLES=ON -DWHISPER_BUILD_SERVER=OFF -DWHISPER_CURL=OFF -DWHISPER_SDL2=OFF
  -DGGML_OPENMP=OFF -DGGML_BLAS=OFF "${cpu_flags[@]}")
whisper_src="$cache/nodejs-whisper-${version[nodejs-whisper]}/cpp/whisper.cpp"
whisper_ver=$(sed -n 's/^project("whisper.cpp" VERSION \(.*\))/\1/p' "$whisper_src/CMakeLists.txt")
whisper_dir="$cache/whisper.cpp-$whisper_ver-$(stamp_key "${whisper_opts[@]}")"
if [ ! -f "$whisper_dir/.complete" ]; then
  log "building whisper-cli $whisper_ver"
  rm -rf "$whisper_dir" && mkdir -p "$whisper_dir/bin"
  cmake -S "$whisper_src" -B "$whisper_dir/build" "${whisper_opts[@]}" >"$whisper_dir/configure.log" 2>&1 \
    || { tail -30 "$whisper_dir/configure.log" >&2; exit 1; }
  cmake --build "$whisper_dir/build" -j "$jobs" --target whisper-cli \
    >"$whisper_dir/build.log" 2>&1 || { tail -40 "$whisper_dir/build.log" >&2; exit 1; }
  cp "$whisper_dir/build/bin/whisper-cli" "$whisper_dir/bin/"
  rm -rf "$whisper_dir/build"
  touch "$whisper_dir/.complete"
fi

# ---------------------------------------------------------------- into the build tree
libexec="$build/libexec/corvane"
mkdir -p "$libexec" "$build/test-tools"
install -C -m 755 "$llama_dir/bin/llama-server" "$libexec/llama-server"
install -C -m 755 "$whisper_dir/bin/whisper-cli" "$libexec/whisper-cli"
install -C -m 755 "$llama_dir/bin/test-llama-archs" "$build/test-tools/test-llama-archs"

deps_cmake="$build/deps.cmake"
new=$(cat <<EOF
# Written by scripts/deps.sh; read by CMakeLists.txt.
set(CORVANE_SQLITE_VERSION "$sqlite_ver")
set(CORVANE_SQLITE_INCLUDE_DIR "$sqlite_dir/include")
set(CORVANE_SQLITE_LIBRARY "$sqlite_dir/lib/libsqlite3.a")
set(CORVANE_WHISPER_VERSION "$whisper_ver")
set(CORVANE_LLAMA_SOURCE_DIR "$llama_dir/src")
EOF
)
# Rewritten only when it changes, so that a second run does not make CMake reconfigure.
if [ ! -f "$deps_cmake" ] || [ "$(cat "$deps_cmake")" != "$new" ]; then
  printf '%s\n' "$new" > "$deps_cmake"
fi
log "ready (cache $cache)"
