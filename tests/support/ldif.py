"""A directory as tests write it: objects in memory, saved as LDIF by an atomic replace."""

import base64
import os


def is_plain(value):
    """Whether LDIF may carry the value as text (RFC 2849)."""
    return (all(32 <= byte < 127 for byte in value) and value[:1] not in (b" ", b":", b"<") and
            not value.endswith(b" "))


class Directory:
    """Objects by distinguished name, each a list of (attribute, value) pairs."""

    BASE = "DC=example,DC=com"
    ZONE = "CN=zoneA,CN=corp,CN=Zones,DC=example,DC=com"
    PARENT_ZONE = "CN=corp,CN=Zones,DC=example,DC=com"
    SERVER = "dc1.example.com"

    def __init__(self, path, nisdomain="example", server=SERVER):
        self.path = path
        self.objects = {}
        self.root = [("dnsHostName", server)]
        self._next_cn = 0
        for dn in (self.BASE, "CN=Zones," + self.BASE, "CN=Users," + self.BASE):
            self.add(dn, [("objectClass", "domainDNS" if dn == self.BASE else "container")])
        self.add(self.PARENT_ZONE, [("objectClass", "container")])
        self.add(self.ZONE, [("objectClass", "container")] +
                 ([("extensionName", "nisdomain=" + nisdomain)] if nisdomain else []))
        self.add("CN=nismaps," + self.ZONE, [("objectClass", "container")])

    def add(self, dn, attributes):
        if dn in self.objects:
            raise KeyError("%s is there already" % dn)
        self.objects[dn] = list(attributes)
        return dn

    def remove(self, dn):
        """Removes an object and all below it."""
        del self.objects[dn]
        for below in [name for name in self.objects if name.endswith("," + dn)]:
            del self.objects[below]

    def replace(self, dn, attribute, *values):
        kept = [pair for pair in self.objects[dn] if pair[0] != attribute]
        self.objects[dn] = kept + [(attribute, value) for value in values]

    def zone(self, dn, nisdomain=None):
        self.add(dn, [("objectClass", "container")] +
                 ([("extensionName", "nisdomain=" + nisdomain)] if nisdomain else []))
        return self.add("CN=nismaps," + dn, [("objectClass", "container")])

    def map(self, name, zone=ZONE):
        return self.add("CN=%s,CN=nismaps,%s" % (name, zone), [("objectClass", "container")])

    def entry(self, map_dn, key, value, cn=None):
        if cn is None:
            self._next_cn += 1
            cn = "e%d" % self._next_cn
        return self.add("CN=%s,%s" % (cn, map_dn),
                        [("objectClass", "container"), ("description", key),
                         ("adminDescription", value)])

    def fill(self, name, entries, zone=ZONE):
        """A map with the given {key: value}; @return {key: dn of its entry}"""
        map_dn = self.map(name, zone)
        return {key: self.entry(map_dn, key, value) for key, value in entries.items()}

    def user(self, name, uid, gid=100, **attributes):
        values = {"gecos": name.capitalize(), "unixHomeDirectory": "/home/" + name,
                  "loginShell": "/bin/bash", "userAccountControl": "512",
                  "unixUserPassword": "$6$salt$hash" + name}
        values.update(attributes)
        return self.add("CN=%s,CN=Users,%s" % (name, self.BASE),
                        [("objectClass", "top"), ("objectClass", "person"),
                         ("objectClass", "organizationalPerson"), ("objectClass", "user"),
                         ("objectCategory", "person"), ("sAMAccountName", name),
                         ("uidNumber", str(uid)), ("gidNumber", str(gid))] +
                        [pair for pair in values.items() if pair[1] is not None])

    def group(self, name, gid, members=()):
        return self.add("CN=%s,CN=Users,%s" % (name, self.BASE),
                        [("objectClass", "top"), ("objectClass", "group"),
                         ("sAMAccountName", name), ("gidNumber", str(gid))] +
                        [("member", dn) for dn in members])

    def _lines(self):
        yield b"version: 1\n\ndn:\n"
        yield from (self._line(*pair) for pair in self.root)
        for dn, attributes in self.objects.items():
            yield b"\n" + self._line("dn", dn)
            yield from (self._line(*pair) for pair in attributes)

    @staticmethod
    def _line(name, value):
        value = value.encode() if isinstance(value, str) else value
        if is_plain(value):
            return name.encode() + b": " + value + b"\n"
        return name.encode() + b":: " + base64.b64encode(value) + b"\n"

    def save(self):
        """Replaces the file in one step, so that a reader sees the old or the new directory."""
        write_atomically(self.path, b"".join(self._lines()))


def write_atomically(path, content):
    temporary = path + ".new"
    with open(temporary, "wb") as file:
        file.write(content)
    os.rename(temporary, path)


def load(path):
    """Reads an LDIF file as {dn: [(attribute, value as bytes), ...]}."""
    with open(path, "rb") as file:
        text = file.read().replace(b"\r\n", b"\n").replace(b"\n ", b"")
    objects = {}
    for block in text.split(b"\n\n"):
        pairs = [_pair(line) for line in block.splitlines() if line and not line.startswith(b"#")]
        pairs = [pair for pair in pairs if pair[0] != "version"]
        if pairs:
            if pairs[0][0] != "dn":
                raise ValueError("record without dn: %r" % block)
            objects[pairs[0][1].decode()] = pairs[1:]
    return objects


def _pair(line):
    name, _, value = line.partition(b":")
    if value.startswith(b":"):
        return name.decode(), base64.b64decode(value[1:].strip())
    return name.decode(), value.strip()
