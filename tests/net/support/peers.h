// Real peers for the network tests: child processes (nginx, tinyproxy, the
// openssl CLI) that are killed at teardown, and free loopback ports.
// Everything binds to 127.0.0.1 or ::1.
#pragma once

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "net/support/loopback.h"
#include "support/shared.h"

namespace nettest {

using TempDir = testsupport::ScratchDir;

inline auto& ReadFile = testsupport::ReadWholeFile;

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

// Runs argv to completion with output into logPath; true when it exits 0.
inline bool RunCommand(const std::vector<std::string>& argv, const std::string& logPath) {
  const pid_t pid = testsupport::StartProcess(argv, "/dev/null", logPath, "", true);
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A child process, killed when destroyed.
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv, const std::string& logPath)
      : pid_(testsupport::StartProcess(argv, "/dev/null", logPath, "", true)) {}
  // Peers keep nothing worth a graceful exit: their folders go with the test.
  ~ChildProcess() {
    if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Running() {
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) pid_ = -1;
    return pid_ > 0;
  }

 private:
  pid_t pid_ = -1;
};

// A port that was free on the loopback address of the family a moment ago.
inline int FreePort(int family) {
  return Listener(family).Port();
}

// Connects to 127.0.0.1 until the port answers or timeoutMs passes.
inline bool WaitForPort(int port, int timeoutMs) {
  const auto start = std::chrono::steady_clock::now();
  sockaddr_storage target;
  const socklen_t length = LoopbackAddress(AF_INET, port, &target);
  while (testsupport::ElapsedMs(start) < timeoutMs) {
    Fd probe(socket(AF_INET, SOCK_STREAM, 0));
    if (connect(probe.Get(), reinterpret_cast<sockaddr*>(&target), length) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

// nginx in the foreground with its own prefix, configuration and logs.
class Nginx {
 public:
  struct Server {
    int port = 0;             // 0: picked by Start
    std::string certificate;  // empty: plain HTTP
    std::string key;
    std::string extra;  // more directives inside the server block
  };

  // Starts nginx serving each server block on 127.0.0.1; "/" answers "ok\n".
  // Throws std::runtime_error when it does not come up.
  Nginx(const std::string& directory, std::vector<Server> servers) : servers_(std::move(servers)) {
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
      conf << "  server {\n    listen 127.0.0.1:" << server.port << (server.certificate.empty() ? "" : " ssl") << ";\n";
      if (!server.certificate.empty()) {
        conf << "    ssl_certificate " << server.certificate << ";\n"
             << "    ssl_certificate_key " << server.key << ";\n";
      }
      conf << server.extra << "    location = / { return 200 \"ok\\n\"; }\n  }\n";
    }
    conf << "}\n";
    const std::string confPath = directory + "/nginx.conf";
    WriteFile(confPath, conf.str());
    process_.reset(
        new ChildProcess({"/usr/sbin/nginx", "-e", directory + "/error.log", "-p", directory, "-c", confPath},
                         directory + "/nginx.out"));
    for (const auto& server : servers_) {
      if (!WaitForPort(server.port, 10000)) {
        throw std::runtime_error("nginx did not come up: " + ReadFile(directory + "/error.log"));
      }
    }
  }

  int Port(size_t index) const { return servers_.at(index).port; }

 private:
  std::vector<Server> servers_;
  std::unique_ptr<ChildProcess> process_;
};

// tinyproxy in the foreground on 127.0.0.1, allowing CONNECT to the given
// ports only; with a login it asks for Basic credentials.
class Tinyproxy {
 public:
  Tinyproxy(const std::string& directory, const std::vector<int>& connectPorts, const std::string& login = "",
            const std::string& password = "")
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
    process_.reset(new ChildProcess({"tinyproxy", "-d", "-c", confPath}, directory + "/tinyproxy.out"));
    if (!WaitForPort(port_, 10000)) {
      throw std::runtime_error("tinyproxy did not come up: " + ReadFile(directory + "/tinyproxy.out"));
    }
  }

  int Port() const { return port_; }

 private:
  int port_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

}  // namespace nettest
