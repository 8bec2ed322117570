# What the demo shows, act by act, and how it is told. Sourced by scripts/demo, which has built everything and begun the
# session: $agent and $moon_phase are the programs, $session/agent is the pipe that the agent prints into.

# Seconds that anything may take before it counts as not happening. Only reached when something is wrong.
patience=60
checks=0
caught_up='(caught up)'
last_text=''           # Timer's menu text, as the agent last printed it
declare -A process=()  # of each tool, likewise

# quoted WORD…: as somebody would type them.
quoted() {
    local word words=()
    for word in "$@"; do
        [[ $word == *' '* ]] && word="\"$word\""
        words+=("$word")
    done
    printf '%s' "${words[*]}"
}

typed() { printf '%s   you   |%s %s\n' "$cyan" "$plain" "$(quoted "$@")"; }

# One line of what is going on.
say() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }

passed() {
    checks=$((checks + 1))
    printf '%s   ok  %s%s\n' "$green" "$*" "$plain"
}

failed() {
    printf '%s   NOT AS EXPECTED  %s%s\n' "$red" "$*" "$plain"
    if [[ -s $session/log ]]; then
        printf '\nLog lines of the agent:\n'
        cat "$session/log"
    fi
    printf '\n%sThe demo stopped after %d things that went well.%s\n' "$red" "$checks" "$plain"
    exit 1
}

# next_line DEADLINE: the agent's next line, shown and put in $line; false when there is none in time. The agent
# prints when it is told something, so nothing here asks again and again.
next_line() {
    local left=$(($1 - SECONDS))
    ((left > 0)) || return 1
    IFS= read -r -t "$left" -u "$agent_output" line || return 1
    [[ $line != "$caught_up" ]] || return 0
    printf '%s   agent |%s %s\n' "$cyan" "$plain" "$line"
    if [[ $line =~ Timer\ +menu\ text\ +\"(.*)\" ]]; then last_text=${BASH_REMATCH[1]}; fi
    if [[ $line =~ ([A-Z][A-Za-z ]*[a-z])\ +port\ +reached,\ process\ ([0-9]+)$ ]]; then
        process[${BASH_REMATCH[1]}]=${BASH_REMATCH[2]}
    fi
}

# expect WHAT PATTERN…: shows lines until each of the patterns has matched one of them, in any order.
expect() {
    local what=$1 line i
    shift
    local wanted=("$@") deadline=$((SECONDS + patience))
    while ((${#wanted[@]})); do
        next_line "$deadline" || failed "$what (missing: ${wanted[*]})"
        for i in "${!wanted[@]}"; do
            if [[ $line =~ ${wanted[i]} ]]; then
                unset 'wanted[i]'
                break
            fi
        done
    done
    passed "$what"
}

# pattern TOOL PROPERTY VALUE: matches the agent's line with exactly that.
pattern() { printf '%s +%s +%s$' "$1" "$2" "$3"; }

# exactly TEXT: a pattern for a menu text that is exactly this.
exactly() { printf '"%s"' "$(sed 's/[()]/\\&/g' <<<"$1")"; }

# Of a text that changes each second any one may be missed, but neither all even ones nor all odd ones.
even_text='"[0-9:]*[02468]"' odd_text='"[0-9:]*[13579]"'

# seconds_of TEXT: 65 of Timer's text "1:05", also when it is held.
seconds_of() {
    local minutes seconds
    IFS=': ' read -r minutes seconds _ <<<"$1"
    printf '%d' $((10#$minutes * 60 + 10#$seconds))
}

# has_counted_from BEGIN SINCE: whether Timer's last text can be that of one which counts from BEGIN, and began to at the
# earliest when $SECONDS was SINCE.
has_counted_from() {
    local count
    count=$(seconds_of "$last_text")
    ((count >= $1 && count <= $1 + SECONDS - $2 + 1))
}

start_agent() {
    catch_up
    "$agent" >"$session/agent" 2>>"$session/log" &
    agent_pid=$!
}

# Shows what the agent has printed so far, so that what is expected next is only met by what it prints from here on.
catch_up() {
    local line deadline=$((SECONDS + patience))
    printf '%s\n' "$caught_up" >&"$agent_output"
    while next_line "$deadline" && [[ $line != "$caught_up" ]]; do :; done
}

# A second start of the agent's program, which hands its arguments to the running one and ends.
tell_agent() {
    catch_up
    typed korvane-utilia-terminal "$@"
    timeout "$patience" "$agent" "$@" || failed "korvane-utilia-terminal $* ended with status $?"
}

# control ARGUMENT…: runs the control program, shows what it prints, and keeps it in $printed.
control() {
    typed utiliactl "$@"
    printed=$("$build_dir/bin/utiliactl" "$@") || failed "utiliactl $* ended with status $?"
    sed 's/^/         | /' <<<"$printed"
}

# kill_tool TOOL: as nobody can refuse.
kill_tool() {
    catch_up
    typed kill -KILL "${process[$1]}"
    kill -KILL "${process[$1]}"
}

# ---- the acts

show_the_channel() {
    heading "The agent and its tools"
    say "The agent starts. It finds the tools by their desktop entries; neither runs yet."
    start_agent
    expect "the agent watches both tools" 'watching Timer at .*/Timer\.app$' 'watching Moon Phase at .*/Moon Phase\.app$'
    tell_agent show
    expect "it knows nothing of them" \
        "$(pattern Timer status inactive)" "$(pattern Timer 'menu text' none)" \
        "$(pattern 'Moon Phase' status inactive)" "$(pattern 'Moon Phase' 'menu text' none)"

    say "Both tools are launched. They tell the agent who they are; it asks for their icons and texts."
    tell_agent launch Timer
    expect "the agent shows status, icons and text of Timer" \
        "$(pattern Timer port 'reached, process [0-9]+')" "$(pattern Timer status permanent)" \
        "$(pattern Timer 'tool icon' '32x32, 64x64, 128x128')" "$(pattern Timer 'menu icon' '16x16, 32x32 \(template\)')" \
        "$(pattern Timer 'menu text' '"[0-9:]+"')"
    tell_agent launch "Moon Phase"
    expect "and of Moon Phase, whose menu icon is a template" \
        "$(pattern 'Moon Phase' port 'reached, process [0-9]+')" "$(pattern 'Moon Phase' status active)" \
        "$(pattern 'Moon Phase' 'tool icon' '32x32, 64x64, 128x128')" \
        "$(pattern 'Moon Phase' 'menu icon' '16x16, 32x32 \(template\)')" \
        "$(pattern 'Moon Phase' 'menu text' '".* % lit"')"

    say "Timer changes its menu text each second."
    expect "the agent follows" "$(pattern Timer 'menu text' '"[0-9:]+"')" \
        "$(pattern Timer 'menu text' '"[0-9:]+"')" "$(pattern Timer 'menu text' '"[0-9:]+"')"

    say "What the machine knows of this: registered ports with their owners."
    control ports
    [[ $(grep -c '^live ' <<<"$printed") == 6 && $printed != *stale* ]] || failed "there are six ports, and all live"
    passed "six ports: the channel's three, and one of each application for its second starts"
}

show_commands() {
    heading "Commands"
    say "The agent asks Moon Phase for its status."
    tell_agent status "Moon Phase"
    expect "Moon Phase answers" "$(pattern 'Moon Phase' status active)"

    say "Clicks on the menu icons. Timer holds and goes on; Moon Phase, without a block for clicks, takes its click as a reopen."
    tell_agent click Timer
    expect "Timer holds" "$(pattern Timer 'menu text' '"[0-9:]+ \(held\)"')"
    tell_agent click Timer
    expect "Timer goes on" "$(pattern Timer 'menu text' '"[0-9:]+"')"
    tell_agent click "Moon Phase"
    expect "Moon Phase turns over" "$(pattern 'Moon Phase' 'menu text' '"Full moon (in [0-9]+ days|tomorrow|today)"')"

    say "Moon Phase is started a second time: the running one is reopened, and the second ends."
    typed moon-phase
    timeout "$patience" "$moon_phase" || failed "the second start ended with status $?"
    expect "Moon Phase turns back" "$(pattern 'Moon Phase' 'menu text' '".* % lit"')"
}

show_sudden_deaths() {
    heading "Sudden deaths"
    say "Moon Phase is killed. It was active, and cannot be any more."
    kill_tool "Moon Phase"
    expect "Moon Phase is inactive" "$(pattern 'Moon Phase' port 'not reached')" "$(pattern 'Moon Phase' status inactive)"

    say "Timer is killed. It is permanent, but never ended in an orderly way, so nothing is stored: its last words stay."
    kill_tool Timer
    expect "the agent notices" "$(pattern Timer port 'not reached')"
    kept=$last_text
    tell_agent show Timer
    expect "Timer is shown as it last was, at $kept" \
        "$(pattern Timer status permanent)" "$(pattern Timer 'menu text' "$(exactly "$kept")")"
}

show_what_outlives_a_tool() {
    heading "What outlives a tool"
    say "Timer starts anew, and counts from nothing."
    local launched=$SECONDS clicked
    tell_agent launch Timer
    expect "Timer is shown again" "$(pattern Timer port 'reached, process [0-9]+')" "$(pattern Timer 'menu text' '"[0-9:]+"')"
    has_counted_from 0 "$launched" || failed "Timer counts from nothing, not from $kept"
    expect "Timer counts" "$(pattern Timer 'menu text' "$even_text")" "$(pattern Timer 'menu text' "$odd_text")"

    say "It is held by a click, and turned off. It stores its text and icons before it ends."
    tell_agent click Timer
    expect "Timer holds" "$(pattern Timer 'menu text' '"[0-9:]+ \(held\)"')"
    stored=$last_text
    tell_agent off Timer
    expect "Timer ends" "$(pattern Timer port 'not reached')"
    expect "the agent shows what Timer stored" "$(pattern Timer 'tool icon' '32x32, 64x64, 128x128')" \
        "$(pattern Timer 'menu icon' '16x16, 32x32 \(template\)')" "$(pattern Timer 'menu text' "$(exactly "$stored")")"
    control tools
    [[ $printed == *com.korvane.utilia.Timer*Timer.app*yes*yes*template*"\"$stored\""* && $printed != *MoonPhase* ]] ||
        failed "Timer is on record, and Moon Phase is not"
    passed "Timer is on record, and Moon Phase is not"

    say "Timer starts again. It shows what it stored, and after a click goes on from there."
    tell_agent launch Timer
    expect "Timer begins with $stored" "$(pattern Timer port 'reached, process [0-9]+')" \
        "$(pattern Timer 'menu text' "$(exactly "$stored")")"
    clicked=$SECONDS
    tell_agent click Timer
    expect "Timer goes on" "$(pattern Timer 'menu text' '"[0-9:]+"')" "$(pattern Timer 'menu text' '"[0-9:]+"')"
    has_counted_from "$(seconds_of "$stored")" "$clicked" || failed "Timer goes on from $stored, not from $last_text"

    say "Timer is killed once more. Now there is something stored to fall back to."
    kill_tool Timer
    expect "the agent notices" "$(pattern Timer port 'not reached')"
    expect "Timer is shown as it is stored, at $stored" \
        "$(pattern Timer 'tool icon' '32x32, 64x64, 128x128')" "$(pattern Timer 'menu icon' '16x16, 32x32 \(template\)')" \
        "$(pattern Timer 'menu text' "$(exactly "$stored")")"
}

show_agent_restarts() {
    heading "The agent dies and comes back"
    say "The agent is killed while Timer is off, and started again: it shows what Timer stored."
    kill -KILL "$agent_pid"
    wait "$agent_pid" 2>/dev/null || true
    start_agent
    expect "the new agent shows Timer from the store" "$(pattern Timer status permanent)" \
        "$(pattern Timer 'tool icon' '32x32, 64x64, 128x128')" "$(pattern Timer 'menu text' "$(exactly "$stored")")"

    say "Both tools are launched, and the agent is ended and started once more while they run."
    tell_agent launch Timer
    expect "Timer is there" "$(pattern Timer port 'reached, process [0-9]+')" \
        "$(pattern Timer 'menu text' "$(exactly "$stored")")"
    tell_agent launch "Moon Phase"
    expect "Moon Phase is there" "$(pattern 'Moon Phase' status active)" "$(pattern 'Moon Phase' 'menu text' '".* % lit"')"
    tell_agent click Timer
    expect "Timer goes on" "$(pattern Timer 'menu text' '"[0-9:]+"')"
    tell_agent quit
    wait "$agent_pid" || failed "the agent ended with status $?"
    start_agent
    expect "the new agent finds both tools again" \
        "$(pattern Timer port 'reached, process [0-9]+')" "$(pattern Timer status permanent)" \
        "$(pattern 'Moon Phase' port 'reached, process [0-9]+')" "$(pattern 'Moon Phase' status active)" \
        "$(pattern 'Moon Phase' 'menu icon' '16x16, 32x32 \(template\)')"
    expect "and Timer finds the agent: its text goes on" "$(pattern Timer 'menu text' '"[0-9:]+"')" \
        "$(pattern Timer 'menu text' '"[0-9:]+"')" "$(pattern Timer 'menu text' '"[0-9:]+"')"
}

show_the_end() {
    heading "The end"
    say "The agent turns both tools off, and quits."
    tell_agent off Timer
    expect "Timer ends, and stays as it is stored" \
        "$(pattern Timer port 'not reached')" "$(pattern Timer 'menu text' '"[0-9:]+"')"
    tell_agent off "Moon Phase"
    expect "Moon Phase ends, and is gone" \
        "$(pattern 'Moon Phase' port 'not reached')" "$(pattern 'Moon Phase' status inactive)"
    tell_agent quit
    wait "$agent_pid" || failed "the agent ended with status $?"
    control store dump
}

# All of it, in a shell of its own, which may be ended at any line. Leaves the number of checks in $session/checks.
show_everything() {
    trap - EXIT INT TERM HUP
    exec {agent_output}<>"$session/agent"
    show_the_channel
    show_commands
    show_sudden_deaths
    show_what_outlives_a_tool
    show_agent_restarts
    show_the_end
    printf '%d' "$checks" >"$session/checks"
}
