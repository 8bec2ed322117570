# What the demo shows on a desktop: the agent in a real panel, its menu and its window. Sourced by scripts/demo after
# acts.sh, whose words it uses; $desktop_agent is the agent's program, $screenshots the folder for pictures. The agent's
# lines are those of "utiliactl watch", which follows what it publishes.

# reach WHAT COMMAND…: waits until the command succeeds.
reach() {
    local what=$1 deadline=$((SECONDS + patience))
    shift
    until "$@" >/dev/null; do
        ((SECONDS < deadline)) || failed "$what"
        sleep 0.05
    done
    passed "$what"
}

# meanwhile COMMAND…: the same for what is not worth a line.
meanwhile() {
    local deadline=$((SECONDS + patience))
    until "$@" >/dev/null; do
        ((SECONDS < deadline)) || failed "$*"
        sleep 0.05
    done
}

does() { printf '%s   you   |%s %s\n' "$cyan" "$plain" "$*"; }

# click_icon BUTTON: 1 is the left one, 3 the right one.
click_icon() {
    meanwhile icon_is_still
    # shellcheck disable=SC2086 # two numbers
    xdotool mousemove $icon click "$1"
}

open_menu() {
    does "click on the icon with the right button"
    click_icon 3
    meanwhile menu_window
}

# choose_from_menu WHAT KEY…: opens the menu, and takes the entry that the keys lead to.
choose_from_menu() {
    open_menu
    does "choose $1"
    shift
    xdotool key --delay 20 "$@" Return
    meanwhile no_menu
}

open_window() {
    meanwhile agent_window
    meanwhile has_keyboard "$(agent_window)"
}

# photograph_everything light|dark: the whole desktop with window and menu, each of them alone, and the settings.
photograph_everything() {
    local window menu_width menu_height menu_left menu_top
    choose_from_menu "Show Window" Up Up Up
    open_window
    window=$(agent_window)
    xdotool windowmove --sync "$window" 60 84 mousemove 20 $((screen_height - 20))
    photograph "window-$1" "$(frame_geometry "$window" 16)"

    open_menu
    photograph "desktop-$1"
    IFS='x+' read -r menu_width menu_height menu_left menu_top <<<"$(geometry "$(menu_window)")"
    menu_left=$((menu_left - 24))
    photograph "menu-$1" "$((screen_width - menu_left))x$((menu_top + menu_height + 24))+$menu_left+0"
    xdotool key Escape
    meanwhile no_menu

    choose_from_menu "Settings…" Up Up
    xdotool mousemove 20 $((screen_height - 20))
    photograph "settings-$1" "$(frame_geometry "$window" 16)"
}

# ---- the acts

# agent_version: of its bundle, such as 1.0.0-0.
agent_version() {
    tr -d '\n' <"${desktop_agent%/Linux/*}/Info.plist" |
        sed -E 's|.*<key>CFBundleShortVersionString</key> *<string>([^<]*).*|\1-0|'
}

news='The first version: an agent for the panel, with Keep Awake, Moon Phase, Screen Capture and Timer.'

show_the_icon() {
    heading "The agent in a panel"
    say "The agent starts. The tools are found by their desktop entries; none runs yet."
    "$build_dir/bin/utiliactl" watch >"$session/agent" 2>>"$session/log" &
    expect "nothing is published yet" '^The agent does not run\.$'
    # As an updater does.
    "$build_dir/bin/utiliactl" descriptions save "$(agent_version)" --language en="$news" || failed "the news are saved"
    "$desktop_agent" 2>>"$session/log" &
    agent_pid=$!
    expect "the agent publishes what it knows of the tools" '^off +Keep Awake$' '^off +Moon Phase$' '^off +Screen Capture$' \
        '^off +Timer$'
    reach "its icon is in the panel" icon_place

    say "A click opens its window."
    does "click on the icon"
    click_icon 1
    open_window
    passed "the window is open"
}

show_the_menu() {
    heading "Tools from menu and window"
    say "Tools are started from the menu: Keep Awake, which is permanent, and Moon Phase."
    choose_from_menu "Keep Awake" Down
    expect "Keep Awake keeps the computer awake" '^permanent +Keep Awake +On$'
    choose_from_menu "Moon Phase" Down Down
    expect "Moon Phase shows the moon" '^active +Moon Phase +.* % lit$'

    say "And from the window: Timer, the last one of the list."
    choose_from_menu "Show Window" Up Up Up
    open_window
    does "End, Return"
    xdotool key --delay 20 End Return
    # Seconds may be missed, but neither all even ones nor all odd ones.
    expect "Timer changes its text" '^permanent +Timer +[0-9:]*[02468]$' '^permanent +Timer +[0-9:]*[13579]$'

    say "Screenshots in light colours."
    photograph_everything light
    passed "window, menu and settings are seen"
}

show_the_dark() {
    heading "A new panel, in the dark"
    say "The desktop turns dark: the panel is killed, and comes again; the window follows while it is open."
    catch_up
    kill_desktop
    meanwhile no_panel
    reach "the icon is gone" no_icon
    printf 'dark\n' >&"$colors"
    start_desktop dark || failed "the desktop starts again"
    reach "the icon is back" icon_place
    reach "the window is dark" is_dark "$(agent_window)"

    say "Timer is held by a second start of it, and Keep Awake turned off from the menu. Both are permanent."
    catch_up
    typed timer hold
    timeout "$patience" "$timer" hold || failed "the second start ended with status $?"
    expect "Timer holds" '^permanent +Timer +[0-9:]+ \(held\)$'
    choose_from_menu "Keep Awake" Down
    expect "Keep Awake is off" '^permanent +Keep Awake +Off$'

    say "Timer ends, and stays listed with what it last said. The next click on it starts it."
    catch_up
    does "end Timer"
    kill -TERM "$(process_of timer)"
    expect "Timer is listed while it does not run" '^off +Timer +[0-9:]+ \(held\)$'
    choose_from_menu "Timer" Down Down Down Down
    expect "Timer runs again, with that" '^permanent +Timer +[0-9:]+ \(held\)$'

    say "Screenshots in dark colours."
    photograph_everything dark
    passed "window, menu and settings are seen"
}

show_the_quitting() {
    heading "The end"
    choose_from_menu "Quit Korvane Utilia" Up
    wait "$agent_pid" || failed "the agent ended with status $?"
    expect "the agent is gone" '^The agent does not run\.$'
    reach "and so is its icon" no_icon
}

# All of it, in a shell of its own, which may be ended at any line. Leaves the number of checks in $session/checks.
show_desktop() {
    trap - EXIT INT TERM HUP
    exec {agent_output}<>"$session/agent"
    start_services || failed "the desktop's services start"
    start_desktop light || failed "the desktop starts"
    show_the_icon
    show_the_menu
    show_the_dark
    show_the_quitting
    printf '%d' "$checks" >"$session/checks"
}
