#!/bin/sh
# namespace.sh allow|forbid COMMAND...: runs COMMAND as root of a new user
# namespace, with a mount namespace and a fresh, empty /tmp of its own, so
# that whatever it does at the fixed controller socket path stays there.
# "forbid" then caps the user and mount namespaces this one may hold at 0,
# as a container that filters them would: a private socket is refused and
# the shared path is used. Exit 125 when the namespace cannot be had.
# COMMAND keeps the working directory, which /tmp does not hide.
mode=$1
shift
unshare --user --map-root-user --mount true || exit 125
exec unshare --user --map-root-user --mount sh -c '
  mount -t tmpfs -o mode=1777 tmpfs /tmp || exit 125
  if [ "$0" = forbid ]; then
    echo 0 >/proc/sys/user/max_user_namespaces && echo 0 >/proc/sys/user/max_mnt_namespaces ||
      exit 125
  fi
  exec "$@"' "$mode" "$@"
