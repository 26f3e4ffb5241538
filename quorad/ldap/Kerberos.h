#pragma once

#include <karst/Mutex.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace quorad::ldap {

/// Tickets of one principal, in memory only. The cache goes when the last holder lets go.
class Ticket {
public:
    Ticket(std::string cacheName, std::time_t end)
        : m_cacheName(std::move(cacheName)), m_end(end) {}
    ~Ticket();
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

    /// Lets what the calling thread authenticates from now on use these tickets.
    void use() const;
    std::time_t end() const { return m_end; }

private:
    const std::string m_cacheName;
    const std::time_t m_end;
};

/// Gets tickets with a keytab. A keytab that changed is read again, so a new password of the
/// machine takes effect without a restart. What the key distribution centre refused is not tried
/// again at once with the same keytab: repeated failures lock accounts. Thread-safe; one thread at
/// a time asks for tickets, the others wait for what it gets.
class Kerberos {
public:
    Kerberos(std::string keytab, std::string principal)
        : m_keytab(std::move(keytab)), m_principal(std::move(principal)) {}
    virtual ~Kerberos() = default;
    Kerberos(const Kerberos&) = delete;
    Kerberos& operator=(const Kerberos&) = delete;

    /// Tickets that are good for a while. May take as long as the key distribution centres do.
    /// @throws tessa::IPCException that says what is wrong and what to do
    virtual std::shared_ptr<const Ticket> ticket();
    /// Whether ticket() would do without those at hand: whether keytab and account are in order.
    /// @throws tessa::IPCException as ticket()
    void check();
    /// These did not work: the next call gets others.
    virtual void forget(const std::shared_ptr<const Ticket>& ticket);

private:
    /// Identity and age of the keytab.
    struct Stamp {
        std::uint64_t inode = 0;
        std::int64_t size = -1;
        std::int64_t seconds = 0;
        std::int64_t nanoseconds = 0;
        friend bool operator==(const Stamp&, const Stamp&) = default;
    };
    Stamp stamp() const;

    const std::string m_keytab;
    const std::string m_principal;

    tessa::Mutex m_mutex;
    std::shared_ptr<const Ticket> m_ticket KARST_GUARDED_BY(m_mutex);
    Stamp m_stamp KARST_GUARDED_BY(m_mutex); ///< of the keytab that gave the ticket
    std::string m_refusal KARST_GUARDED_BY(m_mutex);
    Stamp m_refusedStamp KARST_GUARDED_BY(m_mutex);
    std::chrono::steady_clock::time_point m_refusedUntil KARST_GUARDED_BY(m_mutex);
};

/// Whether the failure that Kerberos describes so comes from clocks that differ.
bool isClockFailure(const std::string& text);
/// What an administrator can do about a failure that Kerberos describes so; empty when that is not
/// known.
std::string kerberosAdvice(const std::string& text);

} // namespace quorad::ldap
