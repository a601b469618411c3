// hold_port PORT COMMAND [ARGS...]: listens on 127.0.0.1:PORT, runs COMMAND
// while the port is held, and exits with COMMAND's exit status (or 125 when
// the port or the command cannot be had). Lets a test check what a program
// does when its fixed port is taken, without racing it.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: hold_port PORT COMMAND [ARGS...]\n");
        return 125;
    }
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[1])));
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(fd, 1) != 0) {
        std::fprintf(stderr, "hold_port: cannot listen on port %s: %s\n", argv[1], std::strerror(errno));
        return 125;
    }
    const pid_t child = ::fork();
    if (child < 0) return 125;
    if (child == 0) {
        ::close(fd);
        ::execvp(argv[2], argv + 2);
        std::fprintf(stderr, "hold_port: cannot run %s: %s\n", argv[2], std::strerror(errno));
        std::_Exit(125);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return 125;
    ::close(fd);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 125;
}
