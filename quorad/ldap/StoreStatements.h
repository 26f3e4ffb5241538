#pragma once

#include "Store.h"

#include <ctime>

namespace quorad::ldap {

/// Kept for the life of the database.
struct Store::Statements {
    explicit Statements(sqlite::Database& d)
        : server(d, "SELECT invocation, usn, epoch, shift, moves FROM server WHERE name = ?"),
          putServer(d, "INSERT OR REPLACE INTO server(name, invocation, usn, epoch, shift, moves,"
                       " seen) VALUES(?, ?, ?, ?, ?, ?, ?)"),
          setUsn(d, "UPDATE server SET usn = max(usn, ?), seen = ? WHERE name = ?"),
          setIdentity(d, "UPDATE server SET invocation = ? WHERE name = ?"),
          setMoves(d, "UPDATE server SET moves = ? WHERE name = ? AND epoch = ?"),
          base(d, "SELECT id, epoch, compared, usn, count FROM base WHERE server = ? AND dn = ?"),
          addBase(d, "INSERT INTO base(server, dn, epoch, compared, usn, count)"
                     " VALUES(?, ?, -1, 0, 0, 0)"),
          setBase(d, "UPDATE base SET epoch = ?, compared = ?, usn = ? WHERE id = ?"),
          count(d, "UPDATE base SET count = count + ? WHERE id = ?"),
          bases(d, "SELECT id, dn FROM base WHERE server = ?"),
          add(d, "INSERT INTO known(base, guid, mark) VALUES(?, ?, ?) ON CONFLICT DO UPDATE SET"
                 " mark = excluded.mark"),
          isKnown(d, "SELECT 1 FROM known WHERE base = ? AND guid = ?"),
          known(d, "SELECT guid FROM known WHERE base = ? AND mark <= ? ORDER BY guid"),
          forget(d, "DELETE FROM known WHERE base = ? AND guid = ?"),
          putGone(d, "INSERT OR REPLACE INTO gone(base, guid, usn, time) VALUES(?, ?, ?, ?)"),
          dropGone(d, "DELETE FROM gone WHERE base = ? AND guid = ?"),
          isGone(d, "SELECT 1 FROM gone WHERE base = ? AND guid = ? AND usn >= ?"),
          gone(d, "SELECT guid, usn FROM gone WHERE base = ? AND guid > ? AND usn >= ?"
                  " ORDER BY guid LIMIT ?"),
          mark(d, "SELECT value FROM mark"), nextMark(d, "UPDATE mark SET value = value + 1"),
          tell(d, "INSERT INTO told(base, guid, mark) VALUES(?, ?, ?)"),
          isTold(d, "SELECT 1 FROM told LIMIT 1"),
          place(d, "INSERT INTO known(base, guid, mark) SELECT base, guid, max(mark) FROM told"
                   " WHERE true GROUP BY base, guid ORDER BY base, guid"
                   " ON CONFLICT DO UPDATE SET mark = excluded.mark"),
          placed(d, "DELETE FROM gone WHERE EXISTS(SELECT 1 FROM known"
                    " WHERE known.base = gone.base AND known.guid = gone.guid)"),
          countAgain(d, "UPDATE base SET count = (SELECT count(*) FROM known WHERE base = id)"
                        " WHERE id IN (SELECT base FROM told)"),
          forgetTold(d, "DELETE FROM told") {}

    /// Has to come before anything that looks at objects known or gone.
    void settle() {
        {
            const sqlite::ScopedReset reset(isTold);
            if (!isTold.step()) {
                return;
            }
        }
        place.run();
        placed.run();
        countAgain.run();
        forgetTold.run();
    }

    bool isKnownIn(std::int64_t id, std::string_view guid) {
        isKnown.bind(1, id).bind(2, guid);
        const sqlite::ScopedReset reset(isKnown);
        return isKnown.step();
    }
    std::int64_t markNow() {
        const sqlite::ScopedReset reset(mark);
        return mark.step() ? mark.number(0) : 0;
    }
    void setGone(std::int64_t id, std::string_view guid, std::int64_t usn) {
        forget.bind(1, id).bind(2, guid).run();
        putGone.bind(1, id).bind(2, guid).bind(3, usn).bind(4, std::int64_t{std::time(nullptr)});
        putGone.run();
        count.bind(1, std::int64_t{-1}).bind(2, id).run();
    }

    sqlite::Statement server, putServer, setUsn, setIdentity, setMoves, base, addBase, setBase,
        count, bases, add, isKnown, known, forget, putGone, dropGone, isGone, gone, mark, nextMark,
        tell, isTold, place, placed, countAgain, forgetTold;
};

} // namespace quorad::ldap
