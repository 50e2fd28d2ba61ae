# Sourced, after common.sh, by the scripts that build something from Debian's own sources.
# shellcheck shell=bash

# Unpacks version VERSION of Debian's source package NAME, Debian's patches applied, into a folder below
# $CACHE/source/NAME: debian_source NAME VERSION
# Uses a source list and state of its own: the machine's package configuration stays as it is.
debian_source() {
    local name=$1 version=$2 apt="$CACHE/apt" suites suite entry lock
    # apt refuses to share its state folder between two runs instead of waiting for it.
    mkdir -p "$CACHE"
    exec {lock}>"$CACHE/apt.lock"
    flock -w 1200 "$lock" || die "another run has held $CACHE/apt.lock for 20 minutes"
    rm -rf "${CACHE:?}/source/$name"
    mkdir -p "$apt/lists/partial" "$apt/archives/partial" "$CACHE/source/$name"
    # Where this machine gets its binary packages from, there are the sources too (mirrors included). The release
    # itself stands first: a security archive may list a source without carrying its files, and apt takes the first.
    suites=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 'Created-By: Packages' 'Component: main' |
        grep -E ' (bookworm|stable|oldstable)(-updates|-security)?$' | sort -u | sort -s -k2 || true)
    [ -n "$suites" ] || suites="http://deb.debian.org/debian bookworm"
    while read -r entry suite; do
        echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $entry $suite main"
    done <<<"$suites" >"$apt/sources.list"
    local options=(-o "Dir::Etc::sourcelist=$apt/sources.list" -o "Dir::Etc::sourceparts=-"
        -o "Dir::State::lists=$apt/lists" -o "Dir::Cache::archives=$apt/archives"
        -o "Dir::Cache::srcpkgcache=" -o "Dir::Cache::pkgcache=" -o "APT::Sandbox::User=root")
    quietly "fetching the list of source packages" "$CACHE/apt-source-update.log" apt-get "${options[@]}" update
    (cd "$CACHE/source/$name" &&
        quietly "fetching and unpacking the source of $name" "$CACHE/source-$name.log" \
            apt-get "${options[@]}" source "$name=$version") >&2
    exec {lock}>&-
}
