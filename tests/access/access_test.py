#!/usr/bin/env python3
"""usage: access_test.py SOURCE_DIR MANAGERD HALD ORBCTL PROBE

The services as their units run them, on a bus with the policy that is shipped:
only the service user may own the names, only root and clients in the group get
through; and under the units' system call filter a whole campaign works.

Exit 77, skipped: not root, so that there are no other users to be.
"""
import grp
import os
import pwd
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import service_sandbox
from service_sandbox import Identity

# Accounts that every system has, in place of orb and orb-client.
SERVICE_USER, CLIENT_GROUP = "daemon", "games"
EXPOSURE_MAX = 0.5

BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type><listen>unix:path={dir}/bus</listen><auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/><deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/><allow receive_type="method_return"/>
    <allow receive_type="error"/><allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <include>{dir}/orb.conf</include>
</busconfig>
"""


def skip(why):
    print(f"skipped: {why}")
    sys.exit(77)


class Failed(Exception):
    pass


def expect(what, condition):
    print(("ok      " if condition else "FAILED  ") + what, flush=True)
    if not condition:
        raise Failed(what)


class Stage:
    def __init__(self, source, managerd, hald, orbctl, probe):
        self.source, self.orbctl, self.probe = source, orbctl, probe
        self.programs = {"orb-managerd": [managerd, "--state"], "orb-hald": [hald, "--spool"]}
        self.dir = tempfile.mkdtemp(prefix="orb-access-")
        os.chmod(self.dir, 0o755)
        self.children = []
        user = pwd.getpwnam(SERVICE_USER)
        nobody = pwd.getpwnam("nobody")
        group = grp.getgrnam(CLIENT_GROUP).gr_gid
        self.service = Identity(user.pw_uid, user.pw_gid)
        self.outsider = Identity(nobody.pw_uid, nobody.pw_gid)
        self.member = Identity(nobody.pw_uid, nobody.pw_gid, [group])
        self.environment = {**os.environ, "ORB_BUS_ADDRESS": f"unix:path={self.dir}/bus",
                            "ANDROID_LOG_TAGS": "*:i", "ORB_EVENT_LOG": "/dev/null"}

    def folder(self, name, identity):
        path = os.path.join(self.dir, name)
        os.makedirs(path)
        os.chown(path, identity.uid, identity.gid)
        return path

    def start_bus(self):
        with open(f"{self.source}/packaging/linux/orb.conf", encoding="utf-8") as policy:
            text = policy.read()
        self.names = re.findall(r'own="([^"]+)"', text)
        text = text.replace('user="orb"', f'user="{SERVICE_USER}"')
        text = text.replace('group="orb-client"', f'group="{CLIENT_GROUP}"')
        for name, content in (("orb.conf", text), ("bus.conf", BUS.format(dir=self.dir))):
            with open(f"{self.dir}/{name}", "w", encoding="utf-8") as out:
                out.write(content)
        self.children.append(subprocess.Popen(
            ["dbus-daemon", "--nofork", "--nopidfile", f"--config-file={self.dir}/bus.conf"]))
        self.wait(lambda: os.path.exists(f"{self.dir}/bus"))

    def start_service(self, name, identity, log=None):
        unit = f"{self.source}/packaging/linux/{name}.service"
        program = service_sandbox.filter_program(service_sandbox.allowed_calls(unit))
        folder = self.folder(log or name, identity)
        child = identity.start(self.programs[name] + [folder], program, env=self.environment,
                               stderr=open(f"{self.dir}/{log or name}.log", "w",
                                           encoding="utf-8"))
        self.children.append(child)
        return child

    def log(self, name):
        with open(f"{self.dir}/{name}.log", encoding="utf-8", errors="replace") as text:
            return text.read()

    def wait(self, condition, seconds=30):
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            if condition():
                return True
            time.sleep(0.02)
        return False

    def send(self, identity, destination, path, method, *arguments):
        """What a method call over the bus answers."""
        child = identity.start(
            ["dbus-send", f"--bus=unix:path={self.dir}/bus", "--print-reply",
             f"--dest={destination}", path, method, *arguments],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return child.communicate(timeout=30)[0]

    def ask_bus(self, identity, method, *arguments):
        return self.send(identity, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         f"org.freedesktop.DBus.{method}", *arguments)

    def owns(self, identity, name):
        return self.ask_bus(identity, "RequestName", f"string:{name}", "uint32:0")

    def connection_of(self, child):
        names = re.findall(r'"(:[\d.]+)"', self.ask_bus(Identity(0, 0), "ListNames"))
        return next(name for name in names if f"uint32 {child.pid}\n" in self.ask_bus(
            Identity(0, 0), "GetConnectionUnixProcessID", f"string:{name}"))

    def client(self, identity, name, mode=""):
        """A client with a data directory of its own, and what registering answers."""
        data = self.folder(name, identity)
        with open(f"{data}/orb_sdk.conf", "w", encoding="utf-8") as conf:
            conf.write("register_max_retries = 1\nregister_retry_wait_sec = 1\n")
        child = identity.start([self.probe], env=self.environment, stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE,
                               stderr=open(f"{self.dir}/{name}.log", "w", encoding="utf-8"))
        self.children.append(child)
        return child, self.ask(child, f"register {name} {data}/ sync{mode}")

    @staticmethod
    def ask(child, line):
        child.stdin.write(line + "\n")
        child.stdin.flush()
        return child.stdout.readline().strip()

    def ctl(self, identity, *arguments):
        child = identity.start([self.orbctl, *arguments], env=self.environment,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        out = child.communicate(timeout=60)[0]
        return child.returncode, out

    def clean_up(self):
        for child in reversed(self.children):
            if child.poll() is None:
                child.kill()
            child.wait()
        shutil.rmtree(self.dir, ignore_errors=True)


def check_names(stage):
    expect("the policy names the three services", len(stage.names) == 3)
    for name in stage.names:
        for who, identity in (("a user", stage.outsider), ("a client", stage.member),
                              ("root", Identity(0, 0))):
            expect(f"{who} cannot own {name}", "AccessDenied" in stage.owns(identity, name))
        expect(f"{SERVICE_USER} can own {name}", "uint32 1" in stage.owns(stage.service, name))
    stage.start_service("orb-hald", stage.outsider, "false-hald")
    expect("orb-hald of another user is told so",
           stage.wait(lambda: "cannot be published" in stage.log("false-hald")))
    stage.children.pop().kill()


def check_calls(stage):
    outsider, answer = stage.client(stage.outsider, "outsider")
    expect("a client outside the group is not registered", answer == "null")
    expect("the manager never saw it", "outsider" not in stage.log("orb-managerd"))
    client, answer = stage.client(stage.member, "member")
    expect("a client in the group is registered", answer == "ok")
    expect("one client cannot call another", "AccessDenied" in stage.send(
        stage.member, stage.connection_of(client), "/", "org.orb.Binder.Lookup"))
    for who, identity in (("outside the group", stage.outsider), ("in the group", stage.member)):
        expect(f"orbctl of a user {who} is refused",
               stage.ctl(identity, "client", "list")[0] == 1)
    expect("the latter by the manager", "control refused to uid" in stage.log("orb-managerd"))
    expect("orbctl of root and of the service user are not",
           all("member" in stage.ctl(identity, "client", "list")[1]
               for identity in (Identity(0, 0), stage.service)))
    return client


def check_campaign(stage, client, name):
    path = f"{stage.dir}/campaign.txtpb"
    with open(path, "w", encoding="utf-8") as out:
        out.write("threshold_size: 4096 threshold_time: 60\n"
                  "kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER sample_window: 5 }\n"
                  "lic_sn_kpi_maps { lic_sn: 42 kpi_ids: 1 }\n")
    root = Identity(0, 0)
    expect("a campaign starts", stage.ctl(root, "campaign", "start", name, path,
                                          "--lic", "42")[0] == 0)
    expect("samples are taken", stage.ask(client, f"log {name} 1 2 20") == "0")
    expect("the campaign stops", stage.ctl(root, "campaign", "stop", name)[0] == 0)
    expect("the client ends", stage.ask(client, f"deregister {name}") == "0")


def check_spool(stage):
    root = Identity(0, 0)
    code, out = stage.ctl(root, "decode", f"{stage.dir}/orb-hald", "--json")
    counts = sum(int(count) for count in re.findall(r'"count":(\d+)', out))
    expect(f"every sample is in the spool: {counts} of 80", code == 0 and counts == 80)
    expect("the spool is sound", stage.ctl(root, "verify", f"{stage.dir}/orb-hald")[0] == 0)


def check_filter(stage):
    """The filter bites: else the rest would prove nothing."""
    unit = f"{stage.source}/packaging/linux/orb-hald.service"
    calls = service_sandbox.allowed_calls(unit)
    expect("the filter has calls, and not those of an administrator",
           {"read", "openat", "fsync"} <= calls and not {"mount", "chown", "reboot"} & calls)
    program = service_sandbox.filter_program(calls)
    child = stage.service.start(["chroot", stage.dir, "true"], program)
    expect("a forbidden call ends the process", child.wait(30) == -signal.SIGSYS)


def check_units(stage):
    for name, command in stage.programs.items():
        with open(f"{stage.source}/packaging/linux/{name}.service", encoding="utf-8") as text:
            unit = text.read().replace(f"/usr/bin/{name}", command[0])
        path = f"{stage.dir}/{name}.service"
        with open(path, "w", encoding="utf-8") as out:
            out.write(re.sub(r"^Documentation=.*\n", "", unit, flags=re.M))
        result = subprocess.run(["systemd-analyze", "verify", path], capture_output=True, text=True,
                                check=False)
        complaints = [line for line in result.stderr.splitlines() if name in line]
        expect(f"{name}.service is without faults {complaints}", not complaints)
        result = subprocess.run(
            ["systemd-analyze", "security", "--offline=yes",
             f"--threshold={int(EXPOSURE_MAX * 10)}", path], capture_output=True, text=True,
            check=False)
        found = re.search(r"Overall exposure level for \S+: ([\d.]+)", result.stdout)
        expect(f"{name}.service: exposure {found and found[1]}, at most {EXPOSURE_MAX}",
               result.returncode == 0 and found and float(found[1]) <= EXPOSURE_MAX)


def main():
    if os.geteuid() != 0:
        skip("needs root, to run programs as other users")
    for program in ("dbus-daemon", "dbus-send", "systemd-analyze"):
        if shutil.which(program) is None:
            skip(f"{program} is not installed")
    stage = Stage(*sys.argv[1:])
    try:
        stage.outsider.start([stage.orbctl, "--version"], stdout=subprocess.DEVNULL).wait()
    except PermissionError:
        stage.clean_up()
        skip("the build lies where other users cannot run it")
    try:
        check_units(stage)
        check_filter(stage)
        stage.start_bus()
        check_names(stage)
        services = [stage.start_service(name, stage.service) for name in stage.programs]
        for name in stage.programs:
            expect(f"{name} is published",
                   stage.wait(lambda name=name: "is published" in stage.log(name)))
        check_campaign(stage, check_calls(stage), "member")
        client, answer = stage.client(stage.member, "slots", " slots 8 64")
        expect("a client with slots is registered", answer == "ok")
        check_campaign(stage, client, "slots")
        check_spool(stage)
        for name, child in zip(stage.programs, services):
            child.terminate()
            expect(f"{name} ends cleanly", child.wait(30) == 0)
    except Failed:
        for name in ("orb-managerd", "orb-hald", "member", "outsider"):
            if os.path.exists(f"{stage.dir}/{name}.log"):
                print(f"--- {name}", *stage.log(name).splitlines()[-15:], sep="\n")
        return 1
    finally:
        stage.clean_up()
    return 0


if __name__ == "__main__":
    sys.exit(main())
