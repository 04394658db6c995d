#!/usr/bin/env python3
"""usage: capacity.py [--json] [--clients N[,N...]] SOURCE_DIR MANAGERD HALD ORBCTL PROBE

How many clients one machine bears: N client processes under 8 users, on a bus of the
system's type with the limits that docs/integration_linux.md gives, register, run a
campaign, and are stopped at once, while manager and HAL are killed in between. Prints one
row for each N. Exit 1 when a sample is lost that
docs/delivery.md does not give up, 77 when there are no other users to be.
"""
import argparse
import json
import os
import sys
import time
from concurrent.futures import ThreadPoolExecutor

from system_stage import CLIENT_USERS, ROOT, Client, Stage, wait_until

# As docs/integration_linux.md gives them for more than 100 clients.
BUS_LIMITS = """<limit name="max_connections_per_user">2048</limit>
  <limit name="max_completed_connections">4096</limit>
  <limit name="max_replies_per_connection">4096</limit>
  <limit name="max_incoming_unix_fds">1024</limit>
  <limit name="max_outgoing_unix_fds">1024</limit>"""
SAMPLES = 20  # A client and a step; four windows.
WINDOW = 5
BACK_SECONDS = 180


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def kib(pid, name="smaps_rollup", field="Pss"):
    with open(f"/proc/{pid}/{name}", encoding="ascii") as lines:
        return next(int(line.split()[1]) for line in lines if line.startswith(field + ":"))


class Lost(Exception):
    pass


class Fleet:
    def __init__(self, stage, count):
        self.stage, self.count = stage, count
        self.row = {"clients": count}
        stage.start_bus()
        self.services = dict(zip(stage.programs, stage.start_services()))
        self.clients = []
        self.logged = 0

    def measure(self, what, action):
        """Wall-clock seconds of a step, and what the services used for it a client."""
        before = {child.pid: cpu_seconds(child.pid) for child in self.services.values()}
        started = time.monotonic()
        action()
        self.row[f"{what}_s"] = round(time.monotonic() - started, 2)
        for name, child in self.services.items():
            used = cpu_seconds(child.pid) - before.get(child.pid, 0)
            self.row[f"{what}_{name}_cpu_ms"] = round(1000 * used / self.count, 2)

    def each(self, command, clients=None):
        """What all of them answer, asked at once."""
        clients = clients or self.clients
        for client in clients:
            client.tell(command.format(client.name))
        return [client.answer() for client in clients]

    def settle(self):
        """Waits until no upload comes any more."""
        before = -1
        while before != (now := sum(len(files) for _, _, files in
                                    os.walk(f"{self.stage.dir}/orb-hald"))):
            before = now
            time.sleep(0.5)

    def register(self):
        users = [self.stage.member_as(user) for user in CLIENT_USERS]
        for i in range(self.count):
            # Half of the clients have files, half have slots.
            client = Client(self.stage, users[i % len(users)], f"c{i}", conf="")
            client.mode = " slots 8 128" if i % 2 else ""
            client.tell(f"register {client.name} {client.data}/ sync{client.mode}")
            self.clients.append(client)
        answers = [client.answer() for client in self.clients]
        if answers.count("ok") != self.count:
            raise Lost(f"{self.count - answers.count('ok')} clients are not registered")

    def start_campaigns(self):
        campaign = self.stage.counter_campaign()
        with ThreadPoolExecutor(8) as pool:
            codes = list(pool.map(lambda client: self.stage.ctl(
                ROOT, "campaign", "start", client.name, campaign, "--lic", "42"), self.clients))
        failed = [out for code, out in codes if code != 0]
        if failed:
            raise Lost(f"{len(failed)} campaigns are not started: {failed[0]}")

    def log(self):
        if not wait_until(lambda: set(self.each("enabled {} 1")) == {"1"}, BACK_SECONDS):
            raise Lost("a client does not collect")
        if set(self.each(f"log {{}} 1 1 {SAMPLES}")) != {"0"}:
            raise Lost("a client cannot log")
        self.logged += SAMPLES

    def running(self, wanted, since_ms=0):
        """Whether all of them run a session that began after that."""
        code, out = self.stage.ctl(ROOT, "client", "list", "--json")
        found = {record["name"] for record in map(json.loads, out.splitlines())
                 if record["session"] == "running" and record["session_since_ms"] >= since_ms}
        return code == 0 and found >= {client.name for client in wanted}

    def kill(self, name):
        self.services[name].kill()
        self.services[name].wait()
        self.services[name] = self.stage.start_service(name)

    def kill_manager(self):
        self.kill("orb-managerd")
        if not wait_until(lambda: self.running(self.clients), BACK_SECONDS):
            raise Lost("not all clients are back after the manager's death")

    def kill_hal(self):
        """Regions go with their HAL, and what is in the slots with them, so these are sent
        first. The manager starts the campaigns with slots again.
        """
        with_slots = [client for client in self.clients if client.mode]
        self.each("flush {}", with_slots)
        self.settle()
        killed_ms = time.time() * 1000
        self.kill("orb-hald")
        if not wait_until(lambda: self.running(with_slots, killed_ms), BACK_SECONDS):
            raise Lost("not all clients are back after the HAL's death")

    def stop(self):
        self.each("deregister {}")

    def run(self):
        self.measure("register", self.register)
        self.row["idle_manager_kib"] = kib(self.services["orb-managerd"].pid, "status", "VmRSS")
        self.measure("start", self.start_campaigns)
        self.measure("log", self.log)
        some = self.clients[:: max(1, self.count // 20)]
        self.row["client_kib"] = sum(kib(client.child.pid) for client in some) // len(some)
        self.measure("manager_killed", self.kill_manager)
        self.log()
        self.measure("hal_killed", self.kill_hal)
        self.log()
        self.measure("stop", self.stop)
        for name, child in self.services.items():
            self.row[f"{name}_peak_kib"] = kib(child.pid, "status", "VmHWM")
        counts = self.stage.spooled({client.name for client in self.clients})
        lost = {client: self.logged - counts.get(client.name, 0) for client in self.clients}
        self.row["lost"] = sum(lost.values())
        # When the HAL dies, the window that is open has no slot to go to.
        beyond = {client.name: count for client, count in lost.items()
                  if count > (WINDOW if client.mode else 0)}
        if beyond:
            raise Lost(f"{sum(beyond.values())} samples of {len(beyond)} clients are lost")


COLUMNS = (
    ("clients", "clients"), ("register_s", "registered, s"), ("start_s", "campaigns started, s"),
    ("manager_killed_s", "back after the manager's death, s"),
    ("hal_killed_s", "after the HAL's, s"), ("stop_s", "stopped at once, s"),
    ("orb-managerd_peak_kib", "manager, KiB"), ("orb-hald_peak_kib", "HAL, KiB"),
    ("client_kib", "a client, KiB"), ("stop_orb-hald_cpu_ms", "HAL's CPU a stop, ms"),
    ("manager_killed_orb-managerd_cpu_ms", "manager's CPU a return, ms"), ("lost", "lost"),
)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--json", action="store_true")
    parser.add_argument("--clients", default="100,300,1000")
    parser.add_argument("programs", nargs=5)
    options = parser.parse_args()
    if not options.json:
        print("| " + " | ".join(title for _, title in COLUMNS) + " |")
        print("|" + "---|" * len(COLUMNS))
    for count in map(int, options.clients.split(",")):
        stage = Stage(*options.programs, limits=BUS_LIMITS)
        why = stage.missing()
        if why is not None:
            stage.clean_up()
            print(f"skipped: {why}")
            return 77
        fleet = Fleet(stage, count)
        try:
            fleet.run()
        except Lost as loss:
            print(f"{count} clients: {loss}", file=sys.stderr)
            return 1
        finally:
            stage.clean_up()
        if options.json:
            print(json.dumps(fleet.row), flush=True)
        else:
            print("| " + " | ".join(str(fleet.row.get(key, "")) for key, _ in COLUMNS) + " |",
                  flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
