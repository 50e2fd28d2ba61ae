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
}

# Once the packages are there: the real thing, removed again.
check_namespaces() {
    local name="ruvod-check-$$"
    ip netns add "$name" || die "network namespaces cannot be made with 'ip netns'"
    ip netns exec "$name" true || { ip netns delete "$name"; die "nothing can be run in a network namespace"; }
    ip netns delete "$name"
}
