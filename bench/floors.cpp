#include "floors.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace mvbench {

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A descriptor closed with its scope.
struct Fd {
  int fd = -1;
  explicit Fd(int f) : fd(f) {}
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
};

bool sendAll(int fd, const uint8_t* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

long statusKb(pid_t pid, const char* field) {
  FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
  if (f == nullptr) return -1;
  char line[256];
  long kb = -1;
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strncmp(line, field, std::strlen(field)) == 0)
      kb = std::atol(line + std::strlen(field));
  }
  std::fclose(f);
  return kb;
}

}  // namespace

double copyFile(const std::string& from, const std::string& to, bool sync) {
  ::unlink(to.c_str());
  const auto start = Clock::now();
  const Fd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  const Fd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  bool good = in.fd >= 0 && out.fd >= 0;
  std::vector<char> piece(1 << 20);
  for (ssize_t n = 0; good && (n = ::read(in.fd, piece.data(), piece.size())) > 0;) {
    good = ::write(out.fd, piece.data(), static_cast<std::size_t>(n)) == n;
  }
  good = good && (!sync || ::fsync(out.fd) == 0);
  return good ? since(start) : -1;
}

double tcpCopy(int64_t bytes, std::size_t piece) {
  const Fd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener.fd < 0 ||
      ::bind(listener.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener.fd, 1) != 0 ||
      ::getsockname(listener.fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return -1;
  }
  const Fd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (client.fd < 0 ||
      ::connect(client.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return -1;
  }
  const Fd server(::accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC));
  if (server.fd < 0) return -1;
  const int on = 1;
  (void)::setsockopt(client.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const auto start = Clock::now();
  std::thread sender([&] {
    const std::vector<uint8_t> out(piece, 0x5A);
    for (int64_t sent = 0; sent < bytes;) {
      const auto n =
          static_cast<std::size_t>(std::min<int64_t>(bytes - sent, static_cast<int64_t>(piece)));
      if (!sendAll(client.fd, out.data(), n)) break;
      sent += static_cast<int64_t>(n);
    }
    ::shutdown(client.fd, SHUT_WR);
  });
  std::vector<uint8_t> in(piece);
  int64_t received = 0;
  for (ssize_t n = 0; received < bytes;) {
    n = ::recv(server.fd, in.data(), in.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    received += n;
  }
  sender.join();
  return received == bytes ? since(start) : -1;
}

long residentKb(pid_t pid) { return statusKb(pid, "VmRSS:"); }
long peakKb(pid_t pid) { return statusKb(pid, "VmHWM:"); }

void resetPeak(pid_t pid) {
  if (FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/clear_refs").c_str(), "w")) {
    std::fputs("5", f);
    std::fclose(f);
  }
}

}  // namespace mvbench
