// Velon::NamespaceName: the name of a network namespace, of at most 150 bytes.
//
// The length is checked where a name is made, so nothing that holds one ever holds a longer one.

#pragma once

#include "framework/Exception.h"
#include "framework/Export.h"
#include "framework/String.h"
#include "platform/Velon/Companions.h"

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace Velon {

class IPSTATE_EXPORT NamespaceName {
 public:
   static constexpr size_t maxLength() { return 150; }

   /// The empty name: the namespace of the process.
   constexpr NamespaceName() = default;
   /// Each throws Zek::RangeException for more than maxLength() bytes. Null counts as empty.
   NamespaceName( const char * name ) : NamespaceName( Zek::String( name ) ) {}
   NamespaceName( std::string_view name ) : NamespaceName( Zek::String( name ) ) {}
   NamespaceName( const std::string & name ) : NamespaceName( Zek::String( name ) ) {}
   NamespaceName( Zek::String name ) : name_( std::move( name ) ) {
      // Deliberate: the text gives the number, not the name of the limit.
      if( name_.size() > maxLength() ) {
         Zek::throwRangeException( "NamespaceName::bytes > 150 not allowed" );
      }
   }

   const Zek::String & string() const { return name_; }
   const char * charPtr() const { return name_.charPtr(); }
   std::string_view view() const { return name_.view(); }
   size_t size() const { return name_.size(); }
   bool empty() const { return name_.empty(); }
   explicit operator bool() const { return !name_.empty(); }

   uint32_t hash() const { return name_.hash(); }
   friend bool operator==( const NamespaceName &, const NamespaceName & ) = default;
   friend std::strong_ordering operator<=>( const NamespaceName &,
                                            const NamespaceName & ) = default;

   /// The bytes as they are, also in the text of a value.
   using BareText = void;
   void appendTo( std::string & out ) const { name_.appendTo( out ); }
   std::string toString() const { return name_.toString(); }
   /// False for a text that is too long.
   static bool fromText( std::string_view text, NamespaceName & out ) {
      if( text.size() > maxLength() ) return false;
      out = NamespaceName( text );
      return true;
   }

 private:
   Zek::String name_;
};

inline std::ostream &
operator<<( std::ostream & out, const NamespaceName & name ) {
   return out << name.view();
}

} // namespace Velon
