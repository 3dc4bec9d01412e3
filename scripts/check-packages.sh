#!/usr/bin/env bash
# Builds the Debian packages and checks what they ship: lintian's verdict (no error, no
# warning), their file lists and versions; then, unpacked into a scratch root, the manual pages,
# the units (ExecStart, systemd-analyze verify, hardening), the maintainer scripts (users, state
# directories, the gateway's token file; install, reinstall, purge), a system bus with the
# shipped policies and activation files, and a search end to end with the shipped programs.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/package.sh >/dev/null
root=$(mktemp -d "${TMPDIR:-/tmp}/rs-packages.XXXXXX")
trap 'rm -rf "$root"' EXIT
mkdir "$root/control" "$root/verify" "$root/programs" "$root/etc"
fail() { echo "check-packages: $*" >&2; exit 1; }

echo "check-packages: lintian" >&2
findings=$(lintian --fail-on error,warning build/packages/*.deb 2>&1) ||
  fail "lintian found errors or warnings: $findings"

dbus=usr/share/dbus-1
docs() { echo "usr/share/doc/$1/copyright usr/share/doc/$1/changelog.gz"; }
declare -A layout=(
  [recording-search]="usr/libexec/recording_search usr/lib/systemd/system/recording_search.service
    usr/lib/sysusers.d/recording-search.conf usr/share/doc/recording-search/README.md
    $(docs recording-search) usr/share/man/man8/recording_search.8.gz
    $dbus/system.d/kavro.recording_search.conf $dbus/interfaces/kavro.recording_search.xml
    $dbus/system-services/kavro.recording_search.service"
  [recording-store]="usr/bin/recording_store usr/lib/systemd/system/recording_store.service
    usr/lib/sysusers.d/recording-store.conf usr/share/doc/recording-store/README.md
    usr/lib/tmpfiles.d/recording-store.conf $(docs recording-store)
    usr/share/man/man1/recording_store.1.gz
    $dbus/system.d/kavro.recording_store.conf
    $(for n in control information data_access; do
        echo "$dbus/interfaces/kavro.recording_$n.xml"
        echo "$dbus/system-services/kavro.recording_$n.service"
      done)"
  [recsearch]="usr/bin/recsearch usr/share/doc/recsearch/README.md $(docs recsearch)
    usr/share/man/man1/recsearch.1.gz"
  [recording-search-web]="usr/bin/recording_search_web
    usr/lib/systemd/system/recording-search-web.service
    usr/lib/systemd/system/recording-search-web.socket usr/lib/sysusers.d/recording-search-web.conf
    $(docs recording-search-web) usr/share/man/man1/recording_search_web.1.gz"
  [recording-index]="usr/bin/recording_index usr/lib/systemd/system/recording_index.service
    usr/lib/sysusers.d/recording-index.conf $(docs recording-index)
    usr/share/man/man1/recording_index.1.gz
    $dbus/system.d/kavro.recording_index.conf $dbus/interfaces/kavro.recording_index.xml")
version=$(sed -nE 's/^project\(.* VERSION ([0-9.]+) .*/\1/p' CMakeLists.txt)
debs=(build/packages/*.deb)
[ ${#debs[@]} -eq ${#layout[@]} ] || fail "${#debs[@]} packages, not ${#layout[@]}: ${debs[*]}"
for deb in "${debs[@]}"; do
  pkg=$(dpkg-deb -f "$deb" Package)
  shipped=$(dpkg-deb -c "$deb" | awk '!/^d/ { sub(/^\.\//, "", $6); print $6 }' | sort)
  diff <(tr -s ' \n' '\n' <<<"${layout[$pkg]:-}" | sed '/^$/d' | sort) <(echo "$shipped") >&2 ||
    fail "$pkg does not ship the install layout (< expected, > shipped)"
  [ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "$pkg is not version $version"
  dpkg-deb -f "$deb" Depends | grep -q libc6 || fail "$pkg has no shared-library dependencies"
  dpkg-deb -x "$deb" "$root"
  dpkg-deb -e "$deb" "$root/control/$pkg"
done

# Every program's manual page opens and says what it is.
for page in "$root"/usr/share/man/man*/*.gz; do
  name=$(basename "$page" | cut -d. -f1)
  MANWIDTH=80 man -l "$page" 2>/dev/null | grep -q "^NAME" || fail "man $name does not open"
done

units=("$root"/usr/lib/systemd/system/*.service)
for unit in "${units[@]}"; do
  sed "s|^ExecStart=|ExecStart=$root|" "$unit" >"$root/verify/${unit##*/}"
done
# This fails too when an ExecStart= names no program the packages ship.
cp "$root"/usr/lib/systemd/system/*.socket "$root/verify/"
MANPATH=$root/usr/share/man systemd-analyze verify "$root"/verify/*.service ||
  fail "systemd-analyze verify"
scripts/check-units.sh "${units[@]}"

# Maintainer scripts, as dpkg runs them for an installation into $root, then a purge.
maint() {  # SCRIPT ARGUMENT...
  DPKG_ROOT=$root DPKG_MAINTSCRIPT_PACKAGE=$pkg "$root/control/$pkg/$1" "${@:2}" \
    >"$root/maint.log" 2>&1 || fail "$pkg $*: $(cat "$root/maint.log")"
}
# Owners by the scratch root's own users and groups, not the machine's.
owner() { stat -c '%u:%g %a' "$1"; }
id_of() { awk -F: -v n="$2" '$1 == n { print $3 }' "$root/etc/$1"; }
for pkg in recording-search recording-store recording-search-web recording-index; do
  case $pkg in
    recording-search-web) unit=recording-search-web.socket wants=$root/etc/systemd/system/sockets.target.wants ;;
    *) unit=${pkg/-/_}.service wants=$root/etc/systemd/system/multi-user.target.wants ;;
  esac
  maint postinst configure
  grep -q "^$pkg:" "$root/etc/passwd" || fail "$pkg's postinst created no user $pkg"
  [ -L "$wants/$unit" ] || fail "$pkg's postinst did not enable $unit"
  case $pkg in
    recording-store)
      store_ids="$(id_of passwd recording-store):$(id_of group recording-store)"
      [ "$(owner "$root/var/lib/recording_store")" = "$store_ids 755" ] ||
        fail "/var/lib/recording_store is $(owner "$root/var/lib/recording_store")" ;;
    recording-search-web)
      tokens=$root/etc/recording-search/web-tokens
      [ "$(owner "$tokens")" = "0:$(id_of group recording-search-web) 640" ] ||
        fail "the token file is $(owner "$tokens")"
      grep -q "web-tokens" "$root/maint.log" && ! grep -qF "$(cat "$tokens")" "$root/maint.log" ||
        fail "the install does not say where the token is, or prints it"
      grep -q "recording-search-clients:.*recording-search-web" "$root/etc/group" ||
        fail "the gateway's user is not in recording-search-clients"
      token=$(cat "$tokens")
      maint postinst configure 0.1.0  # the same version again: an upgrade keeps the token
      [ "$(cat "$tokens")" = "$token" ] || fail "an upgrade replaced the token" ;;
  esac
  maint prerm remove && maint postrm remove && maint postrm purge
  [ ! -e "$wants/$unit" ] || fail "$pkg's purge left $unit enabled"
done
[ ! -e "$root/var/lib/recording_store" ] || fail "the purge left /var/lib/recording_store"
[ ! -e "$root/etc/recording-search" ] || fail "the purge left /etc/recording-search"

# Debian's system bus configuration, reading its policies and activation files from $root.
cp /usr/share/dbus-1/system.conf "$root/$dbus/"
sed -i -e "s|<standard_system_servicedirs/>|<servicedir>$root/$dbus/system-services</servicedir>|" \
  -e '/<user>/d' "$root/$dbus/system.conf"
dbus-daemon --config-file="$root/$dbus/system.conf" --address="unix:path=$root/bus" --nofork \
  --nopidfile --print-address=1 >"$root/address" 2>"$root/bus.err" &
bus=$!
for _ in $(seq 100); do [ -s "$root/address" ] && break; sleep 0.05; done
activatable=$(dbus-send --bus="unix:path=$root/bus" --print-reply --dest=org.freedesktop.DBus / \
  org.freedesktop.DBus.ListActivatableNames 2>&1) || true
kill "$bus"; wait "$bus" 2>/dev/null || true
# It skips a file it cannot read with a complaint that names it.
! grep -F "$root" "$root/bus.err" || fail "dbus-daemon did not take the shipped files"
for name in recording_search recording_control recording_information recording_data_access; do
  grep -q "\"kavro.$name\"" <<<"$activatable" || fail "kavro.$name is not activatable: $activatable"
done

ln -s "$root"/usr/libexec/recording_search \
  "$root"/usr/bin/{recording_store,recsearch,recording_search_web,recording_index} "$root/programs"
scripts/demo.sh --bin "$root/programs" >/dev/null
echo "check-packages: ${debs[*]##*/} ship the layout and run"
