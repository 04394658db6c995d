#!/usr/bin/env python3
"""usage: access_test.py SOURCE_DIR MANAGERD HALD ORBCTL PROBE

The services as their units run them, on a bus with the policy that is shipped:
only the service user may own the names, only root and clients in the group get
through; and under the units' system call filter a whole campaign works.

Exit 77, skipped: not root, so that there are no other users to be.
"""
import os
import re
import signal
import socket
import struct
import subprocess
import sys

import service_sandbox
from system_stage import ROOT, Client, Stage, expect, perform, wait_until

EXPOSURE_MAX = 0.5


def owns(stage, identity, name):
    return stage.ask_bus(identity, "RequestName", f"string:{name}", "uint32:0")


def check_names(stage):
    expect("the policy names the three services", sum(map(len, stage.names.values())) == 3)
    owner = {name: stage.manager if user == "orb" else stage.hal
             for user, names in stage.names.items() for name in names}
    others = [("a user", stage.outsider), ("a client", stage.member), ("root", ROOT)]
    for name, identity in owner.items():
        other = stage.hal if identity is stage.manager else stage.manager
        for who, stranger in others + [("the other service's user", other)]:
            expect(f"{who} cannot own {name}", "AccessDenied" in owns(stage, stranger, name))
        expect(f"its user can own {name}", "uint32 1" in owns(stage, identity, name))
    stage.start_service("orb-hald", stage.outsider, "false-hald")
    expect("orb-hald of another user is told so",
           wait_until(lambda: "cannot be published" in stage.log("false-hald")))
    stage.children.pop().kill()


def check_calls(stage):
    answer = Client(stage, stage.outsider, "outsider").register()
    expect("a client outside the group is not registered", answer == "null")
    expect("the manager never saw it", "outsider" not in stage.log("orb-managerd"))
    expect("its log says what to do", "add the user to the group" in stage.log("outsider"))
    client = Client(stage, stage.member, "member")
    expect("a client in the group is registered", client.register() == "ok")
    expect("one client cannot call another", "AccessDenied" in stage.send(
        stage.member, stage.connection_of(client.child), "/", "org.orb.Binder.Lookup"))
    for who, identity in (("outside the group", stage.outsider), ("in the group", stage.member),
                          ("of the HAL", stage.hal)):
        code, text = stage.ctl(identity, "client", "list")
        expect(f"orbctl of a user {who} is refused, and says why", code == 1 and "sudo" in text)
    expect("the member's by the manager", "control refused to uid" in stage.log("orb-managerd"))
    expect("the HAL's by the bus",
           f"control refused to uid {stage.hal.uid}" not in stage.log("orb-managerd"))
    expect("orbctl of root and of the manager's user are not",
           all("member" in stage.ctl(identity, "client", "list")[1]
               for identity in (ROOT, stage.manager)))
    expect("the manager may look for the HAL",
           "the bus does not let user" not in stage.log("orb-managerd"))
    return client


def check_owners(stage):
    """After the client has stored something and left."""
    thief = stage.member_as("games")
    expect("another user cannot take its name",
           Client(stage, thief, "member").register() == "null" and
           f"refused to uid {thief.uid}: the name belongs to uid {stage.member.uid}"
           in stage.log("orb-managerd"))
    with open(f"{stage.dir}/orb-hald/.owners", encoding="utf-8") as owners:
        expect("nor its folder", f"{stage.member.uid} up/1\n" in owners.read())
    code, text = stage.ctl(stage.manager, "client", "forget", "member")
    expect("the manager's user cannot have it forgotten", code == 1 and "only root" in text)
    expect("root can", stage.ctl(ROOT, "client", "forget", "member")[0] == 0)
    expect("then the name is free", Client(stage, thief, "member").register() == "ok")


def check_campaign(stage, client):
    name = client.name
    expect("a campaign starts", stage.ctl(ROOT, "campaign", "start", name,
                                          stage.counter_campaign(), "--lic", "42")[0] == 0)
    expect("samples are taken", client.ask(f"log {name} 1 2 20") == "0")
    expect("the campaign stops", stage.ctl(ROOT, "campaign", "stop", name)[0] == 0)
    expect("the client ends", client.ask(f"deregister {name}") == "0")


def check_spool(stage):
    counts = stage.spooled({"member", "slots"})
    expect(f"every sample is in the spool: {counts}", counts == {"member": 40, "slots": 40})
    expect("the spool is sound", stage.ctl(ROOT, "verify", f"{stage.dir}/orb-hald")[0] == 0)


def check_filter(stage):
    """The filter bites: else the rest would prove nothing."""
    unit = f"{stage.source}/packaging/linux/orb-hald.service"
    calls = service_sandbox.allowed_calls(unit)
    expect("the filter has calls, and not those of an administrator",
           {"read", "openat", "fsync"} <= calls and not {"mount", "chown", "reboot"} & calls)
    program = service_sandbox.filter_program(calls)
    child = stage.manager.start(["chroot", stage.dir, "true"], program)
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


def listen_as_systemd(stage):
    """What the services that start from now on say, with who says it."""
    path = f"{stage.dir}/notify"
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    listener.bind(path)
    os.chmod(path, 0o666)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
    listener.settimeout(30)
    stage.environment |= {"NOTIFY_SOCKET": path, "WATCHDOG_USEC": "2000000"}
    return listener


def check_notices(listener, services):
    wanted = {(child.pid, word) for child in services for word in ("READY=1", "WATCHDOG=1")}
    while wanted:
        message, [(_, _, sender)], _, _ = listener.recvmsg(1024, socket.CMSG_SPACE(12))
        pid = struct.unpack("3i", sender)[0]
        wanted -= {(pid, word) for word in message.decode().splitlines()}
    expect("the policy lets both services call themselves, for the watchdog", not wanted)


def play(stage):
    check_units(stage)
    check_filter(stage)
    stage.start_bus()
    check_names(stage)
    listener = listen_as_systemd(stage)
    services = stage.start_services()
    check_notices(listener, services)
    check_campaign(stage, check_calls(stage))
    client = Client(stage, stage.member, "slots")
    expect("a client with slots is registered", client.register(" slots 8 64") == "ok")
    check_campaign(stage, client)
    check_spool(stage)
    check_owners(stage)
    for name, child in zip(stage.programs, services):
        child.terminate()
        expect(f"{name} ends cleanly", child.wait(30) == 0)


def main():
    stage = Stage(*sys.argv[1:])
    return perform(stage, lambda: play(stage), ("orb-managerd", "orb-hald", "member", "outsider"))


if __name__ == "__main__":
    sys.exit(main())
