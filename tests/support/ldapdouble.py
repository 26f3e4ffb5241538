"""A stand-in for a domain controller, for amounts and failures that a real one cannot be brought to.

Serves what an ldapcontents.Contents holds: LDAP inside TLS, simple binds, a thread for each
connection. Faults can be switched on and off at any moment. tests/ad has the tests against real
controllers: what this one shows is worth as much as what they confirm.
"""

import calendar
import os
import socket
import ssl
import threading
import time

import adcontroller
import ldapber as ber
from adcontroller import BASE, CA_FILE, DOMAIN, FOLDER, REALM, write

ACCOUNT, PASSWORD = "reader@" + REALM, "Reader.secret"
PASSWORD_FILE = "/etc/velmorix/reader.secret"
PORT = 636
MOST_IN_A_PAGE = 1000
SENT_AT_ONCE = 500  # objects, so that a page can be cut off in its middle

SUCCESS, OPERATIONS_ERROR, NO_METHOD, NO_SUCH_OBJECT = 0, 1, 7, 32
INVALID_CREDENTIALS, BUSY, UNAVAILABLE, UNWILLING, OTHER = 49, 51, 52, 53, 80


def make_authority():
    """Once for all stand-ins of a test."""
    os.makedirs(FOLDER + "/tls", exist_ok=True)
    adcontroller.make_authority(CA_FILE, "Laboratory authority")


def settings(*doubles):
    """Configuration of a machine that asks them."""
    write(PASSWORD_FILE, PASSWORD + "\n")
    os.chmod(PASSWORD_FILE, 0o600)
    write("/etc/hosts", "127.0.0.1 localhost\n" + "".join(
        "%s %s\n" % (one.address, one.host) for one in doubles))
    return {"quorad.directory": " ".join("ldaps://" + one.host for one in doubles),
            "quorad.zone": doubles[0].contents.zone_dn, "quorad.ldap.auth": "simple",
            "quorad.ldap.bind.dn": ACCOUNT, "quorad.ldap.password.file": PASSWORD_FILE,
            "quorad.ldap.tls.cacert": CA_FILE}


class Cut(Exception):
    """The connection is to end now."""


class Double:
    """One controller. Attributes that tests set while it runs:
    - code: result of every search but those for the root object; 0: the true one
    - applies: function(Search) that says which searches `code` is for; None: all
    - cut_after: the connection is closed after so many objects of a page, once
    - refuse_cookies: a search cannot be gone on with
    - before: function(Search) that is called before a search is answered
    - clock: seconds that it is ahead"""

    def __init__(self, number, contents):
        self.host = "dc%d.%s" % (number, DOMAIN)
        self.address = "127.0.0.%d" % (10 + number)
        self.contents = contents
        self.code, self.applies, self.before = 0, None, None
        self.cut_after, self.refuse_cookies, self.clock = None, False, 0
        self.asked = []  # base and scope of each search but those for the root object
        self.binds = 0
        self.settings_dn = "CN=NTDS Settings,CN=dc%d,CN=Configuration,%s" % (number, BASE)
        contents.add(self.settings_dn, objectClass="nTDSDSA", invocationId=contents.invocation)
        self._connections = set()
        self._lock = threading.Lock()
        self._listener = None
        folder = os.path.join(FOLDER, "double%d" % number)
        os.makedirs(folder, exist_ok=True)
        adcontroller.make_certificate(self.host, folder)
        self._tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._tls.load_cert_chain(folder + "/cert.pem", folder + "/key.pem")

    # -- life -------------------------------------------------------------------------------------

    def start(self):
        self._listener = socket.create_server((self.address, PORT))
        threading.Thread(target=self._accept, args=(self._listener,), daemon=True).start()
        return self

    def stop(self):
        listener, self._listener = self._listener, None
        if listener is not None:
            listener.shutdown(socket.SHUT_RDWR)
            listener.close()
        self.disconnect()

    def disconnect(self):
        """As a restart does."""
        with self._lock:
            open_ones = list(self._connections)
        for connection in open_ones:
            try:
                # Past TLS, whose state belongs to the thread that serves the connection.
                socket.socket.shutdown(connection, socket.SHUT_RDWR)
            except OSError:
                pass  # it ended by itself

    def restore(self, contents):
        """The database is another one from now on, with an identity of its own."""
        contents.add(self.settings_dn, objectClass="nTDSDSA", invocationId=contents.invocation)
        self.contents = contents
        self.disconnect()

    def _accept(self, listener):
        while True:
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, plain):
        plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection = self._tls.wrap_socket(plain, server_side=True, do_handshake_on_connect=False)
        with self._lock:
            self._connections.add(connection)
        try:
            connection.do_handshake()
            Conversation(self, connection).run()
        except (OSError, Cut):
            pass  # a peer that left, or was to be left
        finally:
            with self._lock:
                self._connections.discard(connection)
            connection.close()


class Conversation:
    """One connection."""

    def __init__(self, double, connection):
        self.double, self.connection = double, connection
        self.pages = {}  # cookie: what is found, and how much of it was sent
        self.last_cookie = 0

    def run(self):
        data = b""
        while True:
            place = ber.header(data)
            if place is not None and place[2] <= len(data):
                if not self.answer(data[place[1]:place[2]]):
                    return
                data = data[place[2]:]
                continue
            more = self.connection.recv(65536)
            if not more:
                return
            data += more

    def send(self, *operation):
        self.connection.sendall(ber.message(*operation))

    def answer(self, content):
        (_, message_id), (operation, request), *rest = ber.parts(content)
        message_id = ber.to_number(message_id)
        if operation == ber.BIND:
            self.send(message_id, self.bind(request))
        elif operation == ber.SEARCH:
            self.search(ber.Search(message_id, request, rest[0][1] if rest else b""))
        return operation != ber.UNBIND

    def bind(self, request):
        self.double.binds += 1
        _, (_, name), (method, secret) = ber.parts(request)
        if method != 0x80:
            return ber.result(ber.BIND_ANSWER, NO_METHOD, "only simple binds")
        good = (name.decode(), secret.decode()) == (ACCOUNT, PASSWORD)
        return ber.result(ber.BIND_ANSWER, SUCCESS if good else INVALID_CREDENTIALS)

    def search(self, search):
        double = self.double
        if double.before is not None:
            double.before(search)
        if search.base == "" and search.scope == 0:
            self.connection.sendall(ber.message(search.id, self.root()) + self.done(search))
            return
        double.asked.append((search.base, search.scope))
        if double.code and (double.applies is None or double.applies(search)):
            self.connection.sendall(self.done(search, double.code, "as the test wants it"))
        elif search.cookie:
            if double.refuse_cookies or search.cookie not in self.pages:
                self.connection.sendall(self.done(search, UNWILLING, "no such cookie"))
            else:
                self.page(search, *self.pages.pop(search.cookie))
        else:
            found = double.contents.find(search)
            if found is None:
                self.connection.sendall(self.done(search, NO_SUCH_OBJECT))
            else:
                self.page(search, found, 0)

    def page(self, search, found, first):
        total = sum(count for count, _ in found)
        last = min(total, first + min(search.page or MOST_IN_A_PAGE, MOST_IN_A_PAGE))
        for place in range(first, last, SENT_AT_ONCE):
            end = min(place + SENT_AT_ONCE, last)
            cut, self.double.cut_after = self.double.cut_after, None
            if cut is not None and cut < end - first:
                self.connection.sendall(messages(search, found, place, first + cut))
                raise Cut
            self.double.cut_after = cut
            self.connection.sendall(messages(search, found, place, end))
        cookie = b""
        if last < total:
            self.last_cookie += 1
            cookie = b"cookie %d" % self.last_cookie
            self.pages[cookie] = found, last
        self.connection.sendall(self.done(search, SUCCESS, "", ber.page_control(cookie)))

    @staticmethod
    def done(search, code=SUCCESS, text="", controls=b""):
        return ber.message(search.id, ber.result(ber.DONE, code, text), controls)

    def root(self):
        double = self.double
        now = time.gmtime(calendar.timegm(time.gmtime()) + double.clock)
        return ber.entry(b"", [(name, [value.encode()]) for name, value in (
            (b"dnsHostName", double.host), (b"defaultNamingContext", BASE),
            (b"configurationNamingContext", "CN=Configuration," + BASE),
            (b"dsServiceName", double.settings_dn),
            (b"currentTime", time.strftime("%Y%m%d%H%M%S.0Z", now)),
            (b"highestCommittedUSN", str(double.contents.usn)),
            (b"supportedControl", ber.PAGED.decode()))])


def messages(search, found, first, last):
    """Those numbered first to last - 1 of all that is found."""
    made = []
    for count, make in found:
        if first < count and last > 0:
            made.append(make(max(first, 0), min(last, count), search))
        first -= count
        last -= count
    return b"".join(made)
