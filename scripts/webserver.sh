#!/bin/bash
# webserver.sh start KIND ROOT CGI_PROGRAM HTTP_PORT | stop ROOT
#
# Serves the gateway from a web root laid out by webroot.sh (cgi-bin/webquorvel beside
# htdocs/ with tmp/ and icons/) through a real web server on 127.0.0.1:HTTP_PORT, as the
# README's deployment recipes describe, KIND being one of:
#   lighttpd  mod_cgi                       (ROOT/lighttpd.conf)
#   apache    Apache with mod_cgid          (ROOT/apache.conf)
#   nginx     nginx + fcgiwrap on a socket  (ROOT/nginx.conf, ROOT/log/fcgiwrap.sock)
# Every server logs its requests to ROOT/log/access.log and its errors below ROOT/log/.
# "start" returns once the server listens (status 0) or fails with its error log;
# "stop" ends whatever "start" started there. Started as root, Apache runs the CGI as
# www-data (Apache refuses to serve as root), so the tree is opened to that user.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"

listening() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

stop() {
  local root=$1 f pid
  for f in "$root"/log/*.pid; do
    [ -s "$f" ] || continue
    pid=$(tr -dc 0-9 <"$f")
    [ -n "$pid" ] && kill "$pid" 2>/dev/null || true
  done
  rm -f "$root"/log/*.pid
}

apache_conf() {
  local root=$1 port=$2 mods=/usr/lib/apache2/modules m
  {
    echo "ServerName 127.0.0.1"
    echo "Listen 127.0.0.1:$port"
    echo "PidFile $root/log/apache.pid"
    echo "ErrorLog $root/log/apache-error.log"
    for m in mpm_event authz_core alias cgid mime dir; do
      echo "LoadModule ${m}_module $mods/mod_$m.so"
    done
    [ "$(id -u)" = 0 ] && printf 'User www-data\nGroup www-data\n'
    echo "ScriptSock $root/log/cgid.sock"
    echo "TypesConfig /etc/mime.types"
    echo 'LogFormat "%h %l %u %t \"%r\" %>s %b" common'
    echo "CustomLog $root/log/access.log common"
    echo "DocumentRoot $root/htdocs"
    echo "<Directory \"$root/htdocs\">"
    echo "    Require all granted"
    echo "</Directory>"
    echo "ScriptAlias /cgi-bin/ $root/cgi-bin/"
    echo "<Directory \"$root/cgi-bin\">"
    echo "    Options +ExecCGI"
    echo "    Require all granted"
    echo "</Directory>"
  } >"$root/apache.conf"
}

nginx_conf() {
  local root=$1 port=$2
  cat >"$root/nginx.conf" <<CONF
$([ "$(id -u)" = 0 ] && echo "user root;")
daemon on;
pid $root/log/nginx.pid;
error_log $root/log/nginx-error.log;
events { worker_connections 64; }
http {
  include /etc/nginx/mime.types;
  access_log $root/log/access.log;
  client_body_temp_path $root/log/body;
  fastcgi_temp_path $root/log/fastcgi;
  server {
    listen 127.0.0.1:$port;
    root $root/htdocs;
    location /cgi-bin/ {
      gzip off;
      include /etc/nginx/fastcgi_params;
      fastcgi_param SCRIPT_FILENAME $root\$fastcgi_script_name;
      fastcgi_pass unix:$root/log/fcgiwrap.sock;
    }
  }
}
CONF
}

await() {
  local port=$1 log=$2 i
  for i in $(seq 100); do
    listening "$port" && return 0
    sleep 0.05
  done
  echo "webserver.sh: nothing listens on port $port" >&2
  cat "$log" >&2 2>/dev/null || true
  return 1
}

start() {
  local kind=$1 root=$2 program=$3 port=$4
  bash "$here/webroot.sh" "$root" "$program" "$port"
  root=$(cd "$root" && pwd)
  case $kind in
    lighttpd)
      # webroot.sh wrote the configuration; log requests too.
      sed -i 's/^server.modules *= ("mod_alias", "mod_cgi")/server.modules = ("mod_alias", "mod_cgi", "mod_accesslog")/' \
        "$root/lighttpd.conf"
      echo "accesslog.filename = \"$root/log/access.log\"" >>"$root/lighttpd.conf"
      lighttpd -f "$root/lighttpd.conf"
      await "$port" "$root/log/error.log" ;;
    apache)
      apache_conf "$root" "$port"
      if [ "$(id -u)" = 0 ]; then
        chmod 0755 "$root" "$root/cgi-bin" "$root/htdocs"
        chown -R www-data:www-data "$root/htdocs"
      fi
      apache2 -f "$root/apache.conf" -k start
      await "$port" "$root/log/apache-error.log" ;;
    nginx)
      nginx_conf "$root" "$port"
      mkdir -p "$root/log/body" "$root/log/fastcgi"
      rm -f "$root/log/fcgiwrap.sock"
      # fcgiwrap has no daemon mode: it runs in the background, its pid kept for stop.
      fcgiwrap -s "unix:$root/log/fcgiwrap.sock" >>"$root/log/fcgiwrap.log" 2>&1 &
      echo $! >"$root/log/fcgiwrap.pid"
      nginx -c "$root/nginx.conf" -p "$root/log" 2>>"$root/log/nginx-error.log"
      await "$port" "$root/log/nginx-error.log" ;;
    *) echo "webserver.sh: unknown server '$kind'" >&2; return 2 ;;
  esac
}

case "${1:-}" in
  start) [ $# -eq 5 ] || { echo "usage: webserver.sh start KIND ROOT CGI_PROGRAM HTTP_PORT" >&2; exit 2; }
         start "$2" "$3" "$4" "$5" ;;
  stop)  [ $# -eq 2 ] || { echo "usage: webserver.sh stop ROOT" >&2; exit 2; }
         stop "$2" ;;
  *) echo "usage: webserver.sh start KIND ROOT CGI_PROGRAM HTTP_PORT | stop ROOT" >&2; exit 2 ;;
esac
