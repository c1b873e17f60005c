"""Checks the JSON Schemas: they are schemas, the documents of the tree are valid under them, and each of a
list of mistakes is found.

    schemas.py SOURCE [--written]     --written: the documents on this machine too, which the library wrote
"""

import copy
import glob
import json
import sys

from jsonschema import Draft202012Validator

SOURCE = sys.argv[1]
DIRECTORY = "/usr/tarn/etc/firewall.d/"
SETTINGS = DIRECTORY + "firewall_settings.json"

RULE = {
    "name": "ssh", "enable": True, "policy": 0, "blLog": False, "table": "filter", "adapterDirect": 1,
    "ipType": 0, "ipDirect": 1, "ipGroup": 1, "ipList": ["192.168.1.0", "24"], "portDirect": 0, "portGroup": 1,
    "protocol": 1, "portList": ["22", "6881-6889"], "labelList": [], "chainList": ["INPUT_FIREWALL"],
}


def profile(**changes):
    """A profile with one rule that has `changes`; a change to None takes the member out."""
    rule = {key: value for key, value in {**RULE, **changes}.items() if value is not None}
    return {"name": "office", "rules": {"eth0": [rule]}, "adapterPolicyMap": {"eth0": 1, "global": 2}}


GOOD = [
    ("profile", "rule", profile()),
    ("profile", "without rules", {"name": "default", "rules": None, "adapterPolicyMap": {"global": 2}}),
    ("profile", "mask", profile(ipList=["192.168.1.0", "255.255.255.0"])),
    ("profile", "IPv6 network", profile(ipType=1, ipList=["fd77::", "64"])),
    ("profile", "countries", profile(ipGroup=3, ipList=["DE", "A1"])),
    ("profile", "services", profile(portGroup=0, portList=["ssh"], protocol=None)),
    ("profile", "icmp", profile(protocol=4, portList=[])),
    ("settings", "unknown member", {"status": True, "profile": "office", "note": 1}),
    ("services", "icmp", {"ping": {"destination": {"protocol": "icmp"}}}),
    ("services", "source and destination", {"dhcp": {"source": {"protocol": "udp", "ports": ["67"]},
                                                     "destination": {"protocol": "udp", "ports": ["68"]}}}),
]

# The mistake, and where the schema must find it.
BAD = [
    ("profile", "no name", {"rules": None}, []),
    ("profile", "unknown member", profile(ports=["22"]), ["rules", "eth0", 0]),
    ("profile", "switched off by omission", profile(enable=None), ["rules", "eth0", 0]),
    ("profile", "outgoing by omission", profile(adapterDirect=None), ["rules", "eth0", 0]),
    ("profile", "no table", profile(table=None), ["rules", "eth0", 0]),
    ("profile", "text for a number", profile(policy="1"), ["rules", "eth0", 0, "policy"]),
    ("profile", "unknown policy", profile(policy=7), ["rules", "eth0", 0, "policy"]),
    ("profile", "default policy of global", {"name": "a", "adapterPolicyMap": {"global": 0}},
     ["adapterPolicyMap", "global"]),
    ("profile", "rules of ppp0", {"name": "a", "rules": {"ppp0": []}}, ["rules"]),
    ("profile", "adapter name too long", {"name": "a", "rules": {"abcdefghijklmnop": []}}, ["rules"]),
    ("profile", "arguments in an address", profile(ipList=["1.2.3.4 -j ACCEPT", "24"]),
     ["rules", "eth0", 0, "ipList", 0]),
    ("profile", "host name for an address", profile(ipGroup=0, ipList=["example.org"]),
     ["rules", "eth0", 0, "ipList", 0]),
    ("profile", "network without its length", profile(ipList=["192.168.1.0"]), ["rules", "eth0", 0, "ipList"]),
    ("profile", "address out of range", profile(ipList=["192.168.1.256", "24"]),
     ["rules", "eth0", 0, "ipList", 0]),
    ("profile", "sixteen countries", profile(ipGroup=3, ipList=["DE"] * 16), ["rules", "eth0", 0, "ipList"]),
    ("profile", "path for a country", profile(ipGroup=3, ipList=["../x"]), ["rules", "eth0", 0, "ipList", 0]),
    ("profile", "ports without a port", profile(portList=[]), ["rules", "eth0", 0, "portList"]),
    ("profile", "iptables' range", profile(portList=["80:90"]), ["rules", "eth0", 0, "portList", 0]),
    ("profile", "foreign chain", profile(chainList=["OUTPUT"]), ["rules", "eth0", 0, "chainList", 0]),
    ("settings", "text for status", {"status": "true", "profile": "office"}, ["status"]),
    ("settings", "no profile", {"status": True}, []),
    ("services", "number for a port", {"a": {"destination": {"protocol": "tcp", "ports": [22]}}},
     ["a", "destination", "ports", 0]),
    ("services", "leading zero", {"a": {"destination": {"protocol": "tcp", "ports": ["022"]}}},
     ["a", "destination", "ports", 0]),
    ("services", "no ports", {"a": {"destination": {"protocol": "tcp"}}}, ["a", "destination"]),
    ("services", "icmp with ports", {"a": {"destination": {"protocol": "icmp", "ports": ["1"]}}},
     ["a", "destination", "ports"]),
    ("services", "comma in a name", {"a,b": {}}, []),
    ("services", "unknown member", {"a": {"port": "22"}}, ["a"]),
]

failures = []


def read(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def load_validator(name):
    schema = read(f"{SOURCE}/packaging/schema/{name}.schema.json")
    Draft202012Validator.check_schema(schema)
    return Draft202012Validator(schema)


validators = {name: load_validator(name) for name in ("profile", "settings", "services")}


def places(name, document):
    """Where the schema finds mistakes."""
    found = [list(error.absolute_path) for error in validators[name].iter_errors(copy.deepcopy(document))]
    return sorted(found, key=str)


def expect(name, what, document, expected):
    found = places(name, document)
    if found != expected:
        failures.append(f"{name}, {what}: mistakes at {found}, not at {expected}")


for name, what, document in GOOD:
    expect(name, what, document, [])
for name, what, document, place in BAD:
    expect(name, what, document, [place])

data = f"{SOURCE}/platform/linux/data/"
expect("services", "shipped table", read(data + "firewall_services.json"), [])
expect("profile", "seed", read(data + "profile-default.json"), [])
expect("profile", "demo", read(f"{SOURCE}/scripts/demo/office.json"), [])

if "--written" in sys.argv:
    documents = glob.glob(DIRECTORY + "*.json")
    if len(documents) < 3:
        failures.append(f"settings and two profiles expected, found {documents}")
    for path in documents:
        expect("settings" if path == SETTINGS else "profile", path, read(path), [])
    if read(DIRECTORY + "default.json") != read(data + "profile-default.json"):
        failures.append("the first profile that tarnfw stores is not the seed of the package")

for failure in failures:
    print("FAILED:", failure, file=sys.stderr)
sys.exit(1 if failures else 0)
