# Sourced by the shell tests that need an HTTP cache server: nginx with WebDAV PUT on the
# loopback interface, started as a child (not a daemon). start_nginx sets `port` (the store),
# `slow_port` (the same store at one byte per second) and `readonly_port` (the same store, uploads
# refused) and `nginx_pid`; stop_nginx stops it. Needs `work`, a scratch folder.

nginx_pid=""
stop_nginx() {
  if [[ -n $nginx_pid ]]; then
    kill "$nginx_pid" 2>/dev/null
    wait "$nginx_pid" 2>/dev/null
    nginx_pid=""
  fi
}

nginx=$(command -v nginx || echo /usr/sbin/nginx)
if [[ ! -x $nginx ]]; then
  echo "FAIL: nginx is not installed (scripts/install-deps.sh installs nginx-core)"
  exit 1
fi

# A free port: nginx is started on random ports until one listens.
start_nginx() {
  local attempt user_line=""
  [[ $(id -u) -eq 0 ]] && user_line="user root;"
  mkdir -p "$work/store" "$work/temp"
  for attempt in $(seq 1 20); do
    port=$((20000 + RANDOM % 30000))
    slow_port=$((port + 1))
    readonly_port=$((port + 2))
    cat >"$work/nginx.conf" <<CONF
$user_line
worker_processes 1;
daemon off;
pid $work/nginx.pid;
error_log $work/error.log;
events { worker_connections 64; }
http {
  access_log off;
  client_body_temp_path $work/temp/body;
  proxy_temp_path $work/temp/proxy;
  fastcgi_temp_path $work/temp/fastcgi;
  uwsgi_temp_path $work/temp/uwsgi;
  scgi_temp_path $work/temp/scgi;
  client_max_body_size 0;
  server {
    listen 127.0.0.1:$port;
    root $work/store;
    location / {
      dav_methods PUT;
      create_full_put_path on;
      dav_access user:rw group:r all:r;
    }
  }
  # The same store, answering one byte per second: a server too slow to wait for.
  server {
    listen 127.0.0.1:$slow_port;
    root $work/store;
    location / { limit_rate 1; }
  }
  # The same store, read-only: uploads are refused.
  server {
    listen 127.0.0.1:$readonly_port;
    root $work/store;
    location / { limit_except GET { deny all; } }
  }
}
CONF
    "$nginx" -p "$work" -c "$work/nginx.conf" 2>>"$work/start.log" &
    nginx_pid=$!
    for _ in $(seq 1 50); do
      if ! kill -0 "$nginx_pid" 2>/dev/null; then
        break
      fi
      if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && (exec 3<>"/dev/tcp/127.0.0.1/$slow_port") 2>/dev/null &&
        (exec 3<>"/dev/tcp/127.0.0.1/$readonly_port") 2>/dev/null; then
        return 0
      fi
      sleep 0.1
    done
    stop_nginx
  done
  echo "FAIL: nginx did not start"
  cat "$work/start.log" "$work/error.log" 2>/dev/null
  exit 1
}

