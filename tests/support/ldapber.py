"""As much of BER and of LDAP's messages as a directory server needs (RFC 4511)."""

INTEGER, OCTETS, ENUMERATED, SEQUENCE, SET = 0x02, 0x04, 0x0a, 0x30, 0x31
BIND, BIND_ANSWER, UNBIND = 0x60, 0x61, 0x42
SEARCH, ENTRY, DONE = 0x63, 0x64, 0x65
CONTROLS = 0xa0
PAGED = b"1.2.840.113556.1.4.319"
SHOW_DELETED = b"1.2.840.113556.1.4.417"

AND, OR, NOT, EQUAL, AT_LEAST, AT_MOST, PRESENT = 0xa0, 0xa1, 0xa2, 0xa3, 0xa5, 0xa6, 0x87


class Malformed(Exception):
    """What came is not what it should be."""


def tlv(tag, content):
    size = len(content)
    if size < 0x80:
        return bytes((tag, size)) + content
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes((tag, 0x80 | len(length))) + length + content


def number(value, tag=INTEGER):
    return tlv(tag, value.to_bytes(value.bit_length() // 8 + 1, "big", signed=True))


def to_number(content):
    return int.from_bytes(content, "big", signed=True)


def message(message_id, operation, controls=b""):
    return tlv(SEQUENCE, number(message_id) + operation + controls)


def result(tag, code, text=""):
    return tlv(tag, number(code, ENUMERATED) + tlv(OCTETS, b"") + tlv(OCTETS, text.encode()))


def page_control(cookie):
    value = tlv(SEQUENCE, number(0) + tlv(OCTETS, cookie))
    return tlv(CONTROLS, tlv(SEQUENCE, tlv(OCTETS, PAGED) + tlv(OCTETS, value)))


def entry(dn, attributes):
    """The operation that delivers an object. @param attributes [(name, [value, ...]), ...]"""
    return tlv(ENTRY, tlv(OCTETS, dn) + tlv(SEQUENCE, b"".join(
        tlv(SEQUENCE, tlv(OCTETS, name) + tlv(SET, b"".join(tlv(OCTETS, one) for one in values)))
        for name, values in attributes)))


def header(data):
    """@return (tag, start of the content, its end), None while the header is not complete"""
    if len(data) < 2:
        return None
    length, start = data[1], 2
    if length & 0x80:
        start += length & 0x7f
        if len(data) < start:
            return None
        length = int.from_bytes(data[2:start], "big")
    return data[0], start, start + length


def parts(content):
    """The elements of a constructed value: [(tag, content), ...]"""
    found = []
    while content:
        place = header(content)
        if place is None or place[2] > len(content):
            raise Malformed("an element is longer than what holds it")
        tag, start, end = place
        found.append((tag, content[start:end]))
        content = content[end:]
    return found


def parse_filter(tag, content):
    """@return (kind, [filters]), (kind, name, value) or (PRESENT, name)"""
    if tag in (AND, OR, NOT):
        return tag, [parse_filter(*one) for one in parts(content)]
    if tag in (EQUAL, AT_LEAST, AT_MOST):
        (_, name), (_, value) = parts(content)
        return tag, name.lower(), value
    if tag == PRESENT:
        return tag, content.lower()
    raise Malformed("filter of kind 0x%02x" % tag)


def matches(expression, attributes):
    """@param attributes {name in small letters: [value, ...]}"""
    kind = expression[0]
    if kind in (AND, OR, NOT):
        found = [matches(one, attributes) for one in expression[1]]
        return all(found) if kind == AND else any(found) if kind == OR else not found[0]
    values = attributes.get(expression[1], [])
    if kind == PRESENT:
        return bool(values)
    wanted = expression[2]
    if kind == EQUAL:
        return wanted.lower() in (value.lower() for value in values)
    if kind == AT_LEAST:
        return any(int(value) >= int(wanted) for value in values)
    return any(int(value) <= int(wanted) for value in values)


def bounds(expression, name, low, high):
    """Narrows the range of numbers that a filter of conditions that all must hold allows."""
    if expression[0] == AND:
        for one in expression[1]:
            low, high = bounds(one, name, low, high)
    elif expression[0] == AT_LEAST and expression[1] == name:
        low = max(low, int(expression[2]))
    elif expression[0] == AT_MOST and expression[1] == name:
        high = min(high, int(expression[2]))
    return low, high


class Search:
    """A search that was asked for."""

    def __init__(self, message_id, content, controls):
        (_, base), (_, scope), _, _, _, _, (tag, text), (_, names) = parts(content)
        self.id = message_id
        self.base = base.decode()
        self.scope = to_number(scope)
        self.filter = parse_filter(tag, text)
        self.attributes = tuple(name for _, name in parts(names))
        self.page, self.cookie, self.show_deleted = 0, b"", False
        for _, control in parts(controls):
            fields = parts(control)
            if fields[0][1] == PAGED:
                (_, size), (_, self.cookie) = parts(parts(fields[-1][1])[0][1])
                self.page = to_number(size)
            elif fields[0][1] == SHOW_DELETED:
                self.show_deleted = True
