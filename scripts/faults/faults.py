"""Puts realistic faults back into the daemon one at a time and checks that the
native suite catches each of them.

Works in a scratch worktree of a commit (HEAD by default) with its own build
directory; the checkout it is started from is never touched. For each fault
in FAULTS below it applies the edit, rebuilds, runs the suite, restores the
file and prints one row of a Markdown table: the fault, its file, whether the
suite caught it and the first tests that failed. A fault whose text is not
found exactly once (the code moved) is reported as "did not apply".

A failure is only counted as a catch when the same build passed the suite
without the fault first, and the failed tests are run once more to see that
the failure repeats ("yes"); one that does not repeat is reported as "once".
"""

import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

# One fault: a name, the subsystem, the file, a description, and its edits:
# (exact text to find, replacement). Every text must occur exactly once.
FAULTS = [
    dict(
        name="rma-length-offset",
        subsystem="glink",
        file="glink/marlo_glink_io.cc",
        what="the RMA channel's packet length read at the DFU header's offset (8, not 4)",
        edits=[('{"glink_pkt_marlo_rma", 4, 13},', '{"glink_pkt_marlo_rma", 8, 13},')],
    ),
    dict(
        name="delivery-wakelock-kept",
        subsystem="glink",
        file="glink/marlo_glink_io.cc",
        what="a delivered packet's wakelock reference taken with the counting call, never given back",
        edits=[(
            "    wakelock_ref = client_wakelock::reference(_wakelock);\n  }\n  glink_data_cb data_cb",
            "    _wakelock->get_n_locks(1);\n  }\n  glink_data_cb data_cb",
        )],
    ),
    dict(
        name="version-query-retries",
        subsystem="comhandler",
        file="comhandler/MarloComHandler.cc",
        what="the version query tries 13 times, not 14",
        edits=[("attempt <= kVersionAttempts && !done", "attempt < kVersionAttempts && !done")],
    ),
    dict(
        name="busy-open-retries",
        subsystem="comhandler",
        file="comhandler/MarloComHandler.cc",
        what="a busy control device is opened 16 times, not 15",
        edits=[("for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {",
                "for (int attempt = 0; attempt <= kOpenAttempts; ++attempt) {")],
    ),
    dict(
        name="wakelock-move-assign",
        subsystem="comhandler",
        file="comhandler/client_wakelock.h",
        what="a wakelock reference assigned over a held one does not give the old one back",
        edits=[(
            "        release();\n        _wakelock = std::exchange(other._wakelock, nullptr);",
            "        _wakelock = std::exchange(other._wakelock, nullptr);",
        )],
    ),
    dict(
        name="fragment-offset",
        subsystem="fwupdater",
        file="fwupdater/dfu_session.cc",
        what="IMG_OFFSET_RESP's fragment copied from the image's start, not from the requested offset",
        edits=[("image->data.begin() + offset, image->data.begin() + offset + copied",
                "image->data.begin(), image->data.begin() + copied")],
    ),
    dict(
        name="images-published-early",
        subsystem="fwupdater",
        file="fwupdater/dfu_session.cc",
        what="the image list published before it is loaded: a request meanwhile sees a partial list (a race window)",
        edits=[(
            "  loadFwResources(std::string(fw_image_dir) + partition_table_file, loading.get());\n"
            "  const std::shared_ptr<const fw_resource_list> loaded = std::move(loading);\n"
            "  publishFwResources(loaded);\n",
            "  const std::shared_ptr<const fw_resource_list> loaded = loading;\n"
            "  publishFwResources(loaded);\n"
            "  loadFwResources(std::string(fw_image_dir) + partition_table_file, loading.get());\n",
        )],
    ),
    dict(
        name="log-text-spelling",
        subsystem="fwupdater",
        file="fwupdater/version_check.cc",
        what='a log line\'s spelling "corrected": "dsp_cochip MIS-MATCHED" (tools match "MIS-MATHCHED")',
        edits=[('"dsp_cochip MIS-MATHCHED"', '"dsp_cochip MIS-MATCHED"')],
    ),
    dict(
        name="write-ack-before-sync",
        subsystem="rma",
        file="rma/marlo_rma.cc",
        what="a DATA_WRITE acknowledged without its fdatasync",
        edits=[(
            "!marlo::rma::write_all(file.get(), reinterpret_cast<const uint8_t*>(data), size) ||\n"
            "        platform::fdatasync(file.get()) != 0) {",
            "!marlo::rma::write_all(file.get(), reinterpret_cast<const uint8_t*>(data), size)) {",
        )],
    ),
    dict(
        name="read-offset",
        subsystem="rma",
        file="rma/rma_file.cc",
        what="a DATA_READ block read from the file's start: the positioned read leaves the offset out",
        edits=[("length - done, static_cast<off_t>(offset + done));", "length - done, static_cast<off_t>(done));")],
    ),
    dict(
        name="write-claim-unchecked",
        subsystem="rma",
        file="rma/marlo_rma.cc",
        what="DATA_WRITE no longer checks the partition's claim nor a refused CONNECT",
        edits=[('partition_name(request_word); may_use(name, "DATA_WRITE")) {',
                "partition_name(request_word); !name.empty()) {")],
    ),
    dict(
        name="temporary-not-synced",
        subsystem="rma",
        file="rma/rma_backing_store.cc",
        what="a new backing file renamed into place without the fsync of its zeros",
        edits=[("!fill_with_zeros(file.get(), size) || platform::fsync(file.get()) != 0 ||",
                "!fill_with_zeros(file.get(), size) ||")],
    ),
    dict(
        name="power-up-no-push",
        subsystem="daemon",
        file="daemon/NoFlashPsramWorker.cc",
        what="a power event during a push leaves the job request alone: a power-up then asks for no new push",
        edits=[("    job_wanted_ = wants_job;\n", "    if (!job_running_) job_wanted_ = wants_job;\n")],
    ),
    dict(
        name="boot-complete-on-power-down",
        subsystem="daemon",
        file="daemon/SSRHandler.cc",
        what='a power-down sets "vendor.marlo.boot_complete" to "1" (copied from the power-up branch)',
        edits=[('property_set("vendor.marlo.boot_complete", "0");',
                'property_set("vendor.marlo.boot_complete", "1");')],
    ),
    dict(
        name="misc-update-at-start",
        subsystem="daemon",
        file="daemon/NoFlashPsramWorker.cc",
        what='"vendor.zt_aon.misc_update" set to "1" when a push starts, not "0"',
        edits=[('pushStarting() { property_set(kMiscUpdateProperty, "0"); }',
                'pushStarting() { property_set(kMiscUpdateProperty, "1"); }')],
    ),
    dict(
        name="push-read-wakelock-error-path",
        subsystem="daemon",
        file="glink/marlo_glink_io.cc",
        what="the misc-data push's answer read takes its wakelock by hand and returns early on a time-out "
        "without giving it back",
        edits=[
            ("    wakelock_ref = client_wakelock::reference(_wakelock);\n  }\n  // One poll time-out",
             "    _wakelock->get_n_locks(1);\n  }\n  // One poll time-out"),
            ("      result = -1;\n      break;\n    }\n    const ssize_t got",
             "      return -1;\n    }\n    const ssize_t got"),
            ("  if (wakelock_ref) {\n    MARLO_LOGD(\"releasing wakelock\");\n    wakelock_ref.release();\n  }\n"
             "  return result;\n}\n\nvoid marlo_glink::glink_response_handler",
             "  if (_wakelock != nullptr) {\n    MARLO_LOGD(\"releasing wakelock\");\n    _wakelock->put_n_locks(1);\n"
             "  }\n  return result;\n}\n\nvoid marlo_glink::glink_response_handler"),
        ],
    ),
    dict(
        name="journal-fsync-lost",
        subsystem="platform",
        file="platform/host/files.cc",
        what="the host backend's fsync done but not recorded in the file journal",
        edits=[("  const int result = ::fsync(fd);\n  if (result == 0) host::journal::synced(fd);\n",
                "  const int result = ::fsync(fd);\n")],
    ),
]

SHOWN_TESTS = 3


def log(message):
    print(message, file=sys.stderr, flush=True)


def run(command, cwd=None, log_file=None, check=True):
    """Runs `command`; its output goes to `log_file` (appended) or is returned.

    The command runs in a process group of its own, ended as a whole when
    this script is stopped: a build's compilers do not outlive it."""
    out = open(log_file, "a") if log_file else subprocess.PIPE
    try:
        process = subprocess.Popen(command, cwd=cwd, stdout=out, stderr=subprocess.STDOUT, text=True,
                                   start_new_session=True)
        try:
            output, _ = process.communicate()
        except BaseException:
            os.killpg(process.pid, signal.SIGTERM)
            process.wait()
            raise
    finally:
        if log_file:
            out.close()
    if check and process.returncode != 0:
        raise RuntimeError(f"{' '.join(command)} failed ({process.returncode}):\n{output}")
    return process.returncode, output or ""


def apply_edits(path, edits):
    """The file's original text and the faulty one, or None and why not."""
    if not os.path.exists(path):
        return None, None, "file not found"
    with open(path) as f:
        original = f.read()
    text = original
    for find, replace in edits:
        count = text.count(find)
        if count != 1:
            return original, None, f"text found {count} times: {find.splitlines()[0].strip()!r}"
        text = text.replace(find, replace)
    return original, text, None


def failed_tests(build):
    """The tests the last ctest run reported as failed, in its order."""
    path = os.path.join(build, "Testing", "Temporary", "LastTestsFailed.log")
    if not os.path.exists(path):
        return []
    with open(path) as f:
        return [line.split(":", 1)[1].strip() for line in f if ":" in line]


def kill_leftovers(build):
    """Ends processes run from the scratch build (daemons a failed test left behind), by id."""
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            exe = os.readlink(f"/proc/{pid}/exe")
        except OSError:
            continue
        if exe.startswith(build + os.sep) and int(pid) != os.getpid():
            try:
                os.kill(int(pid), signal.SIGKILL)
            except OSError:
                pass


def ctest(build, log_file, full, timeout, names=None):
    """Runs the suite (or the named tests); the failed tests, [] when all passed."""
    stale = os.path.join(build, "Testing", "Temporary", "LastTestsFailed.log")
    if os.path.exists(stale):
        os.remove(stale)
    command = ["ctest", "--test-dir", build, "-j2", "--timeout", str(timeout), "--output-on-failure"]
    if not full:
        command.append("--stop-on-failure")
    if names:
        command += ["-R", "^(" + "|".join(re.escape(n) for n in names) + ")$"]
    status, _ = run(command, log_file=log_file, check=False)
    kill_leftovers(build)
    failed = failed_tests(build)
    if status != 0 and not failed:
        raise RuntimeError(f"ctest failed without naming a failed test, see {log_file}")
    return failed


def build(build_dir, log_file):
    status, _ = run(["cmake", "--build", build_dir, "-j2"], log_file=log_file, check=False)
    return status == 0


def prepare_scratch(repo, scratch, rev):
    """A detached worktree of `rev` at `scratch` (made or brought to `rev`), configured."""
    commit = run(["git", "-C", repo, "rev-parse", "--verify", rev + "^{commit}"])[1].strip()
    if os.path.exists(os.path.join(scratch, ".git")):
        run(["git", "-C", scratch, "checkout", "--quiet", "--force", "--detach", commit])
    else:
        run(["git", "-C", repo, "worktree", "add", "--quiet", "--detach", scratch, commit])
    run(["cmake", "-S", scratch, "-B", os.path.join(scratch, "build"), "-G", "Ninja",
         "-DCMAKE_BUILD_TYPE=RelWithDebInfo"])
    return commit


def cell(names):
    shown = ", ".join(f"`{n}`" for n in names[:SHOWN_TESTS])
    more = len(names) - min(len(names), SHOWN_TESTS)
    return shown + (f" and {more} more" if more > 0 else "")


def main():
    # A terminated run still restores the file and removes the scratch tree.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--keep", metavar="DIR",
                        help="scratch worktree and build to use and keep (incremental builds across runs); "
                        "it is checked out afresh, changes in it are lost")
    parser.add_argument("--rev", default="HEAD", help="commit to check (default HEAD)")
    parser.add_argument("--full", action="store_true", help="run the whole suite per fault, listing every failure")
    parser.add_argument("--timeout", type=int, default=120, help="ctest's time-out per test, in seconds (120)")
    parser.add_argument("--only", nargs="+", metavar="NAME", help="only these faults")
    parser.add_argument("--list", action="store_true", help="print the faults and exit")
    args = parser.parse_args()

    faults = [f for f in FAULTS if not args.only or f["name"] in args.only]
    if args.list:
        for fault in faults:
            print(f"{fault['name']:32} {fault['file']:32} {fault['what']}")
        return 0
    if not faults:
        log("no fault of that name")
        return 2

    repo = run(["git", "-C", os.path.dirname(os.path.abspath(__file__)), "rev-parse", "--show-toplevel"])[1].strip()
    scratch = os.path.abspath(args.keep) if args.keep else tempfile.mkdtemp(prefix="marlod-faults-")
    if not args.keep:
        os.rmdir(scratch)  # git worktree add makes it
    logs = tempfile.mkdtemp(prefix="marlod-faults-logs-")
    build_dir = os.path.join(scratch, "build")
    started = time.monotonic()
    try:
        commit = prepare_scratch(repo, scratch, args.rev)
        log(f"== {commit[:7]} in {scratch}; logs in {logs}")
        baseline_log = os.path.join(logs, "baseline.log")
        if not build(build_dir, baseline_log):
            log(f"== the unchanged code does not build, see {baseline_log}")
            return 1
        failed = ctest(build_dir, baseline_log, True, args.timeout)
        if failed:
            # Run once more: a test that fails again without any fault would
            # make every row a false catch.
            again = ctest(build_dir, baseline_log, True, args.timeout, failed)
            if again:
                log(f"== the suite fails without a fault ({', '.join(again)}), see {baseline_log}")
                return 1
            log(f"== without a fault {', '.join(failed)} failed once and passed when run again")
        log(f"== baseline passed in {time.monotonic() - started:.0f} s")

        print("| Fault | File | Caught | Failed tests | Time |")
        print("|---|---|---|---|---|")
        missed = unapplied = 0
        for fault in faults:
            fault_started = time.monotonic()
            path = os.path.join(scratch, fault["file"])
            fault_log = os.path.join(logs, fault["name"] + ".log")
            original, faulty, why = apply_edits(path, fault["edits"])
            caught, names = "did not apply", why
            unapplied += faulty is None
            if faulty is not None:
                try:
                    with open(path, "w") as f:
                        f.write(faulty)
                    if not build(build_dir, fault_log):
                        caught, names = "did not build", f"see {fault_log}"
                        unapplied += 1
                    else:
                        failed = ctest(build_dir, fault_log, args.full, args.timeout)
                        if not failed:
                            caught, names = "**no**", ""
                            missed += 1
                        else:
                            repeated = ctest(build_dir, fault_log, True, args.timeout, failed[:SHOWN_TESTS])
                            caught = "yes" if repeated else "once"
                            with open(os.path.join(logs, "failed.txt"), "a") as f:
                                f.write(f"{fault['name']}: {' '.join(failed)}\n")
                            names = cell(failed)
                finally:
                    with open(path, "w") as f:
                        f.write(original)
            seconds = time.monotonic() - fault_started
            print(f"| `{fault['name']}`: {fault['what']} | `{fault['file']}` | {caught} | {names} | {seconds:.0f} s |",
                  flush=True)
        # Leave the scratch build matching the unchanged code for the next run.
        build(build_dir, os.path.join(logs, "restore.log"))
        log(f"== {len(faults)} faults, {missed} missed, {unapplied} not applied, "
            f"{time.monotonic() - started:.0f} s in all; logs in {logs}")
        return 1 if missed or unapplied else 0
    finally:
        if not args.keep and os.path.exists(scratch):
            run(["git", "-C", repo, "worktree", "remove", "--force", scratch], check=False)
            shutil.rmtree(scratch, ignore_errors=True)
            run(["git", "-C", repo, "worktree", "prune"], check=False)


if __name__ == "__main__":
    sys.exit(main())
