"""What clients must see of a directory: every map, worked out from its LDIF file.

Written from the record formats of the classic files, so that the server's own way of cutting records
is not compared with itself.
"""

import time

NEVER = {-1, 0, 0x7FFFFFFFFFFFFFFF}
EPOCH = 11644473600


def values(attributes, name):
    return [value.decode() for key, value in attributes if key.lower() == name.lower()]


def value(attributes, name, default=""):
    found = values(attributes, name)
    return found[0] if found else default


def until_comment(fields):
    kept = []
    for field in fields:
        if field.startswith("#"):
            break
        kept.append(field)
    return kept


def hosts(records):
    by_name, by_address = {}, {}
    for _, line in records:
        fields = line.split()
        by_address[fields[0]] = line
        for name in until_comment(fields[1:]):
            by_name[name] = line
    return {"hosts.byname": by_name, "hosts.byaddr": by_address}


def ethers(records):
    return {"ethers.byname": {line.split()[1]: line for _, line in records},
            "ethers.byaddr": {line.split()[0]: line for _, line in records}}


def services(records):
    by_port, by_name = {}, {}
    for _, line in records:
        name, port_protocol, *aliases = line.split()
        by_port[port_protocol] = line
        protocol = port_protocol.split("/")[1]
        for one in [name] + until_comment(aliases):
            by_name[one + "/" + protocol] = line
    return {"services.byname": by_port, "services.byservicename": by_name}


def numbered(by_number, by_name):
    def maps(records):
        numbers, names = {}, {}
        for _, line in records:
            name, number, *aliases = line.split()
            numbers[number] = line
            for one in [name] + until_comment(aliases):
                names[one] = line
        return {by_number: numbers, by_name: names}
    return maps


def timezone(records):
    return {"timezone.byname": {name: line for _, line in records for name in line.split()[1:]}}


def aliases(records):
    default, mail, by_address = {}, {}, {}
    for key, line in records:
        name, _, addresses = line.partition(":")
        addresses = addresses.split(":")[0].strip()
        default[name] = line
        mail[key] = addresses
        single = not any(part in addresses for part in (",", "|", ":include:"))
        if single and ("@" in addresses or "!" in addresses):
            by_address[addresses] = key
    return {"aliases.default": default, "mail.aliases": mail, "mail.byaddr": by_address}


def netgroup(records):
    members = {key: line.replace("(", " (").split() for key, line in records}
    parents = {}
    for group, items in members.items():
        for item in items:
            if not item.startswith("("):
                parents.setdefault(item, set()).add(group)

    def with_parents(groups):
        found, waiting = set(), list(groups)
        while waiting:
            group = waiting.pop()
            if group not in found:
                found.add(group)
                waiting.extend(parents.get(group, ()))
        return found
    tables = ({}, {})
    for group, items in members.items():
        for item in items:
            if item.startswith("("):
                *firsts, domain = item.strip("()").split(",")
                for table, first in zip(tables, firsts):
                    if "-" not in (first, domain):
                        key = "%s.%s" % (first or "*", domain or "*")
                        table.setdefault(key, set()).add(group)
    by_host, by_user = ({key: ",".join(sorted(with_parents(groups)))
                         for key, groups in table.items()} for table in tables)
    return {"netgroup": dict(records), "netgroup.byhost": by_host, "netgroup.byuser": by_user}


FAMILIES = {
    "hosts": hosts, "ethers": ethers, "services": services, "netgroup": netgroup,
    "timezone": timezone, "aliases": aliases,
    "networks": numbered("networks.byaddr", "networks.byname"),
    "protocols": numbered("protocols.bynumber", "protocols.byname"),
    "rpc": numbered("rpc.bynumber", "rpc.byname"),
    "netmasks": lambda records: {"netmasks.byaddr": dict(records)},
    "publickey": lambda records: {"publickey.byname": dict(records)},
}


def explicit_maps(objects, zone):
    """The maps of a zone and the zones above it."""
    result = {}
    while zone.lower().startswith("cn=") and not zone.lower().startswith("cn=zones,"):
        container = ",CN=nismaps," + zone
        for dn in objects:
            if dn.endswith(container) and "," not in dn[:-len(container)]:
                name = dn[3:-len(container)]
                records = [(value(attributes, "description"),
                            value(attributes, "adminDescription"))
                           for entry, attributes in objects.items() if entry.endswith("," + dn)]
                family = FAMILIES.get(name, lambda entries, name=name: {name: dict(entries)})
                result.update(family(records))
        zone = zone.split(",", 1)[1]
    return result


def password_field(attributes, now):
    if int(value(attributes, "userAccountControl", "512")) & 2:
        return "!!"
    expiry = int(value(attributes, "msDS-UserPasswordExpiryTimeComputed", "-1"))
    if expiry not in NEVER and expiry // 10**7 - EPOCH < now:
        return "!!"
    account = int(value(attributes, "accountExpires", "0"))
    if account not in NEVER and account // 10**7 - EPOCH <= now:
        return "!!"
    return value(attributes, "unixUserPassword") or "!"


def passwd_maps(objects):
    by_name, by_uid = {}, {}
    for attributes in objects.values():
        if "user" in values(attributes, "objectClass") and value(attributes, "uidNumber"):
            name, uid = value(attributes, "sAMAccountName"), value(attributes, "uidNumber")
            line = ":".join((name, password_field(attributes, time.time()), uid,
                             value(attributes, "gidNumber"),
                             value(attributes, "gecos") or value(attributes, "displayName"),
                             value(attributes, "unixHomeDirectory"),
                             value(attributes, "loginShell")))
            by_name[name] = by_uid[uid] = line
    return {"passwd.byname": by_name, "passwd.byuid": by_uid}


def members_of(objects, dn, seen):
    """Names of the users in a group, through other groups too."""
    names = set()
    if dn in seen or dn not in objects:
        return names
    seen.add(dn)
    attributes = objects[dn]
    if "user" in values(attributes, "objectClass"):
        return {value(attributes, "sAMAccountName")}
    for member in values(attributes, "member"):
        names |= members_of(objects, member, seen)
    return names


def group_lines(name, gid, members, suffix="_"):
    """(name, line) of a group and its pieces."""
    pieces, current = [], (name, "%s:x:%s:" % (name, gid))
    first = True
    for member in members:
        comma = "" if first else ","
        if len((current[1] + comma + member).encode()) > 1024:
            pieces.append(current)
            piece = "%s%s%d" % (name, suffix, len(pieces))
            current, comma = (piece, "%s:x:%s:" % (piece, gid)), ""
        current = (current[0], current[1] + comma + member)
        first = False
    return pieces + [current]


def group_maps(objects):
    by_name, by_gid = {}, {}
    for dn, attributes in objects.items():
        if "group" in values(attributes, "objectClass") and value(attributes, "gidNumber"):
            name, gid = value(attributes, "sAMAccountName"), value(attributes, "gidNumber")
            lines = group_lines(name, gid, sorted(members_of(objects, dn, set())))
            by_name.update(lines)
            by_gid[gid] = lines[0][1]
    return {"group.byname": by_name, "group.bygid": by_gid}


def all_maps(objects, zone):
    return {**explicit_maps(objects, zone), **passwd_maps(objects), **group_maps(objects)}
