# A private session: folders and a session bus of its own, in one temporary folder. Sourced after common.sh.

users_temporary=${TMPDIR:-/tmp}

# begin_session: makes the folder ($session) and puts it into the environment of everything that is started from here.
begin_session() {
    session=$(cd "$(mktemp -d "$users_temporary/utilia-demo.XXXXXX")" && pwd -P)
    mkdir -p "$session"/{home,config,data/applications,state,cache,system,temporary}
    mkdir -m 0700 "$session/run"
    export HOME=$session/home
    export XDG_RUNTIME_DIR=$session/run XDG_CONFIG_HOME=$session/config XDG_DATA_HOME=$session/data
    export XDG_STATE_HOME=$session/state XDG_CACHE_HOME=$session/cache XDG_DATA_DIRS=$session/system
    export TMPDIR=$session/temporary  # who is killed leaves files there
    export LANGUAGE=en  # what the tools say is compared
    unset DISPLAY WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS
    bus_pid=''
}

# The bus knows no services, so nothing of the machine is started on it.
start_session_bus() {
    cat >"$session/bus.conf" <<BUS
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$session/run/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
BUS
    # It prints its address when it listens, and nothing when it ends instead: either ends the wait.
    local address
    mkfifo "$session/bus-address"
    dbus-daemon --config-file="$session/bus.conf" --nofork --print-address=3 \
        3>"$session/bus-address" >/dev/null 2>"$session/bus.log" &
    bus_pid=$!
    read -r address <"$session/bus-address" || return 1
    export DBUS_SESSION_BUS_ADDRESS=$address
}

stop_session_bus() {
    [[ -n $bus_pid ]] || return 0
    kill "$bus_pid" 2>/dev/null || true
    wait "$bus_pid" 2>/dev/null || true
    bus_pid=''
}

# install_applications BUILD_DIR: the desktop entries by which the applications of this build are found.
install_applications() { cp "$1"/share/applications/*.desktop "$XDG_DATA_HOME/applications/"; }

# The processes that were started in this session, whoever is their parent: tools get a session id of their own.
session_processes() {
    local process
    # Without the variable grep does not find itself. Processes may end while they are looked at.
    env -u XDG_RUNTIME_DIR grep -lzsxF "XDG_RUNTIME_DIR=$session/run" /proc/[0-9]*/environ |
        while IFS=/ read -r _ _ process _; do printf "%s " "$process"; done || true
}

# process_of PROGRAM: of the session's processes the one that runs a program of this file name.
process_of() {
    local process
    for process in $(session_processes); do
        if [[ $(readlink "/proc/$process/exe") == */"$1" ]]; then
            printf '%s' "$process"
            return
        fi
    done
    return 1
}

# processes_end SECONDS [SIGNAL]: whether every process of the session ends in this time. Those that are left are sent the
# signal until they do.
processes_end() {
    local deadline=$((SECONDS + $1)) process left
    while left=$(session_processes) && [[ -n $left ]]; do
        ((SECONDS < deadline)) || return 1
        if [[ -n ${2:-} ]]; then
            for process in $left; do kill "-$2" "$process" 2>/dev/null || true; done
        fi
        sleep 0.1
    done
}

# end_session KEEP: ends every process of the session, in an orderly way when they let us, and removes its folder.
end_session() {
    local keep=$1 process
    for process in $(session_processes); do kill -TERM "$process" 2>/dev/null || true; done
    processes_end 20 || processes_end 60 KILL || complain "processes are left: $(session_processes)"
    wait 2>/dev/null || true
    if [[ $keep == yes ]]; then
        printf '\nThe session'\''s folder is kept: %s\n' "$session"
    else
        rm -rf "$session"
    fi
}
