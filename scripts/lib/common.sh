# shellcheck shell=bash disable=SC2034
# Shared by the scripts: headings, failure, and the packages that building and running need.
# To be sourced by bash.

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

build_packages=(g++ cmake ninja-build pkg-config libboost-dev libsqlite3-dev libtirpc-dev
    rpcsvc-proto libgtest-dev libgmock-dev libldap-dev libsasl2-dev libkrb5-dev)
run_packages=(rpcbind yp-tools ypbind-mt libnss-nis iproute2 util-linux python3 procps
    libsasl2-modules-gssapi-mit)
# The domain controllers of tests/ad and the tools that look at them.
lab_packages=(samba samba-ad-dc samba-ad-provision samba-dsdb-modules samba-vfs-modules python3-samba
    winbind krb5-user ldap-utils ldb-tools libsasl2-modules bind9-dnsutils openssl faketime)

heading() {
    printf '\n==== %s\n' "$*"
}

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# need_packages PACKAGE...: installs what is missing, without starting any service.
need_packages() {
    local missing=() package
    for package in "$@"; do
        if ! dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed'; then
            missing+=("$package")
        fi
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    command -v apt-get >/dev/null ||
        fail "these packages are needed, and there is no apt-get to install them: ${missing[*]}"
    [ "$(id -u)" -eq 0 ] ||
        fail "run this as root, or install first: apt-get install ${missing[*]}"
    heading "Installing ${missing[*]}"
    install_quietly "${missing[@]}"
}

# A policy-rc.d that says no keeps the services of new packages from starting on this machine; one
# that is there already is put back afterwards.
install_quietly() (
    policy=/usr/sbin/policy-rc.d
    kept=
    restore() {
        rm -f "$policy"
        [ -z "$kept" ] || mv "$kept" "$policy"
    }
    if [ -e "$policy" ]; then
        kept=$policy.orrisd-kept
        mv "$policy" "$kept"
    fi
    trap restore EXIT
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod 755 "$policy"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q </dev/null
    apt-get install -q -y --no-install-recommends "$@" </dev/null
)

# Tests and the demonstration run on a private copy of the system.
need_namespaces() {
    local problem
    if ! problem=$("$project/tests/support/in_namespace" true 2>&1); then
        printf '%s\n' "$problem" >&2
        fail "cannot make private namespaces here. Run as root; in a container, one that may" \
            "mount and unshare (for instance docker run --privileged)."
    fi
}

build_preset() {
    heading "Building the preset $1"
    (cd "$project" && cmake --preset "$1" && cmake --build --preset "$1" -j "$(nproc)")
}
