"""The lab's network: each switch in a network namespace, the file server in another, joined by a bridge on the server's side."""

import subprocess
from pathlib import Path

SERVER4, SERVER6 = "192.0.2.20", "2001:db8::20"
SERVER = "server"  # the namespace's name for ip-netns
TUN = Path("/lab/tun")


def run(*words):
    subprocess.run(words, check=True, stdin=subprocess.DEVNULL)


def on_server(*words):
    return ("nsenter", f"--net=/run/netns/{SERVER}", "--", *words)


def switch_addresses(number):
    return f"192.0.2.{9 + number}", f"2001:db8::{9 + number}"


def make_server():
    run("ip", "netns", "add", SERVER)
    # Nobody else is on these links: waiting for another owner of an address would only cost seconds.
    for file in ("all", "default"):
        without_detection = ("sh", "-c", f"echo 0 > /proc/sys/net/ipv6/conf/{file}/accept_dad")
        run(*without_detection)
        run(*on_server(*without_detection))
    run("ip", "link", "set", "lo", "up")
    run("ip", "-n", SERVER, "link", "set", "lo", "up")
    # Snooping would hold back the neighbour discovery of the first seconds.
    run("ip", "-n", SERVER, "link", "add", "br0", "type", "bridge", "mcast_snooping", "0")
    run("ip", "-n", SERVER, "link", "set", "br0", "up")
    run("ip", "-n", SERVER, "address", "add", f"{SERVER4}/24", "dev", "br0")
    run("ip", "-n", SERVER, "address", "add", f"{SERVER6}/64", "dev", "br0")


def connect_switch(number, device, relayed):
    """Joins the device of this namespace to the server's bridge. With a relay both ends are there already."""
    port = port_name(number)
    if relayed:
        run("ip", "link", "set", port, "netns", SERVER)
    else:
        run("ip", "link", "add", device, "type", "veth", "peer", "name", port, "netns", SERVER)
    run("ip", "-n", SERVER, "link", "set", port, "master", "br0")
    run("ip", "-n", SERVER, "link", "set", port, "txqueuelen", "10000", "up")
    run("ip", "link", "set", device, "txqueuelen", "10000", "up")
    address4, address6 = switch_addresses(number)
    run("ip", "address", "add", f"{address4}/24", "dev", device)
    run("ip", "address", "add", f"{address6}/64", "dev", device)


def port_name(number):
    return f"port{number}"


def relay_command(program, options, number, device):
    words = [program, "--tun", str(TUN), "--left", device, "--right", port_name(number), "--delay", options["delay"], "--loss", options["loss"],
             "--seed", options["seed"]]
    if options["rate"]:
        words += ["--rate", options["rate"]]
    if options["cut_after"]:
        words += ["--cut-after", options["cut_after"]]
    return [str(word) for word in words]


def wants_relay(options):
    return bool(options["delay"] or options["loss"] or options["rate"] or options["cut_after"])


def settled(device):
    """Whether both ends are up and their IPv6 addresses may be used: a bridge takes a moment to see its first port."""

    def tentative(device, *namespace):
        return subprocess.run(("ip", *namespace, "-6", "address", "show", "dev", device, "tentative"), check=True, stdout=subprocess.PIPE).stdout

    return not tentative(device) and not tentative("br0", "-n", SERVER)
