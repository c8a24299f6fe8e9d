// One script module shared by four threads and reloaded when its file
// changes. Each thread takes a Lock for every call; the script is replaced
// atomically (a new file renamed over the old one), so no thread can ever
// load half of it.
// Output:
//   4 threads saw the new script, 0 errors
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <corvane/corvane.h>

namespace {

void SaveAtomically(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp";
  std::ofstream(temporary) << text;
  std::rename(temporary.c_str(), path.c_str());
}

}  // namespace

int main() {
  lua::RegisterAllLibs();
  char folder[] = "/tmp/corvane-threads-XXXXXX";
  if (mkdtemp(folder) == nullptr) return 1;
  const std::string path = std::string(folder) + "/handler.lua";
  SaveAtomically(path, "calls = 0 function handle(n) calls = calls + 1 return 'v1', n * 2 end");

  const std::shared_ptr<lua::LuaModuleContext> context = lua::LuaModuleContext::Create(path, true);
  std::atomic<int> sawNew{0};
  std::atomic<int> errors{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < 4; ++t) {
    workers.emplace_back([&, t] {
      for (;;) {
        try {
          lua::LuaModuleContext::Lock lock(context);  // reloads here when the file changed
          boost::shared_ptr<lua::RunTime> rt = lock.GetRuntime();
          auto results = rt->RunFunc("handle", {rt->CreateAtStack(t)});
          if (results[0]->AsString() == "v2") {
            ++sawNew;
            return;
          }
        } catch (const std::exception& e) {
          std::cerr << e.what() << "\n";
          ++errors;
          return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  SaveAtomically(path, "function handle(n) return 'v2', n * 3 end");
  for (std::thread& worker : workers) worker.join();
  std::remove(path.c_str());
  rmdir(folder);
  std::cout << sawNew << " threads saw the new script, " << errors << " errors\n";
  return sawNew == 4 && errors == 0 ? 0 : 1;
}
