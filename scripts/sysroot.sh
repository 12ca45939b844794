#!/bin/bash
# Unpacks what a cross-build for another architecture is compiled, linked and run against: Debian's C library, Qt 6,
# Qt 5, ncurses and GoogleTest of that architecture.
#
#   scripts/sysroot.sh armhf|arm64      into build-sysroot/ARCHITECTURE
#
# Nothing is installed (foreign.sh tells how), so root's rights aren't needed. What is there already and holds the same
# packages is kept. UGW_MIRROR names another mirror of Debian's archive, UGW_SUITE another suite than this host's.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
source "$root/scripts/foreign.sh"

arch=${1:-}
case "$arch" in
    armhf | arm64) ;;
    *) sed -n '2,8s/^# \{0,1\}//p' "$0"; exit 2 ;;
esac

# With what they depend on:
whole=(libc6-dev libstdc++-12-dev libqt6core6 libqt5core5a libncurses-dev libgtest-dev libgmock-dev)
# Without: of these only the headers and the CMake files of Qt's core are wanted, not graphics and OpenGL.
alone=(qt6-base-dev qmake6 qtbase5-dev qt5-qmake)

target=$root/build-sysroot/$arch
stamp="$foreign_mirror $foreign_suite ${whole[*]} / ${alone[*]} / relative links"

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
mkdir -p "$work/root"

echo "fetching the packages for $arch ($foreign_suite)"
foreign_apt "$work" "$arch"
cd "$work/cache/archives"
apt-get -c "$work/apt.conf" -qq -y install --download-only "${whole[@]}" >/dev/null
apt-get -c "$work/apt.conf" -qq download "${alone[@]}"
for package in *.deb; do
    dpkg-deb -x "$package" "$work/root"
done

# Links with an absolute path would lead out of the sysroot: where a library's does, its static form is linked instead.
find "$work/root" -type l -lname '/*' | while read -r link; do
    ln -srfn "$work/root$(readlink "$link")" "$link"
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
