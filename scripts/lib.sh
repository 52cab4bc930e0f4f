# Shared by scripts/run, scripts/test, scripts/package and .ci/run. Source it;
# do not run it.

repo_root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

# Debian packages that building and running the daemon needs.
kel_build_packages=(cmake ninja-build g++ pkg-config nlohmann-json3-dev libsystemd-dev libdw-dev
                    libseccomp-dev)
# What building the Debian package adds: debhelper, and systemd for the paths
# of its units (systemd.pc) and for systemd-analyze.
kel_package_packages=(dpkg-dev debhelper systemd lintian)
# What the test suite, the sanitizer builds and the benchmarks add.
# libspdlog-dev is only a baseline for one benchmark; the daemon does not link
# it. socat, strace, util-linux (setpriv) and procps (pgrep) serve the package
# test, which also runs systemd-socket-activate (no service manager needs to
# run).
kel_test_packages=(clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
                   dbus-daemon util-linux procps socat strace)

# kel_install_missing PACKAGE...: installs whichever of them is missing, with
# apt-get, once.
kel_install_missing() {
    local missing=()
    local pkg
    for pkg in "$@"; do
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

# Builds the Debian package and its debug symbols with debhelper into
# build/deb/ (kelhelperd_VERSION_ARCH.deb, kelhelperd-dbgsym_...) and checks
# both with lintian: any error or warning fails. debian/ is copied afresh each
# time, since dpkg-buildpackage writes beside it; the compiled objects are kept
# for the next build.
kel_build_deb() {
    local stage="$repo_root/build/deb/kelhelperd"
    mkdir -p "$stage"
    rm -rf "$stage/debian" "$repo_root"/build/deb/*.deb
    cp -r "$repo_root/packaging/debian" "$stage/debian"
    if ! (cd "$stage" && KEL_SOURCE_DIR="$repo_root" dpkg-buildpackage -b -nc --no-sign \
        >"$stage.log" 2>&1); then
        tail -n 30 "$stage.log" >&2
        return 1
    fi
    # lintian leaves empty scratch folders in its TMPDIR: give it one of ours.
    local scratch="$repo_root/build/deb/lintian-tmp" status=0
    mkdir -p "$scratch"
    TMPDIR="$scratch" lintian --pedantic --fail-on error,warning "$repo_root"/build/deb/*.deb ||
        status=$?
    rm -rf "$scratch"
    return "$status"
}
