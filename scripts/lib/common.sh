# What every script of the project starts with: where things are, how to speak, how to build. Sourced, not run.

project_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
jobs=$(nproc 2>/dev/null || echo 2)

# Colours only where somebody looks at them.
if [[ -t 1 && -z ${NO_COLOR:-} && ${TERM:-dumb} != dumb ]]; then
    bold=$'\e[1m' dim=$'\e[2m' red=$'\e[31m' green=$'\e[32m' cyan=$'\e[36m' plain=$'\e[0m'
else
    bold='' dim='' red='' green='' cyan='' plain=''
fi

heading() { printf '\n%s== %s ==%s\n' "$bold" "$*" "$plain"; }
complain() { printf '%s: %s\n' "${0##*/}" "$*" >&2; }
die() {
    complain "$@"
    exit 1
}

# configure PRESET BINARY_DIR [ARGUMENTS…]
configure() {
    local preset=$1 binary_dir=$2 fresh=()
    shift 2
    # Where a preset has got another compiler, CMake would take that over and lose what else the preset says.
    if ! cmp -s "$project_root/CMakePresets.json" "$binary_dir/configured-by.json"; then fresh=(--fresh); fi
    cmake "${fresh[@]}" -S "$project_root" --preset "$preset" -B "$binary_dir" "$@"
    cp "$project_root/CMakePresets.json" "$binary_dir/configured-by.json"
}

# build BINARY_DIR [TARGETS…]: everything, or only the named targets.
build() {
    local binary_dir=$1
    shift
    local targets=()
    if (($#)); then targets=(--target "$@"); fi
    cmake --build "$binary_dir" -j "$jobs" "${targets[@]}"
}

# With these, a build can be packed (scripts/package).
package_settings=(-DCMAKE_INSTALL_PREFIX=/usr -DUTILIA_ZSH_COMPLETIONS_DIR=share/zsh/vendor-completions)
