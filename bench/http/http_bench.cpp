// Requests per second for a 1 KB GET and throughput of a 100 MB download
// into memory: PerformHttpRequest and http.get from a script, beside libcurl
// and LuaSocket, all against the same nginx in the same run.
//
// Request/response rounds run with client and server pinned to the same CPU
// (each waits for the other, so one CPU avoids cross-CPU wake-ups); the bulk
// download puts them on different CPUs. Each benchmark's label prints the
// placement.
//
// 1 KB GET pairs:
//   new connection each time:      ours (keepAlive false) / libcurl fresh handle, no reuse
//   keep-alive:                    ours / one libcurl easy handle reused
//   HTTPS keep-alive:              ours / one libcurl handle with a shared session cache
//   HTTPS new TCP, session resumed: ours (keepAlive false) / libcurl fresh handle, no session reuse
//   script keep-alive:             http.get / a LuaSocket loop on one kept connection
//
// Streaming and concurrency:
//   1 GB to a file:       http.request with outputFile / libcurl writing to a file
//                         (both into the same folder, tmpfs when there is one)
//   100 MB into memory:   PerformHttpRequest and http.get / libcurl into a string
//   200 slow requests:    http.requestAll / libcurl's multi interface, both at
//                         concurrency 200, against a peer that answers after 200 ms
#include <curl/curl.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>
#include <lua.hpp>

#include "lua/libs/libs.h"
#include "lua/runtime.h"
#include "http/support/http_peers.h"
#include "net/support/certs.h"
#include "net/support/peers.h"
#include "utils/http/request.h"

namespace {

constexpr size_t kSmallBytes = 1024;
constexpr size_t kLargeBytes = 100u << 20;
constexpr uint64_t kFileBytes = uint64_t{1} << 30;
constexpr int kSlowRequests = 200;

// The CPU the server runs on; the client picks its own per benchmark.
constexpr int kServerCpu = 0;

int CpuCount() { return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)); }

void PinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu % CpuCount(), &set);
  sched_setaffinity(0, sizeof(set), &set);
}

// Pins the calling thread for a request/response benchmark (same CPU as the
// server) or a bulk one (another CPU), and says so in the label.
std::string Place(benchmark::State& state, bool bulk) {
  const int cpu = bulk && CpuCount() > 1 ? kServerCpu + 1 : kServerCpu;
  PinTo(cpu);
  const std::string label =
      "client cpu" + std::to_string(cpu % CpuCount()) + ", servers cpu" + std::to_string(kServerCpu);
  state.SetLabel(label);
  return label;
}

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
    const int huge = open((root + "/1g").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    if (huge < 0 || ftruncate(huge, static_cast<off_t>(kFileBytes)) != 0) {
      throw std::runtime_error("cannot make the 1 GB file");
    }
    close(huge);
    struct stat status;
    downloads_ = stat("/dev/shm", &status) == 0 && S_ISDIR(status.st_mode) ? "/dev/shm" : directory_.Path();
    nettest::CertFactory factory(directory_.Path());
    const nettest::KeyPair ca = factory.CreateCa("ca");
    const nettest::KeyPair leaf = factory.Issue("leaf", ca, "localhost", "DNS:localhost");
    caFile_ = ca.certificate;
    setenv("CORVANE_OPENSSL_CA_FILE", caFile_.c_str(), 1);
    nettest::Nginx::Server plain;
    plain.extra = "    root " + root + ";\n    sendfile on;\n    keepalive_requests 1000000;\n";
    nettest::Nginx::Server secure = plain;
    secure.certificate = leaf.certificate;
    secure.key = leaf.key;
    // The servers inherit the placement of the thread that starts them.
    cpu_set_t previous;
    sched_getaffinity(0, sizeof(previous), &previous);
    PinTo(kServerCpu);
    nginx_.reset(new nettest::Nginx(directory_.Path(), {plain, secure}));
    peer_.reset(new httptest::PythonPeer(directory_.Path()));
    sched_setaffinity(0, sizeof(previous), &previous);
    base_ = "http://127.0.0.1:" + std::to_string(nginx_->Port(0));
    secureBase_ = "https://localhost:" + std::to_string(nginx_->Port(1));
  }
  std::string Url(const char* path) const { return base_ + path; }
  std::string SecureUrl(const char* path) const { return secureBase_ + path; }
  const std::string& CaFile() const { return caFile_; }
  // Where downloads to files go.
  std::string DownloadPath(const char* name) const { return downloads_ + "/corvane-bench-" + name; }
  std::string SlowUrl(int tag) const { return peer_->Url("/sleep?200&" + std::to_string(tag)); }

 private:
  nettest::TempDir directory_;
  std::unique_ptr<nettest::Nginx> nginx_;
  std::string base_;
  std::string secureBase_;
  std::string caFile_;
  std::string downloads_;
  std::unique_ptr<httptest::PythonPeer> peer_;
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

void Ours(benchmark::State& state, const std::string& url, size_t bytes, bool keepAlive) {
  utils::HttpRequestParams params;
  params.keepAlive = keepAlive;
  std::string body;
  utils::ClearThreadHttpConnections();
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

enum class CurlReuse { kNone, kHandle };

// kNone: a fresh handle per request with neither connection nor session
// reuse; kHandle: one handle for all requests, its connection and (through a
// share object) its TLS sessions kept.
void Curl(benchmark::State& state, const std::string& url, size_t bytes, CurlReuse reuse) {
  std::string body;
  CURLSH* share = curl_share_init();
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  auto make = [&]() {
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CAINFO, TheSite().CaFile().c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, AppendToString);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    if (reuse == CurlReuse::kNone) {
      curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, 1L);
      curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
      curl_easy_setopt(curl, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    } else {
      curl_easy_setopt(curl, CURLOPT_SHARE, share);
    }
    return curl;
  };
  CURL* kept = reuse == CurlReuse::kHandle ? make() : nullptr;
  for (auto _ : state) {
    body.clear();
    CURL* curl = kept != nullptr ? kept : make();
    const CURLcode result = curl_easy_perform(curl);
    if (kept == nullptr) curl_easy_cleanup(curl);
    if (result != CURLE_OK || body.size() != bytes) {
      Check(false, state, "curl failed");
      break;
    }
  }
  if (kept != nullptr) curl_easy_cleanup(kept);
  curl_share_cleanup(share);
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
        "function to_file(url, path) local r = http.request{url = url, outputFile = path}\n"
        "  return r and r.code == 200 and 0 or -1 end\n"
        "function all(urls) local list = {}\n"
        "  for i, url in ipairs(urls) do list[i] = {url = url} end\n"
        "  local n = 0\n"
        "  for _, r in ipairs(http.requestAll(list, {concurrency = #list})) do if r.code == 200 then n = n + 1 end end\n"
        "  return n end\n"
        "local socket = require 'socket'\n"
        "function luasocket(url) local body, code = socket_http.request(url)\n"
        "  return code == 200 and #body or -1 end\n"
        // socket.http closes after each request; this is the best a script
        // can do with LuaSocket: one kept connection, heads parsed by hand.
        "local kept\n"
        "function luasocket_keep(url)\n"
        "  local host, port, path = url:match('^http://([^:/]+):(%d+)(/.*)$')\n"
        "  if not kept then kept = socket.tcp() kept:setoption('tcp-nodelay', true)\n"
        "    assert(kept:connect(host, tonumber(port))) end\n"
        "  kept:send('GET ' .. path .. ' HTTP/1.1\\r\\nHost: ' .. host .. '\\r\\n\\r\\n')\n"
        "  local length\n"
        "  while true do\n"
        "    local line = kept:receive('*l')\n"
        "    if not line then return -1 end\n"
        "    if line == '' then break end\n"
        "    length = tonumber(line:match('^[Cc]ontent%-[Ll]ength:%s*(%d+)')) or length\n"
        "  end\n"
        "  local body = kept:receive(length)\n"
        "  return body and #body or -1\n"
        "end\n";
    if (luaL_dostring(rt_->State(), code) != LUA_OK) {
      throw std::runtime_error(std::string("script set-up: ") + lua_tostring(rt_->State(), -1));
    }
  }
  const boost::shared_ptr<lua::RunTime>& Runtime() const { return rt_; }
  // The function's integer result for string arguments, or -1.
  long long Fetch(const char* function, const std::string& url, const std::string& more = std::string()) {
    lua_State* L = rt_->State();
    lua_getglobal(L, function);
    lua_pushlstring(L, url.data(), url.size());
    if (!more.empty()) lua_pushlstring(L, more.data(), more.size());
    if (lua_pcall(L, more.empty() ? 1 : 2, 1, 0) != LUA_OK) {
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

void Script(benchmark::State& state, const char* function, const std::string& url, size_t bytes) {
  Scripts& scripts = TheScripts();
  utils::ClearThreadHttpConnections();
  for (auto _ : state) {
    if (scripts.Fetch(function, url) != static_cast<long long>(bytes)) {
      Check(false, state, "script request failed");
      break;
    }
  }
  Report(state, bytes);
}

size_t WriteToFile(char* data, size_t size, size_t count, void* file) {
  return fwrite(data, size, count, static_cast<FILE*>(file)) * size;
}

void ReportPeakRss(benchmark::State& state) {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  state.counters["peak_rss_MB"] = static_cast<double>(usage.ru_maxrss) / 1024;
}

// Registered first: peak RSS is the process's, and the in-memory downloads
// would set it.
void BM_Download1GBToFile(benchmark::State& state, const char* who) {
  const std::string placement = Place(state, true);
  const std::string url = TheSite().Url("/1g");
  const std::string path = TheSite().DownloadPath(who);
  const auto download = [&] {
    bool ok;
    if (std::string(who) == "script-outputFile") {
      ok = TheScripts().Fetch("to_file", url, path) == 0;
    } else {
      FILE* file = fopen(path.c_str(), "wb");
      CURL* curl = curl_easy_init();
      curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
      curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, WriteToFile);
      curl_easy_setopt(curl, CURLOPT_WRITEDATA, file);
      ok = file != nullptr && curl_easy_perform(curl) == CURLE_OK;
      curl_easy_cleanup(curl);
      if (file != nullptr) ok = fclose(file) == 0 && ok;
    }
    struct stat status;
    return ok && stat(path.c_str(), &status) == 0 && static_cast<uint64_t>(status.st_size) == kFileBytes;
  };
  // Two downloads first, untimed: memory that a fresh machine touches for the
  // first time costs about twice as much to write (the hypervisor backs the
  // pages then), and whichever side ran first paid for it. outputFile keeps
  // the old file until the new one is complete, so it touches two gigabytes.
  for (int warm = 0; warm < 2; ++warm) {
    if (!download()) {
      Check(false, state, "download to file failed");
      return;
    }
  }
  for (auto _ : state) {
    if (!download()) {
      Check(false, state, "download to file failed");
      break;
    }
  }
  unlink(path.c_str());
  Report(state, kFileBytes);
  ReportPeakRss(state);
  state.SetLabel(placement + ", to " + path);
}

void BM_Slow200(benchmark::State& state, const char* who) {
  Place(state, false);
  std::vector<std::string> urls;
  for (int i = 0; i < kSlowRequests; ++i) urls.push_back(TheSite().SlowUrl(i));
  for (auto _ : state) {
    int good = 0;
    if (std::string(who) == "requestAll") {
      lua_State* L = TheScripts().Runtime()->State();
      lua_getglobal(L, "all");
      lua_createtable(L, kSlowRequests, 0);
      for (int i = 0; i < kSlowRequests; ++i) {
        lua_pushlstring(L, urls[i].data(), urls[i].size());
        lua_rawseti(L, -2, i + 1);
      }
      good = lua_pcall(L, 1, 1, 0) == LUA_OK ? static_cast<int>(lua_tointeger(L, -1)) : -1;
      lua_pop(L, 1);
    } else {
      CURLM* multi = curl_multi_init();
      curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, static_cast<long>(kSlowRequests));
      std::vector<CURL*> handles;
      std::vector<std::string> bodies(kSlowRequests);
      for (int i = 0; i < kSlowRequests; ++i) {
        CURL* curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, urls[i].c_str());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, AppendToString);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &bodies[i]);
        curl_multi_add_handle(multi, curl);
        handles.push_back(curl);
      }
      int running = 1;
      while (running > 0) {
        curl_multi_perform(multi, &running);
        if (running > 0) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
      }
      while (CURLMsg* message = curl_multi_info_read(multi, &running)) {
        if (message->msg == CURLMSG_DONE && message->data.result == CURLE_OK) ++good;
      }
      for (CURL* curl : handles) {
        curl_multi_remove_handle(multi, curl);
        curl_easy_cleanup(curl);
      }
      curl_multi_cleanup(multi);
    }
    if (good != kSlowRequests) {
      Check(false, state, "slow requests failed");
      break;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kSlowRequests);
}

void BM_Get1KB_NewConnection(benchmark::State& state, const char* who) {
  Place(state, false);
  const std::string url = TheSite().Url("/1k");
  if (std::string(who) == "cpp") Ours(state, url, kSmallBytes, false);
  if (std::string(who) == "libcurl") Curl(state, url, kSmallBytes, CurlReuse::kNone);
}

void BM_Get1KB_KeepAlive(benchmark::State& state, const char* who) {
  Place(state, false);
  const std::string url = TheSite().Url("/1k");
  if (std::string(who) == "cpp") Ours(state, url, kSmallBytes, true);
  if (std::string(who) == "libcurl") Curl(state, url, kSmallBytes, CurlReuse::kHandle);
}

void BM_Https1KB_KeepAlive(benchmark::State& state, const char* who) {
  Place(state, false);
  const std::string url = TheSite().SecureUrl("/1k");
  if (std::string(who) == "cpp") Ours(state, url, kSmallBytes, true);
  if (std::string(who) == "libcurl") Curl(state, url, kSmallBytes, CurlReuse::kHandle);
}

// Ours opens a new TCP connection each time and resumes the TLS session;
// the peer does the full handshake each time.
void BM_Https1KB_NewConnection(benchmark::State& state, const char* who) {
  Place(state, false);
  const std::string url = TheSite().SecureUrl("/1k");
  if (std::string(who) == "cpp-resumed") Ours(state, url, kSmallBytes, false);
  if (std::string(who) == "libcurl-full") Curl(state, url, kSmallBytes, CurlReuse::kNone);
}

void BM_ScriptGet1KB(benchmark::State& state, const char* who) {
  Place(state, false);
  const std::string url = TheSite().Url("/1k");
  if (std::string(who) == "script") Script(state, "ours", url, kSmallBytes);
  if (std::string(who) == "luasocket-keep") Script(state, "luasocket_keep", url, kSmallBytes);
  if (std::string(who) == "luasocket-http") Script(state, "luasocket", url, kSmallBytes);
}

void BM_Download100MB(benchmark::State& state, const char* who) {
  Place(state, true);
  const std::string url = TheSite().Url("/100m");
  const std::string name = who;
  if (name == "cpp") Ours(state, url, kLargeBytes, true);
  if (name == "libcurl") Curl(state, url, kLargeBytes, CurlReuse::kHandle);
  if (name == "script") Script(state, "ours", url, kLargeBytes);
  if (name == "luasocket") Script(state, "luasocket", url, kLargeBytes);
}

BENCHMARK_CAPTURE(BM_Download1GBToFile, script_outputFile, "script-outputFile")
    ->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_Download1GBToFile, libcurl, "libcurl")->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_Slow200, requestAll, "requestAll")->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_CAPTURE(BM_Slow200, libcurl_multi, "libcurl-multi")->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_CAPTURE(BM_Get1KB_NewConnection, cpp, "cpp")->UseRealTime();
BENCHMARK_CAPTURE(BM_Get1KB_NewConnection, libcurl, "libcurl")->UseRealTime();
BENCHMARK_CAPTURE(BM_Get1KB_KeepAlive, cpp, "cpp")->UseRealTime();
BENCHMARK_CAPTURE(BM_Get1KB_KeepAlive, libcurl, "libcurl")->UseRealTime();
BENCHMARK_CAPTURE(BM_Https1KB_KeepAlive, cpp, "cpp")->UseRealTime();
BENCHMARK_CAPTURE(BM_Https1KB_KeepAlive, libcurl, "libcurl")->UseRealTime();
BENCHMARK_CAPTURE(BM_Https1KB_NewConnection, cpp_resumed, "cpp-resumed")->UseRealTime();
BENCHMARK_CAPTURE(BM_Https1KB_NewConnection, libcurl_full, "libcurl-full")->UseRealTime();
BENCHMARK_CAPTURE(BM_ScriptGet1KB, script, "script")->UseRealTime();
BENCHMARK_CAPTURE(BM_ScriptGet1KB, luasocket_keep, "luasocket-keep")->UseRealTime();
BENCHMARK_CAPTURE(BM_ScriptGet1KB, luasocket_http, "luasocket-http")->UseRealTime();
BENCHMARK_CAPTURE(BM_Download100MB, cpp, "cpp")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Download100MB, libcurl, "libcurl")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Download100MB, script, "script")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Download100MB, luasocket, "luasocket")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
