#!/usr/bin/env bash
# Makes a release of quorvarecorder in build/dist: the Debian package, the portable archive (signed when
# a key is given), release.json and manifest.json for the updater, and SHA256SUMS.
# Usage: packaging/package.sh [VERSION]; `./quorva package` calls it once the packages it needs are in.
# Environment:
#   QUORVA_SIGNING_KEY       Ed25519 private key (PEM) that signs the archive; its public half is built in
#   QUORVA_RELEASE_NOTES     what the release brings, in English (QUORVA_RELEASE_NOTES_FR: in French)
#   QUORVA_RELEASE_BASE_URL  where the files will be downloaded from (default: the GitHub release)
#   QUORVA_RELEASE_BUILD     a build number for manifest.json (an integer), when there is one
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

say() { printf 'quorva: %s\n' "$*" >&2; }
die() {
    say "$*"
    exit 2
}

version=${1:-0.1.0}
# The version names the Debian package, the archive and the tag v<version>: a Debian version that starts
# with a digit, without an epoch's colon (no place in a file name) or a tilde (no place in a Git tag).
[[ $version =~ ^[0-9][A-Za-z0-9.+]*(-[A-Za-z0-9.+]+)?$ ]] ||
    die "'$version' is not a version: a digit, then letters, digits, . and + (and one - before a revision), e.g. 1.2.3"
build=${QUORVA_RELEASE_BUILD:-}
[[ -z $build || $build =~ ^[0-9]+$ ]] || die "QUORVA_RELEASE_BUILD must be a whole number, not '$build'"
notes=${QUORVA_RELEASE_NOTES:-Version $version of QuorvaRecorder.}
notesFr=${QUORVA_RELEASE_NOTES_FR:-Version $version de QuorvaRecorder.}

key=${QUORVA_SIGNING_KEY:-}
publicKey=
if [ -n "$key" ]; then
    [[ -f $key && -r $key ]] || die "QUORVA_SIGNING_KEY: cannot read '$key' (a relative path starts at $root)"
    # An Ed25519 public key in DER is a fixed 12-byte header followed by the key's 32 bytes. An empty
    # passphrase keeps openssl from asking for one: the key must be unencrypted.
    der=$(openssl pkey -in "$key" -passin pass: -pubout -outform DER 2>/dev/null | od -An -v -tx1 | tr -d ' \n') ||
        der=
    [[ $der =~ ^302a300506032b6570032100[0-9a-f]{64}$ ]] ||
        die "QUORVA_SIGNING_KEY: '$key' is not an unencrypted Ed25519 private key in PEM" \
            "(openssl genpkey -algorithm ed25519)"
    publicKey=$(openssl pkey -in "$key" -passin pass: -pubout -outform DER | tail -c 32 | base64 -w0)
fi

# A folder of its own, so that the version and the key built in never leak into the other builds. The
# key is always given, empty without one, so that a signed build before does not leave its key behind.
dir=build/package
say "building quorvarecorder $version in $dir"
# The prefix is the package's, which the user service names its program by.
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DQUORVA_VERSION="$version" \
    -DQUORVA_UPDATE_PUBLIC_KEY="$publicKey" >/dev/null
cmake --build "$dir" --target quorvarecorder
repository=$(sed -n 's/^QUORVA_RELEASE_REPOSITORY:STRING=//p' "$dir/CMakeCache.txt")
[ -n "$repository" ] || die "$dir/CMakeCache.txt names no QUORVA_RELEASE_REPOSITORY"

dist=build/dist
arch=$(dpkg --print-architecture)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
rm -rf "$dist"
mkdir -p "$dist"

# The package's tree: dpkg-shlibdeps takes the folder above DEBIAN/ for the package a binary is in.
tree=$work/debian/quorvarecorder
cmake --install "$dir" --prefix "$tree/usr" --strip >/dev/null
mkdir -p "$tree/DEBIAN"
printf 'Source: quorvarecorder\n\nPackage: quorvarecorder\nArchitecture: any\n' >"$work/debian/control"
libraries=$(cd "$work" && dpkg-shlibdeps -O -e debian/quorvarecorder/usr/bin/quorvarecorder 2>shlibdeps.log |
    sed -n 's/^shlibs:Depends=//p') || libraries=
# dpkg-shlibdeps 1.21 says that the binary is outside its package's tree even when it is inside (CPack's
# packages get the same warning); every other line it writes is worth reading.
grep -v "binaries to analyze should already be installed" "$work/shlibdeps.log" >&2 || true
[ -n "$libraries" ] || die "dpkg-shlibdeps found no libraries for quorvarecorder"
# What no link shows: Qt loads the window's platform (xcb) as a plugin; the Vulkan loader is opened at
# run time (by Vulkan-Hpp and by Qt), and it finds a device only through an installable client driver,
# even the software one that runs without a GPU; the updater's HTTPS needs the certificate authorities.
depends="$libraries, qt6-qpa-plugins, libvulkan1, mesa-vulkan-drivers | vulkan-icd, ca-certificates"
# PipeWire's sources and the computer's sound need its daemon and session manager; OSCQuery announces
# itself through Avahi. Without them the program still runs, and says what is missing.
recommends="pipewire, wireplumber, avahi-daemon"

# Every Debian package carries its changelog; this one holds the release's notes.
{
    printf 'quorvarecorder (%s) stable; urgency=medium\n\n' "$version"
    sed '1s/^/  * /; 2,$s/^./    &/' <<<"$notes"
    printf '\n -- QuorvaRecorder developers <dev@quorva.org>  %s\n' "$(date -R)"
} | gzip -9n >"$tree/usr/share/doc/quorvarecorder/changelog.gz"

cat >"$tree/DEBIAN/control" <<EOF
Package: quorvarecorder
Version: $version
Architecture: $arch
Maintainer: QuorvaRecorder developers <dev@quorva.org>
Installed-Size: $(du -sk --apparent-size --exclude=DEBIAN "$tree" | cut -f1)
Depends: $depends
Recommends: $recommends
Section: video
Priority: optional
Homepage: https://github.com/$repository
Description: records live video sources into QuickTime movies
 QuorvaRecorder records up to eight live sources on one clock into QuickTime
 movies: one movie per source, one of all of them assembled into a single
 picture, or both. Sources are the pictures that other programs publish through
 PipeWire (cameras, virtual cameras), NDI sources on the network and built-in
 test patterns.
 .
 It runs from its window (in English or French), headless under OSC and
 OSCQuery control, or from the command line. NDI needs the NDI runtime
 (libndi.so.6), which is not part of this package.
EOF
chmod -R u=rwX,go=rX "$tree"
(cd "$tree" && find usr -type f -print0 | sort -z | xargs -0 md5sum) >"$tree/DEBIAN/md5sums"
chmod 644 "$tree/DEBIAN/control" "$tree/DEBIAN/md5sums"
deb=$dist/quorvarecorder_${version}_$arch.deb
dpkg-deb --root-owner-group --build "$tree" "$deb" >/dev/null

# The portable archive: one folder that the updater may replace as a whole. Debian 12 has every library
# the program needs, so none is bundled; the text beside the program says which packages to install.
portable=$work/portable/QuorvaRecorder
mkdir -p "$portable"
cp "$tree/usr/bin/quorvarecorder" "$tree/usr/share/applications/org.quorva.QuorvaRecorder.desktop" \
    "$tree/usr/share/icons/hicolor/scalable/apps/org.quorva.QuorvaRecorder.svg" "$portable/"
# The apt-get line names the first choice of each dependency, without its version.
packages=$(tr ',' '\n' <<<"$depends" | sed 's/|.*//; s/(.*)//; s/:any//; s/ //g' | grep . | tr '\n' ' ')
if [ -n "$publicKey" ]; then
    updates="It updates itself: Help > Check for Updates… downloads the latest release, checks its
signature and replaces this folder's program with it."
else
    updates="This build was made without a signing key: it installs no update. Download the next release
by hand."
fi
cat >"$portable/portable-install.txt" <<EOF
QuorvaRecorder $version, portable install

This folder is a portable install of QuorvaRecorder: run ./quorvarecorder from here.

$updates

This file marks the folder as a portable install, one that the updater may replace. Remove it and
the program is never replaced here; you then update it by hand.

The program needs these Debian 12 packages (as root):

    apt-get install ${packages% }

and, for PipeWire's sources and the computer's sound, and to announce OSCQuery on the network:

    apt-get install ${recommends//,/}

To see it in the desktop's menu, copy org.quorva.QuorvaRecorder.desktop to ~/.local/share/applications
with Exec= set to the full path of quorvarecorder in this folder, and org.quorva.QuorvaRecorder.svg to
~/.local/share/icons/hicolor/scalable/apps.
EOF
chmod -R u=rwX,go=rX "$portable"
zipName=QuorvaRecorder-$version-linux-$arch.zip
zip=$dist/$zipName
(cd "$work/portable" && cmake -E tar cf "$root/$zip" --format=zip QuorvaRecorder)

# The signature the updater checks before it replaces anything: the signer's raw public key (32 bytes)
# then the Ed25519 signature of the whole archive (64 bytes), as one line of base64.
if [ -n "$key" ]; then
    openssl pkeyutl -sign -inkey "$key" -passin pass: -rawin -in "$zip" -out "$work/signature"
    { base64 -d <<<"$publicKey" && cat "$work/signature"; } | base64 -w0 >"$zip.sig"
    echo >>"$zip.sig"
else
    say "no QUORVA_SIGNING_KEY: the archive is not signed, and no installed copy will take it as an update"
fi

# What the updater reads: a GitHub "latest release" answer, and a manifest for a server of one's own.
base=${QUORVA_RELEASE_BASE_URL:-https://github.com/$repository/releases/download/v$version}
base=${base%/}
page=https://github.com/$repository/releases/tag/v$version
asset() { # FILE CONTENT_TYPE
    jq -n --arg name "${1##*/}" --arg url "$base/${1##*/}" --argjson size "$(stat -c %s "$1")" --arg type "$2" \
        '{name: $name, browser_download_url: $url, size: $size, content_type: $type}'
}
{
    asset "$zip" application/zip
    [ ! -f "$zip.sig" ] || asset "$zip.sig" text/plain
    asset "$deb" application/vnd.debian.binary-package
} | jq -s --arg tag "v$version" --arg name "QuorvaRecorder $version" --arg body "$notes" --arg page "$page" \
    '{tag_name: $tag, name: $name, body: $body, html_url: $page, assets: .}' >"$dist/release.json"
sha256=$(sha256sum "$zip" | cut -d' ' -f1)
jq -n --arg version "$version" --arg notes "$notes" --arg notesFr "$notesFr" --arg url "$base/$zipName" \
    --arg sha256 "$sha256" --arg page "$page" --arg build "$build" \
    '{version: $version, notes: $notes, notes_en: $notes, notes_fr: $notesFr, download_url: $url,
      sha256: $sha256, html_url: $page} + (if $build == "" then {} else {build: ($build | tonumber)} end)' \
    >"$dist/manifest.json"
(cd "$dist" && shopt -s nullglob && sha256sum -- *.deb *.zip *.sig *.json >SHA256SUMS)

say "wrote:"
for file in "$dist"/*; do
    printf '%s\n' "$root/$file"
done
