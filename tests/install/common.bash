# What the tests of installing and of packages have in common: a folder to work in, what is installed, expectations, and
# what becomes of those that this machine is not fit for.

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

tool=(sbin/kvfslabel share/man/man8/kvfslabel.8 share/bash-completion/completions/kvfslabel
  share/zsh/site-functions/_kvfslabel share/fish/vendor_completions.d/kvfslabel.fish)
headers=()
for header in bitmap btree catalog device extents fork format kvfs result support unicode volume volume_header; do
  headers+=("include/kvfs/$header.h")
done

fail() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# lacks WHAT: ends a test that this machine is not fit for. ctest knows the status as that of a test that is skipped;
# where CI=true it is a failure, lest a test be lost unseen.
lacks() {
  [[ ${CI:-} != true ]] || fail "needs $1"
  echo "skipped: needs $1"
  exit 77
}

# expect FOLDER LINE...: the files and links below a folder are these.
expect() {
  local folder=$1
  shift
  diff <(printf '%s\n' "$@" | sort) <(cd "$folder" && find . ! -type d -printf '%P\n' | sort) ||
    fail "$folder does not hold what it should"
}

# expect_label COMMAND...: the command prints the label of the volume that `make_sample MAKE_VOLUME OPTION...` has made.
make_sample() { "$1" --label Installed "${@:2}" "$work/volume" >/dev/null; }
expect_label() {
  [[ $("$@" "$work/volume") == Installed ]] || fail "$* does not print the label"
}

# packages_version FOLDER: the version in the name of the archive of the sources there.
packages_version() {
  local found=("$1"/kvfs-*.tar.xz) version
  version=${found[0]##*/kvfs-}
  echo "${version%.tar.xz}"
}

# declared HEADER...: the routines that headers declare.
declared() {
  sed 's://.*::' "$@" | grep -oE '\b(kvfs_[a-z0-9_]+|[A-Z][a-z]+[A-Z][A-Za-z]+)\(' | tr -d '(' | sort -u
}
