// Raw-stack access to the JSON annotations for the conversions and the json
// library, which annotate every table they make and cannot afford a handle
// per lookup. Callers make room on the stack first (three slots).
#pragma once

#include <lua.hpp>

namespace lua {
namespace detatils {

// Pushes the table of metadata and returns its absolute index; returns 0 and
// pushes nothing when the json library is not open. Records the deferred
// annotations first, so that the table is complete for its reader.
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

// Annotations made in bulk by decoding. Probing the table of metadata, which
// is as large as all annotated tables together, costs a cache miss or two
// per table; appending to a list costs next to nothing. So decoded tables
// are listed (weakly, per kind, in batches: small decodes share one, a large
// one gets its own) and moved into the table of metadata only when somebody
// reads it: PushAllMetadatas, and scripts indexing it, whose
// metatable sends them through FlushDeferredAnnotations. A decoded document
// that nobody asks about is never recorded at all.
//
// The decode that fills the lists keeps their counts itself and stores them
// in Finish. Whatever runs meanwhile on the same thread (a finalizer that the
// collector starts) must not append to them: a decode nested in another is
// `nested` and records its tables in the table of metadata directly. A flush
// meanwhile only empties the entries below the stored count, which leaves
// the running decode's entries where they are.
class DeferredAnnotations {
 public:
  // Pushes the two sets and their open batches, or with `nested` the table
  // of metadata; does nothing when the json library is not open.
  DeferredAnnotations(lua_State* L, bool nested);
  // Lists the table at `index` (absolute) as an object (0) or array (1).
  void Add(int index, int type);
  // Stores the counts, seals a batch that has grown large, and prunes the
  // sealed batches that the collector has emptied or thinned out.
  void Finish();

 private:
  lua_State* L_;
  int metas_ = 0;  // only when nested
  int sets_[2] = {0, 0};
  int lists_[2] = {0, 0};
  lua_Integer counts_[2] = {0, 0};
};

// Moves the deferred annotations into the table of metadata at `metas`.
void FlushDeferredAnnotations(lua_State* L, int metas);

}  // namespace detatils
}  // namespace lua
