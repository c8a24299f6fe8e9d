// The script library "http": blocking HTTP requests from a table of options,
// answered with a table of status, head and body (request: or nil and the
// failure's class and detail). A thin adapter over
// utils::PerformHttpRequest; a host thread may cancel a request through
// lua::RunTime::Cancel.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "lua/global_lib.h"
#include "lua/libs/libs.h"
#include "lua/libs/register.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"
#include "lua/wrap_func.h"
#include "utils/http/body_files.h"
#include "utils/http/request.h"
#include "utils/http/request_batch.h"
#include "utils/net/base_socket_client.h"
#include "utils/net_proxy_info.h"
#include "utils/log.h"
#include "utils/time.h"
#include "utils/url.h"

namespace lua {

namespace {

using Args = std::vector<boost::shared_ptr<ObjectRef>>;
using Rt = boost::shared_ptr<RunTime>;

// The string form of the value at index (as tostring gives it); the stack is
// left as it was, and a key under lua_next is not converted in place.
std::string ToText(lua_State* L, int index) {
  size_t length = 0;
  const char* text = luaL_tolstring(L, index, &length);
  std::string result(text, length);
  lua_pop(L, 1);
  return result;
}

// Field readers: a missing field gives the default, a field of another type
// is a script error naming it.
std::string StringField(const Rt& rt, int table, const char* name, const std::string& fallback) {
  lua_State* L = rt->State();
  RunTime::StackCleaner cleaner(rt);
  const int type = lua_getfield(L, table, name);
  if (type == LUA_TNIL) return fallback;
  if (type != LUA_TSTRING && type != LUA_TNUMBER) {
    rt->Error(std::string("Bad argument: \"") + name + "\" must be a string");
  }
  size_t length = 0;
  const char* text = lua_tolstring(L, -1, &length);
  return std::string(text, length);
}

long long IntegerField(const Rt& rt, int table, const char* name, long long fallback) {
  lua_State* L = rt->State();
  RunTime::StackCleaner cleaner(rt);
  if (lua_getfield(L, table, name) == LUA_TNIL) return fallback;
  int isInteger = 0;
  const lua_Integer value = lua_tointegerx(L, -1, &isInteger);
  if (!isInteger) rt->Error(std::string("Bad argument: \"") + name + "\" must be an integer");
  return value;
}

bool BooleanField(const Rt& rt, int table, const char* name, bool fallback) {
  lua_State* L = rt->State();
  RunTime::StackCleaner cleaner(rt);
  const int type = lua_getfield(L, table, name);
  if (type == LUA_TNIL) return fallback;
  if (type != LUA_TBOOLEAN) rt->Error(std::string("Bad argument: \"") + name + "\" must be a boolean");
  return lua_toboolean(L, -1) != 0;
}

int ClampToInt(long long value) {
  return static_cast<int>(std::max<long long>(INT_MIN, std::min<long long>(INT_MAX, value)));
}

// Each key names a header; a table value gives one header per element, in
// iteration order. "Accept: */*" is added unless the table has "Accept".
void ReadHeaders(const Rt& rt, int options, utils::StringPairList* headers) {
  lua_State* L = rt->State();
  RunTime::StackCleaner cleaner(rt);
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushnil(L);
  while (lua_next(L, options) != 0) {  // [key, value]
    const std::string name = ToText(L, -2);
    if (lua_type(L, -1) == LUA_TTABLE) {
      const int values = lua_gettop(L);
      rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
      lua_pushnil(L);
      while (lua_next(L, values) != 0) {  // [key, value, index, element]
        headers->AddValue(name, ToText(L, -1));
        lua_pop(L, 1);
      }
    } else {
      headers->AddValue(name, ToText(L, -1));
    }
    lua_pop(L, 1);
  }
  if (lua_getfield(L, options, "Accept") == LUA_TNIL) headers->AddValue("Accept", "*/*");
}

void ReadProxy(const Rt& rt, int proxy, utils::NetProxyInfo* info) {
  info->host = StringField(rt, proxy, "host", "");
  info->port = static_cast<unsigned short>(
      std::max<long long>(0, std::min<long long>(65535, IntegerField(rt, proxy, "port", 0))));
  info->login = StringField(rt, proxy, "login", "");
  info->password = StringField(rt, proxy, "password", "");
  const std::string protocol = StringField(rt, proxy, "protocol", "");
  if (!protocol.empty() && !utils::NetProxyTypeFromString(protocol, &info->type)) {
    rt->Error("Bad argument: unknown proxy protocol '" + protocol + "'");
  }
}

struct Request {
  std::string method;
  std::string url;
  utils::HttpRequestParams params;
  std::string outputFile;
  std::string inputFile;
};

// A path goes to the file system as a C string: a NUL would cut it short
// and name another file.
std::string PathField(const Rt& rt, int table, const char* name) {
  const std::string path = StringField(rt, table, name, "");
  if (!path.empty() && rt->IsSandboxed()) {
    rt->Error(std::string("Bad argument: \"") + name + "\" is not available in the sandbox");
  }
  if (path.find_first_of(std::string("\0\r\n", 3)) != std::string::npos) {
    rt->Error(std::string("Bad argument: \"") + name + "\" holds a NUL, CR or LF byte");
  }
  return path;
}

void ReadOptionsTable(const Rt& rt, int table, Request* request) {
  lua_State* L = rt->State();
  request->method = StringField(rt, table, "method", "");
  request->url = StringField(rt, table, "url", "");
  utils::HttpRequestParams& params = request->params;
  params.body = StringField(rt, table, "input", "");
  params.timeoutMs = ClampToInt(IntegerField(rt, table, "timeout", -1));
  const std::string user = StringField(rt, table, "username", "");
  const std::string password = StringField(rt, table, "password", "");
  if (!user.empty()) {
    std::string withUser;
    // A URL that cannot carry user info goes as it is and fails in the request.
    if (utils::ModifyUrlUserInfo(request->url, utils::MakeUrlEscapedUserInfo(user, password), &withUser)) {
      request->url = withUser;
    }
  }
  if (!BooleanField(rt, table, "allowRedirect", true)) params.maxRedirects = 0;
  if (BooleanField(rt, table, "frivolousSsl", false)) params.lenientTls = true;
  params.connectTimeoutMs = ClampToInt(IntegerField(rt, table, "connectTimeout", -1));
  params.keepAlive = BooleanField(rt, table, "keepAlive", true);
  const long long maxBodyBytes = IntegerField(rt, table, "maxBodyBytes", -1);
  if (maxBodyBytes < -1) rt->Error("Bad argument: \"maxBodyBytes\" must not be negative");
  request->outputFile = PathField(rt, table, "outputFile");
  request->inputFile = PathField(rt, table, "inputFile");
  // The host's cap guards memory; a body on its way to a file takes none.
  if (!request->outputFile.empty()) params.maxBodyBytes = SIZE_MAX;
  // A script may only lower the host's cap.
  if (maxBodyBytes >= 0 && static_cast<unsigned long long>(maxBodyBytes) < params.maxBodyBytes) {
    params.maxBodyBytes = static_cast<size_t>(maxBodyBytes);
  }
  RunTime::StackCleaner cleaner(rt);
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  if (lua_getfield(L, table, "options") == LUA_TTABLE) ReadHeaders(rt, lua_gettop(L), &params.headers);
  if (lua_getfield(L, table, "proxy") == LUA_TTABLE) ReadProxy(rt, lua_gettop(L), &params.proxy);
}

void ReadOptions(const Rt& rt, const Args& args, Request* request) {
  rt->CheckArgsCount(args, 1);
  if (args[0]->Type() != LUA_TTABLE) rt->Error("Invalid param");
  ReadOptionsTable(rt, args[0]->StackIndex(), request);
}

// Walks the head back to front, so a repeated header becomes an array in the
// reverse of its wire order: scripts depend on that order.
// Every turn of the loop leaves the stack as it found it: [..., headers].
void PushHeaders(lua_State* L, const utils::StringPairList& headers) {
  lua_createtable(L, 0, static_cast<int>(headers.Size()));
  const int table = lua_gettop(L);
  std::string name;
  std::string value;
  for (size_t i = headers.Size(); i-- > 0;) {
    headers.Value(i, &name, &value);
    const int type = lua_getfield(L, table, name.c_str());  // [headers, seen]
    if (type == LUA_TNIL) {
      lua_pop(L, 1);
      lua_pushlstring(L, value.data(), value.size());
      lua_setfield(L, table, name.c_str());
    } else if (type == LUA_TSTRING) {
      // [headers, seen] -> [headers, array, seen] -> [headers, array = {seen, value}]
      lua_createtable(L, 2, 0);
      lua_insert(L, -2);
      lua_rawseti(L, -2, 1);
      lua_pushlstring(L, value.data(), value.size());
      lua_rawseti(L, -2, 2);
      lua_setfield(L, table, name.c_str());
    } else {
      // [headers, array] -> [headers, array .. value] -> [headers]
      lua_pushlstring(L, value.data(), value.size());
      lua_rawseti(L, -2, static_cast<lua_Integer>(lua_rawlen(L, -2)) + 1);
      lua_pop(L, 1);
    }
  }
}

// The files of "outputFile" and "inputFile", for one request.
class BodyFiles {
 public:
  // False, with the reason in the response, when a file cannot be opened.
  bool Open(const Request& request, utils::HttpResponse* response) {
    if (!request.inputFile.empty()) {
      input_.reset(new utils::HttpFileSource(request.inputFile));
      if (!input_->IsOpen()) return Refuse(input_->Error(), response);
    }
    if (!request.outputFile.empty()) {
      output_.reset(new utils::HttpFileSink(request.outputFile));
      if (!output_->IsOpen()) return Refuse(output_->Error(), response);
    }
    return true;
  }
  utils::HttpBodySource* Source() { return input_ ? input_->Source() : nullptr; }
  utils::HttpBodySink Sink() { return output_ ? output_->Sink() : utils::HttpBodySink(); }

  // Puts a 2xx body in place; any other answer leaves the file as it was.
  int Finish(int code, utils::HttpResponse* response) {
    if (output_ == nullptr) return code;
    if (code == utils::HttpRequestAborted && !output_->Error().empty()) {
      Refuse(output_->Error(), response);
      return utils::HttpRequestFileError;
    }
    if (code < 200 || code > 299 || output_->Commit()) return code;
    Refuse(output_->Error(), response);
    return utils::HttpRequestFileError;
  }

 private:
  static bool Refuse(const std::string& why, utils::HttpResponse* response) {
    // The path came from the script; PathField let no line break through.
    CORVANE_LOG(zul_log_logger__lua(), zullog::SeverityWarning, "lua::http") << "file: " << why;
    response->SetErrorText(why);
    return false;
  }

  std::unique_ptr<utils::HttpFileSource> input_;
  std::unique_ptr<utils::HttpFileSink> output_;
};

void PushResult(lua_State* L, int code, const utils::HttpResponse& response, const std::string& output);

// How a failed request is answered: false alone, or nil and "class: detail".
enum class FailureResult { kFalse, kNilAndMessage };

int Perform(Rt& rt, const Request& request, const char* functionName,
            FailureResult failure = FailureResult::kFalse) {
  std::string output;
  utils::HttpResponse response;
  utils::ThreadHttpClient threadClient;
  utils::BaseSocketClient& client = threadClient.Get();
  // Set by the canceller under the runtime's cancel lock; read only once the
  // wait is gone and no canceller can run any more.
  bool woken = false;
  std::string interrupted;
  int code;
  BodyFiles files;
  const int64_t startMs = utils::GetMonotonicTimeInMs();
  {
    RunTime::CancellableWait wait(rt->State(), [&client, &woken] {
      client.Cancel();
      woken = true;
    });
    if (wait.Cancelled()) {
      code = utils::HttpRequestCanceled;
    } else if (!files.Open(request, &response)) {
      code = utils::HttpRequestFileError;
    } else {
      code = utils::PerformHttpRequest(&client, request.method, request.url, request.params, files.Source(),
                                       files.Sink(), &output, &response);
      code = files.Finish(code, &response);
    }
    if (wait.Cancelled()) interrupted = wait.Reason();
  }
  const long long timeMs = utils::GetMonotonicTimeInMs() - startMs;
  // A wake-up that came too late for the request's waits is still in the
  // client and would cancel the next call.
  if (woken) client.Reset();
  if (!interrupted.empty()) rt->Error(std::string(functionName) + ": " + interrupted);
  lua_State* L = rt->State();
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  if (code < 1 && failure == FailureResult::kNilAndMessage) {
    lua_pushnil(L);
    const std::string message = std::string(utils::HttpRequestErrorName(code)) + ": " + response.ErrorText();
    lua_pushlstring(L, message.data(), message.size());
    return 2;
  }
  if (code < 1) {
    lua_pushboolean(L, 0);
    return 1;
  }
  if (failure == FailureResult::kFalse) lua_pushboolean(L, 1);
  PushResult(L, code, response, output);
  if (failure == FailureResult::kFalse) return 2;
  lua_pushinteger(L, timeMs);
  lua_setfield(L, -2, "timeMs");
  return 1;
}

// The results of requestAll: one array element per request, in order.
int RequestAll(Rt& rt, const Args& args) {
  if (args.size() != 2) rt->CheckArgsCount(args, 1);
  if (args[0]->Type() != LUA_TTABLE) rt->Error("Invalid param");
  lua_State* L = rt->State();
  long long concurrency = utils::HttpRequestBatch::kDefaultConcurrency;
  if (args.size() > 1 && args[1]->Type() != LUA_TNIL) {
    if (args[1]->Type() != LUA_TTABLE) rt->Error("Invalid param");
    concurrency = IntegerField(rt, args[1]->StackIndex(), "concurrency", concurrency);
    if (concurrency < 1 || concurrency > static_cast<long long>(utils::HttpRequestBatch::kMaxConcurrency)) {
      rt->Error("Bad argument: \"concurrency\" must be 1 to " +
                std::to_string(utils::HttpRequestBatch::kMaxConcurrency));
    }
  }
  const int list = args[0]->StackIndex();
  const size_t count = lua_rawlen(L, list);
  std::vector<Request> requests(count);
  std::vector<std::unique_ptr<BodyFiles>> files(count);
  {
    RunTime::StackCleaner cleaner(rt);
    rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
    for (size_t i = 0; i < count; ++i) {
      if (lua_rawgeti(L, list, static_cast<lua_Integer>(i + 1)) != LUA_TTABLE) {
        rt->Error("Bad argument: element " + std::to_string(i + 1) + " must be a table");
      }
      ReadOptionsTable(rt, lua_gettop(L), &requests[i]);
      lua_pop(L, 1);
      if (requests[i].method.empty()) requests[i].method = "GET";
    }
  }
  utils::HttpRequestBatch batch(static_cast<size_t>(concurrency));
  std::vector<utils::HttpBatchResult> results(count);
  std::string interrupted;
  {
    RunTime::CancellableWait wait(L, [&batch] { batch.Cancel(); });
    // A request whose file cannot be used fails before anything is sent and
    // stays out of the batch.
    std::vector<utils::HttpBatchRequest> batchRequests;
    std::vector<size_t> positions;
    for (size_t i = 0; i < count; ++i) {
      files[i].reset(new BodyFiles());
      if (!files[i]->Open(requests[i], &results[i].response)) {
        results[i].code = utils::HttpRequestFileError;
        continue;
      }
      batchRequests.emplace_back();
      utils::HttpBatchRequest& request = batchRequests.back();
      request.method = requests[i].method;
      request.url = requests[i].url;
      request.params = requests[i].params;
      request.source = files[i]->Source();
      request.sink = files[i]->Sink();
      positions.push_back(i);
    }
    if (wait.Cancelled()) batch.Cancel();
    std::vector<utils::HttpBatchResult> done = batch.Run(batchRequests);
    for (size_t j = 0; j < positions.size(); ++j) {
      const size_t i = positions[j];
      results[i] = std::move(done[j]);
      results[i].code = files[i]->Finish(results[i].code, &results[i].response);
    }
    if (wait.Cancelled()) interrupted = wait.Reason();
  }
  if (!interrupted.empty()) rt->Error("http.requestAll: " + interrupted);
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_createtable(L, static_cast<int>(std::min<size_t>(count, INT_MAX)), 0);
  for (size_t i = 0; i < count; ++i) {
    const utils::HttpBatchResult& result = results[i];
    if (result.code < 1) {
      lua_createtable(L, 0, 2);
      const std::string message =
          std::string(utils::HttpRequestErrorName(result.code)) + ": " + result.response.ErrorText();
      lua_pushlstring(L, message.data(), message.size());
      lua_setfield(L, -2, "error");
    } else {
      PushResult(L, result.code, result.response, result.body);
    }
    lua_pushinteger(L, result.timeMs);
    lua_setfield(L, -2, "timeMs");
    lua_rawseti(L, -2, static_cast<lua_Integer>(i + 1));
  }
  return 1;
}

// Pushes the result table of a response.
void PushResult(lua_State* L, int code, const utils::HttpResponse& response, const std::string& output) {
  lua_createtable(L, 0, 6);
  PushHeaders(L, response.Headers);
  lua_setfield(L, -2, "options");
  lua_pushinteger(L, code);
  lua_setfield(L, -2, "code");
  lua_pushlstring(L, response.StatusPhrase.data(), response.StatusPhrase.size());
  lua_setfield(L, -2, "codeDescr");
  lua_pushlstring(L, response.HttpVersion.data(), response.HttpVersion.size());
  lua_setfield(L, -2, "httpVersion");
  lua_pushlstring(L, output.data(), output.size());
  lua_setfield(L, -2, "output");
}

int PerformRequest(Rt& rt, const Args& args) {
  Request request;
  ReadOptions(rt, args, &request);
  return Perform(rt, request, "http.performRequest");
}

// The options of performRequest; the result table alone, or nil and the
// failure's class and detail, so that a script can tell what went wrong.
int RequestFunction(Rt& rt, const Args& args) {
  Request request;
  ReadOptions(rt, args, &request);
  if (request.method.empty()) request.method = "GET";
  return Perform(rt, request, "http.request", FailureResult::kNilAndMessage);
}

int Get(Rt& rt, const Args& args) {
  Request request;
  ReadOptions(rt, args, &request);
  request.method = "GET";
  return Perform(rt, request, "http.get");
}

int Post(Rt& rt, const Args& args) {
  Request request;
  ReadOptions(rt, args, &request);
  request.method = "POST";
  if (!request.params.body.empty() && !request.params.headers.Value("Content-Type", nullptr, false, nullptr)) {
    rt->Error("\"Content-Type\" option is empty");
  }
  return Perform(rt, request, "http.post");
}

const luaL_Reg kHttpLib[] = {
    {"performRequest", WrapFunc<&PerformRequest>},
    {"get", WrapFunc<&Get>},
    {"post", WrapFunc<&Post>},
    {"request", WrapFunc<&RequestFunction>},
    {"requestAll", WrapFunc<&RequestAll>},
};

}  // namespace

void RegisterHttpLib() {
  static std::once_flag once;
  detail::RegisterLibOnce(once, "http", kHttpLib);
}

}  // namespace lua
