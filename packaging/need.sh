# shellcheck shell=sh
# To be sourced. need PACKAGE ...: installs those of the Debian packages that are missing, and says so on standard error.

need()
{
    command -v dpkg-query >/dev/null || return 0 # not Debian: the build will tell what it misses
    installed=$(dpkg-query --show --showformat '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null || :)
    missing=
    for package; do
        printf '%s\n' "$installed" | grep -qxF "installed $package" || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0

    echo "Installing$missing" >&2
    sudo=
    [ "$(id -u)" = 0 ] || sudo=sudo
    {
        $sudo apt-get update --quiet=2 --option DPkg::Lock::Timeout=600
        # shellcheck disable=SC2086 # a list
        $sudo env DEBIAN_FRONTEND=noninteractive \
            apt-get install --yes --quiet=2 --no-install-recommends --option DPkg::Lock::Timeout=600 $missing
    } >&2
}

build_packages='g++ cmake ninja-build qt6-base-dev qt6-serialport-dev libxcb1-dev zlib1g-dev'

need_for_build()
{
    # shellcheck disable=SC2086 # a list
    need $build_packages
}
