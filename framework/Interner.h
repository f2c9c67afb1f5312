// The one table of interned texts of a process.
//
// A text goes in once and stays for the life of the process; its handle is a 32-bit index, so two
// equal texts have equal handles and the text is found from the handle without a search. Names
// and interface ids (framework/Name.h, platform/Velon/IntfId.h) are such handles.
//
// Shape: nodes with four children each, descended by two bits of the text's hash at a time, below
// a root of 4096 places taken by its lowest bits; where all bits agree, by those of a second hash
// that is keyed by a secret of the process: texts that a peer chose make no list. Collections walk
// in the order of the same bits: texts that come from such a walk find the way to their nodes in
// the processor's cache, however many there are. A node is linked by one compare-and-swap and never
// moves or goes away. Nodes lie in chunks that double in size.
//
// Threads: any, without locks. Finding a known text only reads. Static storage is constant-
// initialised: static initialisers of other files may intern.

#pragma once

#include "framework/Export.h"
#include "framework/Hash.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Zek {

/// Hash of a text, the same for all text-like keys: 0 for the empty text.
inline uint32_t
textHash( std::string_view text ) {
   return text.empty() ? 0 : hashBytes( text.data(), text.size() );
}

/// Handle of an interned text. All zero for the empty text, which takes no place in the table.
struct InternedText {
   uint32_t index = 0;
   /// bitReverse( textHash( text ) ).
   uint32_t reversedHash = 0;
};

class IPSTATE_EXPORT Interner {
 public:
   /// The handle of `text`, which is put in if it is new. Throws std::bad_alloc when memory or
   /// the 2^32 places of 16 bytes are used up; the table is unchanged then.
   static InternedText intern( std::string_view text );

   /// Finds the handle of `text` without putting it in; false if no one interned it before.
   static bool find( std::string_view text, InternedText & out );

   /// The text of a handle, valid for the life of the process. A zero byte follows its last one.
   static std::string_view view( uint32_t index );
   /// Fetches the text of a handle into the cache.
   static void prefetch( uint32_t index );

   /// Texts interned so far, the empty one not counted, and the bytes that they take.
   static size_t texts();
   static size_t bytes();
};

} // namespace Zek
