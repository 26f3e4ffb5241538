#include "Commands.h"

#include <karst/Exceptions.h>
#include <karst/Logger.h>

#include <exception>
#include <iostream>

#include <sys/resource.h>

namespace {

constexpr const char* VERSION = "Velmorix-quorad 5.3.1-398";

// Passwords and tickets pass through the memory of this program.
void forbidCoreDumps() {
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
}

int work(const std::vector<std::string>& arguments) {
    using quorad::admin::ExitStatus;
    try {
        const auto options = quorad::admin::Options::parse(arguments);
        if (options.help) {
            std::cout << quorad::admin::usage();
            return 0;
        }
        if (options.version) {
            std::cout << VERSION << '\n';
            return 0;
        }
        return static_cast<int>(quorad::admin::Commands(options).run());
    } catch (const quorad::admin::UsageError& error) {
        std::cerr << "quorad-admin: " << error.what() << "; --help says what there is\n";
        return static_cast<int>(ExitStatus::USAGE);
    } catch (const std::exception& error) {
        std::cerr << "quorad-admin: " << error.what() << '\n';
        return static_cast<int>(ExitStatus::FAILURE);
    }
}

} // namespace

int main(int argc, char** argv) {
    forbidCoreDumps();
    tessa::Logger::logToStandardError();
    return work(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
}
