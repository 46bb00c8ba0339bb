# Sourced by the scripts: installs the Debian packages the project needs, once.
# Quiet and idempotent: apt runs only when something is missing.

# What building and running kestrel needs (scripts/run).
KESTREL_TOOL_PACKAGES=(cmake ninja-build g++ pkgconf nlohmann-json3-dev libcli11-dev libpci-dev)
# And what building and running every test needs besides (scripts/test): the
# sanitizers, GoogleTest and Google Benchmark, the Windows cross build and Wine,
# a real GLFW on a virtual X display, and a Prometheus server.
KESTREL_TEST_PACKAGES=(
    "${KESTREL_TOOL_PACKAGES[@]}" clang libclang-rt-14-dev
    googletest libgtest-dev libgmock-dev libbenchmark-dev prometheus curl
    g++-mingw-w64-x86-64-posix wine wine64
    libglfw3 xserver-xorg-core xserver-xorg-video-dummy x11-xserver-utils libgl1-mesa-dri
)

# Installs the packages named, those that are missing.
kestrel_install_packages() {
    local missing=()
    local package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0

    echo "Installing: ${missing[*]}"
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
