# A desktop of the demo's own, on a display that nobody sees: an X server with a window manager and a real panel that hosts
# status icons (Xfce's). Sourced after session.sh; everything lies in $session and ends with it.

screen_width=960 screen_height=620 panel_height=32

# start_display: an X server that only who has its key can open. How its user likes windows elsewhere does not count.
start_display() {
    local number
    unset "${!QT_@}" "${!GTK_@}" "${!GDK_@}" XDG_CURRENT_DESKTOP XDG_SESSION_TYPE XDG_SESSION_ID
    {
        # Any address, any display: its number is known later.
        printf '\377\377\0\0\0\0\0\022MIT-MAGIC-COOKIE-1\0\020'
        head -c 16 /dev/urandom
    } >"$session/Xauthority"
    mkfifo "$session/display-number"
    Xvfb -displayfd 3 -auth "$session/Xauthority" -screen 0 "${screen_width}x${screen_height}x24" -nolisten tcp -noreset \
        3>"$session/display-number" >/dev/null 2>"$session/display.log" &
    read -r number <"$session/display-number" || return 1
    export DISPLAY=:$number XAUTHORITY=$session/Xauthority
}

# as_desktop COMMAND…: becomes it. The desktop's programs find the system's icons and colours; ours find the session's only.
as_desktop() { exec env -u XDG_DATA_DIRS -u XDG_CONFIG_DIRS NO_AT_BRIDGE=1 "$@"; }

# start_services: what else a desktop has; told of the colours through $session/colors.
start_services() {
    export DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS
    mkfifo "$session/colors"
    exec {colors}<>"$session/colors"
    /usr/bin/python3 "$project_root/scripts/lib/desktop-services" <"$session/colors" 2>"$session/services.log" &
    gdbus wait --session --timeout "$patience" org.freedesktop.login1
}

# start_desktop light|dark: background, window manager and panel. Those that ran before must have ended.
start_desktop() {
    local scheme=$1 is_dark=false top='#7da3c9' bottom='#c9d8e6'
    if [[ $scheme == dark ]]; then is_dark=true top='#16202e' bottom='#2c3f57'; fi
    mkdir -p "$XDG_CONFIG_HOME/gtk-3.0" "$XDG_CONFIG_HOME/xfce4/xfconf/xfce-perchannel-xml"
    cat >"$XDG_CONFIG_HOME/gtk-3.0/settings.ini" <<SETTINGS
[Settings]
gtk-theme-name=Adwaita
gtk-icon-theme-name=Adwaita
gtk-font-name=Sans 10
gtk-application-prefer-dark-theme=$is_dark
SETTINGS
    cat >"$XDG_CONFIG_HOME/xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml" <<PANEL
<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="dark-mode" type="bool" value="$is_dark"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="length" type="uint" value="100"/>
      <property name="position-locked" type="bool" value="true"/>
      <property name="size" type="uint" value="$panel_height"/>
      <property name="plugin-ids" type="array">
        <value type="int" value="1"/>
        <value type="int" value="2"/>
        <value type="int" value="3"/>
        <value type="int" value="4"/>
      </property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="tasklist">
      <property name="show-handle" type="bool" value="false"/>
    </property>
    <property name="plugin-2" type="string" value="separator">
      <property name="expand" type="bool" value="true"/>
      <property name="style" type="uint" value="0"/>
    </property>
    <property name="plugin-3" type="string" value="clock">
      <property name="digital-layout" type="uint" value="3"/>
      <property name="digital-time-font" type="string" value="Sans 10"/>
    </property>
    <property name="plugin-4" type="string" value="systray"/>
  </property>
</channel>
PANEL
    hsetroot -add "$top" -add "$bottom" -gradient 0 >/dev/null
    as_desktop "$(sed -n 's/^Exec=//p' /usr/share/dbus-1/services/org.xfce.Xfconf.service)" >>"$session/desktop.log" 2>&1 &
    desktop=($!)
    gdbus wait --session --timeout "$patience" org.xfce.Xfconf || return 1
    as_desktop xfwm4 --compositor=on >>"$session/desktop.log" 2>&1 &
    desktop+=($!)
    as_desktop xfce4-panel --disable-wm-check >>"$session/desktop.log" 2>&1 &
    desktop+=($!)
    meanwhile has_window_manager
    gdbus wait --session --timeout "$patience" org.kde.StatusNotifierWatcher
}

# Of a window manager that was killed the root window still names a window, which is none of the next one's until that one
# says so.
has_window_manager() {
    local window
    window=$(xprop -root -notype _NET_SUPPORTING_WM_CHECK 2>/dev/null) &&
        [[ $(xprop -id "${window##* }" -notype _NET_WM_NAME 2>/dev/null) == *Xfwm4* ]]
}

# As nobody can refuse.
kill_desktop() {
    kill -KILL "${desktop[@]}"
    wait "${desktop[@]}" 2>/dev/null || true
}

# ---- what its user does and sees

# icon_place: the middle of the status icon, as "X Y"; false while there is none.
icon_place() {
    local id
    for id in $(xdotool search --onlyvisible --class '^wrapper-' 2>/dev/null); do
        xwininfo -id "$id" 2>/dev/null | awk -v height="$panel_height" '
            /Absolute upper-left X/ { x = $NF }
            /Absolute upper-left Y/ { y = $NF }
            /Width:/ { w = $NF }
            /Height:/ { h = $NF }
            END { if (y > 0 || h < height - 4 || w < 16) exit 1; print int(x + w / 2), int(y + h / 2) }' && return
    done
    return 1
}

# The panel moves what is in it for a while when something is added; but for the icon, which is the last thing in it. Leaves
# its place in $icon.
icon_is_still() {
    local before now=''
    icon=''
    before=$(icon_place) && import -silent -window root -crop "${screen_width}x$panel_height+0+0" "$session/before.ppm" &&
        now=$(icon_place) && import -silent -window root -crop "${screen_width}x$panel_height+0+0" "$session/now.ppm" &&
        [[ $now == "$before" ]] && cmp -s "$session/before.ppm" "$session/now.ppm" && icon=$now
}

no_icon() { ! icon_place >/dev/null; }

# The place for status icons runs in a process of its own, which ends a moment after the panel.
no_panel() {
    [[ $(gdbus call --session --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
        --method org.freedesktop.DBus.NameHasOwner org.kde.StatusNotifierWatcher) == "(false,)" ]]
}

# The menu of the panel that is open: its window, which no window manager knows.
menu_window() { xdotool search --maxdepth 1 --onlyvisible --class '^wrapper-' 2>/dev/null | grep .; }
no_menu() { ! menu_window >/dev/null; }

agent_window() { xdotool search --onlyvisible --name '^Korvane Utilia$' 2>/dev/null | grep .; }
has_keyboard() { [[ $(xdotool getwindowfocus 2>/dev/null) == "$1" ]]; }

# Whether more of the window is dark than light.
is_dark() { [[ $(import -silent -window "$1" -format '%[fx:mean<0.4]' info:-) == 1 ]]; }

# geometry ID: WIDTHxHEIGHT+X+Y on the screen.
geometry() {
    xwininfo -id "$1" | awk '/Absolute upper-left X/ { x = $NF } /Absolute upper-left Y/ { y = $NF }
        /Width:/ { w = $NF } /Height:/ { h = $NF } END { printf "%dx%d+%d+%d", w, h, x, y }'
}

# frame_geometry ID MARGIN: with the window manager's frame, and a margin around it.
frame_geometry() {
    local w h x y left right top bottom m=$2
    IFS='x+' read -r w h x y <<<"$(geometry "$1")"
    IFS=', ' read -r left right top bottom <<<"$(xprop -id "$1" _NET_FRAME_EXTENTS | sed 's/.*= //')"
    printf '%dx%d+%d+%d' $((w + left + right + 2 * m)) $((h + top + bottom + 2 * m)) $((x - left - m)) $((y - top - m))
}

# photograph NAME [GEOMETRY]: the screen, or a part of it, as soon as it keeps still, into the folder of screenshots.
photograph() {
    local before now='' tries
    for ((tries = 0; tries < 40; tries++)); do
        before=$now
        import -silent -window root -depth 8 "$session/screen.ppm"
        now=$(cksum <"$session/screen.ppm")
        [[ $now != "$before" ]] || break
    done
    convert "$session/screen.ppm" ${2:+-crop "$2" +repage} "$screenshots/$1.png"
    printf '   picture | %s\n' "$screenshots/$1.png"
}
