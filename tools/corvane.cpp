// corvane: runs a script file or a chunk of code with every library
// registered and prints its results (or those of one of its functions) as one
// JSON array. Errors go to standard error with exit status 1; bad usage exits
// with status 2.
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/reader.h>
#include <json/value.h>
#include <lua.hpp>

#include "lua/json.h"
#include "lua/libs/libs.h"
#include "lua/module_context.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"
#include "utils/json_writer.h"

namespace {

const char kUsage[] =
    "Usage:\n"
    "  corvane run SCRIPT [--args JSON] [--call FUNCTION [--call-args JSON_ARRAY]]\n"
    "  corvane eval CODE [--args JSON]\n"
    "  corvane --version | --help\n"
    "\n"
    "Runs SCRIPT (or CODE) with every library registered. --args, an object or\n"
    "an array (default {}), becomes the script's init_data. With --call, the\n"
    "script is loaded and then FUNCTION is called with the elements of\n"
    "--call-args (default []) as its arguments. The results are printed as one\n"
    "JSON array. Errors exit with status 1, bad usage with status 2.\n";

constexpr int kFailed = 1;
constexpr int kBadUsage = 2;

struct Options {
  std::string command;  // "run" or "eval"
  std::string target;   // the script's path or the code
  Json::Value args{Json::objectValue};
  std::string function;
  Json::Value callArgs{Json::arrayValue};
  bool hasCall = false;
  bool hasCallArgs = false;
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

Options ParseCommandLine(int argc, char** argv) {
  Options options;
  if (argc < 2) throw UsageError("a command is missing");
  options.command = argv[1];
  if (options.command != "run" && options.command != "eval") {
    throw UsageError("unknown command '" + options.command + "'");
  }
  if (argc < 3) throw UsageError(options.command == "run" ? "SCRIPT is missing" : "CODE is missing");
  options.target = argv[2];
  for (int i = 3; i < argc; ++i) {
    std::string name = argv[i];
    std::string value;
    const size_t equals = name.find('=');
    if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.erase(equals);
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      throw UsageError(name.compare(0, 2, "--") == 0 ? name + " needs a value" : "unexpected '" + name + "'");
    }
    if (name == "--args") {
      options.args = ParseJsonOption(name, value);
      if (!options.args.isObject() && !options.args.isArray()) throw UsageError("--args must be an object or an array");
    } else if (name == "--call" && options.command == "run") {
      options.function = value;
      options.hasCall = true;
    } else if (name == "--call-args" && options.command == "run") {
      options.callArgs = ParseJsonOption(name, value);
      if (!options.callArgs.isArray()) throw UsageError("--call-args must be an array");
      options.hasCallArgs = true;
    } else {
      throw UsageError("unknown option '" + name + "'");
    }
  }
  if (options.hasCallArgs && !options.hasCall) throw UsageError("--call-args needs --call");
  return options;
}

Json::Value ToJsonArray(const std::vector<boost::shared_ptr<lua::ObjectRef>>& results) {
  Json::Value array(Json::arrayValue);
  for (const boost::shared_ptr<lua::ObjectRef>& result : results) array.append(result->AsJsonValue());
  return array;
}

Json::Value Run(const Options& options) {
  const std::shared_ptr<lua::LuaModuleContext> context = lua::LuaModuleContext::Create(options.target, false);
  context->SetPreLoadCallback(
      [&options](boost::shared_ptr<lua::RunTime>& rt, boost::shared_ptr<lua::TableRef>& args) {
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
  const boost::shared_ptr<lua::RunTime> rt = lock.GetRuntime();
  std::vector<boost::shared_ptr<lua::ObjectRef>> args;
  for (const Json::Value& arg : options.callArgs) args.push_back(rt->CreateAtStack(arg));
  return ToJsonArray(rt->RunFunc(options.function, args));
}

Json::Value Eval(const Options& options) {
  const std::shared_ptr<lua::LuaModuleContext> context = lua::LuaModuleContext::Create();
  lua::LuaModuleContext::Lock lock(context);
  const boost::shared_ptr<lua::RunTime> rt = lock.GetRuntime();
  rt->SetGlobalObject("init_data", rt->CreateAtStack(options.args));
  rt->ClearStack();
  lua_State* L = rt->State();
  // Named "eval" in messages and tracebacks, as a file would be by its path.
  if (luaL_loadbufferx(L, options.target.data(), options.target.size(), "=eval", "t") != LUA_OK) {
    throw lua::RunTimeError(std::string("Lua: ") + lua_tostring(L, -1));
  }
  rt->Pcall(0, LUA_MULTRET);
  return ToJsonArray(rt->ExtractRetVals(0));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::cout << kUsage;
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::cout << "corvane " << CORVANE_VERSION << "\n";
    return 0;
  }
  Options options;
  try {
    options = ParseCommandLine(argc, argv);
  } catch (const UsageError& e) {
    std::cerr << "corvane: " << e.what() << "\n\n" << kUsage;
    return kBadUsage;
  }
  try {
    lua::RegisterAllLibs();
    const Json::Value results = options.command == "run" ? Run(options) : Eval(options);
    std::cout << utils::WriteJson(results, false) << "\n";
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    return kFailed;
  }
  return 0;
}
