# shellcheck shell=sh
# Sourced by scripts that fetch something from Debian's archive, through the mirror and with the
# keyring that this machine's apt uses. Installs nothing and leaves the machine's package lists alone.
# Only make_system needs root.

archive_suite=bookworm

# Sets `mirror` and `keyring` (a path, or empty for apt's own) from this machine's apt entry for its own
# release, which exists even before the first apt-get update. Fails without one.
find_mirror() {
  command -v apt-get >/dev/null || return 1
  codename=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
  format='$(REPO_URI) $(RELEASE) $(COMPONENT) $(SOURCESENTRY)'
  entry=$(apt-get indextargets --no-release-info --format "$format" 'Created-By: Packages' |
    grep " $codename main " | head -n 1) || true
  mirror=${entry%% *}
  [ -n "$mirror" ] || return 1
  entry_file=${entry##* }
  keyring=$(sed -n 's/.*[Ss]igned-[Bb]y[:=] *\(\/[^] ]*\).*/\1/p' "${entry_file%:*}" | head -n 1)
}

# make_system ARCHITECTURE FOLDER PACKAGES...: a small Debian of this machine's release in a folder
# that does not exist yet, with these packages. Needs root; on failure reports why on standard error.
make_system() {
  find_mirror || {
    echo "apt has no entry for the main archive of this machine's Debian release" >&2
    return 1
  }
  make_architecture=$1
  make_folder=$2
  shift 2
  debootstrap --force-check-gpg ${keyring:+"--keyring=$keyring"} --variant=minbase \
    --arch="$make_architecture" "$codename" "$make_folder" "$mirror" &&
    chroot "$make_folder" env DEBIAN_FRONTEND=noninteractive \
      apt-get -qq install -y --no-install-recommends "$@" &&
    chroot "$make_folder" apt-get clean
}

# fetch_source PACKAGE VERSION TARBALL HASH FOLDER: puts the upstream tarball of a source package
# into the folder. On failure reports why on standard error.
fetch_source() {
  find_mirror || {
    echo "apt has no entry for the main archive of this machine's Debian release" >&2
    return 1
  }
  mkdir -p "$5/lists/partial" "$5/cache/archives/partial"
  {
    printf 'Types: deb-src\nURIs: %s\nSuites: %s\nComponents: main\n' "$mirror" "$archive_suite"
    [ -z "$keyring" ] || printf 'Signed-By: %s\n' "$keyring"
  } >"$5/entry.sources"
  private_apt_get "$5" update >"$5/log" 2>&1 || {
    cat "$5/log" >&2
    echo "this machine's mirror does not serve the sources of '$archive_suite'" >&2
    return 1
  }
  # apt's exit code also covers the packaging files, which a mirror may have dropped; only the
  # tarball is needed, and its hash decides.
  (cd "$5" && private_apt_get "$5" source --download-only --tar-only "$1=$2") >"$5/log" 2>&1 || true
  [ -f "$5/$3" ] || {
    cat "$5/log" >&2
    echo "this machine's mirror no longer has $1 $2" >&2
    return 1
  }
  echo "$4  $5/$3" | sha256sum --check --status || {
    echo "$3 is not the expected file" >&2
    return 1
  }
}

private_apt_get() { # private_apt_get FOLDER ARGUMENTS...
  private=$1
  shift
  apt-get -qq -o "Dir::Etc::sourcelist=$private/entry.sources" -o Dir::Etc::sourceparts=/dev/null \
    -o "Dir::State::Lists=$private/lists" -o "Dir::Cache=$private/cache" \
    -o APT::Sandbox::User=root -o Acquire::Retries=2 "$@"
}
