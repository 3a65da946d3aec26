"""The lab's command line: builds what is missing, makes the namespaces, and runs supervisor.py as
their first process."""

import argparse
import json
import os
import shutil
import signal
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
REPOSITORY = HERE.parent
LAB_FAILED = 125  # as in timeout(1) and env(1): the status of the lab itself, not of COMMAND

EPILOGUE = """\
COMMAND runs as root on the first switch, in the folder where lab.sh was called, and sees:
  LAB_AGENT                the agent's address, as the Net-SNMP tools take it
  LAB_AGENTS               the agents' addresses, separated by blanks, the first switch's first
  LAB_SERVER4, LAB_SERVER6 the file server's addresses
  LAB_SERVER_ROOT          the folder that the servers serve
  LAB_USER, LAB_PASSWORD   the account on the file server
  LAB_STATE                the switch's state directory (running.cfg, system.cfg)
  LAB_TRAPS                received notifications, one per line: time, sender, bindings, separated
                           by tabs, OIDs numeric
  LAB_LOG                  the folder with the logs of every daemon; `system` is the system's log,
                           syslog(3)
`snmpget $LAB_AGENT OID` works without options, over SNMPv3 authPriv; the community `lab`
(-v2c -c lab) may read and write, too.

In the lab, `lab-ctl` stops, starts and signals agents and system managers, cuts cables and runs
commands on other switches and on the file server's host: `lab-ctl help`.

With --switches the switches form one fabric: the settings of each one name all others, and the
SNMPv3 user with which their system managers reach each other. They differ only by options that
affect one switch. The state of switch N is in /lab/switchN/disk/state.

With --frr, FRR's configuration is in /etc/frr, and /usr/lib/frr/frrinit.sh stops and starts it.

/tmp, /run, /etc, /var/log, /var/lib/snmp and /dev/shm belong to the lab and vanish with it; all
other folders are the machine's. To keep a file, write it to the folder where lab.sh was called or
to the repository.

lab.sh exits with COMMAND's status, 128 + N when signal N ended it, and 125 when the lab itself
failed.
"""


def fail(text):
    print(f"lab: {text}", file=sys.stderr)
    sys.exit(LAB_FAILED)


def within(kind, least, most):
    def convert(text):
        value = kind(text)
        if not least <= value <= most:
            raise argparse.ArgumentTypeError(f"{text} is not from {least} to {most}")
        return value

    return convert


def size(text):
    if not text.rstrip("kKmMgG").isdigit():
        raise argparse.ArgumentTypeError(f"{text} is not a size such as 512k or 4m")
    return text


def first_switch_size(text):
    return 1, size(text)


def switch_size(text):
    number, _, limit = text.partition("=")
    if not number.isdigit():
        raise argparse.ArgumentTypeError(f"{text} is not a switch and a size such as 2=512k")
    return int(number), size(limit)


def vrf_name(text):
    if not text.isalnum() or text == "server" or text.startswith("switch"):
        raise argparse.ArgumentTypeError(
            f"{text} is not letters and digits, or the lab uses it itself")
    return text


def parse(arguments):
    before, separator, command = arguments, None, []
    if "--" in arguments:
        at = arguments.index("--")
        before, separator, command = arguments[:at], "--", arguments[at + 1 :]
    parser = argparse.ArgumentParser(
        prog="scripts/lab.sh",
        usage="scripts/lab.sh exec [OPTIONS] -- COMMAND…  |  scripts/lab.sh shell [OPTIONS]  |  "
              "scripts/lab.sh help",
        description="Creates switches and their file server in namespaces of this machine, runs "
                    "COMMAND there and removes everything again. Needs root or sudo.",
        epilog=EPILOGUE, formatter_class=argparse.RawDescriptionHelpFormatter,
        allow_abbrev=False, add_help=False)
    parser.add_argument("action", choices=("exec", "shell", "help"), help=argparse.SUPPRESS)
    parser.add_argument("--build-dir", metavar="DIR", type=Path,
                        default=REPOSITORY / "build" / "release",
                        help="the build to run, which is updated first (default: build/release); "
                             "one with sanitizers makes the agents run with them")
    parser.add_argument("--no-build", action="store_true",
                        help="neither update the build nor install packages")
    parser.add_argument("--no-module", action="store_true", help="run the agent without the module")
    parser.add_argument(
        "--tftp-server", choices=("atftpd", "hpa"), default="atftpd",
        help="which TFTP server: atftpd (default) supports windowsize, hpa does not")
    parser.add_argument("--switches", metavar="N", type=within(int, 1, 16), default=1,
                        help="how many switches (default: 1)")
    parser.add_argument(
        "--delay", metavar="MS", type=within(float, 0, 60000), default=0,
        help="delay of the link between the first switch and the server, each way, in milliseconds")
    parser.add_argument("--loss", metavar="PERCENT", type=within(float, 0, 100), default=0,
                        help="share of the frames that the link loses, each way")
    parser.add_argument("--rate", metavar="KBIT", type=within(float, 0, 1e9), default=0,
                        help="speed of the link, each way, in kbit/s")
    parser.add_argument("--cut-after", metavar="BYTES", type=within(int, 1, 2**63),
                        help="cut the link after so many octets")
    parser.add_argument("--seed", metavar="N", type=within(int, 0, 2**32 - 1), default=1,
                        help="choose which frames are lost (default: 1)")
    parser.add_argument(
        "--vrf", metavar="NAME", type=vrf_name,
        help="only this VRF of the first switch, a network namespace, reaches the file server; "
        "NAME is also an SNMP context")
    parser.add_argument(
        "--frr", action="store_true",
        help="the device of the first switch is FRR: zebra, staticd and bgpd, as Debian's package "
        "starts them; its agent and system manager run as user Debian-snmp")
    parser.add_argument("--chassis-type", metavar="N", type=int, help="the switches' chassis type")
    parser.add_argument(
        "--small-disk", metavar="SIZE", type=first_switch_size, action="append", dest="small_disks",
        default=[], help="size of the first switch's state and working directory, for example 256k")
    parser.add_argument("--small-disk-of", metavar="N=SIZE", type=switch_size, action="append",
                        dest="small_disks", help="the same for switch N")
    parser.add_argument("--server-disk", metavar="SIZE", type=size,
                        help="size of the file server's folder")
    parser.add_argument(
        "--faketime", metavar="SPEC",
        help="the agents' clock, as faketime takes it, for example +0; lab-ctl agent-clock moves "
             "it later")
    parser.add_argument(
        "--agent-under", metavar="COMMAND", default="",
        help="start the agents by this command, for example \"valgrind --tool=callgrind\"; split "
             "into words as in a shell")
    parser.add_argument("--keep-logs", metavar="DIR", type=Path,
                        help="copy the daemons' logs and the notifications to DIR at the end")
    options = parser.parse_args(before)
    if options.action == "help":
        parser.print_help()
        sys.exit(0)
    if options.action == "exec" and (separator is None or not command):
        parser.error("exec wants `--` and a command")
    if options.action == "shell":
        if command:
            parser.error("shell takes no command")
        command = [os.environ.get("SHELL", "/bin/bash")]
    for number, _ in options.small_disks:
        if not 1 <= number <= options.switches:
            parser.error(f"there is no switch {number}")
    return options, command


def build(directory):
    """Brings the parts of the build that the lab needs up to date."""
    steps = []
    if not (directory / "CMakeCache.txt").exists():
        if directory.parent != REPOSITORY / "build":
            fail(f"{directory} is not a build: configure it first")
        steps.append(("configuring", ["cmake", "--preset", directory.name]))
    steps.append(
        (f"building in {directory}", ["cmake", "--build",
                                      str(directory), "--target", "lab"]))
    for text, command in steps:
        # Programs of the switch may run as any user.
        done = subprocess.run([REPOSITORY / "scripts" / "progress.sh", text, *command],
                              cwd=REPOSITORY, stdout=sys.stderr, umask=0o022)
        if done.returncode != 0:
            sys.exit(LAB_FAILED)


def become_root(options):
    if os.geteuid() == 0:
        return
    sudo = shutil.which("sudo")
    if sudo is None:
        fail("needs root to make namespaces, and there is no sudo")
    print("lab: needs root to make namespaces: asking sudo", file=sys.stderr)
    arguments = sys.argv[1:]
    if not options.no_build:
        arguments.insert(1, "--no-build")
    os.execv(sudo, [sudo, sys.executable, "-B", __file__, *arguments])


def main():
    options, command = parse(sys.argv[1:] or ["help"])
    options.build_dir = options.build_dir.resolve()
    if not options.no_build:
        build(options.build_dir)
    become_root(options)
    job = {
        name: str(value) if isinstance(value, Path) else value
        for name, value in vars(options).items()
    }
    job |= {"repository": str(REPOSITORY), "directory": os.getcwd(), "command": command}
    # However this process ends, the kernel ends unshare with it and then every process of the lab;
    # mounts and devices go with the last one.
    namespaces = [
        "--mount", "--propagation", "unchanged", "--pid", "--fork", "--kill-child=KILL", "--net",
        "--ipc", "--uts"
    ]
    # An interrupt from the terminal reaches COMMAND directly; this process keeps waiting for it. (A
    # handler, because an ignored signal would be inherited.)
    signal.signal(signal.SIGINT, lambda number, frame: None)
    lab = subprocess.run(["setpriv", "--pdeathsig", "KILL", "unshare", *namespaces,
                          sys.executable, "-B", str(HERE / "supervisor.py"), json.dumps(job)])
    sys.exit(lab.returncode if lab.returncode >= 0 else 128 - lab.returncode)


main()
