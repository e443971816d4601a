#!/bin/sh
# Runs one test in a mount and network namespace of its own: only loopback,
# up, and a fresh /tmp. The worker's controller socket path is fixed, so
# tests that start a worker can run side by side only this way. Root only.
exec unshare --mount --net sh -c 'ip link set lo up && mount -t tmpfs tmpfs /tmp && exec "$0" "$@"' "$@"
