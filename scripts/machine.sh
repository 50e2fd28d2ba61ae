# Sourced, after common.sh, by the scripts that bring the bench up: says at once what the machine lacks.
# shellcheck shell=bash

# Before anything is installed: only what every Debian has is used.
check_machine() {
    [ "$(id -u)" -eq 0 ] || die "this has to run as root: it makes network namespaces and installs packages"
    { [ -c /dev/net/tun ] && : <>/dev/net/tun; } 2>/dev/null ||
        die "/dev/net/tun cannot be opened (in a container: --device /dev/net/tun, or --privileged)"
    # What `ip netns` does: a namespace of its own, and a mount that names it.
    unshare --net --mount sh -c 'mount --bind /proc/self/ns/net /dev/null' 2>/dev/null ||
        die "network namespaces cannot be made (a container needs --privileged, or the capability SYS_ADMIN)"
    # What the filtering engine knows programs by.
    unshare --mount sh -c 'mount -t cgroup2 none /mnt && mkdir /mnt/ruvod-check-$$ && rmdir /mnt/ruvod-check-$$' \
        2>/dev/null || die "cgroup v2 cannot be mounted, or no group made (a container needs --privileged)"
}

# Once the packages are there: the real thing, removed again; with filters in it that the kernel has to enforce.
check_namespaces() {
    local name="ruvod-check-$$" failed=
    ip netns add "$name" || die "network namespaces cannot be made with 'ip netns'"
    ip netns exec "$name" true || { ip netns delete "$name"; die "nothing can be run in a network namespace"; }
    ip -n "$name" link set lo up
    (cd "$ROOT/tests/winehost" && ip netns exec "$name" "$PYTHON" -B -m filterengine.check) || failed=1
    ip netns delete "$name"
    [ -z "$failed" ] || die "the bench needs nftables and cgroup v2 (nf_tables, nft_socket and nft_reject in the kernel)"
}
