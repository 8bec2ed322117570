# The demo on the display of whoever runs it. Sourced after session.sh.

# remember_display: what begin_session takes away.
remember_display() {
    local runtime=${XDG_RUNTIME_DIR:-/run/user/$UID}
    users_display=${DISPLAY:-} users_wayland=${WAYLAND_DISPLAY:-}
    users_authority=${XAUTHORITY:-${HOME:-}/.Xauthority}
    users_bus=${DBUS_SESSION_BUS_ADDRESS:-}
    # In a session of the demo's these are not found by themselves.
    [[ -z $users_wayland || $users_wayland == /* ]] || users_wayland=$runtime/$users_wayland
    if [[ -z $users_bus && -S $runtime/bus ]]; then users_bus=unix:path=$runtime/bus; fi
}

has_display() { [[ -n $users_display$users_wayland ]]; }

# take_users_display: display and session bus, in the demo's session.
take_users_display() {
    [[ -z $users_display ]] || export DISPLAY=$users_display
    [[ -z $users_wayland ]] || export WAYLAND_DISPLAY=$users_wayland
    [[ ! -e $users_authority ]] || export XAUTHORITY=$users_authority
    [[ -z $users_bus ]] || export DBUS_SESSION_BUS_ADDRESS=$users_bus
    unset LANGUAGE  # nothing is compared here
}

# show_to_user: until the agent is quit, or the user has seen enough. False when the display cannot be used.
show_to_user() {
    local agent_pid status=0
    "$desktop_agent" --show-ui 2>>"$session/log" &
    agent_pid=$!
    cat <<WORDS

Korvane Utilia's window opens, and its icon appears in your panel, if that shows status icons.
  - Start Keep Awake, Moon Phase or Timer with a double click in the window, or from the icon's menu
    (right button, in most panels), and watch their texts and icons.
  - Keep Awake and Timer are permanent: they stay listed when they are turned off.
  - Screen Capture asks your desktop for a picture of the screen.
  - The settings show what would be reported of all this; nothing is.

It ends when you choose "Quit Korvane Utilia" from the menu$([[ ! -t 0 ]] || printf ', or press Return here').
WORDS
    # No "read -t" here: bash may crash when a trap leaves it.
    if [[ -t 0 ]]; then
        head -n 1 <&0 >/dev/null &
        wait -n "$agent_pid" $! || true
    else
        wait "$agent_pid" || true
    fi
    kill -TERM "$agent_pid" 2>/dev/null || true
    wait "$agent_pid" || status=$?
    [[ ! -s $session/log ]] || sed 's/^/   agent | /' "$session/log"
    ((status != 1))
}
