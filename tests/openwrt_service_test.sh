#!/usr/bin/env bash
# The OpenWrt service starts the watcher as its configuration says: the
# init script run with procd's and UCI's functions recording what it asks.
#   openwrt_service_test.sh INIT_SCRIPT CONFIG
set -u
init=$1 config=$2
failed=0
fail() { echo "FAIL: $*"; failed=1; }

sh -n "$init" || fail "the init script does not parse"
grep -q "^config watch 'watch'" "$config" || fail "no section 'watch' in $config"

# What start_service() asks procd for, with the given UCI options.
run() {
  sh -c '
    enabled=$1 grace=$2 dirs=$3
    config_load() { :; }
    config_get_bool() { eval "$1=\$enabled"; }
    config_get() { eval "$1=\${grace:-$4}"; }
    config_list_foreach() { for d in $dirs; do "$3" "$d"; done; }
    procd_open_instance() { echo open; }
    procd_close_instance() { echo close; }
    procd_set_param() { echo "set $*"; }
    procd_append_param() { echo "append $*"; }
    . "$0"
    start_service
  ' "$init" "$@"
}

out=$(run 1 7 "/mnt/a /srv/b")
grep -qx "set command /usr/bin/tevu watch --grace 7" <<<"$out" || fail "command: $out"
grep -qx "append command /mnt/a" <<<"$out" || fail "first directory: $out"
grep -qx "append command /srv/b" <<<"$out" || fail "second directory: $out"
grep -qx "set respawn 3600 5 0" <<<"$out" || fail "not respawned: $out"
grep -qx "set term_timeout 12" <<<"$out" || fail "no time to finish pending work: $out"
[ -z "$(run 0 5 "")" ] || fail "started while disabled"
out=$(run 1 "" "")
grep -qx "set command /usr/bin/tevu watch --grace 5" <<<"$out" || fail "default grace: $out"
exit $failed
