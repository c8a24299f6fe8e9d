// Requests per second for a 1 KB GET over a new connection each time, and
// throughput of a 100 MB download into memory: PerformHttpRequest and
// http.get from a script, beside libcurl (a fresh connection per request) and
// LuaSocket's socket.http, all against the same nginx in the same run.
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>
#include <lua.hpp>

#include "lua/libs/libs.h"
#include "lua/runtime.h"
#include "net/support/peers.h"
#include "utils/http/request.h"

namespace {

constexpr size_t kSmallBytes = 1024;
constexpr size_t kLargeBytes = 100u << 20;

class Site {
 public:
  Site() {
    const std::string root = directory_.File("www");
    nettest::RunCommand({"mkdir", "-p", root}, directory_.File("mkdir.log"));
    nettest::WriteFile(root + "/1k", std::string(kSmallBytes, 'r'));
    const int large = open((root + "/100m").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    if (large < 0 || ftruncate(large, static_cast<off_t>(kLargeBytes)) != 0) {
      throw std::runtime_error("cannot make the 100 MB file");
    }
    close(large);
    nettest::Nginx::Server server;
    server.extra = "    root " + root + ";\n    sendfile on;\n    keepalive_requests 100000;\n";
    nginx_.reset(new nettest::Nginx(directory_.Path(), {server}));
    base_ = "http://127.0.0.1:" + std::to_string(nginx_->Port(0));
  }
  std::string Url(const char* path) const { return base_ + path; }

 private:
  nettest::TempDir directory_;
  std::unique_ptr<nettest::Nginx> nginx_;
  std::string base_;
};

Site& TheSite() {
  static Site site;
  return site;
}

void Check(bool ok, benchmark::State& state, const char* what) {
  if (!ok) state.SkipWithError(what);
}

void Report(benchmark::State& state, size_t bytes) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void Ours(benchmark::State& state, const char* path, size_t bytes) {
  const std::string url = TheSite().Url(path);
  utils::HttpRequestParams params;
  std::string body;
  for (auto _ : state) {
    const int code = utils::PerformHttpRequest("GET", url, params, &body, nullptr);
    if (code != 200 || body.size() != bytes) {
      Check(false, state, "request failed");
      break;
    }
  }
  Report(state, bytes);
}

size_t AppendToString(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

void Curl(benchmark::State& state, const char* path, size_t bytes) {
  const std::string url = TheSite().Url(path);
  CURL* curl = curl_easy_init();
  std::string body;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, 1L);
  curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, AppendToString);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  for (auto _ : state) {
    body.clear();
    if (curl_easy_perform(curl) != CURLE_OK || body.size() != bytes) {
      Check(false, state, "curl failed");
      break;
    }
  }
  curl_easy_cleanup(curl);
  Report(state, bytes);
}

// One runtime with our library and LuaSocket; fetch(url) returns the body size.
class Scripts {
 public:
  Scripts() {
    lua::RegisterHttpLib();
    rt_ = lua::RunTime::Create();
    const char* code =
        "package.path = '/usr/share/lua/5.3/?.lua;' .. package.path\n"
        "package.cpath = '/usr/lib/x86_64-linux-gnu/lua/5.3/?.so;' .. package.cpath\n"
        "local socket_http = require 'socket.http'\n"
        "function ours(url) local ok, r = http.get{url = url} return ok and #r.output or -1 end\n"
        "function luasocket(url) local body, code = socket_http.request(url)\n"
        "  return code == 200 and #body or -1 end\n";
    if (luaL_dostring(rt_->State(), code) != LUA_OK) {
      throw std::runtime_error(std::string("script set-up: ") + lua_tostring(rt_->State(), -1));
    }
  }
  // The body size, or -1.
  long long Fetch(const char* function, const std::string& url) {
    lua_State* L = rt_->State();
    lua_getglobal(L, function);
    lua_pushlstring(L, url.data(), url.size());
    if (lua_pcall(L, 1, 1, 0) != LUA_OK) {
      lua_pop(L, 1);
      return -1;
    }
    const long long size = lua_tointeger(L, -1);
    lua_pop(L, 1);
    return size;
  }

 private:
  boost::shared_ptr<lua::RunTime> rt_;
};

Scripts& TheScripts() {
  static Scripts scripts;
  return scripts;
}

void Script(benchmark::State& state, const char* function, const char* path, size_t bytes) {
  const std::string url = TheSite().Url(path);
  Scripts& scripts = TheScripts();
  for (auto _ : state) {
    if (scripts.Fetch(function, url) != static_cast<long long>(bytes)) {
      Check(false, state, "script request failed");
      break;
    }
  }
  Report(state, bytes);
}

void BM_Get1KB(benchmark::State& state, const char* who) {
  const std::string name = who;
  if (name == "cpp") Ours(state, "/1k", kSmallBytes);
  if (name == "libcurl") Curl(state, "/1k", kSmallBytes);
  if (name == "script") Script(state, "ours", "/1k", kSmallBytes);
  if (name == "luasocket") Script(state, "luasocket", "/1k", kSmallBytes);
}

void BM_Download100MB(benchmark::State& state, const char* who) {
  const std::string name = who;
  if (name == "cpp") Ours(state, "/100m", kLargeBytes);
  if (name == "libcurl") Curl(state, "/100m", kLargeBytes);
  if (name == "script") Script(state, "ours", "/100m", kLargeBytes);
  if (name == "luasocket") Script(state, "luasocket", "/100m", kLargeBytes);
}

BENCHMARK_CAPTURE(BM_Get1KB, cpp, "cpp")->UseRealTime();
BENCHMARK_CAPTURE(BM_Get1KB, libcurl, "libcurl")->UseRealTime();
BENCHMARK_CAPTURE(BM_Get1KB, script, "script")->UseRealTime();
BENCHMARK_CAPTURE(BM_Get1KB, luasocket, "luasocket")->UseRealTime();
BENCHMARK_CAPTURE(BM_Download100MB, cpp, "cpp")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Download100MB, libcurl, "libcurl")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Download100MB, script, "script")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Download100MB, luasocket, "luasocket")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
