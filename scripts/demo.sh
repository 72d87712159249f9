#!/usr/bin/env bash
# make demo: a whole update on a throwaway database. Builds a sample
# installation under build/demo/ from examples/, starts a PostgreSQL server
# reachable only through a unix socket, loads a small ravik_db of release
# 1.6.3.20, and runs rv_db_update db_backup, check, plan, update and
# set_params_fix as an operator would. The server's data directory and socket lie in a temporary
# directory of its own (mktemp), which user postgres can reach when the
# checkout cannot be (as root in root's home, in any directory of mode 0700);
# it is stopped and removed at the end, also when something fails, and its
# log is kept as build/demo/server.log.
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
bin="$top/build/bin"
demo="$top/build/demo"
port=5499
server_user=postgres

for prog in rv_db_update rv_db oaisql; do
    [[ -x "$bin/$prog" ]] || { echo "demo: $bin/$prog is missing; run 'make build' first" >&2; exit 1; }
done

pgbin=$(pg_config --bindir 2>/dev/null || true)
[[ -x "$pgbin/initdb" ]] || pgbin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -n 1)
[[ -x "$pgbin/initdb" ]] || { echo "demo: PostgreSQL server programs not found (package postgresql)" >&2; exit 1; }

# PostgreSQL refuses to run as root: then the server runs as user postgres,
# in its own directory, since it may not enter the checkout's.
as_server() {
    if [[ $(id -u) -eq 0 ]]; then
        (cd "$pg" && runuser -u "$server_user" -- "$@")
    else
        "$@"
    fi
}

section() { printf '\n==== %s ====\n' "$*"; }

# The server's directory of a running demo, for one that was interrupted.
pointer="$top/build/demo-server"
pg=

stop_server() {
    [[ -n "$pg" && -d "$pg" ]] || return 0
    if [[ -f "$pg/data/postmaster.pid" ]]; then
        as_server "$pgbin/pg_ctl" -D "$pg/data" -m fast -w stop >/dev/null 2>&1 || true
    fi
    if [[ -f "$pg/server.log" && -d "$demo" ]]; then cp "$pg/server.log" "$demo/server.log"; fi
    rm -rf "$pg"
    rm -f "$pointer"
}

# A server left running by an interrupted demo goes first.
if [[ -f "$pointer" ]]; then
    pg=$(cat "$pointer")
    [[ "$(basename "$pg")" == rvdemo.* ]] || pg=
    stop_server
    rm -f "$pointer"
fi
rm -rf "$demo"
mkdir -p "$demo"
cp -r "$top/examples/installation/." "$demo/"
find "$demo" -type f -exec sed -i "s|@ROOT@|$demo|g; s|@PORT@|$port|g" {} +
mkdir -p "$demo"/{ro/bin,ro/db,rw/work/old_reports,rw/tmp,rw/lgc,rw/glbv}
ln -s "$bin/rv_db" "$demo/ro/bin/rv_db"
ln -s "$bin/oaisql" "$demo/ro/db/oaisql"
touch "$demo/rw/work/old_reports/2025.txt"
# Global variables: the protocol file and the database type.
printf '%s' "$demo/rw/protocol.log" > "$demo/rw/glbv/gv_prot.rgv"
printf 'POSTGRESQL' > "$demo/rw/glbv/gv_db_type.rgv"

pg=$(mktemp -d "${TMPDIR:-/tmp}/rvdemo.XXXXXX")
printf '%s\n' "$pg" > "$pointer"
trap stop_server EXIT
trap 'exit 130' INT TERM HUP
section "starting a throwaway PostgreSQL server (data directory and socket in $pg)"
if [[ $(id -u) -eq 0 ]]; then chown "$server_user:" "$pg"; fi
as_server "$pgbin/initdb" -D "$pg/data" -U postgres -A trust -E UTF8 --locale=C >/dev/null
as_server "$pgbin/pg_ctl" -D "$pg/data" -l "$pg/server.log" -w \
    -o "-k $pg -p $port -c listen_addresses=''" start >/dev/null

export PGHOST="$pg" PGUSER=postgres PGPORT=$port
export RAVIK_INI="$demo/etc/ravik.ini"
psql -q -d postgres -c "create database ravik_db" >/dev/null
psql -q -d ravik_db -v ON_ERROR_STOP=1 -f "$top/examples/ravik_db.sql" >/dev/null

show_tables() {
    for t in media drives jobs params_fix; do
        psql -d ravik_db -P null=NULL -c "select * from $t order by 1" | sed '/^$/d'
    done
}

section "ravik_db before the update (release 1.6.3.20)"
show_tables

cd "$demo"
section "rv_db_update db_backup"
"$bin/rv_db_update" db_backup
echo
section "rv_db_update check (the update script, read for faults: no word when there is none)"
"$bin/rv_db_update" check
section "rv_db_update plan (the steps the update will run; nothing runs yet)"
"$bin/rv_db_update" plan
section "rv_db_update update"
"$bin/rv_db_update" update
section "rv_db_update set_params_fix"
"$bin/rv_db_update" set_params_fix

section "ravik_db after the update (release 1.6.4.71)"
show_tables

section "files"
echo "archive of the schema directory: $demo/ro/downgrade/ravik_db.tar"
echo "export of jobs:                  $demo/rw/work/db_jobs.tmp"
echo "trace file:                      $demo/rw/lgc/rv_db_update.lgc ($(wc -l < "$demo/rw/lgc/rv_db_update.lgc") lines)"
if [[ -f "$demo/rw/protocol.log" ]]; then
    echo "protocol file:                   $demo/rw/protocol.log ($(wc -l < "$demo/rw/protocol.log") lines)"
else
    echo "protocol file:                   $demo/rw/protocol.log (no message: nothing went wrong)"
fi
echo "server log:                      $demo/server.log (kept when the server stops)"
section "demo finished; stopping the server and removing $pg"
