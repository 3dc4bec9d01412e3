#!/usr/bin/env bash
# Builds the Debian packages and checks what they ship: their file lists and versions; then,
# unpacked into a scratch root, the units (ExecStart, systemd-analyze verify, hardening), the
# maintainer scripts, a system bus with the shipped policies and activation files, and a
# search end to end with the shipped programs.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/package.sh >/dev/null
root=$(mktemp -d "${TMPDIR:-/tmp}/rs-packages.XXXXXX")
trap 'rm -rf "$root"' EXIT
mkdir "$root/control" "$root/verify" "$root/programs" "$root/etc"
fail() { echo "check-packages: $*" >&2; exit 1; }

dbus=usr/share/dbus-1
declare -A layout=(
  [recording-search]="usr/libexec/recording_search usr/lib/systemd/system/recording_search.service
    usr/lib/sysusers.d/recording-search.conf usr/share/doc/recording-search/README.md
    $dbus/system.d/kavro.recording_search.conf $dbus/interfaces/kavro.recording_search.xml
    $dbus/system-services/kavro.recording_search.service"
  [recording-store]="usr/bin/recording_store usr/lib/systemd/system/recording_store.service
    usr/lib/sysusers.d/recording-store.conf usr/share/doc/recording-store/README.md
    $dbus/system.d/kavro.recording_store.conf
    $(for n in control information data_access; do
        echo "$dbus/interfaces/kavro.recording_$n.xml"
        echo "$dbus/system-services/kavro.recording_$n.service"
      done)"
  [recsearch]="usr/bin/recsearch usr/share/doc/recsearch/README.md")
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

units=("$root"/usr/lib/systemd/system/*.service)
for unit in "${units[@]}"; do
  sed "s|^ExecStart=|ExecStart=$root|" "$unit" >"$root/verify/${unit##*/}"
done
# This fails too when an ExecStart= names no program the packages ship.
systemd-analyze verify "$root"/verify/*.service || fail "systemd-analyze verify"
scripts/check-units.sh "${units[@]}"

# Maintainer scripts, as dpkg runs them for an installation into $root, then a purge.
maint() {  # SCRIPT ARGUMENT
  DPKG_ROOT=$root DPKG_MAINTSCRIPT_PACKAGE=$pkg "$root/control/$pkg/$1" "$2" \
    >"$root/maint.log" 2>&1 || fail "$pkg $*: $(cat "$root/maint.log")"
}
for pkg in recording-search recording-store; do
  unit=${pkg/-/_}.service wants=$root/etc/systemd/system/multi-user.target.wants
  maint postinst configure
  grep -q "^$pkg:" "$root/etc/passwd" || fail "$pkg's postinst created no user $pkg"
  [ -L "$wants/$unit" ] || fail "$pkg's postinst did not enable $unit"
  maint prerm remove && maint postrm remove && maint postrm purge
  [ ! -e "$wants/$unit" ] || fail "$pkg's purge left $unit enabled"
done

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

ln -s "$root"/usr/libexec/recording_search "$root"/usr/bin/{recording_store,recsearch} \
  "$root/programs"
scripts/demo.sh --bin "$root/programs" >/dev/null
echo "check-packages: ${debs[*]##*/} ship the layout and run"
