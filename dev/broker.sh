#!/bin/bash
# A message broker of its own for tests, measurements and demonstrations: on loopback, in a scratch
# directory, with a port mapper of its own; no service of the machine is touched.
#     broker.sh start DIRECTORY [LINE ...]   LINE: a line of rabbitmq.conf; prints the port
#     broker.sh stop DIRECTORY               ends the node; `start` brings it back with its queues
#     broker.sh kill DIRECTORY               the same by SIGKILL
#     broker.sh pid DIRECTORY                process id of the node
#     broker.sh remove DIRECTORY             ends node and port mapper, removes what they left
# BROKER_NODES="a b c" in the environment of the first start makes DIRECTORY one node of a cluster of
# these names; BROKER_NAME is its own.  Status 3: the broker is not installed here.
set -euo pipefail
server=/usr/lib/rabbitmq/bin/rabbitmq-server
what=$1 dir=$2
shift 2
say() { echo "broker.sh: $*" >&2; }
[ -x "$server" ] || { say "no $server here; dev/setup.sh relay installs it"; exit 3; }

listens() { (: <"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
# The first of three ports in a row at which nothing listens.
free_ports() {
    local port
    while :; do
        port=$((20000 + RANDOM % 4000 * 3))
        listens $port || listens $((port + 1)) || listens $((port + 2)) || { echo "$port"; return; }
    done
}
alive() { [ -n "$1" ] && kill -0 "$1" 2>/dev/null && [ "$(ps -o stat= -p "$1" | cut -c1)" != Z ]; }
node_pid() { cat "$dir/node" 2>/dev/null || true; }

# Settings that stay from start to start.
settle() {
    local name line port
    mkdir -p "$dir"
    port=$(free_ports)
    echo "name=${BROKER_NAME:-halvo$port} port=$port dist=$((port + 1))" \
        "mapper=${BROKER_MAPPER:-$((port + 2))}" >"$dir/settings"
    : "${BROKER_COOKIE:=$(od -An -N8 -tx8 /dev/urandom | tr -d ' ')}"
    printf %s "$BROKER_COOKIE" >"$dir/.erlang.cookie"
    chmod 400 "$dir/.erlang.cookie"
    echo '[].' >"$dir/plugins"
    {
        # The write-ahead log is read again at each start, and held in memory.
        printf '%s\n' 'log.console = false' 'raft.wal_max_size_bytes = 33554432' \
            'disk_free_limit.absolute = 50MB' 'loopback_users = none' "$@"
        if [ -n "${BROKER_NODES-}" ]; then
            echo 'cluster_formation.peer_discovery_backend = classic_config'
            line=0
            for name in $BROKER_NODES; do
                echo "cluster_formation.classic_config.nodes.$((++line)) = $name@localhost"
            done
        fi
    } >"$dir/rabbitmq.conf"
}

start() {
    [ -e "$dir/settings" ] || settle "$@"
    . "$dir/settings"
    rm -f "$dir/pid"
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME="$dir" LC_ALL=C.UTF-8 \
        RABBITMQ_NODENAME="$name@localhost" \
        RABBITMQ_NODE_IP_ADDRESS=127.0.0.1 RABBITMQ_NODE_PORT="$port" RABBITMQ_DIST_PORT="$dist" \
        ERL_EPMD_ADDRESS=127.0.0.1 ERL_EPMD_PORT="$mapper" \
        RABBITMQ_SERVER_ADDITIONAL_ERL_ARGS="-kernel inet_dist_use_interface {127,0,0,1} +sbwt none" \
        RABBITMQ_MNESIA_BASE="$dir/data" RABBITMQ_LOG_BASE="$dir/log" RABBITMQ_PID_FILE="$dir/pid" \
        RABBITMQ_CONFIG_FILE="$dir/rabbitmq.conf" RABBITMQ_ENABLED_PLUGINS_FILE="$dir/plugins" \
        RABBITMQ_CONF_ENV_FILE=/dev/null \
        setsid "$server" >"$dir/out" 2>&1 </dev/null &
    local pid= tries
    for ((tries = 0; tries < 1500; tries++)); do
        sleep 0.1
        pid=$(cat "$dir/pid" 2>/dev/null || true)
        [ -n "$pid" ] || continue
        echo "$pid" >"$dir/node"
        ! listens "$port" || { echo "$port"; return; }
        alive "$pid" || break
    done
    say "the node did not start:"
    tail -n 20 "$dir/out" >&2
    exit 1
}

# Ends the node by a signal, and waits until its process has gone.
end() {
    local pid tries
    pid=$(node_pid)
    alive "$pid" || return 0
    kill "$1" "$pid"
    for ((tries = 0; tries < 300; tries++)); do
        alive "$pid" || return 0
        sleep 0.1
    done
    say "node $pid does not end"
    kill -KILL "$pid"
}

remove() {
    [ -e "$dir/settings" ] || return 0
    . "$dir/settings"
    kill -CONT "$(node_pid)" 2>/dev/null || true # a stopped one would not end
    end -KILL
    # The port mapper is the one with our port in its environment.
    local entry
    for entry in /proc/[0-9]*; do
        [ "$(cat "$entry/comm" 2>/dev/null)" = epmd ] || continue
        { tr "\\0" "\\n" <"$entry/environ"; } 2>/dev/null | grep -qx "ERL_EPMD_PORT=$mapper" || continue
        kill "${entry#/proc/}" 2>/dev/null || true
    done
    rm -rf "$dir"
}

case $what in
start) start "$@" ;;
stop) end -TERM ;;
kill) end -KILL ;;
pid) node_pid ;;
remove) remove ;;
*) say "unknown: $what"; exit 2 ;;
esac
