"""Services and clients under different users on a bus of the system's type: the
limits that Debian's own has, the policy that is shipped.

Needs root, to be other users; Stage.missing() tells what a machine lacks.
"""
import glob
import grp
import json
import os
import pwd
import re
import shutil
import subprocess
import tempfile
import time

import service_sandbox
from service_sandbox import Identity

# Accounts that every system has, in place of orb, orb-hal and orb-client.
MANAGER_USER, HAL_USER, CLIENT_GROUP = "daemon", "bin", "games"
# Users that clients may run as.
CLIENT_USERS = ("nobody", "man", "lp", "mail", "news", "uucp", "proxy", "backup")
ROOT = Identity(0, 0)

# As /usr/share/dbus-1/system.conf, whose limits are the daemon's built-in ones.
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
  {limits}
  <include>{dir}/orb.conf</include>
</busconfig>
"""


def wait_until(condition, seconds=30):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.02)
    return False


class Failed(Exception):
    pass


def expect(what, condition):
    print(("ok      " if condition else "FAILED  ") + what, flush=True)
    if not condition:
        raise Failed(what)


def perform(stage, play, logs):
    """Calls play() on the stage, which is cleaned up then. A test's exit code: 77 on a
    machine that cannot have the stage; after a failure the last warnings and errors of each
    log are printed, then its last lines.
    """
    try:
        why = stage.missing()
        if why is not None:
            print(f"skipped: {why}")
            return 77
        play()
    except Failed:
        for name in logs:
            if os.path.exists(f"{stage.dir}/{name}.log"):
                lines = stage.log(name).splitlines()
                complaints = [line for line in lines[:-15] if re.search(r" [WEF] \d\d-", line)]
                print(f"--- {name}", *complaints[-40:], "...", *lines[-15:], sep="\n")
        return 1
    finally:
        stage.clean_up()
    return 0


class Client:
    """A probe client: one command a line, one answer a line."""

    def __init__(self, stage, identity, name,
                 conf="register_max_retries = 1\nregister_retry_wait_sec = 1\n"):
        self.name = name
        self.data = stage.folder(name, identity)
        self.log_path = f"{stage.dir}/{name}.log"
        with open(f"{self.data}/orb_sdk.conf", "w", encoding="utf-8") as out:
            out.write(conf)
        with open(self.log_path, "w", encoding="utf-8") as log:
            self.child = identity.start([stage.probe], env=stage.environment,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log)
        stage.children.append(self.child)

    def tell(self, line):
        self.child.stdin.write(line + "\n")
        self.child.stdin.flush()

    def answer(self):
        return self.child.stdout.readline().strip()

    def ask(self, line):
        self.tell(line)
        return self.answer()

    def register(self, mode=""):
        return self.ask(f"register {self.name} {self.data}/ sync{mode}")


class Stage:
    """`limits`: elements of the bus's configuration, beyond the stock ones."""

    def __init__(self, source, managerd, hald, orbctl, probe, limits=""):
        self.source, self.orbctl, self.probe = source, orbctl, probe
        self.programs = {"orb-managerd": [managerd, "--state"], "orb-hald": [hald, "--spool"]}
        self.dir = tempfile.mkdtemp(prefix="orb-stage-")
        os.chmod(self.dir, 0o755)
        self.children = []
        manager = pwd.getpwnam(MANAGER_USER)
        nobody = pwd.getpwnam("nobody")
        self.client_group = grp.getgrnam(CLIENT_GROUP).gr_gid
        self.manager = Identity(manager.pw_uid, manager.pw_gid)
        self.hal = Identity(pwd.getpwnam(HAL_USER).pw_uid, manager.pw_gid)
        self.services = {"orb-managerd": self.manager, "orb-hald": self.hal}
        self.outsider = Identity(nobody.pw_uid, nobody.pw_gid)
        self.member = self.member_as("nobody")
        self.environment = {**os.environ, "ORB_BUS_ADDRESS": f"unix:path={self.dir}/bus",
                            "ANDROID_LOG_TAGS": "*:i", "ORB_EVENT_LOG": "/dev/null"}
        with open(f"{source}/packaging/linux/orb.conf", encoding="utf-8") as policy:
            text = policy.read()
        self.names = {user: re.findall(r'own="([^"]+)"', rules)
                      for user, rules in re.findall(r'<policy user="(.*?)">(.*?)</policy>', text,
                                                    re.S)}
        for ours, there in (('user="orb"', f'user="{MANAGER_USER}"'),
                            ('user="orb-hal"', f'user="{HAL_USER}"'),
                            ('group="orb-client"', f'group="{CLIENT_GROUP}"')):
            text = text.replace(ours, there)
        for name, content in (("orb.conf", text),
                              ("bus.conf", BUS.format(dir=self.dir, limits=limits))):
            with open(f"{self.dir}/{name}", "w", encoding="utf-8") as out:
                out.write(content)

    def missing(self):
        """Why a machine cannot have this stage; None when it can."""
        if os.geteuid() != 0:
            return "needs root, to run programs as other users"
        for program in ("dbus-daemon", "dbus-send", "systemd-analyze"):
            if shutil.which(program) is None:
                return f"{program} is not installed"
        try:
            self.outsider.start([self.orbctl, "--version"], stdout=subprocess.DEVNULL).wait()
        except PermissionError:
            return "the build lies where other users cannot run it"
        return None

    def member_as(self, user):
        entry = pwd.getpwnam(user)
        return Identity(entry.pw_uid, entry.pw_gid, [self.client_group])

    def folder(self, name, identity):
        path = os.path.join(self.dir, name)
        os.makedirs(path, exist_ok=True)
        os.chown(path, identity.uid, identity.gid)
        return path

    def start_bus(self):
        with open(f"{self.dir}/bus.log", "w", encoding="utf-8") as log:
            self.children.append(subprocess.Popen(
                ["dbus-daemon", "--nofork", "--nopidfile",
                 f"--config-file={self.dir}/bus.conf"], stderr=log))
        wait_until(lambda: os.path.exists(f"{self.dir}/bus"))

    def start_service(self, name, identity=None, log=None, sandbox=True):
        """As its unit's user under its unit's filter, unless told otherwise."""
        identity = identity or self.services[name]
        unit = f"{self.source}/packaging/linux/{name}.service"
        program = (service_sandbox.filter_program(service_sandbox.allowed_calls(unit))
                   if sandbox else None)
        folder = self.folder(log or name, identity)
        with open(f"{self.dir}/{log or name}.log", "a", encoding="utf-8") as out:
            child = identity.start(self.programs[name] + [folder], program, env=self.environment,
                                   stderr=out)
        self.children.append(child)
        return child

    def start_services(self):
        """Both, published; in the order of self.programs."""
        children = [self.start_service(name) for name in self.programs]
        for name in self.programs:
            if not wait_until(lambda name=name: "is published" in self.log(name)):
                raise RuntimeError(f"{name} is not published: {self.log(name)}")
        return children

    def log(self, name):
        with open(f"{self.dir}/{name}.log", encoding="utf-8", errors="replace") as text:
            return text.read()

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

    def connection_of(self, child):
        names = re.findall(r'"(:[\d.]+)"', self.ask_bus(ROOT, "ListNames"))
        return next(name for name in names if f"uint32 {child.pid}\n" in self.ask_bus(
            ROOT, "GetConnectionUnixProcessID", f"string:{name}"))

    def ctl(self, identity, *arguments, timeout=60):
        child = identity.start([self.orbctl, *arguments], env=self.environment,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        out = child.communicate(timeout=timeout)[0]
        return child.returncode, out

    def counter_campaign(self):
        """A file: KPI 1, a counter, a record every 5 samples."""
        path = f"{self.dir}/campaign.txtpb"
        with open(path, "w", encoding="utf-8") as out:
            out.write("threshold_size: 4096 threshold_time: 60\n"
                      "kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER sample_window: 5 }\n"
                      "lic_sn_kpi_maps { lic_sn: 42 kpi_ids: 1 }\n")
        return path

    def spooled(self, names):
        """Samples in the spool, by the client's name; uploads of others may be anything."""
        folders = [folder for folder in glob.glob(f"{self.dir}/orb-hald/up/*")
                   if any(entry.rpartition(".")[0] in names for entry in os.listdir(folder))]
        code, out = self.ctl(ROOT, "decode", *folders, "--json", timeout=300)
        if code != 0:
            raise RuntimeError(f"decode: {out[-2000:]}")
        counts = {}
        for line in out.splitlines():
            record = json.loads(line)
            client = os.path.basename(os.path.dirname(record.get("file", ""))).rpartition(".")[0]
            counts[client] = counts.get(client, 0) + record.get("count", 0)
        return counts

    def clean_up(self):
        for child in reversed(self.children):
            if child.poll() is None:
                child.kill()
            child.wait()
        shutil.rmtree(self.dir, ignore_errors=True)
