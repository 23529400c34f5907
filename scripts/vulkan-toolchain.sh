#!/usr/bin/env bash
# Builds what llama.cpp's Vulkan module is compiled with, from the Debian sources pinned in
# vulkan-toolchain.lock: glslc, the SPIR-V headers and the Vulkan headers. Debian 12's own are
# too old for the pinned sources (its glslc lacks cooperative matrices, its headers layer
# settings). Prints the prefix that holds bin/glslc, include/ and the SPIR-V headers' CMake
# package; built once per sources and options into the cache.
#
# Usage: scripts/vulkan-toolchain.sh CACHE_DIR [JOBS]
# Environment: CORVANE_DEBIAN_MIRROR, a Debian mirror; by default the first one apt is set
# up with (the files are checked by hash, so plain HTTP is enough).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
cache=$1
jobs=${2:-$(nproc)}
log() { printf 'deps: %s\n' "$*" >&2; }

# The main archive's address from apt's sources, in either format; not the security archive,
# which holds only updated packages.
apt_mirror() {
  {
    awk 'tolower($1) == "uris:" { for (i = 2; i <= NF; i++) print $i }' /etc/apt/sources.list.d/*.sources 2>/dev/null || true
    awk '$1 == "deb" || $1 == "deb-src" { for (i = 2; i <= NF; i++) if ($i ~ /^[a-z+]+:\/\//) { print $i; break } }' \
      /etc/apt/sources.list /etc/apt/sources.list.d/*.list 2>/dev/null || true
  } | grep -v -e '-security' -e '^cdrom:' -e '^file:' | head -n 1 || true
}
mirror=

declare -A src ver
lock_key=
while read -r name version path sha; do
  case "$name" in ''|'#'*) continue ;; esac
  ver[$name]=$version
  lock_key+="$name $version $sha"$'\n'
  dest="$cache/debian-src/$name-$version"
  src[$name]=$dest
  [ -f "$dest/.complete" ] && continue
  if [ -z "$mirror" ]; then
    mirror=${CORVANE_DEBIAN_MIRROR:-$(apt_mirror)}
    [ -n "$mirror" ] || { log "no Debian mirror in apt's sources; set CORVANE_DEBIAN_MIRROR"; exit 1; }
    mirror=${mirror%/}
  fi
  log "fetching $name $version from Debian's archive"
  tmp=$(mktemp -d)
  if ! curl -fsS --retry 3 -o "$tmp/src.tar" "$mirror/$path"; then
    rm -rf "$tmp"; log "could not fetch $mirror/$path; CORVANE_DEBIAN_MIRROR can name another Debian mirror"; exit 1
  fi
  actual=$(sha256sum "$tmp/src.tar" | cut -d' ' -f1)
  if [ "$actual" != "$sha" ]; then
    rm -rf "$tmp"; log "$name $version: SHA-256 mismatch (got $actual)"; exit 1
  fi
  rm -rf "$dest" && mkdir -p "$dest"
  tar -xf "$tmp/src.tar" -C "$dest" --strip-components=1
  rm -rf "$tmp"
  touch "$dest/.complete"
done < "$here/vulkan-toolchain.lock"

opts=(-DCMAKE_BUILD_TYPE=Release -DSHADERC_SKIP_TESTS=ON -DSHADERC_SKIP_EXAMPLES=ON
  -DSHADERC_SKIP_COPYRIGHT_CHECK=ON -DSPIRV_SKIP_EXECUTABLES=ON -DENABLE_GLSLANG_BINARIES=OFF
  "-DSHADERC_SPIRV_TOOLS_DIR=${src[spirv-tools]}" "-DSHADERC_SPIRV_HEADERS_DIR=${src[spirv-headers]}"
  "-DSHADERC_GLSLANG_DIR=${src[glslang]}")
dir="$cache/vulkan-toolchain-$(printf '%s\n' "$lock_key" "${opts[@]}" | sha256sum | cut -c1-12)"
if [ ! -f "$dir/.complete" ]; then
  command -v python3 >/dev/null || { log "building glslc needs python3"; exit 1; }
  log "building glslc (shaderc ${ver[shaderc]}) from Debian's sources (several minutes)"
  rm -rf "$dir" && mkdir -p "$dir/bin"
  { cmake -S "${src[shaderc]}" -B "$dir/build" "${opts[@]}" \
      && cmake --build "$dir/build" -j "$jobs" --target glslc_exe; } >"$dir/build.log" 2>&1 \
    || { tail -40 "$dir/build.log" >&2; exit 1; }
  install -m 755 "$dir/build/glslc/glslc" "$dir/bin/glslc"
  # Header-only; installing writes the CMake package that ggml-vulkan asks for.
  { cmake -S "${src[spirv-headers]}" -B "$dir/headers" "-DCMAKE_INSTALL_PREFIX=$dir" \
      -DSPIRV_HEADERS_ENABLE_TESTS=OFF -DSPIRV_HEADERS_ENABLE_INSTALL=ON \
      && cmake --install "$dir/headers"; } >>"$dir/build.log" 2>&1 \
    || { tail -40 "$dir/build.log" >&2; exit 1; }
  cp -a "${src[vulkan-loader]}/vulkan-headers/include/." "$dir/include/"
  rm -rf "$dir/build" "$dir/headers"
  touch "$dir/.complete"
fi
printf '%s\n' "$dir"
