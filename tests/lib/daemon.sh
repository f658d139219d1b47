# The daemon as a program that the shell checks start: a free port, the wait
# for its first HTTPS answer, a login and a read, and its stop.  Sourced; the
# caller sets $tmp (its temporary directory, the daemon's *.out files in it)
# and $pid (the daemon's), and defines fail().

# A port nobody listens on, below the range of the system's own ephemeral
# ports so that no client connection holds it either.
free_port() {
    local p
    while :; do
        p=$(( 12000 + RANDOM % 20000 ))
        (exec 3<>/dev/tcp/127.0.0.1/$p) 2>/dev/null || { echo $p; return; }
    done
}
# Waits for the HTTPS answer of the daemon $pid on port $1, verifying the
# certificate of device root $2.
wait_served() {
    for _ in $(seq 300); do
        kill -0 "$pid" 2>/dev/null || { tail -5 "$tmp"/*.out >&2; fail "the daemon exited"; }
        curl -sS --cacert "$2/data/CA/newreq.crt" -o /dev/null \
             "https://localhost:$1/api/v1/MethodList" 2>/dev/null && return 0
        sleep 0.1
    done
    fail "no HTTPS answer on port $1"
}
login_and_read() {
    local port=$1 root=$2 jar=$tmp/jar
    curl -sS --cacert "$root/data/CA/newreq.crt" -c "$jar" \
         -d '{"username":"admin","password":"1234abcd"}' \
         "https://localhost:$port/api/v1/UserLogin" | grep -q '"sessionkey"' || fail "login failed"
    curl -sS --cacert "$root/data/CA/newreq.crt" -b "$jar" \
         "https://localhost:$port/api/v1/TR181/Value/Device.DeviceInfo." |
        grep -q '"ModelName"' || fail "read failed"
}
stop_daemon() {
    kill -TERM "$pid"
    wait "$pid" || fail "the daemon did not stop cleanly"
    pid=
}
