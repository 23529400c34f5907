#!/usr/bin/env bash
# Sets up everything Corvane needs to build and test, idempotently:
#   1. Debian packages (only the missing ones are installed);
#   2. the pinned npm-registry packages that carry SQLite, llama.cpp and whisper.cpp,
#      checked against the SHA-512 values in scripts/deps.lock;
#   3. a static SQLite with FTS5, llama-server with its CPU and GPU modules, test-llama-archs
#      and whisper-cli, built once into a cache outside the checkout and keyed by version and
#      build options (the Vulkan module's toolchain comes from vulkan-toolchain.sh);
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
  libvulkan-dev curl python3 mesa-vulkan-drivers
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
# No web UI (neither built nor downloaded), no HTTPS and so no model downloads from inside
# the server. The compute backends are modules that llama-server loads at start from its
# own folder: every CPU variant (it picks the best one the processor runs) and the GPU
# modules below. Everything stays private beside llama-server (RPATH $ORIGIN).
llama_opts=(-DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=ON -DGGML_BACKEND_DL=ON -DGGML_NATIVE=OFF
  -DGGML_CPU_ALL_VARIANTS=ON "-DCMAKE_INSTALL_RPATH=\$ORIGIN" -DCMAKE_BUILD_WITH_INSTALL_RPATH=ON
  -DLLAMA_BUILD_TESTS=ON -DLLAMA_BUILD_TOOLS=ON -DLLAMA_BUILD_SERVER=ON -DLLAMA_BUILD_EXAMPLES=OFF
  -DLLAMA_BUILD_APP=OFF -DLLAMA_BUILD_UI=OFF -DLLAMA_USE_PREBUILT_UI=OFF -DLLAMA_OPENSSL=OFF
  -DLLAMA_LLGUIDANCE=OFF -DGGML_OPENMP=OFF -DGGML_BLAS=OFF)
llama_ver=${version[node-llama-cpp]}
llama_src="$cache/llama.cpp-$llama_ver-src"
if [ ! -f "$llama_src/.complete" ]; then
  rm -rf "$llama_src"
  git clone -q "$cache/node-llama-cpp-$llama_ver/llama/gitRelease.bundle" "$llama_src" 2>/dev/null
  touch "$llama_src/.complete"
fi

# build_llama DIR WHAT TARGETS... -- OPTIONS...: configures the pinned sources with OPTIONS and
# keeps the built programs and libraries in DIR/lib.
build_llama() {
  local dir=$1 what=$2; shift 2
  local targets=(); while [ "$1" != -- ]; do targets+=("$1"); shift; done; shift
  log "building $what from node-llama-cpp $llama_ver (several minutes)"
  rm -rf "$dir" && mkdir -p "$dir/lib"
  cmake -S "$llama_src" -B "$dir/build" "$@" >"$dir/configure.log" 2>&1 \
    || { tail -30 "$dir/configure.log" >&2; exit 1; }
  if [ "${targets[0]}" = cpu-variants ]; then
    # One target per CPU variant; their names depend on the processor family.
    mapfile -t variants < <(cmake --build "$dir/build" --target help | sed -n 's/^\.\.\. \(ggml-cpu-[^ ]*\).*/\1/p')
    targets=("${targets[@]:1}" "${variants[@]}")
  fi
  cmake --build "$dir/build" -j "$jobs" --target "${targets[@]}" >"$dir/build.log" 2>&1 \
    || { tail -40 "$dir/build.log" >&2; exit 1; }
  cp -a "$dir/build/bin/"*.so* "$dir/lib/"
  for t in "${targets[@]}"; do [ -f "$dir/build/bin/$t" ] && cp -a "$dir/build/bin/$t" "$dir/lib/"; done
  printf '%s\n' "$@" > "$dir/options.txt"
  rm -rf "$dir/build"
  touch "$dir/.complete"
}

llama_dir="$cache/llama.cpp-$llama_ver-$(stamp_key "${llama_opts[@]}")"
[ -f "$llama_dir/.complete" ] || \
  build_llama "$llama_dir" "llama-server" cpu-variants llama-server test-llama-archs -- "${llama_opts[@]}"

# GPU modules, each built apart and cached under its own options. A module whose runtime is
# missing at run time (no driver) is skipped by llama-server, which then runs on the CPU.
# CORVANE_GPU_MODULES (auto, none, or a list of cuda and vulkan) overrides what is found.
gpu_modules=${CORVANE_GPU_MODULES:-auto}
nvcc=$(command -v nvcc || true)
[ -z "$nvcc" ] && [ -x /usr/local/cuda/bin/nvcc ] && nvcc=/usr/local/cuda/bin/nvcc
want_module() {
  case "$gpu_modules" in
    none) return 1 ;;
    auto)
      case "$1" in
        # The CUDA module takes 37 minutes on two cores for one architecture, and several
        # are built, so it is built only where it can run: with the toolkit and the driver.
        cuda) [ -n "$nvcc" ] && [ -e /proc/driver/nvidia/version ] ;;
        # About seven minutes with its toolchain, once, and it needs nothing at run time but
        # the Vulkan loader, so it is always built: a GPU driver installed later needs no
        # new build, and the tests run it on Mesa's llvmpipe.
        vulkan) true ;;
      esac ;;
    *) [[ ",$gpu_modules," == *",$1,"* ]] ;;
  esac
}
modules=()
if want_module cuda; then
  [ -n "$nvcc" ] || { log "CORVANE_GPU_MODULES asks for CUDA, but nvcc is not found"; exit 1; }
  # Real code for the common cards of the last generations that this toolkit knows, and PTX
  # of the newest for cards after them.
  known=$("$nvcc" --list-gpu-arch 2>/dev/null | sed -n 's/^compute_\([0-9]*\)$/\1/p' | tr '\n' ' ')
  archs=()
  for a in ${CORVANE_CUDA_ARCHITECTURES:-75 80 86 89 90 120}; do
    [[ " $known " == *" $a "* ]] && archs+=("$a")
  done
  [ ${#archs[@]} -gt 0 ] || { log "nvcc ($nvcc) knows none of the architectures asked for"; exit 1; }
  archs[-1]="${archs[-1]}-real;${archs[-1]}-virtual"
  cuda_ver=$("$nvcc" --version | sed -n 's/.*release \([0-9.]*\).*/\1/p')
  # The toolkit's runtime libraries, for a toolkit that the loader does not know of (NVIDIA's
  # runfile installer writes no ld.so.conf entry).
  cuda_rpath='$ORIGIN'
  cuda_home=$(dirname "$(dirname "$(readlink -f "$nvcc")")")
  for d in "$cuda_home/lib64" "$cuda_home/lib"; do
    if compgen -G "$d/libcudart.so*" >/dev/null; then cuda_rpath="\$ORIGIN;$d"; break; fi
  done
  cuda_opts=("${llama_opts[@]}" -DGGML_CUDA=ON "-DCMAKE_CUDA_COMPILER=$nvcc" "-DCMAKE_INSTALL_RPATH=$cuda_rpath"
    "-DCMAKE_CUDA_ARCHITECTURES=$(IFS=';'; echo "${archs[*]}")")
  cuda_dir="$cache/llama.cpp-$llama_ver-cuda-$cuda_ver-$(stamp_key "${cuda_opts[@]}")"
  [ -f "$cuda_dir/.complete" ] || build_llama "$cuda_dir" "the CUDA module" ggml-cuda -- "${cuda_opts[@]}"
  modules+=("$cuda_dir/lib/libggml-cuda.so")
fi
if want_module vulkan; then
  # The pinned sources need a glslc with cooperative matrices and Vulkan headers with layer
  # settings, newer than Debian 12's. The module is therefore built with a toolchain of our
  # own, pinned like the other sources, which also keeps the compiled shaders the same from
  # one machine to the next; only the loader library is the system's.
  if vk_prefix=$("$here/vulkan-toolchain.sh" "$cache" "$jobs"); then
    vulkan_opts=("${llama_opts[@]}" -DGGML_VULKAN=ON "-DVulkan_GLSLC_EXECUTABLE=$vk_prefix/bin/glslc"
      "-DVulkan_INCLUDE_DIR=$vk_prefix/include" "-DCMAKE_PREFIX_PATH=$vk_prefix")
    vulkan_dir="$cache/llama.cpp-$llama_ver-vulkan-$(stamp_key "${vulkan_opts[@]}")"
    [ -f "$vulkan_dir/.complete" ] || build_llama "$vulkan_dir" "the Vulkan module" ggml-vulkan -- "${vulkan_opts[@]}"
    modules+=("$vulkan_dir/lib/libggml-vulkan.so")
  elif [ "$gpu_modules" = auto ]; then
    log "no Vulkan module: its toolchain could not be built"
  else
    exit 1
  fi
fi

# ---------------------------------------------------------------- whisper.cpp
# Static, with a fixed x86-64 instruction set rather than -march=native, which keeps the
# cached binary valid if the cache moves to another machine.
cpu_flags=()
if [ "$(uname -m)" = x86_64 ]; then
  cpu_flags=(-DGGML_NATIVE=OFF -DGGML_AVX=ON -DGGML_AVX2=ON -DGGML_FMA=ON -DGGML_F16C=ON -DGGML_BMI2=ON)
fi
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
# Modules from an earlier run that this one did not build (a toolkit since removed) go, so
# that llama-server never loads one built from other sources.
for f in "$libexec"/lib*.so*; do
  [ -e "$f" ] || [ -L "$f" ] || continue
  base=$(basename "$f"); keep=
  [ -e "$llama_dir/lib/$base" ] && keep=1
  for m in "${modules[@]}"; do [ "$(basename "$m")" = "$base" ] && keep=1; done
  [ -n "$keep" ] || rm -f "$f"
done
cp -a "$llama_dir/lib/"*.so* "$libexec/"
for m in "${modules[@]}"; do install -C -m 755 "$m" "$libexec/"; done
install -C -m 755 "$llama_dir/lib/llama-server" "$libexec/llama-server"
install -C -m 755 "$whisper_dir/bin/whisper-cli" "$libexec/whisper-cli"
# The model generator loads the same libraries and CPU modules, found beside it.
install -C -m 755 "$llama_dir/lib/test-llama-archs" "$build/test-tools/test-llama-archs"
find "$build/test-tools" -xtype l -delete
for f in "$libexec"/lib*.so*; do ln -sfn "../libexec/corvane/$(basename "$f")" "$build/test-tools/"; done

deps_cmake="$build/deps.cmake"
new=$(cat <<EOF
# Written by scripts/deps.sh; read by CMakeLists.txt.
set(CORVANE_SQLITE_VERSION "$sqlite_ver")
set(CORVANE_SQLITE_INCLUDE_DIR "$sqlite_dir/include")
set(CORVANE_SQLITE_LIBRARY "$sqlite_dir/lib/libsqlite3.a")
set(CORVANE_WHISPER_VERSION "$whisper_ver")
set(CORVANE_LLAMA_SOURCE_DIR "$llama_src")
EOF
)
# Rewritten only when it changes, so that a second run does not make CMake reconfigure.
if [ ! -f "$deps_cmake" ] || [ "$(cat "$deps_cmake")" != "$new" ]; then
  printf '%s\n' "$new" > "$deps_cmake"
fi
log "ready (cache $cache)"
