#include "net/support/peers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace nettest {

namespace {

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// posix_spawn rather than fork: the tests may already run threads.
pid_t Spawn(const std::vector<std::string>& argv, const std::string& logPath) {
  std::vector<char*> args;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + argv[0] + ": " + strerror(error));
  return pid;
}

}  // namespace

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/corvane-net-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

bool RunCommand(const std::vector<std::string>& argv, const std::string& logPath) {
  const pid_t pid = Spawn(argv, logPath);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& logPath)
    : pid_(Spawn(argv, logPath)) {}

ChildProcess::~ChildProcess() { Stop(); }

bool ChildProcess::Running() {
  if (pid_ <= 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    pid_ = -1;
    return false;
  }
  return true;
}

void ChildProcess::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  const int64_t deadline = NowMs() + 5000;
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (NowMs() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  pid_ = -1;
}

int FreePort(int family) {
  const int descriptor = socket(family, SOCK_STREAM, 0);
  sockaddr_storage address{};
  socklen_t length;
  if (family == AF_INET6) {
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
    in6->sin6_family = AF_INET6;
    in6->sin6_addr = in6addr_loopback;
    length = sizeof(*in6);
  } else {
    auto* in4 = reinterpret_cast<sockaddr_in*>(&address);
    in4->sin_family = AF_INET;
    in4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof(*in4);
  }
  int port = -1;
  if (bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
      getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                                    : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  }
  close(descriptor);
  if (port <= 0) throw std::runtime_error("no free port");
  return port;
}

bool WaitForPort(const std::string& address, int port, int timeoutMs) {
  const int64_t deadline = NowMs() + timeoutMs;
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &target.sin_addr);
  while (NowMs() < deadline) {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    const bool up = connect(descriptor, reinterpret_cast<sockaddr*>(&target), sizeof(target)) == 0;
    close(descriptor);
    if (up) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

Nginx::Nginx(const std::string& directory, std::vector<Server> servers)
    : servers_(std::move(servers)) {
  std::ostringstream conf;
  conf << "daemon off;\nmaster_process off;\nworker_processes 1;\n"
       << "pid " << directory << "/nginx.pid;\n"
       << "error_log " << directory << "/error.log warn;\n"
       << "events { worker_connections 256; }\n"
       << "http {\n  access_log off;\n  default_type text/plain;\n"
       << "  client_body_temp_path " << directory << "/body;\n"
       << "  proxy_temp_path " << directory << "/proxy;\n"
       << "  fastcgi_temp_path " << directory << "/fastcgi;\n"
       << "  uwsgi_temp_path " << directory << "/uwsgi;\n"
       << "  scgi_temp_path " << directory << "/scgi;\n";
  for (auto& server : servers_) {
    if (server.port == 0) server.port = FreePort(AF_INET);
    conf << "  server {\n    listen 127.0.0.1:" << server.port
         << (server.certificate.empty() ? "" : " ssl") << ";\n";
    if (!server.certificate.empty()) {
      conf << "    ssl_certificate " << server.certificate << ";\n"
           << "    ssl_certificate_key " << server.key << ";\n";
    }
    conf << server.extra << "    location = / { return 200 \"ok\\n\"; }\n  }\n";
  }
  conf << "}\n";
  const std::string confPath = directory + "/nginx.conf";
  WriteFile(confPath, conf.str());
  process_.reset(new ChildProcess(
      {"/usr/sbin/nginx", "-e", directory + "/error.log", "-p", directory, "-c", confPath},
      directory + "/nginx.out"));
  for (const auto& server : servers_) {
    if (!WaitForPort("127.0.0.1", server.port, 10000)) {
      throw std::runtime_error("nginx did not come up: " + ReadFile(directory + "/error.log"));
    }
  }
}

Tinyproxy::Tinyproxy(const std::string& directory, const std::vector<int>& connectPorts,
                     const std::string& login, const std::string& password)
    : port_(FreePort(AF_INET)) {
  std::ostringstream conf;
  conf << "Port " << port_ << "\nListen 127.0.0.1\nTimeout 30\nMaxClients 20\n"
       << "Allow 127.0.0.1\nLogLevel Info\n"
       << "LogFile \"" << directory << "/tinyproxy.log\"\n"
       << "PidFile \"" << directory << "/tinyproxy.pid\"\n";
  for (int port : connectPorts) conf << "ConnectPort " << port << "\n";
  if (!login.empty()) conf << "BasicAuth " << login << " " << password << "\n";
  const std::string confPath = directory + "/tinyproxy.conf";
  WriteFile(confPath, conf.str());
  process_.reset(
      new ChildProcess({"tinyproxy", "-d", "-c", confPath}, directory + "/tinyproxy.out"));
  if (!WaitForPort("127.0.0.1", port_, 10000)) {
    throw std::runtime_error("tinyproxy did not come up: " +
                             ReadFile(directory + "/tinyproxy.out"));
  }
}

}  // namespace nettest
