#!/usr/bin/env bash
# The demonstration publishes the inventory and PCIe SSD regions in POSIX mode and
# `rtvoxctl shm`, another process, decodes them; a region that is not there
# is refused with exit code 1. Argument: the rtvoxctl binary.
set -euo pipefail
tool=$1
work=$(mktemp -d)
export VORN_SHM_MODE=posix VORN_SHM_PREFIX="rtvoxctl-test-$$"
trap 'rm -rf "$work"; rm -f /dev/shm/"$VORN_SHM_PREFIX"-*' EXIT

"$tool" demo --dir "$work/demo" > "$work/demo.out"
"$tool" shm --json > "$work/shm.json"
# Three controllers, seven drives, one battery and the published mark.
for expected in '"count": 3' '"count": 7' '"count": 1' '"rtvox_inventory": 1' '"u8DisableDrivePolling": 0'; do
  grep -q "$expected" "$work/shm.json" || { echo "missing $expected in:"; cat "$work/shm.json"; exit 1; }
done
"$tool" shm --region 3 | grep -q '^  batteries: count 1 rtvox_inventory 1$'
# The PCIe SSD regions: four slots, slot 1's updated status word, the FRU
# counter, the bay record stored whole (its FRU bytes in hex), the card record,
# the SPLIT-mode bytes and the directory's bay record of extender slot 3.
for expected in '"u16DriveStatus": 33' '"u8FRUCounter": 20' '"written": 4' '"written": 1' \
  '"au8FRU": "53 53 44 2d 46 52 55 20 62 61 79 20 31' '"au8SplitMode": "00 00' '"recordBayId": 0'; do
  grep -q "$expected" "$work/shm.json" || { echo "missing $expected in:"; cat "$work/shm.json"; exit 1; }
done
"$tool" shm --region 20 | grep -q '^  asSlot: count 4$'
"$tool" shm --region 15 | grep -Eq '^ +0 +3 +3 +64 +0$'

status=0
VORN_SHM_PREFIX="$VORN_SHM_PREFIX-absent" "$tool" shm --region 3 2> "$work/err" || status=$?
[ "$status" -eq 1 ] && grep -q 'does not exist' "$work/err"
echo "rtvoxctl shm decodes what the demonstration published"
