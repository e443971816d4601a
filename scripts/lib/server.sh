# Sourced by the scripts: start_server TRANSPORT starts the bundled test MMS
# server (mmst or mmsh) on loopback in the background and sets URL to what it
# serves; stop_servers (run it on exit) stops every server started so.
# Needs SERVER (the halvarine-mms-server binary) and a scratch folder OUT.
SERVER_PIDS=()

stop_servers() {
  local pid
  for pid in "${SERVER_PIDS[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  SERVER_PIDS=()
}

start_server() {
  local transport=$1 urlfile="$OUT/server-$1.url"
  : >"$urlfile"
  "$SERVER" --transport "$transport" --address 127.0.0.1 >"$urlfile" 2>/dev/null &
  SERVER_PIDS+=("$!")
  for _ in $(seq 100); do
    [ -s "$urlfile" ] && break
    sleep 0.05
  done
  URL=$(head -n 1 "$urlfile")
  rm -f "$urlfile"
  [ -n "$URL" ] || { echo "the $transport test server did not start" >&2; exit 1; }
}
