#!/usr/bin/env bash
# Two appmgr-emu runs on one machine at the same time.
#
# 1. Two runs of the built-in scenario started together must both pass: each
#    has its own /tmp (the library's fixed socket paths) and loopback network.
# 2. Without namespaces (--shared-tmp) a run must refuse at once, naming the
#    sockets and the remote-input port, while another run holds them. This part runs in
#    a sandbox of its own (util-linux unshare) so that it cannot meet any
#    other run on the machine either.
#
# usage: check_concurrent_runs.sh APPMGR_EMU
set -u
emu=$1
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
status=0

"$emu" >"$out/a" 2>&1 &
a=$!
"$emu" >"$out/b" 2>&1 &
b=$!
wait $a; status_a=$?
wait $b; status_b=$?
for run in a b; do
  eval "s=\$status_$run"
  if [ "$s" -ne 0 ] || ! grep -q "^appmgr-emu: scenario passed" "$out/$run" ||
     ! grep -q "^appmgr-emu: private /tmp and loopback network" "$out/$run"; then
    echo "run $run of the built-in scenario: exit status $s"
    cat "$out/$run"
    status=1
  fi
done
[ $status -eq 0 ] && echo "two concurrent runs of the built-in scenario passed"

# Part 2, in the sandbox: run A holds the sockets and, for its key step, the
# remote-input port (the sandbox's loopback is down: the key is not
# delivered, and nothing checks it); run B is started once A reports its
# browser connections and must refuse.
sandboxed=$(
  unshare --user --map-root-user --mount --net bash -c '
    set -u
    # A build tree under /tmp (a checkout there) stays reachable: its top
    # /tmp entry is bound into the fresh /tmp through a stash outside it.
    keep=""
    case $1 in
      /tmp/*) top=/tmp/$(echo "${1#/tmp/}" | cut -d/ -f1)
              keep=$(mktemp -d /dev/shm/appmgr-keep.XXXXXX) || exit 98
              mount --bind "$top" "$keep" || exit 98;;
    esac
    mount -t tmpfs tmpfs /tmp || exit 99
    if [ -n "$keep" ]; then
      mkdir -p "$top" && mount --bind "$keep" "$top" && umount "$keep" && rmdir "$keep" || exit 98
    fi
    printf "[service]\nonid = 1\ntsid = 2\nsid = 3\n[timeline]\nstep1 = wait 1500\nstep2 = key 1\n" >/tmp/hold.ini
    exec 3< <("$1" --shared-tmp --scenario /tmp/hold.ini 2>&1)
    held=no
    while IFS= read -r -t 20 line <&3; do
      case $line in *"connected to /tmp/UNIX_DSMCC.domain"*) held=yes; break;; esac
    done
    [ $held = yes ] || { echo "run A did not connect its browser stand-in"; exit 1; }
    "$1" --shared-tmp --scenario /tmp/hold.ini 2>&1
    echo "run B exit status $?"
    cat <&3 >/dev/null
  ' bash "$emu" 2>&1
) || true
case $sandboxed in
  *"cannot run: another process holds socket /tmp/UNIX_APP.domain"*"port 127.0.0.1:3585"*"run B exit status 1"*)
    echo "a run without namespaces refused while another held the sockets";;
  *)
    echo "a run without namespaces did not refuse while another held the sockets:"
    echo "$sandboxed"
    status=1;;
esac
exit $status
