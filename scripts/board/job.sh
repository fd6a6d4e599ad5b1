#!/usr/bin/env bash
# The board test's guest side, run by board-job from the 9p folder /job.
# Part A installs the packages, checks the service, adds the host's client
# key, starts the test programs and hands over to the host (a.done); part C,
# once the host is done (host.done), checks the journal, the kernel stack
# drop-in, a reinstall and the purge. Each check appends "PASS name" or
# "FAIL name: why" to /job/guest-a.txt or /job/guest-c.txt.
set -uo pipefail
# shellcheck disable=SC2317 # the checks are called through check()
J=/job
unit=vireo-monitor
conf=/etc/vireo-monitor
out=$J/guest-a.txt

pass() { echo "PASS $*" >>"$out"; }
# check NAME CMD...: PASS, or FAIL with the last lines CMD printed.
check() {
  local name=$1 why
  shift
  if why=$("$@" 2>&1); then
    pass "$name"
  else
    echo "FAIL $name: $(echo "$why" | tail -n 6 | tr '\n' ' ')" >>"$out"
  fi
}
# wait_active: the service is running and its port is open (a unit that
# does not report readiness is active before it listens).
wait_active() {
  for _ in $(seq 40); do
    if systemctl is-active --quiet "$unit" && [ -n "$(ss -Hltn 'sport = :6600')" ]; then
      return 0
    fi
    sleep 0.5
  done
  systemctl status --no-pager "$unit"
  return 1
}
main_pid() { systemctl show -p MainPID --value "$unit"; }
debs() { ls "$J"/debs/*.deb; }
# shellcheck disable=SC2046 # the package files have no spaces
install_debs() { DEBIAN_FRONTEND=noninteractive dpkg -i $(debs) </dev/null; }
first_key() { grep -v '^[[:space:]]*#' "$1" | grep -m1 '[^[:space:]]' | tr -d '[:space:]'; }

# --- part A -------------------------------------------------------------------
# A store as the first packages made it (0750 root:root): the install must
# hand it to the service's group.
install -d -m 0750 /var/lib/vireo-monitor /var/lib/vireo-monitor/crashes
check "the packages install with dpkg -i" install_debs

started_by_package() {
  systemctl is-enabled "$unit" || return 1
  wait_active
}
check "the service is enabled and started by the package" started_by_package
if ! systemctl is-active --quiet "$unit"; then
  systemctl enable --now "$unit" # so the later checks still run
fi

dynamic_user() {
  local pid user uid
  pid=$(main_pid)
  [ "$(systemctl show -p DynamicUser --value "$unit")" = yes ] || { echo "DynamicUser is not set"; return 1; }
  user=$(ps -o user:32= -p "$pid") uid=$(ps -o uid= -p "$pid")
  echo "pid $pid runs as $user ($uid)"
  # systemd allocates dynamic users from 61184..65519.
  [ "$user" = "$unit" ] && [ "$uid" -ge 61184 ] && [ "$uid" -le 65519 ]
}
check "the daemon runs as the unit's dynamic user" dynamic_user

store_is_the_groups() {
  local got gid
  got=$(stat -c %a:%U:%G /var/lib/vireo-monitor/crashes)
  gid=$(getent group vireo-crash | cut -d: -f3)
  echo "store: $got; vireo-crash: ${gid:-none}; $(grep '^Groups:' "/proc/$(main_pid)/status")"
  [ "$got" = 2770:root:vireo-crash ] && [ -n "$gid" ] &&
    grep '^Groups:' "/proc/$(main_pid)/status" | grep -qw "$gid"
}
check "the crash store is 2770 root:vireo-crash (an older store too) and the daemon is in the group" store_is_the_groups

# caps_of HEXMASK: the capability names in a /proc/PID/status mask, sorted.
caps_of() { capsh --decode="$1" | sed 's/.*=//' | tr ',' '\n' | sort | xargs; }
unit_caps() {
  local pid eff bnd want want_bnd
  pid=$(main_pid)
  eff=$(caps_of "$(awk '/^CapEff/ {print $2}' "/proc/$pid/status")")
  bnd=$(caps_of "$(awk '/^CapBnd/ {print $2}' "/proc/$pid/status")")
  want=$(systemctl show -p AmbientCapabilities --value "$unit" | tr ' ' '\n' | sort | xargs)
  want_bnd=$(systemctl show -p CapabilityBoundingSet --value "$unit" | tr ' ' '\n' | sort | xargs)
  echo "CapEff: $eff; unit: $want; CapBnd: $bnd; unit: $want_bnd"
  [ -n "$want" ] && [ "$eff" = "$want" ] && [ "$bnd" = "$want_bnd" ]
}
check "the daemon holds only the unit's capabilities" unit_caps

security_on() {
  grep -q '"security"' "$conf/main.json" || { echo "no \"security\" in main.json"; return 1; }
  [ -n "$(first_key "$conf/server.key")" ] || { echo "no key in server.key"; return 1; }
  [ -n "$(first_key "$conf/server.pub")" ] || { echo "no key in server.pub"; return 1; }
  [ "$(stat -c %a "$conf/server.key")" = 600 ] || { echo "server.key is not mode 0600"; return 1; }
  [ -e "$conf/authorized_keys" ] || { echo "no authorized_keys"; return 1; }
  if [ -n "$(first_key "$conf/authorized_keys")" ]; then
    echo "authorized_keys is not empty"
    return 1
  fi
}
check "security is on, with server keys and an empty authorized_keys" security_on

# For the host: the server's public key, the daemon reachable from qemu's
# user network (an edit of main.json that the reinstall must keep), and the
# host's client key allowed every command.
cp "$conf/server.pub" "$J/server.pub" 2>/dev/null
sed -i 's/"server_ip": *"[^"]*"/"server_ip": "0.0.0.0"/' "$conf/main.json"
if [ -s "$J/client.pub" ]; then
  echo "$(first_key "$J/client.pub") board *" >>"$conf/authorized_keys"
fi
systemctl restart "$unit"
wait_active >/dev/null

# The test programs; the non-PIE one's debug info goes where libdw looks for
# it by build id, the other stripped one's stays on the host.
mkdir -p /opt/board
cp "$J"/bin/* /opt/board/
cp -r "$J/board-debug/." /usr/lib/debug/
/opt/board/walk-o2 park &
o2=$!
/opt/board/walk-pac park &
pac=$!
/opt/board/walk-stripped park &
stripped=$!
/opt/board/walk-nopie park &
nopie=$!
threads_wanted=$(cat "$J/threads")
/opt/board/walk-o2 "$threads_wanted" &
threads=$!
for _ in $(seq 50); do
  [ "$(ls "/proc/$threads/task" | wc -l)" -gt "$threads_wanted" ] && break
  sleep 0.1
done

# Crash reports: the package made vireo-crash the kernel's core handler; a
# 10-thread program that faults leaves a report, timed from the program's
# start until the report is on disk (written under a temporary name and
# renamed, so its appearance is the end).
store=/var/lib/vireo-monitor/crashes
handler_registered() {
  local pattern
  pattern=$(cat /proc/sys/kernel/core_pattern)
  echo "core_pattern: $pattern"
  # shellcheck disable=SC2086 # the handler's path, then its arguments
  set -- ${pattern#|}
  case $pattern in "|/usr/lib/"*"/vireo-monitor/vireo-crash "*) [ -x "$1" ] ;; *) return 1 ;; esac
}
check "the package registers vireo-crash in kernel.core_pattern" handler_registered
crash_leaves_report() {
  local start end report=""
  start=$(date +%s%N)
  /opt/board/walk-stripped crash
  for _ in $(seq 3000); do
    report=$(ls "$store"/*.txt 2>/dev/null | head -n 1)
    [ -n "$report" ] && break
    sleep 0.01
  done
  end=$(date +%s%N)
  [ -n "$report" ] || { echo "no report in $store"; ls -la "$store"; journalctl -t vireo-crash --no-pager | tail -n 5; return 1; }
  echo "crash to report on disk: $(((end - start) / 1000000)) ms; report: $(stat -c %s "$report") bytes;" \
    "threads: $(sed -n 's/^threads: //p' "$report")" | tee "$J/crash-measured.txt"
  grep -q '^signal: 11 SIGSEGV$' "$report" && grep -q '^fault address: 0x0000000000001234$' "$report" &&
    grep -q '^threads: 10$' "$report"
}
check "a crash on the board leaves a report (10 threads, SIGSEGV at 0x1234)" crash_leaves_report

# The pointer-authentication program really needs the signature stripped:
# this elfutils' eu-stack does not, and loses its frames' names.
eu_stack_loses_pac() {
  eu-stack -p "$pac" >"$J/eu-stack-pac.txt" 2>&1
  eu-stack -p "$o2" >"$J/eu-stack-o2.txt" 2>&1
  grep -q board_middle "$J/eu-stack-o2.txt" || { echo "eu-stack does not name even the -O2 program"; return 1; }
  cat "$J/eu-stack-pac.txt"
  ! grep -q board_middle "$J/eu-stack-pac.txt"
}
check "the pauth program defeats eu-stack (signed return addresses)" eu_stack_loses_pac

# The hot loop keeps a virtual CPU busy: it runs only while the host works.
/opt/board/walk-stripped hot &
hot=$!
printf 'o2=%s\npac=%s\nstripped=%s\nnopie=%s\nthreads=%s\nhot=%s\n' "$o2" "$pac" "$stripped" "$nopie" "$threads" "$hot" >"$J/pids"
date +'%Y-%m-%d %H:%M:%S' >"$J/a.done"
for _ in $(seq 600); do
  [ -e "$J/host.done" ] && break
  sleep 0.5
done

# --- part C -------------------------------------------------------------------
kill "$hot"
out=$J/guest-c.txt
since=$(cat "$J/a.done")

refused_key_logged() {
  local lines
  lines=$(journalctl -u "$unit" -p err --since "$since" --no-pager -o cat)
  echo "$lines"
  echo "$lines" | grep -qiE 'key|refus|reject|denied|auth|handshake'
}
check "journalctl -p err shows the refused key" refused_key_logged

# The kernel stack, with the drop-in the README gives.
kernel_stack() {
  local dir=/etc/systemd/system/$unit.service.d
  mkdir -p "$dir"
  printf '[Service]\nAmbientCapabilities=CAP_SYS_ADMIN\nCapabilityBoundingSet=CAP_SYS_ADMIN\n' >"$dir/kstack.conf"
  systemctl daemon-reload
  systemctl restart "$unit"
  wait_active || return 1
  local k=()
  [ -s "$J/client.key" ] && [ -s "$conf/server.pub" ] && k=(--key "$J/client.key" --server-key "$conf/server.pub")
  vireo-client -e tcp://127.0.0.1:6600 -t 5000 "${k[@]}" 0x30 3 --pid "$o2" >"$J/kstack.txt" 2>&1
  local rc=$?
  cat "$J/kstack.txt"
  rm -rf "$dir"
  systemctl daemon-reload
  [ "$rc" -eq 0 ] && grep -q '+0x' "$J/kstack.txt"
}
check "the kernel stack answers with the CAP_SYS_ADMIN drop-in" kernel_stack

reinstall_keeps_config() {
  local pub_before
  pub_before=$(first_key "$conf/server.pub") || return 1
  install_debs >/dev/null || return 1
  grep -q '"server_ip": "0.0.0.0"' "$conf/main.json" || { echo "the edit of main.json is gone"; return 1; }
  [ "$(first_key "$conf/server.pub")" = "$pub_before" ] || { echo "the server keys changed"; return 1; }
  grep -q ' board ' "$conf/authorized_keys" || { echo "the added client key is gone"; return 1; }
  wait_active
}
check "a reinstall keeps the edited configuration and the keys" reinstall_keeps_config

purge_removes() {
  local pkgs
  pkgs=$(dpkg-query -W -f='${Package}\n' 'vireo-*' 2>/dev/null)
  # shellcheck disable=SC2086
  dpkg --purge $pkgs </dev/null || return 1
  if [ -e "$conf" ]; then
    find "$conf"
    return 1
  fi
  ! systemctl is-active --quiet "$unit"
}
check "--purge removes the configuration and the keys" purge_removes

purge_unregisters() {
  local pattern
  pattern=$(cat /proc/sys/kernel/core_pattern)
  echo "core_pattern: $pattern"
  [ ! -e /var/lib/vireo-monitor ] || { ls -laR /var/lib/vireo-monitor; return 1; }
  case $pattern in *vireo-crash*) return 1 ;; esac
}
check "--purge removes the handler's registration and the reports" purge_unregisters

kill "$o2" "$pac" "$stripped" "$nopie" "$threads" 2>/dev/null
exit 0
