// A script blocked in an HTTP request, cancelled by the host from another
// thread. The peer is a socket on 127.0.0.1 that never answers, so without
// the cancel the request would wait for its 60-second time-out.
// Output:
//   host caught: interrupted: canceled by the host
//   cancelled in time
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <iostream>
#include <string>
#include <thread>

#include <corvane/corvane.h>

int main() {
  // A listening socket that nobody accepts from: connections complete, no reply comes.
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener, 4) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    std::cerr << "no listening socket\n";
    return 1;
  }
  const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/slow";

  lua::RegisterAllLibs();
  boost::shared_ptr<lua::RunTime> rt = lua::RunTime::Create();
  std::string outcome;
  const auto started = std::chrono::steady_clock::now();
  // The runtime is used by this one thread; the main thread only cancels.
  std::thread script([&] {
    try {
      lua::RunTime::StackCleaner cleaner(rt);
      // The pcall cannot keep the script going: an interrupted call stays interrupted.
      rt->RunString(
          "while true do pcall(http.get, {url = init_data[1], timeout = 60000}) end",
          {rt->CreateAtStack(url)}, false);
      outcome = "script returned";
    } catch (const lua::RunTimeInterrupted& e) {
      outcome = std::string("host caught: ") + e.what();
    } catch (const std::exception& e) {
      outcome = e.what();
    }
  });
  // Any thread; Cancel reports whether a call was running yet, so retry until one was.
  while (!rt->Cancel()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  script.join();
  close(listener);
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started).count();
  std::cout << outcome << "\n";
  std::cout << (seconds < 10 ? "cancelled in time" : "cancel came too late") << "\n";
  return seconds < 10 ? 0 : 1;
}
