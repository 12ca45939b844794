#!/bin/bash
# Unpacks what a cross-build for another architecture is compiled, linked and run against: Debian's C library, Qt 6,
# Qt 5, ncurses and GoogleTest of that architecture.
#
#   scripts/sysroot.sh armhf|arm64      into build-sysroot/ARCHITECTURE
#
# The package manager works in a folder of its own: this host's architectures, package lists and installed packages stay
# as they are, and an architecture that cannot be had stops nothing but its own cross-build. Nothing is installed and no
# script of a package runs, so root's rights aren't needed. What is there already and holds the same packages is kept.
# UGW_MIRROR names another mirror of Debian's archive, UGW_SUITE another suite than this host's.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

arch=${1:-}
case "$arch" in
    armhf | arm64) ;;
    *) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 2 ;;
esac

# With what they depend on:
whole=(libc6-dev libstdc++-12-dev libqt6core6 libqt5core5a libncurses-dev libgtest-dev libgmock-dev)
# Without: of these only the headers and the CMake files of Qt's core are wanted, not graphics and OpenGL.
alone=(qt6-base-dev qmake6 qtbase5-dev qt5-qmake)

mirror=${UGW_MIRROR:-http://deb.debian.org/debian}
suite=${UGW_SUITE:-$(. /etc/os-release && echo "$VERSION_CODENAME")}
target=$root/build-sysroot/$arch
stamp="$mirror $suite ${whole[*]} / ${alone[*]}"

# One at a time: two builds may ask for the same one.
mkdir -p "$root/build-sysroot"
exec 9>"$root/build-sysroot/$arch.lock"
flock 9

if [ -f "$target/.packages" ] && [ "$(head -n 1 "$target/.packages")" = "$stamp" ]; then
    echo "$target is there"
    exit
fi

# Put together beside its place and moved there when it is whole.
work=$root/build-sysroot/$arch.new
rm -rf "$work"
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/root "$work"/none "$work"/state/lists/partial "$work"/cache/archives/partial
: >"$work/state/status"
echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" >"$work/sources.list"
# Read after the host's own settings, of which the way to the network (proxies) stays and the hooks go.
cat >"$work/apt.conf" <<END
#clear APT::Update::Pre-Invoke;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
#clear APT::Architectures;
#clear DPkg::Pre-Invoke;
#clear DPkg::Post-Invoke;
#clear DPkg::Pre-Install-Pkgs;
APT::Architecture "$arch";
APT::Architectures { "$arch"; };
APT::Install-Recommends "false";
APT::Sandbox::User "root";
APT::Get::List-Cleanup "false";
Acquire::Languages "none";
Acquire::Retries "3";
Dir::State "$work/state";
Dir::State::status "$work/state/status";
Dir::Cache "$work/cache";
Dir::Log "$work";
Dir::Etc::sourcelist "$work/sources.list";
Dir::Etc::sourceparts "$work/none";
Dir::Etc::preferences "$work/none/none";
Dir::Etc::preferencesparts "$work/none";
END

echo "fetching the packages for $arch ($suite)"
cd "$work/cache/archives"
apt-get -c "$work/apt.conf" -qq --error-on=any update
apt-get -c "$work/apt.conf" -qq -y install --download-only "${whole[@]}" >/dev/null
apt-get -c "$work/apt.conf" -qq download "${alone[@]}"
for package in *.deb; do
    dpkg-deb -x "$package" "$work/root"
done

# The programs of Qt 5 that a build runs are this host's: its CMake files look for them beside the libraries.
mkdir -p "$work/root/usr/lib/qt5/bin"
for program in moc rcc; do
    ln -sfn "/usr/lib/qt5/bin/$program" "$work/root/usr/lib/qt5/bin/$program"
done

{ echo "$stamp"; for package in *.deb; do echo "$package"; done; } >"$work/root/.packages"
cd "$root"
rm -rf "$target"
mv "$work/root" "$target"
echo "$target: $(du -sh "$target" | cut -f 1)"
