#!/usr/bin/env python3
"""Runs one step of the workflow (a single-strand job or a pair shard) in its own folder, so that a
rerun after a failure picks up where the step stopped.

    run_step.py --folder DIR --done FILE --log FILE --identity TEXT [--identity_of FILE]
                [--ok 0,2] [--link SOURCE NAME] -- PROGRAM ARGS...

The program is run with --resume on its folder (the workflow adds that option): a job stopped by a
failure, a time limit or a lost node is finished by the next attempt, not started over. That is only
right while the step's settings are those of the attempt that left the folder, so the folder keeps
them (IDENTITY: program, inputs and options, but not the thread count, which does not change the
results; with --identity_of, also a digest of that file's contents, for an input such as a shard's
index that may change under the same name). A folder made with other settings is removed first, and
the step starts afresh.

--link puts SOURCE into the folder as NAME: a hard link where the file system allows it, a copy
otherwise. It gives a single-strand job a folder holding its one read file; a symbolic link would
not do, as the annotated copy is placed by the path the link resolves to.

DONE is written only after the program ended with an accepted exit value (--ok), so Snakemake sees a
step as finished exactly when its outputs are whole. The program's output, with one line per
attempt, is appended to LOG. SIGINT and SIGTERM are left to the program, which receives them too
(terminal, job scheduler) and stops cleanly; this wrapper waits for it to do so and reports.
"""
import argparse
import datetime
import hashlib
import os
import shutil
import signal
import socket
import subprocess
import sys

IDENTITY_FILE = ".step_settings"


def parse(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--folder", required=True)
    parser.add_argument("--done", required=True)
    parser.add_argument("--log", required=True)
    parser.add_argument("--identity", required=True)
    parser.add_argument("--identity_of", action="append", default=[])
    parser.add_argument("--ok", default="0")
    parser.add_argument("--link", nargs=2, metavar=("SOURCE", "NAME"))
    parser.add_argument("command", nargs=argparse.REMAINDER)
    args = parser.parse_args(argv)
    if args.command[:1] == ["--"]:
        args.command = args.command[1:]
    if not args.command:
        parser.error("no program to run")
    args.ok = {int(code) for code in args.ok.split(",")}
    for path in args.identity_of:
        digest = hashlib.sha256()
        with open(path, "rb") as f:
            for block in iter(lambda: f.read(1 << 20), b""):
                digest.update(block)
        args.identity += "\n%s sha256 %s" % (path, digest.hexdigest())
    return args


def prepare_folder(folder, identity, log):
    record = os.path.join(folder, IDENTITY_FILE)
    if os.path.isdir(folder):
        previous = open(record).read() if os.path.exists(record) else None
        if previous != identity:
            log.write("The folder %s holds an attempt with other settings%s; starting over.\n"
                      % (folder, "" if previous is not None else " (or none recorded)"))
            shutil.rmtree(folder)
    os.makedirs(folder, exist_ok=True)
    if not os.path.exists(record):
        with open(record + ".partial", "w") as f:
            f.write(identity)
        os.replace(record + ".partial", record)


def place(source, destination, log):
    if os.path.exists(destination):
        return
    os.makedirs(os.path.dirname(destination), exist_ok=True)
    try:
        os.link(source, destination)
    except OSError as e:
        log.write("Could not hard-link %s (%s); copying it.\n" % (source, e.strerror))
        shutil.copyfile(source, destination + ".partial")
        os.replace(destination + ".partial", destination)


def main(argv):
    args = parse(argv)
    os.makedirs(os.path.dirname(os.path.abspath(args.log)), exist_ok=True)
    if os.path.exists(args.done):
        os.remove(args.done)
    with open(args.log, "a") as log:
        when = datetime.datetime.now().isoformat(timespec="seconds")
        log.write("== %s on %s: %s\n" % (when, socket.gethostname(), " ".join(args.command)))
        prepare_folder(args.folder, args.identity, log)
        if args.link:
            place(args.link[0], os.path.join(args.folder, args.link[1]), log)
        log.flush()
        # Ignored here only; the program gets the default handling back and installs its own.
        restore = lambda: [signal.signal(s, signal.SIG_DFL) for s in (signal.SIGINT, signal.SIGTERM)]
        for s in (signal.SIGINT, signal.SIGTERM):
            signal.signal(s, signal.SIG_IGN)
        code = subprocess.call(args.command, stdout=log, stderr=subprocess.STDOUT, preexec_fn=restore)
        if code < 0:
            code = 128 - code  # killed by a signal: report it as a shell would
        accepted = code in args.ok
        log.write("== exit %d%s\n" % (code, "" if accepted else ": the step is not finished; running the "
                                      "workflow again resumes it"))
    if not accepted:
        sys.stderr.write("%s ended with exit value %d in %s; its output is in %s. Running the workflow again "
                         "resumes the step.\n" % (os.path.basename(args.command[0]), code, args.folder, args.log))
        return 1
    with open(args.done, "w") as f:
        f.write("%s\n" % " ".join(args.command))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
