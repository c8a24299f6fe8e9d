// Real peers for the network tests: child processes (nginx, tinyproxy, the
// openssl CLI) that are killed at teardown, and free loopback ports.
// Everything binds to 127.0.0.1 or ::1.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "support/shared.h"

namespace nettest {

using TempDir = testsupport::ScratchDir;

void WriteFile(const std::string& path, const std::string& content);
inline std::string ReadFile(const std::string& path) { return testsupport::ReadWholeFile(path); }

// Runs argv to completion with output into logPath; true when it exits 0.
bool RunCommand(const std::vector<std::string>& argv, const std::string& logPath);

// A child process, terminated (SIGTERM, then SIGKILL) when destroyed.
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv, const std::string& logPath);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Running();

 private:
  pid_t pid_ = -1;
};

// A port that was free on the loopback address of the family a moment ago.
int FreePort(int family);

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
  Nginx(const std::string& directory, std::vector<Server> servers);
  int Port(size_t index) const { return servers_.at(index).port; }

 private:
  std::vector<Server> servers_;
  std::unique_ptr<ChildProcess> process_;
};

// tinyproxy in the foreground on 127.0.0.1, allowing CONNECT to the given
// ports only; with a login it asks for Basic credentials.
class Tinyproxy {
 public:
  Tinyproxy(const std::string& directory, const std::vector<int>& connectPorts,
            const std::string& login = "", const std::string& password = "");
  int Port() const { return port_; }

 private:
  int port_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

}  // namespace nettest
