// The socket road's floor: a bare Unix-socket server that reads each request line and writes back
// the reply bytes prepared for it, and nothing else: no JSON, no service, one thread.
//   bench_bare_echo SOCKET TABLE
// TABLE holds pairs of lines, a request line and the reply line to answer it with. Connections
// are served one after the other, each until its client closes it.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <unordered_map>

namespace {

bool WriteAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

void Serve(int fd, const std::unordered_map<std::string, std::string>& replies) {
    static const std::string kUnknown = "{\"error\":\"no reply prepared for this line\"}\n";
    std::string pending;
    char buffer[65536];
    while (true) {
        const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        pending.append(buffer, static_cast<size_t>(n));
        size_t start = 0;
        for (size_t newline; (newline = pending.find('\n', start)) != std::string::npos;
             start = newline + 1) {
            const auto found = replies.find(pending.substr(start, newline - start));
            if (!WriteAll(fd, found == replies.end() ? kUnknown : found->second)) return;
        }
        pending.erase(0, start);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_bare_echo SOCKET TABLE\n");
        return 2;
    }
    std::unordered_map<std::string, std::string> replies;
    std::ifstream table(argv[2], std::ios::binary);
    for (std::string request, reply; std::getline(table, request) && std::getline(table, reply);) {
        replies[request] = reply + "\n";
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (replies.empty() || std::strlen(argv[1]) >= sizeof(address.sun_path)) {
        std::fprintf(stderr, "bench_bare_echo: no replies in %s, or the socket path is too long\n", argv[2]);
        return 1;
    }
    std::strcpy(address.sun_path, argv[1]);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, 8) != 0) {
        std::fprintf(stderr, "bench_bare_echo: cannot listen on %s: %s\n", argv[1], std::strerror(errno));
        return 1;
    }
    while (true) {
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return 1;
        }
        Serve(client, replies);
        close(client);
    }
}
