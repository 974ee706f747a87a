#!/bin/bash
# Run by packaging/check as root of a bare system: installs the package, uses it as a plain user, and removes it.
# shellcheck disable=SC2016 # for the user's shell
set -euo pipefail

say()
{
    printf '\n== %s\n' "$*"
}

# As a user who is nobody special, in a login of their own.
as_user()
{
    su --login tech --command "$1"
}

everything()
{
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /home -o -path /var/cache \
        -o -path /var/log -o -path /var/lib/apt -o -path /var/lib/dpkg \) -prune -o -print | sort
}

export DEBIAN_FRONTEND=noninteractive
useradd --create-home --shell /bin/bash tech
everything >/tmp/before

say "Installing"
SECONDS=0
apt-get install --quiet=2 --yes /tmp/jvx-loader.deb >/tmp/apt.log 2>&1 || {
    cat /tmp/apt.log
    exit 1
}
dpkg --verify jvx-loader
dpkg --listfiles jvx-loader >/tmp/files
dpkg-query --show jvx-loader
echo "$SECONDS s"

say "Version"
as_user 'jvx-loader --version && jvx-simulator --version'

say "Manual page"
as_user 'man jvx-loader | grep -A 1 ^NAME && man jvx-simulator | grep -A 1 ^NAME'

say "Completion of 'jvx-loader -f fl'"
as_user '. /usr/share/bash-completion/bash_completion; _completion_loader jvx-loader
    COMP_WORDS=(jvx-loader -f fl) COMP_CWORD=2 COMP_LINE="jvx-loader -f fl" COMP_POINT=16; _jvx_loader
    printf "%s\n" "${COMPREPLY[@]}" | tee completions; grep -qx fls-archive completions'

say "Identify, read, write and apply, and watch the log of a simulated terminal"
as_user 'set -e
    mkdir files
    mkfifo ready
    jvx-simulator --link ~/terminal --files files --restart 0.5 --log-rate 2 >ready & simulator=$!
    trap "kill $simulator 2>/dev/null || :" EXIT
    read -r line <ready
    jvx-loader -p ~/terminal
    printf 123456789 >keys.bin
    jvx-loader -p ~/terminal -w -f keys keys.bin -a
    jvx-loader -p ~/terminal -r -f keys read.bin
    cmp keys.bin read.bin
    rc=0; timeout 3 jvx-loader -p ~/terminal -m >log || rc=$?
    [ $rc = 124 ]
    grep -m 2 "\] #" log
    kill $simulator
    wait $simulator'

say "The page on how to flash safely, step by step, and with one command"
as_user 'set -e
    cd /usr/share/doc/jvx-loader
    grep -oE "\]\([^)#:]+" README.md | cut -c 3- | xargs ls -d >/dev/null
    cd ~
    head -c 3000 /dev/urandom >new.bin
    jvx-simulator --link ~/terminal --next-version 1.5.0 >ready & simulator=$!
    trap "kill $simulator 2>/dev/null || :" EXIT
    read -r line <ready
    sed -n "s/^ *\\$ //p" /usr/share/doc/jvx-loader/docs/flash-safely.md >page
    sed -i "s,^jvx-loader,& -p $HOME/terminal," page
    [ "$(wc -l <page)" -eq 8 ]
    start=$(date +%s)
    sh -e page >output
    grep ^Version output | tail -n 1 | grep 1.5.0
    tr "\r" "\n" <output | grep -c "100% completed (3000/3000)" | grep -x 3
    /usr/share/doc/jvx-loader/examples/flash-safely settings new.bin ~/terminal | tail -n 1 | grep DONE
    echo "$(($(date +%s) - start)) s"
    kill $simulator
    wait $simulator'

say "Upgrading from the version before, which had a file more"
apt-get purge --quiet=2 --yes jvx-loader >/tmp/apt.log 2>&1
dpkg-deb --raw-extract /tmp/jvx-loader.deb /tmp/older
version=$(zcat /tmp/older/usr/share/doc/jvx-loader/changelog.Debian.gz |
    sed -n 's/^jvx-loader (\(.*\)).*/\1/p' | grep -v '~bpo' | sed -n 2p)
sed -i "s/^Version: .*/Version: $version/" /tmp/older/DEBIAN/control
touch /tmp/older/usr/share/doc/jvx-loader/dropped
dpkg-deb --build /tmp/older /tmp/older.deb >/dev/null
apt-get install --quiet=2 --yes /tmp/older.deb >/tmp/apt.log 2>&1
[ -e /usr/share/doc/jvx-loader/dropped ]
apt-get install --quiet=2 --yes /tmp/jvx-loader.deb >/tmp/apt.log 2>&1
[ ! -e /usr/share/doc/jvx-loader/dropped ]
dpkg --verify jvx-loader
echo "$version -> $(dpkg-query --show --showformat '${Version}' jvx-loader)"

say "Removing"
apt-get purge --quiet=2 --yes --auto-remove jvx-loader >/tmp/apt.log 2>&1 || {
    cat /tmp/apt.log
    exit 1
}
everything >/tmp/after
comm -13 /tmp/before /tmp/after | tee /tmp/left
[ ! -s /tmp/left ]
echo "Nothing is left of $(wc -l </tmp/files) files and folders"
