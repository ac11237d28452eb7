#!/bin/sh
# postgres.sh: a PostgreSQL server of Debian's for as long as somebody keeps its standard input open, on a Unix socket
# in a folder of its own. Prints that folder when it can be connected to as user kep, database postgres. Each line
# "stop" or "start" is done and then answered by itself. Without PostgreSQL it prints nothing.
set -eu
bin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -n 1)
[ -x "$bin/initdb" ] || exit 0

dir=$(mktemp -d /tmp/kep-postgres.XXXXXX)
as_user() { "$@"; }
if [ "$(id -u)" -eq 0 ]; then # which PostgreSQL refuses to run as
  chown postgres "$dir"
  as_user() { runuser -u postgres -- "$@"; }
fi
control() { (cd / && as_user "$bin/pg_ctl" -D "$dir/data" -w "$@") >>"$dir/log" 2>&1 </dev/null; }
start() { control -l "$dir/server.log" -o "-k '$dir' -c listen_addresses='' -c fsync=off" start; }
trap 'control -m immediate stop || :; rm -rf "$dir"' EXIT
trap 'exit 1' HUP INT TERM

touch "$dir/log" "$dir/server.log"
chmod 666 "$dir/log" "$dir/server.log"
as_user "$bin/initdb" -D "$dir/data" -U kep -A trust -E UTF8 --no-locale --no-sync >>"$dir/log" 2>&1
start || { cat "$dir/log" "$dir/server.log" >&2; exit 1; }
chmod 755 "$dir"
echo "$dir"
while read -r line; do
  case $line in
    stop) control -m immediate stop ;;
    start) start ;;
  esac
  echo "$line"
done
