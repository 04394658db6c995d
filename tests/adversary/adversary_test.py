#!/usr/bin/env python3
"""usage: adversary_test.py SOURCE_DIR MANAGERD HALD ORBCTL PROBE ADVERSARY ATTACK...

Attacks on both services, on a bus of the system's type, while an honest client of each
mode works: the honest ones lose nothing, the services keep process and connection and
stay within MEMORY_MIB of what they hold when idle.

Exit 77, skipped: not root, so that there are no other users to be.
"""
import json
import signal
import subprocess
import sys
import time
from dataclasses import dataclass

from system_stage import ROOT, Client, Failed, Stage, expect, perform

MEMORY_MIB = 64
SECONDS = 2  # Of one attack, beyond its first round.


@dataclass
class Attack:
    name: str
    processes: int = 1
    stopped: bool = False  # After the first round: they answer nothing any more.
    victim: str = ""       # Told by its "name" or by an "upload" of its.


ATTACKS = {attack.name: attack for attack in (
    Attack("oversize", 2), Attack("malformed", 2), Attack("flood-oneway", 4),
    Attack("unread-replies", 2), Attack("reconnect", 2), Attack("hold-connections"),
    Attack("steal-name", victim="name"), Attack("register-again"), Attack("take-names"),
    Attack("large-uploads", 24), Attack("forge-uploads", 2, victim="upload"),
    Attack("idle-queue", 200), Attack("silent-slots", 130, stopped=True),
    Attack("odd-descriptors", 2),
)}
# What an attacker prints when it has got what it must not have.
SUCCESSES = ("has the name", "has stored as", "of another kind is taken")


def status_kib(child, field):
    with open(f"/proc/{child.pid}/status", encoding="ascii") as lines:
        return next(int(line.split()[1]) for line in lines if line.startswith(field + ":"))


class Trial:
    def __init__(self, stage, adversary):
        self.stage, self.adversary = stage, adversary
        stage.start_bus()
        self.services = dict(zip(stage.programs, stage.start_services()))
        self.connections = {name: stage.connection_of(child)
                            for name, child in self.services.items()}
        self.idle_kib = {name: status_kib(child, "VmRSS") for name, child in self.services.items()}
        self.honest = [(Client(stage, stage.member_as("man"), "honest-files"), ""),
                       (Client(stage, stage.member_as("lp"), "honest-slots"), " slots 64 4096")]
        self.logged = 0
        for client, mode in self.honest:
            expect(f"{client.name} registers", client.register(mode) == "ok")
            expect(f"{client.name} is given a campaign", stage.ctl(
                ROOT, "campaign", "start", client.name, stage.counter_campaign(),
                "--lic", "42")[0] == 0)

    def id_of(self, name):
        lines = self.stage.ctl(ROOT, "client", "list", "--json")[1].splitlines()
        return next(client["id"] for client in map(json.loads, lines) if client["name"] == name)

    def work(self):
        """The honest clients' everyday."""
        for client, _ in self.honest:
            if client.ask(f"log {client.name} 1 1 10") != "0":
                raise Failed(f"{client.name} cannot log")
        self.logged += 10
        time.sleep(0.02)

    def attackers(self, attack):
        honest = self.honest[0][0].name
        victim = {"": [], "name": [honest],
                  "upload": [f"/up/{self.id_of(honest)}/{honest}.42"]}[attack.victim]
        attacker = self.stage.member_as("nobody")
        return [attacker.start([self.adversary, attack.name, *victim], stdin=subprocess.DEVNULL,
                               env={**self.stage.environment, "ANDROID_LOG_TAGS": "*:f"},
                               stdout=open(f"{self.stage.dir}/attack-{i}", "w", encoding="utf-8"))
                for i in range(attack.processes)]

    def printed(self, attack):
        for i in range(attack.processes):
            with open(f"{self.stage.dir}/attack-{i}", encoding="utf-8") as text:
                yield text.read()

    def run(self, attack):
        for child in self.services.values():
            with open(f"/proc/{child.pid}/clear_refs", "w", encoding="ascii") as control:
                control.write("5")  # Forgets the peak.
        children = self.attackers(attack)
        self.stage.children += children
        started = time.monotonic()
        while time.monotonic() < started + 60 and not all(
                "round" in text for text in self.printed(attack)):
            self.work()
        rounds_from = time.monotonic()
        if attack.stopped:
            for child in children:
                child.send_signal(signal.SIGSTOP)
        while time.monotonic() < rounds_from + SECONDS:
            self.work()
        self.check(attack)
        for child in children:
            child.kill()
        for child in children:
            child.wait()
            self.stage.children.remove(child)

    def check(self, attack):
        printed = list(self.printed(attack))
        rounds = sum(text.count("round") for text in printed)
        expect(f"{attack.name}: {rounds} rounds of {attack.processes}",
               all("round" in text for text in printed))
        expect(f"{attack.name}: gains nothing",
               not any(word in text for text in printed for word in SUCCESSES))
        for name, child in self.services.items():
            expect(f"{attack.name}: {name} runs", child.poll() is None)
            above = (status_kib(child, "VmHWM") - self.idle_kib[name]) // 1024
            expect(f"{attack.name}: {name} {above} MiB above idle", above <= MEMORY_MIB)
            expect(f"{attack.name}: {name} keeps its connection",
                   self.stage.connection_of(child) == self.connections[name])
        code, out = self.stage.ctl(ROOT, "client", "list")
        answered = code == 0 and all(client.name in out for client, _ in self.honest)
        expect(f"{attack.name}: an operator is answered" + ("" if answered else f", {code}: {out}"),
               answered)

    def finish(self):
        for client, _ in self.honest:
            expect(f"the campaign of {client.name} stops",
                   self.stage.ctl(ROOT, "campaign", "stop", client.name)[0] == 0)
            expect(f"{client.name} ends", client.ask(f"deregister {client.name}") == "0")
        counts = self.stage.spooled({client.name for client, _ in self.honest})
        for client, _ in self.honest:
            expect(f"{client.name}: {counts.get(client.name, 0)} samples of {self.logged} arrived",
                   counts.get(client.name, 0) == self.logged)


def play(stage, adversary, wanted):
    trial = Trial(stage, adversary)
    for name in wanted:
        trial.run(ATTACKS[name])
    trial.finish()


def main():
    stage = Stage(*sys.argv[1:6])
    return perform(stage, lambda: play(stage, sys.argv[6], sys.argv[7:]),
                   [*stage.programs, "honest-files", "honest-slots"])


if __name__ == "__main__":
    sys.exit(main())
