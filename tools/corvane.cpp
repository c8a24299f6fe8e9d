// corvane: runs a script file, standard input or a chunk of code with every
// library registered and prints its results (or those of one of its
// functions) as one JSON array. Errors go to standard error with exit status
// 1; bad usage exits with status 2.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/reader.h>
#include <json/value.h>
#include <lua.hpp>

#include "corvane/version.h"
#include "lua/json.h"
#include "lua/libs/libs.h"
#include "lua/module_context.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"
#include "utils/json_writer.h"

namespace {

const char kUsage[] =
    "Usage:\n"
    "  corvane run SCRIPT|- [OPTIONS] [-- ARG...]\n"
    "  corvane eval CODE [OPTIONS] [-- ARG...]\n"
    "  corvane -e CODE [OPTIONS] [-- ARG...]\n"
    "  corvane --version | --help\n"
    "\n"
    "Runs SCRIPT (or CODE; '-' reads the script from standard input) with every\n"
    "library registered and prints its results as one JSON array on standard\n"
    "output. The ARGs after '--' reach the script as the global table arg\n"
    "(arg[0] is the script's name, arg[1] the first ARG), as with lua.\n"
    "\n"
    "Options:\n"
    "  --args JSON            an object or array (default {}): the script's init_data\n"
    "  --call FUNCTION        (run only) load the script, then call FUNCTION and print\n"
    "                         its results instead\n"
    "  --call-args JSON_ARRAY (run only) FUNCTION's arguments (default [])\n"
    "  --quiet                print no results\n"
    "  --timeout MS           stop the script, and FUNCTION, after MS milliseconds each\n"
    "  --memory BYTES         the most memory the script may hold\n"
    "  --sandbox              no files, no process control, no bytecode: the profile\n"
    "                         for scripts you do not trust\n"
    "  --json-only            keep standard output for the results: print and\n"
    "                         everything else the script writes there go to\n"
    "                         standard error\n"
    "\n"
    "When neither CORVANE_OPENSSL_CA_FILE nor CORVANE_OPENSSL_CA_PATH is set, the\n"
    "runner sets CORVANE_OPENSSL_CA_PATH=/etc/ssl/certs, the system's CA store, so\n"
    "that HTTPS works. Errors exit with status 1, bad usage with status 2.\n";

constexpr int kFailed = 1;
constexpr int kBadUsage = 2;
// A script read from standard input is kept whole in memory.
constexpr size_t kMaxStdinScriptBytes = size_t{64} << 20;
const char kSystemCaPath[] = "/etc/ssl/certs";

struct Options {
  std::string command;  // "run" or "eval"
  std::string target;   // the script's path, "-", or the code
  Json::Value args{Json::objectValue};
  std::string function;
  Json::Value callArgs{Json::arrayValue};
  bool hasCall = false;
  bool hasCallArgs = false;
  bool quiet = false;
  bool jsonOnly = false;
  std::vector<std::string> scriptArgs;  // after "--"
  lua::RunTimeOptions runtime;
  long long timeoutMs = 0;
};

class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& message) : std::runtime_error(message) {}
};

// Script values hold signed 64-bit integers; the conversion refuses larger ones.
bool FitsScriptIntegers(const Json::Value& value) {
  if (value.isUInt64() && !value.isInt64()) return false;
  for (const Json::Value& element : value) {
    if (!FitsScriptIntegers(element)) return false;
  }
  return true;
}

Json::Value ParseJsonOption(const std::string& option, const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string error;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &error)) {
      throw UsageError(option + ": not valid JSON: " + error);
    }
  } catch (const Json::Exception& e) {  // past its nesting limit (1000 levels)
    throw UsageError(option + ": nesting too deep: " + e.what());
  }
  if (!FitsScriptIntegers(value)) throw UsageError(option + ": an integer is beyond the signed 64-bit range");
  return value;
}

unsigned long long ParseCount(const std::string& option, const std::string& text) {
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0) {
    throw UsageError(option + " needs a whole number, not '" + text + "'");
  }
  return value;
}

// One row per option: its name, whether it takes a value, whether only "run"
// accepts it, and what it sets.
struct OptionRow {
  const char* name;
  bool takesValue;
  bool runOnly;
  void (*apply)(Options& options, const std::string& value);
};

const OptionRow kOptions[] = {
    {"--args", true, false,
     [](Options& o, const std::string& value) {
       o.args = ParseJsonOption("--args", value);
       if (!o.args.isObject() && !o.args.isArray()) throw UsageError("--args must be an object or an array");
     }},
    {"--call", true, true,
     [](Options& o, const std::string& value) {
       o.function = value;
       o.hasCall = true;
     }},
    {"--call-args", true, true,
     [](Options& o, const std::string& value) {
       o.callArgs = ParseJsonOption("--call-args", value);
       if (!o.callArgs.isArray()) throw UsageError("--call-args must be an array");
       o.hasCallArgs = true;
     }},
    {"--quiet", false, false, [](Options& o, const std::string&) { o.quiet = true; }},
    {"--timeout", true, false,
     [](Options& o, const std::string& value) {
       const unsigned long long ms = ParseCount("--timeout", value);
       if (ms > 1000ULL * 3600 * 24 * 365) throw UsageError("--timeout is longer than a year");
       o.timeoutMs = static_cast<long long>(ms);
     }},
    {"--memory", true, false,
     [](Options& o, const std::string& value) {
       o.runtime.memoryLimitBytes = static_cast<size_t>(ParseCount("--memory", value));
     }},
    {"--sandbox", false, false, [](Options& o, const std::string&) { o.runtime.sandbox = true; }},
    {"--json-only", false, false, [](Options& o, const std::string&) { o.jsonOnly = true; }},
};

Options ParseCommandLine(int argc, char** argv) {
  Options options;
  if (argc < 2) throw UsageError("a command is missing");
  options.command = argv[1];
  if (options.command == "-e") options.command = "eval";
  if (options.command != "run" && options.command != "eval") {
    throw UsageError("unknown command '" + options.command + "'");
  }
  if (argc < 3) throw UsageError(options.command == "run" ? "SCRIPT is missing" : "CODE is missing");
  options.target = argv[2];
  for (int i = 3; i < argc; ++i) {
    std::string name = argv[i];
    if (name == "--") {
      options.scriptArgs.assign(argv + i + 1, argv + argc);
      break;
    }
    std::string value;
    bool hasValue = false;
    const size_t equals = name.find('=');
    if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.erase(equals);
      hasValue = true;
    }
    const OptionRow* row = nullptr;
    for (const OptionRow& candidate : kOptions) {
      if (name == candidate.name && (!candidate.runOnly || options.command == "run")) row = &candidate;
    }
    if (row == nullptr) throw UsageError("unknown option '" + name + "'");
    if (row->takesValue && !hasValue) {
      if (i + 1 >= argc) throw UsageError(name + " needs a value");
      value = argv[++i];
    } else if (!row->takesValue && hasValue) {
      throw UsageError(name + " takes no value");
    }
    row->apply(options, value);
  }
  if (options.hasCallArgs && !options.hasCall) throw UsageError("--call-args needs --call");
  return options;
}

// TLS needs a trust store, and the library deliberately knows none; a user of
// the command line expects the system's.
void DefaultCaLocation() {
  const char* file = std::getenv("CORVANE_OPENSSL_CA_FILE");
  const char* path = std::getenv("CORVANE_OPENSSL_CA_PATH");
  if ((file == nullptr || *file == '\0') && (path == nullptr || *path == '\0')) {
    setenv("CORVANE_OPENSSL_CA_PATH", kSystemCaPath, 1);
  }
}

std::string ReadStdin() {
  std::string text;
  char buffer[65536];
  size_t got = 0;
  while ((got = std::fread(buffer, 1, sizeof buffer, stdin)) > 0) {
    if (text.size() + got > kMaxStdinScriptBytes) {
      throw std::runtime_error("the script on standard input is larger than " +
                               std::to_string(kMaxStdinScriptBytes) + " bytes");
    }
    text.append(buffer, got);
  }
  if (std::ferror(stdin)) throw std::runtime_error("cannot read the script from standard input");
  return text;
}

Json::Value ToJsonArray(const std::vector<boost::shared_ptr<lua::ObjectRef>>& results) {
  Json::Value array(Json::arrayValue);
  for (const boost::shared_ptr<lua::ObjectRef>& result : results) array.append(result->AsJsonValue());
  return array;
}

// The globals a script starts with: init_data and arg. Leaves the stack as it was.
void SetScriptGlobals(const boost::shared_ptr<lua::RunTime>& rt, const Options& options, const std::string& name) {
  lua::RunTime::StackCleaner cleaner(rt);
  const boost::shared_ptr<lua::TableRef> arg = rt->CreateTableAtStack();
  arg->Set(0LL, name);
  long long index = 0;
  for (const std::string& value : options.scriptArgs) arg->Set(++index, value);
  rt->SetGlobalObject("arg", arg);
}

Json::Value CallFunction(const boost::shared_ptr<lua::RunTime>& rt, const Options& options) {
  std::vector<boost::shared_ptr<lua::ObjectRef>> args;
  for (const Json::Value& arg : options.callArgs) args.push_back(rt->CreateAtStack(arg));
  return ToJsonArray(rt->RunFunc(options.function, args));
}

Json::Value RunFile(const Options& options) {
  const std::shared_ptr<lua::LuaModuleContext> context =
      lua::LuaModuleContext::Create(options.target, false, options.runtime);
  context->SetCallLimits(std::chrono::milliseconds(options.timeoutMs), 0);
  context->SetPreLoadCallback(
      [&options](boost::shared_ptr<lua::RunTime>& rt, boost::shared_ptr<lua::TableRef>& args) {
        SetScriptGlobals(rt, options, options.target);
        args = rt->CreateAtStack(options.args)->AsTableRef();
      });
  Json::Value results;
  if (!options.hasCall) {
    context->SetPostLoadCallback(
        [&results](boost::shared_ptr<lua::RunTime>&, const std::vector<boost::shared_ptr<lua::ObjectRef>>& values) {
          results = ToJsonArray(values);
        });
  }
  std::string error;
  if (!context->Load(&error)) throw std::runtime_error(error);
  if (!options.hasCall) return results;
  lua::LuaModuleContext::Lock lock(context);
  return CallFunction(lock.GetRuntime(), options);
}

// CODE, or a script from standard input, named `name` in messages and tracebacks.
Json::Value RunCode(const Options& options, const std::string& code, const std::string& name) {
  const boost::shared_ptr<lua::RunTime> rt = lua::RunTime::Create(options.runtime);
  rt->SetCallLimits(std::chrono::milliseconds(options.timeoutMs), 0);
  rt->SetGlobalObject("init_data", rt->CreateAtStack(options.args));
  SetScriptGlobals(rt, options, name);
  rt->ClearStack();
  lua_State* L = rt->State();
  const std::string chunkName = "=" + name;
  if (luaL_loadbufferx(L, code.data(), code.size(), chunkName.c_str(), "t") != LUA_OK) {
    throw lua::RunTimeError(std::string("Lua: ") + lua_tostring(L, -1));
  }
  const auto results = rt->RunFunc(rt->ObjectAtStackTop(), {});
  if (options.hasCall) {
    rt->ClearStack();
    return CallFunction(rt, options);
  }
  return ToJsonArray(results);
}

Json::Value Run(const Options& options) {
  if (options.command == "eval") return RunCode(options, options.target, "eval");
  if (options.target == "-") return RunCode(options, ReadStdin(), "stdin");
  return RunFile(options);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::cout << kUsage;
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::cout << "corvane " << CORVANE_VERSION_STRING << "\n";
    return 0;
  }
  Options options;
  try {
    options = ParseCommandLine(argc, argv);
  } catch (const UsageError& e) {
    std::cerr << "corvane: " << e.what() << "\n\n" << kUsage;
    return kBadUsage;
  }
  // With --json-only, standard output becomes a copy of standard error for
  // everything the script writes (print, io.write, the libraries); the
  // results go to the original, kept aside.
  FILE* resultsOut = stdout;
  if (options.jsonOnly) {
    const int kept = dup(STDOUT_FILENO);
    resultsOut = kept < 0 ? nullptr : fdopen(kept, "w");
    if (resultsOut == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
      std::cerr << "corvane: cannot redirect standard output\n";
      return kFailed;
    }
  }
  try {
    DefaultCaLocation();
    lua::RegisterAllLibs();
    const Json::Value results = Run(options);
    std::fflush(stdout);
    if (!options.quiet) {
      const std::string text = utils::WriteJson(results, false) + "\n";
      std::fwrite(text.data(), 1, text.size(), resultsOut);
    }
    if (std::fflush(resultsOut) != 0) throw std::runtime_error("cannot write the results");
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    return kFailed;
  }
  return 0;
}
