#!/usr/bin/env bash
# A release as its users and the updater receive it: `./quorva package` with a throwaway signing key, then
# the portable archive (one folder: the program, and the file that lets the updater replace it), its
# signature, release.json and manifest.json, the program's version, and, as root, the Debian package
# installed, run and removed. Usage: bash tests/packaging/check_package.sh (it builds build/package).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
version=9.8.7
base=http://127.0.0.1:1/x
# The programs run with no saved settings, and save none.
# shellcheck source=tests/script_testing.sh
source tests/script_testing.sh
installed=
at_exit() {
    if [ -n "$installed" ] && dpkg-query -W -f='${Status}' quorvarecorder 2>/dev/null | grep -q 'ok installed'; then
        DEBIAN_FRONTEND=noninteractive apt-get remove -y -qq quorvarecorder >/dev/null ||
            echo "FAIL: apt-get remove quorvarecorder failed: the package stays installed" >&2
    fi
}
stop() {
    echo "FAIL: $*" >&2
    exit 1
}

openssl genpkey -algorithm ed25519 -out "$work/key.pem" 2>/dev/null || stop "openssl cannot make an Ed25519 key"
QUORVA_SIGNING_KEY=$work/key.pem QUORVA_RELEASE_BASE_URL=$base ./quorva package $version >"$work/package.log" 2>&1 ||
    stop "./quorva package $version exited with $?: $(tail -n 20 "$work/package.log")"

dist=build/dist
arch=$(dpkg --print-architecture)
zipName=QuorvaRecorder-$version-linux-$arch.zip
zip=$dist/$zipName
deb=$dist/quorvarecorder_${version}_$arch.deb
[ -f "$zip" ] || stop "no $zip; build/dist holds: $(ls "$dist")"

# The updater replaces one folder as a whole, and only where it finds portable-install.txt beside the
# program.
tops=$(unzip -Z1 "$zip" | cut -d/ -f1 | sort -u | tr '\n' ' ') || stop "unzip cannot read $zip"
[ "$tops" = "QuorvaRecorder " ] || fail "the archive's top holds '$tops', not the one folder QuorvaRecorder"
unzip -q "$zip" -d "$work/unzipped" || fail "unzip cannot open $zip"
folder=$work/unzipped/QuorvaRecorder
program=$folder/quorvarecorder
[[ -f $program && -x $program ]] || fail "the archive's quorvarecorder is missing or not executable"
[ -f "$folder/portable-install.txt" ] || fail "the archive has no portable-install.txt beside the program"

# The signature: one line of base64, 96 bytes: the signer's public key, then the signature of the zip.
[ -f "$zip.sig" ] || stop "no $zip.sig beside the archive, though a signing key was given"
base64 -d "$zip.sig" >"$work/signature" || fail "$zip.sig is not base64"
[ "$(stat -c %s "$work/signature")" -eq 96 ] || fail "$zip.sig decodes to $(stat -c %s "$work/signature") bytes, not 96"
head -c 32 "$work/signature" >"$work/signer.raw"
tail -c 64 "$work/signature" >"$work/signature.raw"
openssl pkey -in "$work/key.pem" -pubout -out "$work/public.pem"
openssl pkey -pubin -in "$work/public.pem" -outform DER | tail -c 32 >"$work/public.raw"
cmp -s "$work/signer.raw" "$work/public.raw" || fail "the public key in $zip.sig is not the signing key's"
openssl pkeyutl -verify -pubin -inkey "$work/public.pem" -rawin -in "$zip" -sigfile "$work/signature.raw" \
    >/dev/null 2>&1 || fail "$zip.sig does not verify the archive with the signing key"
# The program checks updates against the key built into it: the signing key's.
grep -qF "$(base64 -w0 "$work/public.raw")" "$program" ||
    fail "the program does not carry the signing key's public half"

manifest=$dist/manifest.json
release=$dist/release.json
[ "$(jq -r .sha256 "$manifest")" = "$(sha256sum "$zip" | cut -d' ' -f1)" ] ||
    fail "manifest.json's sha256 is not the archive's"
[ "$(jq -r .download_url "$manifest")" = "$base/$zipName" ] || fail "manifest.json's download_url is not $base/$zipName"
[ "$(jq -r .tag_name "$release")" = "v$version" ] || fail "release.json's tag_name is not v$version"
jq -e --arg name "$zipName" --arg url "$base/$zipName" --argjson size "$(stat -c %s "$zip")" \
    '.assets | any(.name == $name and .browser_download_url == $url and .size == $size)' "$release" >/dev/null ||
    fail "release.json lists no asset $zipName of $(stat -c %s "$zip") bytes at $base/$zipName"

said=$("$program" --version 2>&1) || fail "the archive's program exited with $? for --version"
[ "$said" = "QuorvaRecorder $version" ] || fail "the archive's program says '$said' for --version"

if [ "$(id -u)" -ne 0 ]; then
    echo "not root: the install check of the Debian package is skipped" >&2
elif dpkg-query -W -f='${Status}' quorvarecorder 2>/dev/null | grep -q 'ok installed'; then
    echo "a quorvarecorder package is installed already: the install check is skipped, to leave it as it is" >&2
else
    installed=yes
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "./$deb" >"$work/apt.log" 2>&1 ||
        fail "apt-get install ./$deb failed: $(tail -n 10 "$work/apt.log")"
    said=$(/usr/bin/quorvarecorder --version 2>&1) || fail "the installed program exited with $? for --version"
    [ "$said" = "QuorvaRecorder $version" ] || fail "the installed program says '$said' for --version"
    /usr/bin/quorvarecorder sources >"$work/sources.out" 2>"$work/sources.err" ||
        fail "the installed program's 'sources' exited with $?: $(cat "$work/sources.err")"
    grep -q $'\tpattern\t' "$work/sources.out" ||
        fail "the installed program lists no test pattern: $(cat "$work/sources.out")"
    entry=/usr/share/applications/org.quorva.QuorvaRecorder.desktop
    if [ -f "$entry" ]; then
        desktop-file-validate "$entry" || fail "$entry does not validate"
        # What a menu needs to show the entry and start the program.
        icon=/usr/share/icons/hicolor/scalable/apps/$(sed -n 's/^Icon=//p' "$entry").svg
        [ -f "$icon" ] || fail "the desktop entry's icon is not at $icon"
        [ "$(command -v "$(sed -n 's/^Exec=//p' "$entry")")" = /usr/bin/quorvarecorder ] ||
            fail "the desktop entry's Exec does not start /usr/bin/quorvarecorder"
    else
        fail "the package installs no $entry"
    fi
    # The user service of a recorder box: systemd accepts it, and it starts the installed program.
    unit=/usr/lib/systemd/user/quorvarecorder.service
    mkdir -m 700 "$work/runtime-user"
    XDG_RUNTIME_DIR=$work/runtime-user systemd-analyze verify --user "$unit" >"$work/verify.out" 2>&1 ||
        fail "systemd-analyze does not accept $unit: $(cat "$work/verify.out")"
    grep -qx 'ExecStart=/usr/bin/quorvarecorder --headless $QUORVA_HEADLESS_OPTIONS' "$unit" ||
        fail "$unit does not start /usr/bin/quorvarecorder --headless"
fi

[ "$failures" -eq 0 ] || stop "$failures check(s) of the release failed"
echo "package: the Debian package and the signed portable archive of $version are sound"
