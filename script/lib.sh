# shellcheck shell=bash disable=SC2034
# What the scripts share. Sourced; the working directory is the checkout.

# Of Debian 12: the tools that build and check, the libraries, and what runs in the sandbox. netbase
# has the names of the protocols that iptables reads and prints.
readonly kPackages=(
    build-essential g++ clang clang-format clang-tidy cmake libclang-rt-dev ninja-build pkg-config
    libboost-dev libcli11-dev libgmock-dev libgtest-dev libjsoncpp-dev libkmod-dev libvalijson-dev
    debhelper dpkg-dev git lintian systemd xz-utils
    doxygen mandoc scdoc shellcheck
    iproute2 iptables jq netbase procps python3-jsonschema python3-pexpect util-linux
    fish zsh
)

# What the benchmarks need to build, run, count and draw.
readonly kBenchPackages=(
    cmake g++ gnuplot-nox ninja-build pkg-config python3
    libbenchmark-dev libboost-dev libcli11-dev libjsoncpp-dev libkmod-dev
    iproute2 iptables netbase util-linux valgrind
)

# What the README's picture needs besides.
readonly kPicturePackages=(python3-rich)

# What script/bench compares with. Unpacked into build/, never installed: some of these change a
# machine's packet filter by being installed.
readonly kPeerPackages=(dbus-daemon ferm firewalld nftables ufw)

# install_missing PACKAGE...: nothing happens when all are there.
install_missing() {
    local package missing=()
    if ! command -v dpkg-query >/dev/null; then
        printf 'Not a Debian system: taking for granted what these packages have: %s\n' "$*"
        return
    fi
    for package; do
        if [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null) != \
            installed ]]; then
            missing+=("$package")
        fi
    done
    ((${#missing[@]} > 0)) || return 0
    if ((EUID != 0)); then
        printf 'Missing packages: %s\nInstall them, or run this as root.\n' "${missing[*]}" >&2
        exit 1
    fi
    printf 'Installing: %s\n' "${missing[*]}"
    apt-get update -q
    DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends "${missing[@]}"
}
