// The common script library "cv": sleeping, logging, clocks, URLs, paths, the
// environment and system queries. Every function checks its arguments, calls
// one utility and converts the result; utility failures reach the script as
// nil, bad arguments as script errors.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <limits>
#include <mutex>
#include <set>
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
#include "utils/env.h"
#include "utils/files.h"
#include "utils/log.h"
#include "utils/net_proxy_info.h"
#include "utils/string_pair_list.h"
#include "utils/strings.h"
#include "utils/system.h"
#include "utils/time.h"
#include "utils/url.h"
#include "zullog/zullog.h"

namespace lua {

namespace {

using Args = std::vector<boost::shared_ptr<ObjectRef>>;
using Rt = boost::shared_ptr<RunTime>;

const std::string kDefaultLogSeverity = "INFO";
const std::string kDefaultLogTag = "Lua";

// The library's type checks raise their own complete messages rather than
// CheckType's "expected type" wording.
void CheckArg(const Rt& rt, const boost::shared_ptr<ObjectRef>& arg, int type,
              const char* message) {
  if (arg->Type() != type) rt->Error(message);
}

// A string that may hold NUL bytes (CreateAtStack(std::string) stops at the
// first) and stays a string when empty (CreateResultAtStack would give nil).
// Pushes one value.
boost::shared_ptr<ObjectRef> CreateBytesAtStack(const Rt& rt, const std::string& bytes) {
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushlstring(rt->State(), bytes.data(), bytes.size());
  return rt->ObjectAtStackTop();
}

// The URL functions run in tight script loops, where a handle for every value
// read or stored would cost more than the URL work itself. The helpers below
// use the C interface on the slots that handles name, and leave the stack as
// they found it unless they say otherwise.

// A string argument's bytes, already type-checked. AsString gives the same
// text by way of tostring's metatable lookups.
std::string StringArg(const boost::shared_ptr<ObjectRef>& arg) {
  size_t size = 0;
  const char* data = lua_tolstring(arg->GetRunTime()->State(), arg->StackIndex(), &size);
  return std::string(data, size);
}

// Pops the value on the top and returns its text: "" for nil, the bytes of a
// string, the tostring form of anything else.
std::string PopText(lua_State* L) {
  std::string text;
  size_t size = 0;
  if (lua_type(L, -1) == LUA_TSTRING) {
    const char* data = lua_tolstring(L, -1, &size);
    text.assign(data, size);
  } else if (!lua_isnil(L, -1)) {
    const char* data = luaL_tolstring(L, -1, &size);
    text.assign(data, size);
    lua_pop(L, 1);
  }
  lua_pop(L, 1);
  return text;
}

// Pushes table[key], read raw as TableRef reads.
lua_State* PushField(const boost::shared_ptr<TableRef>& table, const char* key) {
  const boost::shared_ptr<RunTime>& rt = table->GetRunTime();
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_State* L = rt->State();
  lua_pushstring(L, key);
  lua_rawget(L, table->StackIndex());
  return L;
}

// An option field as text; missing and empty are the same to every caller.
std::string FieldString(const boost::shared_ptr<TableRef>& table, const char* key) {
  return PopText(PushField(table, key));
}

// A port may be given as a number; one computed as a float (8080.0) still
// reads as the integer rather than as tostring's "8080.0".
std::string PortField(const boost::shared_ptr<TableRef>& table) {
  lua_State* L = PushField(table, "port");
  const double number = lua_tonumber(L, -1);
  std::string text;
  if (lua_isinteger(L, -1)) {
    text = std::to_string(lua_tointeger(L, -1));
  } else if (lua_type(L, -1) == LUA_TNUMBER && std::trunc(number) == number &&
             std::fabs(number) < 1e15) {
    text = std::to_string(static_cast<long long>(number));
  } else {
    return PopText(L);
  }
  lua_pop(L, 1);
  return text;
}

// A new table with room for `fields` named entries; pushes it.
boost::shared_ptr<TableRef> CreateRecordAtStack(const Rt& rt, int fields) {
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_createtable(rt->State(), 0, fields);
  return boost::static_pointer_cast<TableRef>(rt->ObjectAtStackTop());
}

void SetField(const boost::shared_ptr<TableRef>& table, const char* key, const std::string& value) {
  const boost::shared_ptr<RunTime>& rt = table->GetRunTime();
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushlstring(rt->State(), value.data(), value.size());
  lua_setfield(rt->State(), table->StackIndex(), key);
}

void SetField(const boost::shared_ptr<TableRef>& table, const char* key, long long value) {
  const boost::shared_ptr<RunTime>& rt = table->GetRunTime();
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushinteger(rt->State(), value);
  lua_setfield(rt->State(), table->StackIndex(), key);
}

// Whether it stored anything.
bool SetIfNotEmpty(const boost::shared_ptr<TableRef>& table, const char* key,
                   const std::string& value) {
  if (value.empty()) return false;
  SetField(table, key, value);
  return true;
}

// Signal strengths are often computed as floats; rounding them beats reading a
// non-integral float as 0, which AsInteger would.
long long RoundedInteger(const boost::shared_ptr<ObjectRef>& number) {
  if (number->IsInteger()) return number->AsInteger();
  const double value = number->AsReal();
  if (std::isnan(value)) return 0;
  return std::llround(std::clamp(value, -9e18, 9e18));
}

// The table on the stack top as the result, or nil when it is empty.
int TableResult(const Rt& rt, const boost::shared_ptr<TableRef>& table) {
  rt->CreateResultAtStack(table);
  return 1;
}

// A negative wait means none at all and a huge one the longest the clock takes,
// rather than whatever a wrapped conversion would give.
uint32_t ToSleepMs(double ms) {
  if (!(ms > 0)) return 0;
  constexpr double kMax = std::numeric_limits<uint32_t>::max();
  return ms >= kMax ? std::numeric_limits<uint32_t>::max() : static_cast<uint32_t>(ms);
}

// A condition variable rather than utils::Sleep, so that RunTime::Cancel from
// a host thread ends the sleep at once.
void CancellableSleep(const Rt& rt, uint32_t ms) {
  struct Wake {
    std::mutex mutex;
    std::condition_variable condition;
    bool woken = false;
  } wake;
  std::string interrupted;
  {
    RunTime::CancellableWait wait(rt->State(), [&wake] {
      std::lock_guard<std::mutex> lock(wake.mutex);
      wake.woken = true;
      wake.condition.notify_all();
    });
    if (!wait.Cancelled()) {
      std::unique_lock<std::mutex> lock(wake.mutex);
      wake.condition.wait_for(lock, std::chrono::milliseconds(ms), [&wake] { return wake.woken; });
    }
    if (wait.Cancelled()) interrupted = wait.Reason();
  }
  if (!interrupted.empty()) rt->Error(interrupted);
}

int SleepMs(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TNUMBER, "Bad argument: expected only unsigned time in milliseconds");
  CancellableSleep(rt, ToSleepMs(args[0]->AsReal()));
  rt->CreateAtStack(true);
  return 1;
}

int Log(Rt& rt, const Args& args) {
  if (args.size() != 1 && args.size() != 2) {
    rt->Error("Bad arguments, expected: (msg[, {severity = \"INFO\", tag = \"Lua\"}])");
  }
  const std::string message = args[0]->AsString();
  std::string severity = kDefaultLogSeverity;
  std::string tag = kDefaultLogTag;
  if (args.size() == 2) {
    CheckArg(rt, args[1], LUA_TTABLE, "Expected only table of parameters (see help)");
    const boost::shared_ptr<TableRef> options = args[1]->AsTableRef();
    const std::string givenSeverity = FieldString(options, "severity");
    const std::string givenTag = FieldString(options, "tag");
    if (!givenSeverity.empty()) severity = givenSeverity;
    if (!givenTag.empty()) tag = givenTag;
  }
  // The script's severity is only text inside the record; the record's own
  // severity is always information, whatever the script passed.
  CORVANE_LOG(zul_log_logger__lua(), zullog::SeverityInfo, utils::EscapeForLogLine(tag).c_str())
      << "Log: [" << utils::EscapeForLogLine(severity) << "] " << utils::EscapeForLogLine(message);
  return rt->VoidResult();
}

int GetLocalTimeMs(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 0);
  rt->CreateAtStack(static_cast<long long>(utils::GetLocalTimeInMs()));
  return 1;
}

int GetMonotonicTimeMs(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 0);
  rt->CreateAtStack(static_cast<long long>(utils::GetMonotonicTimeInMs()));
  return 1;
}

int ParseUrl(Rt& rt, const Args& args) {
  if (args.size() != 1 && args.size() != 2) {
    rt->Error("Bad arguments, expected: (url[, normalize = true])");
  }
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected string url");
  bool normalize = true;
  if (args.size() == 2) {
    CheckArg(rt, args[1], LUA_TBOOLEAN, "Bad argument: expected boolean");
    normalize = args[1]->AsBool();
  }
  utils::Url url;
  if (!url.Parse(StringArg(args[0]), normalize)) return rt->NilResult();
  const boost::shared_ptr<TableRef> table = CreateRecordAtStack(rt, 8);
  // Tracked here rather than asked of the table afterwards: this function
  // sits in script loops.
  bool filled = SetIfNotEmpty(table, "scheme", url.Scheme());
  filled |= SetIfNotEmpty(table, "userinfo", url.UserInfo());
  filled |= SetIfNotEmpty(table, "host", url.Host());
  if (!url.PortText().empty()) {
    SetField(table, "port", static_cast<long long>(url.Port(0)));
    filled = true;
  }
  filled |= SetIfNotEmpty(table, "path", url.Path());
  filled |= SetIfNotEmpty(table, "query", url.Query());
  filled |= SetIfNotEmpty(table, "fragment", url.Fragment());
  filled |= SetIfNotEmpty(table, "uri", url.Uri());
  return filled ? 1 : rt->NilResult();
}

int ParseProxyUrl(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected string url");
  const std::string text = StringArg(args[0]);
  if (text.empty()) return rt->NilResult();
  utils::NetProxyInfo proxy;
  if (!utils::NetProxyInfoFromUrl(text, &proxy)) return rt->NilResult();
  const boost::shared_ptr<TableRef> table = CreateRecordAtStack(rt, 5);
  SetIfNotEmpty(table, "host", proxy.host);
  SetField(table, "port", static_cast<long long>(proxy.port));
  SetIfNotEmpty(table, "login", proxy.login);
  SetIfNotEmpty(table, "password", proxy.password);
  SetIfNotEmpty(table, "protocol", utils::NetProxyTypeToString(proxy.type));
  return 1;
}

int EscapeUrl(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected string url");
  rt->CreateResultAtStack(utils::UrlEscape(StringArg(args[0])));
  return 1;
}

int UnescapeUrl(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected string url");
  rt->CreateResultAtStack(utils::UrlUnescape(StringArg(args[0])));
  return 1;
}

int ParseUrlUserInfo(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected userinfo string");
  std::string user;
  std::string password;
  if (!utils::ParseUrlEscapedUserInfo(StringArg(args[0]), &user, &password)) {
    return rt->NilResult();
  }
  rt->CreateResultAtStack(user);
  rt->CreateResultAtStack(password);
  return 2;
}

int ParseUrlQuery(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  // The userinfo wording is deliberate: scripts already match on it.
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected userinfo string");
  utils::StringPairList pairs;
  if (!utils::ParseQuery(StringArg(args[0]), &pairs)) return rt->NilResult();
  const boost::shared_ptr<TableRef> table = rt->CreateTableAtStack();
  std::string key;
  std::string value;
  // One single-entry table per pair keeps order and repeated keys.
  for (size_t i = 0; pairs.Value(i, &key, &value); ++i) {
    const boost::shared_ptr<TableRef> pair = rt->CreateTableAtStack();
    pair->Set(key, value);
    table->Append(pair);
    rt->PopFromStack(1);
  }
  return TableResult(rt, table);
}

int ParseUrlPath(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected path string");
  utils::Url url;
  if (!url.Parse(StringArg(args[0]), true) || url.PathSegments().empty()) {
    return rt->NilResult();
  }
  const boost::shared_ptr<TableRef> table = rt->CreateTableAtStack();
  for (const std::string& segment : url.PathSegments()) {
    table->Append(CreateBytesAtStack(rt, utils::UrlUnescape(segment)));
    rt->PopFromStack(1);
  }
  return 1;
}

int BuildUrlUserInfo(Rt& rt, const Args& args) {
  if (args.size() != 1 && args.size() != 2) rt->Error("Bad arguments, expected: (user[,password])");
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected user string");
  std::string password;
  if (args.size() == 2) {
    CheckArg(rt, args[1], LUA_TSTRING, "Bad argument: expected password string");
    password = StringArg(args[1]);
  }
  rt->CreateResultAtStack(utils::MakeUrlEscapedUserInfo(StringArg(args[0]), password));
  return 1;
}

int BuildUrlQueryStr(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TTABLE, "Bad argument: expected query pairs table");
  utils::StringPairList pairs;
  TableRef::ConstArrayIterator elements = args[0]->AsTableRef()->ArrayIterator();
  while (elements.Next()) {
    // Drops the element and whatever reading it pushed, so long lists do not
    // use up the stack.
    RunTime::StackCleaner step(rt, rt->StackTopIndex() - 1);
    if (elements.Val()->Type() != LUA_TTABLE) {
      rt->Error("BuildQueryString(): invalid key-value table");
    }
    TableRef::ConstIterator entry = elements.Val()->AsTableRef()->Iterator();
    if (entry.Next()) pairs.AddValue(entry.Key()->AsString(), entry.Val()->AsString());
  }
  rt->CreateResultAtStack(utils::BuildQueryString(pairs));
  return 1;
}

int BuildUrl(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TTABLE, "Bad argument: expected url components table");
  const boost::shared_ptr<TableRef> parts = args[0]->AsTableRef();
  rt->CreateResultAtStack(utils::BuildUrl(
      FieldString(parts, "scheme"), FieldString(parts, "userinfo"), FieldString(parts, "host"),
      PortField(parts), FieldString(parts, "path"), FieldString(parts, "query"),
      FieldString(parts, "fragment")));
  return 1;
}

int MakeCameraUrl(Rt& rt, const Args& args) {
  if (args.size() != 2 && args.size() != 3) rt->Error("Expected 2 or 3 args");
  CheckArg(rt, args[0], LUA_TTABLE, "Expected table as 1st arg type");
  CheckArg(rt, args[1], LUA_TSTRING, "Expected string as 2nd arg type");
  bool mask = false;
  if (args.size() == 3) {
    CheckArg(rt, args[2], LUA_TBOOLEAN, "Expected bool as 3rd arg type");
    mask = args[2]->AsBool();
  }
  const boost::shared_ptr<TableRef> params = args[0]->AsTableRef();
  const std::string text = FieldString(params, StringArg(args[1]).c_str());
  if (text.empty()) return rt->NilResult();
  std::string user = FieldString(params, "user");
  std::string password = FieldString(params, "password");
  // Stored strings need not be URLs at all; without anything to change they
  // pass through untouched.
  if (user.empty() && password.empty() && !mask) {
    rt->CreateResultAtStack(text);
    return 1;
  }
  utils::Url url;
  if (!url.Parse(text, true)) rt->Error("invalid url: " + text);
  std::string urlUser;
  std::string urlPassword;
  utils::ParseUrlEscapedUserInfo(url.UserInfo(), &urlUser, &urlPassword);
  if (user.empty()) user = urlUser;
  if (password.empty()) password = urlPassword;
  std::string userInfo;
  if (!mask) {
    userInfo = utils::BuildUserInfo(user, password);
  } else if (!user.empty()) {
    // Masked even when there is no password, so a display never tells.
    userInfo = user + ":****";
  }
  std::string port = PortField(params);
  if (port.empty()) port = url.PortText();
  rt->CreateResultAtStack(utils::BuildUrl(url.Scheme(), userInfo, url.Host(), port, url.Path(),
                                          url.Query(), url.Fragment()));
  return 1;
}

int AssertEq(Rt& rt, const Args& args) {
  if (args.size() != 2) rt->Error("AssertEq(): args count != 2");
  const std::string expected = args[0]->AsString();
  const std::string actual = args[1]->AsString();
  if (args[0]->Type() != args[1]->Type() || expected != actual) {
    rt->Error("Assertion failed: expected: '" + expected + "' (" + args[0]->TypeName() +
              "), got: '" + actual + "' (" + args[1]->TypeName() + ")");
  }
  return rt->VoidResult();
}

int TableSize(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TTABLE, "Bad argument: table expected");
  long long count = 0;
  TableRef::ConstIterator entry = args[0]->AsTableRef()->Iterator();
  while (entry.Next()) ++count;
  rt->CreateAtStack(count);
  return 1;
}

int ExpandPath(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: string expected");
  rt->CreateResultAtStack(utils::ExpandPath(StringArg(args[0])));
  return 1;
}

int SetEnv(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 2);
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: string expected");
  CheckArg(rt, args[1], LUA_TSTRING, "Bad argument: string expected");
  utils::SetEnv(StringArg(args[0]), StringArg(args[1]));
  return rt->NilResult();
}

int GetIfaceIp(Rt& rt, const Args& args) {
  if (!args.empty()) {
    rt->CheckArgsCount(args, 1);
    CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: string expected");
  }
  std::vector<utils::NetworkInterface> interfaces;
  utils::GetNetworkInterfaces(&interfaces);
  if (!args.empty()) {
    const std::string name = StringArg(args[0]);
    for (const utils::NetworkInterface& iface : interfaces) {
      if (iface.name == name) {
        rt->CreateResultAtStack(iface.address);
        return 1;
      }
    }
    return rt->NilResult();
  }
  // An interface with several addresses maps to its first, as a lookup by
  // name would answer.
  std::set<std::string> seen;
  const boost::shared_ptr<TableRef> table = rt->CreateTableAtStack();
  for (const utils::NetworkInterface& iface : interfaces) {
    if (seen.insert(iface.name).second) table->Set(iface.name, iface.address);
  }
  return TableResult(rt, table);
}

int GetDefaultIface(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 0);
  rt->CreateResultAtStack(utils::GetDefaultGwIface());
  return 1;
}

int StrToTime(Rt& rt, const Args& args) {
  if (args.size() < 2) rt->Error("DatetimeStrToMs(): args count < 2");
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: string expected");
  CheckArg(rt, args[1], LUA_TSTRING, "Bad argument: string expected");
  bool utc = true;
  if (args.size() >= 3) {
    CheckArg(rt, args[2], LUA_TBOOLEAN, "Bad argument: bool expected");
    utc = args[2]->AsBool();
  }
  const int64_t ms = utils::ParseTime(StringArg(args[0]), StringArg(args[1]), utc);
  if (ms < 0) return rt->NilResult();
  rt->CreateAtStack(static_cast<long long>(ms));
  return 1;
}

int GetDirContents(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected path string");
  std::vector<std::string> names;
  const bool ok = utils::GetDirectoryContents(StringArg(args[0]), &names);
  // Always a table, even an empty one, so scripts can iterate without a check.
  const boost::shared_ptr<TableRef> table = rt->CreateTableAtStack();
  for (const std::string& name : names) table->Append(name);
  rt->CreateAtStack(ok);
  return 2;
}

int GetDevfileNumbers(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected path string");
  unsigned int majorNumber = 0;
  unsigned int minorNumber = 0;
  if (!utils::GetDevNumbers(StringArg(args[0]), &majorNumber, &minorNumber)) {
    return rt->NilResult();
  }
  rt->CreateAtStack(static_cast<long long>(majorNumber));
  rt->CreateAtStack(static_cast<long long>(minorNumber));
  return 2;
}

int GetDiskSpaceInfo(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  CheckArg(rt, args[0], LUA_TSTRING, "Bad argument: expected path string");
  uint64_t total = 0;
  uint64_t avail = 0;
  uint64_t free = 0;
  if (!utils::GetDiskSpaceInfo(StringArg(args[0]), &total, &avail, &free)) {
    return rt->NilResult();
  }
  const boost::shared_ptr<TableRef> table = CreateRecordAtStack(rt, 3);
  SetField(table, "total", static_cast<long long>(total));
  SetField(table, "avail", static_cast<long long>(avail));
  SetField(table, "free", static_cast<long long>(free));
  return 1;
}

int WifiSignalStrengthToQuality(Rt& rt, const Args& args) {
  if (args.empty() || args.size() > 3) rt->Error("Invalid number of arguments");
  CheckArg(rt, args[0], LUA_TNUMBER, "Bad argument: integer expected");
  const long long best = args.size() >= 2 ? RoundedInteger(args[1]) : -20;
  const long long worst = args.size() >= 3 ? RoundedInteger(args[2]) : -85;
  rt->CreateAtStack(static_cast<long long>(
      utils::WiFiSignalStrengthToQuality(RoundedInteger(args[0]), best, worst)));
  return 1;
}

const luaL_Reg kCommonLib[] = {
    {"sleep", WrapFunc<&SleepMs>},
    {"log", WrapFunc<&Log>},
    {"get_local_time_ms", WrapFunc<&GetLocalTimeMs>},
    {"get_monotonic_time_ms", WrapFunc<&GetMonotonicTimeMs>},
    {"parse_url", WrapFunc<&ParseUrl>},
    {"parse_proxy_url", WrapFunc<&ParseProxyUrl>},
    {"escape_url", WrapFunc<&EscapeUrl>},
    {"unescape_url", WrapFunc<&UnescapeUrl>},
    {"parse_url_userinfo", WrapFunc<&ParseUrlUserInfo>},
    {"parse_url_query", WrapFunc<&ParseUrlQuery>},
    {"parse_url_path", WrapFunc<&ParseUrlPath>},
    {"build_url_userinfo", WrapFunc<&BuildUrlUserInfo>},
    {"build_url_query_str", WrapFunc<&BuildUrlQueryStr>},
    {"build_url", WrapFunc<&BuildUrl>},
    {"make_camera_url", WrapFunc<&MakeCameraUrl>},
    {"assert_eq", WrapFunc<&AssertEq>},
    {"table_size", WrapFunc<&TableSize>},
    {"expand_path", WrapFunc<&ExpandPath>},
    {"setenv", WrapFunc<&SetEnv>},
    {"get_iface_ip", WrapFunc<&GetIfaceIp>},
    {"get_default_iface", WrapFunc<&GetDefaultIface>},
    {"str_to_time", WrapFunc<&StrToTime>},
    {"get_dir_contents", WrapFunc<&GetDirContents>},
    {"get_devfile_numbers", WrapFunc<&GetDevfileNumbers>},
    {"get_disk_space_info", WrapFunc<&GetDiskSpaceInfo>},
    {"wifi_signal_strength_to_quality", WrapFunc<&WifiSignalStrengthToQuality>},
};

}  // namespace

void RegisterCommonLib() {
  static std::once_flag once;
  detail::RegisterLibOnce(once, "cv", kCommonLib);
}

}  // namespace lua
