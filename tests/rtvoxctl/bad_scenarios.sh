#!/usr/bin/env bash
# A scenario that cannot be run is refused before anything runs: exit code 2,
# nothing on stdout, and one line on stderr naming the file, the place and
# what was expected there.
#   bad_scenarios.sh COMMAND...   (the command line that runs rtvoxctl)
set -u
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0

# refused NAME SCENARIO MESSAGE: MESSAGE is what follows "rtvoxctl simulate: FILE"
# (its beginning, for the parser's own wording). NAME "missing" writes no file.
refused() {
  local file="$dir/$1.json"
  [ "$1" = missing ] || printf '%s' "$2" >"$file"
  "${runner[@]}" simulate "$file" >"$dir/out" 2>"$dir/err"
  local rc=$? want="rtvoxctl simulate: $file$3"
  local lines
  lines=$(wc -l <"$dir/err")
  if [ $rc -ne 2 ] || [ -s "$dir/out" ] || [ "$lines" -ne 1 ] || [[ "$(cat "$dir/err")" != "$want"* ]]; then
    echo "FAIL $1: exit $rc, stdout $(wc -c <"$dir/out") bytes, stderr:"
    cat "$dir/err"
    echo "  wanted: $want"
    failures=$((failures + 1))
  fi
}

runner=("$@")

refused syntax '{"controllers": [
}' ":2:1: not valid JSON: "
refused number_overflow '{"controllers": [{"eid": 1e400, "kind": "TAVO"}]}' ": not valid JSON: number overflow parsing '1e400'"
refused unknown_key '{"controllers": [{"eid": 1, "kind": "TAVO", "battery": {"temprature": 30}}]}' \
  ": /controllers/0/battery/temprature: unknown key; expected one of: state, temperature, name, fqdd"
refused wrong_type '{"controllers": [{"eid": "16", "kind": "TAVO"}]}' \
  ': /controllers/0/eid: expected an integer from 0 to 254, found the string "16"'
refused out_of_range '{"controllers": [{"eid": 1, "kind": "TAVO"}, {"eid": 300, "kind": "HBA"}]}' \
  ": /controllers/1/eid: expected an integer from 0 to 254, found 300"
refused gone_disk '{"controllers": [{"eid": 1, "kind": "TAVO", "disks": [{"key": 0}]}],
  "steps": [{"do": "disk_removed", "controller": 1, "key": 0}, {"do": "disk_removed", "controller": 1, "key": 0}]}' \
  ": /steps/1/key: expected the key of a disk of controller 1, found 0"
refused unknown_field '{"steps": [{"do": "poll", "expect": [{"field": "pd.au8Temp[255]", "is": 0}]}]}' \
  ': /steps/0/expect/0/field: expected a numeric region field such as "ctrl.s32Count" or "pd.au8Temp[3]", found the string "pd.au8Temp[255]"'
refused missing '' ": cannot be read: No such file or directory"

[ $failures -eq 0 ] && echo "bad scenarios: all refused as expected"
exit $((failures != 0))
