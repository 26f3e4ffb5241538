#include "GuidRuns.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace quorad::ldap {

namespace {

constexpr std::size_t READ_AT_ONCE = 256; // GUIDs of a run

[[noreturn]] void failed(const char* what, const std::string& folder, int error) {
    TESSA_THROW(tessa::IPCException, std::string("cannot ") + what + " a temporary file in '" +
                                         folder +
                                         "' (disk space low?): " + tessa::errorText(error));
}

} // namespace

GuidBytes toBytes(std::string_view guid) {
    GuidBytes bytes{};
    std::copy_n(guid.begin(), std::min(guid.size(), bytes.size()), bytes.begin());
    return bytes;
}

bool isBefore(const GuidBytes& a, const GuidBytes& b) {
    return std::string_view(a.data(), a.size()) < std::string_view(b.data(), b.size());
}

GuidRuns::GuidRuns(std::string folder, std::size_t atOnce)
    : m_folder(std::move(folder)), m_atOnce(atOnce) {}

GuidRuns::~GuidRuns() {
    if (m_file >= 0) {
        ::close(m_file);
    }
}

void GuidRuns::add(const GuidBytes& guid) {
    if (m_fresh.size() >= m_atOnce) {
        writeRun();
    }
    m_fresh.push_back(guid);
    ++m_size;
}

void GuidRuns::createFile() {
    std::string path = m_folder + "/guids-XXXXXX";
    m_file = ::mkostemp(path.data(), O_CLOEXEC);
    if (m_file < 0) {
        failed("create", m_folder, errno);
    }
    ::unlink(path.c_str());
}

void GuidRuns::writeRun() {
    if (m_file < 0) {
        createFile();
    }
    std::sort(m_fresh.begin(), m_fresh.end(), isBefore);
    const char* bytes = m_fresh.front().data();
    const std::size_t size = m_fresh.size() * sizeof(GuidBytes);
    for (std::size_t done = 0; done < size;) {
        const ssize_t count =
            ::pwrite(m_file, bytes + done, size - done, static_cast<off_t>(m_fileSize + done));
        if (count < 0 && errno != EINTR) {
            failed("write", m_folder, errno);
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    Run run;
    run.at = m_fileSize;
    m_fileSize += size;
    run.end = m_fileSize;
    m_runs.push_back(std::move(run));
    m_fresh.clear();
}

// False when the run is at its end.
bool GuidRuns::refill(Run& run) const {
    const std::size_t size =
        std::min<std::uint64_t>(run.end - run.at, READ_AT_ONCE * sizeof(GuidBytes));
    run.taken = 0;
    run.ready.resize(size / sizeof(GuidBytes));
    for (std::size_t done = 0; done < size;) {
        const ssize_t count = ::pread(m_file, run.ready.front().data() + done, size - done,
                                      static_cast<off_t>(run.at + done));
        if (count == 0 || (count < 0 && errno != EINTR)) {
            failed("read", m_folder, count == 0 ? EIO : errno);
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    run.at += size;
    return size > 0;
}

void GuidRuns::sort() {
    std::sort(m_fresh.begin(), m_fresh.end(), isBefore);
    Run last; // what is still in memory is a run of which nothing lies in the file
    last.ready = std::move(m_fresh);
    m_fresh = {};
    m_runs.push_back(std::move(last));
    const auto isLater = [this](std::size_t a, std::size_t b) {
        return isBefore(m_runs[b].ready[m_runs[b].taken], m_runs[a].ready[m_runs[a].taken]);
    };
    for (std::size_t i = 0; i < m_runs.size(); ++i) {
        if (!m_runs[i].ready.empty() || refill(m_runs[i])) {
            m_heap.push_back(i);
        }
    }
    std::make_heap(m_heap.begin(), m_heap.end(), isLater);
}

bool GuidRuns::next(GuidBytes& guid) {
    if (m_heap.empty()) {
        return false;
    }
    const auto isLater = [this](std::size_t a, std::size_t b) {
        return isBefore(m_runs[b].ready[m_runs[b].taken], m_runs[a].ready[m_runs[a].taken]);
    };
    std::pop_heap(m_heap.begin(), m_heap.end(), isLater);
    Run& run = m_runs[m_heap.back()];
    guid = run.ready[run.taken++];
    if (run.taken < run.ready.size() || refill(run)) {
        std::push_heap(m_heap.begin(), m_heap.end(), isLater);
    } else {
        m_heap.pop_back();
    }
    return true;
}

} // namespace quorad::ldap
