// Zek::Name: an interned, immutable name.
//
// One machine word: the handle of the text (framework/Interner.h) and the text's reversed hash,
// so equality and hash take constant time and look at no text. Orders lexicographically by
// bytes. A name is never freed: make names of what identifies things, Strings of what describes
// them.
//
// Threads: names may be made, copied and read on any thread.

#pragma once

#include "framework/Export.h"
#include "framework/Hash.h"
#include "framework/Interner.h"
#include "framework/String.h"

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Zek {

class IPSTATE_EXPORT Name {
 public:
   /// The empty name.
   constexpr Name() = default;
   /// Null counts as empty.
   Name( const char * text ) : Name( text ? std::string_view( text ) : std::string_view() ) {}
   Name( std::string_view text ) : text_( Interner::intern( text ) ) {}
   Name( const std::string & text ) : Name( std::string_view( text ) ) {}
   Name( const String & text ) : Name( text.view() ) {}

   /// The texts and `separator` between them; without `separator` where one of them is empty.
   static Name joined( std::string_view left, std::string_view separator, std::string_view right );
   /// The name of this text if anyone made it before; never makes one.
   static bool find( std::string_view text, Name & out ) {
      return Interner::find( text, out.text_ );
   }

   /// Valid for the life of the process; a zero byte follows the last one.
   std::string_view view() const { return Interner::view( text_.index ); }
   const char * charPtr() const { return view().data(); }
   /// Fetches the text into the cache.
   void prefetch() const { Interner::prefetch( text_.index ); }
   size_t size() const { return view().size(); }
   constexpr bool empty() const { return text_.index == 0; }
   constexpr explicit operator bool() const { return text_.index != 0; }

   constexpr uint32_t hash() const { return bitReverse( text_.reversedHash ); }
   constexpr uint32_t reversedHash() const { return text_.reversedHash; }

   friend constexpr bool operator==( Name a, Name b ) { return a.text_.index == b.text_.index; }
   friend std::strong_ordering operator<=>( Name a, Name b ) {
      return a == b ? std::strong_ordering::equal : a.view() <=> b.view();
   }
   /// Comparison with a text makes no name of it.
   template< class T >
   requires std::convertible_to< const T &, std::string_view >
   friend bool operator==( Name a, const T & b ) { return a.view() == std::string_view( b ); }
   friend bool operator==( Name a, const String & b ) { return a.view() == b.view(); }

   /// The bytes as they are.
   void appendTo( std::string & out ) const { out.append( view() ); }
   std::string toString() const { return std::string( view() ); }
   /// Any text reads back as itself.
   static bool fromText( std::string_view text, Name & out ) {
      out = Name( text );
      return true;
   }

 private:
   alignas( 8 ) InternedText text_;
};

static_assert( sizeof( Name ) == 8 && std::is_trivially_copyable_v< Name > );

IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, Name name );

} // namespace Zek
