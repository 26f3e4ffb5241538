"""What a stand-in for a domain controller holds: objects one by one, and families of up to ten
million that are made while they are sent."""

import copy
import hashlib
import os
import threading
import uuid

import ldapber as ber
from adcontroller import BASE

USERS = "CN=Users," + BASE
ZONES = "CN=Zones," + BASE
DELETED = "CN=Deleted Objects," + BASE
VALUES_AT_ONCE = 1500
BLOCK = 1000  # objects of a family that are made in one step
DIGITS = b"#######"  # where the number of an object stands in what a family's values look like
MARK = b"\xf5\xf6\xf7\xf8"  # in a block: where the number of the block goes
FAMILY_USN = 10000000  # an object's number is added to it


def normal(dn):
    return ",".join(part.strip() for part in dn.lower().split(","))


def as_bytes(value):
    return value if isinstance(value, bytes) else str(value).encode()


class Members:
    """The many values of an attribute, numbers first to first + count - 1 of a family."""

    def __init__(self, family, count, first=0):
        self.family, self.count, self.first = family, count, first

    def part(self, first, last):
        return [self.family.dn(self.first + one) for one in range(first, min(last, self.count))]


class Object:
    def __init__(self, dn, attributes, usn):
        self.dn = dn
        self.guid = os.urandom(16)
        self.values = {}
        for name, values in attributes.items():
            self.set(name, values)
        self.touch(usn)
        if "cn" not in self.values:
            self.set("cn", dn.partition(",")[0].partition("=")[2])
        self.set("objectGUID", self.guid)

    def set(self, name, values):
        if not isinstance(values, Members):
            values = [as_bytes(one) for one in (values if isinstance(values, list) else [values])]
        self.values[name.lower()] = (name.encode(), values)

    def touch(self, usn):
        self.set("uSNChanged", usn)

    def plain(self):
        """For filters."""
        return {name.encode(): values for name, (_, values) in self.values.items()
                if not isinstance(values, Members)}

    def selected(self, wanted):
        """@return [(name, [value, ...]), ...] as the message carries them"""
        everything = not wanted or b"*" in wanted
        found = {}
        for name, (spelling, values) in self.values.items():
            if everything:
                found[name] = self.ranged(spelling, values, 0, None)
        for asked in wanted:
            name, _, option = asked.decode().lower().partition(";range=")
            if name in self.values:
                spelling, values = self.values[name]
                first, _, last = option.partition("-")
                found[name] = self.ranged(spelling, values, int(first or 0),
                                          None if last in ("", "*") else int(last), bool(option))
        return [one for one in found.values() if one[1]]

    @staticmethod
    def ranged(name, values, first, last, asked=False):
        if not isinstance(values, Members) and not asked:
            return name, values
        count = values.count if isinstance(values, Members) else len(values)
        end = first + VALUES_AT_ONCE if last is None else min(last + 1, first + VALUES_AT_ONCE)
        part = (values.part(first, end) if isinstance(values, Members) else values[first:end])
        return b"%s;range=%d-%s" % (name, first, b"*" if end >= count else b"%d" % (end - 1)), part

    def message(self, search):
        return ber.message(search.id, ber.entry(self.dn.encode(), self.selected(search.attributes)))


class Family:
    """Objects that differ in a number of seven digits only."""

    def __init__(self, parent, count, attributes, prefix="x"):
        self.parent, self.count = parent, count
        self.name = b"CN=" + prefix.encode() + DIGITS + b"," + parent.encode()
        self.values = {name.lower(): (name.encode(), [as_bytes(one) for one in (
            values if isinstance(values, list) else [values])]) for name, values in
            attributes.items()}
        self.values["cn"] = (b"cn", [prefix.encode() + DIGITS])
        self.values["usnchanged"] = (b"uSNChanged", [b"1" + DIGITS])
        self.values["objectguid"] = (b"objectGUID", [DIGITS])
        self.seed = hashlib.md5(self.name).digest()
        self.blocks = {}

    def dn(self, one):
        return self.name.replace(DIGITS, b"%07d" % one)

    def number_of(self, dn):
        """@return which of the objects has that name, None when it is none of them"""
        head, tail = normal(self.name.decode()).split(DIGITS.decode(), 1)
        digits = dn[len(head):len(dn) - len(tail)]
        if not (dn.startswith(head) and dn.endswith(tail) and digits.isdecimal()):
            return None
        return int(digits) if int(digits) < self.count else None

    def slice(self, expression):
        """@return the first one that the filter finds, and the one behind the last"""
        sample = {name.encode(): values for name, (_, values) in self.values.items()}
        low, high = ber.bounds(expression, b"usnchanged", FAMILY_USN, FAMILY_USN + self.count - 1)
        sample[b"usnchanged"] = [b"%d" % low]
        if low > high or not ber.matches(expression, sample):
            return 0, 0
        return low - FAMILY_USN, high - FAMILY_USN + 1

    def block(self, wanted, id_size):
        """What stands before and behind the message id of each of a block's objects."""
        key = (wanted, id_size)
        if key not in self.blocks:
            heads, tails = [], []
            for index in range(BLOCK):
                operation = ber.entry(self.at(self.name, index), self.selected(wanted, index))
                whole = ber.tlv(ber.SEQUENCE, b"\0" * (2 + id_size) + operation)
                split = len(whole) - len(operation) - id_size
                heads.append(whole[:split - 2] + bytes((ber.INTEGER, id_size)))
                tails.append(operation)
            self.blocks[key] = heads, tails
        return self.blocks[key]

    @staticmethod
    def at(value, index):
        return value.replace(DIGITS, MARK + b"%03d" % index)

    def selected(self, wanted, index):
        asked = {name.decode().lower().partition(";")[0] for name in wanted}
        everything = not asked or "*" in asked
        found = []
        for name, (spelling, values) in self.values.items():
            if everything or name in asked:
                if name == "objectguid":  # in no order, as real ones
                    place = hashlib.md5(self.seed + b"%d" % index).digest()
                    found.append((spelling, [place[:8].replace(b"\xf5", b"\0") + MARK +
                                             self.seed[:4].replace(b"\xf5", b"\0")]))
                else:
                    found.append((spelling, [self.at(value, index) for value in values]))
        return found

    def messages(self, first, last, search):
        message_id = ber.number(search.id)[2:]
        heads, tails = self.block(search.attributes, len(message_id))
        pages = []
        while first < last:
            number, begin = divmod(first, BLOCK)
            end = min(BLOCK, begin + last - first)
            page = b"".join(part for one in range(begin, end)
                            for part in (heads[one], message_id, tails[one]))
            pages.append(page.replace(MARK, b"%04d" % number))
            first += end - begin
        return b"".join(pages)


class Contents:
    """What a controller holds. Copies of it are controllers that replicate no more."""

    def __init__(self, nisdomain="example"):
        self.lock = threading.RLock()
        self.objects = {}
        self.families = []
        self.usn = 2 * FAMILY_USN
        self.invocation = os.urandom(16)
        self.tombstones_readable = False
        self.zone_dn = "CN=zoneA," + ZONES
        self.add(BASE, objectClass="domainDNS")
        for dn in (USERS, DELETED, ZONES, "CN=Configuration," + BASE):
            self.add(dn, objectClass="container")
        self.add(self.zone_dn, objectClass="container", extensionName="nisdomain=" + nisdomain)
        self.add("CN=nismaps," + self.zone_dn, objectClass="container")

    def copy(self):
        with self.lock:
            other = Contents()
            other.objects = copy.deepcopy(self.objects)
            other.families, other.usn = list(self.families), self.usn
            return other

    def _next(self):
        self.usn += 1
        return self.usn

    def add(self, dn, **attributes):
        with self.lock:
            self.objects[normal(dn)] = Object(dn, attributes, self._next())
        return dn

    def map(self, name, entries=()):
        """@return {key: dn} of the entries, or the map's own DN where there are none"""
        dn = self.add("CN=%s,CN=nismaps,%s" % (name, self.zone_dn), objectClass="container")
        return {key: self.entry(dn, key, value) for key, value in dict(entries).items()} or dn

    def entry(self, map_dn, key, value):
        return self.add("CN=e%d,%s" % (self.usn + 1, map_dn), objectClass="container",
                        description=key, adminDescription=value)

    def change(self, dn, name, value):
        with self.lock:
            self.objects[normal(dn)].set(name, value)
            self.objects[normal(dn)].touch(self._next())

    def move(self, dn, parent):
        with self.lock:
            found = self.objects.pop(normal(dn))
            found.dn = dn.partition(",")[0] + "," + parent
            found.touch(self._next())
            self.objects[normal(found.dn)] = found
            return found.dn

    def delete(self, dn):
        with self.lock:
            found = self.objects.pop(normal(dn))
            name = "%s\nDEL:%s" % (found.values["cn"][1][0].decode(),
                                   uuid.UUID(bytes_le=found.guid))
            grave = Object("CN=%s,%s" % (name.replace("\n", "\\0A"), DELETED), {
                "objectClass": "container", "cn": name, "isDeleted": "TRUE",
                "lastKnownParent": dn.partition(",")[2]}, self._next())
            grave.set("objectGUID", found.guid)
            self.objects[normal(grave.dn)] = grave

    def big_map(self, name, count):
        dn = self.map(name)
        self.families.append(Family(dn, count, {
            "objectClass": "container", "description": b"key" + DIGITS,
            "adminDescription": b"10.0.0.1 host" + DIGITS + b".example.com the value of " + DIGITS}))
        return dn

    def many_users(self, count):
        family = Family(USERS, count, {
            "objectClass": ["top", "person", "user"], "objectCategory": "person",
            "sAMAccountName": b"u" + DIGITS, "uidNumber": b"1" + DIGITS, "gidNumber": b"100",
            "gecos": b"User number " + DIGITS, "unixHomeDirectory": b"/home/u" + DIGITS,
            "loginShell": b"/bin/bash", "userAccountControl": b"66080"}, prefix="u")
        self.families.append(family)
        return family

    def group(self, name, gid, members):
        return self.add("CN=%s,%s" % (name, USERS), objectClass="group", sAMAccountName=name,
                        gidNumber=gid, member=members)

    # -- questions --------------------------------------------------------------------------------

    def resolve(self, base):
        """@return DN in its normal form, None where there is no such object"""
        if base.upper().startswith("<GUID="):
            wanted = uuid.UUID(base[6:-1]).bytes_le
            return next((dn for dn, one in self.objects.items() if one.guid == wanted), None)
        return normal(base) if normal(base) in self.objects else None

    def visible(self, one, search):
        return "isdeleted" not in one.values or (search.show_deleted and self.tombstones_readable)

    def find(self, search):
        """@return [(count, function(first, last, search) that makes messages), ...]; None where
        there is no such base"""
        with self.lock:
            base = self.resolve(search.base)
            if base is None:
                return self.find_in_families(normal(search.base), search)
            objects = [one for dn, one in self.objects.items()
                       if in_scope(base, search.scope, dn) and self.visible(one, search) and
                       ber.matches(search.filter, one.plain())]
        found = [(len(objects), lambda first, last, search: b"".join(
            one.message(search) for one in objects[first:last]))]
        for family in self.families:
            if in_scope(base, search.scope, "x," + normal(family.parent)) and search.scope != 0:
                first, last = family.slice(search.filter)
                found.append((last - first, lambda a, b, search, family=family, first=first:
                              family.messages(first + a, first + b, search)))
        return found

    def find_in_families(self, base, search):
        """A search below an object of a family, which is all there is there."""
        for family in self.families:
            one = family.number_of(base)
            if one is not None:
                count = 0 if search.scope == 1 else 1
                return [(count, lambda a, b, search: family.messages(one, one + 1, search))]
        return None


def in_scope(base, scope, dn):
    if scope == 0:
        return dn == base
    if scope == 1:
        return dn.partition(",")[2] == base
    return dn == base or dn.endswith("," + base)
