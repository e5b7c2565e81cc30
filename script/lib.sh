# shellcheck shell=bash disable=SC2034
# Shared by the scripts. Sourced; the working directory is the checkout.

# Lists of packages, all of Debian 12. To build the library and the tool:
readonly kBuildPackages=(
    cmake g++ ninja-build pkg-config
    libboost-dev libcli11-dev libjsoncpp-dev libkmod-dev libmnl-dev
)

# The sandbox, and what runs in it. netbase has the names of the protocols that iptables reads and
# prints.
readonly kRunPackages=(iproute2 iptables mount netbase util-linux)

# Additionally for the tests.
readonly kTestPackages=(
    clang clang-format clang-tidy libbdd-dev libclang-rt-dev libgmock-dev libgtest-dev
    doxygen git mandoc scdoc shellcheck
    e2fsprogs fish jq procps python3-jsonschema python3-pexpect strace xfsprogs zsh
)

# The browser of tests/docs/report_page_test, with a font for its pictures.
readonly kBrowserPackages=(chromium fonts-dejavu-core)

# To count instructions.
readonly kCountPackages=(libbenchmark-dev valgrind)

# To build the Debian packages, and to test them. libvalijson-dev has many needless dependencies,
# but a package is built with everything that its control file names.
readonly kPackagePackages=(
    "${kBuildPackages[@]}"
    build-essential debhelper dpkg-dev git libvalijson-dev lintian scdoc systemd xz-utils
)

# What the benchmarks need to run, count and draw.
readonly kBenchPackages=(
    "${kBuildPackages[@]}" "${kRunPackages[@]}" "${kCountPackages[@]}" gnuplot-nox python3
)

# What the README's picture needs besides the tool.
readonly kPicturePackages=(python3-rich)

# What script/bench and docs/coming-from.md compare with. Unpacked into build/, never installed: some of
# these change a machine's packet filter by being installed.
readonly kPeerPackages=(dbus-daemon ferm firewalld nftables ufw)
readonly kPeers=build/peers

# The log of quietly(); each script sets its own.
log=build/install.log

# quietly TEXT COMMAND...: prints one line with what is done and how long it took; on a terminal also
# the progress. The command writes to $log, whose end is printed if it fails.
quietly() {
    local text=$1 start=$SECONDS line status=0
    shift
    mkdir -p -- "$(dirname -- "$log")"
    printf '%s ...' "$text"
    printf '\n=== %s\n' "$*" >>"$log"
    "$@" 2>&1 </dev/null | while IFS= read -r line; do
        printf '%s\n' "$line" >>"$log"
        if [[ -t 1 && $line =~ ^\[[0-9]+/[0-9]+\] ]]; then  # Ninja's
            printf '\r%s ... %s' "$text" "${BASH_REMATCH[0]}"
        fi
    done || status=$?
    if ((status != 0)); then
        printf ' failed\n'
        tail -n 40 -- "$log" >&2
        printf 'All of it is in %s\n' "$log" >&2
        return "$status"
    fi
    if [[ -t 1 ]]; then
        printf '\r\e[K%s ...' "$text"
    fi
    printf ' %d s\n' $((SECONDS - start))
}

# is_installed PACKAGE
is_installed() {
    [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# install_missing PACKAGE...: does nothing if all are installed.
install_missing() {
    local package missing=()
    if ! command -v dpkg-query >/dev/null; then
        printf 'Not a Debian system: taking for granted what these packages have: %s\n' "$*"
        return
    fi
    for package; do
        is_installed "$package" || missing+=("$package")
    done
    ((${#missing[@]} > 0)) || return 0
    if ((EUID != 0)); then
        printf 'Missing packages: %s\nInstall them, or run this as root.\n' "${missing[*]}" >&2
        exit 1
    fi
    quietly 'Reading the lists of packages' apt-get update -q
    DEBIAN_FRONTEND=noninteractive quietly "Installing ${missing[*]}" \
        apt-get install -q -y --no-install-recommends "${missing[@]}"
}

# Where CMakePresets.json has the builds look for headers, besides the system.
readonly kHeaders=build/headers

unpack_valijson() {
    local new
    new=$(mktemp --directory build/headers.XXXXXX)
    chmod 755 "$new"
    # Without package lists nothing can be downloaded.
    (cd -- "$new" && { apt-get download libvalijson-dev || {
        apt-get update && apt-get download libvalijson-dev
    }; }) &&
        dpkg-deb --extract "$new"/*.deb "$new" &&
        rm -rf -- "$kHeaders" "$new"/*.deb &&
        mv -- "$new" "$kHeaders"
}

# The headers of valijson, where the package is not installed. The package depends on every library of
# JSON that valijson can read, Qt among them: 86 MB to fetch, for headers that use jsoncpp alone.
provide_headers() {
    if ! command -v dpkg-query >/dev/null || is_installed libvalijson-dev ||
        [[ -e $kHeaders/usr/include/valijson ]]; then
        return 0
    fi
    mkdir -p build
    quietly 'Fetching the headers of valijson' unpack_valijson
}

download_peers() {
    mkdir -p "$kPeers/debs/partial"
    apt-get --option "Dir::Cache::archives=$PWD/$kPeers/debs" --option Debug::NoLocking=1 \
        install --quiet --download-only --yes --no-install-recommends --reinstall \
        "${kPeerPackages[@]}"
}

unpack_downloaded_peers() {
    local package actions new=$kPeers/new
    rm -rf -- "$new"
    # Without package lists nothing can be downloaded.
    download_peers || { apt-get update -q && download_peers; } || return
    mkdir -p "$new"
    for package in "$kPeers"/debs/*.deb; do
        dpkg-deb --extract "$package" "$new"
    done
    if [[ -d $new/lib ]]; then
        mkdir -p "$new/usr/lib"
        cp -R -- "$new/lib/." "$new/usr/lib"
    fi
    # As the installation of firewalld does.
    actions=$new/usr/share/polkit-1/actions/org.fedoraproject.FirewallD1
    ln -s -- "${actions##*/}.server.policy.choice" "$actions.policy"
    mv -- "$new" "$kPeers/root"
}

# Unpacks the packages to compare with, and their missing dependencies, into $kPeers/root.
unpack_peers() {
    [[ -e $kPeers/root ]] || quietly 'Unpacking other firewalls' unpack_downloaded_peers
}
