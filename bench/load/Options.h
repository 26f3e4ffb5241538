#pragma once

#include <cstdint>
#include <string>

namespace load {

/// Command line of a run. Every target is the loopback interface: the generator takes no host.
struct Options {
    std::string work;
    std::uint16_t port = 0;
    std::string domain = "bench";
    std::string map = "bench";
    std::string pairs;       ///< file with the keys and the right values
    unsigned sockets = 8;    ///< UDP sockets, or streams at once
    unsigned window = 16;    ///< calls under way on each socket
    double seconds = 3;      ///< bound of the run
    std::uint64_t count = 0; ///< bound in answers, 0: none
    std::size_t size = 0;    ///< reply (or stream) size of a baseline server
    unsigned half = 0;       ///< connections that send half a record
    unsigned silent = 0;     ///< connections that ask for the whole map and do not read it
    unsigned idle = 0;       ///< connections that send nothing
    bool echo = false;       ///< the other side is the baseline: check ids only

    /// Prints the usage and exits with status 2 when the words are off.
    static Options parse(int argc, char** argv);
};

} // namespace load
