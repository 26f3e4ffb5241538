// nisload: load for a YP server on this machine, every answer checked, one JSON line a run.
#include "load/Works.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <map>

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    const load::Options options = load::Options::parse(argc, argv);
    const std::map<std::string, load::Report (*)(const load::Options&)> clients{
        {"udp-match", load::udpMatch},   {"walk", load::walk},
        {"all", load::wholeMap},         {"stream", load::plainStream},
        {"connect", load::connectMatch}, {"hostile", load::hostile}};
    const std::map<std::string, void (*)(const load::Options&)> servers{
        {"udp-echo", load::serveUdpEcho},
        {"tcp-stream", load::serveTcpStream},
        {"tcp-echo", load::serveTcpEcho}};
    try {
        if (const auto client = clients.find(options.work); client != clients.end()) {
            load::Report report = client->second(options);
            report.print();
            return report.wrong == 0 ? 0 : 1;
        }
        if (const auto server = servers.find(options.work); server != servers.end()) {
            server->second(options);
            return 0;
        }
        std::fprintf(stderr, "nisload: unknown work '%s'\n", options.work.c_str());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "nisload: %s\n", error.what());
        return 1;
    }
}
