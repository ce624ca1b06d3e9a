# The start every benchmark script shares: the root check, the build of what it runs, and
# the work directory whose subdirectories its private mount namespace mounts tmpfs on.
# Those mounts live only in that namespace and vanish with it, so the exit trap is left
# with empty directories to remove. Sourced by the scripts beside it; defines functions only.

bench_require_root() {
  if [ "$(id -u)" -ne 0 ]; then
    echo "$1: fanotify permission events need root" >&2
    exit 2
  fi
}

# bench_build ROOT BUILD_DIR TARGET...
bench_build() {
  local root=$1 build_dir=$2
  shift 2
  [ -f "$build_dir/CMakeCache.txt" ] || cmake -S "$root" -B "$build_dir" -G Ninja
  cmake --build "$build_dir" --target "$@"
}

# bench_work_dir NAME SUBDIR...: sets work to a fresh /tmp/NAME.XXXXXX holding the subdirs.
bench_work_dir() {
  work=$(mktemp -d "/tmp/$1.XXXXXX")
  shift
  bench_subdirs=("$@")
  local dir
  for dir in "${bench_subdirs[@]}"; do mkdir "$work/$dir"; done
  trap bench_remove_work_dir EXIT
}

bench_remove_work_dir() {
  local dir
  for dir in "${bench_subdirs[@]}"; do rmdir "$work/$dir" 2>/dev/null || true; done
  rmdir "$work" 2>/dev/null || true
}
