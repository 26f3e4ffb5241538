#include "load/Options.h"

#include <cstdio>
#include <cstdlib>

#include <getopt.h>

namespace load {

namespace {

constexpr const char* USAGE =
    "usage: nisload WORK --port N [--domain D] [--map M] [--pairs FILE] [--sockets N]\n"
    "               [--window N] [--seconds S] [--count N] [--size BYTES] [--echo]\n"
    "               [--half N] [--silent N] [--idle N]\n"
    "clients (all on 127.0.0.1):\n"
    "  udp-match    keys of the pairs file in random order over N sockets, window calls on each\n"
    "  walk         first and next over UDP, one call at a time, compared with the pairs\n"
    "  all          the whole map over TCP, N streams at once, compared with the pairs\n"
    "  stream       as many bytes as a plain TCP stream sends, N streams at once\n"
    "  connect      a new TCP connection for each match\n"
    "  hostile      holds --half connections with half a record, --silent ones that ask for the\n"
    "               whole map and do not read, --idle ones; reports how many the server keeps\n"
    "baseline servers (end with the terminal or a signal):\n"
    "  udp-echo     answers each datagram with one of --size bytes that begins with its id\n"
    "  tcp-stream   sends --size bytes on each connection\n"
    "  tcp-echo     accepts, reads a record, answers with one of --size bytes, closes\n";

[[noreturn]] void usage() {
    std::fputs(USAGE, stderr);
    std::exit(2);
}

} // namespace

Options Options::parse(int argc, char** argv) {
    static const option LONG[] = {
        {"port", required_argument, nullptr, 'p'},    {"domain", required_argument, nullptr, 'd'},
        {"map", required_argument, nullptr, 'm'},     {"pairs", required_argument, nullptr, 'f'},
        {"sockets", required_argument, nullptr, 'n'}, {"window", required_argument, nullptr, 'w'},
        {"seconds", required_argument, nullptr, 's'}, {"count", required_argument, nullptr, 'c'},
        {"size", required_argument, nullptr, 'b'},    {"half", required_argument, nullptr, 'h'},
        {"silent", required_argument, nullptr, 'q'},  {"idle", required_argument, nullptr, 'i'},
        {"echo", no_argument, nullptr, 'e'},          {nullptr, 0, nullptr, 0}};
    Options options;
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "", LONG, nullptr)) != -1) {
        switch (letter) {
        case 'p':
            options.port = static_cast<std::uint16_t>(std::atoi(optarg));
            break;
        case 'd':
            options.domain = optarg;
            break;
        case 'm':
            options.map = optarg;
            break;
        case 'f':
            options.pairs = optarg;
            break;
        case 'n':
            options.sockets = static_cast<unsigned>(std::atoi(optarg));
            break;
        case 'w':
            options.window = static_cast<unsigned>(std::atoi(optarg));
            break;
        case 's':
            options.seconds = std::atof(optarg);
            break;
        case 'c':
            options.count = std::strtoull(optarg, nullptr, 10);
            break;
        case 'b':
            options.size = std::strtoull(optarg, nullptr, 10);
            break;
        case 'h':
            options.half = static_cast<unsigned>(std::atoi(optarg));
            break;
        case 'q':
            options.silent = static_cast<unsigned>(std::atoi(optarg));
            break;
        case 'i':
            options.idle = static_cast<unsigned>(std::atoi(optarg));
            break;
        case 'e':
            options.echo = true;
            break;
        default:
            usage();
        }
    }
    if (optind + 1 != argc || options.port == 0 || options.sockets == 0 || options.window == 0) {
        usage();
    }
    options.work = argv[optind];
    return options;
}

} // namespace load
