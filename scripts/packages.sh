# Sourced by the scripts: installs the Debian packages the project needs, once.
# Quiet and idempotent: apt runs only when something is missing.

KESTREL_PACKAGES=(
    cmake ninja-build g++ clang libclang-rt-14-dev
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    nlohmann-json3-dev libcli11-dev pkgconf libpci-dev libcpp-httplib-dev prometheus curl
    g++-mingw-w64-x86-64-posix wine wine64
    libglfw3 xserver-xorg-core xserver-xorg-video-dummy x11-xserver-utils libgl1-mesa-dri
)

kestrel_install_packages() {
    local missing=()
    local package
    for package in "${KESTREL_PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0

    echo "Installing: ${missing[*]}"
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# The whole cpp-httplib (header only) for the Windows build's kestrel serve: Debian
# ships it split for Linux, so it is taken from Debian's source package, once,
# into build/httplib.
kestrel_fetch_httplib() {
    [ -f build/httplib/httplib.h ] && return 0
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    if ! grep -rqs '^Types: deb-src' /etc/apt/sources.list.d/ && ! grep -qs '^deb-src' /etc/apt/sources.list; then
        printf 'Types: deb-src\nURIs: http://deb.debian.org/debian\nSuites: bookworm\nComponents: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n' |
            "${sudo[@]}" tee /etc/apt/sources.list.d/kestrel-src.sources >/dev/null
        "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    fi
    local work
    work=$(mktemp -d)
    (cd "$work" && apt-get source --download-only -qq cpp-httplib >/dev/null 2>&1) &&
        mkdir -p build/httplib &&
        tar -xJf "$work"/cpp-httplib_*.orig.tar.xz -C "$work" &&
        cp "$work"/*/httplib.h build/httplib/
    local status=$?
    rm -rf "$work"
    return $status
}
