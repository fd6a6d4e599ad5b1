#!/usr/bin/env bash
# Installs BUILD_DIR into a temporary prefix, builds the example plug-in
# against it twice (CMake package; pkg-config), starts the installed daemon
# from / on the installed configuration (free port, plus the example group)
# and checks the installed client's replies.
#   install_test.sh BUILD_DIR EXAMPLE_DIR CXX
set -euo pipefail
build=$1 example=$2 cxx=$3
tmp=$(mktemp -d /tmp/vireo-pkg-test-XXXXXX)
daemon= watchdog=
cleanup() {
  [ -n "$watchdog" ] && kill "$watchdog" 2>/dev/null
  [ -n "$daemon" ] && kill "$daemon" 2>/dev/null
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; [ -f "$tmp/err" ] && cat "$tmp/err" >&2; exit 1; }
p=$tmp/usr

cmake --install "$build" --prefix "$p" >"$tmp/install.log" || fail "cmake --install"
for f in sbin/vireo-monitor bin/vireo-client etc/vireo-monitor/main.json \
         share/doc/vireo-monitor/examples/main.json include/vireo-monitor/vireo_plugin.h \
         share/man/man8/vireo-monitor.8.gz share/man/man1/vireo-client.1.gz lib/systemd/system/vireo-monitor.service; do
  [ -e "$p/$f" ] || fail "not installed: $f"
done
# The configuration folder holds the active configuration only.
[ ! -e "$p/etc/vireo-monitor/sample" ] || fail "samples under etc/"
# Installed configurations name nothing relative to the repository.
if grep -rnE '"(config|build)/' "$p/etc/vireo-monitor" "$p/share/doc/vireo-monitor/examples"; then fail "relative path in installed configuration"; fi
grep -q "ExecStart=/.*/vireo-monitor -c /.*/main.json" "$p/lib/systemd/system/vireo-monitor.service" || fail "ExecStart"
# The SDK sits in the library folder (lib/ or lib/<multiarch>/), with the
# plug-in folder it names.
pc=$(find "$p" -name vireo-monitor.pc)
[ -n "$pc" ] && [ -f "$(dirname "$pc")/../cmake/vireo-monitor/vireo-monitor-config.cmake" ] || fail "SDK files"
if grep -q "^Cflags:.*-fPIC" "$pc"; then fail ".pc file hands out -fPIC"; fi

# The example through find_package, installed to VIREO_MONITOR_PLUGIN_DIR.
export PKG_CONFIG_PATH=$(dirname "$pc")
plugdir=$(realpath -m "$(pkg-config --variable=plugindir vireo-monitor)")
[ -f "$plugdir/libvireo_probe.so" ] || fail "pc plugindir $plugdir holds no probe plug-in"
cmake -S "$example" -B "$tmp/ex" -DCMAKE_PREFIX_PATH="$p" -DCMAKE_CXX_COMPILER="$cxx" >"$tmp/ex.log" || fail "configure example"
cmake --build "$tmp/ex" >>"$tmp/ex.log" && cmake --install "$tmp/ex" >>"$tmp/ex.log" || { cat "$tmp/ex.log"; fail "build example"; }
[ -f "$plugdir/libvireo_uptime.so" ] || fail "example not in $plugdir"
# The same source through the .pc file.
# shellcheck disable=SC2046
"$cxx" -shared -fPIC -Wall -Wextra $(pkg-config --cflags vireo-monitor) "$example/uptime_plugin.cpp" -o "$tmp/libpc.so" || fail "pkg-config build"

port=
for _ in $(seq 100); do
  cand=$((20000 + RANDOM % 40000))
  if ! (exec 3<>"/dev/tcp/127.0.0.1/$cand") 2>/dev/null; then port=$cand; break; fi
done
[ -n "$port" ] || fail "no free port"

cat >"$tmp/example.json" <<JSON
{ "cmd-list": [
  { "name": "uptime",    "id": "1", "type": "custom", "lib": "$plugdir/libvireo_uptime.so", "symbols": "uptime_seconds" },
  { "name": "uptime_pc", "id": "2", "type": "custom", "lib": "$tmp/libpc.so", "symbols": "uptime_seconds" } ] }
JSON
sed -e "s/\"port\": *6600/\"port\": $port/" \
    -e "s|\"sub-configs\": *\[|&\n { \"class\": \"example\", \"code\": \"0x40\", \"config\": \"$tmp/example.json\" },|" \
    "$p/etc/vireo-monitor/main.json" >"$tmp/main.json"
grep -q "\"port\": $port" "$tmp/main.json" || fail "port not rewritten"

(cd / && exec "$p/sbin/vireo-monitor" -c "$tmp/main.json" 2>"$tmp/err") &
daemon=$!
# Ends the daemon when this script ends without its trap (a ctest timeout
# sends SIGKILL).
(while kill -0 $$ 2>/dev/null; do sleep 1; done; kill -9 "$daemon") >/dev/null 2>&1 &
watchdog=$!
client() { "$p/bin/vireo-client" -e "tcp://127.0.0.1:$port" -t 3000 "$@"; }
for _ in $(seq 50); do client -t 200 take-id >/dev/null 2>&1 && break; sleep 0.2; done

up=$(cut -d. -f1 /proc/uptime)
near() { local n; n=$(tr -d '\n'); [ "$n" -ge $(($1 - 5)) ] && [ "$n" -le $(($1 + 5)) ]; }
# label | request | check on the printed payload
cases=(
  "file from an installed group|0x10 3|grep -qE '^[0-9.]+ [0-9.]+\$'"
  "per-process file|0x20 1 --pid $$|grep -q '^Name:'"
  "example plug-in (CMake package)|0x40 1|near $up"
  "example plug-in reads the payload through the daemon's helper|0x40 1 --hex 00e1f505|near $((up - 100000000))"
  "example plug-in (pkg-config)|0x40 2|near $up"
  "the board's command table, read by the describe plug-in|0xDE5C 1|grep -qP '^0x40\t0x1\tcustom\texample\tuptime\t/'"
)
grep -q probe "$tmp/main.json" && cases+=("probe plug-in from the plug-in folder|0x30 1 --pid $$|grep -qP '^$$\t'")
for c in "${cases[@]}"; do
  IFS='|' read -r label req check <<<"$c"
  # shellcheck disable=SC2086
  out=$(client $req) || fail "$label: '$req' exit $?"
  eval "$check" <<<"$out" || fail "$label: '$req' replied '$out'"
done
# The probe's stacks come from the installed walker, found from the plug-in's
# folder; -1 where ptrace is refused here.
if grep -q probe "$tmp/main.json"; then
  out=$(client 0x30 2 --pid $$ 2>&1) || true
  grep -qE "^Thread $$ |\(-1\)\$" <<<"$out" || fail "probe stack through the installed walker: '$out'"
fi
if grep -q 'dlopen' "$tmp/err"; then fail "a plug-in did not load"; fi
echo "packaging: ${#cases[@]} requests answered by the installed tree"
