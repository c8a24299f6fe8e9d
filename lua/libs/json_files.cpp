// json.load and json.save: whole JSON files to script values and back.
#include "lua/libs/json_internal.h"

#include <string>

#include "utils/files.h"
#include "utils/json_storage.h"

namespace lua {
namespace jsonlib {

int Load(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (args.size() != 1) rt->Error("Bad arguments, expected: (path)");
  const std::string path = PathArg(rt, 1);
  lua_State* L = rt->State();
  std::string text;
  std::string error;
  if (!utils::ReadRegularFile(path, utils::kMaxJsonFileBytes, &text, &error)) return PushFailure(L, error);
  if (DecodeText(L, text.data(), text.size(), &error)) return 1;
  return PushFailure(L, path + ": " + error);
}

int Save(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (args.size() < 2 || args.size() > 3) rt->Error("Bad arguments, expected: (path, value[, {pretty = bool}])");
  const std::string path = PathArg(rt, 1);
  const bool pretty = ReadPretty(rt, 3);
  lua_State* L = rt->State();
  std::string text;
  std::string error;
  if (!EncodeValue(L, 2, pretty, &text, &error)) rt->Error("json.save: " + error);
  if (pretty) text += '\n';
  if (!utils::WriteFileAtomically(path, text, &error)) return PushFailure(L, error);
  lua_pushboolean(L, 1);
  return 1;
}

}  // namespace jsonlib
}  // namespace lua
