#pragma once

#include "Kerberos.h"
#include "Settings.h"
#include "Text.h"

#include <karst/ADObject.h>
#include <karst/Exceptions.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <ldap.h>

namespace quorad::ldap {

/// The controller answered, and refused.
class Refused : public tessa::IPCException {
public:
    Refused(std::string message, int code, const char* file, unsigned line)
        : IPCException(std::move(message), file, line), m_code(code) {}
    int code() const { return m_code; } ///< result code of LDAP

private:
    int m_code;
};

/// Raises Refused.
#define QUORAD_REFUSED(message, code)                                                              \
    throw quorad::ldap::Refused((message), (code), tessa::baseName(__FILE__), __LINE__)

/// The controller does not answer, or the connection is of no more use.
class ConnectionLost : public tessa::IPCException {
public:
    using IPCException::IPCException;
};

/// The controller is connected, and sends questions away as one does that has troubles of its own.
/// It may also be that this connection is of no more use (its tickets have run out), or that it
/// never answers this question, whoever asks.
class Unfit : public ConnectionLost {
public:
    Unfit(std::string message, int code, const char* file, unsigned line)
        : ConnectionLost(std::move(message), file, line), m_code(code) {}
    /// Whether the answer says that it is the controller and not the question.
    bool isBusy() const { return m_code == LDAP_UNAVAILABLE || m_code == LDAP_BUSY; }

private:
    int m_code;
};

/// The controller accepts connections and says nothing.
class Silent : public ConnectionLost {
public:
    using ConnectionLost::ConnectionLost;
};

/// What a controller says of itself.
struct RootObject {
    std::string server; ///< lower-cased DNS name
    std::string namingContext;
    std::string configurationContext;
    std::string settingsDn; ///< of the object that carries the invocation id
    std::int64_t usn = 0;   ///< highest committed
    std::time_t time = 0;   ///< the controller's clock
};

struct SearchOptions {
    int scope = 1;
    bool showDeleted = false;
    unsigned pageSize = 0;  ///< at most; 0: as configured
    unsigned sizeLimit = 0; ///< 0: none
};

struct Modification {
    enum class Kind { ADD, REMOVE, REPLACE };
    Kind kind;
    std::string attribute;
    std::vector<std::string> values;
};

class PagedSearch;

/// A bound connection to one controller. Each object that it delivers has "_dn" and "_server".
/// Referrals are not followed. One thread at a time.
///
/// Every operation has a time limit. Operations throw
///  - tessa::NotFoundException: no such object or search base;
///  - tessa::BadDataException: malformed name, filter or value, or an object that is too large;
///  - Refused: the controller says no;
///  - ConnectionLost: it says nothing, and the connection is not usable any more.
class Connection {
public:
    /// Connects and binds. Takes as long as the settings allow, and besides as DNS and the key
    /// distribution centres do.
    /// @param kerberos used where the settings say GSSAPI; may be null otherwise
    Connection(const Settings& settings, const Endpoint& endpoint, Kerberos* kerberos);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// As read when the connection was made.
    const RootObject& root() const { return m_root; }
    const std::string& server() const { return m_root.server; }
    const Endpoint& endpoint() const { return m_endpoint; }
    bool usable() const { return m_usable; }
    /// Time since it was made.
    std::chrono::seconds age() const;

    /// Asks the controller again.
    RootObject readRoot();
    /// One object by its name ("" is the root object, "<GUID=...>" finds by GUID), complete.
    /// @param attributes none: all
    tessa::ADObject read(const std::string& dn, const std::vector<std::string>& attributes,
                         bool showDeleted = false);
    /// Completes attributes of which the controller delivered a part, except where just that part
    /// ("member;range=0-99") was asked for.
    /// @param attributes that were asked for
    /// @throws tessa::BadDataException when the object is larger than a message may be
    void complete(tessa::ADObject& object, const std::vector<std::string>& attributes,
                  bool showDeleted = false);
    /// Finds objects page by page. Attributes that come by ranges are not completed.
    /// @param attributes none: all; "1.1": names only
    std::unique_ptr<PagedSearch> search(const std::string& base, const std::string& filter,
                                        const std::vector<std::string>& attributes,
                                        const SearchOptions& options);

    void add(const std::string& dn, const std::vector<Modification>& attributes);
    void modify(const std::string& dn, const std::vector<Modification>& modifications);
    /// @param tree with everything below it
    void remove(const std::string& dn, bool tree);
    /// @param newParent empty: stays where it is
    void rename(const std::string& dn, const std::string& newName, const std::string& newParent);

private:
    friend class PagedSearch;
    using Deadline = std::chrono::steady_clock::time_point;

    void setOptions();
    void startTls();
    void bind(Kerberos* kerberos);
    void bindSimple();
    void bindSasl(Kerberos& kerberos);
    std::shared_ptr<const Ticket> ticketOf(Kerberos& kerberos) const;
    std::string clockNote(const std::string& failure) const;
    int negotiate(const char* properties, const std::string& what);
    void finishBind(int message, const std::string& what);
    RootObject toRoot(const tessa::ADObject& object) const;

    /// Raises what the sending of a request failed with.
    void requireSent(int code, const std::string& what);
    /// The next message of an operation; the caller frees it.
    LDAPMessage* await(int message, int all, Deadline deadline, const std::string& what);
    void finish(int message, const std::string& what);
    tessa::ADObject toObject(LDAPMessage* entry);
    tessa::ADObject readPart(const std::string& dn, const std::vector<std::string>& attributes,
                             bool showDeleted);
    std::vector<std::string> readRest(const std::string& dn, Range range,
                                      std::vector<std::string> values, std::size_t& bytes,
                                      bool showDeleted);
    /// A question was answered with that code.
    [[noreturn]] void failQuestion(int code, const std::string& what, const std::string& dn);
    [[noreturn]] void fail(int code, const std::string& what, const std::string& dn = "");
    std::string diagnostic(int code) const;

    const Settings m_settings;
    const Endpoint m_endpoint;
    const std::chrono::steady_clock::time_point m_made;
    LDAP* m_ldap = nullptr;
    bool m_usable = true;
    RootObject m_root;
};

/// A search under way. Its connection cannot do anything else meanwhile but read(), and outlives
/// it.
class PagedSearch {
public:
    PagedSearch(Connection& connection, std::string base, std::string filter,
                std::vector<std::string> attributes, const SearchOptions& options);

    /// Appends the next page, which may be empty.
    /// @return false when there are no more
    bool nextPage(std::vector<tessa::ADObject>& objects);
    bool more() const { return m_more; }

private:
    int start();
    void collect(int message, std::vector<tessa::ADObject>& objects);
    void readResult(LDAPMessage* result);

    Connection& m_connection;
    const std::string m_base;
    const std::string m_filter;
    const std::vector<std::string> m_attributes;
    const SearchOptions m_options;
    std::string m_cookie;
    std::size_t m_count = 0;
    bool m_more = true;
};

} // namespace quorad::ldap
