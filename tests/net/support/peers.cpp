#include "net/support/peers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "net/support/loopback.h"

namespace nettest {

namespace {

pid_t Spawn(const std::vector<std::string>& argv, const std::string& logPath) {
  return testsupport::StartProcess(argv, "/dev/null", logPath, "", true);
}

bool WaitForPort(int port, int timeoutMs) {
  const auto start = std::chrono::steady_clock::now();
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(static_cast<uint16_t>(port));
  target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  while (testsupport::ElapsedMs(start) < timeoutMs) {
    Fd probe(socket(AF_INET, SOCK_STREAM, 0));
    if (connect(probe.Get(), reinterpret_cast<sockaddr*>(&target), sizeof(target)) == 0) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

}  // namespace

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
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

ChildProcess::~ChildProcess() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  const auto start = std::chrono::steady_clock::now();
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (testsupport::ElapsedMs(start) > 5000) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool ChildProcess::Running() {
  int status = 0;
  if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) pid_ = -1;
  return pid_ > 0;
}

int FreePort(int family) { return Listener(family).Port(); }

Nginx::Nginx(const std::string& directory, std::vector<Server> servers)
    : servers_(std::move(servers)) {
  std::ostringstream conf;
  conf << "daemon off;\nmaster_process off;\nworker_processes 1;\n"
       << "pid " << directory << "/nginx.pid;\n"
       << "error_log " << directory << "/error.log warn;\n"
       << "events { worker_connections 256; }\n"
       << "http {\n  access_log off;\n  default_type text/plain;\n";
  for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    conf << "  " << temp << "_temp_path " << directory << "/" << temp << ";\n";
  }
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
    if (!WaitForPort(server.port, 10000)) {
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
  if (!WaitForPort(port_, 10000)) {
    throw std::runtime_error("tinyproxy did not come up: " +
                             ReadFile(directory + "/tinyproxy.out"));
  }
}

}  // namespace nettest
