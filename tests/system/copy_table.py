"""The tables and the notification as a manager reaches them: OIDs by name, the stock tools as
functions, one copy request as an object."""

import hashlib
import itertools
import os
import re
import subprocess
import time
from pathlib import Path

from copy_numbers import COPY_ENTRY, ROOT, C

COMPLETION = f"{ROOT}.2.1.1"  # followed by the request's index

PROTOCOL = C.CC_COLUMN_PROTOCOL
SOURCE, DESTINATION = C.CC_COLUMN_SOURCE_FILE_TYPE, C.CC_COLUMN_DEST_FILE_TYPE
LEGACY_ADDRESS, FILE_NAME = C.CC_COLUMN_SERVER_ADDRESS, C.CC_COLUMN_FILE_NAME
USER_NAME, PASSWORD = C.CC_COLUMN_USER_NAME, C.CC_COLUMN_USER_PASSWORD
NOTIFY, STATE = C.CC_COLUMN_NOTIFICATION_ON_COMPLETION, C.CC_COLUMN_STATE
TIME_STARTED, TIME_COMPLETED = C.CC_COLUMN_TIME_STARTED, C.CC_COLUMN_TIME_COMPLETED
FAIL_CAUSE, ROW_STATUS = C.CC_COLUMN_FAIL_CAUSE, C.CC_COLUMN_ENTRY_ROW_STATUS
ADDRESS_TYPE, ADDRESS = C.CC_COLUMN_SERVER_ADDRESS_TYPE, C.CC_COLUMN_SERVER_ADDRESS_REV1
COLUMNS = range(PROTOCOL, ADDRESS + 1)
READ_ONLY = (STATE, TIME_STARTED, TIME_COMPLETED, FAIL_CAUSE)

TFTP, FTP, RCP = C.COPY_PROTO_TFTP, C.COPY_PROTO_FTP, C.COPY_PROTO_RCP
SCP, SFTP = C.COPY_PROTO_SCP, C.COPY_PROTO_SFTP
NETWORK, KEX, STARTUP = C.COPY_FILE_NETWORK, C.COPY_FILE_KEX, C.COPY_FILE_STARTUP
RUNNING, TYPE5 = C.COPY_FILE_RUNNING, C.COPY_FILE_TYPE5
FABRIC_STARTUP, ALL_STARTUP = C.COPY_FILE_FABRIC_STARTUP, C.COPY_FILE_ALL_STARTUP
STATE_WAITING, STATE_RUNNING = C.COPY_STATE_WAITING, C.COPY_STATE_RUNNING
STATE_SUCCESSFUL, STATE_FAILED = C.COPY_STATE_SUCCESSFUL, C.COPY_STATE_FAILED
ACTIVE, NOT_IN_SERVICE = C.ROW_STATUS_ACTIVE, C.ROW_STATUS_NOT_IN_SERVICE
NOT_READY, DESTROY = C.ROW_STATUS_NOT_READY, C.ROW_STATUS_DESTROY
CREATE_AND_GO, CREATE_AND_WAIT = C.ROW_STATUS_CREATE_AND_GO, C.ROW_STATUS_CREATE_AND_WAIT
GENERAL, BAD_FILE_NAME = C.COPY_FAIL_GENERAL, C.COPY_FAIL_BAD_FILE_NAME
TIMEOUT, NO_SPACE = C.COPY_FAIL_TIMEOUT, C.COPY_FAIL_NO_SPACE
BAD_FILE, BAD_LINE = C.COPY_FAIL_BAD_CONFIG, C.COPY_FAIL_CONFIG_NOT_APPLIED
UNSUPPORTED_PROTOCOL = C.COPY_FAIL_UNSUPPORTED_PROTOCOL
IPV4, IPV6 = 1, 2  # InetAddressType, RFC 4001
TRUE, FALSE = C.TRUTH_TRUE, C.TRUTH_FALSE

AGENT = os.environ.get("LAB_AGENT", "")
ACCOUNT, SECRET = os.environ.get("LAB_USER", ""), os.environ.get("LAB_PASSWORD", "")
SERVER4, SERVER6 = os.environ.get("LAB_SERVER4", ""), os.environ.get("LAB_SERVER6", "")
SERVER_ROOT = Path(os.environ.get("LAB_SERVER_ROOT", "/nonexistent"))
STATE_DIRECTORY = Path(os.environ.get("LAB_STATE", "/nonexistent"))
TRAPS = Path(os.environ.get("LAB_TRAPS", "/nonexistent"))
LOGS = Path(os.environ.get("LAB_LOG", "/nonexistent"))


class SnmpError(Exception):
    """The agent's error status by its name in RFC 3416, or noResponse."""

    def __init__(self, status, text):
        super().__init__(f"{status}: {text}")
        self.status = status


def run(*words, within=60):
    """Runs a command that must succeed and returns its standard output."""
    done = subprocess.run([str(word) for word in words], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=within)
    assert done.returncode == 0, f"{words}: status {done.returncode}\n{done.stdout}{done.stderr}"
    return done.stdout


def lab_ctl(*words):
    return run("lab-ctl", *words).strip()


def show(which):
    return run("cmdshell", "-c", f"show {which}-config")


def wait_for(condition, within=15, what="the condition"):
    """Polls until the condition's value is true and returns that value."""
    deadline = time.monotonic() + within
    while not (value := condition()):
        assert time.monotonic() < deadline, f"{what} did not come within {within} seconds"
        time.sleep(0.03)
    return value


class History:
    """What the debug history has recorded since this object was made. The history drops its oldest
    lines, so line numbers mean nothing."""

    def __init__(self, *options):
        self.command = ["ulmo-history", *options]
        self.last = run(*self.command).splitlines()[-1:]

    def lines(self):
        lines = run(*self.command).splitlines()
        return lines[lines.index(self.last[0]) +
                     1:] if self.last and self.last[0] in lines else lines

    def has(self, text):
        return any(text in line for line in self.lines())


# The value of a line that a tool printed with -Ox -Ot -On: octets as hexadecimal, time ticks as a
# number.
_VALUE = re.compile(r"^(?P<oid>\.[0-9.]+) = (?:(?P<type>[\w-]+): ?)?(?P<value>.*?)\s*$")
_ABSENT = ("No Such Object", "No Such Instance", "No more variables")


def parsed(line):
    """(OID, value) of a printed binding: int, bytes, None if there is no such object, and str for
    all else."""
    match = _VALUE.match(line)
    assert match, f"unexpected line: {line!r}"
    kind, value = match["type"], match["value"]
    if kind is None and value.startswith(_ABSENT):
        return match["oid"], None
    if kind == "INTEGER" or (kind is None and value.isdigit()):
        return match["oid"], int(value)
    if kind == "Hex-STRING":
        return match["oid"], bytes.fromhex(value)
    if value == '""':
        return match["oid"], b""
    return match["oid"], value


def master_key(token):
    """The key of that passphrase in snmp.conf (RFC 3414, A.2.2, with SHA-256)."""
    settings = (Path(os.environ["SNMPCONFPATH"]) / "snmp.conf").read_text()
    passphrase = re.search(f"^{token} (.*)$", settings, re.MULTILINE)[1].encode()
    hashed = passphrase * (2**20 // len(passphrase) + 1)
    return f"0x{hashlib.sha256(hashed[:2**20]).hexdigest()}"


# Half of a stock tool's time goes into these two keys, for any version of SNMP.
KEYS = ["-3m", master_key("defAuthPassphrase"), "-3M", master_key("defPrivPassphrase")] \
    if AGENT else []


class Manager:
    """The stock tools with a version of SNMP, an agent, a context of SNMPv3, and a command that
    runs them on another host."""

    def __init__(self, version, agent=AGENT, context="", within=()):
        self.version, self.agent, self.within = version, agent, within
        in_context = ["-n", context] if context else []
        self.options = ["-v2c", "-c", "lab"] if version == "v2c" else in_context

    def tool(self, name, *words, options=("-r0", "-t8")):
        """Runs a tool once: a SET that is repeated would be carried out again."""
        command = [
            *self.within, name, *KEYS, *self.options, *options, "-On", "-Ox", "-Ot", self.agent,
            *(str(word) for word in words)
        ]
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=60)
        if done.returncode == 0:
            return done.stdout
        reason = re.search(r"Reason: \(?(\w+)", done.stderr)
        if reason is None and "Timeout" in done.stderr:
            raise SnmpError("noResponse", done.stderr)
        assert reason is not None, f"{command}: status {done.returncode}: {done.stderr}"
        raise SnmpError({"genError": "genErr"}.get(reason[1], reason[1]), done.stderr)

    def get(self, *oids):
        values = [parsed(line)[1] for line in self.tool("snmpget", *oids).splitlines()]
        return values if len(oids) > 1 else values[0]

    def get_next(self, oid):
        return parsed(self.tool("snmpgetnext", oid).strip())

    def set(self, *triples):
        self.tool("snmpset", *itertools.chain.from_iterable(triples))

    def walk(self, oid, tool="snmpwalk"):
        bindings = [parsed(line) for line in self.tool(tool, oid).splitlines()]
        return [binding for binding in bindings if binding[1] is not None]


def octets(value):
    """A text or octets as the value of a SET."""
    return value.encode() if isinstance(value, str) else value


def address_octets(text):
    import ipaddress

    return ipaddress.ip_address(text).packed


_indexes = itertools.count(1001)


class Request:
    """One row of ccCopyTable."""

    def __init__(self, manager, index=None):
        self.manager = manager
        self.index = next(_indexes) if index is None else index

    def oid(self, column):
        return f"{COPY_ENTRY}.{column}.{self.index}"

    def triple(self, column, value):
        """OID, type and value for snmpset."""
        if column == LEGACY_ADDRESS:
            return self.oid(column), "a", value
        if isinstance(value, int):
            return self.oid(column), "i", value
        # snmpset takes no empty hexadecimal text.
        return (self.oid(column), "x", octets(value).hex()) if value else (self.oid(column), "s",
                                                                           "")

    def set(self, *pairs):
        """Writes the columns, given as (column, value), in one PDU."""
        self.manager.set(*(self.triple(column, value) for column, value in pairs))
        return self

    def get(self, *columns):
        return self.manager.get(*(self.oid(column) for column in columns))

    def create(self, *pairs):
        """createAndWait, then the columns."""
        self.set((ROW_STATUS, CREATE_AND_WAIT))
        return self.set(*pairs) if pairs else self

    def activate(self):
        return self.set((ROW_STATUS, ACTIVE))

    def destroy(self):
        return self.set((ROW_STATUS, DESTROY))

    def exists(self):
        return self.get(ROW_STATUS) is not None

    def columns(self):
        return dict(zip(COLUMNS, self.get(*COLUMNS)))

    def finished(self, within=15):
        """Waits for the end of the copy and returns (state, fail cause)."""
        wait_for(lambda: self.get(STATE) in (STATE_SUCCESSFUL, STATE_FAILED), within,
                 f"the end of copy {self.index}")
        return tuple(self.get(STATE, FAIL_CAUSE))

    def copied(self, within=15):
        """Activates the request and sees it succeed."""
        self.activate()
        assert self.finished(within) == (STATE_SUCCESSFUL, GENERAL)
        return self

    def fails(self, within=15):
        """Activates the request, sees it fail and returns the cause."""
        self.activate()
        state, cause = self.finished(within)
        assert state == STATE_FAILED
        return cause


def server_columns(server):
    return (ADDRESS_TYPE, IPV6 if ":" in server else IPV4), (ADDRESS, address_octets(server))


def protocol_columns(protocol, user, password):
    """TFTP has no users. Writing the user name empties the password, so the name comes first."""
    account = () if protocol == TFTP else ((USER_NAME, user), (PASSWORD, password))
    return ((PROTOCOL, protocol), *account)


def upload(server, name, source=RUNNING, protocol=TFTP, user=ACCOUNT, password=SECRET):
    """The columns of a copy to the server."""
    return *protocol_columns(protocol, user, password), (SOURCE, source), (
        DESTINATION, NETWORK), *server_columns(server), (FILE_NAME, name)


def download(server, name, destination=RUNNING, protocol=TFTP, user=ACCOUNT, password=SECRET):
    return *protocol_columns(protocol, user, password), (SOURCE, NETWORK), (
        DESTINATION, destination), *server_columns(server), (FILE_NAME, name)


LOCAL_STARTUP_TO_RUNNING = (SOURCE, STARTUP), (DESTINATION, RUNNING)


def serve(name, content, mode=0o644):
    """Puts a file on the server."""
    path = SERVER_ROOT / name
    path.write_bytes(octets(content))
    path.chmod(mode)
    return path


def completions(index):
    """The completion notifications of one request that the receiver has, each a list of (OID,
    value)."""
    found = []
    for line in TRAPS.read_text().splitlines():
        bindings = [parsed_trap_binding(text) for text in line.split("\t")[2:]]
        if (".1.3.6.1.6.3.1.1.4.1.0", f"{COMPLETION}.{index}") in bindings:
            found.append(bindings)
    return found


def parsed_trap_binding(text):
    """As parsed(), for the receiver's notation: texts in quotes, time ticks with their number in
    parentheses."""
    oid, _, value = text.partition(" = ")
    if value.startswith("Timeticks: "):
        return oid, int(re.search(r"\((\d+)\)", value)[1])
    if value.startswith("STRING: "):
        return oid, value.removeprefix("STRING: ").strip('"').encode()
    if value.startswith("OID: "):
        return oid, value.removeprefix("OID: ")
    return parsed(text)


def agent_pid():
    return int(lab_ctl("agent-pid"))


def children(pid):
    return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def process_state(pid):
    """The state letter of proc(5), or None when there is no such process."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0]
    except (FileNotFoundError, ProcessLookupError):
        return None


def zombies(pid):
    return [child for child in children(pid) if process_state(child) == "Z"]


WORK = STATE_DIRECTORY / "work"  # where the agent's workers have their directories


def work_directory():
    """The agent's own."""
    return Path(os.readlink(f"/proc/{agent_pid()}/cwd"))


def shared_tests(module):
    """The test functions of another module, so that pytest runs them as the importing file's own.
    """
    return {name: value for name, value in vars(module).items() if name.startswith("test_")}
