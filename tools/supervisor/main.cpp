#include "tools/supervisor/Supervisor.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

constexpr int kUsage = 2;

constexpr char kHelp[] =
    "scada-storage-supervisor [DAEMON]\n"
    "Keeps the storage daemon running (scada-storage beside this program, or DAEMON).\n"
    "SIGTERM and SIGINT stop it in order.\n";

std::string daemonBesideThisProgram() {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    return self.parent_path() / "scada-storage";
}

void onSignal(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(kHelp, stdout);
        return 0;
    }
    if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
        std::fputs(kHelp, stderr);
        return kUsage;
    }
    Supervisor supervisor(argc == 2 ? std::string(argv[1]) : daemonBesideThisProgram());
    onSignal(SIGTERM, [](int) { Supervisor::requestStop(); });
    onSignal(SIGINT, [](int) { Supervisor::requestStop(); });
    onSignal(SIGCHLD, [](int) { Supervisor::look(); });
    return supervisor.run();
}
