// The http script library against the scripted Python peer and nginx.
#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <thread>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "http/support/http_peers.h"
#include "lua/libs/libs.h"
#include "lua/script_test_util.h"

namespace {

class HttpLib : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    lua::RegisterHttpLib();
    servers_ = std::make_unique<httptest::Servers>();
  }
  static void TearDownTestSuite() { servers_.reset(); }
  void SetUp() override { rt_ = lua::RunTime::Create(); }

  // The first result as text, or the error text; PEER, NGINX and SECURE stand
  // for the servers' base URLs, ROOT for their folder.
  std::string Run(std::string code) {
    for (auto [name, base] : {std::pair<std::string, std::string>{"PEER", servers_->peer.Url("")},
                              {"NGINX", servers_->site.HttpUrl("")},
                              {"SECURE", servers_->site.HttpsUrl("127.0.0.1", "")},
                              {"ROOT", servers_->dir.Path()}}) {
      for (size_t at; (at = code.find(name)) != std::string::npos;) code.replace(at, name.size(), base);
    }
    const int top = rt_->StackTopIndex();
    std::string result;
    try {
      result = lua_test::Eval(rt_, code);
    } catch (const lua::RunTimeError& e) {
      result = e.what();
      rt_->PopFromStack(1);  // the error value, which the cleaner keeps
    }
    EXPECT_EQ(rt_->StackTopIndex(), top);
    return result;
  }

  std::string Raised(const std::string& function, const std::string& arguments) {
    return Run("local ok, e = pcall(" + function + (arguments.empty() ? "" : ", ") + arguments +
               ") return tostring(ok) .. ': ' .. tostring(e)");
  }

  static std::unique_ptr<httptest::Servers> servers_;
  boost::shared_ptr<lua::RunTime> rt_;
};

std::unique_ptr<httptest::Servers> HttpLib::servers_;

TEST_F(HttpLib, RequestHeadCarriesTheOptionsAcceptDefaultAndCredentials) {
  const struct {
    std::string call;
    std::vector<std::string> present;
    std::string absent;  // "": nothing
  } cases[] = {
      {"http.get{url = 'PEER/echo'}", {}, "Accept"},
      {"http.get{url = 'PEER/echo', options = {}}", {"\r\nAccept: */*\r\n"}, ""},
      {"http.get{url = 'PEER/echo', options = {Accept = 'text/html'}}", {"\r\nAccept: text/html\r\n"}, "*/*"},
      // The rule looks for the key "Accept" exactly; another spelling gets the default too.
      {"http.get{url = 'PEER/echo', options = {accept = 'a/b'}}", {"accept: a/b\r\n", "Accept: */*\r\n"}, ""},
      {"http.get{url = 'PEER/echo', options = {['X-Two'] = {'1', '2'}, ['X-Num'] = 5}}",
       {"X-Two: 1\r\nX-Two: 2\r\n", "X-Num: 5\r\n"},
       ""},
      {"http.get{url = 'PEER/echo', password = 'pw'}", {}, "Authorization"},
      {"http.get{url = 'PEER/echo', username = 'bob', password = 'pw'}", {"Authorization: Basic Ym9iOnB3\r\n"}, ""},
      {"http.post{url = 'PEER/echo', input = 'a=1', options = {['Content-Type'] = 't/p'}}",
       {"Content-Type: t/p\r\n", "\r\n\r\na=1"},
       ""},
  };
  for (const auto& c : cases) {
    const std::string sent = Run("local ok, r = " + c.call + " assert(ok) return r.output");
    for (const std::string& part : c.present) EXPECT_NE(sent.find(part), std::string::npos) << c.call << "\n" << sent;
    EXPECT_TRUE(c.absent.empty() || sent.find(c.absent) == std::string::npos) << c.call;
  }
  // A body needs a Content-Type, looked for by its exact spelling.
  EXPECT_EQ(Raised("http.post", "{url = 'PEER/echo', input = 'x', options = {['content-type'] = 't/p'}}"),
            "false: \"Content-Type\" option is empty");
}

TEST_F(HttpLib, ResultTableHasStatusHeadAndBody) {
  EXPECT_EQ(Run("local ok, r = http.get{url = 'PEER/duplicate-headers'}\n"
                "return table.concat({tostring(ok), r.code, r.codeDescr, r.httpVersion, r.output,\n"
                "  r.options['X-Dup'][1], r.options['X-Dup'][3], #r.options['X-Dup'], r.options['X-Once']}, ',')"),
            "true,200,OK,1.1,dup,c,a,3,1");
  EXPECT_EQ(Run("local ok, r = http.get{url = 'PEER/redirect?302&/echo', allowRedirect = false} return r.code"), "302");
  EXPECT_EQ(Run("return http.performRequest{method = 'HEAD', url = 'NGINX/files/1024'}"), "true");
}

// get, post and performRequest answer any failure with false alone; request
// answers nil and "class: detail", requestAll the same in the error field.
TEST_F(HttpLib, FailuresGiveFalseOrNilAndTheirClass) {
  const std::string closed = "127.0.0.1:" + std::to_string(nettest::FreePort(2));
  const std::string peer = "127.0.0.1:" + std::to_string(servers_->peer.Port());
  const struct {
    std::string options;
    std::string message;
  } cases[] = {
      {"{url = 'http://" + closed + "/'}", "connect: cannot connect to " + closed + ": Connection refused"},
      {"{url = 'http://no-such-host.invalid/'}", "dns: cannot resolve no-such-host.invalid"},
      {"{url = 'PEER/slow-head', timeout = 300}", "timeout: no response from " + peer + " within 300 ms"},
      // A peer that never answers a TLS hello: the connect time-out ends the wait.
      {"{url = 'https://" + peer + "/', connectTimeout = 200, timeout = 5000}",
       "timeout: no TLS handshake with " + peer + " within 200 ms"},
      {"{url = 'SECURE/files/1024'}", "tls: TLS with 127.0.0.1"},
      {"{url = 'NGINX/files/65536', maxBodyBytes = 1000}", "toolarge: body from 127.0.0.1"},
      {"{url = 'gopher://x/'}", "badurl: unsupported or malformed URL"},
      {"{url = 'NGINX/files/65536', outputFile = '/nonexistent/x'}", "file: "},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Run("return select('#', http.get(" + c.options + ")) .. tostring(http.get(" + c.options + "))"), "1false")
        << c.options;
    EXPECT_EQ(Run("local r, e = http.request(" + c.options + ") return tostring(r) .. ' ' .. e")
                  .substr(0, c.message.size() + 4),
              "nil " + c.message)
        << c.options;
    EXPECT_EQ(Run("return http.requestAll{" + c.options + "}[1].error").substr(0, c.message.size()), c.message)
        << c.options;
  }
  EXPECT_EQ(Run("local ok, r = http.get{url = 'SECURE/files/1024', frivolousSsl = true} return #r.output"), "1024");
  for (const auto& [arguments, error] : std::initializer_list<std::pair<std::string, std::string>>{
           {"'PEER/echo'", "Invalid param"},
           {"", "expected 1 args"},
           {"{}, {}", "expected 1 args"},
           {"{url = 'PEER/echo', timeout = 'soon'}", "Bad argument: \"timeout\" must be an integer"},
           {"{url = 'PEER/echo', keepAlive = 'yes'}", "Bad argument: \"keepAlive\" must be a boolean"},
           {"{url = 'PEER/echo', maxBodyBytes = -5}", "Bad argument: \"maxBodyBytes\" must not be negative"},
       }) {
    for (const char* function : {"http.get", "http.request"}) {
      EXPECT_EQ(Raised(function, arguments), "false: " + error) << function << arguments;
    }
  }
}

TEST_F(HttpLib, FilesCarryBodiesAndReplaceTheirTargetOnlyOnSuccess) {
  const std::string dir = servers_->dir.Path() + "/lua-files";
  mkdir(dir.c_str(), 0755);
  nettest::WriteFile(dir + "/kept", "old");
  EXPECT_EQ(Run("local function read(path) local f = io.open(path, 'rb') local t = f:read('a') f:close() return t end\n"
                "local r = http.request{url = 'NGINX/files/1000000', outputFile = 'ROOT/lua-files/new'}\n"
                "local body = read('ROOT/lua-files/new')\n"
                "local parts = {r.code, #r.output, #body, tostring(body == read('ROOT/www/files/1000000'))}\n"
                "for _, url in ipairs{'PEER/close-mid-body', 'NGINX/nothing'} do\n"
                "  local ok, res = http.get{url = url, outputFile = 'ROOT/lua-files/kept'}\n"
                "  parts[#parts + 1] = tostring(ok and res.code) .. ':' .. read('ROOT/lua-files/kept')\n"
                "end\n"
                "return table.concat(parts, ',')"),
            "200,0,1000000,true,false:old,404:old");
  // Nothing half-written is left beside the targets.
  EXPECT_EQ(Run("local n = 0 for _ in io.popen('ls " + dir + "'):lines() do n = n + 1 end return n"), "2");
  EXPECT_EQ(Raised("http.get", "{url = 'NGINX/x', outputFile = 'a\\0b'}"),
            "false: Bad argument: \"outputFile\" holds a NUL, CR or LF byte");
}

TEST_F(HttpLib, RequestAllRunsRequestsSideBySideInOrder) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Run("local list = {} for i = 1, 200 do list[i] = {url = 'PEER/sleep?200&' .. i} end\n"
                "local results = http.requestAll(list, {concurrency = 200})\n"
                "for i, r in ipairs(results) do\n"
                "  if r.code ~= 200 or r.output ~= tostring(i) or r.timeMs < 200 then return r.error or i end\n"
                "end\n"
                "return #results"),
            "200");
  // 200 after one another would take 40 s.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));

  EXPECT_EQ(Raised("http.requestAll", "{{url = 'PEER/echo'}}, {concurrency = 0}"),
            "false: Bad argument: \"concurrency\" must be 1 to 256");
  EXPECT_EQ(Raised("http.requestAll", "{'PEER/echo'}"), "false: Bad argument: element 1 must be a table");

  // A host's cancel ends every request at once, and the pcall cannot keep the script going.
  std::thread canceller([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    rt_->Cancel();
  });
  const auto cancelStart = std::chrono::steady_clock::now();
  EXPECT_EQ(
      Raised("http.requestAll", "{{url = 'PEER/slow-head'}, {url = 'PEER/slow-head'}, {url = 'PEER/sleep?3000&x'}}"),
      "interrupted: canceled by the host");
  EXPECT_LT(std::chrono::steady_clock::now() - cancelStart, std::chrono::milliseconds(2000));
  canceller.join();
}

TEST_F(HttpLib, ProxyTableIsHonoured) {
  const std::string proxy = "proxy = {host = '127.0.0.1', port = " + std::to_string(servers_->peer.SocksPort()) +
                            ", protocol = 'socks5', login = 'alice', password = ";
  EXPECT_EQ(Run("local ok, r = http.get{url = 'NGINX/files/65536', " + proxy + "'secret'}} return #r.output"), "65536");
  EXPECT_EQ(Run("local r, e = http.request{url = 'NGINX/files/1024', " + proxy + "'wrong'}} return e:sub(1, 6)"),
            "proxy:");
  EXPECT_EQ(Raised("http.get", "{url = 'NGINX/files/1024', proxy = {host = '127.0.0.1', protocol = 'gopher'}}"),
            "false: Bad argument: unknown proxy protocol 'gopher'");
}

}  // namespace
