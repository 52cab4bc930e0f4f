# Shared by scripts/run, scripts/test and .ci/run. Source it; do not run it.

repo_root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

# Debian packages the build and the test suite need. libspdlog-dev is only a
# baseline for one benchmark; the daemon does not link it. systemd brings
# systemd-analyze and systemd-socket-activate (no service manager needs to
# run); dpkg-dev, socat and strace serve the package test.
kel_packages=(cmake ninja-build g++ clang libgtest-dev libgmock-dev libbenchmark-dev
              libspdlog-dev libclang-rt-14-dev util-linux procps nlohmann-json3-dev
              libsystemd-dev dbus-daemon pkg-config libdw-dev libseccomp-dev systemd dpkg-dev socat
              strace)

# Installs whatever of kel_packages is missing, with apt-get, once.
kel_install_missing() {
    local missing=()
    local pkg
    for pkg in "${kel_packages[@]}"; do
        if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$pkg")
        fi
    done
    if ((${#missing[@]} == 0)); then
        return 0
    fi
    echo "Installing missing packages: ${missing[*]}" >&2
    local sudo=()
    if ((EUID != 0)); then
        sudo=(sudo)
    fi
    "${sudo[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends \
        "${missing[@]}"
}

# kel_build PRESET [extra cmake arguments...]: configures and builds one preset.
# KEL_BUILD_TARGET, when set, limits the build to that target.
kel_build() {
    local preset="$1"
    shift
    cmake --preset "$preset" -S "$repo_root" "$@" >/dev/null
    cmake --build --preset "$preset" --parallel "$(nproc)" ${KEL_BUILD_TARGET:+--target "$KEL_BUILD_TARGET"}
}
