// Raw-stack access to the JSON annotations for the conversions and the json
// library, which annotate every table they make and cannot afford a handle
// per lookup. Callers make room on the stack first (three slots).
#pragma once

#include <lua.hpp>

namespace lua {
namespace detatils {

// Pushes the table of metadata and returns its absolute index; returns 0 and
// pushes nothing when the json library is not open.
int PushAllMetadatas(lua_State* L);

// Pushes the metadata table that every table of one annotation shares. It is
// made on first use and kept in the registry, so annotating a table costs one
// raw store instead of a new table.
void PushSharedMetadata(lua_State* L, int type);

// The integer at "type" of the metadata of the value at `index`, given the
// table of metadata at `metas` (0: there is none); 2 (not annotated) when
// nothing is recorded. Leaves the stack as it was.
lua_Integer AnnotationOf(lua_State* L, int metas, int index);

// Records `type` for the table at `index` by pointing its entry at the shared
// metadata table of that kind.
void Annotate(lua_State* L, int metas, int index, int type);

}  // namespace detatils
}  // namespace lua
