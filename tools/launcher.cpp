// Plays init for a command: creates the control socket /dev/socket/talvoem
// the way `socket talvoem seqpacket 0660 root system` in an init .rc file
// does, hands it over in ANDROID_SOCKET_talvoem and runs the command.
//
//   talvoem-launcher [--namespace] [--mode OCTAL] [--] command [args...]
//
// --namespace first moves into a private mount namespace with a fresh tmpfs
// on /dev/socket, so the machine's own /dev/socket is never touched. --mode
// gives the socket another mode, as another .rc line would: 0666 (what
// tools/talvoemd.rc uses) lets every uid connect.
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

namespace {

constexpr const char* kPath = "/dev/socket/talvoem";

int fail(const char* what) {
    fprintf(stderr, "talvoem-launcher: %s: %s\n", what, strerror(errno));
    return 1;
}

int usage(FILE* out, int status) {
    fprintf(out,
            "usage: talvoem-launcher [--namespace] [--mode OCTAL] [--] command [args...]\n"
            "Creates the control socket %s (SOCK_SEQPACKET, mode 0660), exports it in\n"
            "ANDROID_SOCKET_talvoem and runs the command with it.\n"
            "  --namespace   run in a private mount namespace with a tmpfs on /dev/socket\n"
            "  --mode OCTAL  the socket's mode instead of 0660 (0666: every uid may connect)\n",
            kPath);
    return status;
}

bool enterPrivateSocketDir() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return false;
    }
    mkdir("/dev/socket", 0755);
    return mount("tmpfs", "/dev/socket", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0;
}

int createControlSocket(mode_t mode) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, kPath, sizeof(addr.sun_path) - 1);
    unlink(kPath);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        chmod(kPath, mode) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    int first = 1;
    bool privateNamespace = false;
    mode_t mode = 0660;
    for (; first < argc && argv[first][0] == '-'; ++first) {
        std::string arg = argv[first];
        if (arg == "--") {
            ++first;
            break;
        }
        if (arg == "--help" || arg == "-h") {
            return usage(stdout, 0);
        }
        if (arg == "--mode" && first + 1 < argc) {
            char* end = nullptr;
            const long value = strtol(argv[++first], &end, 8);
            if (*argv[first] == '\0' || *end != '\0' || value < 0 || value > 0777) {
                fprintf(stderr, "talvoem-launcher: --mode takes an octal mode up to 0777\n");
                return usage(stderr, 2);
            }
            mode = static_cast<mode_t>(value);
            continue;
        }
        if (arg != "--namespace") {
            fprintf(stderr, "talvoem-launcher: unknown option %s\n", arg.c_str());
            return usage(stderr, 2);
        }
        privateNamespace = true;
    }
    if (first >= argc) {
        return usage(stderr, 2);
    }
    if (privateNamespace && !enterPrivateSocketDir()) {
        return fail("private /dev/socket (needs root)");
    }
    int fd = createControlSocket(mode);
    if (fd < 0) {
        return fail(kPath);
    }
    setenv("ANDROID_SOCKET_talvoem", std::to_string(fd).c_str(), 1);
    execvp(argv[first], argv + first);
    return fail(argv[first]);
}
