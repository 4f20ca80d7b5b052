#!/usr/bin/env python3
"""Mutation check of the test suite.

Applies, one at a time, a table of small faults to the library's sources
(a bound off by one, a trace level, a result code, a skipped free, swapped
arguments), rebuilds the i386 preset (ASan + UBSan), runs the whole i386
test suite and reports whether some test failed (CAUGHT) or none did
(SURVIVED). Each source file is restored byte for byte afterwards, also on
Ctrl-C. A first run of the unmutated tree records the tests that already
fail; those never count as catching a mutation.

    scripts/mutate.py                  # every mutation, then a rebuild of the clean tree
    scripts/mutate.py --list           # the table only, nothing is built
    scripts/mutate.py --only M03,M07   # some mutations
    scripts/mutate.py --json out.json  # the results as one JSON document as well

Run it from anywhere inside the checkout, with src/ committed. It exits 0
only when every mutation was caught; a mutation whose anchor text no longer
occurs exactly once is reported as STALE and fails the run, as does one
that does not build. A whole run takes about 3 minutes on two cores (one relink of the\ntests and one suite run per mutation).
"""

import argparse
import json
import os
import re
import signal
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


@dataclass(frozen=True)
class Mutation:
    id: str
    file: str
    anchor: str
    replacement: str
    description: str


MUTATIONS = [
    Mutation("M01", "src/rtvox.cpp",
             "    if (next <= limit) {",
             "    if (next < limit) {",
             "bound off by one in hasLogDepthExceeded (the limit-th line counts as exceeded)"),
    Mutation("M02", "src/rtvox.cpp",
             "        free(table[0]);  // row 0 is the data block itself",
             "        (void)table[0];",
             "free of the data block skipped in rtvox_free_2darray"),
    Mutation("M03", "src/rt_cache.cpp",
             "            if (key >= RTCACHE_BKPLANE_SLOTS) {",
             "            if (key > RTCACHE_BKPLANE_SLOTS) {",
             "bound off by one in the backplane store of the cache (one past the table accepted)"),
    Mutation("M04", "src/rt_cache_events.cpp",
             'RT_TRACE(2, "exceeded the RTCACHE_EVENTCACHE_DEPTH");',
             'RT_TRACE(3, "exceeded the RTCACHE_EVENTCACHE_DEPTH");',
             "trace level 2 -> 3 in the event cache's depth overflow line"),
    Mutation("M05", "src/rt_cache_release.cpp",
             "    rtvox_free(pObjects);  // the run is one block",
             "    (void)pObjects;",
             "free of the record run skipped in the release of a run"),
    Mutation("M06", "src/rt_sync.cpp",
             "    return RTSYNC_TAVO_UNKNOWN;",
             "    return 0;",
             "result code RTSYNC_TAVO_UNKNOWN -> 0 in RTSync_GetTavoStatus for an unknown controller"),
    Mutation("M07", "src/rt_evtq.cpp",
             "    std::free(node);",
             "    (void)node;",
             "free of the queue node skipped in rtraid_EventQueue_Get"),
    Mutation("M08", "src/rt_evtq.cpp",
             'RT_TRACE(2, "<-- exit, the incoming event is NULL");',
             'RT_TRACE(3, "<-- exit, the incoming event is NULL");',
             "trace level 2 -> 3 in rtraid_EventQueue_Put for a null event"),
    Mutation("M09", "src/rt_kwlogwrp.cpp",
             "QNIPCLSubmitEvent(RT_KWLOG_CATEGORY, RT_KWLOG_SOURCE_RAID, severity,",
             "QNIPCLSubmitEvent(RT_KWLOG_SOURCE_RAID, RT_KWLOG_CATEGORY, severity,",
             "arguments category and source swapped in rt_KWLOGCMNSubmitEvent's submission"),
    Mutation("M10", "src/rt_shm_backplane.cpp",
             'RT_TRACE(1, "<-- error:malloc to BP_Info is Failed!!");\n        return 5;',
             'RT_TRACE(1, "<-- error:malloc to BP_Info is Failed!!");\n        return 0;',
             "result code 5 -> 0 in rtshm_BpDataUpdate when the API info block cannot be had"),
    Mutation("M11", "src/rt_shm_nvme_inventory.cpp",
             "    if (u8DriveSlot > RTSHM_NVME_SLOTS - 1) {",
             "    if (u8DriveSlot > RTSHM_NVME_SLOTS) {",
             "bound off by one in rtshm_getExtenderSlotFromDriveSlot's drive slot check"),
    Mutation("M12", "src/rt_shm_nvme_locate.cpp",
             "write_record(function, session.handle(), drive_status_record(bay, slot, status));",
             "write_record(function, session.handle(), drive_status_record(slot, bay, status));",
             "arguments bay and slot swapped in the locate record of Blink/UnBlinkNVMeSSD"),
    Mutation("M13", "src/rt_shm_regions.cpp",
             '"Failed to Read sVOXTAVODrivePolling Shared Memory");\n        return 3;',
             '"Failed to Read sVOXTAVODrivePolling Shared Memory");\n        return 2;',
             "result code 3 -> 2 in RTSHM_ReadSharedThermalPolling when the drive-polling region cannot be read"),
    Mutation("M14", "src/rt_shm_pcie_slots.cpp",
             'RT_TRACE(2, "%s line%d", "Failed while getting slot", __LINE__);',
             'RT_TRACE(3, "%s line%d", "Failed while getting slot", __LINE__);',
             "trace level 2 -> 3 in the PCIe SSD slot mapping when the slot table cannot be read"),
    Mutation("M15", "src/rt_shm_pcie_status.cpp",
             'RT_TRACE(2, "<-- %s error", "NULL FRU buffer");\n        return -1;',
             'RT_TRACE(2, "<-- %s error", "NULL FRU buffer");\n        return 0;',
             "result code -1 -> 0 in ReadFRUFile for a null buffer"),
    Mutation("M16", "src/rt_kwlogwrp.cpp",
             "    if (m >= bufSize) {",
             "    if (m > bufSize) {",
             "bound off by one in rt_Buildmsgstring (a name filling the whole buffer accepted)"),
    Mutation("M17", "src/rt_shm_pcie_slots.cpp",
             'RT_TRACE(2, "%s s8BayNo=%d %d", "error!!, Not a NVMe Backplane", bay, type);',
             'RT_TRACE(3, "%s s8BayNo=%d %d", "error!!, Not a NVMe Backplane", bay, type);',
             "trace level 2 -> 3 for a backplane that is not an NVMe one in the PCIe SSD slot mapping"),
]


def changed_line(text, m):
    """The line of the first character the mutation changes."""
    common = os.path.commonprefix([m.anchor, m.replacement])
    return text[: text.index(m.anchor)].count("\n") + common.count("\n") + 1


def check_anchor(m):
    """(line, None) when the anchor occurs exactly once, else (None, reason)."""
    path = ROOT / m.file
    if not path.exists():
        return None, "file missing"
    text = path.read_text(encoding="utf-8")
    count = text.count(m.anchor)
    if count != 1:
        return None, f"anchor found {count} times"
    return changed_line(text, m), None


def run(cmd, log):
    with open(log, "w", encoding="utf-8") as out:
        return subprocess.run(cmd, cwd=ROOT, stdout=out, stderr=subprocess.STDOUT).returncode


# "  12 - Suite.Case (Failed)", or with a parameter comment before the
# outcome: "   1 - Families/Sweep.Each/Log  # GetParam() = Log (Failed)".
FAILED_LINE = re.compile(r"^\s*\d+\s+-\s+(\S+)")


def run_suite(log):
    """Names of the failing tests (ctest's summary); None when the build fails."""
    if run(["cmake", "--build", "--preset", "i386", "-j2"], log + ".build") != 0:
        return None
    run(["ctest", "--preset", "i386", "-j2"], log)
    text = Path(log).read_text(encoding="utf-8", errors="replace")
    _, found, summary = text.partition("The following tests FAILED:")
    if not found:
        return []
    return [m.group(1) for m in map(FAILED_LINE.match, summary.splitlines()) if m]


def src_is_clean():
    out = subprocess.run(["git", "status", "--porcelain", "--", "src"], cwd=ROOT,
                         capture_output=True, text=True, check=True).stdout
    return out.strip() == ""


def print_table(rows):
    for r in rows:
        where = f"{r['file']}:{r['line'] or '?'}"
        if r["result"] == "CAUGHT":
            names = ", ".join(r["failed"][:2]) + (", ..." if len(r["failed"]) > 2 else "")
            outcome = f"CAUGHT {len(r['failed'])} ({names})"
        else:
            outcome = r["result"]
        print(f"{r['id']}  {where:36}  {r['description']}  -> {outcome}", flush=True)


def interrupted(_signum, _frame):
    raise KeyboardInterrupt


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--list", action="store_true", help="print the table without running anything")
    parser.add_argument("--only", help="comma-separated mutation ids")
    parser.add_argument("--json", metavar="FILE", help="also write the results as JSON")
    args = parser.parse_args()

    chosen = MUTATIONS
    if args.only:
        wanted = {i.strip() for i in args.only.split(",") if i.strip()}
        unknown = wanted - {m.id for m in MUTATIONS}
        if unknown:
            sys.exit(f"unknown mutation ids: {', '.join(sorted(unknown))}")
        chosen = [m for m in MUTATIONS if m.id in wanted]

    if args.list:
        for m in chosen:
            line, problem = check_anchor(m)
            where = f"{m.file}:{line}" if line else f"{m.file}: STALE ({problem})"
            print(f"{m.id}  {where:36}  {m.description}")
        return 0

    if not src_is_clean():
        sys.exit("src/ has uncommitted changes: commit or stash them first")

    # Ctrl-C and a termination both unwind through the finally block that
    # restores the mutated file.
    signal.signal(signal.SIGTERM, interrupted)

    logs = ROOT / "build" / "mutate"
    logs.mkdir(parents=True, exist_ok=True)
    started = time.monotonic()
    if run(["cmake", "--preset", "i386"], str(logs / "configure.log")) != 0:
        sys.exit(f"configure failed, see {logs / 'configure.log'}")
    baseline = run_suite(str(logs / "baseline.log"))
    if baseline is None:
        sys.exit(f"the unmutated tree does not build, see {logs / 'baseline.log.build'}")
    if baseline:
        print(f"already failing before any mutation (not counted): {', '.join(baseline)}", flush=True)

    rows = []
    try:
        for m in chosen:
            row = {"id": m.id, "file": m.file, "line": None, "description": m.description,
                   "result": "", "failed": []}
            rows.append(row)
            line, problem = check_anchor(m)
            if line is None:
                row["result"] = f"STALE ({problem})"
                print_table([row])
                continue
            row["line"] = line
            path = ROOT / m.file
            original = path.read_bytes()
            try:
                path.write_bytes(original.replace(m.anchor.encode(), m.replacement.encode(), 1))
                failed = run_suite(str(logs / f"{m.id}.log"))
            finally:
                path.write_bytes(original)
            if failed is None:
                row["result"] = f"BUILD FAILED (see build/mutate/{m.id}.log.build)"
            else:
                row["failed"] = [t for t in failed if t not in baseline]
                row["result"] = "CAUGHT" if row["failed"] else "SURVIVED"
            print_table([row])
    except KeyboardInterrupt:
        print("interrupted: every mutated file has been restored", file=sys.stderr)
        return 130
    # Leave the build tree matching the restored sources.
    run(["cmake", "--build", "--preset", "i386", "-j2"], str(logs / "restore.log.build"))

    elapsed = time.monotonic() - started
    caught = sum(r["result"] == "CAUGHT" for r in rows)
    print(f"{caught} of {len(rows)} mutations caught in {elapsed / 60:.1f} min")
    if args.json:
        document = {"commit": subprocess.run(["git", "rev-parse", "HEAD"], cwd=ROOT, capture_output=True,
                                             text=True).stdout.strip(),
                    "baseline_failures": baseline, "seconds": round(elapsed), "mutations": rows}
        Path(args.json).write_text(json.dumps(document, indent=2) + "\n", encoding="utf-8")
    return 0 if caught == len(rows) else 1


if __name__ == "__main__":
    sys.exit(main())
