# Installs what scripts/packages lists and the machine lacks. Sourced after common.sh.

# packages_for USE…: the names of the packages that any of these uses needs.
packages_for() {
    local name uses use wanted
    while read -r name uses; do
        [[ -z $name || $name == \#* ]] && continue
        uses=${uses%%#*}
        for wanted in "$@"; do
            for use in ${uses//,/ }; do
                if [[ $use == "$wanted" ]]; then
                    printf '%s\n' "$name"
                    continue 3
                fi
            done
        done
    done <"$project_root/scripts/packages"
}

is_installed() { [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]; }

# install_missing USE…: does nothing, and says nothing, when all are there.
install_missing() {
    local name missing=() as_root=()
    if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
        complain "this machine has no apt-get; make sure it has what scripts/packages lists (Debian's names)"
        return 0
    fi
    while read -r name; do
        is_installed "$name" || missing+=("$name")
    done < <(packages_for "$@")
    ((${#missing[@]})) || return 0

    heading "Installing ${missing[*]}"
    if ((EUID != 0)); then
        command -v sudo >/dev/null || die "not root and no sudo; as root: apt-get install ${missing[*]}"
        as_root=(sudo)
    fi
    as_root+=(env DEBIAN_FRONTEND=noninteractive)
    "${as_root[@]}" apt-get -q update </dev/null
    "${as_root[@]}" apt-get -q -y --no-install-recommends install "${missing[@]}" </dev/null
}
