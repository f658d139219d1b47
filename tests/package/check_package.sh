#!/usr/bin/env bash
# The Debian package and the service files, from a build tree:
#   tests/package/check_package.sh BUILD_DIR
# Builds the package, checks its file list and dependencies, unpacks it into
# a temporary directory (it is not installed: that would change the machine)
# and runs the daemon from there against a fresh device root (a login and a
# read, verified against the device's own certificate), has systemd verify
# the unit and rate its sandbox, runs the unit's commands with its
# environment, and runs the procd script against stand-ins of procd's
# functions.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
tmp=$(mktemp -d /tmp/whttpd-package-XXXXXX)
pid=
cleanup() {
    [ -n "$pid" ] && kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
    [ -n "${KEEP_TMP:-}" ] || rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "package: $*" >&2; exit 1; }

rm -f "$build"/whttpd_*.deb
(cd "$build" && cpack -G DEB >"$tmp/cpack.log" 2>&1) || { cat "$tmp/cpack.log"; fail "cpack failed"; }
deb=$(ls "$build"/whttpd_*.deb)

# Exactly the expected files, nothing of the tests or the stand-in cloud.
dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '/$' | sed 's#^\./#/#' | sort >"$tmp/files"
sort "$here/files.txt" | diff -u - "$tmp/files" || fail "unexpected file list"
dpkg-deb -c "$deb" | awk '$1 ~ /^-/ && $2 != "root/root" {print; bad=1} END {exit bad}' ||
    fail "files not owned by root"
depends=$(dpkg-deb -f "$deb" Depends)
for d in adduser openssl unzip libc6 libjson-c5 libcurl4 libsqlite3-0 libssl3; do
    [[ ", $depends," == *", $d"[\ ,]* ]] || fail "Depends lacks $d: $depends"
done
dpkg-deb -x "$deb" "$tmp/pkg"
pkg=$tmp/pkg/usr
# cmake --install lays out the same files below any prefix.
cmake --install "$build" --prefix "$tmp/inst/usr" >/dev/null
(cd "$tmp/inst" && find . -type f -o -type l) | sed 's#^\./#/#' | sort |
    diff -u "$tmp/files" - || fail "cmake --install lays out other files than the package"
grep -q "^ExecStart=$tmp/inst/usr/sbin/whttpd_rest " "$tmp/inst/usr/lib/systemd/system/whttpd.service" ||
    fail "the installed unit does not name the installed daemon"

. "$here/../lib/daemon.sh"

# The unpacked programs in a fresh device root.
export WHTTPD_ROOT=$tmp/root
export WHTTPD_DISCOVERY_PORT=$(free_port)
"$pkg/bin/wcfgctl" init >/dev/null
port=$(free_port)
"$pkg/sbin/whttpd_rest" -s "$port" >"$tmp/out" 2>&1 &
pid=$!
wait_served "$port" "$WHTTPD_ROOT"
login_and_read "$port" "$WHTTPD_ROOT"
# The console, from the package's own folder beside the program.
curl -sS --cacert "$WHTTPD_ROOT/data/CA/newreq.crt" "https://localhost:$port/ui/js/api.js" |
    cmp -s - "$here/../../console/js/api.js" || fail "the packaged daemon does not serve its console"
# The packaged client, pinned to the device's certificate.
ctl() {
    WHTTPCTL_STATE=$tmp/whttpctl.state "$pkg/bin/whttpctl" --url "https://localhost:$port" \
        --cacert "$WHTTPD_ROOT/data/CA/newreq.crt" "$@"
}
ctl login admin <<<1234abcd >/dev/null || fail "whttpctl login failed"
ctl get Device.DeviceInfo. | grep -q '"ModelName"' || fail "whttpctl get failed"
ctl logout >/dev/null || fail "whttpctl logout failed"
stop_daemon

# The unit, with its programs found in the unpacked tree: systemd verifies
# it and rates its sandbox; its own commands, run with its environment (but
# another state directory and ports, and not sandboxed: that needs systemd
# itself), provision a new state directory, provision again one whose
# provisioning was cut short, keep a provisioned one, and serve.
unit=$tmp/whttpd.service
sed "s#/usr/#$pkg/#g" "$pkg/lib/systemd/system/whttpd.service" >"$unit"
out=$(systemd-analyze verify "$unit" 2>&1) || fail "systemd-analyze verify: $out"
[ -z "$out" ] || fail "systemd-analyze verify: $out"
systemd-analyze security --offline=yes --threshold=20 "$unit" >"$tmp/security" 2>&1 ||
    { tail -3 "$tmp/security"; fail "the unit's sandbox is weaker than expected"; }
while IFS= read -r assignment; do
    export "${assignment?}"
done < <(sed -n 's/^Environment=//p' "$unit")
export WHTTPD_ROOT=$tmp/state WHTTPD_HTTPS_PORT=$(free_port) WHTTPD_DISCOVERY_PORT=$(free_port)
mkdir -p "$WHTTPD_ROOT"
pre=$(sed -n 's/^ExecStartPre=//p' "$unit")
start=$(sed -n 's/^ExecStart=//p' "$unit")
marker=$WHTTPD_ROOT/data/wcfg/provisioned
sh -c "$pre" >/dev/null && [ -f "$marker" ] || fail "ExecStartPre did not provision"
# A provisioning cut short (the stand-in tools' directory cannot be made)
# leaves the root unmarked.
rm -rf "$WHTTPD_ROOT/usr/sbin" && touch "$WHTTPD_ROOT/usr/sbin"
"$pkg/bin/wcfgctl" init >/dev/null 2>&1 && fail "a provisioning that failed was not reported"
[ ! -f "$marker" ] || fail "a provisioning cut short is marked as complete"
rm "$WHTTPD_ROOT/usr/sbin"
sh -c "$pre" >/dev/null && [ -f "$marker" ] || fail "ExecStartPre did not provision again"
key=$(cat "$WHTTPD_ROOT/data/CA/newreq.key")
sh -c "$pre" >/dev/null || fail "ExecStartPre failed on a provisioned root"
[ "$key" = "$(cat "$WHTTPD_ROOT/data/CA/newreq.key")" ] || fail "a provisioned root was provisioned again"
sh -c "exec $start" >"$tmp/unit.out" 2>&1 &
pid=$!
wait_served "$WHTTPD_HTTPS_PORT" "$WHTTPD_ROOT"
login_and_read "$WHTTPD_HTTPS_PORT" "$WHTTPD_ROOT"
# The allocator's setting comes from the unit's environment.
tr '\0' '\n' <"/proc/$pid/environ" | grep -qx "GLIBC_TUNABLES=glibc.malloc.tcache_count=2" ||
    fail "the unit's daemon runs without the allocator setting"
stop_daemon

# The procd script, sourced with stand-ins of rc.common's procd functions.
init=$pkg/share/whttpd/openwrt/whttpd
sh -n "$init" || fail "procd script syntax"
params=$(sh -c '
    procd_open_instance() { echo open; }
    procd_set_param() { echo "$*"; }
    procd_close_instance() { echo close; }
    . "$1"; start_service' sh "$init")
grep -qx "command /usr/sbin/whttpd_rest -s 8443" <<<"$params" || fail "procd command: $params"
grep -q "^respawn " <<<"$params" || fail "procd respawn: $params"
grep -qx "env GLIBC_TUNABLES=glibc.malloc.tcache_count=2" <<<"$params" || fail "procd env: $params"
[ "$(head -1 <<<"$params")" = open ] && [ "$(tail -1 <<<"$params")" = close ] ||
    fail "procd instance: $params"
# scripts/run never removes a directory that is not a device root.
mkdir -p "$tmp/precious" && echo keep >"$tmp/precious/thesis.txt"
WHTTPD_DEVROOT=$tmp/precious WHTTPD_PORT=$(free_port) timeout 120 "$here/../../scripts/run" --reset \
    >/dev/null 2>&1 && fail "scripts/run started in a directory that is not a device root"
[ "$(cat "$tmp/precious/thesis.txt")" = keep ] || fail "scripts/run removed another directory"
echo "package: $(basename "$deb") ($(wc -l <"$tmp/files") files) unpacks and serves, its unit verifies"
