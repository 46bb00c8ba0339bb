# Sourced by the scripts: installs the Debian packages the project needs, once.
# Quiet and idempotent: apt runs only when something is missing.

# What building and running kestrel needs (scripts/run).
KESTREL_TOOL_PACKAGES=(cmake ninja-build g++ pkgconf nlohmann-json3-dev libcli11-dev libpci-dev libcpp-httplib-dev)
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

# The machine's own package sources (the files apt reads), each binary entry
# written again as a source entry in the one-line form: same archive, suites,
# components and keyring.
kestrel_source_entries() {
    local files=()
    [ -f /etc/apt/sources.list ] && files+=(/etc/apt/sources.list)
    local file
    for file in /etc/apt/sources.list.d/*.list; do [ -f "$file" ] && files+=("$file"); done
    [ ${#files[@]} -gt 0 ] && sed -n 's/^[[:space:]]*deb[[:space:]]/deb-src /p' "${files[@]}"
    for file in /etc/apt/sources.list.d/*.sources; do
        [ -f "$file" ] || continue
        # One stanza per block; fields may hold several values.
        awk 'function flush() {
                 if (types ~ /(^| )deb( |$)/ && uris != "" && suites != "") {
                     n = split(uris, u, " "); m = split(suites, s, " ")
                     for (i = 1; i <= n; i++) for (j = 1; j <= m; j++)
                         print "deb-src " (keyring != "" ? "[signed-by=" keyring "] " : "") u[i] " " s[j] " " components
                 }
                 types = uris = suites = components = keyring = ""
             }
             /^[[:space:]]*#/ { next }
             /^[[:space:]]*$/ { flush(); next }
             { field = tolower($1); sub(/:$/, "", field); $1 = ""; sub(/^ +/, "") }
             field == "types" { types = $0 } field == "uris" { uris = $0 } field == "suites" { suites = $0 }
             field == "components" { components = $0 } field == "signed-by" { keyring = $0 }
             END { flush() }' "$file"
    done
}

# The whole cpp-httplib (header only) for the Windows build's kestrel serve: Debian
# ships it split for Linux, so it is taken from Debian's source package, once,
# into build/httplib. Apt reads the source entries from a list of its own, in a
# scratch folder with its own package lists: the machine's configuration is not
# changed.
kestrel_fetch_httplib() {
    [ -f build/httplib/httplib.h ] && return 0
    local work
    work=$(mktemp -d)
    mkdir -p "$work/lists/partial" "$work/archives/partial"
    kestrel_source_entries >"$work/sources.list"
    local apt=(-qq -o "Dir::Etc::SourceList=$work/sources.list" -o "Dir::Etc::SourceParts=$work/none"
        -o "Dir::State::Lists=$work/lists" -o "Dir::Cache::Archives=$work/archives" -o "APT::Sandbox::User=root")
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    "${sudo[@]}" apt-get "${apt[@]}" update >/dev/null &&
        (cd "$work" && "${sudo[@]}" apt-get "${apt[@]}" source --download-only cpp-httplib >/dev/null 2>&1) &&
        mkdir -p build/httplib &&
        tar -xJf "$work"/cpp-httplib_*.orig.tar.xz -C "$work" &&
        cp "$work"/*/httplib.h build/httplib/
    local status=$?
    "${sudo[@]}" rm -rf "$work"
    return $status
}
