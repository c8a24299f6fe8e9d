// What the files of the json script library share. Everything here is
// private to the library; scripts reach it through the "json" table.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace lua {
namespace jsonlib {

using Args = std::vector<boost::shared_ptr<ObjectRef>>;

// json_decode.cpp
bool DecodeText(lua_State* L, const char* text, size_t size, std::string* error);

// json_encode.cpp
bool EncodeValue(lua_State* L, int index, bool pretty, std::string* text, std::string* error,
                 bool finiteOnly = false);

// json_lib.cpp: argument readers and the (nil, message) failure result.
bool ReadPretty(boost::shared_ptr<RunTime>& rt, int index);
std::string StringArg(boost::shared_ptr<RunTime>& rt, int index, const char* name);
std::string PathArg(boost::shared_ptr<RunTime>& rt, int index);
int PushFailure(lua_State* L, const std::string& message);

// json_files.cpp
int Load(boost::shared_ptr<RunTime>& rt, const Args& args);
int Save(boost::shared_ptr<RunTime>& rt, const Args& args);

// json_storage.cpp
int OpenStorage(boost::shared_ptr<RunTime>& rt, const Args& args);
void CreateStorageMetatable(lua_State* L);

}  // namespace jsonlib
}  // namespace lua
