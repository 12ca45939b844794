# Packages of another architecture, fetched by a package manager with a folder of its own; sourced after lib.sh.
#
# This host's architectures, package lists and installed packages stay as they are, and an architecture that cannot be
# had stops nothing else. Nothing is installed and no script of a package runs, so root's rights aren't needed.
# UGW_MIRROR names another mirror of Debian's archive, UGW_SUITE another suite than this host's.
foreign_mirror=${UGW_MIRROR:-http://deb.debian.org/debian}
foreign_suite=${UGW_SUITE:-$(. /etc/os-release && echo "$VERSION_CODENAME")}

# foreign_apt FOLDER ARCHITECTURE: makes FOLDER/apt.conf, to be given to apt-get and apt-cache with -c, and fetches the
# lists. FOLDER is an absolute path.
foreign_apt() {
    local work=$1 arch=$2
    mkdir -p "$work"/none "$work"/state/lists/partial "$work"/cache/archives/partial
    : >"$work/state/status"
    echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $foreign_mirror $foreign_suite main" \
        >"$work/sources.list"
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
    apt-get -c "$work/apt.conf" -qq --error-on=any update
}

# fetch DIRECTORY ARCHITECTURE META [PACKAGE...]: unpacks the package that a kernel's meta package stands for, and others.
# What is there already stays: remove build-vm to fetch newer ones.
fetch() {
    local directory=$root/$1 arch=$2 meta=$3 conf=$root/$1/apt/apt.conf package
    shift 3
    [ ! -e "$directory/complete" ] || return 0
    rm -rf "$directory"
    foreign_apt "$directory/apt" "$arch"
    package=$(apt-cache -c "$conf" depends "$meta" | sed -n 's/^ *Depends: \(linux-image-[^ ]*\)$/\1/p' | head -n 1)
    echo "fetching $package $*"
    cd "$directory"
    apt-get -c "$conf" -qq download "$package" "$@"
    for package in *.deb; do
        dpkg-deb -x "$package" .
    done
    rm -r ./*.deb apt
    touch complete
    cd "$root"
}
