#!/usr/bin/env python3
"""The demo's story; script/demo builds everything and then runs this."""
import argparse
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

CLIENT = "orb-sysmon"
NET_IN_KPI = 1004
REGION_KPI = 9001
FULL_LICSN, PART_LICSN, PLAIN_LICSN = 42, 77, 99
SLOT_CLIENT = "orb-sysmon-slots"


class DemoFailed(Exception):
    pass


class Demo:
    def __init__(self, build, as_json, seconds):
        self.build = os.path.abspath(build)
        self.as_json = as_json
        self.seconds = seconds
        self.dir = tempfile.mkdtemp(prefix="orb-demo-")
        self.children = []
        self.env = dict(os.environ, ORB_EVENT_LOG=os.path.join(self.dir, "events.bin"))

    # --- plumbing ---
    def say(self, text):
        print(text, file=sys.stderr if self.as_json else sys.stdout, flush=True)

    def program(self, name):
        for root, _, files in os.walk(self.build):
            if name in files and os.access(os.path.join(root, name), os.X_OK):
                return os.path.join(root, name)
        raise DemoFailed(f"{name} was not built")

    def start(self, name, argv):
        log = open(os.path.join(self.dir, name + ".log"), "wb")
        child = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                 env=self.env, start_new_session=True)
        self.children.append((name, child))
        return child

    def ctl(self, *args, check=True):
        done = subprocess.run([self.program("orbctl"), *args], env=self.env,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=60)
        if check and done.returncode != 0:
            raise DemoFailed(f"orbctl {' '.join(args)}: {done.stderr.strip()}")
        return done.stdout

    def wait_for(self, what, condition, seconds=20):
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            if condition():
                return
            for name, child in self.children:
                if child.poll() is not None:
                    raise DemoFailed(f"{name} ended with status {child.returncode}")
            time.sleep(0.05)
        raise DemoFailed(f"waited {seconds} s for {what}")

    def registered(self, name):
        return name in self.ctl("client", "list", check=False)

    def stop(self, name):
        for entry in [e for e in self.children if e[0] == name]:
            self.children.remove(entry)
            child = entry[1]
            child.terminate()
            try:
                child.wait(10)
            except subprocess.TimeoutExpired:
                child.kill()
                child.wait()
                raise DemoFailed(f"{name} did not stop on SIGTERM")

    def clean_up(self, keep=None):
        for _, child in reversed(self.children):
            if child.poll() is None:
                child.terminate()
        for _, child in reversed(self.children):
            try:
                child.wait(5)
            except subprocess.TimeoutExpired:
                child.kill()
                child.wait()
        if keep:
            shutil.copytree(self.dir, keep, ignore=shutil.ignore_patterns("bus"))
        shutil.rmtree(self.dir, ignore_errors=True)

    # --- the story ---
    def start_bus(self):
        path = os.path.join(self.dir, "bus")
        config = os.path.join(self.dir, "bus.conf")
        with open(config, "w", encoding="utf-8") as out:
            out.write(
                "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN'"
                " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>"
                f"<busconfig><type>session</type><listen>unix:path={path}</listen>"
                "<auth>EXTERNAL</auth><policy context='default'><allow send_destination='*' eavesdrop='true'/>"
                "<allow eavesdrop='true'/><allow own='*'/></policy></busconfig>")
        self.start("dbus-daemon", ["dbus-daemon", "--config-file=" + config, "--nofork"])
        self.wait_for("the bus", lambda: os.path.exists(path))
        self.env["ORB_BUS_ADDRESS"] = "unix:path=" + path

    def start_services(self):
        self.start("orb-hald", [self.program("orb-hald"), "--spool", self.dir + "/spool"])
        self.start("orb-managerd", [self.program("orb-managerd"), "--state", self.dir + "/state"])
        self.wait_for("the manager", self.manager_answers)

    def manager_answers(self):
        done = subprocess.run([self.program("orbctl"), "client", "list"], env=self.env,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=60)
        return done.returncode == 0

    def start_client(self, name, *options):
        data = os.path.join(self.dir, name)
        os.mkdir(data)
        self.start(name, [self.program("orb-sysmon"), "--name", name, "--data-dir", data + "/",
                          *options])
        self.wait_for(f"{name} to register", lambda: self.registered(name))

    def key(self, lic_sn, half):
        return os.path.join(self.dir, f"keys-{lic_sn}", half + ".pem")

    def make_keys(self):
        for lic_sn in (FULL_LICSN, PART_LICSN):
            self.ctl("key", "new", os.path.join(self.dir, f"keys-{lic_sn}"))

    def start_slots(self):
        """A second client, through shared memory, and one with a region of its own."""
        self.start_client(SLOT_CLIENT, "--hbt")
        self.ctl("campaign", "start", SLOT_CLIENT, "examples/sysmon_slots.txtpb", "--id", "8",
                 "--lic", str(FULL_LICSN))
        self.say(f"campaign 8 runs on {SLOT_CLIENT} through shared-memory slots")
        done = subprocess.run([self.program("orb-region"), self.dir + "/"], env=self.env,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=60)
        if done.returncode != 0:
            raise DemoFailed(f"orb-region: {done.stderr.strip()[-500:]}")
        self.say(done.stdout.strip())

    def collect(self):
        """Runs the campaign; returns /proc readings that bound what was counted."""
        self.ctl("campaign", "start", CLIENT, "examples/sysmon.txtpb", "--id", "7",
                 "--lic", f"{FULL_LICSN}:{self.key(FULL_LICSN, 'public')}:gcm",
                 "--lic", f"{PART_LICSN}:{self.key(PART_LICSN, 'public')}:cbc",
                 "--lic", str(PLAIN_LICSN))
        self.say(f"campaign 7 runs on {CLIENT} for {FULL_LICSN} (sealed with GCM), {PART_LICSN} "
                 f"(sealed with CBC) and {PLAIN_LICSN} (plain)")
        time.sleep(1)  # Past the monitor's first reading in the session.
        begin = net_in_bytes()
        move_bytes(6 << 20)
        time.sleep(self.seconds / 2)
        self.ctl("campaign", "lic-stop", CLIENT, str(PART_LICSN))
        self.say(f"stopped {PART_LICSN} midway")
        move_bytes(2 << 20)
        time.sleep(self.seconds / 2 - 1)
        end = net_in_bytes()
        time.sleep(1)  # The monitor's last reading in the session comes after `end`.
        self.ctl("campaign", "stop", CLIENT)
        self.say("campaign stopped")
        return begin, end

    def decode(self):
        spool = self.dir + "/spool"
        options = ["--campaign", "examples/sysmon.txtpb"]
        for lic_sn in (FULL_LICSN, PART_LICSN):
            options += ["--key", self.key(lic_sn, "private")]
        lines = self.ctl("decode", spool, *options, "--format", "json")
        records = [json.loads(line) for line in lines.splitlines() if line.strip()]
        if self.as_json:
            sys.stdout.write(lines)
            sys.stdout.flush()
        else:
            self.say(self.ctl("decode", spool, *options))
        records = [r for r in records if "kpi_id" in r]
        self.say(summary(records))
        return records

    def check(self, records, before, inner, after):
        counted = {}
        for record in (r for r in records if r["campaign_id"] == 7):
            key = (record["lic_sn"], record["kpi_id"])
            counted[key] = counted.get(key, 0) + int(record.get("count", 0))
        full = counted.get((FULL_LICSN, NET_IN_KPI), 0)
        part = counted.get((PART_LICSN, NET_IN_KPI), 0)
        low, high = inner[1] - inner[0], after - before
        self.say(f"bytes in, counted for {FULL_LICSN}: {full}; /proc/net/dev says "
                 f"{low} within the campaign and {high} around it")
        if not low <= full <= high:
            raise DemoFailed("the counted bytes do not agree with /proc")
        if not 6 << 20 <= part < full:
            raise DemoFailed(f"{PART_LICSN} was stopped midway but holds {part} bytes")
        self.say(f"bytes in, counted for {PART_LICSN} until it was stopped: {part}")
        self.say("ok: the counted bytes agree with /proc")
        through_slots = sum(r["campaign_id"] == 8 for r in records)
        own_region = sum(r["kpi_id"] == REGION_KPI for r in records)
        if through_slots == 0 or own_region == 0:
            raise DemoFailed(f"{through_slots} records came through slots, {own_region} through "
                             "a client's own region")
        self.say(f"ok: {through_slots} records came through slots, {own_region} through a "
                 "client's own region")

    def show_events(self):
        text = self.ctl("event", "decode", self.env["ORB_EVENT_LOG"], "--names",
                        "examples/event_names.txt")
        self.say(text)
        if "session_start" not in text:
            raise DemoFailed("no event of a session start was recorded")

    def run(self):
        self.start_bus()
        self.start_services()
        self.start_client(CLIENT)
        self.say(f"a private bus, orb-hald, orb-managerd and {CLIENT} are running")
        self.make_keys()
        self.start_slots()
        before = net_in_bytes()
        inner = self.collect()
        after = net_in_bytes()
        self.ctl("campaign", "stop", SLOT_CLIENT)
        self.stop(CLIENT)
        self.stop(SLOT_CLIENT)
        self.check(self.decode(), before, inner, after)
        self.show_events()
        self.stop("orb-managerd")
        self.stop("orb-hald")


def total(records):
    """What all windows of one KPI and owner come to."""
    if "count" in records[0]:
        return str(sum(r["count"] for r in records))
    if "bucket_counts" in records[0]:
        sums = [sum(column) for column in zip(*(r["bucket_counts"] for r in records))]
        return "buckets " + " ".join(map(str, sums))
    if "data_bytes" in records[0]:
        return f"{sum(r['data_bytes'] for r in records)} bytes"
    low, high = (f(r[k] for r in records if k in r) for f, k in ((min, "min"), (max, "max")))
    return f"between {low} and {high}"


def summary(records):
    groups = {}
    for record in records:
        key = (record["lic_sn"], record["campaign_id"], record["kpi_id"], record["kind"])
        groups.setdefault(key, []).append(record)
    lines = [f"{'LICSN':>6} {'CAMPAIGN':>8} {'KPI':>5}  {'KIND':9} {'WINDOWS':>7} {'SAMPLES':>7}"
             "  TOTAL"]
    for (lic_sn, campaign, kpi, kind), found in sorted(groups.items()):
        samples = sum(r["num_samples"] for r in found)
        lines.append(f"{lic_sn:6} {campaign:8} {kpi:5}  {kind:9} {len(found):7} {samples:7}  "
                     f"{total(found)}")
    return "\n".join(lines)


def net_in_bytes():
    with open("/proc/net/dev", encoding="ascii") as lines:
        return sum(int(line.split(":")[1].split()[0]) for line in lines if ":" in line)


def move_bytes(count):
    """Sends count bytes over the loopback interface."""
    server = socket.create_server(("127.0.0.1", 0))

    def drain():
        peer, _ = server.accept()
        with peer:
            while peer.recv(1 << 16):
                pass

    reader = threading.Thread(target=drain)
    reader.start()
    with socket.create_connection(server.getsockname()) as out:
        out.sendall(bytes(count))
    reader.join()
    server.close()


def main():
    parser = argparse.ArgumentParser(prog="script/demo")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--json", action="store_true")
    parser.add_argument("--seconds", type=int, default=10)
    parser.add_argument("--keep", metavar="DIR")
    args = parser.parse_args()
    if args.keep and os.path.exists(args.keep):
        parser.error(f"{args.keep} is there already")

    def interrupted(signum, _frame):
        raise DemoFailed(f"interrupted by {signal.Signals(signum).name}")

    signal.signal(signal.SIGINT, interrupted)
    signal.signal(signal.SIGTERM, interrupted)
    demo = Demo(args.build, args.json, max(args.seconds, 6))
    try:
        demo.run()
    except (DemoFailed, OSError, subprocess.TimeoutExpired) as problem:
        print(f"demo: {problem}", file=sys.stderr)
        for name in ("orb-managerd", "orb-hald", CLIENT, SLOT_CLIENT):
            path = os.path.join(demo.dir, name + ".log")
            if os.path.exists(path):
                with open(path, encoding="utf-8", errors="replace") as log:
                    print(f"--- {name}", *log.readlines()[-15:], sep="\n", file=sys.stderr)
        return 1
    finally:
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        demo.clean_up(args.keep)
    return 0


if __name__ == "__main__":
    sys.exit(main())
