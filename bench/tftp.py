#!/usr/bin/python3
"""Moves a file over the lab's link with our TFTP client and with curl, and prints the throughput of
each.

Run it in a lab whose link takes 10 ms each way: scripts/lab.sh exec --delay 10 -- bench/tftp.py
[--size MIB] [--runs N] [--put] [--no-curl]

curl sends one block and waits for its acknowledgment. With a round trip of 20 ms it needs eleven
minutes for 16 MiB in blocks of 512 octets, and four in blocks of 1428 octets. Give --size a smaller
number for a quick look."""

import argparse
import filecmp
import os
import sys
import tempfile

from lab_bench import lab, print_table, run

MIB = 1 << 20
PORT = "69"
VRF = "management"


def commands(client, server, put, local, remote):
    """The same transfer by each program, by name."""
    url = f"tftp://{server}/{remote}"
    curl = ["curl", "--silent", "--show-error", "--max-time", "3600"]
    files = ["--upload-file", local, url] if put else ["--output", local, url]
    return {
        "brix-tftp": [client, "1" if put else "0", server, PORT, local, remote, "1", VRF],
        "curl": curl + files,
        "curl --tftp-blksize 1428": curl + ["--tftp-blksize", "1428"] + files,
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--size", type=int, default=16,
                        help="size of the file in MiB (default %(default)s)")
    parser.add_argument("--runs", type=int, default=3,
                        help="transfers by each program (default %(default)s)")
    parser.add_argument("--put", action="store_true",
                        help="send the file to the server instead of getting it")
    parser.add_argument("--no-curl", action="store_true", help="only our TFTP program")
    parser.add_argument("--client", default="/ulmo/bin/brix-tftp",
                        help="our TFTP program (default %(default)s)")
    options = parser.parse_args()
    server, root = lab("LAB_SERVER4"), lab("LAB_SERVER_ROOT")

    rates = {}
    with tempfile.TemporaryDirectory() as folder:
        local = os.path.join(folder, "bench.bin")
        content = os.path.join(folder, "content.bin")
        remote = "ccm-bench.bin"
        served = os.path.join(root, remote)
        with open(content, "wb") as file:
            file.write(os.urandom(options.size * MIB))
        try:
            for _ in range(options.runs):
                for name, command in commands(options.client, server, options.put, local,
                                              remote).items():
                    if options.no_curl and command[0] != options.client:
                        continue
                    source, target = (local, served) if options.put else (served, local)
                    with open(content, "rb") as original, open(source, "wb") as file:
                        file.write(original.read())
                    # A server that creates no files writes into an existing one; the last
                    # transfer's content must not pass for this one's.
                    with open(target, "wb"):
                        pass
                    os.chmod(served, 0o666)
                    seconds, _ = run(*command)
                    if not filecmp.cmp(content, target, shallow=False):
                        sys.exit(f"{name}: the file that arrived is another one")
                    rates.setdefault(name, []).append(options.size / seconds)
        finally:
            if os.path.exists(served):
                os.remove(served)
    print_table("MiB/s",
                dict.fromkeys(rates, f"{options.size} MiB {'put' if options.put else 'get'}"),
                rates)


if __name__ == "__main__":
    main()
