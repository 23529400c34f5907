#!/bin/sh
# check_install.sh BUILD APP_ID POLKIT_ACTIONS_DIR
# Installs the build into a scratch staging folder as a package would (DESTDIR, prefix /usr),
# checks the desktop files with the validators the distributions use, checks that the script
# file type is recognised by its names and that polkit can read our action, and starts the
# installed program, which must find its runtimes in the installed tree and not in the build
# folder.
set -eu
build=$1
id=$2
polkit_actions=$3
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
fail() { echo "check_install: $*" >&2; exit 1; }

DESTDIR="$stage" cmake --install "$build" --prefix /usr >/dev/null
root="$stage/usr"
share="$root/share"
for f in bin/corvane libexec/corvane/llama-server libexec/corvane/whisper-cli libexec/corvane/corvane-script-runner \
         "share/applications/$id.desktop" "share/metainfo/$id.metainfo.xml" "share/mime/packages/$id.xml" \
         "share/icons/hicolor/scalable/apps/$id.svg" "share/icons/hicolor/256x256/apps/$id.png"; do
  [ -e "$root/$f" ] || fail "$f is not installed"
done

desktop-file-validate "$share/applications/$id.desktop"
appstreamcli validate --no-net --strict --explain "$share/metainfo/$id.metainfo.xml"

# The file type: both names map to it, and plain JavaScript stays JavaScript.
update-mime-database "$share/mime" >/dev/null 2>&1 || fail "the file type does not read"
for name in a.corvane b.corvane.js; do
  type=$(awk -F: -v n="$name" '
    { pattern = $3; gsub(/\./, "\\.", pattern); gsub(/\*/, ".*", pattern)
      if (n ~ ("^" pattern "$") && $1 > best) { best = $1; found = $2 } }
    END { print found }' "$share/mime/globs2")
  [ "$type" = "application/x-corvane-script" ] || fail "$name is taken for '$type'"
done
grep -q "application/x-corvane-script" "$share/applications/$id.desktop" || fail "the launcher does not open scripts"

# The polkit action, where polkit looks whatever the prefix: valid against polkit's DTD where
# polkit is installed, and in any case only the user, each time (auth_self), may pass.
policy="$stage$polkit_actions/$id.policy"
[ -e "$policy" ] || fail "the polkit action is not installed in $polkit_actions"
dtd=/usr/share/polkit-1/policyconfig-1.dtd
if [ -r "$dtd" ]; then
  xmllint --noout --nonet --dtdvalid "$dtd" "$policy" || fail "the polkit action does not follow polkit's DTD"
else
  xmllint --noout --nonet "$policy" || fail "the polkit action is not well-formed XML"
fi
action="/policyconfig/action[@id='$id.unlock']"
[ -n "$(xmllint --nonet --xpath "string($action/message)" "$policy")" ] || fail "the polkit action $id.unlock is missing"
for allow in allow_any allow_inactive allow_active; do
  value=$(xmllint --nonet --xpath "string($action/defaults/$allow)" "$policy")
  [ "$value" = auth_self ] || fail "the polkit action allows $allow by '$value', not auth_self"
done

# The installed program starts, draws its window, and its runtimes run from where it finds them.
data="$stage/data"
CORVANE_DATA_DIR="$data" QT_QPA_PLATFORM=offscreen "$root/bin/corvane" --screenshot "$stage/window.png"
[ -s "$stage/window.png" ] || fail "the installed program drew no window"
"$root/libexec/corvane/llama-server" --version >/dev/null 2>&1 || fail "the installed llama-server does not run"
# Its libraries and its modules come from the installed folder, not from the build.
ldd "$root/libexec/corvane/llama-server" | grep -q "libllama-server-impl.so => $root/libexec/corvane/" \
  || fail "the installed llama-server does not use its own libraries"
loaded=$(cd / && "$root/libexec/corvane/llama-server" --log-verbosity 5 --list-devices 2>&1)
echo "$loaded" | grep -q "loaded CPU backend from $root/libexec/corvane/libggml-cpu-" \
  || fail "the installed llama-server loads no CPU module"
# The Vulkan module needs only the loader, which the build installs, so it must load too.
if [ -e "$build/libexec/corvane/libggml-vulkan.so" ]; then
  echo "$loaded" | grep -q "loaded Vulkan backend from $root/libexec/corvane/libggml-vulkan.so" \
    || fail "the installed llama-server does not load its Vulkan module"
fi
"$root/libexec/corvane/whisper-cli" --help >/dev/null 2>&1 || fail "the installed whisper-cli does not run"
echo "check_install: the installed tree is complete and valid"
