"""The lab's network: each switch in a network namespace, the file server in another, joined by a
bridge on the server's side.

COMMAND and the first switch are in the lab's main namespace; the others are named as for ip-netns:
switch2, switch3 … and `server`."""

SERVER4, SERVER6 = "192.0.2.20", "2001:db8::20"
# The server's addresses if it is reached within a VRF only.
IN_VRF4, IN_VRF6 = "203.0.113.20", "2001:db8:f::20"
SERVER = "server"
DEVICE = "mgmt0"  # each switch's end of its link
TUN = "/lab/tun"


def run(*words):
    import subprocess  # which lab-ctl often does without

    subprocess.run(words, check=True, stdin=subprocess.DEVNULL)


def in_namespace(name, *words):
    return ("nsenter", f"--net=/run/netns/{name}", "--", *words)


def on_server(*words):
    return in_namespace(SERVER, *words)


def on_switch(number, *words):
    return words if number == 1 else in_namespace(switch_namespace(number), *words)


def switch_namespace(number):
    return f"switch{number}"


def switch_addresses(number):
    host = number + (9 if number < 11 else 10)  # 20 is the server
    return f"192.0.2.{host}", f"2001:db8::{host}"


def make_server():
    run("ip", "netns", "add", SERVER)
    prepare_namespace(on_server)
    # Snooping would delay neighbour discovery in the first seconds.
    run("ip", "-n", SERVER, "link", "add", "br0", "type", "bridge", "mcast_snooping", "0")
    run("ip", "-n", SERVER, "link", "set", "br0", "up")
    run("ip", "-n", SERVER, "address", "add", f"{SERVER4}/24", "dev", "br0")
    run("ip", "-n", SERVER, "address", "add", f"{SERVER6}/64", "dev", "br0")


def make_vrf(name):
    """A VRF of the first switch, as a namespace of that name. Its device vrf0 leads to a network of
    the server that nothing else reaches."""
    run("ip", "netns", "add", name)
    prepare_namespace(lambda *words: in_namespace(name, *words))
    run("ip", "-n", name, "link", "add", "vrf0", "type", "veth", "peer", "name", port_name("vrf"),
        "netns", SERVER)
    run("ip", "-n", SERVER, "link", "set", port_name("vrf"), "master", "br0", "up")
    run("ip", "-n", name, "link", "set", "vrf0", "up")
    for address in (f"{IN_VRF4}/24", f"{IN_VRF6}/64"):
        run("ip", "-n", SERVER, "address", "add", address, "dev", "br0")
        run("ip", "-n", name, "address", "add", address.replace("20/", "10/"), "dev", "vrf0")


def file_server_addresses(options):
    return {4: IN_VRF4, 6: IN_VRF6} if options["vrf"] else {4: SERVER4, 6: SERVER6}


def make_switch(number):
    if number > 1:
        run("ip", "netns", "add", switch_namespace(number))
    prepare_namespace(lambda *words: on_switch(number, *words))


def prepare_namespace(within):
    # Nobody else is on these links: duplicate address detection would only cost seconds.
    run(*within(
        "sh", "-c",
        "for kind in all default; do echo 0 > /proc/sys/net/ipv6/conf/$kind/accept_dad; done"))
    run(*within("ip", "link", "set", "lo", "up"))


def connect_switch(number, relayed):
    """Joins the switch's device to the server's bridge. With a relay both ends exist already."""
    port = port_name(number)
    if relayed:
        run("ip", "link", "set", port, "netns", SERVER)
    else:
        run(*on_switch(number, "ip", "link", "add", DEVICE, "type", "veth", "peer", "name", port,
                       "netns", SERVER))
    run("ip", "-n", SERVER, "link", "set", port, "master", "br0")
    run("ip", "-n", SERVER, "link", "set", port, "txqueuelen", "10000", "up")
    run(*on_switch(number, "ip", "link", "set", DEVICE, "txqueuelen", "10000", "up"))
    address4, address6 = switch_addresses(number)
    run(*on_switch(number, "ip", "address", "add", f"{address4}/24", "dev", DEVICE))
    run(*on_switch(number, "ip", "address", "add", f"{address6}/64", "dev", DEVICE))


def port_name(number):
    return f"port{number}"


def relay_command(program, options, number):
    words = [
        program, "--tun", TUN, "--left", DEVICE, "--right",
        port_name(number), "--delay", options["delay"], "--loss", options["loss"], "--seed",
        options["seed"]
    ]
    if options["rate"]:
        words += ["--rate", options["rate"]]
    if options["cut_after"]:
        words += ["--cut-after", options["cut_after"]]
    return [str(word) for word in words]


def wants_relay(options):
    return bool(options["delay"] or options["loss"] or options["rate"] or options["cut_after"])


def settled(number):
    """Whether both ends are up and their IPv6 addresses are usable: a bridge needs a moment for its
    first port."""
    import subprocess

    def tentative(*namespaced):
        return subprocess.run(namespaced, check=True, stdout=subprocess.PIPE).stdout

    show = ("ip", "-6", "address", "show", "tentative", "dev")
    return not tentative(*on_switch(number, *show, DEVICE)) and not tentative(
        *on_server(*show, "br0"))
