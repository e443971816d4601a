# Sourced by the scripts that build a tree of their own:
#
#   build_tree DIR CMAKE-ARG...   configures DIR from the top of the source
#                                 tree (RelWithDebInfo; warnings are errors
#                                 when CI=true) and builds all of it

build_tree() {
  local dir=$1
  shift
  local werror=OFF
  [ "${CI:-}" = "true" ] && werror=ON
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHALVARINE_WERROR="$werror" "$@" \
    >/dev/null
  cmake --build "$dir" -j"$(nproc)"
}
