#!/bin/sh
# pgcluster.sh start|stop|crash|restart STATE_FILE: the throwaway PostgreSQL
# server of the database tests. start stops a cluster left over in STATE_FILE,
# runs initdb and pg_ctl into a temporary directory, reachable only through a
# unix socket there, and writes to STATE_FILE the environment that reaches it
# (PGHOST, PGPORT, PGUSER, RVPG_BIN for its programs), one NAME=value a line;
# stop stops it and removes both. crash stops the server at once, as a crash
# would (what its processes have not written is lost), and restart starts it
# again unless it runs. As root the server runs as user postgres. A watchdog
# in a session of its own stops the server once its caller (ctest) has ended.
set -u
cmd=${1:-} state=${2:-}
as_pg() { if [ "$(id -u)" = 0 ]; then runuser -u postgres -- "$@"; else "$@"; fi; }
stop_cluster() {  # ROOT BINDIR
    [ ! -f "$1/data/postmaster.pid" ] || as_pg "$2/pg_ctl" -D "$1/data" -m immediate -w stop >/dev/null 2>&1
    rm -rf "$1"
}
# WAL that no commit waits for stays in the server's memory as long as it
# can, so that a crash takes it: a commit that should have waited shows.
start_server() {  # ROOT BINDIR PORT
    as_pg "$2/pg_ctl" -D "$1/data" -l "$1/server.log" -w -t 60 -o "-c listen_addresses='' \
-k $1 -p $3 -c fsync=off -c full_page_writes=off -c synchronous_commit=off \
-c wal_writer_delay=10s -c wal_writer_flush_after=1GB" start
}
setting() { sed -n "s/^$1=//p" "$state"; }
case "$cmd" in
watch) while kill -0 "$4" 2>/dev/null; do sleep 1; done; stop_cluster "$2" "$3"; exit 0 ;;
start | stop | crash | restart) [ -n "$state" ] ;;
*) false ;;
esac || { echo "usage: $0 start|stop|crash|restart STATE_FILE" >&2; exit 2; }
if [ "$cmd" = crash ] || [ "$cmd" = restart ]; then
    [ -f "$state" ] || { echo "pgcluster: no cluster in $state" >&2; exit 1; }
    root=$(setting PGHOST) bindir=$(setting RVPG_BIN)
    if as_pg "$bindir/pg_ctl" -D "$root/data" status >/dev/null 2>&1; then
        [ "$cmd" = restart ] || as_pg "$bindir/pg_ctl" -D "$root/data" -m immediate -w stop
    else
        [ "$cmd" = crash ] || start_server "$root" "$bindir" "$(setting PGPORT)" >>"$root/log" 2>&1
    fi
    exit
fi
if [ -f "$state" ]; then
    root=$(setting PGHOST)
    [ -z "$root" ] || stop_cluster "$root" "$(setting RVPG_BIN)"
    rm -f "$state" && echo "pgcluster: stopped the cluster of $state"
fi
[ "$cmd" != stop ] || exit 0
bindir=
for dir in /usr/lib/postgresql/*/bin "$(pg_config --bindir 2>/dev/null)"; do
    if [ -x "$dir/initdb" ] && [ -x "$dir/pg_ctl" ]; then bindir=$dir; break; fi
done
[ -n "$bindir" ] || { echo "pgcluster: no server programs (initdb, pg_ctl); install postgresql" >&2; exit 1; }
root=$(mktemp -d "${TMPDIR:-/tmp}/rvpg.XXXXXX") || exit 1
fail() { echo "pgcluster: $1 failed" >&2; cat "$root/log" "$root/server.log" >&2 2>/dev/null; stop_cluster "$root" "$bindir"; exit 1; }
# The socket lies in the cluster's own directory, so any port will do; one
# apart from the standard port keeps other servers out.
port=$((20000 + $$ % 20000))
[ "$(id -u)" != 0 ] || chown postgres: "$root" || fail "handing $root to user postgres"
as_pg "$bindir/initdb" -D "$root/data" -U postgres -A trust -E UTF8 --locale=C -N >"$root/log" 2>&1 || fail initdb
start_server "$root" "$bindir" "$port" >>"$root/log" 2>&1 || fail "pg_ctl start"
setsid -f sh "$0" watch "$root" "$bindir" "$PPID" </dev/null >/dev/null 2>&1
printf 'PGHOST=%s\nPGPORT=%s\nPGUSER=postgres\nRVPG_BIN=%s\n' "$root" "$port" "$bindir" >"$state"
echo "pgcluster: started, socket $root, port $port"
