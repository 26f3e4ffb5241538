#pragma once

namespace nis {

struct Worker;

/// Something with a descriptor in the poller. Lives at least as long as it is registered there.
class EventSource {
public:
    virtual ~EventSource() = default;
    /// Serves what is ready, on the thread that was woken for it; never throws.
    virtual void onReady(Worker& worker) = 0;
};

} // namespace nis
