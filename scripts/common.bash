# What scripts share that configure and build. They source it from the root of the repository.

if command -v ccache >/dev/null; then
  export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
  export CCACHE_NOHASHDIR=1 # what one preset has compiled serves another one in another folder of builds
fi

# quietly LOG COMMAND...: the output goes into a file, which is shown when the command fails.
quietly() {
  local log=$1
  shift
  mkdir -p "$(dirname "$log")"
  "$@" >"$log" 2>&1 || { cat "$log"; return 1; }
}

# set_up LEVEL: installs what is missing, in a few lines, unless KVFS_SKIP_SETUP says that nothing is.
set_up() {
  [[ -z ${KVFS_SKIP_SETUP:-} ]] || return 0
  echo "Installing what is missing (scripts/setup $1)"
  quietly build/setup.log scripts/setup "$1"
  sed -n 's/^Installing: /  /p' build/setup.log | fold --spaces --width=118
}

# A line for each quarter of the steps that ninja reports in the form "[ 42%] ...".
show_progress() {
  local line percent quarter=0
  while IFS= read -r line; do
    [[ $line =~ ^\[\ *([0-9]+)%\] ]] || continue
    percent=${BASH_REMATCH[1]}
    if ((percent / 25 > quarter)); then
      quarter=$((percent / 25))
      echo "  $percent %"
    fi
  done
}

# build_preset PRESET [arguments for cmake --build...]: what fails is shown whole; build/PRESET/build.log has the rest.
build_preset() {
  local preset=$1 log=build/$1/build.log warnings
  shift
  echo "Building with the preset $preset in build/$preset"
  quietly "build/$preset/configure.log" scripts/configure "$preset"
  NINJA_STATUS='[%p] ' cmake --build --preset "$preset" "$@" 2>&1 | tee "$log" | show_progress ||
    { grep -v '^\[ *[0-9]*%\]' "$log"; return 1; }
  warnings=$(grep -c ': warning: ' "$log") || true
  ((warnings == 0)) || echo "  $warnings warnings: see $log"
}
